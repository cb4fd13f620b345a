// Standard error without what could drive a terminal.

#pragma once

#include <streambuf>
#include <string>

namespace corvo::audit {

/// While it lives, std::cerr puts out whole lines, each as printable() has it: a walk's warnings
/// and failure lines quote the rows as they are.
class EscapedErrors : public std::streambuf {
public:
    EscapedErrors();
    ~EscapedErrors() override;
    EscapedErrors(const EscapedErrors&) = delete;
    EscapedErrors& operator=(const EscapedErrors&) = delete;

protected:
    /// There is no put area: every character comes this way.
    int_type overflow(int_type c) override;

private:
    void putLine(const char* end);

    std::streambuf* errors_;
    std::string line_;  // not yet put out
};

}  // namespace corvo::audit
