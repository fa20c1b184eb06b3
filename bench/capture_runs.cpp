// Capture on, beside the daemon's own rate with capture off, and beside dd on a disk.
#include <sys/mount.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <vector>

#include "bench/bench_support.h"
#include "bench/rig.h"
#include "bench/runs.h"
#include "tools/common/packet.h"

namespace {

constexpr double kTmpfsBytes = 200e6;
constexpr double kDiskBytes = 32e6;
constexpr double kRateGoal = 0.9;
constexpr int kDdBlock = 16384;

double RunDd(double bytes) {
    const std::string output = std::string("of=") + kFlashDirectory + "/dd.out";
    const std::string count = "count=" + std::to_string(std::lround(bytes / kDdBlock));
    return SecondsOf([&] {
        Child dd({"dd", "if=/dev/zero", output, "bs=16k", count, "oflag=sync"}, "dd");
        if (!dd.Succeeds()) throw std::runtime_error("dd failed");
    });
}

// Shows a directory of a disk where the capture stores.
class DiskMount {
  public:
    explicit DiskMount(const std::string& directory) {
        if (mount(directory.c_str(), kFlashDirectory, nullptr, MS_BIND, nullptr) != 0) {
            throw std::runtime_error("cannot mount " + directory);
        }
    }
    DiskMount(const DiskMount&) = delete;
    DiskMount& operator=(const DiskMount&) = delete;
    ~DiskMount() { umount2(kFlashDirectory, MNT_DETACH); }
};

// Milliseconds of count round trips.
std::vector<double> TimeRequests(const std::string& program, int count, Flash& flash) {
    constexpr int kUncounted = 10;
    constexpr int kRemoveEvery = 20;
    const std::string request(1, static_cast<char>(kCmdTimeStamp));
    const Child daemon = StartDaemon(program);
    DiagClient client = ConnectFromPc();
    std::vector<double> millis;
    for (int i = -kUncounted; i < count; ++i) {
        const double took = SecondsOf([&] { Ask(client, request); });
        if (i >= 0) millis.push_back(took * 1e3);
        if (i % kRemoveEvery == 0) flash.RemoveFinished();
    }
    return millis;
}

}  // namespace

void MeasureCapture(const Extent& extent, Report& report) {
    constexpr double kResidentGoal = 8;
    const std::string kinds[] = {"capture, all to flash", "capture, a tenth to the tool"};
    Row rates[] = {{kinds[0], "MB/s"}, {kinds[1], "MB/s"}};
    Row cpus[] = {{kinds[0] + ", CPU", "s/GB"}, {kinds[1] + ", CPU", "s/GB"}};
    Row resident{"resident memory, capture on", "MB"};
    int incomplete = 0;
    const double bytes = kTmpfsBytes * extent.share;
    const std::vector<DaemonProgram> daemons = Daemons(extent);
    for (int round = 0; round < extent.rounds; ++round) {
        const CaptureResult off = RunCapture(daemons[0].path, Capture::kOff, bytes);
        for (int turn = 0; turn < 2; ++turn) {
            const int i = (round + turn) % 2;
            const Capture kind = i == 0 ? Capture::kAllToFlash : Capture::kTenthToTool;
            for (size_t j = 0; j < daemons.size(); ++j) {
                const auto& [name, path] =
                    daemons[(static_cast<size_t>(round) + j) % daemons.size()];
                const CaptureResult on = RunCapture(path, kind, bytes);
                rates[i].Record(name, on.bytes / kMega / on.seconds);
                cpus[i].Record(name, on.cpuSeconds * kGiga / on.bytes);
                if (name == daemons[0].name) resident.Record(name, on.residentMegabytes);
                if (!on.isComplete) ++incomplete;
            }
            rates[i].Record("switch off", off.bytes / kMega / off.seconds);
            cpus[i].Record("switch off", off.cpuSeconds * kGiga / off.bytes);
        }
    }
    for (int i = 0; i < 2; ++i) {
        report.AtLeast(kinds[i] + ", of the rate with the switch off",
                       rates[i].Ratio(rates[i].IndexOf("switch off")), kRateGoal);
        report.Add(rates[i]);
        report.Add(cpus[i]);
    }
    report.AtMost("capture runs with bytes unaccounted for", incomplete, 0);
    report.AtMost(resident.what, resident.Figure(), kResidentGoal, " MB");
    report.Add(resident);
}

void MeasureDisk(const Extent& extent, Report& report) {
    const DiskMount disk(extent.disk);
    const double bytes = kDiskBytes * extent.share;
    const int turns = 2 * extent.rounds;
    Row rate{"capture on a disk", "MB/s"};
    int incomplete = 0;
    for (int turn = 0; turn < turns; ++turn) {
        Flash().Clear();
        if (turn % 4 == 0 || turn % 4 == 3) {  // the first of a round changes
            const CaptureResult result =
                RunCapture(BuiltProgram("quillod"), Capture::kAllToFlash, bytes);
            if (!result.isComplete) ++incomplete;
            rate.Record("quillod", result.bytes / kMega / result.seconds);
        } else {
            rate.Record("dd", bytes / kMega / RunDd(bytes));
        }
    }
    Flash().Clear();
    report.AtLeast("capture on a disk, of dd's rate", rate.Ratio(), kRateGoal);
    report.AtMost("capture runs on a disk with bytes unaccounted for", incomplete, 0);
    report.Add(rate);
}

void MeasureFlood(const Extent& extent, Report& report) {
    constexpr double kRequests = 1000;
    constexpr double kGoal = 20;
    const auto count = static_cast<int>(kRequests * std::max(0.1, extent.share));
    Row rate{"captured while the modem floods", "MB/s"};
    Row median{"round trip while the modem floods, p50", "ms"};
    Row slow{"round trip while the modem floods, p99", "ms"};
    SetProperty(kSwitch, "true");
    const Modem modem({"--send-logs", "0"});
    for (int round = 0; round < extent.rounds; ++round) {
        for (const auto& [name, path] : Daemons(extent)) {
            Flash flash;
            std::vector<double> millis;
            const double seconds =
                SecondsOf([&, &program = path] { millis = TimeRequests(program, count, flash); });
            rate.Record(name, static_cast<double>(flash.Bytes()) / kMega / seconds);
            median.Record(name, Quantile(millis, 0.5));
            slow.Record(name, Quantile(millis, 0.99));
            flash.Clear();
        }
    }
    report.AtMost(slow.what, slow.Figure(), kGoal, " ms");
    for (const Row& row : {rate, median, slow})
        report.Add(row);
    SetProperty(kSwitch, "false");
}
