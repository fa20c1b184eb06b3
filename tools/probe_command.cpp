// quilltool probe: the simulated PC tool.
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "tools/bulk_run.h"
#include "tools/diag_client.h"
#include "tools/frame_text.h"
#include "tools/packet.h"
#include "tools/subcommand.h"
#include "tools/tool_error.h"

namespace {

using Clock = DiagClient::Clock;

struct ProbeOptions {
    std::string host;
    uint16_t port = kDaemonPort;
    std::vector<std::string> requests = {"00"};  // hexadecimal, checked by the parser
    int waitMillis = 0;
    std::string bulk;  // a size, checked by the parser; empty for none
    std::string direction = "both";
    double timeoutSeconds = 5;
};

Clock::duration Seconds(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

// Sends requests and prints every frame that comes.
class Prober {
  public:
    Prober(DiagClient& client, Clock::duration timeout) : mClient(client), mTimeout(timeout) {}

    // Sends request and returns when its answer has come; throws ToolError when none does.
    void Ask(std::string_view request) {
        printf("-> %s\n", DescribePacket(request).c_str());
        mClient.Send(request);
        const auto until = Clock::now() + mTimeout;
        ReceivedFrame frame;
        do {
            if (!mClient.NextFrame(until, &frame)) {
                throw ToolError("no answer in time to " + FormatHex(request, 8));
            }
            Print(frame);
        } while (!IsAnswer(frame.packet, request));
    }

    // Prints what comes until the given moment.
    void Watch(Clock::time_point until) {
        ReceivedFrame frame;
        while (mClient.NextFrame(until, &frame))
            Print(frame);
    }

    uint64_t badFrames() const { return mBadFrames; }

  private:
    static bool IsAnswer(std::string_view packet, std::string_view request) {
        if (packet.empty()) return false;
        const auto code = static_cast<unsigned char>(packet.front());
        return code == static_cast<unsigned char>(request.front()) || code == kCmdBad;
    }

    void Print(const ReceivedFrame& frame) {
        if (frame.state != FrameState::kGood) ++mBadFrames;
        if (frame.state == FrameState::kOverlong) {
            puts("<- frame too long to decode");
            return;
        }
        const char* note = frame.state == FrameState::kGood ? "FCS good" : "FCS BAD";
        printf("<- %s\n", DescribePacket(frame.packet, note).c_str());
    }

    DiagClient& mClient;
    const Clock::duration mTimeout;
    uint64_t mBadFrames = 0;
};

// Prints one direction's result; returns whether every byte was right.
bool PrintBulk(const char* name, uint64_t wanted, const BulkResult& result) {
    if (wanted == 0) return true;
    printf("%s %llu bytes in %.3f s, %.1f MB/s", name,
           static_cast<unsigned long long>(result.bytes), result.seconds,
           static_cast<double>(result.bytes) / 1e6 / result.seconds);
    if (result.bytes == wanted && result.mismatch == kNoMismatch) {
        puts(", every byte right");
        return true;
    }
    puts("");
    if (result.bytes != wanted) {
        fprintf(stderr, "quilltool: %s %llu bytes expected\n", name,
                static_cast<unsigned long long>(wanted));
    }
    if (result.mismatch != kNoMismatch) {
        fprintf(stderr, "quilltool: %s the first wrong byte is at offset %llu\n", name,
                static_cast<unsigned long long>(result.mismatch));
    }
    return false;
}

bool ProbeBulk(DiagClient& client, const ProbeOptions& options) {
    uint64_t bytes = 0;
    ParseSize(options.bulk, &bytes);
    const uint64_t up = options.direction == "down" ? 0 : bytes;
    const uint64_t down = options.direction == "up" ? 0 : bytes;
    const BulkReport report = RunBulk(client, up, down, Seconds(options.timeoutSeconds));
    const bool upRight = PrintBulk("bulk ->", up, report.up);
    const bool downRight = PrintBulk("bulk <-", down, report.down);
    return upRight && downRight;
}

int RunProbe(const ProbeOptions& options) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const Clock::duration timeout = Seconds(options.timeoutSeconds);
    DiagClient client(options.host, options.port, timeout);
    Prober prober(client, timeout);
    for (const std::string& text : options.requests) {
        std::string request;
        ParseHex(text, &request);
        prober.Ask(request);
    }
    if (options.waitMillis > 0) {
        prober.Watch(Clock::now() + std::chrono::milliseconds(options.waitMillis));
    }
    const bool bulkRight = options.bulk.empty() || ProbeBulk(client, options);
    if (prober.badFrames() > 0) {
        fprintf(stderr, "quilltool: frames with a bad check sequence: %llu\n",
                static_cast<unsigned long long>(prober.badFrames()));
    }
    return bulkRight && prober.badFrames() == 0 ? 0 : 1;
}

}  // namespace

Subcommand AddProbeCommand(CLI::App& parent) {
    auto options = std::make_shared<ProbeOptions>();
    CLI::App* app = parent.add_subcommand(
        "probe", "Simulated PC tool: sends DIAG requests to the daemon and prints what comes back");
    app->add_option("HOST", options->host, "Name or address of the daemon's host")->required();
    app->add_option("--port", options->port, "TCP port of the daemon")
        ->capture_default_str()
        ->type_name("PORT")
        ->check(CLI::Range(1, 65535).description(""));
    app->add_option(
           "--request", options->requests,
           "A request in hexadecimal, without check sequence (default 00); may be repeated")
        ->type_name("HEX")
        ->allow_extra_args(false)
        ->check(CheckedBy(ParseHex));
    app->add_option("--wait", options->waitMillis,
                    "After the last answer, print what comes for so long")
        ->type_name("MS")
        ->check(CLI::Range(0, 86400000).description(""));
    app->add_option(
           "--bulk", options->bulk,
           "Then move so many bytes (20000000, 300M, 1G), checking every one, and measure; "
           "the modem must send no logs meanwhile")
        ->type_name("BYTES")
        ->check(CheckedBy(ParseSize));
    app->add_option("--direction", options->direction,
                    "Way of the bulk bytes: up (to the modem), down, or both at once")
        ->capture_default_str()
        ->type_name("up|down|both")
        ->check(CLI::IsMember({"up", "down", "both"}).description(""));
    app->add_option("--timeout", options->timeoutSeconds,
                    "Limit for connecting, for each answer, and for bulk bytes to move on")
        ->capture_default_str()
        ->type_name("SECONDS")
        ->check(CLI::Range(0.001, 86400.0).description(""));
    app->footer(
        "Examples:\n"
        "  quilltool probe 192.168.42.129 --request 00 --request \"73 00 00 00 01 00 00 00\"\n"
        "  quilltool probe 192.168.42.129 --bulk 300M");
    return {app, [options] { return RunProbe(*options); }};
}
