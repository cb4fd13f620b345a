#include "audit/check/subject.h"

#include <cstring>
#include <utility>

namespace corvo::audit {

Subject::Subject(const CheckSink& sink, std::string name) : sink_(sink), name_(std::move(name)) {}

void Subject::ok(const std::string& finding) const {
    say(Verdict::ok, finding, "");
}

void Subject::warning(const std::string& finding, const std::string& advice) const {
    say(Verdict::warning, finding, advice);
}

void Subject::problem(const std::string& finding, const std::string& advice) const {
    say(Verdict::problem, finding, advice);
}

void Subject::say(Verdict verdict, const std::string& finding, const std::string& advice) const {
    sink_({verdict, name_, finding, verdict == Verdict::ok ? "" : advice});
}

void Subject::unreadable(const std::string& path, int error) const {
    problem(path + ": " + std::strerror(error),
            "look at it by hand, or check as a user who may read it");
}

}  // namespace corvo::audit
