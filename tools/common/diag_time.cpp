#include "tools/common/diag_time.h"

namespace {

constexpr int64_t kEpoch = 315964800;   // 1980-01-06 00:00 UTC, in seconds since 1970
constexpr uint64_t kTickMicros = 1250;  // one unit of the upper part
constexpr uint64_t kTickParts = 51200;  // 1.25 ms in 1/40960 ms

}  // namespace

uint64_t DiagTimeStamp(std::chrono::system_clock::time_point time) {
    const auto sinceEpoch = time.time_since_epoch() - std::chrono::seconds(kEpoch);
    const auto micros = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(sinceEpoch).count());
    return (micros / kTickMicros) << 16 | micros % kTickMicros * kTickParts / kTickMicros;
}

std::chrono::microseconds DiagTimeSince1970(uint64_t stamp) {
    const uint64_t micros =
        (stamp >> 16) * kTickMicros + (stamp & 0xFFFF) * kTickMicros / kTickParts;
    return std::chrono::seconds(kEpoch) + std::chrono::microseconds(micros);
}
