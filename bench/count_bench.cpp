// Counting the messages of a Maildir, with their sizes in the names and without.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <ctime>
#include <stdexcept>
#include <string>

#include "mail/quota/maildir_usage.h"
#include "tests/support/files.h"
#include "tests/support/sandbox.h"

namespace {

using namespace corvo::test;

constexpr long long SIZE = 7;  // bytes of each message

std::string messageName(long long number, const std::string& size) {
    return std::to_string(1'700'000'000 + number) + ".M" + std::to_string(number) +
           "P1.mail.example.com" + size + ":2,S";
}

// Makes a Maildir with so many messages in "cur", and changes to it.
void enterMaildir(long long messages, const std::string& size) {
    resetSandbox();
    const std::string maildir = MAILNAMES + "/example.com/info/Maildir";
    for (const char* part : {"/new", "/cur", "/tmp"})
        makeDirectory(maildir + part);
    for (long long i = 0; i < messages; ++i)
        writeFile(maildir + "/cur/" + messageName(i, size), "7 bytes");
    if (::chdir(maildir.c_str()) != 0)
        throw std::runtime_error("no way into " + maildir);
}

void count(benchmark::State& state, const std::string& size) {
    enterMaildir(state.range(0), size);
    long long bytes = 0;
    long long messages = 0;
    std::time_t newest = 0;
    while (state.KeepRunning())
        get_maildirpp_messages_usage(&bytes, &messages, &newest);
    if (messages != state.range(0) || bytes != messages * SIZE)
        state.SkipWithError("miscounted");
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetComplexityN(state.range(0));
}

void sizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->RangeMultiplier(8)->Range(1'000, 64'000)->Unit(benchmark::kMicrosecond);
    benchmark->Complexity(benchmark::oN);
}

BENCHMARK_CAPTURE(count, sizesInTheNames, ",S=" + std::to_string(SIZE))->Apply(sizes);
BENCHMARK_CAPTURE(count, sizesOnTheDisk, "")->Apply(sizes);

}  // namespace
