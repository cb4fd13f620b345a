// What a call of the program asks for.

#pragma once

#include <string>
#include <vector>

namespace corvo::audit {

enum class Command { check, diff, show };
enum class Format { table, json, jsonl };
enum class Colour { automatic, always, never };

/// Which domains and mailboxes are meant; all when no pattern is given. Patterns are those of
/// shells, without regard to case.
struct Scope {
    std::vector<std::string> domains;
    std::vector<std::string> mailboxes;  // NAME@DOMAIN, each half a pattern of its own

    bool isAll() const noexcept { return domains.empty() && mailboxes.empty(); }
    /// Is all of a domain meant?
    bool includes(const std::string& domain) const;
    /// May anything of a domain be meant: all of it, or some mailbox that it might have?
    bool reaches(const std::string& domain) const;
    /// Is a mailbox meant, by itself or with its domain?
    bool includes(const std::string& domain, const std::string& mailname) const;
};

struct Options {
    Command command = Command::check;
    Scope scope;
    bool recount = false;
    bool extras = false;
    Format format = Format::table;
    bool quiet = false;
    bool progress = true;
    Colour colour = Colour::automatic;
};

}  // namespace corvo::audit
