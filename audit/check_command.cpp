#include "audit/check_command.h"

#include <fmt/format.h>

#include <cstddef>
#include <string>

#include "audit/check/check.h"
#include "audit/status.h"
#include "audit/text.h"

namespace corvo::audit {

namespace {

struct Manner {
    const char* name;
    Tone tone;
};

Manner mannerOf(Verdict verdict) {
    switch (verdict) {
        case Verdict::ok:
            return {"ok", Tone::good};
        case Verdict::warning:
            return {"warning", Tone::warning};
        case Verdict::problem:
            break;
    }
    return {"problem", Tone::problem};
}

Record recordOf(const CheckResult& result) {
    return {{"kind", "check"},
            {"verdict", mannerOf(result.verdict).name},
            {"subject", result.subject},
            {"finding", result.finding},
            {"advice", valueUnlessEmpty(result.advice)}};
}

std::string lineOf(const CheckResult& result) {
    const std::string advice = result.advice.empty() ? "" : " [" + result.advice + "]";
    return fmt::format("{:<8} {}: {}{}", mannerOf(result.verdict).name, printable(result.subject),
                       printable(result.finding), printable(advice));
}

struct Counts {
    std::size_t ok = 0;
    std::size_t warnings = 0;
    std::size_t problems = 0;

    void count(Verdict verdict) {
        ok += verdict == Verdict::ok ? 1 : 0;
        warnings += verdict == Verdict::warning ? 1 : 0;
        problems += verdict == Verdict::problem ? 1 : 0;
    }
};

bool finish(Output& output, const Counts& counts) {
    const Record summary = {
        {"ok", counts.ok}, {"warnings", counts.warnings}, {"problems", counts.problems}};
    return output.finish(summary, counted(counts.problems, "problem", "problems") + ", " +
                                      counted(counts.warnings, "warning", "warnings") + ".");
}

}  // namespace

int check(Output& output) {
    Counts counts;
    checkMachine([&](const CheckResult& result) {
        output.print(recordOf(result), lineOf(result), mannerOf(result.verdict).tone);
        counts.count(result.verdict);
    });
    if (!finish(output, counts))
        return NOT_WHOLE;
    return counts.problems > 0 ? SOMETHING_TO_REPAIR : NOTHING_TO_REPAIR;
}

}  // namespace corvo::audit
