#include "tools/common/bulk_pattern.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace {

constexpr size_t kBlockLength = 1048583;  // the first prime above 2^20
constexpr unsigned char kForbidden = 0x4B;

std::string MakeBlock() {
    std::string block(kBlockLength, '\0');
    uint32_t state = 0x2545F491;
    for (char& c : block) {
        // xorshift32
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        auto byte = static_cast<unsigned char>(state >> 24);
        if (byte == kForbidden) byte ^= 0xFF;
        c = static_cast<char>(byte);
    }
    return block;
}

}  // namespace

std::string_view BulkPatternAt(uint64_t offset, uint64_t count) {
    static const std::string block = MakeBlock();
    return std::string_view(block).substr(offset % kBlockLength, count);
}

void BulkChecker::Check(const char* data, size_t len) {
    while (len > 0) {
        const std::string_view wanted = BulkPatternAt(mReceived, len);
        if (mMismatch == kNoMismatch && memcmp(data, wanted.data(), wanted.size()) != 0) {
            const auto* wrong = std::mismatch(wanted.begin(), wanted.end(), data).second;
            mMismatch = mReceived + static_cast<uint64_t>(wrong - data);
        }
        mReceived += wanted.size();
        data += wanted.size();
        len -= wanted.size();
    }
}
