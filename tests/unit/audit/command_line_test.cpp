#include "audit/command_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace corvo::audit {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using Arguments = std::vector<const char*>;

CommandLine read(Arguments arguments) {
    arguments.insert(arguments.begin(), "mail_audit");
    return readCommandLine(static_cast<int>(arguments.size()), arguments.data());
}

Options optionsOf(const Arguments& arguments) {
    const CommandLine line = read(arguments);
    EXPECT_EQ(line.text, "");
    return line.options.value_or(Options());
}

TEST(CommandLineTest, CommandAloneMeansAllInATable) {
    const Options options = optionsOf({"diff"});
    EXPECT_EQ(options.command, Command::diff);
    EXPECT_TRUE(options.scope.isAll());
    EXPECT_FALSE(options.recount);
    EXPECT_FALSE(options.extras);
    EXPECT_EQ(options.format, Format::table);
    EXPECT_FALSE(options.quiet);
    EXPECT_TRUE(options.progress);
    EXPECT_EQ(options.colour, Colour::automatic);
}

TEST(CommandLineTest, EachCommandIsKnown) {
    EXPECT_EQ(optionsOf({"check"}).command, Command::check);
    EXPECT_EQ(optionsOf({"diff"}).command, Command::diff);
    EXPECT_EQ(optionsOf({"show"}).command, Command::show);
}

TEST(CommandLineTest, FlagsAreTaken) {
    const Options options =
        optionsOf({"diff", "--recount", "--extras", "--quiet", "--no-progress"});
    EXPECT_TRUE(options.recount);
    EXPECT_TRUE(options.extras);
    EXPECT_TRUE(options.quiet);
    EXPECT_FALSE(options.progress);
}

TEST(CommandLineTest, FormatsAndColoursAreWords) {
    EXPECT_EQ(optionsOf({"show", "--format", "table"}).format, Format::table);
    EXPECT_EQ(optionsOf({"show", "--format", "json"}).format, Format::json);
    EXPECT_EQ(optionsOf({"show", "--format=jsonl"}).format, Format::jsonl);
    EXPECT_EQ(optionsOf({"show", "--color", "auto"}).colour, Colour::automatic);
    EXPECT_EQ(optionsOf({"show", "--color", "always"}).colour, Colour::always);
    EXPECT_EQ(optionsOf({"show", "--color=never"}).colour, Colour::never);
}

TEST(CommandLineTest, CommonOptionsMayStandBeforeTheCommand) {
    const Options options = optionsOf({"--quiet", "--format", "json", "check"});
    EXPECT_TRUE(options.quiet);
    EXPECT_EQ(options.format, Format::json);
}

TEST(CommandLineTest, PatternsAreCollectedAsTheyStand) {
    const Options options =
        optionsOf({"show", "--domain", "[a,b]", "--domain=[ab].example", "--mailbox", "x,y@z",
                   "--domain", "-a", "--mailbox", "[info]@*"});
    EXPECT_THAT(options.scope.domains, ElementsAre("[a,b]", "[ab].example", "-a"));
    EXPECT_THAT(options.scope.mailboxes, ElementsAre("x,y@z", "[info]@*"));
}

constexpr const char* HELP = R"(Usage: mail_audit check [OPTION]...
       mail_audit diff [SCOPE] [OPTION]...
       mail_audit show [SCOPE] [OPTION]...
Looks at the mail storage of this server and at what the panel says of it. Changes nothing.

Commands:
  check           Is this machine ready for a run of mail_rebuild?
  diff            Where does the storage differ from what a run would make of it?
  show            What does the panel know of mail?

SCOPE, for diff and show; what matches one of several is meant, and without any, all:
  --domain GLOB   Only domains that match
  --mailbox GLOB  Only mailboxes NAME@DOMAIN that match

For diff:
  --recount       Count the messages, too, and compare with maildirsize
  --extras        Name, too, what the panel does not know and a run leaves alone

For all:
  --format WHICH  table (the default); jsonl: one object a line; json: one document
  --quiet         No summary line and no progress; check: what is ok is left out of table and
                  jsonl
  --no-progress   Show no progress, which standard error shows when it is a terminal
  --color WHEN    always, never, or auto (the default): on a terminal, unless NO_COLOR is set
  -h, --help      Print this
  --version       Print the version

Status: 0, nothing is to be repaired (check: no problem); 1, something is; 2, it was not looked at,
or not whole: standard error says what was not.
)";

TEST(CommandLineTest, HelpIsTheSameWithEveryCommandAndWithout) {
    for (const Arguments& arguments :
         {Arguments{"--help"}, {"-h"}, {"check", "--help"}, {"diff", "-h"}, {"show", "--help"}}) {
        const CommandLine line = read(arguments);
        EXPECT_EQ(line.text, HELP);
        EXPECT_FALSE(line.options);
        EXPECT_FALSE(line.isError);
    }
}

TEST(CommandLineTest, VersionIsOneLine) {
    for (const Arguments& arguments : {Arguments{"--version"}, {"diff", "--version"}}) {
        const CommandLine line = read(arguments);
        EXPECT_THAT(line.text, ::testing::MatchesRegex("mail_audit [0-9.]+\n"));
        EXPECT_FALSE(line.options);
        EXPECT_FALSE(line.isError);
    }
}

struct UsageError {
    const char* what;
    Arguments arguments;
    const char* reason;
};

void PrintTo(const UsageError& error, std::ostream* stream) {
    *stream << error.what;
}

class UsageErrorTest : public ::testing::TestWithParam<UsageError> {
protected:
    static std::string errorOf(const Arguments& arguments) {
        const CommandLine line = read(arguments);
        EXPECT_TRUE(line.isError);
        EXPECT_FALSE(line.options);
        EXPECT_EQ(line.text.find('\n'), line.text.size() - 1);
        return line.text;
    }
};

TEST_P(UsageErrorTest, IsToldInOneLine) {
    EXPECT_EQ(errorOf(GetParam().arguments),
              std::string("mail_audit: ") + GetParam().reason + " (see mail_audit --help)\n");
}

INSTANTIATE_TEST_SUITE_P(
    InOurWords, UsageErrorTest,
    ::testing::Values(
        UsageError{"NoCommand", {}, "a command is missing: check, diff or show"},
        UsageError{"OptionsAlone", {"--quiet"}, "a command is missing: check, diff or show"},
        UsageError{"UnknownFormat",
                   {"diff", "--format", "xml"},
                   "--format: \"xml\" is none of json, jsonl, table"},
        UsageError{"NumberOfAFormat",
                   {"diff", "--format", "1"},
                   "--format: \"1\" is none of json, jsonl, table"},
        UsageError{"FormatInCapitals",
                   {"diff", "--format", "JSON"},
                   "--format: \"JSON\" is none of json, jsonl, table"},
        UsageError{"UnknownColour",
                   {"diff", "--color", "red"},
                   "--color: \"red\" is none of always, auto, never"},
        UsageError{"FormatTwice",
                   {"diff", "--format", "json", "--format", "json"},
                   "--format: given twice"},
        UsageError{"FormatBeforeAndBehind",
                   {"--format", "json", "diff", "--format", "table"},
                   "--format: given twice"},
        UsageError{
            "ColourTwice", {"diff", "--color", "auto", "--color", "never"}, "--color: given twice"},
        UsageError{"EmptyDomain", {"diff", "--domain", ""}, "--domain: a pattern is empty"},
        UsageError{"EmptyMailbox", {"show", "--mailbox", ""}, "--mailbox: a pattern is empty"},
        UsageError{"MailboxWithoutDomain",
                   {"show", "--mailbox", "info"},
                   "--mailbox: a mailbox is NAME@DOMAIN"},
        UsageError{"DrivenTerminal",
                   {"diff", "--format", "\x1b[31m\n"},
                   "--format: \"\\x1b[31m\\x0a\" is none of json, jsonl, table"}),
    [](const auto& entry) { return entry.param.what; });

// The library's words differ from version to version.
class LibrarysUsageErrorTest : public UsageErrorTest {};

TEST_P(LibrarysUsageErrorTest, NamesTheCulpritInOneLine) {
    const std::string error = errorOf(GetParam().arguments);
    EXPECT_THAT(error, StartsWith("mail_audit: "));
    EXPECT_THAT(error, HasSubstr(GetParam().reason));
    EXPECT_THAT(error, EndsWith(" (see mail_audit --help)\n"));
}

INSTANTIATE_TEST_SUITE_P(
    Told, LibrarysUsageErrorTest,
    ::testing::Values(UsageError{"UnknownCommand", {"repair"}, "repair"},
                      UsageError{"UnknownOption", {"diff", "--fix"}, "--fix"},
                      UsageError{"TwoCommands", {"check", "diff"}, "diff"},
                      UsageError{"CommandTwice", {"check", "check"}, "check"},
                      UsageError{"SurplusArgument", {"diff", "example.com"}, "example.com"},
                      UsageError{"ScopeOfCheck", {"check", "--domain", "a"}, "--domain"},
                      UsageError{"RecountOfShow", {"show", "--recount"}, "--recount"},
                      UsageError{"ExtrasOfCheck", {"check", "--extras"}, "--extras"},
                      UsageError{"DomainWithoutPattern", {"diff", "--domain"}, "--domain"},
                      UsageError{"TwoPatternsOfOneDomain", {"diff", "--domain", "a", "b"}, "b"},
                      UsageError{"FormatWithoutWord", {"diff", "--format"}, "--format"},
                      UsageError{"EscapeSequence", {"diff", "\x1b[2J\n"}, "\\x1b[2J\\x0a"}),
    [](const auto& entry) { return entry.param.what; });

}  // namespace
}  // namespace corvo::audit
