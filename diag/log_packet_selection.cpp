// Which of the modem's log packets the tool asked for.
#include <cstring>

#include "buffer/circular_buffer_ext.h"
#include "platform/hex_trace.h"
#include "platform/tagged_log.h"

namespace {

// Log packet: the code's bytes, by their un-escaped offsets.
constexpr uint32_t kCodeLowAt = 6;
constexpr uint32_t kCodeHighAt = 7;

}  // namespace

// Looks at one piece of a log packet, start to end inclusive; last is the chunk's last byte.
int CircularBufferExt::ParseReadDataLog117C(char* start, char* end, char* last) {
    if (mIsToolLogPiece) {
        if (!mIsLogCodeKnown) ReadLogHeader(start, end, last);
        return 1;
    }
    if (mIsToolNeedCurrentLog && mIsLogCodeKnown && !mIsPrevWholePacketRead) {
        FinishLogPiece(start, end);
        return 1;
    }
    mIsToolNeedCurrentLog = false;
    // Nothing later in this packet is its header.
    mIsLogCodeKnown = true;
    mLogPacketBufferCurrentLength = 0;
    return 1;
}

// Follows the un-escaped header up to the log code. A head that ends before it is kept as received,
// for the case that the tool wants the packet.
void CircularBufferExt::ReadLogHeader(const char* start, const char* end, const char* last) {
    for (const char* at = start; at <= end; ++at) {
        auto byte = static_cast<unsigned char>(*at);
        if (byte == kHdlcFlag) return;  // too short to have a code
        if (byte == kHdlcEscape) {
            mIsLogEscapePending = true;
            continue;
        }
        if (mIsLogEscapePending) byte ^= kHdlcEscapeXor;
        mIsLogEscapePending = false;
        const uint32_t position = mLogPacketParsedLength++;
        if (position == kCodeLowAt) mCurrentFTMLogCode = byte;
        if (position == kCodeHighAt) {
            mCurrentFTMLogCode |= static_cast<uint32_t>(byte) << 8;
            mIsLogCodeKnown = true;
            mIsToolNeedCurrentLog = IsToolCode(mCurrentFTMLogCode);
            if (mIsToolNeedCurrentLog) LIB_LOGD("mCurrentFTMLogCode: 0x%X", mCurrentFTMLogCode);
            return;
        }
    }
    if (end != last) return;
    const auto len = static_cast<int>(end - start + 1);
    if (mLogPacketBufferCurrentLength + len > kLogPacketHeadSize) {
        // Escapes that escape nothing: no header looks like this.
        mIsLogCodeKnown = true;
        mLogPacketBufferCurrentLength = 0;
        return;
    }
    memcpy(mLogPacketBuffer + mLogPacketBufferCurrentLength, start, static_cast<size_t>(len));
    mLogPacketBufferCurrentLength = static_cast<uint8_t>(mLogPacketBufferCurrentLength + len);
    mIsLogCodeKnown = false;
    mIsToolNeedCurrentLog = false;
    LIB_LOGD("Copy to  mLogPacketBuffer, mLogPacketBufferCurrentLength: %d",
             mLogPacketBufferCurrentLength);
}

// Passes on a piece of a packet that the tool was getting when it switched its last code off.
void CircularBufferExt::FinishLogPiece(const char* start, const char* end) {
    constexpr int kLastBytes = 41;
    constexpr int kLongestWhole = 201;
    const auto len = static_cast<int>(end - start + 1);
    CopyToTool(start, len);
    mTotalLengthForLogDataWriteToAp += static_cast<uint64_t>(len);
    LIB_LOGD("Copy log data to AP at specific condition, length: %d", len);
    HexTraceEnds(start, len, kLastBytes, kLongestWhole);
    if (static_cast<unsigned char>(*end) == kHdlcFlag) mIsToolNeedCurrentLog = false;
}

bool CircularBufferExt::IsToolCode(uint32_t code) {
    const uint32_t id = code / kLogItems;
    const uint32_t item = code % kLogItems;
    if (id >= kEquipmentIds || !isAPLogPacketNeed[id]) return false;
    const uint32_t bits = msToolNeededLogBits[id][item / 32].load(std::memory_order_relaxed);
    return ((bits >> (item % 32)) & 1U) != 0;
}

void CircularBufferExt::ResetLogPacket() {
    mLogPacketParsedLength = 0;
    mIsLogEscapePending = false;
    mCurrentFTMLogCode = 0;
    mIsLogCodeKnown = false;
    mIsToolNeedCurrentLog = false;
    mLogPacketBufferCurrentLength = 0;
}
