#include "utils/runtime_config.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "tests/support/files.h"
#include "tests/support/memory.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"

namespace corvo::test {
namespace {

constexpr const char* VHC_CONF = "/etc/vhc/vhc.conf";

/// Each test looks things up in a child process: a configuration that was read is kept for good.
class RuntimeConfigTest : public SandboxTest {
protected:
    /// What `body` prints on standard output.
    static std::string printedBy(const std::function<void()>& body) {
        const ProcessResult result = runForked(body);
        EXPECT_EQ(result.err, "");
        EXPECT_EQ(result.status, 0);
        return result.out;
    }

    static void print(const char* value) {
        (void)std::printf("%s\n", value != nullptr ? value : "(null)");
    }
};

TEST_F(RuntimeConfigTest, KnowsThirtyOneNamesAndDefaults) {
    const struct {
        const char* name;
        const char* value;
    } variables[] = {
        {"_MIN_POSSIBLE_VHC_CONF_VAR_NAME", "_MIN_POSSIBLE_VHC_CONF_VAR_VALUE"},
        {"CORVO_MAILNAMES_D", "/var/qmail/mailnames"},
        {"RBLSMTPD", "/usr/sbin/rblsmtpd"},
        {"CLIENT_PHP_BIN", "/usr/local/vhc/bin/php-cli"},
        {"LIB_CRYPTO_PATH", "/lib/libcrypto.so"},
        {"LIB_SSL_PATH", "/lib/libssl.so"},
        {"AWSTATS_DOC_D", "/usr/share/awstats/wwwroot"},
        {"AWSTATS_TOOLS_D", "/usr/share/awstats/tools"},
        {"AWSTATS_BIN_D", "/usr/share/awstats/wwwroot/cgi-bin"},
        {"AWSTATS_ETC_D", "/etc/awstats"},
        {"MAILMAN_VAR_D", "/var/lib/mailman"},
        {"MAILMAN_ROOT_D", "/usr/lib/mailman"},
        {"PGSQL_DATA_D", "/var/lib/pgsql/data"},
        {"PGSQL_BIN_D", "/usr/bin"},
        {"MYSQL_BIN_D", "/usr/bin"},
        {"MYSQL_VAR_D", "/var/lib/mysql"},
        {"WEB_STAT", "/usr/bin/webalizer"},
        {"DUMP_D", "/var/lib/vhc/dumps"},
        {"DUMP_TMP_D", "/tmp"},
        {"NAMED_RUN_ROOT_D", "/var/named/chroot"},
        {"HTTPD_BIN", "/usr/sbin/httpd"},
        {"HTTPD_SERVICE", "httpd"},
        {"HTTPD_LOG_D", "/var/log/httpd"},
        {"HTTPD_INCLUDE_D", "/etc/httpd/conf.d"},
        {"HTTPD_CONF_D", "/etc/httpd/conf"},
        {"HTTPD_VHOSTS_D", "/var/www/vhosts"},
        {"MYSQL_SOCKET", "/var/lib/mysql/mysql.sock"},
        {"SA_MAX_MAIL_SIZE", "256000"},
        {"SNI_SUPPORT", "true"},
        {"PRODUCT_ROOT_D", "/usr/local/vhc"},
        {"_MAX_POSSIBLE_VHC_CONF_VAR_NAME", "_MAX_POSSIBLE_VHC_CONF_VAR_VALUE"},
    };
    static_assert(std::size(variables) == VHC_CONF_COUNT);
    for (int i = 0; i < VHC_CONF_COUNT; ++i) {
        EXPECT_STREQ(theVhcConfNames[i], variables[i].name);
        EXPECT_STREQ(theVhcConfDefauls[i], variables[i].value);
    }
    EXPECT_STREQ(theVhcConfNames[CORVO_MAILNAMES_D], "CORVO_MAILNAMES_D");
    EXPECT_STREQ(theVhcConfNames[MYSQL_SOCKET], "MYSQL_SOCKET");
}

TEST_F(RuntimeConfigTest, GivesTheValuesOfTheFile) {
    writeFile(VHC_CONF, "CORVO_MAILNAMES_D  /srv/mail   # comment\nOWN value\n");
    EXPECT_EQ(printedBy([] {
                  print(vhcConfGet("CORVO_MAILNAMES_D"));
                  print(vhcConfGetByIndex(1));
                  print(vhcConfGetDefaultByIndex(1));
                  print(vhcConfGetDefault("CORVO_MAILNAMES_D"));
                  print(vhcConfGet("OWN"));
              }),
              "/srv/mail\n/srv/mail\n/srv/mail\n/srv/mail\nvalue\n");
}

TEST_F(RuntimeConfigTest, GivesDefaultsForWhatTheFileDoesNotSay) {
    writeFile(VHC_CONF, "OWN value\n");
    EXPECT_EQ(printedBy([] {
                  print(vhcConfGet("CORVO_MAILNAMES_D"));
                  print(vhcConfGetByIndex(26));
                  print(vhcConfGetDefaultByIndex(26));
                  print(vhcConfGetDefault("PRODUCT_ROOT_D"));
              }),
              "(null)\n(null)\n/var/lib/mysql/mysql.sock\n/usr/local/vhc\n");
}

TEST_F(RuntimeConfigTest, GivesEveryDefaultWithoutTheFile) {
    const std::string printed = printedBy([] {
        for (int i = 0; i < VHC_CONF_COUNT; ++i)
            print(vhcConfGetDefaultByIndex(i));
    });
    std::string expected;
    for (const char* value : theVhcConfDefauls)
        expected += std::string(value) + "\n";
    EXPECT_EQ(printed, expected);
}

TEST_F(RuntimeConfigTest, FindsTheFirstSentinelByNameButNotTheLast) {
    const ProcessResult result = runForked([] {
        print(vhcConfGetDefault("_MIN_POSSIBLE_VHC_CONF_VAR_NAME"));
        print(vhcConfGetDefault("_MAX_POSSIBLE_VHC_CONF_VAR_NAME"));
    });
    const std::string message =
        "variable '_MAX_POSSIBLE_VHC_CONF_VAR_NAME' was found neither in /etc/vhc/vhc.conf, nor in "
        "compile-time defaults\n";
    EXPECT_EQ(result.err, message);
    EXPECT_EQ(result.out, "_MIN_POSSIBLE_VHC_CONF_VAR_VALUE\n" + message + "(null)\n");
}

TEST_F(RuntimeConfigTest, ReportsAnUnknownName) {
    const ProcessResult result = runForked([] { print(vhcConfGetDefault("UNKNOWN")); });
    const std::string message =
        "variable 'UNKNOWN' was found neither in /etc/vhc/vhc.conf, nor in compile-time "
        "defaults\n";
    EXPECT_EQ(result.err, message);
    EXPECT_EQ(result.out, message + "(null)\n");
}

TEST_F(RuntimeConfigTest, KeepsWhatItHasRead) {
    writeFile(VHC_CONF, "CORVO_MAILNAMES_D /srv/mail\nDUMP_D /srv/dumps\n");
    EXPECT_EQ(printedBy([] {
                  const char* first = vhcConfGetByIndex(1);
                  writeFile(VHC_CONF, "CORVO_MAILNAMES_D /other\nDUMP_D /other\n");
                  print(vhcConfGetByIndex(1) == first ? "same" : "other");
                  print(vhcConfGet("DUMP_D"));
              }),
              "same\n/srv/dumps\n");
}

TEST_F(RuntimeConfigTest, KeepsTheValuesOfDifferentVariablesApart) {
    std::string contents;
    std::string values;
    for (int i = 0; i < VHC_CONF_COUNT; ++i) {
        contents += std::string(theVhcConfNames[i]) + " value" + std::to_string(i) + "\n";
        values += "value" + std::to_string(i) + "\n";
    }
    writeFile(VHC_CONF, contents);
    EXPECT_EQ(printedBy([] {
                  for (int i = 0; i < 2 * VHC_CONF_COUNT; ++i)
                      print(vhcConfGetByIndex(i % VHC_CONF_COUNT));
              }),
              values + values);
}

TEST_F(RuntimeConfigTest, TriesAgainAfterAFailedRead) {
    EXPECT_EQ(printedBy([] {
                  print(vhcConfGetDefaultByIndex(1));
                  writeFile(VHC_CONF, "CORVO_MAILNAMES_D /srv/mail\n");
                  print(vhcConfGetDefaultByIndex(1));
              }),
              "/var/qmail/mailnames\n/srv/mail\n");
}

TEST_F(RuntimeConfigTest, TakesADirectoryForAFailedRead) {
    makeDirectory(VHC_CONF);
    EXPECT_EQ(printedBy([] {
                  print(vhcConfGet("CORVO_MAILNAMES_D"));
                  print(vhcConfGetDefaultByIndex(1));
                  std::filesystem::remove(VHC_CONF);
                  writeFile(VHC_CONF, "CORVO_MAILNAMES_D /srv/mail\n");
                  print(vhcConfGetDefaultByIndex(1));
              }),
              "(null)\n/var/qmail/mailnames\n/srv/mail\n");
}

TEST_F(RuntimeConfigTest, GivesDefaultsWithoutMemory) {
    requireExhaustibleMemory();
    const ProcessResult result = runForked([] {
        exhaustMemory();
        (void)std::fputs(vhcConfGetDefaultByIndex(1), stderr);
    });
    EXPECT_EQ(result.out, "Not enough memory to allocate Corvo runtime configuration structure\n");
    EXPECT_EQ(result.err, result.out + "/var/qmail/mailnames");
}

}  // namespace
}  // namespace corvo::test
