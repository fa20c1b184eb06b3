// Measures the daemon beside other programs at the same job, in rounds in which each has its turn,
// and holds the figures against the goals. scripts/bench runs it in a handset.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "bench/rig.h"
#include "bench/runs.h"

namespace {

struct Subject {
    std::string name;
    void (*measure)(const Extent& extent, Report& report);
};

const Subject kSubjects[] = {
    {"to-tool", MeasureToTool},  {"to-modem", MeasureToModem},  {"round-trip", MeasureRoundTrips},
    {"capture", MeasureCapture}, {"disk", MeasureDisk},         {"flood", MeasureFlood},
    {"idle", MeasureIdle},       {"splitter", MeasureSplitter},
};

std::vector<std::string> SubjectNames() {
    std::vector<std::string> names;
    for (const Subject& subject : kSubjects)
        names.push_back(subject.name);
    return names;
}

}  // namespace

std::vector<DaemonProgram> Daemons(const Extent& extent) {
    std::vector<DaemonProgram> daemons = {{"quillod", BuiltProgram("quillod")}};
    if (!extent.other.empty()) daemons.push_back({"other", extent.other});
    return daemons;
}

namespace {

int Run(int argc, char** argv) {
    CLI::App app("Measures the daemon; run it inside a handset");
    std::string json;
    Extent extent;
    std::vector<std::string> subjects;
    app.add_option("--json", json, "File for all figures")->required();
    app.add_option("--disk", extent.disk, "Directory of a disk")->required();
    app.add_option("--share", extent.share, "Share of the full volumes and times")
        ->check(CLI::Range(0.01, 1.0));
    app.add_option("--rounds", extent.rounds, "Rounds")->check(CLI::Range(1, 1000));
    app.add_option("--only", subjects, "Measure this subject only; may be given again")
        ->check(CLI::IsMember(SubjectNames()));
    app.add_option("--compare", extent.other, "Another quillod, to take turns with")
        ->check(CLI::ExistingFile);
    CLI11_PARSE(app, argc, argv);
    if (!PrepareLog(argv)) return 1;

    Report report;
    for (const Subject& subject : kSubjects) {
        const bool isChosen = std::count(subjects.begin(), subjects.end(), subject.name) > 0;
        if (subjects.empty() || isChosen) subject.measure(extent, report);
    }

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
