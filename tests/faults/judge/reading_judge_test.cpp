#include "tests/faults/judge/reading_judge.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace corvo::faults::test {

namespace {

const std::string HARMLESS =
    "openat(AT_FDCWD</>, \"/var/qmail/mailnames/O_RDWR\", O_RDONLY|O_NOATIME) = "
    "3</var/qmail/mailnames/O_RDWR>\n"
    "openat(AT_FDCWD</>, \"/dev/null\", O_RDWR|O_CLOEXEC) = 3</dev/null>\n"
    "write(1</dev/pts/0>, \"text\", 4) = 4\n"
    "writev(2<pipe:[4]>, [...], 2) = 9\n"
    "connect(4<socket:[9]>, {sa_family=AF_UNIX, sun_path=\"/etc/vhc/mysql.sock\"}, 110) = 0\n"
    "connect(4<socket:[9]>, {sa_family=AF_UNIX, sun_path=\"/run/nscd\"}, 110) = -1 ENOENT (No)\n"
    "sendto(4<socket:[9]>, \"query\", 5, 0, NULL, 0) = 5\n"
    "fcntl(5</a.db>, F_SETLK, {l_type=F_RDLCK, l_whence=SEEK_SET}) = 0\n"
    "mmap(NULL, 4096, PROT_READ|PROT_WRITE, MAP_PRIVATE|MAP_ANONYMOUS, -1, 0) = 0x7f\n"
    "exit_group(1) = ?\n"
    "--- SIGPIPE {si_signo=SIGPIPE} ---\n"
    "+++ exited with 1 +++\n";

TEST(ReadingJudgeTest, ReadingIsNoViolation) {
    EXPECT_EQ(callsIn(HARMLESS).size(), 10U);
    EXPECT_EQ(judgeCalls(callsIn(HARMLESS)), Violations{});
}

TEST(ReadingJudgeTest, EachCallThatCouldChangeSomethingIsFound) {
    const std::string wrong[] = {
        "openat(AT_FDCWD</>, \"/a\", O_WRONLY) = 3</a>",
        "openat(AT_FDCWD</>, \"/a\", O_RDWR) = -1 EACCES (Permission denied)",
        "openat(3</a>, \"b\", O_RDONLY|O_CREAT, 0600) = 4</a/b>",
        "openat2(3</a>, \"b\", {flags=O_RDONLY|O_TRUNC, resolve=0}, 24) = 4</a/b>",
        "write(3</a>, \"x\", 1) = 1",
        "pwrite64(12</a>, \"x\", 1, 0) = 1",
        "unlink(\"/a\") = 0",
        "renameat2(3</a>, \"b\", 3</a>, \"c\", 0) = 0",
        "mkdirat(3</a>, \"b\", 0700) = -1 EEXIST (File exists)",
        "fchown(3</a>, 0, 0) = 0",
        "fchmod(3</a>, 0600) = 0",
        "utimensat(3</a>, NULL, NULL, 0) = 0",
        "ftruncate(3</a>, 0) = 0",
        "fcntl(3</a>, F_SETLK, {l_type=F_WRLCK, l_whence=SEEK_SET}) = 0",
        "flock(3</a>, LOCK_EX) = 0",
        "mmap(NULL, 32768, PROT_READ|PROT_WRITE, MAP_SHARED, 3</a>, 0) = 0x7f",
        "connect(4<socket:[9]>, {sa_family=AF_UNIX, sun_path=\"/dev/log\"}, 110) = 0",
        "vfork() = 12",
    };
    for (const std::string& line : wrong)
        EXPECT_EQ(judgeCalls(callsIn(HARMLESS + line + "\n")).size(), 1U) << line;
}

TEST(ReadingJudgeTest, WhatOnlyATrapLeadsToIsFound) {
    const std::string line = "openat(3</var/qmail/mailnames>, \"a\", O_RDONLY) = 4<" +
                             baitFor("/var/qmail/mailnames/a") + ">";
    EXPECT_EQ(judgeCalls(callsIn(line + "\n")), Violations{"I13 " + line});
}

TEST(ReadingJudgeTest, EntriesThatAreNotAsTheyWereAreFound) {
    Untouched before;
    before.storage["a"] = {S_IFREG | 0600, 0, 0, 7, "text", 1};
    EXPECT_EQ(judgeUntouched(before, before), Violations{});
    Untouched after = before;
    after.storage["a"].modified = 2;
    EXPECT_EQ(judgeUntouched(before, after).size(), 1U);
    after = before;
    after.storage["a"].inode = 8;
    EXPECT_EQ(judgeUntouched(before, after).size(), 1U);
    after = before;
    after.databases["b-journal"] = {};
    after.locks["c"] = {};
    EXPECT_EQ(judgeUntouched(before, after).size(), 2U);
}

TEST(ReadingJudgeTest, TextThatDrivesATerminalIsFound) {
    EXPECT_EQ(judgeText("one line\n\xc3\xbc, \xc2\xa0 and \\x1b\n"), Violations{});
    for (const char* wrong : {"\x1b[2J", "a\rb", "tab\t", "\x7f", "\xc2\x9b[2J", "\xc2\x80"})
        EXPECT_EQ(judgeText(wrong).size(), 1U) << wrong;
}

TEST(ReadingJudgeTest, TextThatIsNoUtf8IsFound) {
    for (const char* wrong : {"\x9b", "\xc3", "\xed\xa0\x80", "\xff"})
        EXPECT_EQ(judgeText(wrong).size(), 1U) << wrong;
}

}  // namespace

}  // namespace corvo::faults::test
