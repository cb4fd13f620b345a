// Handing a result's rows out as maps from column name to field.

#include <benchmark/benchmark.h>

#include <string>

#include "lib/db++/connection.h"
#include "tests/support/panel.h"
#include "tests/support/sandbox.h"

namespace {

using namespace corvo::test;
using corvo::mysql::Connection;
using corvo::mysql::Query;
using corvo::mysql::Result;

// A statement with so many rows of so many columns, every third of them NULL.
std::string rowsOf(long long columns, long long rows) {
    std::string list;
    for (long long i = 0; i < columns; ++i) {
        list += i == 0 ? "SELECT " : ", ";
        list += i % 3 == 2 ? "NULL" : "CONCAT('value', seq)";
        list += " AS column_" + std::to_string(i);
    }
    return list + " FROM seq_1_to_" + std::to_string(rows);
}

// The statement itself is not measured.
void fetch(benchmark::State& state) {
    const long long columns = state.range(0);
    const long long rows = state.range(1);
    resetSandbox();
    const PanelDatabase panel;
    Connection connection(true);
    while (state.KeepRunning()) {
        state.PauseTiming();
        {
            Result result = connection << rowsOf(columns, rows) << Query::fetch;
            state.ResumeTiming();
            Result::row_t row;
            while (result.fetch(&row))
                benchmark::DoNotOptimize(row);
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * rows);
}

// One column as an alias has, six as a mail name has; one row costs what the first one costs.
BENCHMARK(fetch)->ArgNames({"columns", "rows"})->ArgsProduct({{1, 6, 24}, {1, 10'000}});

}  // namespace
