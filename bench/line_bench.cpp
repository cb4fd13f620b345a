// The line engine on a file with many forwards.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/sandbox.h"
#include "utils/line_file.h"

namespace {

using namespace corvo::test;

const std::string PATH = MAILNAMES + "/example.com/info/.qmail";

std::string forward(long long number) {
    return "&recipient" + std::to_string(number) + "@mail.example.com";
}

std::string forwards(long long lines) {
    std::string text;
    for (long long i = 0; i < lines; ++i)
        text += forward(i) + "\n";
    return text;
}

// Repeats one action, with a file that it leaves as it found it.
void rewrite(benchmark::State& state, std::vector<const char*> list, int action, int where) {
    resetSandbox();
    const std::string before = forwards(state.range(0));
    writeFile(PATH, before);
    list.push_back(nullptr);
    while (state.KeepRunning()) {
        if (file_strings(PATH.c_str(), list.data(), action, where) != 0)
            state.SkipWithError("failed");
    }
    if (contentsOf(PATH) != before)
        state.SkipWithError("changed the file");
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// Adds a line to a file that is put back, unmeasured, every time.
void add(benchmark::State& state, int where) {
    resetSandbox();
    const std::string before = forwards(state.range(0));
    while (state.KeepRunning()) {
        state.PauseTiming();
        writeFile(PATH, before);
        state.ResumeTiming();
        if (file_str(PATH.c_str(), "&another@example.com", FILE_STRINGS_ADD, where) != 0)
            state.SkipWithError("failed");
    }
}

void sizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->Arg(1)->Arg(100)->Arg(10'000)->Unit(benchmark::kMicrosecond);
}

BENCHMARK_CAPTURE(add, append, FILE_STRINGS_APPEND)->Apply(sizes);
BENCHMARK_CAPTURE(add, prepend, FILE_STRINGS_PREPEND)->Apply(sizes);
BENCHMARK_CAPTURE(rewrite, removeOneLine, {"&nobody@example.com"}, FILE_STRINGS_REMOVE, 0)
    ->Apply(sizes);
BENCHMARK_CAPTURE(rewrite, removeThreeLines, {"| first", "| second", "| third"},
                  FILE_STRINGS_REMOVE, 0)
    ->Apply(sizes);
BENCHMARK_CAPTURE(rewrite, removeByPrefix, {"| "}, FILE_STRINGS_REMOVE_PATTERN, FILE_STRINGS_PREFIX)
    ->Apply(sizes);
BENCHMARK_CAPTURE(rewrite, removeBySuffix, {"@example.net"}, FILE_STRINGS_REMOVE_PATTERN,
                  FILE_STRINGS_SUFFIX)
    ->Apply(sizes);
BENCHMARK_CAPTURE(rewrite, removeBySubstring, {"deliverquota"}, FILE_STRINGS_REMOVE_PATTERN,
                  FILE_STRINGS_SUBSTRING)
    ->Apply(sizes);

}  // namespace
