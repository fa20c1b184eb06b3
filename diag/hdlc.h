// The asynchronous HDLC-style framing of DIAG packets: escaped payload, FCS-16 low byte first, one
// closing 0x7E, no opening flag. These functions only touch their arguments: any thread.
#pragma once

#include <cstdint>
#include <cstring>

inline constexpr unsigned char kHdlcFlag = 0x7E;
inline constexpr unsigned char kHdlcEscape = 0x7D;
inline constexpr unsigned char kHdlcEscapeXor = 0x20;  // RFC 1662, section 4.2

// Work areas for one frame, escaped or not, in bytes; longer frames are not handled.
inline constexpr int kDiagAreaSize = 16384;

// FCS-16 by byte: CRC of each single byte under the reflected polynomial 0x8408 (RFC 1662,
// appendix C).
extern const uint16_t tc_cmn_drv_route_crc_ccitt_table[256];

// Frames source[0, sourceLen) into destination. *destinationLen holds the capacity in bytes on
// entry and the bytes written on return. A frame that does not fit is cut short, never between the
// two bytes of an escape. Does nothing when source or destination is null.
void tc_cmn_drv_route_ftm_hdlc_encode(unsigned char* source, unsigned char* destination,
                                      unsigned int sourceLen, unsigned int* destinationLen);

// Frames packet[0, len), len at most kDiagAreaSize, into an area; a frame that does not fit is cut
// short. Returns the framed length, at most kDiagAreaSize - 1.
int EncodeFrame(const char* packet, int len, char (&framed)[kDiagAreaSize]);

// Un-escapes the frame in buffer[0, len) in place, up to and including its 0x7E, and clears what is
// left of buffer[0, len]: the buffer must hold len + 1 bytes, len at most kDiagAreaSize. An escape
// byte at the very end is dropped. Returns the un-escaped length, or -1 on a null buffer or a
// length below 1. The check sequence stays in place, unverified.
int HdlcUnescape(char* buffer, int len);

// FCS-16 of data[0, len) as it is sent: complemented.
uint16_t HdlcFcs(const unsigned char* data, int len);

// The first 0x7E in [begin, end), or null.
inline const char* FindFrameEnd(const char* begin, const char* end) {
    return static_cast<const char*>(memchr(begin, kHdlcFlag, static_cast<size_t>(end - begin)));
}

// Little-endian fields of a DIAG packet.
inline uint16_t ReadLe16(const char* at) {
    const auto* byte = reinterpret_cast<const unsigned char*>(at);
    return static_cast<uint16_t>(byte[0] | byte[1] << 8);
}

inline uint32_t ReadLe32(const char* at) {
    return ReadLe16(at) | static_cast<uint32_t>(ReadLe16(at + 2)) << 16;
}
