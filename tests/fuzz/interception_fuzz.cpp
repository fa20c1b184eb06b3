// The tool's set-mask requests merged with the capture's masks, and the modem's answers. Input,
// repeated: kind, length, bytes. Kinds: 0 a request's fields from the equipment id on, 1 an
// answer's from the operation on, 2 the tool's bytes as they are, 3 the modem's.
#include "tests/fuzz/fuzz_directions.h"

#include <array>

#include "diag/diag_commands.h"

namespace {

constexpr int kIdsWithMask = 7;  // 0 to 6; 7 to 13 have none, the rest has no table
constexpr size_t kAnswerMaskAt = kMaskAt + 4;
constexpr size_t kLongest = 8000;  // escaped, framed and merged still within an area
const std::string kSetMask("s\0\0\0\3\0\0\0", 8);

std::string CaptureMask(int id) {
    std::string mask = kSetMask + std::string("\0\0\0\0\x10\0\0\0\x41", 9);
    mask[kEquipmentIdAt] = static_cast<char>(id);
    return mask.append(static_cast<size_t>(id), '\x7E');
}

// The packet of one good frame; empty when it is not one.
std::string Unframed(std::string frame) {
    const auto len = static_cast<int>(frame.size());
    frame += '\0';
    const int count = HdlcUnescape(&frame[0], len);
    Check(count <= len, "un-escaping adds nothing");
    if (count < kFrameTrailer || frame[static_cast<size_t>(count) - 1] != '\x7E') return "";
    const auto packet = static_cast<size_t>(count - kFrameTrailer);
    const auto* bytes = reinterpret_cast<const unsigned char*>(frame.data());
    const bool isGood = HdlcFcs(bytes, count - kFrameTrailer) == ReadLe16(&frame[packet]);
    return isGood ? frame.substr(0, packet) : "";
}

unsigned char At(const std::string& bytes, size_t at) {
    return at < bytes.size() ? static_cast<unsigned char>(bytes[at]) : 0;
}

class Interception {
  public:
    explicit Interception(FuzzDirections& directions) : mDirections(directions) {
        directions.Reset();
    }

    void ToolAsks(const std::string& fields) {
        const std::string request = kSetMask + (fields.empty() ? "\1" : fields);
        const std::string framed = Framed(request);
        const std::string out = mDirections.ToModem(framed);
        const int id = At(request, kEquipmentIdAt);
        mLast = id;
        if (id < kEquipmentIds) mAsked[static_cast<size_t>(id)] = request;
        if (id >= kIdsWithMask) {
            Check(out == framed, "without a capture mask the request passes");
            return;
        }
        const std::string capture = CaptureMask(id);
        const std::string merged = Unframed(out);
        Check(merged.size() == std::max(request.size(), capture.size()), "merged to the longer");
        for (size_t i = 0; i < merged.size(); ++i)
            Check(At(merged, i) == (At(request, i) | At(capture, i)), "both masks are merged");
    }

    void ModemAnswers(const std::string& fields) {
        const std::string answer = std::string("s\0\0\0", 4) + fields;
        const std::string framed = Framed(answer);
        Check(ToTool("\x7E").size() <= 2 * kDiagAreaSize,
              "output is bounded");  // ends what was cut
        const std::string out = ToTool(framed);
        if (At(answer, 4) == 3) CheckSetAnswer(framed, out);
        if (At(answer, 4) == 4) CheckGetAnswer(answer, out);
        if (At(answer, 4) < 3 || At(answer, 4) > 4) Check(out == framed, "other answers pass");
    }

    // What a tool sends may hide a request: no answer can be foretold any more.
    void ToolSends(const std::string& bytes) {
        Check(mDirections.ToModem(bytes).size() < kDiagAreaSize, "output is bounded");
        mIsKnown = mIsKnown && !BeginsSetLogMask(bytes.data(), static_cast<long>(bytes.size()));
    }

    void ModemSends(const std::string& bytes) {
        const auto frames = static_cast<size_t>(std::count(bytes.begin(), bytes.end(), '\x7E'));
        Check(ToTool(bytes).size() <= bytes.size() + (frames + 1) * kDiagAreaSize,
              "output is bounded");
    }

  private:
    std::string ToTool(const std::string& bytes) {
        std::string out;
        for (size_t at = 0; at < bytes.size(); at += FuzzDirections::kBlock)
            out +=
                mDirections.ToTool(&bytes[at], std::min(FuzzDirections::kBlock, bytes.size() - at));
        return out;
    }

    // The tool's own request comes back, with status success.
    void CheckSetAnswer(const std::string& framed, const std::string& out) const {
        if (!mIsKnown) return;
        if (mLast >= kEquipmentIds) {
            Check(out == framed, "the answer for an id without table passes");
            return;
        }
        std::string expected = mAsked[static_cast<size_t>(mLast)];
        if (!expected.empty()) expected.insert(kEquipmentIdAt, 4, '\0');
        Check(Unframed(out) == expected, "the answer is the tool's own request");
    }

    // The tool sees no bit that it did not set itself.
    void CheckGetAnswer(const std::string& answer, const std::string& out) const {
        const std::string shown = Unframed(out);
        Check(shown.size() == answer.size(), "the answer keeps its length");
        Check(shown.compare(0, kAnswerMaskAt, answer, 0, kAnswerMaskAt) == 0, "and its head");
        const size_t id = At(answer, kEquipmentIdAt + 4);
        for (size_t i = kAnswerMaskAt; mIsKnown && i < shown.size(); ++i) {
            const int own = id < kEquipmentIds ? At(mAsked[id], i - 4) : 0;
            Check((At(shown, i) & ~own) == 0, "only the tool's own mask shows");
        }
    }

    FuzzDirections& mDirections;
    std::array<std::string, kEquipmentIds> mAsked;  // requests by equipment id
    int mLast = 0;                                  // equipment id of the last
    bool mIsKnown = true;                           // these are all
};

int LoadCaptureMasks() {
    std::string file;
    for (int id = 0; id < kIdsWithMask; ++id)
        file += Framed(CaptureMask(id));
    return LoadMasks(memfd_create("masks", 0), memfd_create("modem", 0), file);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FuzzDirections& directions = *new FuzzDirections;
    static const int loaded = LoadCaptureMasks();
    Check(loaded == 1, "the masks are loaded");
    Interception interception(directions);
    FuzzInput input(data, size);
    for (int steps = 0; steps < 64 && !input.IsOver(); ++steps) {
        const int kind = input.Byte() % 4;
        std::string bytes = input.Runs(input.Byte());
        if (bytes.size() > kLongest) bytes.resize(kLongest);
        if (kind == 0) interception.ToolAsks(bytes);
        if (kind == 1) interception.ModemAnswers(bytes);
        if (kind == 2) interception.ToolSends(bytes);
        if (kind == 3) interception.ModemSends(bytes);
    }
    return 0;
}
