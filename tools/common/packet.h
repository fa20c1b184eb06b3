// Fields and commands of DIAG packets that are built and read here, beside those of diag/hdlc.h.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "diag/diag_commands.h"
#include "diag/hdlc.h"

// Bulk requests of the simulated modem (SimModem): command, operation, 64-bit byte count.
inline constexpr unsigned char kCmdBulk = 0xFA;
inline constexpr char kBulkSource = 'S';
inline constexpr char kBulkSink = 'R';
inline constexpr uint64_t kNoMismatch = ~uint64_t{0};

// What the modem sends of its own, and all else.
enum class PacketKind { kLogPacket, kEvent, kMessage, kAnswer };
inline constexpr size_t kPacketKinds = 4;

// By the command code; of an empty packet kAnswer.
PacketKind KindOf(std::string_view packet);

// Of a log packet; nothing when it is none or ends before the field.
std::optional<uint32_t> LogCodeOf(std::string_view packet);
std::optional<uint64_t> TimeStampOf(std::string_view packet);  // as in tools/common/diag_time.h

// The command code; the packet is not empty.
inline unsigned char CommandOf(std::string_view packet) {
    return static_cast<unsigned char>(packet.front());
}

inline void AppendByte(std::string& packet, unsigned char value) {
    packet.push_back(static_cast<char>(value));
}

inline void AppendLe16(std::string& packet, uint16_t value) {
    AppendByte(packet, value & 0xFF);
    AppendByte(packet, value >> 8);
}

inline void AppendLe32(std::string& packet, uint32_t value) {
    AppendLe16(packet, value & 0xFFFF);
    AppendLe16(packet, value >> 16);
}

inline void AppendLe64(std::string& packet, uint64_t value) {
    AppendLe32(packet, value & 0xFFFFFFFF);
    AppendLe32(packet, value >> 32);
}

inline uint64_t ReadLe64(const char* at) {
    return ReadLe32(at) | static_cast<uint64_t>(ReadLe32(at + 4)) << 32;
}
