#include "mail/delivery/text_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "tests/support/disk.h"
#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/sandbox.h"

namespace corvo::test {
namespace {

const std::string FILE_PATH = MAILNAMES + "/file";

class TextFileTest : public LoggingTest {
protected:
};

TEST_F(TextFileTest, NewFileIsForItsOwnerAloneWhateverTheUmask) {
    for (const mode_t mask : {0000U, 0022U, 0077U}) {
        SCOPED_TRACE(mask);
        resetSandbox();
        ::umask(mask);
        EXPECT_EQ(write_text_file(FILE_PATH.c_str(), "line\n"), 0);
        EXPECT_EQ(contentsOf(FILE_PATH), "line\n");
        EXPECT_EQ(modeOf(FILE_PATH) + " " + ownerOf(FILE_PATH), "0600 0:0");
    }
    ::umask(022);
}

TEST_F(TextFileTest, ExistingFileIsWrittenInPlaceAndKeepsOwnerAndMode) {
    writeFile(FILE_PATH, "a longer text than before\n", POPUSER_UID, POPUSER_GID, 0640);
    const ino_t inode = inodeOf(FILE_PATH);
    EXPECT_EQ(write_text_file(FILE_PATH.c_str(), "short"), 0);
    EXPECT_EQ(contentsOf(FILE_PATH), "short");
    EXPECT_EQ(inodeOf(FILE_PATH), inode);
    EXPECT_EQ(modeOf(FILE_PATH) + " " + ownerOf(FILE_PATH), "0640 " + popuser());
}

TEST_F(TextFileTest, EmptyTextMakesAnEmptyFile) {
    writeFile(FILE_PATH, "old");
    EXPECT_EQ(write_text_file(FILE_PATH.c_str(), ""), 0);
    EXPECT_EQ(contentsOf(FILE_PATH), "");
}

TEST_F(TextFileTest, MissingFolderIsAFailureToOpen) {
    const std::string path = MAILNAMES + "/missing/file";
    EXPECT_EQ(write_text_file(path.c_str(), "x"), -1);
    EXPECT_EQ(errno, ENOENT);
    expectLogged({"Unable to open '" + path + "': No such file or directory"});
}

TEST_F(TextFileTest, FileThatCannotBeWrittenIsRemoved) {
    // One page, and it is taken: a file can be made but not filled.
    const SmallDisk disk(MAILNAMES, 1);
    disk.fill();
    const int descriptors = openDescriptors();
    for (const std::string& text : {std::string("line\n"), std::string(100000, 'x')}) {
        EXPECT_EQ(write_text_file(FILE_PATH.c_str(), text.c_str()), -1);
        EXPECT_EQ(errno, ENOSPC);
        expectLogged({"Unable to write to '" + FILE_PATH + "': No space left on device"});
        EXPECT_FALSE(exists(FILE_PATH));
        EXPECT_EQ(openDescriptors(), descriptors);
    }
}

TEST_F(TextFileTest, LinkOfPopuserIsRefused) {
    const std::string outside = "/var/lib/corvo/outside";
    writeFile(outside, "kept\n");
    makeLink(outside, FILE_PATH, POPUSER_UID);
    EXPECT_EQ(write_text_file(FILE_PATH.c_str(), "x"), -1);
    EXPECT_EQ(errno, ELOOP);
    expectLogged({"Unable to open '" + FILE_PATH + "': Too many levels of symbolic links"});
    EXPECT_EQ(contentsOf(outside), "kept\n");
}

TEST_F(TextFileTest, LinkOfRootIsFollowed) {
    const std::string elsewhere = "/var/lib/corvo/elsewhere";
    writeFile(elsewhere, "old\n");
    makeLink(elsewhere, FILE_PATH);
    EXPECT_EQ(write_text_file(FILE_PATH.c_str(), "new\n"), 0);
    EXPECT_EQ(contentsOf(elsewhere), "new\n");
}

TEST_F(TextFileTest, PipeIsRefusedWithoutWaiting) {
    ASSERT_EQ(::mkfifo(FILE_PATH.c_str(), 0600), 0);
    EXPECT_EQ(write_text_file(FILE_PATH.c_str(), "x"), -1);
    EXPECT_EQ(errno, EINVAL);
    expectLogged({"Unable to open '" + FILE_PATH + "': Invalid argument"});
}

TEST_F(TextFileTest, ForeignHardLinkIsRefused) {
    const std::string other = MAILNAMES + "/other";
    chownToPopuser(MAILNAMES);
    writeFile(other, "kept\n", STRANGER_UID, STRANGER_GID, 0644);
    ASSERT_EQ(::link(other.c_str(), FILE_PATH.c_str()), 0);
    EXPECT_EQ(write_text_file(FILE_PATH.c_str(), "x"), -1);
    EXPECT_EQ(errno, EPERM);
    expectLogged({"Unable to open '" + FILE_PATH + "': Operation not permitted"});
    EXPECT_EQ(contentsOf(other), "kept\n");
}

}  // namespace
}  // namespace corvo::test
