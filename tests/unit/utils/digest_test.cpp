#include "utils/digest.h"

#include <gtest/gtest.h>

#include <cstring>

namespace corvo::test {
namespace {

struct Case {
    const char* prefix;
    const char* text;
    const char* digest;
};

// The digests are those of the algorithm's own test suite (RFC 1321).
constexpr Case CASES[] = {
    {"", "", "d41d8cd98f00b204e9800998ecf8427e"},
    {nullptr, nullptr, "d41d8cd98f00b204e9800998ecf8427e"},
    {"", "abc", "900150983cd24fb0d6963f7d28e17f72"},
    {nullptr, "abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"abc", nullptr, "900150983cd24fb0d6963f7d28e17f72"},
    {"message ", "digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {"", "12345678901234567890123456789012345678901234567890123456789012345678901234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
};

TEST(DigestTest, IsThatOfPrefixAndTextTogether) {
    for (const Case& c : CASES) {
        char out[MD5_HEX_SIZE];
        EXPECT_STREQ(get_md5sum(c.prefix, c.text, out), c.digest);
    }
}

TEST(DigestTest, FillsExactlyTheGivenBuffer) {
    char out[MD5_HEX_SIZE + 1];
    std::memset(out, '#', sizeof out);
    EXPECT_EQ(get_md5sum("", "abc", out), out);
    EXPECT_EQ(out[MD5_HEX_SIZE - 1], '\0');
    EXPECT_EQ(out[MD5_HEX_SIZE], '#');
}

}  // namespace
}  // namespace corvo::test
