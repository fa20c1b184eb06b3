// What was measured, and how it is told: table, bar chart, goals, JSON.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

// The value below which the given share of values, at least one, lies; 0.5 for the median.
double Quantile(std::vector<double> values, double share);

class Report {
  public:
    // One value of one contender, one a round. A row's first contender is compared with each of the
    // others: their values of the same round make a ratio. The row's name ends with the unit.
    void Record(const std::string& row, const std::string& who, double value);

    // A goal for a row that was measured: for the first contender's figure or, beside another one,
    // for their ratio.
    enum class Sense { kAtLeast, kAtMost };
    void AddGoal(const std::string& row, const std::string& beside, Sense sense, double limit);

    // On the standard output.
    void Print() const;

    // Throws when the file cannot be written.
    void Write(const std::string& path) const;

  private:
    nlohmann::ordered_json mRows;  // by name, then by contender: its values
    nlohmann::ordered_json mGoals = nlohmann::ordered_json::array();
};

// Processor model, number of cores, kernel.
std::string MachineText();
