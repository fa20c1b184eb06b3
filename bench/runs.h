// The measurements, each of which fills its rows of the report, and the runs that they are made of.
#pragma once

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "bench/report.h"
#include "bench/rig.h"

// What a connection moves before it is measured: its first bytes cost otherwise than all later
// ones, the relay less, the capture more.
inline constexpr double kWarmUpBytes = 10e6;

struct Extent {
    int rounds = 5;
    double share = 1;                // of the full volumes, counts and times
    std::string disk;                // a directory of one
    std::vector<Contender> daemons;  // the one that was built here first
};

// What moving some bytes took.
struct Cost {
    double bytes;
    double seconds;
    double cpuSeconds;  // of the relaying process

    double MegabytesPerSecond() const { return bytes / 1e6 / seconds; }
    double SecondsPerGigabyte() const { return cpuSeconds * 1e9 / bytes; }  // of the processor
};

template <typename Work>
double SecondsOf(Work work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Calls run with each contender in each round, every other round backwards: neighbours stay
// neighbours, and a drift of the machine favours none. Shows the rounds on the standard error.
template <typename Contenders, typename Run>
void InTurns(int rounds, const Contenders& contenders, Run run) {
    for (int round = 0; round < rounds; ++round) {
        fprintf(stderr, " %d", round + 1);
        for (size_t i = 0; i < contenders.size(); ++i)
            run(contenders[round % 2 == 0 ? i : contenders.size() - 1 - i]);
    }
}

// Capture off: daemons, socat and a bare loop.
void MeasureRelay(const Extent& extent, Report& report);
void MeasureRoundTrips(const Extent& extent, Report& report);

enum class Capture { kOff, kAllToFlash, kTenthToTool };

struct CaptureCost : Cost {
    double residentMegabytes;
};

// Sends at least bytes, all log packets, from a modem of its own, until the tool and flash have
// what is theirs. Throws when the daemon's count, tool and flash do not agree to the byte.
CaptureCost RunCapture(const Contender& daemon, Capture capture, double bytes);

// Beside the first daemon's own rate with the switch off.
void MeasureCapture(const Extent& extent, Report& report);

// Into a directory of a disk, beside dd.
void MeasureDisk(const Extent& extent, Report& report);

// Round trips while the modem sends all that the line takes.
void MeasureFlood(const Extent& extent, Report& report);

// What the daemon takes while nothing is to be done.
void MeasureIdle(const Extent& extent, Report& report);

// The splitter alone.
void MeasureSplitter(const Extent& extent, Report& report);
