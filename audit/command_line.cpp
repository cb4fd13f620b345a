#include "audit/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>

namespace corvo::audit {

namespace {

const std::map<std::string, Format> FORMATS = {
    {"table", Format::table}, {"json", Format::json}, {"jsonl", Format::jsonl}};
const std::map<std::string, Colour> COLOURS = {
    {"auto", Colour::automatic}, {"always", Colour::always}, {"never", Colour::never}};

constexpr const char* DESCRIPTION =
    "Shows where the mail storage of this server differs from what the panel says, and what a run "
    "of "
    "mail_rebuild would change. Changes nothing.";
constexpr const char* FOOTER =
    "Status: 0, nothing is to be repaired; 1, something is; 2, the audit could not be made, or not "
    "whole.";

void addScope(CLI::App& command, Scope& scope) {
    command.add_option("--domain", scope.domains, "Only domains that match (repeatable)")
        ->type_name("GLOB")
        ->expected(1)
        ->take_all();
    command
        .add_option("--mailbox", scope.mailboxes,
                    "Only mailboxes NAME@DOMAIN that match (repeatable)")
        ->type_name("GLOB")
        ->expected(1)
        ->take_all()
        ->check([](const std::string& pattern) {
            return pattern.find('@') == std::string::npos ? "a mailbox is NAME@DOMAIN"
                                                          : std::string();
        });
}

// Options that stand before or behind the command.
void addCommonOptions(CLI::App& program, Options& options) {
    program.add_option("--format", options.format, "table (the default), json or jsonl")
        ->type_name("FORMAT")
        ->transform(CLI::Transformer(FORMATS))
        ->option_text("table|json|jsonl");
    program.add_flag("--quiet", options.quiet, "Print only what is wrong: no summary, no progress");
    program.add_flag("!--no-progress", options.progress, "Show no progress on a terminal");
    program.add_option("--color", options.colour, "auto (the default), always or never")
        ->type_name("WHEN")
        ->transform(CLI::Transformer(COLOURS))
        ->option_text("auto|always|never");
    program.set_version_flag("--version", "mail_audit " CORVO_VERSION);
    program.set_help_flag("-h,--help", "Print this and end");
}

void addCommands(CLI::App& program, Options& options) {
    const auto add = [&](Command command, const char* name, const char* description) {
        CLI::App* const added = program.add_subcommand(name, description);
        added->fallthrough();
        added->callback([&options, command] { options.command = command; });
        return added;
    };
    add(Command::check, "check", "Is this machine ready for a run?");
    CLI::App* const diff =
        add(Command::diff, "diff", "Where does the storage differ from what the panel says?");
    addScope(*diff, options.scope);
    diff->add_flag("--recount", options.recount,
                   "Count the messages, too, and compare with maildirsize");
    diff->add_flag("--extras", options.extras, "Name, too, what the panel does not know");
    addScope(*add(Command::show, "show", "What does the panel know of mail?"), options.scope);
    program.require_subcommand(1);
}

std::string oneLine(std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

}  // namespace

CommandLine readCommandLine(int argc, const char* const* argv) {
    Options options;
    CLI::App program(DESCRIPTION, "mail_audit");
    program.footer(FOOTER);
    addCommonOptions(program, options);
    addCommands(program, options);
    try {
        program.parse(argc, argv);
        return {options, "", false};
    } catch (const CLI::CallForHelp&) {
        const auto chosen = program.get_subcommands();
        return {std::nullopt, (chosen.empty() ? &program : chosen.front())->help(), false};
    } catch (const CLI::CallForVersion&) {
        return {std::nullopt, program.version() + "\n", false};
    } catch (const CLI::ParseError& error) {
        return {std::nullopt,
                "mail_audit: " + oneLine(error.what()) + " (see mail_audit --help)\n", true};
    }
}

}  // namespace corvo::audit
