#include "diag/log_config_answers.h"

#include <algorithm>
#include <cstring>

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

void LogConfigAnswers::Keep(const char* piece, int len) {
    memcpy(m73CmdResponseBuffer + m73CmdResponseBufferCurrentLength, piece,
           static_cast<size_t>(len));
    m73CmdResponseBufferCurrentLength += len;
    HexTrace(m73CmdResponseBuffer, m73CmdResponseBufferCurrentLength);
}

LogConfigAnswers::Reply LogConfigAnswers::Parse73CmdResponse(const char* piece, int len,
                                                             bool isWholePakcetRead) {
    const int kept = m73CmdResponseBufferCurrentLength;
    const char* frame = piece;
    if (kept >= 1) {
        memcpy(m73CmdResponseBuffer + kept, piece, static_cast<size_t>(len));
        frame = m73CmdResponseBuffer;
        len += kept;
        LIB_LOGD("Parse73CmdResponse message not complete: %d", kept);
    }
    switch (OperationOf(frame, len)) {
        case kLogConfigSetMask: {
            const Reply reply = ParseAPSetLogMaskResponse(frame, len);
            LIB_LOGD("mIsCurrentLogMaskCmdResponseNotCopyAgain: %d", 1);
            LIB_LOGD("ParseAPSetLogMaskResponse mIsWholePakcetRead: %d", isWholePakcetRead);
            return reply;
        }
        case kLogConfigGetMask: {
            const Reply reply = ParseAPGetLogMaskResponse(frame, len);
            LIB_LOGD("mIsCurrentLogMaskCmdResponseNotCopyAgain: %d", 1);
            LIB_LOGD("ParseAPGetLogMaskResponse mIsWholePakcetRead: %d", isWholePakcetRead);
            return reply;
        }
        default:
            return {frame, len, len};
    }
}

// The answer to a set-mask request becomes the tool's own request, with status success.
LogConfigAnswers::Reply LogConfigAnswers::ParseAPSetLogMaskResponse(const char* frame, int len) {
    CheckStatus(frame, len);
    char request[kDiagAreaSize];
    memset(request, 0, kStatusAt);
    int requestLen = 0;
    if (!mRequests.CopyLast(request, requestLen)) return {frame, len, len};
    if (requestLen < 1) {
        LIB_LOGE("ParseAPSetLogMaskResponse error length: %d", requestLen);
        return {mFramed, 0, len};
    }
    LIB_LOGD("ParseAPSetLogMaskResponse length: %d", requestLen + kStatusSize);
    char reply[kDiagAreaSize + kStatusSize];
    memcpy(reply, request, kStatusAt);
    memset(reply + kStatusAt, 0, kStatusSize);
    if (requestLen > kStatusAt) {
        memcpy(reply + kStatusAt + kStatusSize, request + kStatusAt,
               static_cast<size_t>(requestLen - kStatusAt));
    }
    const int framedLen = EncodeFrame(reply, requestLen + kStatusSize, mFramed);
    if (framedLen > kLongestUntraced) HexTraceEnds(mFramed, framedLen);
    return {mFramed, framedLen, len};
}

// Puts the tool's own mask for the equipment id in the place of the response's, or zeros when the
// tool enabled nothing there. The response's length stays.
void LogConfigAnswers::ReplaceMask(char* response, int req_length, int equipmentId) const {
    const int area = std::max(req_length - kResponseMaskAt, 0);
    memset(response + kResponseMaskAt, 0, static_cast<size_t>(area));
    int length_for_tmpdiagcmd = req_length;
    if (mRequests.IsNeeded(equipmentId)) {
        const int len = mRequests.CopyMask(equipmentId, response + kResponseMaskAt, area);
        LIB_LOGD("data_length_for_ap_set_log_mask: %d, length_for_tmpdiagcmd: %d", len - kMaskAt,
                 kResponseMaskAt);
        length_for_tmpdiagcmd = len + kStatusSize;
        if (req_length > length_for_tmpdiagcmd) {
            LIB_LOGD("length_for_tmpdiagcmd: %d, req_length: %d", length_for_tmpdiagcmd,
                     req_length);
            length_for_tmpdiagcmd = req_length;
        }
    }
    LIB_LOGD("length_for_tmpdiagcmd: %d", length_for_tmpdiagcmd);
}

// The answer to a get-mask request shows the tool's own mask.
LogConfigAnswers::Reply LogConfigAnswers::ParseAPGetLogMaskResponse(const char* frame, int len) {
    LIB_LOGD("Enter ParseAPGetLogMaskResponse: bytes: %d", len);
    char response[kDiagAreaSize + 1];
    memset(response, 0, kResponseMaskAt);
    memcpy(response, frame, static_cast<size_t>(len));
    const int req_length = HdlcUnescape(response, len) - kFrameTrailer;
    CheckStatus(response, len);
    const int equipmentId = static_cast<unsigned char>(response[kResponseIdAt]);
    LIB_LOGD("num_bytes: %d", static_cast<int>((ReadLe32(response + kResponseBitsAt) + 7) / 8));
    LIB_LOGD("ParseAPGetLogMaskResponse, req_length: %d", req_length);
    ReplaceMask(response, req_length, equipmentId);
    const int write_len = EncodeFrame(response, std::max(req_length, 0), mFramed);
    LIB_LOGD("write_len: %d", write_len);
    if (write_len > kLongestUntraced) HexTraceEnds(mFramed, write_len);
    return {mFramed, write_len, len};
}
