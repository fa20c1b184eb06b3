#include "diag/tool_log_requests.h"

#include <algorithm>
#include <cstring>

#include "platform/hex_trace.h"
#include "platform/tagged_log.h"

namespace {

// With at least one mask byte: 16 bytes of fields, the mask, check sequence and 0x7E.
constexpr int kShortestWithMask = 20;
constexpr int kLongestUntraced = 200;

void TraceLong(const char* data, int len) {
    if (len > kLongestUntraced) HexTraceEnds(data, len);
}

// ORs two commands, of which either may be the longer one, byte by byte into merged.
int MergeCommands(const char* one, int oneLen, const char* other, int otherLen, char* merged) {
    const int common = std::min(oneLen, otherLen);
    for (int i = 0; i < common; ++i)
        merged[i] = static_cast<char>(one[i] | other[i]);
    const char* const longer = oneLen > otherLen ? one : other;
    const int len = std::max(oneLen, otherLen);
    memcpy(merged + common, longer + common, static_cast<size_t>(len - common));
    return len;
}

}  // namespace

ToolLogRequests& ToolLogRequests::GetInstance() {
    static ToolLogRequests instance;
    return instance;
}

// Adds the codes that the request enables to the equipment id's list. Returns whether it enables
// any. Bits beyond the id's last item are ignored.
bool ToolLogRequests::NoteToolCodes(const char* request, int len, int equipmentId) {
    bool need = false;
    const int end = std::min(len, kMaskAt + kLogItems / 8);
    for (int at = kMaskAt; at < end; ++at) {
        const auto byte = static_cast<unsigned char>(request[at]);
        for (uint32_t bit = 0; byte >> bit != 0; ++bit) {
            if (((byte >> bit) & 1U) == 0) continue;
            need = true;
            const uint32_t item = 8U * static_cast<uint32_t>(at - kMaskAt) + bit;
            std::atomic<uint32_t>& bits = mToolNeededLogBits[equipmentId][item / 32];
            const uint32_t mask = 1U << (item % 32);
            if ((bits.load(std::memory_order_relaxed) & mask) != 0) continue;
            bits.fetch_or(mask, std::memory_order_relaxed);
            uint32_t& count = numToolNeededLogId[equipmentId];
            if (count == kToolLogIds) continue;  // the list is one short; the bits have them all
            const uint32_t code = (static_cast<uint32_t>(equipmentId) << 12) + item;
            toolNeededLogId[equipmentId][count++] = code;
            LIB_LOGD("current_log_code: 0x%X, numToolNeededLogId: %d", code,
                     static_cast<int>(count));
        }
    }
    return need;
}

void ToolLogRequests::EmptyToolCodes(int equipmentId) {
    numToolNeededLogId[equipmentId] = 0;
    for (auto& bits : mToolNeededLogBits[equipmentId])
        bits.store(0, std::memory_order_relaxed);
}

int ToolLogRequests::Record(const char* frame, int len) {
    LIB_LOGD("Enter ParseAPSetLogMask: bytes: %d", len);
    TraceLong(frame, len);

    char request[kDiagAreaSize + 1];
    memset(request, 0, kMaskAt);
    memcpy(request, frame, static_cast<size_t>(len));
    const int count = HdlcUnescape(request, len);
    const int req_length = count - kFrameTrailer;
    LIB_LOGD("req_length = %d", req_length);
    const int equipment_id = static_cast<unsigned char>(request[kEquipmentIdAt]);
    const bool hasRow = equipment_id < kEquipmentIds;
    {
        // An answer that comes in between finds id and request of one and the same.
        const std::lock_guard<std::mutex> lock(mRequestMutex);
        msCurrentEquipmentId = static_cast<uint32_t>(equipment_id);
        if (hasRow) {
            memcpy(data_for_ap_set_log_mask[equipment_id], request,
                   static_cast<size_t>(std::max(req_length, 0)));
            data_length_for_ap_set_log_mask[equipment_id] = req_length;
        }
    }
    LIB_LOGD("num_bytes: %d", static_cast<int>((ReadLe32(request + kMaskBitsAt) + 7) / 8));
    if (!hasRow) return -1;

    const bool need =
        count >= kShortestWithMask && NoteToolCodes(request, req_length, equipment_id);
    isAPLogPacketNeed[equipment_id] = need;
    msIsFTMLogEnable = std::any_of(std::begin(isAPLogPacketNeed), std::end(isAPLogPacketNeed),
                                   [](const std::atomic<bool>& row) { return row.load(); });
    if (!msIsFTMLogEnable) {
        for (int id = 0; id < kEquipmentIds; ++id)
            EmptyToolCodes(id);
    }
    LIB_LOGD("IsToolNeedLog msIsFTMLogEnable: %d", msIsFTMLogEnable ? 1 : 0);
    if (!need) {
        LIB_LOGD("ParseAPSetLogMask, isAPLogPacketNeed: %d, equipment_id: %d", 0, equipment_id);
        EmptyToolCodes(equipment_id);
    }
    return equipment_id;
}

int ToolLogRequests::Merge(int equipmentId, const char* command, int commandLen,
                           char (&framed)[kDiagAreaSize]) const {
    // Nobody else changes them: no lock.
    const int req_length = data_length_for_ap_set_log_mask[equipmentId];
    LIB_LOGD("ParseAPSetLogMask, length_for_cfg_diag_cmd: %d, req_length: %d", commandLen,
             req_length);
    if (req_length <= 0 || commandLen == 0) return 0;
    char merged[kDiagAreaSize];
    const int mergedLen = MergeCommands(command, commandLen, data_for_ap_set_log_mask[equipmentId],
                                        req_length, merged);
    const int framedLen = EncodeFrame(merged, mergedLen, framed);
    LIB_LOGD("write_buf length: %d", framedLen);
    TraceLong(framed, framedLen);
    return framedLen;
}

bool ToolLogRequests::CopyLast(char (&request)[kDiagAreaSize], int& len) const {
    const std::lock_guard<std::mutex> lock(mRequestMutex);
    if (msCurrentEquipmentId >= kEquipmentIds) return false;
    len = data_length_for_ap_set_log_mask[msCurrentEquipmentId];
    memcpy(request, data_for_ap_set_log_mask[msCurrentEquipmentId],
           static_cast<size_t>(std::max(len, 0)));
    return true;
}

int ToolLogRequests::CopyMask(int equipmentId, char* mask, int room) const {
    const std::lock_guard<std::mutex> lock(mRequestMutex);
    const int len = data_length_for_ap_set_log_mask[equipmentId];
    memcpy(mask, data_for_ap_set_log_mask[equipmentId] + kMaskAt,
           static_cast<size_t>(std::clamp(len - kMaskAt, 0, room)));
    return len;
}

bool ToolLogRequests::IsToolCode(uint32_t code) const {
    const uint32_t id = code / kLogItems;
    const uint32_t item = code % kLogItems;
    if (id >= kEquipmentIds || !isAPLogPacketNeed[id]) return false;
    const uint32_t bits = mToolNeededLogBits[id][item / 32].load(std::memory_order_relaxed);
    return ((bits >> (item % 32)) & 1U) != 0;
}
