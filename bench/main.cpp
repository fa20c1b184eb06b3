// Measures the daemon beside other programs at the same job, in rounds in which each has its turn,
// and holds the figures against the goals. scripts/bench runs it in a handset, on the PC's side.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <utility>

#include "bench/runs.h"

namespace {

using Measure = void (*)(const Extent& extent, Report& report);
const std::vector<std::pair<std::string, Measure>> kSubjects = {
    {"relay", MeasureRelay},       {"round-trip", MeasureRoundTrips}, {"capture", MeasureCapture},
    {"disk", MeasureDisk},         {"flood", MeasureFlood},           {"idle", MeasureIdle},
    {"splitter", MeasureSplitter},
};

// False when something could not be measured or went wrong; the other subjects have their figures.
bool MeasureSubjects(const std::vector<std::string>& chosen, const Extent& extent, Report& report) {
    bool isComplete = true;
    for (const auto& [name, measure] : kSubjects) {
        if (!chosen.empty() && std::count(chosen.begin(), chosen.end(), name) == 0) continue;
        fmt::print(stderr, "{}:", name);
        try {
            SetProperty(kLogSwitch, "false");
            ClearFlash();
            measure(extent, report);
            fmt::print(stderr, "\n");
        } catch (const std::exception& error) {
            fmt::print(stderr, "\nbench: {}: {}\n", name, error.what());
            isComplete = false;
        }
    }
    return isComplete;
}

int Run(int argc, char** argv) {
    CLI::App app("Measures the daemon; run it inside a handset, on the PC's side");
    std::string json;
    std::string other;
    std::vector<std::string> chosen;
    Extent extent;
    app.add_option("--json", json, "File for all figures")->required();
    app.add_option("--disk", extent.disk, "Directory of a disk")->required();
    app.add_option("--share", extent.share, "Share of the full volumes and times")
        ->check(CLI::Range(0.01, 1.0));
    app.add_option("--rounds", extent.rounds, "Rounds")->check(CLI::Range(1, 1000));
    app.add_option("--only", chosen, "Measure this subject only; may be given again")
        ->check(CLI::IsMember(kSubjects));
    app.add_option("--compare", other, "Another quillod, which takes its turn")
        ->check(CLI::ExistingFile);
    CLI11_PARSE(app, argc, argv);
    if (!std::filesystem::exists("/run/netns/pc")) {
        throw std::runtime_error("run it inside scripts/handset");
    }
    extent.daemons.push_back(Daemon("quillod", BuiltProgram("quillod")));
    if (!other.empty()) extent.daemons.push_back(Daemon("other", other));

    Report report;
    const bool isComplete = MeasureSubjects(chosen, extent, report);
    fmt::print("\n{}; medians of {} rounds\n\n", MachineText(), extent.rounds);
    report.Print();
    report.Write(json);
    return isComplete ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& error) {
        fprintf(stderr, "bench: %s\n", error.what());
        return 1;
    }
}
