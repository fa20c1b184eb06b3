// quilltool mask: log-mask files made from text lists, and shown.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "diag/hdlc.h"
#include "tools/common/diag_client.h"
#include "tools/common/output.h"
#include "tools/common/tool_error.h"
#include "tools/common/unique_fd.h"
#include "tools/mask/mask_list.h"
#include "tools/mask/mask_print.h"
#include "tools/mask/mask_ranges.h"
#include "tools/subcommand.h"

namespace {

constexpr auto kModemTimeout = std::chrono::seconds(5);

struct MaskOptions {
    std::string list;
    std::string output;
    std::string file;
    bool asList = false;
    std::string host;
    uint16_t port = kDaemonPort;
};

std::string ReadFile(const std::string& path) {
    const UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() == -1) throw SystemError("cannot open {}", path);
    std::string content;
    std::array<char, 65536> piece;
    while (true) {
        const ssize_t count = read(fd.get(), piece.data(), piece.size());
        if (count < 0) throw SystemError("cannot read {}", path);
        if (count == 0) return content;
        content.append(piece.data(), static_cast<size_t>(count));
    }
}

// Returns 0 or errno.
int WriteFresh(const std::string& path, std::string_view content) {
    const UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (fd.get() == -1) return errno;
    while (!content.empty()) {
        const ssize_t count = write(fd.get(), content.data(), content.size());
        if (count < 0) return errno;
        content.remove_prefix(static_cast<size_t>(count));
    }
    return 0;
}

// At no moment is there half a file at path, and none when it cannot be written.
void ReplaceFile(const std::string& path, std::string_view content) {
    struct stat there {};
    if (lstat(path.c_str(), &there) == 0 && !S_ISREG(there.st_mode)) {
        throw ToolError("{} exists and is not a regular file", path);
    }
    const std::string fresh = fmt::format("{}.{}", path, getpid());
    unlink(fresh.c_str());
    int error = WriteFresh(fresh, content);
    if (error == 0 && rename(fresh.c_str(), path.c_str()) != 0) error = errno;
    if (error == 0) return;
    unlink(fresh.c_str());
    throw ToolError("cannot write {}: {}", path, strerror(error));
}

// Whether people wrote this, rather than a program.
bool IsText(const std::string& content) {
    return std::none_of(content.begin(), content.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < ' ' && byte != '\n' && byte != '\r' && byte != '\t';
    });
}

int RunCompile(const MaskOptions& options) {
    const std::string list = ReadFile(options.list);
    if (!IsText(list)) {
        throw ToolError(
            "{} is no text list; if it is a log-mask file, quilltool mask print shows it",
            options.list);
    }
    const CompiledMaskList compiled = CompileMaskList(list, options.list);
    for (const std::string& warning : compiled.warnings)
        Remark("warning: {}", warning);
    ReplaceFile(options.output, compiled.file);
    return 0;
}

int RunPrint(const MaskOptions& options) {
    const std::string file = ReadFile(options.file);
    if (!file.empty() && IsText(file) && file.back() != static_cast<char>(kHdlcFlag)) {
        throw ToolError("{} is text; if it is a list, quilltool mask compile makes a file of it",
                        options.file);
    }
    const MaskFileText shown = options.asList ? ListMaskFile(file) : PrintMaskFile(file);
    PrintText(shown.text);
    for (const std::string& finding : shown.findings)
        Remark("{}: {}", options.file, finding);
    return shown.findings.empty() ? 0 : 1;
}

int RunRanges(const MaskOptions& options) {
    DiagClient client(options.host, options.port, kModemTimeout);
    PrintText(AskWidths(client, kModemTimeout));
    return 0;
}

CLI::App* AddCompile(CLI::App& parent, MaskOptions& options) {
    CLI::App* app = parent.add_subcommand("compile", "Makes a log-mask file from a text list");
    app->add_option("LIST", options.list, "The list")->required();
    app->add_option("-o,--output", options.output, "The log-mask file to write or replace")
        ->type_name("FILE.cfg")
        ->required();
    app->footer(
        "The list has one item a line; # begins a comment:\n"
        "  0x117C           a log code: equipment id (0 to 13) in the upper four bits\n"
        "  0xB0C0-0xB0CF    all codes from one to the other, of one equipment id\n"
        "  width 11 2560    equipment id and number of bits of its mask\n"
        "  events on        event reports\n"
        "  messages on      all messages\n"
        "  timestamp        ask for the time\n"
        "  raw 4B 12 00     any other request, without check sequence, taken as it is\n"
        "The requests keep the list's order. All codes of an equipment id make one request, where\n"
        "the first of them stands.\n\n"
        "A width holds wherever it stands in the list; without one a mask ends with the highest\n"
        "code's byte. Widths matter when a PC tool sets log masks while the daemon captures: the\n"
        "daemon ORs the tool's request with the file's for the same equipment id, byte by byte,\n"
        "bit counts included, so different counts become a count that neither side meant. Use\n"
        "the modem's own on both sides; quilltool mask ranges prints them. A width of an\n"
        "equipment id without codes makes no request and gets a warning.\n\n"
        "On an error, which names the list's line, nothing is written.\n\n"
        "Example:\n"
        "  quilltool mask compile DIAG.list -o DIAG.cfg");
    return app;
}

CLI::App* AddPrint(CLI::App& parent, MaskOptions& options) {
    CLI::App* app = parent.add_subcommand("print", "Shows a log-mask file, frame by frame");
    app->add_option("FILE.cfg", options.file, "The log-mask file")->required();
    app->add_flag("--list", options.asList, "Print a list that compiles to the same file");
    app->footer(
        "A bad check sequence, a missing last 0x7E, an equipment id above 13, a frame that the\n"
        "daemon would not read, and a mask that does not fit its bit count are pointed out on\n"
        "stderr with the offset of the frame, and make the exit status 1.\n\n"
        "Examples:\n"
        "  quilltool mask print DIAG.cfg\n"
        "  quilltool mask print --list DIAG.cfg >DIAG.list");
    return app;
}

CLI::App* AddRanges(CLI::App& parent, MaskOptions& options) {
    CLI::App* app = parent.add_subcommand(
        "ranges", "Asks the modem, through the daemon, for the widths of its log masks");
    app->add_option("HOST", options.host, "Name or address of the daemon's host")->required();
    app->add_option("--port", options.port, "TCP port of the daemon")
        ->capture_default_str()
        ->type_name("PORT")
        ->check(CLI::Range(1, 65535).description(""));
    app->footer(
        "Prints \"width ID BITS\", as in a list, for each equipment id that has log items.\n\n"
        "Example:\n"
        "  quilltool mask ranges 192.168.42.129 >>DIAG.list");
    return app;
}

}  // namespace

Subcommand AddMaskCommand(CLI::App& parent) {
    auto options = std::make_shared<MaskOptions>();
    CLI::App* app = parent.add_subcommand("mask", "Log-mask files: made from text lists, shown");
    app->require_subcommand(1);
    app->footer(
        "Examples:\n"
        "  quilltool mask compile DIAG.list -o DIAG.cfg\n"
        "  quilltool mask print DIAG.cfg\n"
        "  quilltool mask ranges 192.168.42.129");
    CLI::App* const compile = AddCompile(*app, *options);
    CLI::App* const print = AddPrint(*app, *options);
    AddRanges(*app, *options);
    return {app, [=] {
                if (compile->parsed()) return RunCompile(*options);
                return print->parsed() ? RunPrint(*options) : RunRanges(*options);
            }};
}
