// The relay with capture off, beside socat and beside a bare loop of blocking read and write.
#include <functional>
#include <stdexcept>
#include <vector>

#include "bench/bench_support.h"
#include "bench/rig.h"
#include "bench/runs.h"
#include "tools/common/packet.h"
#include "tools/probe/bulk_run.h"

namespace {

constexpr uint16_t kOtherPort = 11009;
constexpr double kBulkBytes = 300e6;
constexpr int kRoundTrips = 5000;
constexpr int kWarmUpRoundTrips = 100;

struct Contender {
    std::string name;
    uint16_t port;
    std::function<Child()> start;
};

const std::vector<Contender> kOthers = {
    {"socat", kOtherPort,
     [] {
         const std::string listen = "TCP-LISTEN:" + std::to_string(kOtherPort);
         return Child({"socat", "-b", "16384", listen + ",reuseaddr,nodelay",
                       std::string(kModemDevice) + ",raw,echo=0"},
                      "socat");
     }},
    {"bare loop", kOtherPort,
     [] {
         return Child({BuiltProgram("bare_loop"), std::to_string(kOtherPort), kModemDevice},
                      "bare_loop");
     }},
};

enum class Way { kToTool, kToModem };

// A request that is framed in 64 bytes and that the modem sends back as it is.
const std::string& EchoRequest() {
    static const std::string request = [] {
        constexpr size_t kFramed = 64;
        std::string packet(60, '\x31');
        packet[0] = static_cast<char>(kCmdMessageConfig);
        packet[1] = packet[2] = 1;
        std::string framed;
        AppendFrame(framed, packet);
        if (framed.size() != kFramed) throw std::logic_error("the echo has another size");
        return packet;
    }();
    return request;
}

void RoundTrip(DiagClient& client) {
    if (Ask(client, EchoRequest()) != EchoRequest()) throw std::runtime_error("wrong echo");
}

using Work = std::function<void(DiagClient&)>;

// Runs work on a connection through the contender after some round trips and the warm-up, and
// returns the processor time that the contender took for work.
double WithContender(const Contender& contender, const Work& warmUp, const Work& work) {
    const Child relay = contender.start();
    DiagClient client = ConnectFromPc(contender.port);
    for (int i = 0; i < kWarmUpRoundTrips; ++i)
        RoundTrip(client);
    warmUp(client);
    const double before = relay.CpuSeconds();
    work(client);
    return relay.CpuSeconds() - before;
}

Cost Transfer(const Contender& contender, Way way, double bytes) {
    const auto move = [&](DiagClient& client, double volume) {
        const auto count = static_cast<uint64_t>(volume);
        const bool toModem = way == Way::kToModem;
        const BulkReport report =
            RunBulk(client, toModem ? count : 0, toModem ? 0 : count, kPatience);
        const BulkResult& result = toModem ? report.up : report.down;
        if (result.bytes != count || result.mismatch != kNoMismatch) {
            throw std::runtime_error(contender.name + " brought wrong bytes");
        }
        return result.seconds;
    };
    Cost cost{};
    cost.cpuSeconds = WithContender(
        contender, [&](DiagClient& client) { move(client, kWarmUpBytes); },
        [&](DiagClient& client) { cost.seconds = move(client, bytes); });
    return cost;
}

// Calls run with each contender in each round, another one first each time.
void InTurns(const Extent& extent, const std::function<void(const Contender&)>& run) {
    std::vector<Contender> contenders;
    for (const auto& [name, path] : Daemons(extent))
        contenders.push_back({name, kDaemonPort, [path] { return StartDaemon(path); }});
    contenders.insert(contenders.begin() + 1, kOthers.begin(), kOthers.end());
    for (int round = 0; round < extent.rounds; ++round)
        for (size_t i = 0; i < contenders.size(); ++i)
            run(contenders[(static_cast<size_t>(round) + i) % contenders.size()]);
}

void MeasureWay(const Extent& extent, Way way, const std::string& name, double cpuLimit,
                Report& report) {
    Row rate{"relay, " + name, "MB/s", true};
    Row cpu{"relay, " + name + ", CPU", "s/GB", true};
    const double bytes = kBulkBytes * extent.share;
    InTurns(extent, [&](const Contender& contender) {
        const Cost cost = Transfer(contender, way, bytes);
        rate.Record(contender.name, bytes / kMega / cost.seconds);
        cpu.Record(contender.name, cost.cpuSeconds * kGiga / bytes);
    });
    report.AtLeast("relay, " + name + ", throughput of socat's", rate.Ratio(), 1);
    report.AtMost("relay, " + name + ", CPU of socat's", cpu.Ratio(), cpuLimit);
    report.Add(rate);
    report.Add(cpu);
}

}  // namespace

void MeasureToTool(const Extent& extent, Report& report) {
    const Modem modem;
    MeasureWay(extent, Way::kToTool, "modem to tool", 0.95, report);
}

void MeasureToModem(const Extent& extent, Report& report) {
    const Modem modem;
    MeasureWay(extent, Way::kToModem, "tool to modem", 1.05, report);
}

void MeasureRoundTrips(const Extent& extent, Report& report) {
    constexpr double kGoal = 0.9;
    const Modem modem;
    Row median{"round trip of 64 bytes, p50", "us", true};
    Row slow{"round trip of 64 bytes, p99", "us", true};
    Row cpu{"round trip of 64 bytes, CPU", "us", true};
    const int count = static_cast<int>(kRoundTrips * extent.share);
    const Work none = [](DiagClient& /*client*/) {};
    InTurns(extent, [&](const Contender& contender) {
        std::vector<double> micros;
        const double used = WithContender(contender, none, [&](DiagClient& client) {
            for (int i = 0; i < count; ++i)
                micros.push_back(SecondsOf([&client] { RoundTrip(client); }) * 1e6);
        });
        median.Record(contender.name, Quantile(micros, 0.5));
        slow.Record(contender.name, Quantile(micros, 0.99));
        cpu.Record(contender.name, used * 1e6 / count);
    });
    report.AtMost("round trip p50 of socat's", median.Ratio(), kGoal);
    report.AtMost("round trip CPU of socat's", cpu.Ratio(), kGoal);
    for (const Row& row : {median, slow, cpu})
        report.Add(row);
}
