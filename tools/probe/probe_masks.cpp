#include "tools/probe/probe_masks.h"

#include <algorithm>
#include <string_view>

#include "tools/common/frame_text.h"
#include "tools/common/mask_requests.h"
#include "tools/common/packet.h"
#include "tools/common/tool_error.h"

namespace {

// Answers: status, then the number of log items of each equipment id, or equipment id, number of
// bits and mask.
constexpr size_t kStatusAt = 8;
constexpr size_t kCountsAt = 12;
constexpr size_t kBitsAt = 16;
constexpr size_t kAnswerMaskAt = 20;

bool IsGranted(std::string_view answer) {
    return CommandOf(answer) == kCmdLogConfig && answer.size() >= kStatusAt + 4 &&
           ReadLe32(&answer[kStatusAt]) == 0;
}

std::string Request(uint32_t operation) {
    std::string request;
    AppendLe32(request, kCmdLogConfig);
    AppendLe32(request, operation);
    return request;
}

// While it captures, the daemon ORs a mask with its own one, bit counts included: both should have
// the modem's width, if it tells.
void Widen(SetMaskRequest& request, std::string_view ranges) {
    const size_t countAt = kCountsAt + 4 * request.id;
    if (!IsGranted(ranges) || ranges.size() < countAt + 4) return;
    request.bits = std::max(request.bits, std::min(ReadLe32(&ranges[countAt]), kItemsPerEquipment));
    request.mask.resize(LogMaskBytes(request.bits));
}

}  // namespace

void SetLogCodes(Prober& prober, const std::set<uint32_t>& codes) {
    const std::string ranges = prober.AskQuietly(Request(kLogConfigRanges));
    for (SetMaskRequest& request : SetMaskRequestsFor(codes)) {
        Widen(request, ranges);
        const std::string answer = prober.Ask(MakeSetMask(request));
        if (IsGranted(answer)) continue;
        throw ToolError("the modem refused the log mask of equipment id {}: {}", request.id,
                        DescribePacket(answer));
    }
}

std::string EnabledCodeLines(Prober& prober) {
    std::string lines;
    for (uint32_t id = 0; id < kModemEquipmentIds; ++id) {
        std::string request = Request(kLogConfigGetMask);
        AppendLe32(request, id);
        const std::string answer = prober.AskQuietly(request);
        // A modem may refuse an equipment id that it does not have.
        if (!IsGranted(answer) || answer.size() < kAnswerMaskAt) continue;
        const uint32_t bits = ReadLe32(&answer[kBitsAt]);
        lines += CodeLines({id, bits, answer.substr(kAnswerMaskAt)}, "");
    }
    return lines;
}
