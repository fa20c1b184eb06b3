#include "platform/hex_trace.h"

#include "platform/tagged_log.h"

namespace {

constexpr int kBytesPerRow = 20;
constexpr int kFirstBytes = 60;

void TraceRow(const char* data, int len) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    char row[3 * kBytesPerRow];
    char* out = row;
    for (int i = 0; i < len; ++i) {
        const auto byte = static_cast<unsigned char>(data[i]);
        *out++ = kDigits[byte >> 4];
        *out++ = kDigits[byte & 0x0F];
        *out++ = ' ';
    }
    out[-1] = '\0';
    LIB_LOGD("%s", row);
}

}  // namespace

void HexTrace(const char* data, int len) {
    if (!__android_log_is_loggable(ANDROID_LOG_DEBUG, kLibTag, ANDROID_LOG_VERBOSE)) return;
    for (int done = 0; done < len; done += kBytesPerRow) {
        const int rest = len - done;
        TraceRow(data + done, rest < kBytesPerRow ? rest : kBytesPerRow);
    }
}

void HexTraceEnds(const char* data, int len, int lastCount, int longestWhole) {
    if (len <= longestWhole) {
        HexTrace(data, len);
        return;
    }
    HexTrace(data, kFirstBytes);
    HexTrace(data + len - lastCount, lastCount);
}
