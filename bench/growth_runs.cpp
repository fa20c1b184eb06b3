// Whether a byte costs the same however many there are, and however many log codes the tool wants.
#include <algorithm>
#include <ctime>
#include <functional>
#include <vector>

#include "bench/rig.h"
#include "bench/runs.h"
#include "bench/splitter_rig.h"

namespace {

constexpr double kVolume = 10e6;
constexpr int kFactors[] = {1, 10, 100};
constexpr int kCodes[] = {1, 100, 4095};
constexpr int kSteps = 3;
constexpr int kFrameSize = 300;

// Nanoseconds a byte at one of the steps.
using CostAt = std::function<double(int step)>;

// Compares the later steps with the first, in turns.
void MeasureSteps(const Extent& extent, const std::string& what,
                  const std::vector<std::string>& steps, const CostAt& costAt, Report& report) {
    constexpr double kFlatPercent = 20;
    std::vector<Row> rows;
    for (int step = 1; step < kSteps; ++step)
        rows.push_back({what + ", " + steps[static_cast<size_t>(step)], "ns"});
    for (int round = 0; round < extent.rounds; ++round) {
        double costs[kSteps];
        for (int turn = 0; turn < kSteps; ++turn) {
            const int step = (round + turn) % kSteps;
            costs[step] = costAt(step);
        }
        for (int step = 1; step < kSteps; ++step) {
            Row& row = rows[static_cast<size_t>(step) - 1];
            row.Record("quillod", costs[step]);
            row.Record(steps[0], costs[0]);
        }
    }
    double worst = 1;
    for (const Row& row : rows) {
        worst = std::max({worst, row.Ratio(), 1 / row.Ratio()});
        report.Add(row);
    }
    report.AtMost(what + ", not flat by", (worst - 1) * 100, kFlatPercent, " %");
}

double ThreadCpuSeconds() {
    timespec used{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

double SplitterCost(SplitterRig& rig, int codes, double bytes) {
    rig.SetToolCodes(codes);
    rig.TimeSplitter();  // setting the codes has cleared caches of the stream
    const int passes = static_cast<int>(bytes / SplitterRig::kBytes) + 1;
    const double before = ThreadCpuSeconds();
    for (int i = 0; i < passes; ++i)
        rig.TimeSplitter();
    return (ThreadCpuSeconds() - before) * 1e9 / passes / SplitterRig::kBytes;
}

}  // namespace

void MeasureGrowth(const Extent& extent, Report& report) {
    const auto bytesAt = [&extent](int step) { return kVolume * kFactors[step] * extent.share; };
    std::vector<std::string> volumes;
    std::vector<std::string> codes;
    for (int step = 0; step < kSteps; ++step) {
        volumes.push_back(std::to_string(static_cast<int>(bytesAt(step) / kMega)) + " MB");
        codes.push_back(std::to_string(kCodes[step]) + (step == 0 ? " code" : " codes"));
    }
    const CostAt relay = [&](int step) {
        const Modem modem;
        return RelayToTool(bytesAt(step)).cpuSeconds * 1e9 / bytesAt(step);
    };
    MeasureSteps(extent, "relay, CPU a byte", volumes, relay, report);
    const CostAt capture = [&](int step) {
        const CaptureResult result = RunCapture(Capture::kTenthToTool, bytesAt(step));
        return result.cpuSeconds * 1e9 / result.bytes;
    };
    MeasureSteps(extent, "capture, CPU a byte", volumes, capture, report);
    SplitterRig rig(kFrameSize);
    const CostAt splitter = [&](int step) { return SplitterCost(rig, 1, bytesAt(step)); };
    MeasureSteps(extent, "splitter, CPU a byte", volumes, splitter, report);
    const CostAt wanted = [&](int step) { return SplitterCost(rig, kCodes[step], bytesAt(1)); };
    MeasureSteps(extent, "splitter, CPU a byte by wanted codes", codes, wanted, report);
}
