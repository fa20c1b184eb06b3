#include "diag/hdlc.h"

#include "platform/tagged_log.h"

namespace {

constexpr uint16_t kFcsPolynomial = 0x8408;  // x^16 + x^12 + x^5 + 1, bit-reversed
constexpr uint16_t kFcsInit = 0xFFFF;

constexpr uint16_t CrcOfByte(unsigned int byte) {
    unsigned int crc = byte;
    for (int bit = 0; bit < 8; ++bit) {
        crc = (crc & 1U) != 0 ? (crc >> 1) ^ kFcsPolynomial : crc >> 1;
    }
    return static_cast<uint16_t>(crc);
}

uint16_t AddToFcs(uint16_t crc, unsigned char byte) {
    return static_cast<uint16_t>(tc_cmn_drv_route_crc_ccitt_table[(crc ^ byte) & 0xFF] ^ crc >> 8);
}

bool NeedsEscape(unsigned char byte) {
    return byte == kHdlcFlag || byte == kHdlcEscape;
}

// Puts one byte, escaped if need be, at out and moves out behind it; false when it does not fit.
bool PutByte(unsigned char byte, unsigned char*& out, const unsigned char* end) {
    const bool escape = NeedsEscape(byte);
    if (end - out < (escape ? 2 : 1)) return false;
    if (escape) {
        *out++ = kHdlcEscape;
        byte ^= kHdlcEscapeXor;
    }
    *out++ = byte;
    return true;
}

}  // namespace

#define CRC_OF_4(first) \
    CrcOfByte(first), CrcOfByte((first) + 1), CrcOfByte((first) + 2), CrcOfByte((first) + 3)
#define CRC_OF_16(first) \
    CRC_OF_4(first), CRC_OF_4((first) + 4), CRC_OF_4((first) + 8), CRC_OF_4((first) + 12)
#define CRC_OF_64(first) \
    CRC_OF_16(first), CRC_OF_16((first) + 16), CRC_OF_16((first) + 32), CRC_OF_16((first) + 48)

constexpr uint16_t tc_cmn_drv_route_crc_ccitt_table[256] = {CRC_OF_64(0), CRC_OF_64(64),
                                                            CRC_OF_64(128), CRC_OF_64(192)};

void tc_cmn_drv_route_ftm_hdlc_encode(unsigned char* source, unsigned char* destination,
                                      unsigned int sourceLen, unsigned int* destinationLen) {
    if (source == nullptr || destination == nullptr) return;

    const unsigned char* const end = destination + *destinationLen;
    unsigned char* out = destination;
    uint16_t crc = kFcsInit;
    bool fits = true;
    for (unsigned int i = 0; fits && i < sourceLen; ++i) {
        crc = AddToFcs(crc, source[i]);
        fits = PutByte(source[i], out, end);
    }
    const auto fcs = static_cast<uint16_t>(~crc);
    if (fits && PutByte(fcs & 0xFF, out, end) && PutByte(fcs >> 8, out, end) && out != end) {
        *out++ = kHdlcFlag;
    }
    *destinationLen = static_cast<unsigned int>(out - destination);
}

int EncodeFrame(const char* packet, int len, char (&framed)[kDiagAreaSize]) {
    unsigned int framedLen = sizeof(framed) - 1;
    // The encoder only reads its source.
    auto* source = reinterpret_cast<unsigned char*>(const_cast<char*>(packet));
    tc_cmn_drv_route_ftm_hdlc_encode(source, reinterpret_cast<unsigned char*>(framed),
                                     static_cast<unsigned int>(len), &framedLen);
    return static_cast<int>(framedLen);
}

int HdlcUnescape(char* buffer, int len) {
    if (buffer == nullptr || len < 1) {
        LIB_LOGE(" Enter remove_escape fun, but parameters are invalid");
        return -1;
    }
    int outLen = 0;
    for (int i = 0; i < len; ++i) {
        auto byte = static_cast<unsigned char>(buffer[i]);
        const bool atFlag = byte == kHdlcFlag;
        if (byte == kHdlcEscape) {
            if (++i == len) break;
            byte = static_cast<unsigned char>(buffer[i]) ^ kHdlcEscapeXor;
        }
        buffer[outLen++] = static_cast<char>(byte);
        if (atFlag) break;
    }
    memset(buffer + outLen, 0, static_cast<size_t>(len + 1 - outLen));
    return outLen;
}

uint16_t HdlcFcs(const unsigned char* data, int len) {
    uint16_t crc = kFcsInit;
    for (int i = 0; i < len; ++i)
        crc = AddToFcs(crc, data[i]);
    return static_cast<uint16_t>(~crc);
}
