// DIAG packets that the relay recognises by their first bytes.
#pragma once

#include <cstdint>
#include <cstring>

// Command codes, the first byte of a packet.
inline constexpr unsigned char kCmdVersion = 0x00;
inline constexpr unsigned char kCmdLogPacket = 0x10;
inline constexpr unsigned char kCmdBad = 0x13;  // answer: request not understood, request follows
inline constexpr unsigned char kCmdTimeStamp = 0x1D;
inline constexpr unsigned char kCmdSubsystem = 0x4B;
inline constexpr unsigned char kCmdEvent = 0x60;  // both the on/off request and the reports
inline constexpr unsigned char kCmdLogConfig = 0x73;
inline constexpr unsigned char kCmdMessage = 0x79;
inline constexpr unsigned char kCmdMessageConfig = 0x7D;

// Whether packets of this code are messages of the modem, in one of their forms.
inline constexpr bool IsMessage(int code) {
    return code == kCmdMessage || code == 0x92 || code == 0x98 || code == 0x99;
}

// Whether the modem sends packets of this code by itself, besides log packets: events and messages.
inline constexpr bool IsReport(int code) {
    return code == kCmdEvent || IsMessage(code);
}

// Equipment ids 0 to 13 have log masks; ids above are passed on but not kept.
inline constexpr int kEquipmentIds = 14;

// Operations of kCmdLogConfig, 32 bits at offset 4.
inline constexpr uint32_t kLogConfigDisable = 0;
inline constexpr uint32_t kLogConfigRanges = 1;
inline constexpr uint32_t kLogConfigSetMask = 3;
inline constexpr uint32_t kLogConfigGetMask = 4;

// Subsystem command 0x4B, subsystem 0x12, command 0x0218: it disables the HDLC framing. It never
// takes effect here: the tool's request is disarmed in its fifth byte, and the modem's answer gets
// the first byte of a refusal, kCmdBad.
inline constexpr unsigned char kDisarmedHdlcDisableByte = 0x00;

// Log configuration 0x73, operation 3: set log mask. None of these bytes is ever escaped.
inline constexpr char kSetLogMaskPrefix[] = "\x73\x00\x00\x00\x03";

// Set-log-mask request: equipment id, number of mask bits and mask, by their offsets.
inline constexpr int kEquipmentIdAt = 8;
inline constexpr int kMaskBitsAt = 12;
inline constexpr int kMaskAt = 16;

// An un-escaped frame ends with its check sequence and 0x7E.
inline constexpr int kFrameTrailer = 3;

// Whether data[0, len), framed or not, begins a set-log-mask request.
inline bool BeginsSetLogMask(const char* data, long len) {
    constexpr int kPrefix = sizeof(kSetLogMaskPrefix) - 1;
    return len >= kPrefix && memcmp(data, kSetLogMaskPrefix, kPrefix) == 0;
}

// Whether data[0, len) begins the HDLC-disable command and is long enough to be altered.
inline bool BeginsHdlcDisable(const char* data, long len) {
    return len >= 5 && memcmp(data, "\x4B\x12\x18\x02", 4) == 0;
}
