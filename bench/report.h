// What was measured, and how it is told: table, bar chart, JSON, goals.
#pragma once

#include <iosfwd>
#include <string>
#include <vector>

double Median(std::vector<double> values);

// One quantity of several contenders, measured in rounds in which each has its turn.
struct Row {
    struct Series {
        std::string who;
        std::vector<double> values;  // one a round
    };

    std::string what;
    std::string unit;
    bool isCharted = false;
    std::vector<Series> series{};  // the first is compared with each of the others

    // The first one recorded becomes the first of series.
    void Record(const std::string& who, double value);

    size_t IndexOf(const std::string& who) const;

    // Median of the first contender's values.
    double Figure() const { return Median(series[0].values); }

    // Over the rounds, the first contender's value as a share of the other's, 1 for the second
    // contender.
    struct Quartiles {
        double low, median, high;
    };
    Quartiles Spread(size_t other) const;
    double Ratio(size_t other = 1) const { return Spread(other).median; }
};

class Report {
  public:
    // Tells the row's figures on standard error, too: measuring takes minutes.
    void Add(Row row);

    // Goals, met or missed; unit follows the figures.
    void AtLeast(const std::string& what, double value, double limit, const std::string& unit = "");
    void AtMost(const std::string& what, double value, double limit, const std::string& unit = "");

    void PrintTable(std::ostream& out) const;
    void PrintChart(std::ostream& out) const;
    void PrintGoals(std::ostream& out) const;
    void WriteJson(std::ostream& out) const;

  private:
    struct Goal {
        std::string what;
        std::string unit;
        const char* sense;
        double value;
        double limit;
        double spare;  // by how much it is met; negative when missed
    };

    std::vector<Row> mRows;
    std::vector<Goal> mGoals;
};

// Processor model, number of cores, kernel.
std::string MachineText();
