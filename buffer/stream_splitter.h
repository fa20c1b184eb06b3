// The splitter: cuts the modem's stream into frames and divides it between tool and flash. Knows
// bytes alone, and where they go.
#pragma once

#include <atomic>
#include <cstdint>

#include "buffer/byte_counts.h"
#include "diag/diag_commands.h"
#include "diag/hdlc.h"
#include "diag/log_config_answers.h"
#include "diag/log_packet_filter.h"
#include "diag/tool_log_requests.h"
#include "platform/hex_trace.h"
#include "platform/tagged_log.h"

// Sinks has these two, each of which returns the bytes it took:
//   int ToTool(const char* data, int len)    len at most kDiagAreaSize
//   int ToFlash(const char* data, int len)
// One thread at a time; nothing is kept of a chunk but what must wait for the next.
template <typename Sinks>
class StreamSplitter {
  public:
    // isLogPacketEnable: whether the capture configures log packets, so that the answers to
    // log-configuration requests are not just relayed. All three outlive the object.
    StreamSplitter(const ToolLogRequests& requests, const std::atomic<bool>& isLogPacketEnable,
                   Sinks& sinks)
        : mSinks(sinks),
          mIsLogPacketEnable(isLogPacketEnable),
          mFilter(requests),
          mAnswers(requests) {}

    // Routes the modem's bytes [begin, end), at least one; alters them in place.
    void ParseReadData(char* begin, char* end);

    // Sends a chunk to the tool as it is, after what was held back for it.
    void PassRaw(const char* data, int len);

    // Sends what was held back for the tool and gives up the frame it was in.
    void ReleaseHeld();

    // Bytes went to the tool without the splitter; last was the last of them.
    void NoteRawBytes(char last);

    const ByteCounts& Counts() const { return mCounts; }

  private:
    static bool EndsFrame(char byte) { return static_cast<unsigned char>(byte) == kHdlcFlag; }

    void BeginFrame(const char* start);
    void RoutePiece(char* start, char* end);
    void RouteLogPiece(const char* start, const char* end);
    void ForwardHeld();
    void RouteAnswerPiece(const char* start, int len, bool isOver);
    void ReleaseAnswer();
    void FlushRun(const char* end);
    void CopyToTool(const char* data, int len);
    void CopyLogToTool(const char* data, int len);

    Sinks& mSinks;
    const std::atomic<bool>& mIsLogPacketEnable;
    LogPacketFilter mFilter;
    LogConfigAnswers mAnswers;
    ByteCounts mCounts;

    bool mIsWholePakcetRead = true;   // the last chunk ended with 0x7E: the next begins a frame
    int mCurrentCmdCode = -1;         // first byte of the frame being routed, -1 before any
    const char* mRunStart = nullptr;  // flash run of this chunk, null when none is pending
    // The 0x73 answer being routed is kept and replaced, not just copied.
    bool mIsCurrentLogMaskCmdResponseNotCopyAgain = false;
};

template <typename Sinks>
void StreamSplitter<Sinks>::ParseReadData(char* begin, char* end) {
    mCounts.mTotalLengthForReadDataFromBP += static_cast<uint64_t>(end - begin);
    char* const last = end - 1;
    if (mIsWholePakcetRead) {
        BeginFrame(begin);
        if (BeginsHdlcDisable(begin, end - begin)) {
            LIB_LOGD("Disable HDLC not expected: 0x%x, 0x%x", 0x18, 0x2);
            begin[0] = static_cast<char>(kCmdBad);
        }
    }
    mIsWholePakcetRead = EndsFrame(*last);
    for (char* start = begin;;) {
        const char* const flag = FindFrameEnd(start, end);
        char* const pieceEnd = flag != nullptr ? start + (flag - start) : last;
        RoutePiece(start, pieceEnd);
        if (pieceEnd == last) break;
        start = pieceEnd + 1;
        BeginFrame(start);
    }
    FlushRun(end);
}

template <typename Sinks>
void StreamSplitter<Sinks>::BeginFrame(const char* start) {
    mCurrentCmdCode = static_cast<unsigned char>(*start);
    mIsCurrentLogMaskCmdResponseNotCopyAgain =
        mCurrentCmdCode == kCmdLogConfig && mIsLogPacketEnable;
}

// Routes one piece of a frame, start to end inclusive: end is its 0x7E or, when the frame is cut,
// the chunk's last byte.
template <typename Sinks>
void StreamSplitter<Sinks>::RoutePiece(char* start, char* end) {
    if (mCurrentCmdCode == kCmdLogPacket || IsReport(mCurrentCmdCode)) {
        if (mRunStart == nullptr) mRunStart = start;
        if (mCurrentCmdCode == kCmdLogPacket) RouteLogPiece(start, end);
        return;
    }
    const auto len = static_cast<int>(end - start + 1);
    if (mIsCurrentLogMaskCmdResponseNotCopyAgain && !mAnswers.Fits(len)) ReleaseAnswer();
    if (mIsCurrentLogMaskCmdResponseNotCopyAgain) {
        RouteAnswerPiece(start, len, EndsFrame(*end));
    } else {
        CopyToTool(start, len);
    }
    FlushRun(start);
    if (mCurrentCmdCode == kCmdLogConfig && EndsFrame(*end)) {
        LIB_LOGD("mIsCurrentLogMaskCmdResponseNotCopyAgain: %d", 0);
    }
}

// A log packet goes to flash anyway; the tool gets those that it asked for.
template <typename Sinks>
void StreamSplitter<Sinks>::RouteLogPiece(const char* start, const char* end) {
    constexpr int kLastBytes = 41;
    constexpr int kLongestWhole = 201;
    const auto len = static_cast<int>(end - start + 1);
    const LogPacketFilter::Verdict verdict = mFilter.ParseReadDataLog117C(start, end);
    if (verdict == LogPacketFilter::Verdict::kForward) {
        ForwardHeld();
        CopyLogToTool(start, len);
    } else if (verdict == LogPacketFilter::Verdict::kFinish) {
        CopyLogToTool(start, len);
        LIB_LOGD("Copy log data to AP at specific condition, length: %d", len);
        HexTraceEnds(start, len, kLastBytes, kLongestWhole);
    }
    if (EndsFrame(*end)) mFilter.Reset();
}

template <typename Sinks>
void StreamSplitter<Sinks>::ForwardHeld() {
    const int held = mFilter.HeldLength();
    if (held == 0) return;
    CopyLogToTool(mFilter.Held(), held);
    LIB_LOGD("Copy mLogPacketBuffer to Buffer, mLogPacketBufferCurrentLength: %d", held);
    mFilter.ForgetHeld();
}

// An answer is kept until it is whole, and counted meanwhile as if the tool had it; what the tool
// then gets counts as what the modem sent.
template <typename Sinks>
void StreamSplitter<Sinks>::RouteAnswerPiece(const char* start, int len, bool isOver) {
    uint64_t& written = mCounts.mTotalLengthForReadDataWriteToAP;
    if (!isOver) {
        mAnswers.Keep(start, len);
        written += static_cast<uint64_t>(len);
        LIB_LOGD("m73CmdResponseBufferCurrentLength: %d, mTotalLengthForReadDataWriteToAP: %d",
                 mAnswers.KeptLength(), static_cast<int>(written));
        return;
    }
    written -= static_cast<uint64_t>(mAnswers.KeptLength());
    const auto reply = mAnswers.Parse73CmdResponse(start, len, mIsWholePakcetRead);
    if (reply.len > 0) CopyToTool(reply.frame, reply.len);
    mCounts.mTotalLengthForReadDataFromBP += static_cast<uint64_t>(reply.len);
    mCounts.mTotalLengthForReadDataFromBP -= static_cast<uint64_t>(reply.modemLen);
    mAnswers.Forget();
}

// Sends what was kept of an answer to the tool as it is, as will be the rest.
template <typename Sinks>
void StreamSplitter<Sinks>::ReleaseAnswer() {
    const int held = mAnswers.KeptLength();
    mCounts.mTotalLengthForReadDataWriteToAP -= static_cast<uint64_t>(held);
    if (held > 0) CopyToTool(mAnswers.Kept(), held);
    mAnswers.Forget();
    mIsCurrentLogMaskCmdResponseNotCopyAgain = false;
}

// Hands the flash run, which ends just before end, to the pool.
template <typename Sinks>
void StreamSplitter<Sinks>::FlushRun(const char* end) {
    if (mRunStart == nullptr) return;
    const int taken = mSinks.ToFlash(mRunStart, static_cast<int>(end - mRunStart));
    mCounts.mTotalLengthForSavedToFlash += static_cast<uint64_t>(taken);
    mRunStart = nullptr;
}

template <typename Sinks>
void StreamSplitter<Sinks>::CopyToTool(const char* data, int len) {
    mCounts.mTotalLengthForReadDataWriteToAP += static_cast<uint64_t>(mSinks.ToTool(data, len));
}

// Bytes that flash gets, too; counted as such whether or not the tool's side takes them.
template <typename Sinks>
void StreamSplitter<Sinks>::CopyLogToTool(const char* data, int len) {
    CopyToTool(data, len);
    mCounts.mTotalLengthForLogDataWriteToAp += static_cast<uint64_t>(len);
}

template <typename Sinks>
void StreamSplitter<Sinks>::PassRaw(const char* data, int len) {
    mCounts.mTotalLengthForReadDataFromBP += static_cast<uint64_t>(len);
    ReleaseHeld();
    if (len == 0) return;
    CopyToTool(data, len);
    NoteRawBytes(data[len - 1]);
}

template <typename Sinks>
void StreamSplitter<Sinks>::ReleaseHeld() {
    if (mAnswers.KeptLength() > 0) {
        NoteRawBytes(mAnswers.Kept()[mAnswers.KeptLength() - 1]);
        ReleaseAnswer();
    }
    if (mFilter.HeldLength() > 0) {
        NoteRawBytes(mFilter.Held()[mFilter.HeldLength() - 1]);
        CopyLogToTool(mFilter.Held(), mFilter.HeldLength());
    }
    mFilter.Reset();
}

// A frame that began so ends at the tool, since -1 is the code of no frame for flash.
template <typename Sinks>
void StreamSplitter<Sinks>::NoteRawBytes(char last) {
    mIsWholePakcetRead = EndsFrame(last);
    mCurrentCmdCode = -1;
    mIsCurrentLogMaskCmdResponseNotCopyAgain = false;
}
