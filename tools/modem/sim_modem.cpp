#include "tools/modem/sim_modem.h"

#include <fmt/format.h>

#include <algorithm>

#include "tools/common/diag_time.h"
#include "tools/common/frame_text.h"
#include "tools/common/packet.h"

namespace {

constexpr size_t kQueueLimit = 1 << 20;        // more output than this, and requests wait
constexpr size_t kQueueCompactFrom = 1 << 18;  // sent bytes kept at the queue's head at most

constexpr uint32_t kStatusOk = 0;
constexpr uint32_t kStatusFailed = 1;

std::string LogConfigAnswer(uint32_t operation, uint32_t status) {
    std::string packet;
    AppendLe32(packet, kCmdLogConfig);
    AppendLe32(packet, operation);
    AppendLe32(packet, status);
    return packet;
}

void AppendMask(std::string& packet, uint32_t id, const LogMaskTable::Row& row) {
    AppendLe32(packet, id);
    AppendLe32(packet, row.bits);
    packet += row.bytes;
}

}  // namespace

void SimModem::Receive(const char* data, size_t len) {
    while (len > 0) {
        size_t taken;
        if (mSinkLeft > 0) {
            taken = static_cast<size_t>(std::min<uint64_t>(len, mSinkLeft));
            mSink.Check(data, taken);
            mSinkLeft -= taken;
            if (mSinkLeft == 0) FinishSink();
        } else {
            FrameState state;
            taken = mReader.Take(data, len, &state);
            HandleFrame(state);
        }
        data += taken;
        len -= taken;
    }
}

bool SimModem::WantsInput() const {
    return QueuedBytes() < kQueueLimit;
}

std::string_view SimModem::Output() const {
    if (mSourceLeft > 0 && mSourceBehind == 0) return BulkPatternAt(mSourceSent, mSourceLeft);
    const std::string_view queued = std::string_view(mQueue).substr(mQueueHead);
    return mSourceLeft > 0 ? queued.substr(0, mSourceBehind) : queued;
}

void SimModem::Consume(size_t len) {
    if (mSourceLeft > 0 && mSourceBehind == 0) {
        mSourceSent += len;
        mSourceLeft -= len;
        return;
    }
    if (mSourceLeft > 0) mSourceBehind -= len;
    mQueueHead += len;
    if (mQueueHead == mQueue.size()) {
        mQueue.clear();
        mQueueHead = 0;
    } else if (mQueueHead > kQueueCompactFrom) {
        mQueue.erase(0, mQueueHead);
        mQueueHead = 0;
    }
}

void SimModem::HandleFrame(FrameState state) {
    switch (state) {
        case FrameState::kIncomplete:
            return;
        case FrameState::kGood:
            HandleRequest(mReader.packet());
            return;
        case FrameState::kBadCheck:
            ++mBadFrames;
            Trace("dropped: bad check sequence: " + DescribePacket(mReader.packet()));
            return;
        case FrameState::kOverlong:
            ++mOverlongFrames;
            Trace("dropped: frame too long");
            return;
    }
}

void SimModem::HandleRequest(std::string_view request) {
    if (mOptions.trace) Trace("-> " + DescribePacket(request));
    switch (CommandOf(request)) {
        case kCmdVersion:
            return HandleVersion();
        case kCmdTimeStamp:
            return HandleTimeStamp();
        case kCmdEvent:
            return HandleEventConfig(request);
        case kCmdMessageConfig:
            return HandleMessageConfig(request);
        case kCmdLogConfig:
            return HandleLogConfig(request);
        case kCmdBulk:
            return HandleBulk(request);
        default:
            return AnswerBad(request);
    }
}

void SimModem::HandleVersion() {
    // Compile date and time, release date and time, version directory; then station class,
    // revisions, model, firmware revision (16 bits), slot cycle index, hardware version (16 bits).
    static constexpr char kText[] = "Mar 14 201910:21:33Mar 18 201909:40:00SIMMODEM";
    static constexpr char kNumbers[] = "\x2A\x06\x01\x21\x00\x03\x02\x01";
    std::string packet;
    AppendByte(packet, kCmdVersion);
    packet.append(kText, sizeof kText - 1).append(kNumbers, sizeof kNumbers - 1);
    Answer(packet);
}

void SimModem::HandleTimeStamp() {
    std::string packet;
    AppendByte(packet, kCmdTimeStamp);
    AppendLe64(packet, DiagTimeStamp(std::chrono::system_clock::now()));
    Answer(packet);
}

void SimModem::HandleEventConfig(std::string_view request) {
    if (request.size() < 2) return AnswerBad(request);
    mEventsOn = request[1] != 0;
    std::string packet;
    AppendByte(packet, kCmdEvent);
    AppendLe16(packet, 0);  // a report without events
    Answer(packet);
    TraceLogging();
}

void SimModem::HandleMessageConfig(std::string_view request) {
    constexpr char kSetAllMasks = 5;
    constexpr char kDone = 1;
    if (request.size() < 2) return AnswerBad(request);
    if (request[1] == kSetAllMasks) {
        if (request.size() < 8) return AnswerBad(request);
        mMessagesOn = ReadLe32(&request[4]) != 0;
    }
    std::string packet(request);
    packet.resize(std::max<size_t>(packet.size(), 4));
    packet[2] = kDone;
    Answer(packet);
    if (request[1] == kSetAllMasks) TraceLogging();
}

void SimModem::HandleLogConfig(std::string_view request) {
    if (request.size() < 8) return AnswerBad(request);
    const uint32_t operation = ReadLe32(&request[4]);
    switch (operation) {
        case kLogConfigDisable:
            mMasks.Clear();
            Answer(LogConfigAnswer(operation, kStatusOk));
            TraceLogging();
            return;
        case kLogConfigRanges: {
            std::string packet = LogConfigAnswer(operation, kStatusOk);
            for (const uint32_t count : kLogItemCounts)
                AppendLe32(packet, count);
            Answer(packet);
            return;
        }
        case kLogConfigSetMask:
            return HandleSetMask(request);
        case kLogConfigGetMask: {
            if (request.size() < 12) return AnswerBad(request);
            const uint32_t id = ReadLe32(&request[8]);
            const bool known = id < kModemEquipmentIds;
            std::string packet = LogConfigAnswer(operation, known ? kStatusOk : kStatusFailed);
            AppendMask(packet, id, known ? mMasks.row(id) : LogMaskTable::Row{0, ""});
            Answer(packet);
            return;
        }
        default:
            Answer(LogConfigAnswer(operation, kStatusFailed));
    }
}

void SimModem::HandleSetMask(std::string_view request) {
    constexpr size_t kMaskAt = 16;
    if (request.size() < kMaskAt) return AnswerBad(request);
    const uint32_t id = ReadLe32(&request[8]);
    const uint32_t bits = ReadLe32(&request[12]);
    if (id >= kModemEquipmentIds || bits > kItemsPerEquipment) {
        std::string packet = LogConfigAnswer(kLogConfigSetMask, kStatusFailed);
        AppendMask(packet, id, {0, ""});
        Answer(packet);
        return;
    }
    const std::string_view mask = request.substr(kMaskAt, LogMaskBytes(bits));
    if (mask.size() < LogMaskBytes(bits)) return AnswerBad(request);

    mMasks.Set(id, bits, mask);
    std::string packet = LogConfigAnswer(kLogConfigSetMask, kStatusOk);
    AppendMask(packet, id, mMasks.row(id));
    Answer(packet);
    TraceLogging();
}

void SimModem::HandleBulk(std::string_view request) {
    if (request.size() < 10) return AnswerBad(request);
    const uint64_t count = ReadLe64(&request[2]);
    if (request[1] == kBulkSource && mSourceLeft == 0) {
        mSourceLeft = count;
        mSourceSent = 0;
        mSourceBehind = QueuedBytes();
    } else if (request[1] == kBulkSink) {
        mSinkLeft = count;
        mSink = BulkChecker();
        if (count == 0) FinishSink();
    } else {
        AnswerBad(request);
    }
}

void SimModem::FinishSink() {
    std::string packet;
    AppendByte(packet, kCmdBulk);
    packet += kBulkSink;
    AppendLe64(packet, mSink.received());
    AppendLe64(packet, mSink.mismatch());
    Answer(packet);
}

void SimModem::AbandonBulk() {
    if (!InBulk()) return;
    Trace(fmt::format("bulk transfer abandoned: {} bytes not sent, {} not received", mSourceLeft,
                      mSinkLeft));
    mSourceLeft = 0;
    mSourceBehind = 0;
    mSinkLeft = 0;
}

void SimModem::PortOpened() {
    AbandonBulk();
    mReader = FrameReader();
}

void SimModem::Answer(std::string_view packet) {
    if (mOptions.mute) return;
    if (mOptions.trace) Trace("<- " + DescribePacket(packet));
    AppendFrame(mQueue, packet);
}

void SimModem::AnswerBad(std::string_view request) {
    std::string packet;
    AppendByte(packet, kCmdBad);
    Answer(packet.append(request));
}

std::string SimModem::LoggingSummary() const {
    return fmt::format("logging: {}; events {}; messages {}", mMasks.Summary(),
                       mEventsOn ? "on" : "off", mMessagesOn ? "on" : "off");
}

void SimModem::Trace(const std::string& line) const {
    if (mOptions.trace) mOptions.trace(line);
}

void SimModem::TraceLogging() const {
    if (mOptions.trace) Trace(LoggingSummary());
}
