// Little-endian fields of DIAG packets that are built and read here, beside those of diag/hdlc.h.
#pragma once

#include <cstdint>
#include <string>

#include "diag/hdlc.h"

// DIAG command codes.
inline constexpr unsigned char kCmdVersion = 0x00;
inline constexpr unsigned char kCmdLogPacket = 0x10;
inline constexpr unsigned char kCmdBad = 0x13;  // answer: request not understood, request follows
inline constexpr unsigned char kCmdTimeStamp = 0x1D;
inline constexpr unsigned char kCmdEvent = 0x60;  // both the on/off request and the reports
inline constexpr unsigned char kCmdLogConfig = 0x73;
inline constexpr unsigned char kCmdMessage = 0x79;
inline constexpr unsigned char kCmdMessageConfig = 0x7D;

// Operations of kCmdLogConfig, 32 bits at offset 4.
inline constexpr uint32_t kLogConfigDisable = 0;
inline constexpr uint32_t kLogConfigRanges = 1;
inline constexpr uint32_t kLogConfigSetMask = 3;
inline constexpr uint32_t kLogConfigGetMask = 4;

// Bulk requests of the simulated modem (SimModem): command, operation, 64-bit byte count.
inline constexpr unsigned char kCmdBulk = 0xFA;
inline constexpr char kBulkSource = 'S';
inline constexpr char kBulkSink = 'R';
inline constexpr uint64_t kNoMismatch = ~uint64_t{0};

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
