#include "tools/probe/prober.h"

#include <utility>

#include "tools/common/frame_text.h"
#include "tools/common/mask_requests.h"
#include "tools/common/output.h"
#include "tools/common/packet.h"
#include "tools/common/tool_error.h"

namespace {

constexpr size_t kOperationEnd = 8;  // of a log configuration request and its answer

bool IsAnswer(std::string_view packet, std::string_view request) {
    if (packet.empty()) return false;
    const unsigned char code = CommandOf(packet);
    if (code == kCmdBad) return true;
    if (code != CommandOf(request)) return false;
    const std::string_view operation = request.substr(0, kOperationEnd);
    return code != kCmdLogConfig || packet.substr(0, operation.size()) == operation;
}

void PrintBytes(std::string_view bytes) {
    constexpr size_t kPerLine = 32;
    for (; !bytes.empty(); bytes.remove_prefix(std::min(kPerLine, bytes.size())))
        Print("{}\n", FormatHex(bytes.substr(0, kPerLine), kPerLine));
}

}  // namespace

Prober::Prober(DiagClient& client, Clock::duration timeout, ProbeOutput output)
    : mClient(client), mTimeout(timeout), mOutput(std::move(output)) {
    if (mOutput.raw) mClient.TraceInput(PrintBytes);
}

std::string Prober::Ask(std::string_view request) {
    if (!mOutput.raw && !mQuiet) Print("-> {}\n", DescribePacket(request));
    mClient.Send(request);
    const auto until = Clock::now() + mTimeout;
    ReceivedFrame frame;
    do {
        if (!mClient.NextFrame(until, &frame)) {
            throw ToolError("no answer in time to {}", FormatHex(request, 8));
        }
        Show(frame);
    } while (!IsAnswer(frame.packet, request));
    return std::string(frame.packet);
}

std::string Prober::AskQuietly(std::string_view request) {
    mQuiet = true;
    std::string answer = Ask(request);
    mQuiet = false;
    return answer;
}

void Prober::Watch(Clock::time_point until, int endFd) {
    mClient.EndWaitsWith(endFd);
    ReceivedFrame frame;
    while (mClient.NextFrame(until, &frame))
        Show(frame);
    mClient.EndWaitsWith(-1);
}

void Prober::Show(const ReceivedFrame& frame) {
    if (mOutput.raw) return;
    if (frame.state != FrameState::kGood) ++mBadFrames;
    if (mQuiet) return;
    if (frame.state == FrameState::kOverlong) {
        PrintText("<- frame too long to decode\n");
        return;
    }
    std::string note = frame.state == FrameState::kGood ? "FCS good" : "FCS BAD";
    if (!mOutput.codes.empty() && frame.state == FrameState::kGood) {
        const auto code = LogCodeOf(frame.packet);
        const bool wanted = code.has_value() ? mOutput.codes.count(*code) != 0
                                             : KindOf(frame.packet) == PacketKind::kAnswer;
        if (!wanted) return;
        if (code.has_value()) note.insert(0, LogCodeText(*code) + ", ");
    }
    Print("<- {}\n", DescribePacket(frame.packet, note));
}
