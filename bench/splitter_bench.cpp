// What the splitter costs beside a memchr for every frame and one memcpy of the same bytes, for
// flash alone (0 codes) and while the tool wants 1, 100 or 4095 codes. Run it inside
// scripts/handset.
//
// The things compared take turns within one iteration, so the counters hold on a busy machine:
//   of_copy   speed, as a share of memchr and memcpy; median
//   of_1code  cost, as a multiple of that with one wanted code; median
#include <benchmark/benchmark.h>

#include <vector>

#include "bench/bench_support.h"
#include "bench/splitter_rig.h"

namespace {

void Split(benchmark::State& state) {
    SplitterRig rig(static_cast<int>(state.range(0)));
    const auto codes = static_cast<int>(state.range(1));
    std::vector<double> copy;
    std::vector<double> oneCode;
    std::vector<double> split;
    // Setting the codes clears caches of the stream: one pass unmeasured.
    const auto timeWith = [&rig](int count) {
        rig.SetToolCodes(count);
        rig.TimeSplitter();
        return rig.TimeSplitter();
    };
    for ([[maybe_unused]] auto unused : state) {
        copy.push_back(rig.TimeCopy());
        if (codes > 1) oneCode.push_back(timeWith(1));
        split.push_back(timeWith(codes));
        state.SetIterationTime(split.back());
    }
    state.SetBytesProcessed(state.iterations() * SplitterRig::kBytes);
    state.counters["of_copy"] = Quantile(copy, 0.5) / Quantile(split, 0.5);
    if (codes > 1) state.counters["of_1code"] = Quantile(split, 0.5) / Quantile(oneCode, 0.5);
}
BENCHMARK(Split)
    ->ArgNames({"frame", "codes"})
    ->ArgsProduct({{32, 100, 300, 1500}, {0, 1, 100, 4095}})
    ->UseManualTime()
    ->MinTime(0.2);

}  // namespace

int main(int argc, char** argv) {
    if (!PrepareLog(argv)) return 1;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
