#include "audit/command_line.h"

#include <CLI/CLI.hpp>
#include <map>
#include <utility>

#include "audit/text.h"

namespace corvo::audit {

namespace {

constexpr const char* VERSION = "mail_audit " CORVO_VERSION "\n";

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

std::string objectionToGlob(const std::string& pattern) {
    return pattern.empty() ? "a pattern is empty" : "";
}

std::string objectionToMailboxGlob(const std::string& pattern) {
    return pattern.find('@') == std::string::npos ? "a mailbox is NAME@DOMAIN" : "";
}

// Each occurrence is one pattern, brackets and commas included.
CLI::Option* addGlobs(CLI::App& command, const char* name, std::vector<std::string>& patterns) {
    return command
        .add_option_function<std::string>(
            name, [&patterns](const std::string& pattern) { patterns.push_back(pattern); })
        ->type_name("pattern")
        ->trigger_on_parse()
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
        ->check(objectionToGlob);
}

void addScope(CLI::App& command, Scope& scope) {
    addGlobs(command, "--domain", scope.domains);
    addGlobs(command, "--mailbox", scope.mailboxes)->check(objectionToMailboxGlob);
}

template <typename Value>
std::string objectionToWord(const std::map<std::string, Value>& words, const std::string& word) {
    if (words.contains(word))
        return "";
    std::string known;
    for (const auto& [text, value] : words)
        known += (known.empty() ? "" : ", ") + text;
    return "\"" + word + "\" is none of " + known;
}

// An option whose values are words.
template <typename Value>
void addChoice(CLI::App& program, const char* name, Value& value,
               const std::map<std::string, Value>& words) {
    const auto choose = [=, &value, isChosen = false](const std::string& word) mutable {
        if (std::exchange(isChosen, true))
            throw CLI::ValidationError(name, "given twice");
        value = words.at(word);
    };
    program.add_option_function<std::string>(name, choose)
        ->type_name("word")
        ->trigger_on_parse()
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
        ->check([words](const std::string& word) { return objectionToWord(words, word); });
}

// Options that stand before or behind the command.
void addCommonOptions(CLI::App& program, Options& options) {
    addChoice<Format>(program, "--format", options.format,
                      {{"table", Format::table}, {"json", Format::json}, {"jsonl", Format::jsonl}});
    addChoice<Colour>(
        program, "--color", options.colour,
        {{"auto", Colour::automatic}, {"always", Colour::always}, {"never", Colour::never}});
    program.add_flag("--quiet", options.quiet);
    program.add_flag("!--no-progress", options.progress);
    program.set_version_flag("--version", VERSION);
    program.set_help_flag("-h,--help");
}

CLI::App& addCommand(CLI::App& program, const char* name, Command command, Options& options) {
    CLI::App* const added = program.add_subcommand(name);
    added->fallthrough();
    added->callback([&options, command] { options.command = command; });
    return *added;
}

void addCommands(CLI::App& program, Options& options) {
    addCommand(program, "check", Command::check, options);
    CLI::App& diff = addCommand(program, "diff", Command::diff, options);
    addScope(diff, options.scope);
    diff.add_flag("--recount", options.recount);
    diff.add_flag("--extras", options.extras);
    addScope(addCommand(program, "show", Command::show, options), options.scope);
    program.require_subcommand(0, 1);
}

CommandLine usageError(const std::string& reason) {
    return {std::nullopt, "mail_audit: " + printable(reason) + " (see mail_audit --help)\n", true};
}

}  // namespace

CommandLine readCommandLine(int argc, const char* const* argv) {
    Options options;
    CLI::App program;
    addCommonOptions(program, options);
    addCommands(program, options);
    try {
        program.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        return {std::nullopt, HELP, false};
    } catch (const CLI::CallForVersion&) {
        return {std::nullopt, VERSION, false};
    } catch (const CLI::ParseError& error) {
        return usageError(error.what());
    }
    if (program.get_subcommands().empty())
        return usageError("a command is missing: check, diff or show");
    return {std::move(options), "", false};
}

}  // namespace corvo::audit
