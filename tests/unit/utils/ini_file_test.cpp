#include "utils/ini_file.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "tests/support/capture.h"
#include "tests/support/files.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "utils/guards.h"

namespace {

/// Runs when a file has been looked at.
std::function<void()> afterStat;

}  // namespace

extern "C" int stat(const char* path, struct stat* status) noexcept {
    static const auto real =
        reinterpret_cast<int (*)(const char*, struct stat*)>(dlsym(RTLD_NEXT, "stat"));
    const int result = real(path, status);
    if (afterStat)
        std::exchange(afterStat, nullptr)();
    return result;
}

namespace corvo::test {
namespace {

constexpr const char* PATH = "/etc/vhc/test.ini";

class IniFileTest : public SandboxTest {
protected:
    static std::optional<std::string> value(const char* section, const char* key) {
        const UniqueCString text(get_ini_conf_var(PATH, section, key));
        return text != nullptr ? std::optional<std::string>(text.get()) : std::nullopt;
    }

    /// Fails the test for any output.
    StreamCapture streams;
};

TEST_F(IniFileTest, GivesTheTrimmedValueOfAKeyInASection) {
    const struct {
        const char* contents;
        const char* value;
    } cases[] = {
        {"[panel]\nkey = value\n", "value"},
        {"[panel]\nkey=value", "value"},
        {"[panel]\r\n  key\t=\tvalue  \r\n", "value"},
        {"[panel]\nkey = a b ; comment\n", "a b"},
        {"[panel]\nkey = a;b\n", "a"},
        {"[panel]\nkey = a=b\n", "a=b"},
        {"[panel]\nkey = # value\n", "# value"},
        {"[panel]\nkey = [panel]\n", "[panel]"},
        {"[panel]\nkey =\nkey = second\n", ""},
        {"[panel]\nkey = ; nothing\n", ""},
        {"[panel]\nkey = first\nkey = second\n", "first"},
        {"[panel]\n\n; comment\nno assignment\n[]\nkey = value\n", "value"},
        {"[other]\nkey = other\n  [panel] ; comment\nkey = value\n", "value"},
        {"[panel]\nx = 1\n[other]\nkey = other\n[panel]\nkey = value\n", "value"},
    };
    for (const auto& [contents, expected] : cases) {
        writeFile(PATH, contents);
        EXPECT_EQ(value("panel", "key"), expected) << contents;
    }
}

TEST_F(IniFileTest, GivesNothingWhereTheKeyIsNotInTheSection) {
    for (const char* contents : {
             "",
             "key = before any header\n",
             "[other]\nkey = other\n",
             "[ panel ]\nkey = blanks count\n",
             "[Panel]\nkey = case counts\n",
             "[panel\nkey = no header\n",
             "panel]\nkey = no header\n",
             "[panel]x\nkey = no header\n",
             "[panel]\nKey = case counts\n",
             "[panel]\nkey2 = other\n",
             "[panel]\nkey\n",
             "[panel]\n;key = comment\n",
             "[panel]\n[other]\nkey = other\n",
         }) {
        writeFile(PATH, contents);
        EXPECT_EQ(value("panel", "key"), std::nullopt) << contents;
    }
}

TEST_F(IniFileTest, KnowsSectionsOfASingleCharacterAndNoneWithoutAName) {
    writeFile(PATH, "[]\nkey = nameless\n[x]\nkey = value\n");
    EXPECT_EQ(value("x", "key"), "value");
    EXPECT_EQ(value("", "key"), std::nullopt);
}

TEST_F(IniFileTest, TakesAHeaderWithAnEqualsSignForAHeader) {
    writeFile(PATH, "[a=b]\nkey = value\n");
    EXPECT_EQ(value("a=b", "key"), "value");
}

TEST_F(IniFileTest, ReadsLinesOfAnyLength) {
    const std::string longValue(100000, 'x');
    writeFile(PATH, "[s]\nlong = " + longValue + "\n" + longValue + "\nkey = value");
    EXPECT_EQ(value("s", "long"), longValue);
    EXPECT_EQ(value("s", "key"), "value");
}

TEST_F(IniFileTest, ReadsLinesOf64KiBAndMore) {
    const std::string line = "key = " + std::string(64 * 1024 - 6, 'x');
    for (const char* end : {"\n", "", "\r\n[other]\n"}) {
        writeFile(PATH, "[s]\n" + line + end);
        EXPECT_EQ(value("s", "key"), line.substr(6)) << end;
    }
}

TEST_F(IniFileTest, SkipsLongerLinesWhole) {
    std::string line = "key = x ";
    while (line.size() < 1'000'000)
        line += "key = x ";
    for (const std::string& end :
         {std::string("\nkey = value\n"), std::string("\n[s]\nkey = value")}) {
        writeFile(PATH, "[s]\n" + line + end);
        EXPECT_EQ(value("s", "key"), "value");
    }
    writeFile(PATH, "[s]\n" + line);
    EXPECT_EQ(value("s", "key"), std::nullopt);
}

TEST_F(IniFileTest, ReadsLinesThatLieFarBehind) {
    std::string contents = "[s]\n";
    while (contents.size() < 1'000'000)
        contents += "other key = other value\n";
    writeFile(PATH, contents + "key = value\n");
    EXPECT_EQ(value("s", "key"), "value");
}

TEST_F(IniFileTest, ReadsWhatComesWhileItLooks) {
    writeFile(PATH, "[s]\n");
    afterStat = [] { writeFile(PATH, "[s]\nother = x\nkey = value\n"); };
    EXPECT_EQ(value("s", "key"), "value");
}

TEST_F(IniFileTest, IsSilentAboutAFileThatCannotBeRead) {
    const UniqueCString text(get_ini_conf_var("/proc/self/mem", "s", "key"));
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(errno, EIO);
}

TEST_F(IniFileTest, ReadsNoFurtherThanAZeroByteInALine) {
    using namespace std::string_literals;
    writeFile(PATH, "[s]\na = x\0y\nkey = value"s);
    EXPECT_EQ(value("s", "a"), "x");
    EXPECT_EQ(value("s", "key"), "value");
}

TEST_F(IniFileTest, IsSilentAboutAMissingFile) {
    errno = EACCES;
    EXPECT_EQ(value("s", "key"), std::nullopt);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(IniFileTest, IsSilentAboutWhatIsNoRegularFile) {
    makeDirectory(PATH);
    errno = EACCES;
    EXPECT_EQ(value("s", "key"), std::nullopt);
    EXPECT_EQ(errno, 0);
}

TEST_F(IniFileTest, ClearsErrno) {
    writeFile(PATH, "[s]\nkey = value\n");
    errno = EACCES;
    EXPECT_EQ(value("s", "key"), "value");
    EXPECT_EQ(errno, 0);
}

TEST_F(IniFileTest, TellsStandardErrorAloneThatItCannotBeOpened) {
    writeFile(PATH, "[s]\nkey = value\n");
    const ProcessResult result = runForked([] {
        struct rlimit before {};
        getrlimit(RLIMIT_NOFILE, &before);
        const struct rlimit noFiles { 0, before.rlim_max };
        setrlimit(RLIMIT_NOFILE, &noFiles);
        const bool failed = get_ini_conf_var(PATH, "s", "key") == nullptr && errno == EMFILE;
        setrlimit(RLIMIT_NOFILE, &before);
        if (!failed)
            _exit(1);
    });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "Failed to open /etc/vhc/test.ini: Too many open files");
    EXPECT_EQ(result.out, "");
}

TEST_F(IniFileTest, GivesSwitches) {
    const struct {
        const char* text;
        int result;
    } cases[] = {
        {"on", 1}, {"ON", 1},   {"true", 1}, {"True", 1},  {"yes", 1},     {"yEs", 1},
        {"1", 1},  {" on ", 1}, {"off", 0},  {"false", 0}, {"no", 0},      {"0", 0},
        {"01", 0}, {"11", 0},   {"y", 0},    {"t", 0},     {"enabled", 0},
    };
    for (const auto& [text, result] : cases) {
        writeFile(PATH, std::string("[s]\nkey = ") + text + "\n");
        EXPECT_EQ(get_ini_conf_var_bool(PATH, "s", "key", 7), result) << text;
    }
}

TEST_F(IniFileTest, GivesSeveralValuesInOnePass) {
    writeFile(PATH,
              "[other]\na = x\n[panel]\nb = 2\n[other]\nb = x\n[panel]\na = 1\nb = 3\nc = 4\n");
    UniqueCString a;
    UniqueCString b;
    const ini_value wanted[] = {{"a", a}, {"b", b}};
    EXPECT_EQ(get_ini_conf_vars(PATH, "panel", wanted), 0);
    EXPECT_STREQ(a.get(), "1");
    EXPECT_STREQ(b.get(), "2");
}

TEST_F(IniFileTest, GivesTheValuesThatAreThereWhenOthersAreNot) {
    writeFile(PATH, "[panel]\nb =\n");
    UniqueCString a(::strdup("from an earlier pass"));
    UniqueCString b;
    const ini_value wanted[] = {{"a", a}, {"b", b}};
    EXPECT_EQ(get_ini_conf_vars(PATH, "panel", wanted), -1);
    EXPECT_EQ(a.get(), nullptr);
    EXPECT_STREQ(b.get(), "");
}

TEST_F(IniFileTest, ReportsAFileThatCannotBeOpenedOncePerValue) {
    writeFile(PATH, "[panel]\na = 1\n");
    const ProcessResult result = runForked([] {
        const rlimit noMore{3, 3};
        (void)::setrlimit(RLIMIT_NOFILE, &noMore);
        UniqueCString a;
        UniqueCString b;
        const ini_value wanted[] = {{"a", a}, {"b", b}};
        ::_exit(get_ini_conf_vars(PATH, "panel", wanted) == -1 && errno == EMFILE ? 0 : 1);
    });
    EXPECT_EQ(result.status, 0);
    const std::string once = std::string("Failed to open ") + PATH + ": Too many open files";
    EXPECT_EQ(result.err, once + once);
}

TEST_F(IniFileTest, KeepsErrnoWhenNothingCanBeReported) {
    writeFile(PATH, "[panel]\na = 1\n");
    const ProcessResult result = runForked([] {
        ::dup2(::open("/dev/full", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
        const rlimit noMore{3, 3};
        (void)::setrlimit(RLIMIT_NOFILE, &noMore);
        UniqueCString a;
        UniqueCString b;
        const ini_value wanted[] = {{"a", a}, {"b", b}};
        ::_exit(get_ini_conf_vars(PATH, "panel", wanted) == -1 && errno == EMFILE ? 0 : 1);
    });
    EXPECT_EQ(result.status, 0);
}

TEST_F(IniFileTest, GivesTheFallbackForASwitchThatIsMissingOrEmpty) {
    writeFile(PATH, "[s]\nkey =\n");
    EXPECT_EQ(get_ini_conf_var_bool(PATH, "s", "key", 7), 7);
    EXPECT_EQ(get_ini_conf_var_bool(PATH, "s", "other", 7), 7);
    EXPECT_EQ(get_ini_conf_var_bool("/nonexistent", "s", "key", 0), 0);
}

}  // namespace
}  // namespace corvo::test
