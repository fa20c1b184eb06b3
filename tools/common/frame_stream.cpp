#include "tools/common/frame_stream.h"

#include <algorithm>

namespace {

constexpr size_t kFcsLength = 2;

}  // namespace

void AppendFrame(std::string& out, std::string_view packet) {
    const size_t before = out.size();
    auto length = static_cast<unsigned int>(2 * (packet.size() + kFcsLength) + 1);
    out.resize(before + length);
    // The encoder only reads its source.
    auto* source = reinterpret_cast<unsigned char*>(const_cast<char*>(packet.data()));
    tc_cmn_drv_route_ftm_hdlc_encode(source, reinterpret_cast<unsigned char*>(&out[before]),
                                     static_cast<unsigned int>(packet.size()), &length);
    out.resize(before + length);
}

size_t FrameReader::Take(const char* data, size_t len, FrameState* state) {
    *state = FrameState::kIncomplete;
    mPacketLength = 0;
    const char* const flag = FindFrameEnd(data, data + len);
    const size_t taken = flag != nullptr ? static_cast<size_t>(flag - data) + 1 : len;

    const size_t kept = std::min(taken, kDiagAreaSize - mLength);
    memcpy(&mBytes[mLength], data, kept);
    mLength += kept;
    if (kept < taken) mOverlong = true;

    if (flag != nullptr) {
        *state = Finish();
        mLength = 0;
        mOverlong = false;
    }
    return taken;
}

FrameState FrameReader::Finish() {
    if (mOverlong) return FrameState::kOverlong;
    if (mLength == 1) return FrameState::kIncomplete;

    const int unescaped = HdlcUnescape(mBytes.data(), static_cast<int>(mLength));
    // An escape right before the 0x7E aborts the frame: the 0x7E is lost to it.
    const bool closed = static_cast<unsigned char>(mBytes[unescaped - 1]) == kHdlcFlag;
    const size_t length = static_cast<size_t>(unescaped) - (closed ? 1 : 0);
    mPacketLength = length;
    if (!closed || length <= kFcsLength) return FrameState::kBadCheck;

    const size_t packetLength = length - kFcsLength;
    const auto* packet = reinterpret_cast<const unsigned char*>(mBytes.data());
    if (HdlcFcs(packet, static_cast<int>(packetLength)) != ReadLe16(&mBytes[packetLength])) {
        return FrameState::kBadCheck;
    }
    mPacketLength = packetLength;
    return FrameState::kGood;
}
