#include "tools/mask/mask_ranges.h"

#include "tools/common/frame_text.h"
#include "tools/common/mask_requests.h"
#include "tools/common/packet.h"
#include "tools/common/tool_error.h"

namespace {

constexpr size_t kStatusAt = 8;
constexpr size_t kCountsAt = 12;
constexpr size_t kCountLength = 4;

std::string RangesRequest() {
    std::string packet;
    AppendLe32(packet, kCmdLogConfig);
    AppendLe32(packet, kLogConfigRanges);
    return packet;
}

bool BeginsWith(std::string_view packet, std::string_view begin) {
    return packet.substr(0, begin.size()) == begin;
}

}  // namespace

std::string WidthLines(std::string_view answer) {
    if (answer.size() < kCountsAt + kCountLength * kMaskFileIds ||
        ReadLe32(&answer[kStatusAt]) != 0) {
        throw ToolError("the modem does not tell its ranges of log items: {}",
                        DescribePacket(answer));
    }
    std::string lines;
    for (uint32_t id = 0; id < kMaskFileIds; ++id) {
        const uint32_t count = ReadLe32(&answer[kCountsAt + kCountLength * id]);
        if (count != 0) lines += fmt::format("width {} {}\n", id, count);
    }
    return lines;
}

std::string AskWidths(DiagClient& client, DiagClient::Clock::duration timeout) {
    const std::string request = RangesRequest();
    const std::string refusal = static_cast<char>(kCmdBad) + request;
    client.Send(request);
    const auto until = DiagClient::Clock::now() + timeout;
    ReceivedFrame frame;
    // Logs and answers to an earlier tool may come first.
    while (client.NextFrame(until, &frame)) {
        if (frame.state != FrameState::kGood) continue;
        if (BeginsWith(frame.packet, request) || BeginsWith(frame.packet, refusal)) {
            return WidthLines(frame.packet);
        }
    }
    throw ToolError("the modem does not answer the request for its ranges of log items");
}
