// Measures the daemon beside other programs at the same job, in rounds in which each has its turn,
// and holds the figures against the goals. scripts/bench runs it in a handset.
#include <CLI/CLI.hpp>
#include <fstream>
#include <iostream>

#include "bench/bench_support.h"
#include "bench/runs.h"

namespace {

int Run(int argc, char** argv) {
    CLI::App app("Measures the daemon; run it inside a handset");
    std::string json;
    std::string disk;
    Extent extent;
    app.add_option("--json", json, "File for all figures")->required();
    app.add_option("--disk", disk, "Directory of a disk")->required();
    app.add_option("--share", extent.share, "Share of the full volumes and times")
        ->check(CLI::Range(0.01, 1.0));
    CLI11_PARSE(app, argc, argv);
    if (!PrepareLog(argv)) return 1;

    Report report;
    MeasureRelay(extent, report);
    MeasureCapture(extent, report);
    MeasureDisk(extent, disk, report);
    MeasureFlood(extent, report);
    MeasureIdle(extent, report);
    MeasureGrowth(extent, report);
    MeasureFraming(extent, report);

    std::cout << "\n" << MachineText() << "; medians of " << extent.rounds << " rounds\n\n";
    report.PrintTable(std::cout);
    std::cout << "\n";
    report.PrintChart(std::cout);
    std::cout << "\n";
    report.PrintGoals(std::cout);
    std::ofstream file(json);
    report.WriteJson(file);
    return file.flush() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "bench: " << error.what() << "\n";
        return 1;
    }
}
