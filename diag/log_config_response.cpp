// The modem's answers to log-configuration requests: rewritten to show the tool only its own masks.
#include <algorithm>
#include <cstring>

#include "buffer/circular_buffer_ext.h"
#include "diag/diag_commands.h"
#include "platform/hex_trace.h"
#include "platform/tagged_log.h"

namespace {

// Response: operation, status, equipment id, number of mask bits and mask, by their offsets. Behind
// the status it is the request moved by four bytes.
constexpr int kOperationAt = 4;
constexpr int kStatusAt = 8;
constexpr int kStatusSize = 4;
constexpr int kResponseIdAt = kEquipmentIdAt + kStatusSize;
constexpr int kResponseBitsAt = kMaskBitsAt + kStatusSize;
constexpr int kResponseMaskAt = kMaskAt + kStatusSize;

constexpr int kLongestUntraced = 200;

// The operation of the framed response [frame, frame + len), or -1 when it has none.
int OperationOf(const char* frame, int len) {
    if (len <= kOperationAt || memcmp(frame + 1, "\0\0\0", 3) != 0) return -1;
    return static_cast<unsigned char>(frame[kOperationAt]);
}

void CheckStatus(const char* frame, int len) {
    if (len < kStatusAt + kStatusSize) return;
    const auto status = static_cast<int>(ReadLe32(frame + kStatusAt));
    if (status != 0) LIB_LOGE("status is %d, please check the code", status);
}

}  // namespace

// Takes a 0x73 response over: start to end inclusive is its last piece, end its 0x7E.
int CircularBufferExt::Parse73CmdResponse(char* start, char* end) {
    char joined[kDiagAreaSize];
    const int kept = m73CmdResponseBufferCurrentLength;
    if (kept >= 1) {
        const auto len = static_cast<int>(end - start + 1);
        memcpy(joined, m73CmdResponseBuffer, static_cast<size_t>(kept));
        memcpy(joined + kept, start, static_cast<size_t>(len));
        start = joined;
        end = joined + kept + len - 1;
        mTotalLengthForReadDataWriteToAP -= static_cast<uint64_t>(kept);  // written out below
        LIB_LOGD("Parse73CmdResponse message not complete: %d", kept);
    }
    const auto len = static_cast<int>(end - start + 1);
    switch (OperationOf(start, len)) {
        case kLogConfigSetMask:
            ParseAPSetLogMaskResponse(start, end);
            mIsCurrentLogMaskCmdResponseNotCopyAgain = true;
            LIB_LOGD("mIsCurrentLogMaskCmdResponseNotCopyAgain: %d", 1);
            LIB_LOGD("ParseAPSetLogMaskResponse mIsWholePakcetRead: %d", mIsWholePakcetRead);
            break;
        case kLogConfigGetMask:
            ParseAPGetLogMaskResponse(start, end);
            mIsCurrentLogMaskCmdResponseNotCopyAgain = true;
            LIB_LOGD("mIsCurrentLogMaskCmdResponseNotCopyAgain: %d", 1);
            LIB_LOGD("ParseAPGetLogMaskResponse mIsWholePakcetRead: %d", mIsWholePakcetRead);
            break;
        default:
            mIsCurrentLogMaskCmdResponseNotCopyAgain = true;
            CopyToTool(start, len);
            break;
    }
    return 1;
}

// Frames packet[0, len), appends it to the ring and accounts for the modem's frame of readLen bytes
// that it stands for. Returns the framed length.
int CircularBufferExt::AnswerTool(const char* packet, int len, int readLen,
                                  char (&framed)[kDiagAreaSize]) {
    const int framedLen = EncodeFrame(packet, len, framed);
    CopyToTool(framed, framedLen);
    mTotalLengthForReadDataFromBP += static_cast<uint64_t>(framedLen);
    mTotalLengthForReadDataFromBP -= static_cast<uint64_t>(readLen);
    return framedLen;
}

// The answer to a set-mask request becomes the tool's own request, with status success.
int CircularBufferExt::ParseAPSetLogMaskResponse(char* start, char* end) {
    const auto readLen = static_cast<int>(end - start + 1);
    CheckStatus(start, readLen);
    char reply[kDiagAreaSize + kStatusSize];
    memset(reply, 0, kStatusAt + kStatusSize);
    int len = 0;
    {
        const std::lock_guard<std::mutex> lock(msRequestMutex);
        if (msCurrentEquipmentId >= kEquipmentIds) {
            len = -1;
        } else {
            len = data_length_for_ap_set_log_mask[msCurrentEquipmentId];
            const char* const request = data_for_ap_set_log_mask[msCurrentEquipmentId];
            memcpy(reply, request, static_cast<size_t>(std::clamp(len, 0, kStatusAt)));
            if (len > kStatusAt) {
                memcpy(reply + kStatusAt + kStatusSize, request + kStatusAt,
                       static_cast<size_t>(len - kStatusAt));
            }
        }
    }
    if (len == -1) {
        CopyToTool(start, readLen);
        return 1;
    }
    if (len < 1) {
        LIB_LOGE("ParseAPSetLogMaskResponse error length: %d", len);
        mTotalLengthForReadDataFromBP -= static_cast<uint64_t>(readLen);
        return 1;
    }
    LIB_LOGD("ParseAPSetLogMaskResponse length: %d", len + kStatusSize);
    char framed[kDiagAreaSize];
    const int framedLen = AnswerTool(reply, len + kStatusSize, readLen, framed);
    if (framedLen > kLongestUntraced) HexTraceEnds(framed, framedLen);
    return 1;
}

// Puts the tool's own mask for the equipment id in the place of the response's, or zeros when the
// tool enabled nothing there. The response's length stays.
void CircularBufferExt::ReplaceMask(char* response, int req_length, int equipmentId) {
    int length_for_tmpdiagcmd = req_length;
    int own = 0;  // bytes of the tool's mask that show
    const int area = std::max(req_length - kResponseMaskAt, 0);
    if (equipmentId < kEquipmentIds && isAPLogPacketNeed[equipmentId] &&
        mLogMask->IsLogPacketEnable()) {
        const std::lock_guard<std::mutex> lock(msRequestMutex);
        const int len = data_length_for_ap_set_log_mask[equipmentId];
        LIB_LOGD("data_length_for_ap_set_log_mask: %d, length_for_tmpdiagcmd: %d", len - kMaskAt,
                 kResponseMaskAt);
        own = std::clamp(len - kMaskAt, 0, area);
        memcpy(response + kResponseMaskAt, data_for_ap_set_log_mask[equipmentId] + kMaskAt,
               static_cast<size_t>(own));
        length_for_tmpdiagcmd = len + kStatusSize;
        if (req_length > length_for_tmpdiagcmd) {
            LIB_LOGD("length_for_tmpdiagcmd: %d, req_length: %d", length_for_tmpdiagcmd,
                     req_length);
            length_for_tmpdiagcmd = req_length;
        }
    }
    if (area > own) {
        memset(response + kResponseMaskAt + own, 0, static_cast<size_t>(area - own));
    }
    LIB_LOGD("length_for_tmpdiagcmd: %d", length_for_tmpdiagcmd);
}

// The answer to a get-mask request shows the tool's own mask.
int CircularBufferExt::ParseAPGetLogMaskResponse(char* start, char* end) {
    const auto readLen = static_cast<int>(end - start + 1);
    LIB_LOGD("Enter ParseAPGetLogMaskResponse: bytes: %d", readLen);
    char response[kDiagAreaSize + 1];
    memset(response, 0, kResponseMaskAt);
    memcpy(response, start, static_cast<size_t>(readLen));
    const int req_length = LogMask::RemoveEscape(response, readLen) - kFrameTrailer;
    CheckStatus(response, readLen);
    const int equipmentId = static_cast<unsigned char>(response[kResponseIdAt]);
    LIB_LOGD("num_bytes: %d", static_cast<int>((ReadLe32(response + kResponseBitsAt) + 7) / 8));
    LIB_LOGD("ParseAPGetLogMaskResponse, req_length: %d", req_length);
    ReplaceMask(response, req_length, equipmentId);
    char framed[kDiagAreaSize];
    const int write_len = AnswerTool(response, std::max(req_length, 0), readLen, framed);
    LIB_LOGD("write_len: %d", write_len);
    if (write_len > kLongestUntraced) HexTraceEnds(framed, write_len);
    return 1;
}
