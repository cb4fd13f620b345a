#include "mail/quota/maildirpp_quota.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <string>

#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/unit/mail/quota/maildir_fixture.h"

namespace corvo::test {
namespace {

const std::string WARNING = "WARNING: @attachments directory is big enough to disable delivery!\n";

class StoreQuotaTest : public QuotaTest {};

TEST_F(StoreQuotaTest, FileHoldsTheLimitAndWhatWasCounted) {
    writeFile(MAILDIR + "/cur/1.M1P1.host,S=1200:2,S", "");
    writeFile(MAILDIR + "/new/2.host,S=300", "");
    writeFile(MAILDIR + "/cur/3.host", std::string(400, 'x'));
    EXPECT_EQ(store(104857600), 1);
    EXPECT_EQ(maildirsize(), "104857600S,0C\n        1900           3\n");
}

TEST_F(StoreQuotaTest, HeaderFollowsFromTheQuota) {
    const struct {
        long long quota;
        const char* header;
    } cases[] = {
        {0, "1S,0C"},  // blocks; 0 would be no limit
        {1, "1S,0C"},
        {2, "2S,0C"},
        {-1, "0S,0C"},
        {LLONG_MIN, "0S,0C"},
        {LLONG_MAX, "9223372036854775807S,0C"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.quota);
        EXPECT_EQ(store(c.quota), 1);
        EXPECT_EQ(maildirsize(), std::string(c.header) + "\n           0           0\n");
    }
}

TEST_F(StoreQuotaTest, FileBelongsToPopuserWithModeLessTheUmask) {
    for (const mode_t wanted : {022U, 077U, 0U}) {
        mask = wanted;
        umask(mask);
        EXPECT_EQ(store(5), 1);
        EXPECT_EQ(ownerOf(QUOTA_FILE), popuser());
        EXPECT_EQ(modeOf(QUOTA_FILE), mask == 077 ? "0600" : "0644");
    }
}

TEST_F(StoreQuotaTest, OldFileIsReplacedByANewOne) {
    writeFile(QUOTA_FILE, "1S,0C\n1 1\n2 2\n");
    const ino_t old = inodeOf(QUOTA_FILE);
    EXPECT_EQ(store(5), 1);
    EXPECT_NE(inodeOf(QUOTA_FILE), old);
    EXPECT_EQ(maildirsize(), "5S,0C\n           0           0\n");
    EXPECT_EQ(namesIn(MAILDIR + "/tmp"), std::vector<std::string>());
    EXPECT_TRUE(pauses.empty());
}

TEST_F(StoreQuotaTest, NamesAreLowerCasedAndTheDomainConverted) {
    makeDirectory(MAILNAMES + "/xn--bcher-kva.example/info/Maildir/tmp");
    EXPECT_EQ(store_mbox_quota("B\xC3\xBC"
                               "cher.Example",
                               "INFO", 5),
              1);
    EXPECT_TRUE(exists(MAILNAMES + "/xn--bcher-kva.example/info/Maildir/maildirsize"));
    EXPECT_EQ(store_mbox_quota("EXAMPLE.com", "Info", 7), 1);
    EXPECT_EQ(header(), "7S,0C");
}

TEST_F(StoreQuotaTest, MailNamesRootIsLowerCasedToo) {
    writeFile("/etc/vhc/vhc.conf", "CORVO_MAILNAMES_D /var/QMAIL/MailNames\n");
    const ProcessResult result = runForked([this] { std::printf("%d", store(5)); });
    EXPECT_EQ(result.out, "1");
    EXPECT_EQ(header(), "5S,0C");
}

TEST_F(StoreQuotaTest, DomainThatCannotBeConvertedFails) {
    const std::string domain = std::string(64, 'a') + ".example";
    errno = ENOENT;
    expectFailure(store_mbox_quota(domain.c_str(), "info", 5), EINVAL);
    EXPECT_EQ(message(), "idn_toascii(" + domain + ") failed: Invalid length\n");
}

TEST_F(StoreQuotaTest, NamesThatAreNoSinglePathComponentFail) {
    const struct {
        const char* domain;
        const char* mailname;
        const char* path;
    } cases[] = {
        {"", "info", "//info"},
        {".", "info", "/./info"},
        {"..", "info", "/../info"},
        {"../mailnames/example.com", "info", "/../mailnames/example.com/info"},
        {"/", "info", "///info"},
        {"example.com", "", "/example.com/"},
        {"example.com", ".", "/example.com/."},
        {"example.com", "..", "/example.com/.."},
        {"example.com", "x/../INFO", "/example.com/x/../info"},
        {"a\xEF\xBC\x8F"
         "b",
         "info", "/a/b/info"},  // a full-width slash becomes a plain one
    };
    makeDirectory(MAILNAMES + "/a/b/info/Maildir/tmp");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        expectFailure(store_mbox_quota(c.domain, c.mailname, 5), EINVAL);
        EXPECT_EQ(message(), "unable to change to mbox folder " + MAILNAMES + c.path +
                                 ": Invalid argument\nSystem error 22: Invalid argument\n");
    }
    EXPECT_FALSE(exists(MAILNAMES + "/a/b/info/Maildir/maildirsize"));
}

TEST_F(StoreQuotaTest, OtherOddMailNamesAreLegal) {
    for (const std::string name : {"...", ".hidden", "%s", "a b", "\xFF"}) {
        SCOPED_TRACE(name);
        makeDirectory(std::filesystem::path(HOME).replace_filename(name) / "Maildir/tmp");
        EXPECT_EQ(store_mbox_quota("example.com", name.c_str(), 5), 1);
    }
}

TEST_F(StoreQuotaTest, HomePathOf4096CharactersIsTooLong) {
    const std::size_t room = 4095 - (MAILNAMES + "/example.com/").size();
    errno = EACCES;
    expectFailure(store_mbox_quota("example.com", std::string(room + 1, 'a').c_str(), 5),
                  ENAMETOOLONG);
    EXPECT_EQ(message(), "domain and/or user name too long to be stored on the filesystem\n");
    const std::string longest(room, 'a');
    expectFailure(store_mbox_quota("example.com", longest.c_str(), 5), ENAMETOOLONG);
    EXPECT_EQ(message(), "unable to change to mbox folder " + MAILNAMES + "/example.com/" +
                             longest +
                             ": File name too long\nSystem error 36: File name too long\n");
}

TEST_F(StoreQuotaTest, MissingHomeFails) {
    expectFailure(store_mbox_quota("example.com", "nobody", 5), ENOENT);
    EXPECT_EQ(message(), "unable to change to mbox folder " + MAILNAMES +
                             "/example.com/nobody: No such file or directory\n"
                             "System error 2: No such file or directory\n");
}

TEST(StoreQuotaWithoutDescriptorsTest, CurrentDirectoryThatCannotBeRememberedFails) {
    StreamCapture streams;
    const NoDescriptors limit;
    EXPECT_EQ(store_mbox_quota("example.com", "info", 5), 0);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(streams.both(),
              "unable to get current working directory\n"
              "System error 24: Too many open files\n");
}

TEST_F(StoreQuotaTest, RemovedCurrentDirectoryFails) {
    {
        const InRemovedDirectory here;
        expectFailure(store(5), ENOENT);
    }
    EXPECT_EQ(message(),
              "unable to get current working directory\n"
              "System error 2: No such file or directory\n");
}

TEST_F(StoreQuotaTest, MissingMaildirFailsSilently) {
    std::filesystem::remove_all(MAILDIR);
    EXPECT_EQ(store(5), 0);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(StoreQuotaTest, AttachmentsAreTakenOffTheQuota) {
    writeFile(ATTACHMENTS + "/a", std::string(300, 'x'));
    writeFile(ATTACHMENTS + "/deep/b", std::string(200, 'x'));
    const struct {
        long long quota;
        const char* header;
    } cases[] = {{1000, "500S,0C"}, {501, "1S,0C"}, {500, "1S,0C"}, {-1, "0S,0C"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.quota);
        EXPECT_EQ(store(c.quota), 1);
        EXPECT_EQ(header(), c.header);
    }
}

TEST_F(StoreQuotaTest, AttachmentsBeyondTheQuotaBlockDelivery) {
    constexpr off_t MIB = 1048576;
    writeFile(ATTACHMENTS + "/big", "");
    ASSERT_EQ(truncate((ATTACHMENTS + "/big").c_str(), 60 * MIB), 0);
    errno = EACCES;
    EXPECT_EQ(store(50 * MIB), 1);
    EXPECT_EQ(header(), "1S,0C");  // 0 would be no limit
    EXPECT_EQ(message(), WARNING);
    for (const long long quota : {60 * MIB - 1, off_t{0}}) {
        EXPECT_EQ(store(quota), 1);
        EXPECT_EQ(message(), WARNING);
    }
}

TEST_F(StoreQuotaTest, OnlyADirectoryHoldsAttachments) {
    writeFile("/var/qmail/elsewhere/a", std::string(300, 'x'));
    makeLink("/var/qmail/elsewhere", ATTACHMENTS, POPUSER_UID);
    EXPECT_EQ(store(1000), 1);
    EXPECT_EQ(header(), "1000S,0C");
    std::filesystem::remove(ATTACHMENTS);
    writeFile(ATTACHMENTS, std::string(300, 'x'));
    EXPECT_EQ(store(1000), 1);
    EXPECT_EQ(header(), "1000S,0C");
}

TEST_F(StoreQuotaTest, AttachmentsBehindALinkOfRootCount) {
    writeFile("/var/qmail/elsewhere/a", std::string(300, 'x'));
    makeLink("/var/qmail/elsewhere", ATTACHMENTS);
    EXPECT_EQ(store(1000), 1);
    EXPECT_EQ(header(), "700S,0C");
}

void makeDirectoriesDeep(const std::string& top, int depth) {
    makeDirectory(top);
    ASSERT_EQ(chdir(top.c_str()), 0);
    for (int i = 0; i < depth; ++i) {
        ASSERT_EQ(mkdir("d", 0700), 0);
        ASSERT_EQ(chdir("d"), 0);
    }
    ASSERT_EQ(chdir("/var/qmail"), 0);
}

TEST_F(StoreQuotaTest, AttachmentsThatCannotBeCountedLeaveTheHomeAsCurrentDirectory) {
    makeDirectoriesDeep(ATTACHMENTS, 520);
    expectFailure(store(1000), ELOOP);
    EXPECT_EQ(message(),
              "unable to count attachments folder size\n"
              "System error 40: Too many levels of symbolic links\n");
    directory = HOME;
}

TEST_F(StoreQuotaTest, UnlimitedQuotaDoesNotCountAttachments) {
    makeDirectoriesDeep(ATTACHMENTS, 520);
    EXPECT_EQ(store(-1), 1);
    EXPECT_EQ(header(), "0S,0C");
}

TEST_F(StoreQuotaTest, UnknownOwnerIsRoot) {
    removeUser("popuser");
    EXPECT_EQ(store(5), 1);
    EXPECT_EQ(ownerOf(QUOTA_FILE), "0:0");
    // Once for the owner, once for the group.
    EXPECT_EQ(message(),
              "Unable to getpwnam for user popuser\n"
              "Unable to getpwnam for user popuser\n");
}

/// Two messages of 70 bytes lie in the Maildir.
class ReadQuotaTest : public QuotaTest {
protected:
    ReadQuotaTest() {
        writeFile(MAILDIR + "/cur/1,S=30", "");
        writeFile(MAILDIR + "/new/2,S=40", "");
    }

    int read(int strict) {
        return get_maildirpp_usage_and_limits(MAILDIR.c_str(), strict, &bytes, &messages,
                                              &byteLimit, &countLimit);
    }

    void expectRead(long long expectedBytes, long long expectedMessages,
                    long long expectedByteLimit, long long expectedCountLimit) {
        EXPECT_EQ(bytes, expectedBytes);
        EXPECT_EQ(messages, expectedMessages);
        EXPECT_EQ(byteLimit, expectedByteLimit);
        EXPECT_EQ(countLimit, expectedCountLimit);
    }

    long long bytes = -7;
    long long messages = -7;
    long long byteLimit = -7;
    long long countLimit = -7;
};

const std::string CORRUPTED =
    "maildirsize quota header is corrupted. Please run mail_rebuild utility to fix.";

TEST_F(ReadQuotaTest, CorruptedHeaderIsLoggedAsAnError) {
    writeFile(QUOTA_FILE, "-5S\n");
    EXPECT_EQ(read(1), 0);
    expectLogged({CORRUPTED});
}

TEST_F(ReadQuotaTest, WhatWasStoredIsReadBack) {
    EXPECT_EQ(store(104857600), 1);
    for (const int strict : {0, 1}) {
        EXPECT_EQ(read(strict), 1);
        expectRead(70, 2, 104857600, 0);
    }
}

TEST_F(ReadQuotaTest, UsageLinesAreBelievedAndSummed) {
    const struct {
        const char* text;
        long long bytes;
        long long messages;
        long long byteLimit;
        long long countLimit;
    } cases[] = {
        {"1000S,5C\n", 0, 0, 1000, 5},
        {"2000S\n 100 1\n", 100, 1, 2000, 0},
        {"abc\n", 0, 0, 0, 0},
        {"\n5 1\n", 5, 1, 0, 0},
        {"1000S,0C\n         500           5\n        -100          -1\n", 400, 4, 1000, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        writeFile(QUOTA_FILE, c.text);
        EXPECT_EQ(read(1), 1);
        expectRead(c.bytes, c.messages, c.byteLimit, c.countLimit);
    }
}

TEST_F(ReadQuotaTest, CorruptedHeaderIsLoggedAndUsageRecountedUnlessStrict) {
    for (const std::string text :
         {"-5S\n 1 1\n", "1000\n 1 1\n", "1000X,5\n 1 1\n", "1000S,5CX\n 1 1\n",
          "99999999999999999999S\n", "1000S,0C", ""}) {
        SCOPED_TRACE(text);
        writeFile(QUOTA_FILE, text);
        EXPECT_EQ(read(1), 0);
        EXPECT_EQ(errno, text[0] == '9' ? ERANGE : EINVAL);
        EXPECT_EQ(byteLimit, LLONG_MAX);
        EXPECT_EQ(countLimit, LLONG_MAX);
        expectLogged({CORRUPTED});
        EXPECT_EQ(read(0), 1);
        expectRead(70, 2, LLONG_MAX, LLONG_MAX);
        expectLogged({CORRUPTED});
    }
}

TEST_F(ReadQuotaTest, BadUsageIsRecountedUnlessStrictAndKeepsTheLimits) {
    const std::string texts[] = {"1000S,5C\n 1 1",    "1000S,5C\nabc\n",
                                 "1000S,5C\n1 1\n\n", "1000S,5C\n-1 1\n",
                                 "1000S,5C\n1 -1\n",  std::string("1000S,5C\n1 1\n\0\0\0", 16)};
    for (const std::string& text : texts) {
        SCOPED_TRACE(text);
        writeFile(QUOTA_FILE, text);
        EXPECT_EQ(read(1), 0);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(read(0), 1);
        expectRead(70, 2, 1000, 5);
    }
}

TEST_F(ReadQuotaTest, MissingFileIsRecountedUnlessStrict) {
    EXPECT_EQ(read(1), 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(read(0), 1);
    expectRead(70, 2, LLONG_MAX, LLONG_MAX);
}

TEST_F(ReadQuotaTest, FileOf5120BytesIsReadAndALongerOneIsNot) {
    std::string text = "1000S,0C\n";
    while (text.size() + 12 <= 5120)
        text += "    1     1\n";
    text.insert(9, 5120 - text.size(), ' ');
    const long long lines = (5120 - 9) / 12;
    writeFile(QUOTA_FILE, text);
    EXPECT_EQ(read(1), 1);
    expectRead(lines, lines, 1000, 0);
    writeFile(QUOTA_FILE, text.insert(9, " "));
    EXPECT_EQ(read(1), 0);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(read(0), 1);
    expectRead(70, 2, LLONG_MAX, LLONG_MAX);
}

TEST_F(ReadQuotaTest, OnlyARegularFileIsRead) {
    ASSERT_EQ(mkfifo(QUOTA_FILE.c_str(), 0600), 0);
    EXPECT_EQ(read(1), 0);
    EXPECT_EQ(errno, EINVAL);
    std::filesystem::remove(QUOTA_FILE);
    makeDirectory(QUOTA_FILE);
    EXPECT_EQ(read(1), 0);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(ReadQuotaTest, MissingMaildirFailsWithTheLargestLimits) {
    std::filesystem::remove_all(MAILDIR);
    for (const int strict : {0, 1}) {
        EXPECT_EQ(read(strict), 0);
        EXPECT_EQ(errno, ENOENT);
        EXPECT_EQ(byteLimit, LLONG_MAX);
        EXPECT_EQ(countLimit, LLONG_MAX);
    }
}

TEST(ReadQuotaWithoutDescriptorsTest, CurrentDirectoryThatCannotBeRememberedFailsSilently) {
    long long used[2] = {};
    const StreamCapture nothingSaid;
    const NoDescriptors limit;
    EXPECT_EQ(get_maildirpp_usage("/", &used[0], &used[1]), 0);
    EXPECT_EQ(errno, EMFILE);
}

TEST_F(ReadQuotaTest, RemovedCurrentDirectoryFailsSilently) {
    writeFile(QUOTA_FILE, "1000S,0C\n500 5\n");
    for (const int strict : {0, 1}) {
        const InRemovedDirectory here;
        EXPECT_EQ(read(strict), 0);
        EXPECT_EQ(errno, ENOENT);
        EXPECT_EQ(byteLimit, LLONG_MAX);
        EXPECT_EQ(countLimit, LLONG_MAX);
    }
}

TEST_F(ReadQuotaTest, UsageAloneIsReadOrRecounted) {
    writeFile(QUOTA_FILE, "1000S,0C\n500 5\n");
    EXPECT_EQ(get_maildirpp_usage(MAILDIR.c_str(), &bytes, &messages), 1);
    EXPECT_EQ(bytes, 500);
    EXPECT_EQ(messages, 5);
    std::filesystem::remove(QUOTA_FILE);
    EXPECT_EQ(get_maildirpp_usage(MAILDIR.c_str(), &bytes, &messages), 1);
    EXPECT_EQ(bytes, 70);
    EXPECT_EQ(messages, 2);
    EXPECT_EQ(get_maildirpp_usage("/nowhere", &bytes, &messages), 0);
    EXPECT_EQ(errno, ENOENT);
}

class OverQuotaTest : public ReadQuotaTest {};

TEST_F(OverQuotaTest, ExactlyFullIsNotOverQuota) {
    const struct {
        const char* file;
        long long bytes;
        long long messages;
        int over;
    } cases[] = {
        {"1000S,0C\n900 3\n", 100, 1, 0},
        {"1000S,0C\n900 3\n", 101, 1, 1},
        {"1000S,0C\n1000 3\n", 0, 1, 0},
        {"1000S,0C\n1001 3\n", 0, 1, 1},
        {"1000S,5C\n0 3\n", 1, 2, 0},
        {"1000S,5C\n0 3\n", 1, 3, 1},
        {"0S,5C\n0 5\n", 1, 1, 1},
        {"0S,0C\n999999999999 9999\n", LLONG_MAX, LLONG_MAX, 0},
        {"1S,0C\n0 0\n", 1, 1, 0},
        {"1S,0C\n0 0\n", 2, 1, 1},
        {"abc\n999 9\n", 999999, 9, 0},
        {"1000S,0C\n900 3\n", LLONG_MAX, 1, 1},
        {"9223372036854775807S,0C\n900 3\n", LLONG_MAX, 1, 0},
        {"1000S,-1C\n0 0\n", 1, 0, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.file) + " + " + std::to_string(c.bytes));
        writeFile(QUOTA_FILE, c.file);
        EXPECT_EQ(check_maildirpp_overquota(MAILDIR.c_str(), c.bytes, c.messages), c.over);
    }
}

TEST_F(OverQuotaTest, StoredQuotaOfZeroRefusesEveryMessageOverOneByte) {
    EXPECT_EQ(store(0), 1);
    EXPECT_EQ(check_maildirpp_overquota(MAILDIR.c_str(), 2, 1), 1);
}

TEST_F(OverQuotaTest, BadUsageIsRecountedAgainstTheLimits) {
    writeFile(QUOTA_FILE, "100S,0C\n1 1");
    EXPECT_EQ(check_maildirpp_overquota(MAILDIR.c_str(), 30, 1), 0);
    EXPECT_EQ(check_maildirpp_overquota(MAILDIR.c_str(), 31, 1), 1);
}

TEST_F(OverQuotaTest, WithoutLimitsNothingIsOverQuota) {
    EXPECT_EQ(check_maildirpp_overquota(MAILDIR.c_str(), LLONG_MAX, LLONG_MAX), 0);
    EXPECT_EQ(check_maildirpp_overquota("/nowhere", LLONG_MAX, LLONG_MAX), 0);
}

}  // namespace
}  // namespace corvo::test
