// The splitter: cuts the relayed stream into frames and divides it between tool and flash.
#include <algorithm>
#include <cstring>

#include "buffer/circular_buffer_ext.h"
#include "capture/pool_buffer.h"
#include "diag/diag_commands.h"
#include "platform/hex_trace.h"
#include "platform/tagged_log.h"

namespace {

// What the modem sends of its own, besides log packets: events and messages.
bool IsReport(int code) {
    return code == kCmdEvent || IsMessage(code);
}

bool EndsFrame(char byte) {
    return static_cast<unsigned char>(byte) == kHdlcFlag;
}

void LogHdlcDisable() {
    LIB_LOGD("Disable HDLC not expected: 0x%x, 0x%x", 0x18, 0x2);
}

}  // namespace

int CircularBufferExt::ParseReadData(char* begin, char* end) {
    if (mIsDataFromBP) {
        SplitModemBytes(begin, end);
    } else {
        SplitToolBytes(begin, end);
    }
    return 1;
}

// Only the start of a chunk is looked at.
void CircularBufferExt::SplitToolBytes(char* begin, char* end) {
    mCurrentCmdCode = static_cast<unsigned char>(*begin);
    if (BeginsSetLogMask(begin, end - begin)) {
        ParseAPSetLogMask(begin, end);
        return;
    }
    if (BeginsHdlcDisable(begin, end - begin)) {
        LogHdlcDisable();
        begin[4] = static_cast<char>(kDisarmedHdlcDisableByte);
    }
    CopyDataToBuffer(begin, static_cast<int>(end - begin));
}

void CircularBufferExt::SplitModemBytes(char* begin, char* end) {
    char* const last = end - 1;
    if (mIsWholePakcetRead) {
        BeginFrame(begin);
        if (BeginsHdlcDisable(begin, end - begin)) {
            LogHdlcDisable();
            begin[0] = static_cast<char>(kCmdBad);
        }
    }
    mIsWholePakcetRead = EndsFrame(*last);
    mRunStart = nullptr;
    for (char* start = begin;;) {
        const char* const flag = FindFrameEnd(start, end);
        char* const pieceEnd = flag != nullptr ? start + (flag - start) : last;
        RoutePiece(start, pieceEnd, last);
        if (pieceEnd == last) break;
        start = pieceEnd + 1;
        BeginFrame(start);
    }
    mIsPrevWholePacketRead = mIsWholePakcetRead;
    FlushRun(end);
}

void CircularBufferExt::BeginFrame(const char* start) {
    mCurrentCmdCode = static_cast<unsigned char>(*start);
    mIsResponseIntercepted = mCurrentCmdCode == kCmdLogConfig && mLogMask->IsLogPacketEnable();
}

// Routes one piece of a frame, start to end inclusive: end is its 0x7E or, when the frame is cut,
// the chunk's last byte.
void CircularBufferExt::RoutePiece(char* start, char* end, char* last) {
    const auto len = static_cast<int>(end - start + 1);
    const bool isOver = EndsFrame(*end);
    if (mCurrentCmdCode == kCmdLogPacket) {
        mIsToolLogPiece = msIsFTMLogEnable;
        ParseReadDataLog117C(start, end, last);
        if (mRunStart == nullptr) mRunStart = start;
        if (mIsToolLogPiece && mIsLogCodeKnown && mIsToolNeedCurrentLog)
            ForwardLogPiece(start, len);
        if (isOver) ResetLogPacket();
        return;
    }
    if (IsReport(mCurrentCmdCode)) {
        if (mRunStart == nullptr) mRunStart = start;
        return;
    }
    if (mIsResponseIntercepted && FitsResponseBuffer(len)) {
        if (isOver) {
            Parse73CmdResponse(start, end);
        } else {
            CollectResponse(start, len);
        }
    }
    if (!mIsCurrentLogMaskCmdResponseNotCopyAgain) CopyToTool(start, len);
    FlushRun(start);
    if (mCurrentCmdCode == kCmdLogConfig && isOver) EndResponse();
}

// The tool wants the current log packet.
void CircularBufferExt::ForwardLogPiece(const char* start, int len) {
    if (mLogPacketBufferCurrentLength > 0) {
        const int held = mLogPacketBufferCurrentLength;
        CopyToTool(mLogPacketBuffer, held);
        mTotalLengthForLogDataWriteToAp += static_cast<uint64_t>(held);
        LIB_LOGD("Copy mLogPacketBuffer to Buffer, mLogPacketBufferCurrentLength: %d", held);
        mLogPacketBufferCurrentLength = 0;
    }
    CopyToTool(start, len);
    mTotalLengthForLogDataWriteToAp += static_cast<uint64_t>(len);
}

// Hands the flash run, which ends just before end, to the pool.
void CircularBufferExt::FlushRun(const char* end) {
    if (mRunStart == nullptr) return;
    // The tool's share does not wait for the flash; but once a side has failed, the tool is not
    // tried for each run of the block.
    if (!IsEmpty() && mThreadExitCode > 0 && !mPoolBuffer->HasSpace()) Write(mWriteFd);
    const int taken = mPoolBuffer->Read(mRunStart, static_cast<int>(end - mRunStart));
    mTotalLengthForSavedToFlash += static_cast<uint64_t>(taken);
    mRunStart = nullptr;
}

// Whether len more bytes of the current 0x73 response can be collected. Otherwise what was
// collected goes to the tool, as will the rest.
bool CircularBufferExt::FitsResponseBuffer(int len) {
    if (m73CmdResponseBufferCurrentLength + len <= kDiagAreaSize) return true;
    ReleaseResponse();
    mIsResponseIntercepted = false;
    return false;
}

void CircularBufferExt::CollectResponse(const char* start, int len) {
    memcpy(m73CmdResponseBuffer + m73CmdResponseBufferCurrentLength, start,
           static_cast<size_t>(len));
    m73CmdResponseBufferCurrentLength += len;
    HexTrace(m73CmdResponseBuffer, m73CmdResponseBufferCurrentLength);
    mIsCurrentLogMaskCmdResponseNotCopyAgain = true;
    mTotalLengthForReadDataWriteToAP += static_cast<uint64_t>(len);
    LIB_LOGD("m73CmdResponseBufferCurrentLength: %d, mTotalLengthForReadDataWriteToAP: %d",
             m73CmdResponseBufferCurrentLength, static_cast<int>(mTotalLengthForReadDataWriteToAP));
}

void CircularBufferExt::EndResponse() {
    m73CmdResponseBufferCurrentLength = 0;
    mIsCurrentLogMaskCmdResponseNotCopyAgain = false;
    LIB_LOGD("mIsCurrentLogMaskCmdResponseNotCopyAgain: %d", 0);
}

// Sends what was collected of a 0x73 response to the tool as it is.
void CircularBufferExt::ReleaseResponse() {
    const int held = m73CmdResponseBufferCurrentLength;
    mTotalLengthForReadDataWriteToAP -= static_cast<uint64_t>(held);  // counted when collected
    CopyToTool(m73CmdResponseBuffer, held);
    m73CmdResponseBufferCurrentLength = 0;
    mIsCurrentLogMaskCmdResponseNotCopyAgain = false;
}

// Appends the tool's share, at most kDiagAreaSize bytes, writing the ring out when it has no room
// behind a long answer.
void CircularBufferExt::CopyToTool(const char* src, int len) {
    while (NumBytes() + static_cast<unsigned long>(len) > MaxBytes() && !IsEmpty()) {
        if (Write(mWriteFd) <= 0) break;
    }
    const int piece = std::min(len, static_cast<int>(MaxBytes()));
    CopyDataToBuffer(src, piece);
    if (piece < len) CopyToTool(src + piece, len - piece);
}

// Sends a block to the tool as it is, after what was held back for it.
void CircularBufferExt::PassRaw(const char* data, int len) {
    ReleaseHeld();
    if (len == 0) return;
    CopyToTool(data, len);
    NoteRawBytes(data[len - 1]);
}

// Sends what the splitter held back for the tool and gives up the frame it was in.
void CircularBufferExt::ReleaseHeld() {
    if (m73CmdResponseBufferCurrentLength > 0) {
        NoteRawBytes(m73CmdResponseBuffer[m73CmdResponseBufferCurrentLength - 1]);
        ReleaseResponse();
    }
    if (mLogPacketBufferCurrentLength > 0) {
        const int held = mLogPacketBufferCurrentLength;
        NoteRawBytes(mLogPacketBuffer[held - 1]);
        CopyToTool(mLogPacketBuffer, held);
        mTotalLengthForLogDataWriteToAp += static_cast<uint64_t>(held);
    }
    ResetLogPacket();
}

// Bytes went to the tool without the splitter; last was the last of them. A frame that began so
// ends at the tool, since -1 is the code of no frame for flash.
void CircularBufferExt::NoteRawBytes(char last) {
    mIsWholePakcetRead = EndsFrame(last);
    mIsPrevWholePacketRead = mIsWholePakcetRead;
    mCurrentCmdCode = -1;
    mIsResponseIntercepted = false;
}
