// The modem's stream between tool and flash, in chunks that the input cuts, and the tool's
// requests. Input: flags, number of cuts, cuts, with flag 4 the length of a request (2 bytes)
// and the request, stream. Flags: 1 the tool wants codes, 2 the cuts' lowest bits switch capture, 4
// the tool has sent the request. A cut below 128 is the length of a chunk, others stand for 32
// times as much.
#include "buffer/stream_splitter.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/support/bytes.h"

namespace {

constexpr size_t kBlock = 4095;

struct Divided {
    int ToTool(const char* data, int len) {
        tool.append(data, static_cast<size_t>(len));
        return len;
    }
    int ToFlash(const char* data, int len) {
        flash.append(data, static_cast<size_t>(len));
        return len;
    }
    std::string tool;
    std::string flash;
    uint64_t both = 0;
};

ToolLogRequests& gRequests = *new ToolLogRequests;

// Of the tool, framed; merged with a request of the capture if it has an equipment id.
void Take(const std::string& request) {
    const int id = Record(gRequests, request);
    if (id < 0) return;
    const std::string capture = SetMask(static_cast<uint32_t>(id), std::string(16, '\x41'));
    static char merged[kDiagAreaSize];
    const int len = gRequests.Merge(id, capture.data(), static_cast<int>(capture.size()), merged);
    Check(len <= kDiagAreaSize, "a merged request is bounded");
}

Divided Divide(const std::string& stream, const std::string& cuts, bool isSwitched) {
    const std::atomic<bool> areAnswersRewritten{true};
    Divided divided;
    StreamSplitter<Divided> splitter(gRequests, areAnswersRewritten, divided);
    size_t next = 0;
    for (size_t at = 0, len = 0; at < stream.size(); at += len) {
        const auto cut = next < cuts.size() ? static_cast<unsigned char>(cuts[next++]) : 255U;
        len = std::min<size_t>(
            {cut < 128 ? cut + 1U : 32U * (cut - 127U), kBlock, stream.size() - at});
        std::string chunk = stream.substr(at, len);  // in memory of its own size
        if (isSwitched && (cut & 1U) == 0) {
            splitter.PassRaw(chunk.data(), static_cast<int>(len));
        } else {
            splitter.ParseReadData(&chunk[0], &chunk[0] + len);
        }
        Check(splitter.Counts().IsBalanced(), "counters balance");
        Check(splitter.Counts().mTotalLengthForSavedToFlash == divided.flash.size(), "flash");
    }
    divided.both = splitter.Counts().mTotalLengthForLogDataWriteToAp;
    return divided;
}

// The modem's own frames, of which flash gets all.
std::string OwnFrames(const std::string& stream) {
    std::string own;
    for (size_t at = 0, end = 0; at < stream.size(); at = end) {
        end = std::min(stream.find('\x7E', at), stream.size() - 1) + 1;
        const auto code = static_cast<unsigned char>(stream[at]);
        if (code == kCmdLogPacket || IsReport(code)) own += stream.substr(at, end - at);
    }
    return own;
}

// Equal, but for the answer to HDLC disabling, which is refused where it begins a chunk.
bool AreAlike(const std::string& one, const std::string& other) {
    if (one.size() != other.size()) return false;
    for (size_t i = 0; i < one.size(); ++i) {
        const bool isRefused = (one[i] ^ other[i]) == (kCmdBad ^ kCmdSubsystem);
        if (one[i] != other[i] && !(isRefused && one.compare(i + 1, 3, "\x12\x18\x02") == 0))
            return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const uint8_t flags = input.Byte();
    const std::string cuts = input.Bytes(input.Byte());
    for (uint32_t id = 0; id < kEquipmentIds; ++id)
        Take(Framed(SetMask(id, "")));
    Take(Framed(SetMask(4, MaskOf({(flags & 1) != 0 ? 3U : 8U, 0x11C, 0x77E}))));
    const uint8_t low = (flags & 4) != 0 ? input.Byte() : 0;
    const size_t requestSize = (flags & 4) != 0 ? low + 256U * (input.Byte() & 63U) : 0;
    if ((flags & 4) != 0) Take(input.Bytes(requestSize));
    const std::string stream = input.Bytes(SIZE_MAX);
    const Divided cut = Divide(stream, cuts, (flags & 2) != 0);
    if ((flags & 2) != 0) return 0;
    const Divided whole = Divide(stream, "", false);
    Check(whole.flash == OwnFrames(stream), "flash has the modem's own frames");
    Check(cut.flash == whole.flash, "cuts change nothing on flash");
    // A log packet's head with doubled escapes is given up when it is cut.
    if (stream.find("\x7D\x7D") != std::string::npos) return 0;
    Check(AreAlike(whole.tool, cut.tool), "cuts change nothing at the tool");
    Check(whole.both == cut.both, "cuts change no counter");
    return 0;
}
