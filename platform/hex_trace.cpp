#include "platform/hex_trace.h"

#include "platform/tagged_log.h"

namespace {

constexpr int kBytesPerRow = 20;
constexpr int kFirstBytes = 60;
constexpr int kLongestWhole = 200;

void TraceRow(const char* data, int len) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    char row[3 * kBytesPerRow];
    for (int i = 0; i < len; ++i) {
        const auto byte = static_cast<unsigned char>(data[i]);
        row[3 * i] = kDigits[byte >> 4];
        row[3 * i + 1] = kDigits[byte & 0x0F];
        row[3 * i + 2] = ' ';
    }
    row[3 * len - 1] = '\0';
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

void HexTraceEnds(const char* data, int len, int lastCount) {
    if (len <= kLongestWhole) {
        HexTrace(data, len);
        return;
    }
    HexTrace(data, kFirstBytes);
    HexTrace(data + len - lastCount, lastCount);
}
