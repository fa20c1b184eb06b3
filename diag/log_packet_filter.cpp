#include "diag/log_packet_filter.h"

#include <cstring>

#include "diag/hdlc.h"
#include "platform/hex_trace.h"
#include "platform/tagged_log.h"

namespace {

// Log packet: the code's bytes, by their un-escaped offsets.
constexpr uint32_t kCodeLowAt = 6;
constexpr uint32_t kCodeHighAt = 7;

}  // namespace

LogPacketFilter::Verdict LogPacketFilter::ParseReadDataLog117C(const char* start, const char* end) {
    if (mRequests.IsAnyCodeWanted()) {
        if (!mIsLogCodeKnown) ReadLogHeader(start, end);
        return mIsToolNeedCurrentLog ? Verdict::kForward : Verdict::kWithhold;
    }
    if (mIsToolNeedCurrentLog) return Verdict::kFinish;
    mIsLogCodeKnown = true;  // nothing later in this packet is its header
    mLogPacketBufferCurrentLength = 0;
    return Verdict::kWithhold;
}

// Follows the un-escaped header up to the log code. A head that ends before it is kept as received,
// for the case that the tool wants the packet.
void LogPacketFilter::ReadLogHeader(const char* start, const char* end) {
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
            mIsToolNeedCurrentLog = mRequests.IsToolCode(mCurrentFTMLogCode);
            if (mIsToolNeedCurrentLog) LIB_LOGD("mCurrentFTMLogCode: 0x%X", mCurrentFTMLogCode);
            if (!mIsToolNeedCurrentLog) ForgetHeld();
            return;
        }
    }
    const auto len = static_cast<int>(end - start + 1);
    if (mLogPacketBufferCurrentLength + len > kLogPacketHeadSize) {
        // Escapes that escape nothing: no header looks like this.
        mIsLogCodeKnown = true;
        mLogPacketBufferCurrentLength = 0;
        return;
    }
    memcpy(mLogPacketBuffer + mLogPacketBufferCurrentLength, start, static_cast<size_t>(len));
    mLogPacketBufferCurrentLength = static_cast<uint8_t>(mLogPacketBufferCurrentLength + len);
    LIB_LOGD("Copy to  mLogPacketBuffer, mLogPacketBufferCurrentLength: %d",
             mLogPacketBufferCurrentLength);
}

void LogPacketFilter::Reset() {
    mLogPacketParsedLength = 0;
    mIsLogEscapePending = false;
    mCurrentFTMLogCode = 0;
    mIsLogCodeKnown = false;
    mIsToolNeedCurrentLog = false;
    mLogPacketBufferCurrentLength = 0;
}
