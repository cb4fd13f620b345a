#include "mail/home/mail_paths.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <iostream>
#include <string>

#include "tests/support/files.h"
#include "tests/support/logging.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"

namespace corvo::test {
namespace {

std::string repeated(const std::string& text, int times) {
    std::string result;
    for (int i = 0; i < times; ++i)
        result += text;
    return result;
}

TEST(MailnameValidityTest, AcceptsWhatMailNamesAreMadeOf) {
    for (const std::string& name :
         {std::string("info"), std::string("first.last+tag"), std::string("a"), std::string("-"),
          std::string("_&+'-"), std::string("a.b.c"), std::string("INFO.9"), std::string(245, 'a')})
        EXPECT_EQ(is_mailname_valid(name.c_str()), 1) << name;
}

TEST(MailnameValidityTest, RejectsEverythingElse) {
    for (const std::string& name :
         {std::string(), std::string(246, 'a'), std::string(".info"), std::string("info."),
          std::string("."), std::string(".."), std::string("a..b"), std::string("a b"),
          std::string("a/b"), std::string("a@b"), std::string("a\nb"), std::string("a\""),
          std::string("caf\xC3\xA9"), std::string("a!"), std::string("a*")})
        EXPECT_EQ(is_mailname_valid(name.c_str()), 0) << name;
    EXPECT_EQ(is_mailname_valid(nullptr), 0);
}

TEST(DomainNameValidityTest, AcceptsLabelsBetweenSingleDots) {
    for (const std::string& name :
         {std::string("example.com"), std::string("localhost"), std::string("a"),
          std::string("1.2.3.4"), std::string("xn--bcher-kva.example"), std::string("A-1.B"),
          std::string(63, 'a') + ".com", std::string("example.") + std::string(63, 'a'),
          repeated("a.", 127) + "a"})
        EXPECT_EQ(is_domain_name_valid(name.c_str()), 1) << name;
}

TEST(DomainNameValidityTest, RejectsEverythingElse) {
    for (const std::string& name :
         {std::string(), std::string("."), std::string(".com"), std::string("example."),
          std::string("a..b"), std::string(64, 'a') + ".com",
          std::string("example.") + std::string(64, 'a'), std::string("-a.com"),
          std::string("example.-a"), std::string("-"), std::string("a_b.com"),
          std::string("a b.com"),
          std::string("b\xC3\xBC"
                      "cher.example"),
          repeated("a.", 127) + "ab"})
        EXPECT_EQ(is_domain_name_valid(name.c_str()), 0) << name;
    EXPECT_EQ(is_domain_name_valid(nullptr), 0);
}

TEST(DomainNameValidityTest, MinusMayEndTheLastLabelOnly) {
    EXPECT_EQ(is_domain_name_valid("example.com-"), 1);
    EXPECT_EQ(is_domain_name_valid("a-"), 1);
    EXPECT_EQ(is_domain_name_valid("example-.com"), 0);
    EXPECT_EQ(is_domain_name_valid("a-.b.c"), 0);
}

TEST(FullMailnameValidityTest, IsAMailNameAndADomainAroundTheFirstAt) {
    EXPECT_EQ(is_full_mailname_valid("info@example.com"), 1);
    EXPECT_EQ(is_full_mailname_valid("first.last+tag@example.com-"), 1);
    for (const char* address : {"", "@", "info", "info@", "@example.com", "info@a@b",
                                "a..b@example", "info@example.", "in fo@example.com"})
        EXPECT_EQ(is_full_mailname_valid(address), 0) << address;
    EXPECT_EQ(is_full_mailname_valid(nullptr), 0);
}

class MailPathTest : public LoggingTest {
protected:
    char path[4096] = "";
};

TEST_F(MailPathTest, PathsComeOutLowerCased) {
    EXPECT_EQ(get_mailhome_path(path, sizeof path, "Info", "Example.COM"), 0);
    EXPECT_STREQ(path, "/var/qmail/mailnames/example.com/info");
    EXPECT_EQ(get_dotqmail_path(path, sizeof path, "Info", "Example.COM"), 0);
    EXPECT_STREQ(path, "/var/qmail/mailnames/example.com/info/.qmail");
}

TEST_F(MailPathTest, DomainIsConvertedToAscii) {
    EXPECT_EQ(get_mailhome_path(path, sizeof path, "info",
                                "b\xC3\xBC"
                                "cher.example"),
              0);
    EXPECT_STREQ(path, "/var/qmail/mailnames/xn--bcher-kva.example/info");
}

TEST_F(MailPathTest, RootIsLowerCasedWithTheRest) {
    const ProcessResult result = runForked([this] {
        writeFile("/etc/vhc/vhc.conf", "CORVO_MAILNAMES_D /var/Mail\n");
        (void)get_dotqmail_path(path, sizeof path, "Info", "Example.com");
        std::cout << path;
    });
    EXPECT_EQ(result.out, "/var/mail/example.com/info/.qmail");
}

TEST_F(MailPathTest, InvalidMailNamesAreRefused) {
    for (const char* name : {"", ".info", "a/b", "..", "a..b"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(get_mailhome_path(path, sizeof path, name, "example.com"), -1);
        EXPECT_EQ(errno, EINVAL);
        expectLogged({"empty mailname or maildomain"});
        EXPECT_EQ(get_dotqmail_path(path, sizeof path, name, "example.com"), -1);
        expectLogged({"empty mailname or maildomain"});
    }
    EXPECT_EQ(get_mailhome_path(path, sizeof path, "info", nullptr), -1);
    expectLogged({"empty mailname or maildomain"});
}

TEST_F(MailPathTest, DomainThatCannotBeConvertedIsRefused) {
    const std::string domain(64, 'a');
    EXPECT_EQ(get_mailhome_path(path, sizeof path, "info", domain.c_str()), -1);
    EXPECT_EQ(errno, EINVAL);
    expectLogged({"idn_toascii(" + domain + ") failed: Invalid length"});
    EXPECT_EQ(get_dotqmail_path(path, sizeof path, "info", domain.c_str()), -1);
    expectLogged({"idn_toascii(" + domain + ") failed: Invalid length"});
}

TEST_F(MailPathTest, DomainThatIsNoDirectorysNameIsRefused) {
    // The conversion makes "/" of the full-width slash, and "." of three other dots.
    const std::string slash = "\xEF\xBC\x8F";
    const std::string dot = "\xEF\xBC\x8E";
    for (const std::string& domain :
         {std::string(), std::string("."), std::string("/"), std::string("a/b"),
          std::string("/etc"), "a" + slash + "b", slash, dot, "example.com" + slash}) {
        SCOPED_TRACE(domain);
        EXPECT_EQ(get_mailhome_path(path, sizeof path, "info", domain.c_str()), -1);
        EXPECT_EQ(errno, EINVAL);
        expectLogged({"empty mailname or maildomain"});
        EXPECT_EQ(get_dotqmail_path(path, sizeof path, "info", domain.c_str()), -1);
        EXPECT_EQ(errno, EINVAL);
        expectLogged({"empty mailname or maildomain"});
    }
}

TEST_F(MailPathTest, NoDomainLeadsOutOfTheRoot) {
    const std::string slash = "\xEF\xBC\x8F";
    const std::string dot = "\xEF\xBC\x8E";
    const std::string ideographicDot = "\xE3\x80\x82";
    for (const std::string& domain :
         {std::string(".."), std::string("../.."), std::string("../../../etc"),
          std::string("a/../.."), dot + dot, ideographicDot + ideographicDot, dot + dot + slash,
          dot + dot + slash + dot + dot}) {
        SCOPED_TRACE(domain);
        EXPECT_EQ(get_dotqmail_path(path, sizeof path, "info", domain.c_str()), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_NE(message(), "");
    }
}

TEST_F(MailPathTest, HomePathMustFitWithItsTerminatingZero) {
    const std::string expected = "/var/qmail/mailnames/example.com/info";
    EXPECT_EQ(get_mailhome_path(path, expected.size() + 1, "info", "example.com"), 0);
    EXPECT_EQ(path, expected);
    for (const std::size_t size : {expected.size(), std::size_t{1}, std::size_t{0}}) {
        SCOPED_TRACE(size);
        EXPECT_EQ(get_mailhome_path(path, size, "info", "Example.com"), -1);
        EXPECT_EQ(errno, ENAMETOOLONG);
        expectLogged(
            {"Either domain name 'Example.com' or mailname 'info' are too long to store mailname "
             "home path in the provided buffer"});
    }
}

TEST_F(MailPathTest, DotqmailPathMustFitWithItsTerminatingZero) {
    const std::string expected = "/var/qmail/mailnames/example.com/info/.qmail";
    EXPECT_EQ(get_dotqmail_path(path, expected.size() + 1, "info", "example.com"), 0);
    EXPECT_EQ(path, expected);
    EXPECT_EQ(get_dotqmail_path(path, expected.size(), "info", "Example.com"), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    expectLogged(
        {"Either domain name 'Example.com' or mailname 'info' are too long to store .qmail path in "
         "the provided buffer"});
}

TEST_F(MailPathTest, NothingIsWrittenBehindTheBuffer) {
    path[9] = '#';
    EXPECT_EQ(get_mailhome_path(path, 9, "info", "example.com"), -1);
    EXPECT_EQ(path[9], '#');
    EXPECT_NE(message(), "");
}

TEST(PathComponentTest, IsANameThatADirectoryCanHave) {
    using corvo::mail::isPathComponent;
    for (const std::string name : {"a", "...", ".qmail", "a b", "a\nb", "\xFF"})
        EXPECT_TRUE(isPathComponent(name)) << name;
    for (const std::string& name :
         {std::string(), std::string("."), std::string(".."), std::string("/"), std::string("a/"),
          std::string("a/b"), std::string("a\0", 2), std::string(1, '\0')})
        EXPECT_FALSE(isPathComponent(name)) << name;
}

}  // namespace
}  // namespace corvo::test
