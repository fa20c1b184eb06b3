// quilltool, the companion program: a simulated modem, a simulated PC tool, log-mask files,
// captures.
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <system_error>
#include <vector>

#include "tools/common/output.h"
#include "tools/subcommand.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// What to say when what was given ends before a subcommand or has an unknown word in its place;
// empty when the fault is another one.
std::string SubcommandFault(const CLI::App* app) {
    const std::vector<std::string> unknown = app->remaining(true);
    while (!app->get_subcommands().empty())
        app = app->get_subcommands().front();
    std::vector<std::string> known;
    for (const CLI::App* subcommand : app->get_subcommands({}))
        known.push_back(subcommand->get_name());
    if (known.empty()) return "";
    return fmt::format(
        "{}; there are {}",
        unknown.empty() ? "A subcommand is missing" : unknown.front() + " is no subcommand",
        fmt::join(known, ", "));
}

int Run(int argc, char** argv) {
    CLI::App app{
        "Companion of quillod: plays the modem or the PC tool at the two ends of the relay, "
        "makes log-mask files and reads captures.",
        "quilltool"};
    app.require_subcommand(1);
    app.set_version_flag("--version", "quilltool " QUILLOD_VERSION);
    app.footer(
        "Exit status: 0 success, 1 failure, 2 wrong usage.\n\n"
        "Example:\n"
        "  quilltool modem --verbose        in place of the modem\n"
        "  quilltool probe 192.168.42.129   from the PC, through the daemon\n"
        "  quilltool mask compile DIAG.list -o DIAG.cfg\n"
        "  quilltool capture stat /data/misc/radio");
    const std::vector<Subcommand> subcommands = {AddModemCommand(app), AddProbeCommand(app),
                                                 AddMaskCommand(app), AddCaptureCommand(app)};

    try {
        app.parse(argc, argv);
    } catch (const CLI::RequiredError& error) {
        const std::string fault = SubcommandFault(&app);
        const std::vector<std::string> unknown = app.remaining(true);
        if (!fault.empty()) {
            app.exit(CLI::RequiredError(fault, CLI::ExitCodes::RequiredError));
        } else if (unknown.empty()) {
            app.exit(error);
        } else {  // tells more than what its place would have been for
            app.exit(CLI::ExtrasError(unknown));
        }
        return kExitUsage;
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kExitOk : kExitUsage;
    }
    int status = kExitOk;
    for (const Subcommand& subcommand : subcommands) {
        if (subcommand.app->parsed()) status = subcommand.run();
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    // A closed peer shows as EPIPE where it is written to.
    signal(SIGPIPE, SIG_IGN);
    std::string failure = "unknown failure";
    try {
        const int status = Run(argc, argv);
        FlushOutput();
        return status;
    } catch (const std::system_error& error) {
        if (error.code() == std::errc::broken_pipe) return kExitOk;  // the reader has seen enough
        failure = error.what();
    } catch (const std::exception& error) {
        failure = error.what();
    } catch (...) {
    }
    fflush(stdout);
    fprintf(stderr, "quilltool: %s\n", failure.c_str());
    return kExitFailed;
}
