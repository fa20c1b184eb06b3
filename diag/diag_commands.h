// DIAG packets that the relay recognises by their first bytes.
#pragma once

#include <cstring>

// Subsystem command 0x4B, subsystem 0x12, command 0x0218: it disables the HDLC framing. It never
// takes effect here: the tool's request is disarmed in its fifth byte, and the modem's answer gets
// the first byte of a refusal.
inline constexpr unsigned char kDisarmedHdlcDisableByte = 0x00;
inline constexpr unsigned char kBadCommandResponse = 0x13;

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
