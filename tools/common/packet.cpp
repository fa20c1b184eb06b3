#include "tools/common/packet.h"

namespace {

constexpr size_t kLogCodeAt = 6;
constexpr size_t kTimeStampAt = 8;

}  // namespace

PacketKind KindOf(std::string_view packet) {
    const unsigned char code = packet.empty() ? kCmdBad : CommandOf(packet);
    if (code == kCmdLogPacket) return PacketKind::kLogPacket;
    if (code == kCmdEvent) return PacketKind::kEvent;
    return IsMessage(code) ? PacketKind::kMessage : PacketKind::kAnswer;
}

std::optional<uint32_t> LogCodeOf(std::string_view packet) {
    if (KindOf(packet) != PacketKind::kLogPacket || packet.size() < kTimeStampAt) {
        return std::nullopt;
    }
    return ReadLe16(&packet[kLogCodeAt]);
}

std::optional<uint64_t> TimeStampOf(std::string_view packet) {
    if (KindOf(packet) != PacketKind::kLogPacket || packet.size() < kTimeStampAt + 8) {
        return std::nullopt;
    }
    return ReadLe64(&packet[kTimeStampAt]);
}
