#pragma once

#include <chrono>
#include <cstdint>

// The time stamp of DIAG packets: the upper 48 bits count 1.25 ms since 1980-01-06 00:00 UTC, the
// lower 16 bits 1/40960 ms within that.
uint64_t DiagTimeStamp(std::chrono::system_clock::time_point time);

// The moment of such a stamp since 1970, to the microsecond.
std::chrono::microseconds DiagTimeSince1970(uint64_t stamp);
