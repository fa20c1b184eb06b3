// The tool's set-mask requests merged with the capture's masks, and the modem's answers. Input,
// repeated: kind, length, bytes. Kinds: 0 a request's fields from the equipment id on, 1 an
// answer's from the operation on, 2 the tool's bytes as they are, 3 the modem's.
#include "diag/log_config_answers.h"
#include "diag/tool_log_requests.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/support/bytes.h"

namespace {

constexpr size_t kAnswerMaskAt = kMaskAt + 4;
constexpr size_t kLongest = 8000;  // escaped, framed and merged still within an area

unsigned char At(const std::string& bytes, size_t at) {
    return at < bytes.size() ? static_cast<unsigned char>(bytes[at]) : 0;
}

void Take(ToolLogRequests& requests, const std::string& request, const std::string& framed) {
    const int id = requests.Record(framed.data(), static_cast<int>(framed.size()));
    Check(id < kEquipmentIds, "ids have rows");
    if (id < 0) return;
    const std::string capture = SetMask(static_cast<uint32_t>(id), std::string(16, '\x41'));
    char out[kDiagAreaSize];
    const int len = requests.Merge(id, capture.data(), static_cast<int>(capture.size()), out);
    if (request.empty()) return;  // bytes as they are: only memory is looked at
    std::string merged;
    for (size_t i = 0; i < std::max(request.size(), capture.size()); ++i)
        merged += static_cast<char>(At(request, i) | At(capture, i));
    Check(Framed(merged) == std::string(out, static_cast<size_t>(len)), "both masks are merged");
}

// The tool sees no bit that it did not set itself in a request of these.
void CheckAnswer(LogConfigAnswers& answers, const std::string& all, const std::string& frame,
                 size_t cut) {
    answers.Keep(frame.data(), static_cast<int>(cut));
    const auto reply =
        answers.Parse73CmdResponse(frame.data() + cut, static_cast<int>(frame.size() - cut), true);
    Check(reply.len < kDiagAreaSize || reply.len == reply.modemLen, "a reply is bounded");
    std::string shown(reply.frame, static_cast<size_t>(reply.len));
    answers.Forget();
    if (At(frame, 4) != kLogConfigGetMask || frame.compare(1, 3, "\0\0\0", 3) != 0) return;
    shown += '\0';
    const int count = HdlcUnescape(&shown[0], reply.len);
    for (size_t i = kAnswerMaskAt; static_cast<int>(i) < count - kFrameTrailer; ++i)
        Check((At(shown, i) & ~At(all, i - 4)) == 0, "only the tool's own bits show");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    static ToolLogRequests& requests = *new ToolLogRequests;
    for (uint32_t id = 0; id < kEquipmentIds; ++id)
        Take(requests, "", Framed(SetMask(id, "")));
    LogConfigAnswers answers(requests);
    std::string all(kLongest + 8, '\0');  // every bit that a request had, whatever its id
    for (int steps = 0; steps < 64 && !input.IsOver(); ++steps) {
        const int kind = input.Byte() % 4;
        const uint8_t length = input.Byte();
        std::string bytes = input.Runs(length);
        if (bytes.size() > kLongest) bytes.resize(kLongest);
        if (kind == 0) bytes.insert(0, Le32(0x73) + Le32(3));
        if (kind == 1) bytes.insert(0, Le32(0x73));
        const std::string frame = kind < 2 ? Framed(bytes) : bytes + "\x7E";
        if (kind % 2 == 0) {
            Take(requests, kind == 0 ? bytes : "", frame);
            for (size_t i = 0; i < all.size(); ++i)
                all[i] = static_cast<char>(all[i] | At(bytes, i));
            if (kind == 2) all.assign(all.size(), '\xFF');
        } else {
            CheckAnswer(answers, all, frame, length % frame.size());
        }
    }
    return 0;
}
