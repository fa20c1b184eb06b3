// quilltool probe: the simulated PC tool.
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/common/diag_client.h"
#include "tools/common/end_signals.h"
#include "tools/common/frame_text.h"
#include "tools/common/mask_requests.h"
#include "tools/common/output.h"
#include "tools/common/packet.h"
#include "tools/probe/bulk_run.h"
#include "tools/probe/probe_masks.h"
#include "tools/probe/prober.h"
#include "tools/subcommand.h"

namespace {

using Clock = DiagClient::Clock;

struct ProbeOptions {
    std::string host;
    uint16_t port = kDaemonPort;
    std::vector<std::string> requests;  // hexadecimal, checked by the parser
    std::string codes;                  // checked by the parser; empty for none
    bool getMask = false;
    bool raw = false;
    std::optional<int> waitMillis;
    std::string bulk;  // a size, checked by the parser; empty for none
    std::string direction = "both";
    double timeoutSeconds = 5;
};

Clock::duration Seconds(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

// Prints one direction's result; returns whether every byte was right.
bool PrintBulk(const char* name, uint64_t wanted, const BulkResult& result) {
    if (wanted == 0) return true;
    const bool right = result.bytes == wanted && result.mismatch == kNoMismatch;
    Print("{} {} bytes in {:.3f} s, {:.1f} MB/s{}\n", name, result.bytes, result.seconds,
          static_cast<double>(result.bytes) / 1e6 / result.seconds,
          right ? ", every byte right" : "");
    if (result.bytes != wanted) Remark("{} {} bytes expected", name, wanted);
    if (result.mismatch != kNoMismatch) {
        Remark("{} the first wrong byte is at offset {}", name, result.mismatch);
    }
    return right;
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

// What a tool asks that says nothing of its own.
std::vector<std::string> RequestsOf(const ProbeOptions& options) {
    const bool asksForMasks = !options.codes.empty() || options.getMask;
    if (options.requests.empty() && !asksForMasks) return {"00"};
    return options.requests;
}

void AskAll(Prober& prober, const ProbeOptions& options, const std::set<uint32_t>& codes) {
    for (const std::string& text : RequestsOf(options)) {
        std::string request;
        ParseHex(text, &request);
        prober.Ask(request);
    }
    if (!codes.empty()) SetLogCodes(prober, codes);
    if (!options.getMask) return;
    const std::string enabled = EnabledCodeLines(prober);
    PrintText(enabled.empty() ? "no log codes are enabled\n" : enabled);
}

void Watch(Prober& prober, const ProbeOptions& options) {
    if (options.waitMillis == 0 || (!options.waitMillis.has_value() && options.codes.empty())) {
        return;
    }
    // Bulk transfers are ended by the signals themselves.
    const UniqueFd endSignals = options.bulk.empty() ? CatchEndSignals() : UniqueFd();
    const auto until = options.waitMillis.has_value()
                           ? Clock::now() + std::chrono::milliseconds(*options.waitMillis)
                           : Clock::time_point::max();
    prober.Watch(until, endSignals.get());
}

int RunProbe(const ProbeOptions& options) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const Clock::duration timeout = Seconds(options.timeoutSeconds);
    std::set<uint32_t> codes;
    if (!options.codes.empty()) ParseLogCodes(options.codes, &codes);
    DiagClient client(options.host, options.port, timeout);
    Prober prober(client, timeout, {options.raw, codes});
    AskAll(prober, options, codes);
    Watch(prober, options);
    const bool bulkRight = options.bulk.empty() || ProbeBulk(client, options);
    if (prober.badFrames() > 0) {
        Remark("frames with a bad check sequence: {}", prober.badFrames());
    }
    return bulkRight && prober.badFrames() == 0 ? 0 : 1;
}

CLI::Option* AddBulkOptions(CLI::App* app, ProbeOptions& options) {
    CLI::Option* const bulk =
        app->add_option(
               "--bulk", options.bulk,
               "Then move so many bytes (20000000, 300M, 1G), checking every one, and measure; "
               "the modem must send no logs meanwhile")
            ->type_name("BYTES")
            ->check(CheckedBy(ParseSize));
    app->add_option("--direction", options.direction,
                    "Way of the bulk bytes: up (to the modem), down, or both at once")
        ->capture_default_str()
        ->type_name("up|down|both")
        ->check(CLI::IsMember({"up", "down", "both"}).description(""));
    return bulk;
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
    app->add_option("--request", options->requests,
                    "A request in hexadecimal, without check sequence (default 00, none with "
                    "--mask or --get-mask); may be repeated")
        ->type_name("HEX")
        ->allow_extra_args(false)
        ->check(CheckedBy(ParseHex));
    CLI::Option* const mask =
        app->add_option("--mask", options->codes,
                        "Enable these log codes, and no others of their equipment ids, and print "
                        "their packets as they arrive")
            ->type_name("CODE[-CODE][,...]")
            ->check(CheckedBy(ParseLogCodes));
    CLI::Option* const getMask =
        app->add_flag("--get-mask", options->getMask, "Print the enabled log codes");
    CLI::Option* const raw = app->add_flag(
        "--raw", options->raw, "Print only the bytes received, in hexadecimal, as they are");
    app->add_option("--wait", options->waitMillis,
                    "After the last answer, print what comes for so long, or until Ctrl-C; with "
                    "--mask the default is until Ctrl-C, otherwise 0")
        ->type_name("MS")
        ->check(CLI::Range(0, 86400000).description(""));
    CLI::Option* const bulk = AddBulkOptions(app, *options);
    raw->excludes(getMask)->excludes(bulk);
    mask->excludes(bulk);
    app->add_option("--timeout", options->timeoutSeconds,
                    "Limit for connecting, for each answer, and for bulk bytes to move on")
        ->capture_default_str()
        ->type_name("SECONDS")
        ->check(CLI::Range(0.001, 86400.0).description(""));
    app->footer(
        "A mask is as wide as the modem says, so that it goes with the one that the daemon "
        "captures\n"
        "with; when the modem says nothing, up to the highest code, rounded up to a whole byte. "
        "The\n"
        "codes are printed as in a list of quilltool mask compile.\n\n"
        "Exit status: 0 success, 1 failure or frames with a bad check sequence, 2 wrong usage.\n\n"
        "Examples:\n"
        "  quilltool probe 192.168.42.129 --request 00 --request \"73 00 00 00 01 00 00 00\"\n"
        "  quilltool probe 192.168.42.129 --mask 0xB0C0,0x117C --wait 10000\n"
        "  quilltool probe 192.168.42.129 --get-mask\n"
        "  quilltool probe 192.168.42.129 --bulk 300M");
    return {app, [options] { return RunProbe(*options); }};
}
