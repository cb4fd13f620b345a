// How long a walk takes, and how much memory, as a domain's mail names grow in number.
//
// Each size of domain is measured twice: the whole walk with every slot bound, and, to compare the
// memory with, the mail names' result alone.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <fstream>
#include <stdexcept>
#include <string>

#include "lib/db++/connection.h"
#include "restore/entities_callbacks.h"
#include "restore/walker.h"
#include "tests/support/panel.h"
#include "tests/support/sandbox.h"
#include "tests/support/slots.h"
#include "tests/unit/restore/statements.h"

namespace {

using corvo::mysql::Connection;
using corvo::mysql::Query;
using corvo::mysql::Result;
using namespace corvo::test;

// A line of /proc/self/status that is a number of KiB, in bytes.
double bytesOf(const std::string& name) {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        double kib = 0;
        if (word == name + ":" && status >> kib)
            return kib * 1024;
    }
    throw std::runtime_error("no " + name + " in /proc/self/status");
}

// The resident memory of the process while it lives: what it began with, and its peak since.
class ResidentMemory {
public:
    ResidentMemory() {
        ::malloc_trim(0);                             // nothing of an earlier run is used again
        std::ofstream("/proc/self/clear_refs") << 5;  // the peak begins anew
        start = bytesOf("VmRSS");
    }

    void report(benchmark::State& state) const {
        const double peak = bytesOf("VmHWM");
        const auto names = static_cast<double>(state.range(0));
        state.counters["peak"] = {peak, benchmark::Counter::kDefaults, benchmark::Counter::kIs1024};
        state.counters["grown/name"] = (peak - start) / names;
    }

private:
    double start = 0;
};

// A panel with one domain. Every mail name has an alias, every tenth is a group with a redirect.
class DomainOf {
public:
    explicit DomainOf(long long mailnames) {
        const std::string sequence = " FROM seq_1_to_" + std::to_string(mailnames);
        panel.execute(
            "INSERT INTO mail (id, mail_name, dom_id, postbox, delivery, mail_group)"
            " SELECT seq, CONCAT('name', seq), " +
            std::to_string(domain) + ", 'true', 'true', IF(seq % 10 = 0, 'true', 'false')" +
            sequence);
        panel.execute("INSERT INTO mail_aliases (mn_id, alias) SELECT seq, CONCAT('alias', seq)" +
                      sequence);
        panel.execute(
            "INSERT INTO mail_redir (mn_id, address)"
            " SELECT seq, CONCAT('name', seq, '@example.net')" +
            sequence + " WHERE seq % 10 = 0");
    }

    int id() const { return domain; }

private:
    PanelDatabase panel;
    int domain = panel.domain("example.com").defaultQuota(1048576).id();
};

// The time per mail name, of a benchmark that runs once.
void reportTime(benchmark::State& state) {
    state.counters["time/name"] = {static_cast<double>(state.range(0)),
                                   benchmark::Counter::kIsRate | benchmark::Counter::kInvert};
    state.SetComplexityN(state.range(0));
}

void walk(benchmark::State& state) {
    resetSandbox();
    const DomainOf domain(state.range(0));
    corvo::mail::restore::MailsrvEntitiesCallbacks callbacks;
    double calls = 0;
    forEachSlot(callbacks, [&calls](const char*, auto& slot) {
        slot = [&calls](const auto&...) { ++calls; };
    });
    const ResidentMemory memory;
    while (state.KeepRunning())
        corvo::mail::restore::walkMailServerEntities(callbacks);
    memory.report(state);
    reportTime(state);
    state.counters["calls/name"] = calls / static_cast<double>(state.range(0));
}

void mailnamesResult(benchmark::State& state) {
    resetSandbox();
    const DomainOf domain(state.range(0));
    Connection connection(true);
    const ResidentMemory memory;
    while (state.KeepRunning()) {
        Result result = connection << statement::mailnames(domain.id()) << Query::fetch;
        Result::row_t row;
        while (result.fetch(&row))
            benchmark::DoNotOptimize(row);
    }
    memory.report(state);
    reportTime(state);
}

void sizes(benchmark::internal::Benchmark* benchmark) {
    benchmark->RangeMultiplier(10)->Range(1'000, 100'000)->Iterations(1)->UseRealTime();
    benchmark->Unit(benchmark::kMillisecond)->Complexity(benchmark::oN);
}

BENCHMARK(walk)->Apply(sizes);
BENCHMARK(mailnamesResult)->Apply(sizes);

}  // namespace
