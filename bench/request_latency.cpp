// The PC's side of flood_latency: asks for the modem's time, again and again, and prints how long
// the requests took to the simulated modem and how long the answers took in all.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/bench_support.h"
#include "tools/diag_client.h"
#include "tools/diag_time.h"
#include "tools/packet.h"
#include "tools/tool_error.h"

namespace {

using SystemClock = std::chrono::system_clock;

constexpr auto kTimeout = std::chrono::seconds(10);
constexpr size_t kAnswerLength = 9;  // command and time stamp
constexpr int kUncounted = 10;       // the first one waits until the log masks are programmed

// Milliseconds of a DIAG time stamp.
double Milliseconds(uint64_t stamp) {
    constexpr double kTick = 1.25;
    constexpr double kPartsPerMillisecond = 40960;
    return static_cast<double>(stamp >> 16) * kTick +
           static_cast<double>(stamp & 0xFFFF) / kPartsPerMillisecond;
}

struct Delays {
    double toModem;  // milliseconds
    double inAll;
};

Delays Ask(DiagClient& client) {
    const std::string request(1, static_cast<char>(kCmdTimeStamp));
    const double sent = Milliseconds(DiagTimeStamp(SystemClock::now()));
    client.Send(request);
    ReceivedFrame frame{};
    const auto until = DiagClient::Clock::now() + kTimeout;
    do {
        if (!client.NextFrame(until, &frame)) throw ToolError("no answer in time");
    } while (frame.state != FrameState::kGood || frame.packet.size() != kAnswerLength ||
             frame.packet.front() != request.front());
    const double back = Milliseconds(DiagTimeStamp(SystemClock::now()));
    return {Milliseconds(ReadLe64(&frame.packet[1])) - sent, back - sent};
}

void Print(const char* name, const std::vector<double>& delays) {
    printf("%s: p50 %.3f ms, p99 %.3f ms, longest %.3f ms\n", name, Quantile(delays, 0.5),
           Quantile(delays, 0.99), Quantile(delays, 1.0));
}

}  // namespace

int main(int argc, char** argv) {
    const int requests = argc > 2 ? atoi(argv[2]) : 0;  // NOLINT(cert-err34-c): checked below
    if (argc != 3 || requests < 1) {
        fputs("usage: request_latency HOST REQUESTS\n", stderr);
        return 2;
    }
    try {
        DiagClient client(argv[1], kDaemonPort, kTimeout);
        std::vector<double> toModem;
        std::vector<double> inAll;
        for (int i = -kUncounted; i < requests; ++i) {
            const Delays delays = Ask(client);
            if (i < 0) continue;
            toModem.push_back(delays.toModem);
            inAll.push_back(delays.inAll);
        }
        Print("request to the modem", toModem);
        Print("request and answer", inAll);
    } catch (const ToolError& error) {
        fprintf(stderr, "request_latency: %s\n", error.what());
        return 1;
    }
    return 0;
}
