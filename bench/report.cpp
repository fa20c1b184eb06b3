#include "bench/report.h"

#include <fmt/format.h>
#include <sys/utsname.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <thread>

namespace {

using Json = nlohmann::ordered_json;

double Median(const std::vector<double>& values) {
    return Quantile(values, 0.5);
}

// Of one contender's values to another's, round by round.
std::vector<double> Ratios(const Json& values, const Json& others) {
    std::vector<double> ratios;
    for (size_t i = 0; i < std::min(values.size(), others.size()); ++i)
        ratios.push_back(values[i].get<double>() / others[i].get<double>());
    return ratios;
}

// About three digits, but every digit of what is large.
std::string Number(double value) {
    return fmt::format("{:.{}f}", value, value < 1 ? 3 : value < 10 ? 2 : value < 100 ? 1 : 0);
}

// In the form that a README shows as a table, too: a line for each comparison.
void PrintTable(const Json& rows) {
    constexpr char kLine[] = "| {:<47} | {:>7} | {:<21} | {:>5} | {:<14} |\n";
    fmt::print(kLine, "Measured", "quillod", "Beside it", "Ratio", "Quartiles");
    fmt::print("|{0:-<49}|{0:->9}|{0:-<23}|{0:->7}|{0:-<16}|\n", "");
    for (const auto& [name, row] : rows.items()) {
        std::string what = name;
        std::string figure = Number(Median(row.front()));
        if (row.size() == 1) fmt::print(kLine, what, figure, "", "", "");
        for (auto other = std::next(row.begin()); other != row.end(); ++other) {
            const std::vector<double> ratios = Ratios(row.front(), other.value());
            fmt::print(
                kLine, what, figure, other.key() + " " + Number(Median(other.value())),
                fmt::format("{:.3f}", Median(ratios)),
                fmt::format("{:.3f} to {:.3f}", Quantile(ratios, 0.25), Quantile(ratios, 0.75)));
            what.clear();
            figure.clear();
        }
    }
}

// Of what has several programs beside it.
void PrintChart(const Json& rows) {
    constexpr double kBarWidth = 40;
    for (const auto& [name, row] : rows.items()) {
        if (row.size() < 3) continue;
        double longest = 0;
        for (const Json& values : row)
            longest = std::max(longest, Median(values));
        fmt::print("\n{}\n", name);
        for (const auto& [who, values] : row.items()) {
            const double value = Median(values);
            fmt::print("  {:<15} {:█<{}} {}\n", who, "", std::lround(value / longest * kBarWidth),
                       Number(value));
        }
    }
}

void PrintGoals(const Json& goals) {
    fmt::print("\n");
    for (const Json& goal : goals) {
        fmt::print("{:<6} {}: {:.3f}, {} {}\n", goal["met"].get<bool>() ? "met" : "missed",
                   goal["what"].get<std::string>(), goal["value"].get<double>(),
                   goal["sense"].get<std::string>(), goal["limit"].get<double>());
    }
}

}  // namespace

double Quantile(std::vector<double> values, double share) {
    std::sort(values.begin(), values.end());
    const double at = share * static_cast<double>(values.size() - 1);
    const double below = values[static_cast<size_t>(at)];
    const double above = values[static_cast<size_t>(std::ceil(at))];
    return below + (above - below) * (at - std::floor(at));
}

void Report::Record(const std::string& row, const std::string& who, double value) {
    mRows[row][who].push_back(value);
}

void Report::AddGoal(const std::string& row, const std::string& beside, Sense sense, double limit) {
    const Json& series = mRows.at(row);
    const double value =
        beside.empty() ? Median(series.front()) : Median(Ratios(series.front(), series.at(beside)));
    const bool isAtLeast = sense == Sense::kAtLeast;
    mGoals.push_back({{"what", beside.empty() ? row : row + ", of " + beside},
                      {"value", value},
                      {"sense", isAtLeast ? "at least" : "at most"},
                      {"limit", limit},
                      {"met", isAtLeast ? value >= limit : value <= limit}});
}

void Report::Print() const {
    PrintTable(mRows);
    PrintChart(mRows);
    PrintGoals(mGoals);
}

void Report::Write(const std::string& path) const {
    Json all = {{"machine", MachineText()}, {"rows", Json::object()}, {"goals", mGoals}};
    for (const auto& [name, row] : mRows.items()) {
        for (const auto& [who, values] : row.items()) {
            Json& figures = all["rows"][name][who];
            figures["median"] = Median(values);
            if (values != row.front()) {
                const std::vector<double> ratios = Ratios(row.front(), values);
                figures["ratio"] = Median(ratios);
                figures["quartiles"] = {Quantile(ratios, 0.25), Quantile(ratios, 0.75)};
            }
            figures["values"] = values;
        }
    }
    std::ofstream file(path);
    if (!(file << all.dump(2) << std::endl)) throw std::runtime_error("cannot write " + path);
}

std::string MachineText() {
    std::string model = "unknown processor";
    std::ifstream info("/proc/cpuinfo");
    for (std::string line; std::getline(info, line);) {
        if (line.rfind("model name", 0) == 0) model = line.substr(line.find(": ") + 2);
    }
    utsname system{};
    uname(&system);
    return fmt::format("{}, {} cores, Linux {}", model, std::thread::hardware_concurrency(),
                       system.release);
}
