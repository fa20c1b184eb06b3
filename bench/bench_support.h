// What the benchmarks share.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <vector>

// Lets this program log as all measurements do, at level I and into a file; to be called first,
// with main's arguments. The file is chosen before main, so choosing it starts the program anew.
// False outside of a handset.
inline bool PrepareLog(char** argv) {
    if (getenv("QUILLOD_LOG_FILE") == nullptr) {
        setenv("QUILLOD_LOG_FILE", "/data/bench.log", 1);
        execv("/proc/self/exe", argv);
    }
    if (std::ofstream("/data/property/log.tag") << 'I' << std::flush) return true;
    fputs("run it inside scripts/handset\n", stderr);
    return false;
}

template <typename Work>
double SecondsOf(Work work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// The value below which the given share of values, at least one, lies; 0.5 for the median.
inline double Quantile(std::vector<double> values, double share) {
    std::sort(values.begin(), values.end());
    const auto at = static_cast<size_t>(share * static_cast<double>(values.size()));
    return values[std::min(at, values.size() - 1)];
}
