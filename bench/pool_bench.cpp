// Whether the capture pool keeps up with plain synchronous writing: pairs of the pool, fed with 4
// KiB chunks, and of dd, which stores as much in the same directory, alternating.
//
// Runs inside scripts/handset, whose /data/misc/radio is a tmpfs. To measure a disk, mount one of
// its directories there first:
//   scripts/handset bash -c 'mount --bind DIR /data/misc/radio && build/release/pool_bench --mb
//   200'
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "capture/pool_buffer.h"

namespace {

namespace fs = std::filesystem;

constexpr char kDirectory[] = "/data/misc/radio";
constexpr char kDdFile[] = "/data/misc/radio/dd.out";
constexpr int kChunk = 4096;
constexpr int kDdBlock = 16384;
constexpr uint64_t kMiB = 1 << 20;

// Stores bytes and returns the count that the pool took.
uint64_t FeedPool(uint64_t bytes) {
    const std::vector<char> chunk(kChunk, 'q');
    PoolBuffer pool;
    uint64_t taken = 0;
    for (uint64_t fed = 0; fed < bytes; fed += kChunk)
        taken += static_cast<uint64_t>(pool.Read(chunk.data(), kChunk));
    pool.Exit();
    pool.Join();
    return taken;
}

void RunDd(uint64_t bytes) {
    const std::string output = std::string("of=") + kDdFile;
    const std::string count = "count=" + std::to_string(bytes / kDdBlock);
    const pid_t child = fork();
    if (child == 0) {
        execlp("dd", "dd", "if=/dev/zero", output.c_str(), "bs=16k", count.c_str(), "oflag=sync",
               "status=none", nullptr);
        _exit(127);
    }
    int status = -1;
    if (child == -1 || waitpid(child, &status, 0) != child || status != 0) {
        throw std::runtime_error("dd failed");
    }
}

// Removes the files of one run and returns the bytes that they held.
uint64_t TakeFiles() {
    uint64_t bytes = 0;
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(kDirectory)) {
        const fs::path& path = entry.path();
        if (path != kDdFile && path.extension() != ".qmdl") continue;
        bytes += entry.file_size();
        files.push_back(path);
    }
    for (const fs::path& path : files)
        fs::remove(path);
    // What a disk still has to do must not fall into the next run.
    const int directory = open(kDirectory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    syncfs(directory);
    close(directory);
    return bytes;
}

// Returns whether every byte of every run was stored.
bool RunPairs(int pairs, uint64_t bytes) {
    const double megabytes = static_cast<double>(bytes) / 1e6;
    std::vector<double> ratios;
    bool isComplete = true;
    for (int pair = 1; pair <= pairs; ++pair) {
        uint64_t taken = 0;
        const double pool = megabytes / SecondsOf([&] { taken = FeedPool(bytes); });
        const uint64_t stored = TakeFiles();
        const double dd = megabytes / SecondsOf([&] { RunDd(bytes); });
        if (TakeFiles() != bytes) throw std::runtime_error("dd stored something else");
        const bool isWhole = taken == bytes && stored == bytes;
        isComplete = isComplete && isWhole;
        ratios.push_back(pool / dd);
        printf("pair %d: pool %.0f MB/s, dd %.0f MB/s, ratio %.3f, stored %llu of %llu bytes%s\n",
               pair, pool, dd, ratios.back(), static_cast<unsigned long long>(stored),
               static_cast<unsigned long long>(bytes), isWhole ? "" : ": BYTES LOST");
        fflush(stdout);  // before the next dd is forked
    }
    printf("median ratio %.3f, %s\n", Quantile(ratios, 0.5),
           isComplete ? "every byte stored" : "BYTES LOST");
    return isComplete;
}

int Run(int argc, char** argv) {
    CLI::App app("Compares the capture pool with dd bs=16k oflag=sync; run it inside a handset");
    uint64_t megabytes = 1000;
    int pairs = 5;
    app.add_option("--mb", megabytes, "MiB a run")
        ->capture_default_str()
        ->check(CLI::Range(1, 100000));
    app.add_option("--pairs", pairs, "Pairs of runs")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000));
    CLI11_PARSE(app, argc, argv);
    if (!PrepareLog(argv)) return 1;
    return RunPairs(pairs, megabytes * kMiB) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& error) {
        fprintf(stderr, "pool_bench: %s\n", error.what());
        return 1;
    }
}
