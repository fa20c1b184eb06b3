#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "tools/common/bulk_pattern.h"
#include "tools/common/frame_stream.h"
#include "tools/modem/log_mask_table.h"

// The simulated modem behind the diagnostic port: bytes of the line in, bytes for the line out.
// It owns no descriptor and waits for nothing. One thread at a time.
//
// Beside DIAG it knows two bulk requests of its own, for measuring the way to it and back; both can
// be under way at once. Counts are 64 bits at offset 2.
//   FA 'S' count   the modem sends the next count bytes of the bulk pattern, unframed; answers wait
//                  behind them.
//   FA 'R' count   the count bytes that follow the request's 0x7E are compared with the pattern;
//                  then comes FA 'R', bytes received, offset of the first wrong one (kNoMismatch
//                  for none).
class SimModem {
  public:
    struct Options {
        bool mute = false;  // answers nothing; reports are sent all the same
        // Gets one line per request, answer and change of what is logged. May be empty.
        std::function<void(const std::string&)> trace;
    };

    explicit SimModem(Options options) : mOptions(std::move(options)) {}

    // Takes bytes from the line, cut anywhere.
    void Receive(const char* data, size_t len);

    // False while so much output waits that no more requests should be read.
    bool WantsInput() const;

    // The next bytes for the line, in one piece; empty when there are none. Not always all that
    // waits. Valid until the next call of Receive, Consume or SendNextReport.
    std::string_view Output() const;

    // Drops the first len bytes of Output(), which were sent.
    void Consume(size_t len);

    // Framed bytes that wait, without those of a bulk transfer.
    size_t QueuedBytes() const { return mQueue.size() - mQueueHead; }

    // Queues the next of the modem's own reports: log packets, taking the enabled codes in turn,
    // now and then an event report or a message if those are on. Each carries the same running
    // 32-bit number. Returns false, and does nothing, when nothing is enabled.
    bool SendNextReport();
    bool HasReports() const;

    // Whether a bulk transfer is under way, and its end when the other side has gone.
    bool InBulk() const { return mSourceLeft > 0 || mSinkLeft > 0; }
    void AbandonBulk();

    // The port was opened anew: drops what the side before left unfinished, a bulk transfer or half
    // a request. Masks stay, and so does the output that waits.
    void PortOpened();

    // "logging: id 1: 3 codes, id 11: 16 codes; events on; messages off"
    std::string LoggingSummary() const;

    uint64_t badFrames() const { return mBadFrames; }
    uint64_t overlongFrames() const { return mOverlongFrames; }

    // A log packet (command 0x10): two lengths, log code, time stamp, payload.
    static std::string MakeLogPacket(uint16_t code, std::string_view payload, uint64_t timeStamp);

  private:
    void HandleFrame(FrameState state);
    void HandleRequest(std::string_view request);
    void HandleVersion();
    void HandleTimeStamp();
    void HandleEventConfig(std::string_view request);
    void HandleMessageConfig(std::string_view request);
    void HandleLogConfig(std::string_view request);
    void HandleSetMask(std::string_view request);
    void HandleBulk(std::string_view request);
    void FinishSink();

    void Answer(std::string_view packet);
    void AnswerBad(std::string_view request);
    void Trace(const std::string& line) const;
    void TraceLogging() const;

    std::string MakeEventReport(uint64_t timeStamp) const;
    std::string MakeMessage(uint64_t timeStamp) const;
    std::string MakeReportPayload() const;

    const Options mOptions;
    FrameReader mReader;
    uint64_t mBadFrames = 0;
    uint64_t mOverlongFrames = 0;

    LogMaskTable mMasks;
    bool mEventsOn = false;
    bool mMessagesOn = false;

    std::string mQueue;  // framed bytes for the line, from mQueueHead on
    size_t mQueueHead = 0;

    uint64_t mSourceLeft = 0;  // pattern bytes still to send ...
    uint64_t mSourceSent = 0;
    size_t mSourceBehind = 0;  // ... after so many bytes of the queue
    uint64_t mSinkLeft = 0;    // pattern bytes still to come
    BulkChecker mSink;

    uint32_t mReportNumber = 0;
    size_t mNextCode = 0;  // index in mMasks.EnabledCodes() of the next log packet
};
