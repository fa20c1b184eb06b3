// The modem's stream between tool and flash, in blocks that the input cuts.
// Input: flags, number of cuts, cuts, stream. Flags: 1 the tool wants codes, 2 the cuts' lowest
// bits switch capture. A cut below 128 is the length of a block, others stand for 32 times as much.
#include "tests/fuzz/fuzz_directions.h"

namespace {

constexpr char kReports[] = "\x10\x60\x79\x92\x98\x99";  // log packets first
constexpr int kLogHead = 8;                              // up to the code, un-escaped

// Wants the items 0x000 to 0x003, 0x11C and 0x77E of equipment id 4.
std::string ToolRequest() {
    std::string mask(256, '\0');
    mask[0] = 0x0F;
    mask[0x11C / 8] = 0x10;
    mask[0x77E / 8] = 0x40;
    return Framed(std::string("s\0\0\0\3\0\0\0\4\0\0\0\0\x08\0\0", 16) + mask);
}

struct Split {
    std::string tool;
    std::string flash;
    uint64_t both;
};

Split SplitAt(FuzzDirections& directions, const std::string& stream, const std::string& cuts,
              bool isSwitched) {
    directions.Reset(false);
    Split split = {};
    size_t next = 0;
    for (size_t at = 0, len = 0; at < stream.size(); at += len) {
        const auto cut = next < cuts.size() ? static_cast<unsigned char>(cuts[next++]) : 255U;
        len = cut < 128 ? cut + 1U : 32U * (cut - 127U);
        len = std::min({len, FuzzDirections::kBlock, stream.size() - at});
        if (isSwitched) gLogEnable = static_cast<int32_t>(cut & 1U);
        split.tool += directions.ToTool(&stream[at], len);
    }
    split.flash = gCaptured;
    split.both = CircularBufferExtPeer::CapturedAndSent(directions.toTool);
    return split;
}

// Whether the tool wants the log packet of this frame.
bool IsWanted(const std::string& frame) {
    std::string head = frame.substr(0, 3 * kLogHead);
    const auto len = static_cast<int>(head.size());
    const int flags = head.back() == '\x7E' ? 1 : 0;
    head += '\0';
    if (HdlcUnescape(&head[0], len) - flags < kLogHead) return false;
    const uint16_t code = ReadLe16(&head[kLogHead - 2]);
    return (code >= 0x4000 && code <= 0x4003) || code == 0x411C || code == 0x477E;
}

// What becomes of the stream, but for answers of log configuration, which the tool gets rewritten.
Split Expected(const std::string& stream, bool isAsked) {
    Split split = {};
    for (size_t at = 0, end = 0; at < stream.size(); at = end) {
        end = std::min(stream.find('\x7E', at), stream.size() - 1) + 1;
        const std::string frame = stream.substr(at, end - at);
        const bool isReport = memchr(kReports, frame[0], sizeof(kReports) - 1) != nullptr;
        const bool isBoth = frame[0] == kReports[0] && isAsked && IsWanted(frame);
        if (isReport) split.flash += frame;
        if (!isReport || isBoth) split.tool += frame;
        if (isBoth) split.both += frame.size();
    }
    return split;
}

bool HasLogConfiguration(const std::string& stream) {
    return stream[0] == 's' || stream.find("\x7Es") != std::string::npos;
}

// Equal, but for the answer to HDLC disabling, which is refused where it begins a block.
bool AreAlike(const std::string& one, const std::string& other) {
    if (one.size() != other.size()) return false;
    for (size_t i = 0; i < one.size(); ++i) {
        if (one[i] == other[i]) continue;
        const bool isRefused = (one[i] == 0x13 && other[i] == 0x4B) ||  //
                               (one[i] == 0x4B && other[i] == 0x13);
        if (!isRefused || one.compare(i + 1, 3, "\x12\x18\x02") != 0) return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FuzzDirections& directions = *new FuzzDirections;
    // A mask for an id that has no table only switches the rewriting of answers on.
    static const int loaded = LoadMasks(memfd_create("masks", 0), memfd_create("modem", 0),
                                        Framed(std::string("s\0\0\0\3\0\0\0\xFF\0\0\0", 12)));
    Check(loaded == 1 && LogMask::GetInstance()->IsLogPacketEnable(), "answers are rewritten");

    FuzzInput input(data, size);
    const uint8_t flags = input.Byte();
    const std::string cuts = input.Bytes(input.Byte());
    const std::string stream = input.Runs(SIZE_MAX);
    static const std::string request = ToolRequest();
    directions.Reset();
    if ((flags & 1) != 0) Check(directions.ToModem(request) == request, "no masks to merge");

    const Split cut = SplitAt(directions, stream, cuts, (flags & 2) != 0);
    if ((flags & 2) != 0) return 0;
    const Split whole = SplitAt(directions, stream, "", false);
    const Split expected = Expected(stream, (flags & 1) != 0);
    Check(whole.flash == expected.flash, "flash has the modem's own frames");
    Check(cut.flash == expected.flash, "cuts change nothing on flash");
    // A log packet's head with doubled escapes is given up when it is cut.
    if (stream.find("\x7D\x7D") != std::string::npos) return 0;
    Check(AreAlike(whole.tool, cut.tool), "cuts change nothing at the tool");
    Check(whole.both == cut.both, "cuts change no counter");
    if (HasLogConfiguration(stream)) return 0;
    Check(AreAlike(whole.tool, expected.tool), "the tool has the rest and what it asked for");
    Check(whole.both == expected.both, "what both got is counted");
    return 0;
}
