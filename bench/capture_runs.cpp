// Capture on: beside the daemon's own rate with capture off, beside dd on a disk, under a flood;
// and the daemon at rest.
#include <fmt/format.h>
#include <sys/mount.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "bench/runs.h"
#include "capture/pool_buffer.h"
#include "tools/common/packet.h"

namespace {

constexpr double kTmpfsBytes = 200e6;
constexpr double kDiskBytes = 32e6;
constexpr double kRateGoal = 0.9;

// Shows a directory of a disk where the capture stores.
class DiskMount {
  public:
    explicit DiskMount(const std::string& directory) {
        if (mount(directory.c_str(), kCaptureDirectory, nullptr, MS_BIND, nullptr) != 0) {
            throw std::runtime_error("cannot mount " + directory);
        }
    }
    DiskMount(const DiskMount&) = delete;
    DiskMount& operator=(const DiskMount&) = delete;
    ~DiskMount() { umount2(kCaptureDirectory, MNT_DETACH); }
};

void RunDd(double bytes) {
    const std::string command =
        fmt::format("dd if=/dev/zero of={}/dd.out bs=16k count={:.0f} oflag=sync status=none",
                    kCaptureDirectory, bytes / 16384);
    if (std::system(command.c_str()) != 0) throw std::runtime_error("dd failed");
}

// The capture's pool without all that is before it.
void RunPool(double bytes) {
    constexpr int kChunk = 4096;
    const std::vector<char> chunk(kChunk);
    PoolBuffer pool;
    for (long left = std::lround(bytes / kChunk); left > 0; --left) {
        if (pool.Read(chunk.data(), kChunk) == 0) throw std::runtime_error("the pool is closed");
    }
    pool.Exit();
    pool.Join();
}

}  // namespace

void MeasureCapture(const Extent& extent, Report& report) {
    const std::string resident = "resident memory, capture on, MB";
    const std::pair<Capture, std::string> kinds[] = {
        {Capture::kAllToFlash, "capture, all to flash"},
        {Capture::kTenthToTool, "capture, a tenth to the tool"}};
    std::vector<std::pair<Capture, Contender>> turns;
    for (const auto& [capture, name] : kinds)
        for (const Contender& daemon : extent.daemons)
            turns.emplace_back(capture, daemon);
    turns.emplace_back(Capture::kOff, extent.daemons[0]);
    InTurns(extent.rounds, turns, [&](const auto& turn) {
        const CaptureCost cost = RunCapture(turn.second, turn.first, kTmpfsBytes * extent.share);
        const bool isOff = turn.first == Capture::kOff;
        const std::string who = isOff ? "switch off" : turn.second.name;
        for (const auto& [capture, name] : kinds) {
            if (!isOff && turn.first != capture) continue;
            report.Record(name + ", MB/s", who, cost.MegabytesPerSecond());
            report.Record(name + ", CPU, s/GB", who, cost.SecondsPerGigabyte());
        }
        if (turn.first == Capture::kTenthToTool) {
            report.Record(resident, who, cost.residentMegabytes);
        }
    });
    for (const auto& [capture, name] : kinds)
        report.AddGoal(name + ", MB/s", "switch off", Report::Sense::kAtLeast, kRateGoal);
    report.AddGoal(resident, "", Report::Sense::kAtMost, 8);
}

void MeasureDisk(const Extent& extent, Report& report) {
    const DiskMount disk(extent.disk);
    const std::string rate = "capture on a disk, MB/s";
    const double bytes = kDiskBytes * extent.share;
    std::vector<std::pair<std::string, std::function<double()>>> writers;
    for (const Contender& daemon : extent.daemons)
        writers.emplace_back(daemon.name, [&] {
            const Cost cost = RunCapture(daemon, Capture::kAllToFlash, bytes);
            return cost.seconds * bytes / cost.bytes;
        });
    writers.emplace_back("dd", [&] { return SecondsOf([&] { RunDd(bytes); }); });
    writers.emplace_back("pool alone", [&] { return SecondsOf([&] { RunPool(bytes); }); });
    InTurns(extent.rounds, writers, [&](const auto& writer) {
        ClearFlash();
        report.Record(rate, writer.first, bytes / 1e6 / writer.second());
    });
    ClearFlash();
    report.AddGoal(rate, "dd", Report::Sense::kAtLeast, kRateGoal);
}

void MeasureFlood(const Extent& extent, Report& report) {
    constexpr double kRequests = 1000;
    constexpr int kUncounted = 10;
    const std::string request(1, static_cast<char>(kCmdTimeStamp));
    const std::string slow = "round trip while the modem floods, p99, ms";
    SetProperty(kLogSwitch, "true");
    InTurns(extent.rounds, extent.daemons, [&](const Contender& daemon) {
        ClearFlash();
        const Child modem = StartModem({"--send-logs", "0"});
        const Child relay = daemon.start();
        DiagClient client = Connect();
        for (int i = 0; i < kUncounted; ++i)
            Ask(client, request);
        std::vector<double> millis;
        const uint64_t before = CapturedBytes();
        const double seconds = SecondsOf([&] {
            while (static_cast<double>(millis.size()) < kRequests * extent.share)
                millis.push_back(SecondsOf([&] { Ask(client, request); }) * 1e3);
        });
        report.Record("captured while the modem floods, MB/s", daemon.name,
                      static_cast<double>(CapturedBytes() - before) / 1e6 / seconds);
        report.Record("round trip while the modem floods, p50, ms", daemon.name,
                      Quantile(millis, 0.5));
        report.Record(slow, daemon.name, Quantile(millis, 0.99));
    });
    report.AddGoal(slow, "", Report::Sense::kAtMost, 20);
}

void MeasureIdle(const Extent& extent, Report& report) {
    const std::string rows[] = {"idle, no client, % of a core",
                                "idle, client, switch off, % of a core",
                                "idle, client, switch on, % of a core"};
    constexpr auto kSettling = std::chrono::seconds(1);  // connecting, programming masks
    const std::chrono::duration<double> time(5 * extent.share);
    for (const Contender& daemon : extent.daemons) {
        SetProperty(kLogSwitch, "false");
        const Child modem = StartModem();
        const Child relay = daemon.start();
        std::optional<DiagClient> client;
        for (const std::string& row : rows) {
            if (&row == &rows[1]) client.emplace(Connect());
            if (&row == &rows[2]) SetProperty(kLogSwitch, "true");
            std::this_thread::sleep_for(kSettling);
            const double before = relay.CpuSeconds();
            std::this_thread::sleep_for(time);
            report.Record(row, daemon.name, (relay.CpuSeconds() - before) / time.count() * 100);
        }
    }
    for (const std::string& row : rows)
        report.AddGoal(row, "", Report::Sense::kAtMost, 1);
}
