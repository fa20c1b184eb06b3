// The measurements, each of which fills its part of the report, and the runs that they are made of.
#pragma once

#include <string>
#include <vector>

#include "bench/report.h"

inline constexpr double kMega = 1e6;
inline constexpr double kGiga = 1e9;

// What a connection moves before it is measured: its first bytes cost otherwise than all later
// ones, the relay less, the capture more.
inline constexpr double kWarmUpBytes = 10e6;

struct Extent {
    int rounds = 5;
    double share = 1;   // of the full volumes, counts and times
    std::string disk;   // a directory of one
    std::string other;  // another daemon to compare with; empty for none
};

// What moving some bytes took.
struct Cost {
    double seconds;
    double cpuSeconds;  // of the relaying process
};

// The daemon, capture off, beside socat and beside a bare loop.
void MeasureToTool(const Extent& extent, Report& report);
void MeasureToModem(const Extent& extent, Report& report);
void MeasureRoundTrips(const Extent& extent, Report& report);

enum class Capture { kOff, kAllToFlash, kTenthToTool };

struct CaptureResult : Cost {
    double bytes;  // that the modem sent
    double residentMegabytes;
    bool isComplete;  // every byte is accounted for
};

// Sends at least bytes, all log packets, from a modem of its own, until the tool and flash have
// what is theirs. daemon: the program.
CaptureResult RunCapture(const std::string& daemon, Capture capture, double bytes);

void MeasureCapture(const Extent& extent, Report& report);

// Into a directory of a disk.
void MeasureDisk(const Extent& extent, Report& report);

// Round trips while the modem sends all that the line takes.
void MeasureFlood(const Extent& extent, Report& report);

void MeasureIdle(const Extent& extent, Report& report);

// The splitter beside its limit, and with more wanted log codes.
void MeasureSplitter(const Extent& extent, Report& report);

// The daemons that a measurement compares, by name; the first is the one that was built here.
struct DaemonProgram {
    std::string name;
    std::string path;
};
std::vector<DaemonProgram> Daemons(const Extent& extent);
