// The tool's set-log-mask requests: recorded, and merged with the capture's own masks.
#include <algorithm>
#include <cstring>

#include "buffer/circular_buffer_ext.h"
#include "diag/diag_commands.h"
#include "platform/hex_trace.h"
#include "platform/tagged_log.h"

std::atomic<bool> CircularBufferExt::msIsFTMLogEnable{false};
std::atomic<bool> CircularBufferExt::isAPLogPacketNeed[kEquipmentIds] = {};
uint32_t CircularBufferExt::numToolNeededLogId[kEquipmentIds] = {};
uint32_t CircularBufferExt::toolNeededLogId[kEquipmentIds][kToolLogIds] = {};
std::atomic<uint32_t> CircularBufferExt::msToolNeededLogBits[kEquipmentIds][kLogItems / 32] = {};
std::mutex CircularBufferExt::msRequestMutex;
char CircularBufferExt::data_for_ap_set_log_mask[kEquipmentIds][kDiagAreaSize] = {};
int32_t CircularBufferExt::data_length_for_ap_set_log_mask[kEquipmentIds] = {};
uint32_t CircularBufferExt::msCurrentEquipmentId = 0;

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

// Adds the codes that the request enables to the equipment id's list. Returns whether it enables
// any. Bits beyond the id's last item are ignored.
bool CircularBufferExt::NoteToolCodes(const char* request, int len, int equipmentId) {
    bool need = false;
    const int end = std::min(len, kMaskAt + kLogItems / 8);
    for (int at = kMaskAt; at < end; ++at) {
        const auto byte = static_cast<unsigned char>(request[at]);
        for (uint32_t bit = 0; byte >> bit != 0; ++bit) {
            if (((byte >> bit) & 1U) == 0) continue;
            need = true;
            const uint32_t item = 8U * static_cast<uint32_t>(at - kMaskAt) + bit;
            std::atomic<uint32_t>& bits = msToolNeededLogBits[equipmentId][item / 32];
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

void CircularBufferExt::EmptyToolCodes(int equipmentId) {
    numToolNeededLogId[equipmentId] = 0;
    for (auto& bits : msToolNeededLogBits[equipmentId])
        bits.store(0, std::memory_order_relaxed);
}

// Records the un-escaped request [request, request + len), count bytes with its trailer.
void CircularBufferExt::RecordToolRequest(const char* request, int len, int count,
                                          int equipmentId) {
    {
        const std::lock_guard<std::mutex> lock(msRequestMutex);
        memcpy(data_for_ap_set_log_mask[equipmentId], request,
               static_cast<size_t>(std::max(len, 0)));
        data_length_for_ap_set_log_mask[equipmentId] = len;
    }
    const bool need = count >= kShortestWithMask && NoteToolCodes(request, len, equipmentId);
    isAPLogPacketNeed[equipmentId] = need;
    msIsFTMLogEnable = std::any_of(std::begin(isAPLogPacketNeed), std::end(isAPLogPacketNeed),
                                   [](const std::atomic<bool>& row) { return row.load(); });
    if (!msIsFTMLogEnable) {
        for (int id = 0; id < kEquipmentIds; ++id)
            EmptyToolCodes(id);
    }
    LIB_LOGD("IsToolNeedLog msIsFTMLogEnable: %d", msIsFTMLogEnable ? 1 : 0);
    if (!need) {
        LIB_LOGD("ParseAPSetLogMask, isAPLogPacketNeed: %d, equipment_id: %d", 0, equipmentId);
        EmptyToolCodes(equipmentId);
    }
}

// Takes the chunk [start, end), which is one set-log-mask request of the tool, and puts what must
// go on to the modem into the ring.
int CircularBufferExt::ParseAPSetLogMask(char* start, char* end) {
    const auto len = static_cast<int>(end - start);
    LIB_LOGD("Enter ParseAPSetLogMask: bytes: %d", len);
    TraceLong(start, len);

    char request[kDiagAreaSize + 1];
    memset(request, 0, kMaskAt);
    memcpy(request, start, static_cast<size_t>(len));
    const int count = LogMask::RemoveEscape(request, len);
    const int req_length = count - kFrameTrailer;
    LIB_LOGD("req_length = %d", req_length);
    const int equipment_id = static_cast<unsigned char>(request[kEquipmentIdAt]);
    {
        const std::lock_guard<std::mutex> lock(msRequestMutex);
        msCurrentEquipmentId = static_cast<uint32_t>(equipment_id);
    }
    LIB_LOGD("num_bytes: %d", static_cast<int>((ReadLe32(request + kMaskBitsAt) + 7) / 8));
    if (equipment_id >= kEquipmentIds) {
        CopyDataToBuffer(start, len);
        return 1;
    }
    RecordToolRequest(request, req_length, count, equipment_id);

    char configured[kDiagAreaSize];
    const int length_for_cfg_diag_cmd =
        mLogMask->GetSetLogMaskDiagCmd(configured, equipment_id, kDiagAreaSize);
    LIB_LOGD("ParseAPSetLogMask, length_for_cfg_diag_cmd: %d, req_length: %d",
             length_for_cfg_diag_cmd, req_length);
    if (req_length <= 0 || length_for_cfg_diag_cmd == 0) {
        CopyDataToBuffer(start, len);
        return 1;
    }

    char merged[kDiagAreaSize];
    const int mergedLen =
        MergeCommands(configured, length_for_cfg_diag_cmd, request, req_length, merged);
    char write_buf[kDiagAreaSize];
    const int writeLen = EncodeFrame(merged, mergedLen, write_buf);
    LIB_LOGD("write_buf length: %d", writeLen);
    TraceLong(write_buf, writeLen);
    CopyDataToBuffer(write_buf, writeLen);
    return 1;
}
