// DIAG packets that the relay recognises by their first bytes.
#pragma once

#include <cstring>

// Subsystem command 0x4B, subsystem 0x12, command 0x0218: it disables the HDLC framing. It never
// takes effect here: the tool's request is disarmed in its fifth byte, and the modem's answer gets
// the first byte of a refusal.
inline constexpr unsigned char kDisarmedHdlcDisableByte = 0x00;
inline constexpr unsigned char kBadCommandResponse = 0x13;

// Whether data[0, len) begins the HDLC-disable command and is long enough to be altered.
inline bool BeginsHdlcDisable(const char* data, long len) {
    return len >= 5 && memcmp(data, "\x4B\x12\x18\x02", 4) == 0;
}
