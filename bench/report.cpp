#include "bench/report.h"

#include <fmt/format.h>
#include <sys/utsname.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <thread>

#include "bench/bench_support.h"

namespace {

constexpr long kBarWidth = 40;

using Cells = std::array<std::string, 4>;

// About three digits, but every digit of what is large.
std::string Number(double value) {
    return fmt::format("{:.{}f}", value, value < 1 ? 3 : value < 10 ? 2 : value < 100 ? 1 : 0);
}

// One line for each comparison.
void AppendLines(std::vector<Cells>& lines, const Row& row) {
    Cells first = {row.what + ", " + row.unit, Number(row.Figure()), "", ""};
    if (row.series.size() == 1) lines.push_back(first);
    for (size_t i = 1; i < row.series.size(); ++i) {
        if (i > 1) first[0].clear(), first[1].clear();
        first[2] = row.series[i].who + " " + Number(Median(row.series[i].values));
        const auto [low, middle, high] = row.Spread(i);
        first[3] = fmt::format("{:.3f} ({:.3f} to {:.3f})", middle, low, high);
        lines.push_back(first);
    }
}

nlohmann::json JsonOf(const Row& row) {
    nlohmann::json figures;
    for (size_t i = 0; i < row.series.size(); ++i) {
        const Row::Series& series = row.series[i];
        figures.push_back(
            {{"who", series.who}, {"median", Median(series.values)}, {"values", series.values}});
        if (i > 0) figures.back()["ratio"] = row.Ratio(i);
    }
    return {{"what", row.what}, {"unit", row.unit}, {"figures", figures}};
}

}  // namespace

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return (values[(values.size() - 1) / 2] + values[values.size() / 2]) / 2;
}

size_t Row::IndexOf(const std::string& who) const {
    const auto it = std::find_if(series.begin(), series.end(),
                                 [&who](const Series& known) { return known.who == who; });
    return static_cast<size_t>(it - series.begin());
}

void Row::Record(const std::string& who, double value) {
    const size_t index = IndexOf(who);
    if (index == series.size()) series.push_back({who, {}});
    series[index].values.push_back(value);
}

Row::Quartiles Row::Spread(size_t other) const {
    std::vector<double> ratios;
    for (size_t i = 0; i < series[0].values.size(); ++i)
        ratios.push_back(series[0].values[i] / series[other].values[i]);
    return {Quantile(ratios, 0.25), Median(ratios), Quantile(ratios, 0.75)};
}

void Report::Add(Row row) {
    std::cerr << row.what << ", " << row.unit << ":";
    for (const Row::Series& series : row.series)
        std::cerr << " " << series.who << " " << Number(Median(series.values));
    std::cerr << std::endl;
    mRows.push_back(std::move(row));
}

void Report::AtLeast(const std::string& what, double value, double limit, const std::string& unit) {
    mGoals.push_back({what, unit, "at least", value, limit, value - limit});
}

void Report::AtMost(const std::string& what, double value, double limit, const std::string& unit) {
    mGoals.push_back({what, unit, "at most", value, limit, limit - value});
}

// In the form that a README shows as a table, too.
void Report::PrintTable(std::ostream& out) const {
    std::vector<Cells> lines = {{"Measured", "quillod", "Beside it", "Ratio (quartiles)"},
                                {"---", "---", "---", "---"}};
    for (const Row& row : mRows)
        AppendLines(lines, row);
    std::array<size_t, 4> widths{};
    for (const Cells& line : lines)
        for (size_t i = 0; i < line.size(); ++i)
            widths[i] = std::max(widths[i], line[i].size());
    for (const Cells& line : lines) {
        for (size_t i = 0; i < line.size(); ++i)
            out << fmt::format("| {:{}} ", line[i], widths[i]);
        out << "|\n";
    }
}

void Report::PrintChart(std::ostream& out) const {
    for (const Row& row : mRows) {
        if (!row.isCharted) continue;
        out << row.what << ", " << row.unit << "\n";
        double longest = 0;
        for (const Row::Series& series : row.series)
            longest = std::max(longest, Median(series.values));
        for (const Row::Series& series : row.series) {
            const double value = Median(series.values);
            const auto length = std::lround(value / longest * kBarWidth);
            out << fmt::format("  {:10} {:#>{}} {}\n", series.who, "", length, Number(value));
        }
    }
}

void Report::PrintGoals(std::ostream& out) const {
    for (const Goal& goal : mGoals) {
        out << fmt::format("{} {}: {:.3f}{}, {} {:.3f}{}, by {:.3f}\n",
                           goal.spare >= 0 ? "met   " : "missed", goal.what, goal.value, goal.unit,
                           goal.sense, goal.limit, goal.unit, std::abs(goal.spare));
    }
}

void Report::WriteJson(std::ostream& out) const {
    nlohmann::json all = {{"machine", MachineText()}, {"rows", {}}, {"goals", {}}};
    for (const Row& row : mRows)
        all["rows"].push_back(JsonOf(row));
    for (const Goal& goal : mGoals) {
        all["goals"].push_back({{"what", goal.what},
                                {"value", goal.value},
                                {"sense", goal.sense},
                                {"limit", goal.limit},
                                {"unit", goal.unit},
                                {"met", goal.spare >= 0}});
    }
    out << all.dump(2) << "\n";
}

std::string MachineText() {
    std::string model = "unknown processor";
    std::ifstream info("/proc/cpuinfo");
    for (std::string line; std::getline(info, line);) {
        if (line.rfind("model name", 0) != 0) continue;
        model = line.substr(line.find(": ") + 2);
        break;
    }
    utsname system{};
    uname(&system);
    return model + ", " + std::to_string(std::thread::hardware_concurrency()) + " cores, Linux " +
           system.release;
}
