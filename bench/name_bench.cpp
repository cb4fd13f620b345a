// Judging names of mail names and domains, and making paths of them.

#include <benchmark/benchmark.h>

#include <climits>
#include <string>

#include "mail/home/mail_paths.h"
#include "tests/support/files.h"
#include "tests/support/sandbox.h"

namespace {

using namespace corvo::test;

// `length` bytes of "label.label. ...", with labels of up to 63 bytes.
std::string labels(std::size_t length) {
    constexpr std::size_t LABEL = 63;
    std::string name(length, 'a');
    for (std::size_t dot = LABEL; dot + 1 < length; dot += LABEL + 1)
        name[dot] = '.';
    return name;
}

void judge(benchmark::State& state, int (*valid)(const char*), const std::string& name) {
    while (state.KeepRunning()) {
        if (valid(name.c_str()) == 0)
            state.SkipWithError("refused");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<long long>(name.size()));
}

BENCHMARK_CAPTURE(judge, mailname, is_mailname_valid, "firstname.lastname");
BENCHMARK_CAPTURE(judge, longestMailname, is_mailname_valid, std::string(245, 'z'));
BENCHMARK_CAPTURE(judge, domain, is_domain_name_valid, "mail.example.com");
BENCHMARK_CAPTURE(judge, longestDomain, is_domain_name_valid, labels(255));
BENCHMARK_CAPTURE(judge, address, is_full_mailname_valid, "firstname.lastname@mail.example.com");

void homePath(benchmark::State& state, const std::string& domain) {
    resetSandbox();
    writeFile("/etc/vhc/vhc.conf", "CORVO_MAILNAMES_D " + MAILNAMES + "\n");  // is read once
    char path[PATH_MAX];
    while (state.KeepRunning()) {
        if (get_mailhome_path(path, sizeof path, "Firstname.Lastname", domain.c_str()) != 0)
            state.SkipWithError("refused");
        benchmark::DoNotOptimize(path);
    }
}

BENCHMARK_CAPTURE(homePath, asciiDomain, "mail.example.com");
BENCHMARK_CAPTURE(homePath, internationalDomain, "b\u00fccher.example.com");

}  // namespace
