// The relay with capture off, beside socat and beside a bare loop of blocking read and write.
#include <stdexcept>

#include "bench/runs.h"
#include "tools/common/packet.h"
#include "tools/probe/bulk_run.h"

namespace {

constexpr double kBulkBytes = 300e6;
constexpr double kRoundTrips = 5000;
constexpr int kWarmUpRoundTrips = 100;

std::vector<Contender> Contenders(const Extent& extent) {
    const std::vector<std::string> socat = {
        "socat", "-b", "16384", "TCP-LISTEN:11008,reuseaddr,nodelay", "/dev/ttydiag0,raw,echo=0"};
    std::vector<Contender> contenders = extent.daemons;
    contenders.push_back({"socat", [socat] { return Child(socat); }});
    contenders.push_back({"bare loop", [] { return Child({BuiltProgram("bare_loop")}); }});
    return contenders;
}

// Is framed in 64 bytes, and the modem sends it back as it is.
std::string EchoRequest() {
    std::string packet(60, '\x31');
    packet[0] = static_cast<char>(kCmdMessageConfig);
    packet[1] = packet[2] = 1;
    std::string framed;
    AppendFrame(framed, packet);
    if (framed.size() != 64) throw std::logic_error("the echo has another size");
    return packet;
}

void RoundTrip(DiagClient& client) {
    static const std::string request = EchoRequest();
    if (Ask(client, request) != request) throw std::runtime_error("wrong echo");
}

// A connection through a contender, after some round trips.
struct Connection {
    explicit Connection(const Contender& contender) : relay(contender.start()) {
        for (int i = 0; i < kWarmUpRoundTrips; ++i)
            RoundTrip(client);
    }

    const Child relay;
    DiagClient client = Connect();
};

enum class Way { kToTool, kToModem };

// Returns the seconds that it took.
double Move(DiagClient& client, Way way, double bytes) {
    const auto count = static_cast<uint64_t>(bytes);
    const uint64_t up = way == Way::kToModem ? count : 0;
    const BulkReport report = RunBulk(client, up, count - up, kPatience);
    const BulkResult& result = way == Way::kToModem ? report.up : report.down;
    if (result.bytes != count || result.mismatch != kNoMismatch) {
        throw std::runtime_error("wrong bytes arrived");
    }
    return result.seconds;
}

Cost Transfer(const Contender& contender, Way way, double bytes) {
    Connection connection(contender);
    Move(connection.client, way, kWarmUpBytes);
    const double before = connection.relay.CpuSeconds();
    const double seconds = Move(connection.client, way, bytes);
    return {bytes, seconds, connection.relay.CpuSeconds() - before};
}

// Of a ratio to socat's: the least rate, the most processor time.
struct Goals {
    double rate;
    double cpu;
};

void MeasureWay(const Extent& extent, Way way, const std::string& name, const Goals& goals,
                Report& report) {
    const std::string rate = "relay, " + name + ", MB/s";
    const std::string cpu = "relay, " + name + ", CPU, s/GB";
    InTurns(extent.rounds, Contenders(extent), [&](const Contender& contender) {
        const Cost cost = Transfer(contender, way, kBulkBytes * extent.share);
        report.Record(rate, contender.name, cost.MegabytesPerSecond());
        report.Record(cpu, contender.name, cost.SecondsPerGigabyte());
    });
    report.AddGoal(rate, "socat", Report::Sense::kAtLeast, goals.rate);
    report.AddGoal(cpu, "socat", Report::Sense::kAtMost, goals.cpu);
}

}  // namespace

void MeasureRelay(const Extent& extent, Report& report) {
    const Child modem = StartModem();
    MeasureWay(extent, Way::kToTool, "modem to tool", {1, 0.95}, report);
    MeasureWay(extent, Way::kToModem, "tool to modem", {1.2, 1.3}, report);
}

void MeasureRoundTrips(const Extent& extent, Report& report) {
    const Child modem = StartModem();
    const std::string name = "round trip of 64 bytes, ";
    const auto count = static_cast<size_t>(kRoundTrips * extent.share);
    InTurns(extent.rounds, Contenders(extent), [&](const Contender& contender) {
        Connection connection(contender);
        std::vector<double> micros(count);
        const double before = connection.relay.CpuSeconds();
        for (double& took : micros)
            took = SecondsOf([&] { RoundTrip(connection.client); }) * 1e6;
        const double used = connection.relay.CpuSeconds() - before;
        report.Record(name + "p50, us", contender.name, Quantile(micros, 0.5));
        report.Record(name + "p99, us", contender.name, Quantile(micros, 0.99));
        report.Record(name + "CPU, us", contender.name, used * 1e6 / static_cast<double>(count));
    });
    report.AddGoal(name + "p50, us", "socat", Report::Sense::kAtMost, 0.9);
    report.AddGoal(name + "CPU, us", "socat", Report::Sense::kAtMost, 0.9);
}
