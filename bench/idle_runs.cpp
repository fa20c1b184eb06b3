// What the daemon takes while nothing is to be done.
#include <optional>
#include <thread>

#include "bench/rig.h"
#include "bench/runs.h"

namespace {

constexpr double kSeconds = 5;
constexpr auto kSettling = std::chrono::seconds(1);  // connecting and programming masks are over

double PercentOfACore(const Child& daemon, double seconds) {
    std::this_thread::sleep_for(kSettling);
    const double before = daemon.CpuSeconds();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    return (daemon.CpuSeconds() - before) / seconds * 100;
}

}  // namespace

void MeasureIdle(const Extent& extent, Report& report) {
    const Modem modem;
    const Child daemon = StartDaemon();
    std::optional<DiagClient> client;
    const auto measure = [&](const std::string& when) {
        Row row{"idle, " + when, "% of a core"};
        row.Record("quillod", PercentOfACore(daemon, kSeconds * extent.share));
        report.AtMost(row.what, row.Figure(), 1, " % of a core");
        report.Add(row);
    };
    measure("no client");
    client.emplace(ConnectFromPc());
    measure("client, switch off");
    SetProperty(kSwitch, "true");
    measure("client, switch on");
    SetProperty(kSwitch, "false");
}
