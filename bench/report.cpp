#include "bench/report.h"

#include <sys/utsname.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <fstream>
#include <iostream>
#include <thread>

namespace {

constexpr int kBarWidth = 40;

using Cells = std::array<std::string, 4>;

// About three digits, but every digit of what is large.
std::string Number(double value) {
    const int decimals = value < 1 ? 3 : value < 10 ? 2 : value < 100 ? 1 : 0;
    char text[32];
    snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

std::string Fixed(double value) {
    char text[32];
    snprintf(text, sizeof text, "%.3f", value);
    return text;
}

// A text of ASCII as a JSON string.
std::string Quoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') quoted += '\\';
        quoted += c;
    }
    return quoted + '"';
}

// One line for each comparison.
void AppendLines(std::vector<Cells>& lines, const Row& row) {
    Cells first = {row.what + ", " + row.unit, Number(row.Figure()), "", ""};
    if (row.series.size() == 1) lines.push_back(first);
    for (size_t i = 1; i < row.series.size(); ++i) {
        if (i > 1) first[0].clear(), first[1].clear();
        first[2] = row.series[i].who + " " + Number(Median(row.series[i].values));
        first[3] = Fixed(row.Ratio(i));
        lines.push_back(first);
    }
}

void WriteRow(std::ostream& out, const Row& row) {
    out << "    {\"what\": " << Quoted(row.what) << ", \"unit\": " << Quoted(row.unit)
        << ", \"figures\": [";
    for (size_t i = 0; i < row.series.size(); ++i) {
        const Row::Series& series = row.series[i];
        out << (i == 0 ? "" : ", ") << "{\"who\": " << Quoted(series.who)
            << ", \"median\": " << Median(series.values);
        if (i > 0) out << ", \"ratio\": " << row.Ratio(i);
        out << ", \"values\": [";
        for (size_t j = 0; j < series.values.size(); ++j)
            out << (j == 0 ? "" : ", ") << series.values[j];
        out << "]}";
    }
    out << "]}";
}

}  // namespace

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return (values[(values.size() - 1) / 2] + values[values.size() / 2]) / 2;
}

void Row::Record(const std::string& who, double value) {
    const auto it = std::find_if(series.begin(), series.end(),
                                 [&who](const Series& known) { return known.who == who; });
    if (it == series.end()) {
        series.push_back({who, {value}});
    } else {
        it->values.push_back(value);
    }
}

double Row::Ratio(size_t other) const {
    std::vector<double> ratios;
    for (size_t i = 0; i < series[0].values.size(); ++i)
        ratios.push_back(series[0].values[i] / series[other].values[i]);
    return Median(ratios);
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
    std::vector<Cells> lines = {{"Measured", "quillod", "Beside it", "Ratio"}};
    for (const Row& row : mRows)
        AppendLines(lines, row);
    std::array<size_t, 4> widths{};
    for (const Cells& line : lines)
        for (size_t i = 0; i < line.size(); ++i)
            widths[i] = std::max(widths[i], line[i].size());
    for (size_t number = 0; number < lines.size(); ++number) {
        for (size_t i = 0; i < widths.size(); ++i) {
            const std::string& cell = lines[number][i];
            out << "| " << cell << std::string(widths[i] - cell.size() + 1, ' ');
        }
        out << "|\n";
        for (size_t i = 0; number == 0 && i < widths.size(); ++i)
            out << '|' << std::string(widths[i] + 2, '-') << (i + 1 < widths.size() ? "" : "|\n");
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
            out << "  " << series.who << std::string(11 - series.who.size(), ' ');
            for (long i = std::lround(value / longest * kBarWidth); i > 0; --i)
                out << "█";
            out << " " << Number(value) << "\n";
        }
    }
}

void Report::PrintGoals(std::ostream& out) const {
    for (const Goal& goal : mGoals) {
        out << (goal.spare >= 0 ? "met    " : "missed ") << goal.what << ": " << Fixed(goal.value)
            << goal.unit << ", " << goal.sense << " " << Fixed(goal.limit) << goal.unit << ", by "
            << Fixed(std::abs(goal.spare)) << "\n";
    }
}

void Report::WriteJson(std::ostream& out) const {
    out << "{\n  \"machine\": " << Quoted(MachineText()) << ",\n  \"rows\": [\n";
    for (size_t i = 0; i < mRows.size(); ++i) {
        WriteRow(out, mRows[i]);
        out << (i + 1 < mRows.size() ? ",\n" : "\n  ],\n  \"goals\": [\n");
    }
    for (size_t i = 0; i < mGoals.size(); ++i) {
        const Goal& goal = mGoals[i];
        out << "    {\"what\": " << Quoted(goal.what) << ", \"value\": " << goal.value
            << ", \"sense\": " << Quoted(goal.sense) << ", \"limit\": " << goal.limit
            << ", \"unit\": " << Quoted(goal.unit)
            << ", \"met\": " << (goal.spare >= 0 ? "true" : "false") << "}"
            << (i + 1 < mGoals.size() ? ",\n" : "\n  ]\n}\n");
    }
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
