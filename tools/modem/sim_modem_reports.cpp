// What the simulated modem sends on its own.
#include <chrono>

#include "tools/common/diag_time.h"
#include "tools/common/packet.h"
#include "tools/modem/sim_modem.h"

namespace {

// Of every so many reports one is an event report and one is a message, if those are on.
constexpr uint32_t kCycle = 16;
constexpr uint32_t kEventInCycle = 5;
constexpr uint32_t kMessageInCycle = 11;

constexpr uint16_t kEventId = 0x0155;
constexpr uint16_t kEventPayloadFlag = 0x6000;  // a payload with a length byte follows
constexpr uint16_t kSourceLine = 117;
constexpr uint16_t kSubsystemId = 0x0005;
constexpr uint32_t kMessageLevel = 4;

}  // namespace

std::string SimModem::MakeLogPacket(uint16_t code, std::string_view payload, uint64_t timeStamp) {
    const auto length = static_cast<uint16_t>(12 + payload.size());  // from the second length on
    std::string packet;
    AppendLe16(packet, kCmdLogPacket);
    AppendLe16(packet, length);
    AppendLe16(packet, length);
    AppendLe16(packet, code);
    AppendLe64(packet, timeStamp);
    return packet.append(payload);
}

bool SimModem::HasReports() const {
    return mEventsOn || mMessagesOn || !mMasks.EnabledCodes().empty();
}

bool SimModem::SendNextReport() {
    if (!HasReports()) return false;
    const uint64_t now = DiagTimeStamp(std::chrono::system_clock::now());
    const auto& codes = mMasks.EnabledCodes();
    const uint32_t turn = mReportNumber % kCycle;
    if (mEventsOn && (turn == kEventInCycle || (codes.empty() && !mMessagesOn))) {
        AppendFrame(mQueue, MakeEventReport(now));
    } else if (mMessagesOn && (turn == kMessageInCycle || codes.empty())) {
        AppendFrame(mQueue, MakeMessage(now));
    } else {
        if (mNextCode >= codes.size()) mNextCode = 0;
        AppendFrame(mQueue, MakeLogPacket(codes[mNextCode++], MakeReportPayload(), now));
    }
    ++mReportNumber;
    return true;
}

// The report number, two bytes that need escapes, and a run that wanders over all values: mostly
// below 256 bytes, now and then more than a kilobyte.
std::string SimModem::MakeReportPayload() const {
    std::string payload;
    AppendLe32(payload, mReportNumber);
    AppendByte(payload, kHdlcEscape);
    AppendByte(payload, kHdlcFlag);
    const uint32_t length = mReportNumber % 9 == 8 ? 1400 : mReportNumber * 29 % 240;
    for (uint32_t i = 0; i < length; ++i)
        AppendByte(payload, (mReportNumber + 13 * i) & 0xFF);
    return payload;
}

std::string SimModem::MakeEventReport(uint64_t timeStamp) const {
    constexpr uint16_t kLength = 15;  // what follows the length field
    std::string packet;
    AppendByte(packet, kCmdEvent);
    AppendLe16(packet, kLength);
    AppendLe16(packet, kEventId | kEventPayloadFlag);
    AppendLe64(packet, timeStamp);
    AppendByte(packet, sizeof mReportNumber);
    AppendLe32(packet, mReportNumber);
    return packet;
}

std::string SimModem::MakeMessage(uint64_t timeStamp) const {
    static constexpr char kStrings[] = "report %u\0sim_modem.c";  // format, source file
    std::string packet;
    AppendByte(packet, kCmdMessage);
    AppendByte(packet, 0);  // kind of time stamp
    AppendByte(packet, 1);  // number of arguments
    AppendByte(packet, 0);  // messages dropped before
    AppendLe64(packet, timeStamp);
    AppendLe16(packet, kSourceLine);
    AppendLe16(packet, kSubsystemId);
    AppendLe32(packet, kMessageLevel);
    AppendLe32(packet, mReportNumber);
    return packet.append(kStrings, sizeof kStrings);
}
