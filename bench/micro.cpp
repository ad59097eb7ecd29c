// Each side of each operation in the table as a Google Benchmark, for use under a profiler:
//
//   micro --benchmark_filter='checkSegmentList/.*/ours/1000$'

#include "operation.h"

#include <string>

#include <benchmark/benchmark.h>

namespace bench {

namespace {

void Run(benchmark::State& state, Operation const& operation, bool ours) {
    auto const n = static_cast<unsigned int>(state.range(0));
    try {
        Comparison const comparison = operation.prepare(operation.shape, n);
        Side const& side = ours ? comparison.ours : comparison.reference;
        for (auto _ : state) {
            side.run();
            if (side.makeReady) {
                state.PauseTiming();
                side.makeReady();
                state.ResumeTiming();
            }
        }
    } catch (std::exception const& caught) {
        state.SkipWithError(caught.what());
    }
    state.SetItemsProcessed(state.iterations() * n);
}

void Register() {
    for (Operation const& operation : Operations()) {
        for (bool const ours : {true, false}) {
            std::string const name =
                std::string(operation.name) + '/' + operation.reference + (ours ? "/ours" : "/reference");
            auto* const made = benchmark::RegisterBenchmark(
                name.c_str(), [&operation, ours](benchmark::State& state) { Run(state, operation, ours); });
            for (auto const& [n, target] :
                 {std::pair{1'000U, operation.inCache}, {operation.many, operation.inMemory}}) {
                if (target != kNotMeasured) {
                    made->Arg(n);
                }
            }
        }
    }
}

} // namespace

} // namespace bench

int main(int argc, char** argv) {
    bench::Register();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
}
