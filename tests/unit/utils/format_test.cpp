#include "utils/format.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/support/process.h"
#include "utils/guards.h"

namespace corvo::test {
namespace {

TEST(FormatTest, FormattedStringIsAllocated) {
    const corvo::UniqueCString text(asprintf_safe("%s-%d", "text", 42));
    EXPECT_STREQ(text.get(), "text-42");
}

TEST(FormatTest, FormattingThatFailsEndsTheProcess) {
    const ProcessResult result = runForked([] {
        const wchar_t impossible[] = {0x7fffffff, 0};
        const corvo::UniqueCString text(asprintf_safe("%ls", impossible));
    });
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err,
              "Cannot allocate memory: Invalid or incomplete multibyte or wide character\n"
              "System error 84: Invalid or incomplete multibyte or wide character\n");
    EXPECT_EQ(result.out, result.err);
}

TEST(FormatTest, FileTypesHaveNames) {
    EXPECT_STREQ(filetype_to_string(S_IFREG | 0644), "regular file");
    EXPECT_STREQ(filetype_to_string(S_IFDIR | 0755), "directory");
    EXPECT_STREQ(filetype_to_string(S_IFLNK | 0777), "symbolic link");
    EXPECT_STREQ(filetype_to_string(S_IFBLK), "block device");
    EXPECT_STREQ(filetype_to_string(S_IFCHR), "character device");
    EXPECT_STREQ(filetype_to_string(S_IFIFO), "fifo");
    EXPECT_STREQ(filetype_to_string(S_IFSOCK), "socket");
    EXPECT_STREQ(filetype_to_string(0644), "unknown");
}

}  // namespace
}  // namespace corvo::test
