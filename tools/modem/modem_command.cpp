// quilltool modem: the simulated modem on a pseudo-terminal or a serial port.
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>

#include "tools/common/end_signals.h"
#include "tools/common/output.h"
#include "tools/common/tool_error.h"
#include "tools/modem/modem_end.h"
#include "tools/modem/sim_modem.h"
#include "tools/subcommand.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kReportBacklog = 1 << 16;  // queued bytes beyond which no reports are made
constexpr int kReadsPerPass = 16;           // then output and signals get their turn
constexpr auto kBulkIdle = std::chrono::seconds(5);
constexpr auto kReportLag = std::chrono::milliseconds(100);  // more of a delay is not made up for

struct ModemOptions {
    std::string path = "/dev/ttydiag0";
    std::string port;  // instead
    bool verbose = false;
    bool stall = false;
    bool mute = false;
    std::optional<double> logRate;  // reports a second; 0: as many as the line takes
};

class ModemRunner {
  public:
    explicit ModemRunner(const ModemOptions& options)
        : mOptions(options),
          mSignals(CatchEndSignals()),
          mLine(options.port.empty() ? ModemEnd(ModemEnd::Kind::kPty, options.path)
                                     : ModemEnd(ModemEnd::Kind::kPort, options.port)),
          mModem(MakeModemOptions(options)) {}

    // Serves the line until a signal ends it.
    void Run() {
        Print("modem ready at {}\n", mOptions.port.empty() ? mOptions.path : mOptions.port);
        while (Wait()) {
            EndIdleBulk();
            ReadLine();
            MakeReports();
            WriteLine();
        }
    }

  private:
    static SimModem::Options MakeModemOptions(const ModemOptions& options) {
        SimModem::Options result;
        result.mute = options.mute;
        if (options.verbose) result.trace = [](const std::string& line) { Print("{}\n", line); };
        return result;
    }

    // Returns when there may be something to do; false when a signal has come.
    bool Wait() {
        const bool reads = !mOptions.stall && mModem.WantsInput();
        const int events = (reads ? POLLIN : 0) | (mModem.Output().empty() ? 0 : POLLOUT);
        pollfd watched[] = {{mSignals.get(), POLLIN, 0},
                            {mLine.fd(), static_cast<short>(events), 0}};
        if (poll(watched, std::size(watched), WaitMillis()) < 0 && errno != EINTR) {
            throw SystemError("poll");
        }
        mReadable = reads && (watched[1].revents & POLLIN) != 0;
        return watched[0].revents == 0;
    }

    // How long nothing needs to be done unless a descriptor wakes us; -1 for no limit.
    int WaitMillis() const {
        using std::chrono::milliseconds;
        if (mOptions.logRate == 0.0 && mModem.HasReports() && HasReportRoom()) return 0;
        int wait = -1;
        if (mModem.InBulk()) wait = static_cast<int>(milliseconds(kBulkIdle).count());
        if (mOptions.logRate > 0.0 && mModem.HasReports() && HasReportRoom()) {
            const auto untilReport = std::chrono::ceil<milliseconds>(mNextReport - Clock::now());
            const int millis = std::max<int>(0, static_cast<int>(untilReport.count()));
            wait = wait == -1 ? millis : std::min(wait, millis);
        }
        return wait;
    }

    void ReadLine() {
        ModemEnd::Input input;
        for (int i = 0; mReadable && i < kReadsPerPass && mModem.WantsInput(); ++i) {
            if (!mLine.Read(&input)) return;
            if (input.flushed) mModem.PortOpened();
            mModem.Receive(input.data.data(), input.data.size());
            mLastMove = Clock::now();
        }
    }

    void WriteLine() {
        for (std::string_view output = mModem.Output(); !output.empty(); output = mModem.Output()) {
            const size_t count = mLine.Write(output);
            if (count == 0) return;
            mModem.Consume(count);
            mLastMove = Clock::now();
            if (count < output.size()) return;
        }
    }

    bool HasReportRoom() const { return mModem.QueuedBytes() < kReportBacklog; }

    void MakeReports() {
        if (!mOptions.logRate.has_value() || !mModem.HasReports()) return;
        if (*mOptions.logRate == 0.0) {
            while (HasReportRoom())
                mModem.SendNextReport();
            return;
        }
        const auto interval = std::chrono::duration_cast<Clock::duration>(
            std::chrono::duration<double>(1.0 / *mOptions.logRate));
        const auto now = Clock::now();
        mNextReport = std::max(mNextReport, now - kReportLag);
        for (; mNextReport <= now && HasReportRoom(); mNextReport += interval)
            mModem.SendNextReport();
    }

    // Ends a bulk transfer whose other side has gone, in case the next one does not flush the line:
    // its requests would be taken for data.
    void EndIdleBulk() {
        if (mModem.InBulk() && Clock::now() - mLastMove >= kBulkIdle) mModem.AbandonBulk();
    }

    const ModemOptions mOptions;
    const UniqueFd mSignals;  // caught before there is a link to be removed
    ModemEnd mLine;
    SimModem mModem;
    bool mReadable = false;
    Clock::time_point mLastMove = Clock::now();
    Clock::time_point mNextReport = Clock::now();
};

int RunModem(const ModemOptions& options) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    ModemRunner(options).Run();
    return 0;
}

}  // namespace

Subcommand AddModemCommand(CLI::App& parent) {
    auto options = std::make_shared<ModemOptions>();
    CLI::App* app = parent.add_subcommand(
        "modem", "Simulated modem: answers DIAG requests on a pseudo-terminal until SIGTERM");
    CLI::Option* at = app->add_option("--at", options->path, "Where to put the link to the line")
                          ->capture_default_str()
                          ->type_name("PATH");
    app->add_option("--port", options->port, "Use this serial port instead of a pseudo-terminal")
        ->type_name("PATH")
        ->excludes(at);
    app->add_flag("--verbose", options->verbose,
                  "Print requests, answers and changes of what is logged");
    app->add_option("--send-logs", options->logRate,
                    "Reports a second (log packets of the enabled codes, events, messages); "
                    "0: as many as the line takes")
        ->type_name("RATE")
        ->check(CLI::Range(0.0, 1e6).description(""));
    app->add_flag("--stall", options->stall, "Read nothing from the line");
    app->add_flag("--mute", options->mute, "Read the line, but answer nothing");
    app->footer(
        "Example:\n"
        "  quilltool modem --at /tmp/modem0 --verbose --send-logs 100");
    return {app, [options] { return RunModem(*options); }};
}
