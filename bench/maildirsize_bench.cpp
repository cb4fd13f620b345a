// Reading and writing the text of a maildirsize file.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "mail/quota/maildirsize.h"

namespace {

// As delivery agents write them.
constexpr std::string_view DELIVERY = "        1024           1\n";
constexpr std::string_view REMOVAL = "       -1024          -1\n";

// The largest file that delivery agents keep; they write a larger one anew.
constexpr long long LINES_OF_5120_BYTES = 5120 / DELIVERY.size();

std::string usageLines(long long lines) {
    std::string text;
    for (long long i = 0; i < lines; ++i)
        text += i % 3 == 2 ? REMOVAL : DELIVERY;
    return text;
}

void usage(benchmark::State& state) {
    const std::string text = usageLines(state.range(0));
    long long bytes = 0;
    long long messages = 0;
    while (state.KeepRunning()) {
        if (!parse_usage_lines(text, &bytes, &messages))
            state.SkipWithError("malformed");
        benchmark::DoNotOptimize(bytes);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetBytesProcessed(state.iterations() * static_cast<long long>(text.size()));
}

void header(benchmark::State& state, const std::string& text) {
    long long bytes = 0;
    long long messages = 0;
    while (state.KeepRunning()) {
        if (!parse_header_string(text, &bytes, &messages))
            state.SkipWithError("malformed");
        benchmark::DoNotOptimize(bytes);
    }
}

void format(benchmark::State& state) {
    char content[MAILDIRSIZE_CONTENT_MAX];
    while (state.KeepRunning())
        benchmark::DoNotOptimize(format_maildirsize(content, 10'485'760, 1000, 123'456, 78));
}

BENCHMARK(usage)->Arg(1)->Arg(LINES_OF_5120_BYTES)->Arg(100'000);
BENCHMARK_CAPTURE(header, bytes, "10485760S");
BENCHMARK_CAPTURE(header, bytesAndMessages, "10485760S,1000C");
BENCHMARK(format);

}  // namespace
