#include "utils/files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/support/capabilities.h"
#include "tests/support/failing_call.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "utils/guards.h"

namespace corvo::test {
namespace {

const std::string PATH = MAILNAMES + "/file";

class FilesTest : public LoggingTest {};

TEST_F(FilesTest, PermissionsAreSet) {
    writeFile(PATH, "");
    EXPECT_EQ(file_set_perms_internal(PATH.c_str(), 5, 6, 0640), 0);
    EXPECT_EQ(ownerOf(PATH), "5:6");
    EXPECT_EQ(modeOf(PATH), "0640");
    EXPECT_EQ(file_set_perms(PATH.c_str(), 7, 8, 04755), 0);
    EXPECT_EQ(ownerOf(PATH), "7:8");
    EXPECT_EQ(modeOf(PATH), "4755");
}

TEST_F(FilesTest, PermissionsOfAMissingFileAreAFailureInternallyOnly) {
    EXPECT_EQ(file_set_perms_internal(PATH.c_str(), 5, 6, 0640), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(message(), "ERROR: unable to chown " + PATH + ": No such file or directory\n\n");
    EXPECT_EQ(file_set_perms(PATH.c_str(), 5, 6, 0640), 0);
    EXPECT_EQ(file_set_perms((PATH + "/below").c_str(), 5, 6, 0640), 0);
    makeLink("/nowhere", PATH, POPUSER_UID);
    EXPECT_EQ(file_set_perms((PATH + "x").c_str(), 5, 6, 0640), 0);
}

TEST_F(FilesTest, SettingPermissionsClearsErrnoFirst) {
    writeFile(PATH, "");
    errno = EIO;
    EXPECT_EQ(file_set_perms(PATH.c_str(), 5, 6, 0640), 0);
    EXPECT_EQ(errno, 0);
}

TEST_F(FilesTest, RefusedPathsAreFailedChowns) {
    writeFile("/var/qmail/secret", "", 0, 0, 0600);
    std::filesystem::create_hard_link("/var/qmail/secret", MAILNAMES + "/hard");
    makeLink("/var/qmail/secret", MAILNAMES + "/link", POPUSER_UID);
    ASSERT_EQ(::mkfifo((MAILNAMES + "/fifo").c_str(), 0600), 0);
    chownToPopuser(MAILNAMES);
    const struct {
        const char* name;
        int error;
    } cases[] = {{"/hard", EPERM}, {"/link", ELOOP}, {"/fifo", EINVAL}};
    for (const auto& [name, error] : cases) {
        const std::string path = MAILNAMES + name;
        EXPECT_EQ(file_set_perms(path.c_str(), 5, 6, 0666), -1) << name;
        EXPECT_EQ(errno, error) << name;
        EXPECT_EQ(message(),
                  "ERROR: unable to chown " + path + ": " + std::strerror(error) + "\n\n");
    }
    EXPECT_EQ(ownerOf("/var/qmail/secret"), "0:0");
    EXPECT_EQ(modeOf("/var/qmail/secret"), "0600");
}

TEST_F(FilesTest, PermissionsOfAFileOutOfReachAreLeftAlone) {
    writeFile(PATH, "", 0, 0, 0600);
    ASSERT_EQ(::chmod(MAILNAMES.c_str(), 0), 0);
    const WithoutCapabilities limit({CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH});
    EXPECT_EQ(file_set_perms(PATH.c_str(), 5, 6, 0640), 0);
    EXPECT_EQ(file_set_perms((PATH + std::string(NAME_MAX, 'n')).c_str(), 5, 6, 0640), 0);
}

TEST_F(FilesTest, PermissionsOfAFileThatMustNotBeReadAreAFailure) {
    writeFile(PATH, "", 5, 6, 0200);
    {
        const WithoutCapabilities limit({CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH});
        EXPECT_EQ(file_set_perms(PATH.c_str(), 5, 6, 0640), -1);
        EXPECT_EQ(errno, EACCES);
    }
    EXPECT_EQ(message(), "ERROR: unable to chown " + PATH + ": Permission denied\n\n");
}

TEST_F(FilesTest, PermissionsThatWantMeansAreAFailure) {
    writeFile(PATH, "", 5, 6, 0600);
    for (const int error : {EMFILE, ENFILE, ENOMEM, EIO}) {
        const std::string text =
            "ERROR: unable to chown " + PATH + ": " + std::strerror(error) + "\n\n";
        const ProcessResult result = runForked([error] {
            failSystemCall(SYS_openat2, error);
            if (file_set_perms(PATH.c_str(), 7, 8, 0640) != -1 || errno != error)
                std::exit(1);
        });
        EXPECT_EQ(result.status, 0) << text;
        EXPECT_EQ(result.err, text);
        EXPECT_EQ(result.out, text);
    }
    EXPECT_EQ(ownerOf(PATH) + " " + modeOf(PATH), "5:6 0600");
}

TEST_F(FilesTest, ChownAndChmodThatFailAreToldApart) {
    writeFile(PATH, "", POPUSER_UID, POPUSER_GID, 0600);
    {
        const WithoutCapabilities limit({CAP_CHOWN});
        EXPECT_EQ(file_set_perms(PATH.c_str(), 0, 0, 0644), -1);
        EXPECT_EQ(errno, EPERM);
    }
    EXPECT_EQ(message(), "ERROR: unable to chown " + PATH + ": Operation not permitted\n\n");
    {
        const WithoutCapabilities limit({CAP_FOWNER});
        EXPECT_EQ(file_set_perms_internal(PATH.c_str(), POPUSER_UID, POPUSER_GID, 0644), -1);
        EXPECT_EQ(errno, EPERM);
    }
    EXPECT_EQ(message(), "ERROR: unable to chmod " + PATH + ": Operation not permitted\n\n");
    EXPECT_EQ(modeOf(PATH), "0600");
}

TEST_F(FilesTest, UserModeUsesUidAndPrimaryGid) {
    writeFile(PATH, "");
    EXPECT_EQ(file_set_user_mode(PATH.c_str(), "popuser", 0600), 0);
    EXPECT_EQ(ownerOf(PATH), popuser());
    EXPECT_EQ(modeOf(PATH), "0600");
    EXPECT_EQ(file_set_user_mode((PATH + "x").c_str(), "popuser", 0600), 0);
}

TEST_F(FilesTest, UserModeOfNobodyFails) {
    writeFile(PATH, "");
    EXPECT_EQ(file_set_user_mode(PATH.c_str(), "nobodyatall", 0666), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(message(), "user nobodyatall not found\n");
    EXPECT_EQ(modeOf(PATH), "0644");
}

TEST_F(FilesTest, EmptyFileIsCreatedOrTruncated) {
    ::umask(0);
    EXPECT_EQ(create_empty_file(PATH.c_str()), 0);
    EXPECT_EQ(modeOf(PATH), "0644");
    writeFile(PATH, "contents", POPUSER_UID, POPUSER_GID, 0600);
    EXPECT_EQ(create_empty_file(PATH.c_str()), 0);
    EXPECT_EQ(contentsOf(PATH), "");
    EXPECT_EQ(ownerOf(PATH), popuser());
    EXPECT_EQ(modeOf(PATH), "0600");
}

TEST_F(FilesTest, FileIsCreatedOrLeft) {
    ::umask(0);
    EXPECT_EQ(create_file(PATH.c_str()), 0);
    EXPECT_EQ(modeOf(PATH), "0644");
    writeFile(PATH, "contents");
    EXPECT_EQ(create_file(PATH.c_str()), 0);
    EXPECT_EQ(contentsOf(PATH), "contents");
}

TEST_F(FilesTest, CreationThatFailsIsReported) {
    const std::string path = MAILNAMES + "/missing/file";
    EXPECT_EQ(create_empty_file(path.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(message(),
              "Unable to truncate or create file " + path + ": No such file or directory\n");
    EXPECT_EQ(create_file(path.c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(message(), "Unable to create file " + path +
                             ": No such file or directory\n"
                             "System error 2: No such file or directory\n");
}

TEST_F(FilesTest, CloseOfAStreamIsReportedWhenItFails) {
    EXPECT_EQ(p_fclose(std::fopen("/dev/null", "we")), 0);
    std::FILE* const full = std::fopen("/dev/full", "we");
    (void)std::fputs("text", full);
    EXPECT_EQ(p_fclose(full), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(message(),
              "Unable to close the file: No space left on device\n"
              "\nSystem error 28: No space left on device\n");
}

TEST_F(FilesTest, FirstLineIsRead) {
    const struct {
        const char* contents;
        const char* line;
    } cases[] = {{"abc\n", "abc"}, {"abc", "abc"},     {"abcdefg\n", "abcdefg"},
                 {"\n", ""},       {"ab\ncd\n", "ab"}, {"abcdefg", "abcdefg"}};
    for (const auto& [contents, line] : cases) {
        writeFile(PATH, contents);
        char buffer[8];
        EXPECT_EQ(get_string_from_file(PATH.c_str(), buffer, sizeof buffer), 0) << contents;
        EXPECT_STREQ(buffer, line);
    }
}

TEST_F(FilesTest, FirstLineThatDoesNotFitFails) {
    for (const char* contents : {"abcdefgh\n", "abcdefgh"}) {
        writeFile(PATH, contents);
        char buffer[8];
        EXPECT_EQ(get_string_from_file(PATH.c_str(), buffer, sizeof buffer), -1);
        EXPECT_EQ(errno, ERANGE);
        EXPECT_EQ(message(), "The buffer too short\n");
    }
}

TEST_F(FilesTest, BufferOfOneCharacterHoldsAnEmptyLineOnly) {
    char buffer[2] = {'x', 'y'};
    writeFile(PATH, "\n");
    EXPECT_EQ(get_string_from_file(PATH.c_str(), buffer, 1), 0);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(buffer[1], 'y');
    writeFile(PATH, "a\n");
    EXPECT_EQ(get_string_from_file(PATH.c_str(), buffer, 1), -1);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(message(), "The buffer too short\n");
    EXPECT_EQ(buffer[1], 'y');
}

TEST_F(FilesTest, BufferOfNoCharactersIsNotWritten) {
    char buffer[1] = {'x'};
    for (const char* contents : {"", "\n", "a\n"}) {
        writeFile(PATH, contents);
        errno = EIO;
        EXPECT_EQ(get_string_from_file(PATH.c_str(), buffer, 0), -1);
        EXPECT_EQ(errno, ERANGE);
        EXPECT_EQ(message(), "The buffer too short\n");
        EXPECT_EQ(buffer[0], 'x');
    }
}

TEST_F(FilesTest, FirstLineOfAnEmptyFileFails) {
    writeFile(PATH, "");
    char buffer[8];
    EXPECT_EQ(get_string_from_file(PATH.c_str(), buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, ENODATA);
    EXPECT_EQ(message(),
              "Unable to read line from file: No data available\n"
              "\nSystem error 61: No data available\n");
}

TEST_F(FilesTest, FirstLineThatCannotBeReadFails) {
    char buffer[8];
    EXPECT_EQ(get_string_from_file("/proc/self/mem", buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(message(),
              "Unable to read line from file: Input/output error\n"
              "\nSystem error 5: Input/output error\n");
}

TEST_F(FilesTest, FirstLineOfNoFileFails) {
    char buffer[8];
    EXPECT_EQ(get_string_from_file(PATH.c_str(), buffer, sizeof buffer), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(message(), "Unable to open file " + PATH +
                             ": No such file or directory\n"
                             "\nSystem error 2: No such file or directory\n");
}

TEST_F(FilesTest, WritesInAsManyPiecesAsAPipeTakes) {
    const std::string text(300000, 'x');
    const ProcessResult result = runForked([&] {
        (void)::fcntl(STDOUT_FILENO, F_SETFL, O_WRONLY | O_NONBLOCK);
        ::_exit(write_fully(STDOUT_FILENO, text) == 0 ? 0 : 1);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, text);
}

TEST_F(FilesTest, WriteThatFailsIsNotRepeated) {
    const UniqueFd full(::open("/dev/full", O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(write_fully(full.get(), ""), 0);
    EXPECT_EQ(write_fully(full.get(), "text"), -1);
    EXPECT_EQ(errno, ENOSPC);
}

TEST_F(FilesTest, ReadsAllPiecesUpToTheEndOrTheSize) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    std::thread pieces([&] {
        for (const char* piece : {"one ", "two ", "three"}) {
            (void)write_fully(writer.get(), piece);
            ::usleep(20000);
        }
        writer.reset();
    });
    char buffer[64];
    EXPECT_EQ(read_fully(reader.get(), buffer, 6), 6);
    EXPECT_EQ(std::string(buffer, 6), "one tw");
    EXPECT_EQ(read_fully(reader.get(), buffer, sizeof buffer), 7);
    EXPECT_EQ(std::string(buffer, 7), "o three");
    EXPECT_EQ(read_fully(reader.get(), buffer, sizeof buffer), 0);
    pieces.join();
}

TEST_F(FilesTest, ReadThatFailsIsNotRepeated) {
    const UniqueFd folder(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    char byte = 0;
    EXPECT_EQ(read_fully(folder.get(), &byte, 1), -1);
    EXPECT_EQ(errno, EISDIR);
}

TEST_F(FilesTest, NoDescriptorStaysBehind) {
    writeFile(PATH, "a line that is too long\n");
    const int before = openDescriptors();
    char buffer[8];
    (void)create_empty_file((PATH + "1").c_str());
    (void)create_file(PATH.c_str());
    (void)file_set_perms(PATH.c_str(), 1, 2, 0600);
    (void)get_string_from_file(PATH.c_str(), buffer, sizeof buffer);
    (void)message();
    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace
}  // namespace corvo::test
