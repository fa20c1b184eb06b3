// quilltool capture: what is in capture files.
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <numeric>

#include "tools/capture/capture_files.h"
#include "tools/capture/capture_follow.h"
#include "tools/capture/capture_text.h"
#include "tools/capture/capture_totals.h"
#include "tools/capture/progress_bar.h"
#include "tools/common/end_signals.h"
#include "tools/common/mask_requests.h"
#include "tools/common/output.h"
#include "tools/common/tool_error.h"
#include "tools/subcommand.h"

namespace {

constexpr size_t kOutputSize = 1 << 16;

struct CaptureOptions {
    std::vector<std::string> paths;
    std::string codes;  // checked by the parser
    std::string kind;   // a CaptureKindWord; empty for all
    bool hex = false;
    bool json = false;
    uint64_t limit = UINT64_MAX;
};

CaptureFilter MakeFilter(const CaptureOptions& options) {
    CaptureFilter filter;
    if (!options.codes.empty()) ParseLogCodes(options.codes, &filter.codes);
    for (size_t i = 0; i < kPacketKinds; ++i) {
        const auto kind = static_cast<PacketKind>(i);
        if (options.kind == CaptureKindWord(kind)) filter.kind = kind;
    }
    return filter;
}

// The files to read, directories resolved.
std::vector<std::string> FilesOf(const std::vector<std::string>& paths) {
    std::vector<std::string> files;
    for (const std::string& path : paths) {
        std::error_code ignored;
        if (!std::filesystem::is_directory(path, ignored)) {
            files.push_back(path);
            continue;
        }
        const CaptureDirectory directory = ListCaptureDirectory(path);
        for (const std::string& name : directory.missing)
            Remark("{}: its record file lists {}, which is not there", path, name);
        if (directory.files.empty()) throw ToolError("no capture files in {}", path);
        files.insert(files.end(), directory.files.begin(), directory.files.end());
    }
    return files;
}

// Throws ToolError when one cannot be opened.
std::vector<uint64_t> SizesOf(const std::vector<std::string>& files) {
    std::vector<uint64_t> sizes;
    for (const std::string& path : files) {
        struct stat status = {};
        fstat(OpenCaptureFile(path).get(), &status);
        sizes.push_back(static_cast<uint64_t>(status.st_size));
    }
    return sizes;
}

void ReadAll(const std::vector<std::string>& files, CaptureReader& reader, ProgressBar& progress) {
    for (const std::string& path : files) {
        reader.BeginFile(path);
        const UniqueFd fd = OpenCaptureFile(path);
        const bool goesOn = ReadCaptureFile(fd.get(), path, [&](std::string_view bytes) {
            progress.Advance(bytes.size());
            return reader.Take(bytes);
        });
        if (!goesOn) return;
    }
    reader.Finish();
}

// Prints the frames that the options ask for, each file's behind its name.
class FramePrinter {
  public:
    explicit FramePrinter(const CaptureOptions& options)
        : mFilter(MakeFilter(options)), mHex(options.hex), mLeft(options.limit) {}

    // False when nothing more is to be printed.
    bool Take(const CaptureFrame& frame) {
        if (frame.check == CaptureCheck::kBad) ++mBad;
        if (frame.check != CaptureCheck::kBad && frame.check != CaptureCheck::kGood) ++mCut;
        if (!mFilter.Wants(frame)) return true;
        if (mFile != frame.file) {
            Print("{}{}\n{}", mFile.empty() ? "" : "\n", frame.file, CaptureHeading());
            mFile = frame.file;
        }
        PrintText(CaptureLine(frame, mHex));
        return --mLeft > 0;
    }

    bool hasPrinted() const { return !mFile.empty(); }
    uint64_t bad() const { return mBad; }
    uint64_t cut() const { return mCut; }

  private:
    const CaptureFilter mFilter;
    const bool mHex;
    uint64_t mLeft;
    std::string mFile;
    uint64_t mBad = 0;
    uint64_t mCut = 0;
};

int RunShow(const CaptureOptions& options) {
    setvbuf(stdout, nullptr, isatty(STDOUT_FILENO) == 1 ? _IOLBF : _IOFBF, kOutputSize);
    const std::vector<std::string> files = FilesOf(options.paths);
    const std::vector<uint64_t> sizes = SizesOf(files);
    ProgressBar progress(std::accumulate(sizes.begin(), sizes.end(), uint64_t{0}));
    FramePrinter printer(options);
    CaptureReader reader([&](const CaptureFrame& frame) {
        progress.Clear();
        return printer.Take(frame);
    });
    ReadAll(files, reader, progress);
    progress.Clear();
    if (!printer.hasPrinted()) Remark("no such frame");
    if (printer.bad() + printer.cut() == 0) return 0;
    Remark("bad check sequences: {}, cut frames: {}", printer.bad(), printer.cut());
    return 1;
}

int RunStat(const CaptureOptions& options) {
    const std::vector<std::string> files = FilesOf(options.paths);
    CaptureTotals totals;
    for (const uint64_t size : SizesOf(files))
        totals.AddFile(size);
    ProgressBar progress(totals.bytes());
    CaptureReader reader([&](const CaptureFrame& frame) {
        totals.Add(frame);
        return true;
    });
    ReadAll(files, reader, progress);
    progress.Clear();
    PrintText(options.json ? totals.Json() : totals.Text());
    return totals.hasProblems() ? 1 : 0;
}

int RunFollow(const CaptureOptions& options) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const UniqueFd endSignals = CatchEndSignals();
    FramePrinter printer(options);
    CaptureReader reader([&](const CaptureFrame& frame) { return printer.Take(frame); });
    FollowCapture(options.paths.front(), endSignals.get(), reader);
    return 0;
}

void AddFrameOptions(CLI::App* app, CaptureOptions& options) {
    app->add_option("--code", options.codes, "Only log packets of these codes")
        ->type_name("CODE[-CODE][,...]")
        ->check(CheckedBy(ParseLogCodes));
    app->add_option("--kind", options.kind, "Only frames of this kind")
        ->type_name("log|event|message|answer")
        ->check(CLI::IsMember({"log", "event", "message", "answer"}).description(""));
    app->add_flag("--hex", options.hex, "The packets' bytes, un-escaped, without check sequence");
    app->add_option("--limit", options.limit, "End after so many frames")
        ->type_name("N")
        ->check(CLI::Validator(
            [](const std::string& text) {
                const bool isCount = text.find_first_not_of("0123456789") == std::string::npos &&
                                     text.find_first_not_of('0') != std::string::npos;
                return isCount ? "" : "not a number of frames, 1 or more: " + text;
            },
            ""));
}

constexpr char kOrderText[] =
    "Of a directory all .qmdl files are read: those that its record.txt lists, in that order,\n"
    "then the others by name. One that is listed but not there is named on stderr, no more.\n"
    "A frame that one file ends with and the next one goes on with is one good frame: a capture\n"
    "goes on in a new file at any byte.\n\n";

CLI::App* AddShow(CLI::App& parent, CaptureOptions& options) {
    CLI::App* app = parent.add_subcommand("show", "Lists the frames of captures");
    app->add_option("FILE|DIR", options.paths, "Capture files and directories of them")->required();
    AddFrameOptions(app, options);
    app->footer(
        "Offsets are those of the file, lengths those of the packet: un-escaped, without check\n"
        "sequence. A frame that a file begins or ends in the middle of is called cut; nobody "
        "knows\n"
        "the kind of one whose start is missing.\n\n" +
        std::string(kOrderText) +
        "Exit status: 0 success, 1 when something read was bad or cut, or failure, 2 wrong usage.\n"
        "\n"
        "Examples:\n"
        "  quilltool capture show /data/misc/radio --code 0xB0C0 --hex\n"
        "  quilltool capture show diag_log_1.qmdl --kind event --limit 10");
    return app;
}

CLI::App* AddStat(CLI::App& parent, CaptureOptions& options) {
    CLI::App* app = parent.add_subcommand("stat", "Adds up what is in captures");
    app->add_option("FILE|DIR", options.paths, "Capture files and directories of them")->required();
    app->add_flag("--json", options.json, "For programs");
    app->footer(
        "Frames and bytes (as captured, with escapes) by kind and log code, what is bad or cut "
        "and\n"
        "where, the span of the log packets' own time stamps, and the busiest codes.\n\n" +
        std::string(kOrderText) +
        "Exit status: 0 success, 1 when something was bad or cut, or failure, 2 wrong usage.\n\n"
        "Example:\n"
        "  quilltool capture stat /data/misc/radio --json");
    return app;
}

CLI::App* AddFollow(CLI::App& parent, CaptureOptions& options) {
    CLI::App* app = parent.add_subcommand(
        "follow", "Lists frames as they are captured, until SIGINT or SIGTERM");
    app->add_option("DIR", options.paths, "Directory of the capture files")
        ->type_name("")
        ->expected(1)
        ->required();
    AddFrameOptions(app, options);
    app->footer(
        "Begins with the first frame that ends after the start, and goes on in every new file.\n\n"
        "Exit status: 0 success, bad and cut frames or not; 1 failure, 2 wrong usage.\n\n"
        "Example:\n"
        "  quilltool capture follow /data/misc/radio --kind log");
    return app;
}

}  // namespace

Subcommand AddCaptureCommand(CLI::App& parent) {
    auto options = std::make_shared<CaptureOptions>();
    CLI::App* app = parent.add_subcommand("capture", "Capture files: shown, added up, followed");
    app->require_subcommand(1);
    app->footer(
        "Examples:\n"
        "  quilltool capture show /data/misc/radio --limit 20\n"
        "  quilltool capture stat /data/misc/radio\n"
        "  quilltool capture follow /data/misc/radio");
    CLI::App* const show = AddShow(*app, *options);
    CLI::App* const stat = AddStat(*app, *options);
    AddFollow(*app, *options);
    return {app, [=] {
                if (show->parsed()) return RunShow(*options);
                return stat->parsed() ? RunStat(*options) : RunFollow(*options);
            }};
}
