#include "utils/idn.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <idna.h>
#include <regex.h>
#include <stringprep.h>

#include <cerrno>
#include <new>
#include <string>

#include "tests/support/capture.h"
#include "tests/support/process.h"
#include "utils/guards.h"

// The conversions of libidn and the matcher of the C library, in front of their own: they give what
// a test tells them.
namespace {

struct Pretence {
    int code = 0;           // of the conversions, without output, unless 0
    bool noResult = false;  // the conversions succeed without output
    bool noMemory = false;  // the pattern cannot be compiled
    bool noHost = false;    // the pattern matches without a third part
};
Pretence pretence;

template <typename Function>
Function* original(Function*, const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

int idna_to_ascii_8z(const char* input, char** output, int flags) {
    if (pretence.code != 0 || pretence.noResult)
        return pretence.code;
    return original(idna_to_ascii_8z, "idna_to_ascii_8z")(input, output, flags);
}

int idna_to_unicode_8z8z(const char* input, char** output, int flags) {
    if (pretence.code != 0 || pretence.noResult)
        return pretence.code;
    return original(idna_to_unicode_8z8z, "idna_to_unicode_8z8z")(input, output, flags);
}

int regcomp(regex_t* pattern, const char* text, int flags) {
    return pretence.noMemory ? REG_ESPACE : original(regcomp, "regcomp")(pattern, text, flags);
}

int regexec(const regex_t* pattern, const char* text, std::size_t count, regmatch_t* parts,
            int flags) {
    const int result = original(regexec, "regexec")(pattern, text, count, parts, flags);
    if (pretence.noHost)
        parts[3] = {-1, -1};
    return result;
}

namespace corvo::test {
namespace {

const std::string UNICODE = "m\xc3\xbcller.example";
const std::string ASCII = "xn--mller-kva.example";
const std::string TOO_LONG = std::string(64, 'x') + ".example";  // its label has 64 octets

class IdnTest : public ::testing::Test {
protected:
    IdnTest() {
        errno = 0;
        idn_errno = 0;
    }
    void TearDown() override { pretence = {}; }

    static std::string text(char* result) {
        const UniqueCString owned(result);
        return owned != nullptr ? owned.get() : "(null)";
    }

    void expectOnBoth(const std::string& message) {
        EXPECT_EQ(streams.err(), message);
        EXPECT_EQ(streams.out(), message);
    }

    static void expectEnd(const ProcessResult& result, const std::string& message) {
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, message);
        EXPECT_EQ(result.out, message);
    }

    StreamCapture streams;
};

TEST_F(IdnTest, IsTestedWithTheLibraryItself) {
    EXPECT_NE(stringprep_check_version("1.0"), nullptr);
}

TEST_F(IdnTest, ConvertsHostNames) {
    EXPECT_EQ(text(idn_toascii(UNICODE.c_str())), ASCII);
    EXPECT_EQ(text(idn_toascii("example.com")), "example.com");
    EXPECT_EQ(text(idn_toutf8(ASCII.c_str())), UNICODE);
    EXPECT_EQ(text(idn_toascii_safe(UNICODE.c_str())), ASCII);
    EXPECT_EQ(idn_errno, 0);
}

TEST_F(IdnTest, KeepsTheCodeOfAFailedConversion) {
    EXPECT_EQ(idn_toascii(TOO_LONG.c_str()), nullptr);
    EXPECT_EQ(idn_errno, 5);
    EXPECT_EQ(text(idn_toascii("example.com")), "example.com");
    EXPECT_EQ(idn_errno, 5);
    EXPECT_EQ(idn_toascii("\xff"), nullptr);
    EXPECT_EQ(idn_errno, 9);
}

TEST_F(IdnTest, KeepsTheCodeOfAFailedConversionToUtf8) {
    EXPECT_EQ(text(idn_toutf8("\xff")), "(null)");
    EXPECT_EQ(idn_errno, 9);
}

TEST_F(IdnTest, EndsTheProcessWithoutMemory) {
    const auto toAsciiInChild = [] {
        pretence.code = 201;
        idn_toascii("example.com");
    };
    const auto toUtf8InChild = [] {
        pretence.code = 201;
        idn_toutf8("example.com");
    };
    expectEnd(runForked(toAsciiInChild), "Allocation failed\n");
    expectEnd(runForked(toUtf8InChild), "Allocation failed\n");
}

TEST_F(IdnTest, EndsTheProcessWhenASafeConversionFails) {
    expectEnd(runForked([] { idn_toascii_safe(TOO_LONG.c_str()); }),
              "idn_toascii_safe(" + TOO_LONG + ") failed: Invalid length\n");
}

TEST_F(IdnTest, ConvertsTheDomainOfAnAddress) {
    EXPECT_EQ(text(idn_email_toascii(("info@" + UNICODE).c_str())), "info@" + ASCII);
    EXPECT_EQ(text(idn_email_toascii_safe(("info@" + UNICODE).c_str())), "info@" + ASCII);
    EXPECT_EQ(text(idn_email_toascii(("m\xc3\xbcller@" + UNICODE).c_str())),
              "m\xc3\xbcller@" + ASCII);
    EXPECT_EQ(text(idn_email_toascii(("@" + UNICODE).c_str())), "@" + ASCII);
}

TEST_F(IdnTest, SplitsAnAddressAtTheFirstAt) {
    EXPECT_EQ(text(idn_email_toascii("a@b@example.com")), "a@b@example.com");
    EXPECT_EQ(text(idn_email_toascii(("a@m\xc3\xbc@" + UNICODE).c_str())),
              "a@" + text(idn_toascii(("m\xc3\xbc@" + UNICODE).c_str())));
    EXPECT_EQ(idn::emailToAscii("a@b@example.com"), "a@b@example.com");
}

TEST_F(IdnTest, GivesNullForAnAddressWithoutAt) {
    EXPECT_EQ(idn_email_toascii("user"), nullptr);
    EXPECT_EQ(idn_email_toascii(""), nullptr);
    EXPECT_EQ(idn_errno, 0);
}

TEST_F(IdnTest, GivesNullForAnAddressWhoseDomainCannotBeConverted) {
    EXPECT_EQ(idn_email_toascii(("info@" + TOO_LONG).c_str()), nullptr);
    EXPECT_EQ(idn_errno, 5);
}

TEST_F(IdnTest, EndsTheProcessWhenASafeConversionOfAnAddressFails) {
    expectEnd(runForked([] { idn_email_toascii_safe(("info@" + TOO_LONG).c_str()); }),
              "idn_email_toascii_safe(info@" + TOO_LONG + ") failed: Invalid length\n");
    expectEnd(runForked([] { idn_email_toascii_safe("user"); }),
              "idn_email_toascii_safe(user) failed: Success\n");
}

TEST_F(IdnTest, ConvertsTheHostOfAUrlAlone) {
    const std::string u = UNICODE;
    const std::string a = ASCII;
    const struct {
        std::string url;
        std::string result;
    } cases[] = {
        {u, a},
        {"http://" + u, "http://" + a},
        {"https://" + u + "/", "https://" + a + "/"},
        {"ftp://" + u + ":21", "ftp://" + a + ":21"},
        {"http://user:pass@" + u + ":8080/path?x=" + u,
         "http://user:pass@" + a + ":8080/path?x=" + u},
        {"us\xc3\xbcr@" + u + "/m\xc3\xbc", "us\xc3\xbcr@" + a + "/m\xc3\xbc"},
        {"http://example.com/#f", "http://example.com/#f"},
        {u + ":25", a + ":25"},
    };
    for (const auto& [url, result] : cases)
        EXPECT_STREQ(idn_url_toascii(url.c_str()), result.c_str());
}

TEST_F(IdnTest, KeepsOneBufferForUrls) {
    char* first = idn_url_toascii("http://one.example/");
    EXPECT_EQ(idn_url_toascii("http://two.example/"), first);
    EXPECT_STREQ(first, "http://two.example/");
    EXPECT_EQ(idn_url_toascii(first), first);
    EXPECT_STREQ(first, "http://two.example/");
}

TEST_F(IdnTest, CutsAUrlAt4095Characters) {
    const std::string path(5000, 'p');
    const std::string expected = "http://" + ASCII + "/" + path;
    EXPECT_EQ(idn_url_toascii(("http://" + UNICODE + "/" + path).c_str()),
              expected.substr(0, 4095));
    const std::string user(5000, 'u');
    EXPECT_EQ(idn_url_toascii((user + "@example.com").c_str()), user.substr(0, 4095));
}

TEST_F(IdnTest, ReportsAUrlThatHasNoHost) {
    EXPECT_EQ(idn_url_toascii(""), nullptr);
    expectOnBoth("regexec() failed: No match\n");
    EXPECT_EQ(idn_url_toascii("/path"), nullptr);
    expectOnBoth("regexec() failed: No match\n");
}

TEST_F(IdnTest, ReportsAUrlWhoseHostCannotBeConverted) {
    EXPECT_EQ(idn_url_toascii(("http://" + TOO_LONG + "/").c_str()), nullptr);
    expectOnBoth("idn_toascii() failed: Invalid length\n");
    EXPECT_EQ(idn_errno, 5);
}

TEST_F(IdnTest, ReportsNoErrnoOfEarlierCalls) {
    errno = ENOENT;
    EXPECT_EQ(idn_url_toascii(""), nullptr);
    expectOnBoth("regexec() failed: No match\n");
    errno = ENOENT;
    EXPECT_EQ(idn_url_toascii(("http://" + TOO_LONG + "/").c_str()), nullptr);
    expectOnBoth("idn_toascii() failed: Invalid length\n");
    pretence.noHost = true;
    errno = ENOENT;
    EXPECT_EQ(idn_url_toascii("http://example.com/"), nullptr);
    expectOnBoth("no hostname found in URL\n");
    pretence.noMemory = true;
    expectEnd(runForked([] {
                  errno = ENOENT;
                  idn_url_toascii("http://example.com/");
              }),
              "regcomp() failed: Memory exhausted\n");
}

TEST_F(IdnTest, ReportsAUrlWhoseHostDidNotMatch) {
    pretence.noHost = true;
    EXPECT_EQ(idn_url_toascii("http://example.com/"), nullptr);
    expectOnBoth("no hostname found in URL\n");
}

TEST_F(IdnTest, EndsTheProcessWhenTheUrlPatternFindsNoMemory) {
    pretence.noMemory = true;
    expectEnd(runForked([] { idn_url_toascii("http://example.com/"); }),
              "regcomp() failed: Memory exhausted\n");
}

TEST_F(IdnTest, HasATextForEveryCode) {
    const struct {
        int code;
        const char* text;
    } cases[] = {
        {0, "Success"},
        {1, "Stringprep error"},
        {2, "Punycode error"},
        {3, "Contains non-LDH characters"},
        {4, "Contains minus"},
        {5, "Invalid length"},
        {6, "ACE prefix not found"},
        {7, "Verify error"},
        {8, "ACE prefix found"},
        {9, "Iconv error"},
        {10, "Unknown error"},
        {200, "Unknown error"},
        {201, "Cannot allocate buffer"},
        {202, "Unknown error"},
        {-1, "Unknown error"},
    };
    for (const auto& [code, text] : cases) {
        EXPECT_STREQ(idn_strerror(code), text) << code;
        EXPECT_STREQ(idn::IdnaError(code).what(), text) << code;
    }
}

TEST_F(IdnTest, ConvertsStrings) {
    EXPECT_EQ(idn::toAscii(UNICODE), ASCII);
    EXPECT_EQ(idn::toUtf8(ASCII), UNICODE);
    EXPECT_EQ(idn::emailToAscii("info@" + UNICODE), "info@" + ASCII);
    EXPECT_EQ(idn::emailToAscii("m\xc3\xbcller@" + UNICODE), "m\xc3\xbcller@" + ASCII);
}

TEST_F(IdnTest, ReturnsAnAddressWithoutAtUnchanged) {
    EXPECT_EQ(idn::emailToAscii("user"), "user");
    EXPECT_EQ(idn::emailToAscii(UNICODE), UNICODE);
    EXPECT_EQ(idn::emailToAscii(""), "");
}

/// "<code> <what>" of the error that `body` throws.
template <typename Body>
std::string errorOf(Body body) {
    try {
        body();
    } catch (const idn::IdnaError& error) {
        return std::to_string(error.code()) + " " + error.what();
    }
    return "none";
}

TEST_F(IdnTest, ThrowsTheCodeOfAFailedConversion) {
    EXPECT_EQ(errorOf([] { idn::toAscii(TOO_LONG); }), "5 Invalid length");
    EXPECT_EQ(errorOf([] { idn::emailToAscii("info@" + TOO_LONG); }), "5 Invalid length");
    EXPECT_EQ(errorOf([] { idn::toUtf8("\xff"); }), "9 Iconv error");
    pretence.code = 201;
    EXPECT_EQ(errorOf([] { idn::toAscii("example.com"); }), "201 Cannot allocate buffer");
    EXPECT_EQ(idn_errno, 0);
}

TEST_F(IdnTest, RefusesANameThatHoldsAZeroByte) {
    using namespace std::string_literals;
    const struct {
        std::string (*convert)(const std::string&);
        std::string text;
    } cases[] = {
        {corvo::idn::toAscii, "example.com\0.org"s},
        {corvo::idn::toAscii, "\0"s},
        {corvo::idn::toUtf8, "example.com\0"s},
        {corvo::idn::emailToAscii, "info@example\0.com"s},
    };
    for (const auto& [convert, text] : cases) {
        try {
            const std::string result = convert(text);
            ADD_FAILURE() << "converted to " << result;
        } catch (const corvo::idn::IdnaError& error) {
            EXPECT_EQ(error.code(), 3);
            EXPECT_STREQ(error.what(), "Contains non-LDH characters");
        }
    }
}

TEST_F(IdnTest, ThrowsBadAllocForASuccessWithoutAResult) {
    pretence.noResult = true;
    EXPECT_THROW(idn::toAscii("example.com"), std::bad_alloc);
    EXPECT_THROW(idn::toUtf8("example.com"), std::bad_alloc);
}

}  // namespace
}  // namespace corvo::test
