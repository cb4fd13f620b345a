// One thing that is looked at, and what is said of it.

#pragma once

#include <string>

#include "audit/check/check.h"

namespace corvo::audit {

class Subject {
public:
    /// The sink must outlive it.
    Subject(const CheckSink& sink, std::string name);

    void ok(const std::string& finding) const;
    void warning(const std::string& finding, const std::string& advice) const;
    void problem(const std::string& finding, const std::string& advice) const;

    /// As one of the above; `advice` is left out of an ok.
    void say(Verdict verdict, const std::string& finding, const std::string& advice) const;

    /// A problem: what is at `path` could not be looked at, for the reason of `error`, an errno.
    void unreadable(const std::string& path, int error) const;

private:
    const CheckSink& sink_;
    std::string name_;
};

}  // namespace corvo::audit
