#include "tools/capture/capture_reader.h"

#include <cstring>
#include <utility>

#include "tools/common/packet.h"

namespace {

constexpr size_t kFcsLength = 2;
constexpr size_t kLongestFrame = 1 << 20;  // longer stretches without 0x7E are no DIAG frame

// Whether a capture can hold such a packet; anything else at a file's start is a frame's rest.
bool BeginsCapturedFrame(const CaptureFrame& frame) {
    if (frame.packet.empty()) return false;
    return KindOf(frame.packet) != PacketKind::kAnswer || CommandOf(frame.packet) == kCmdTimeStamp;
}

}  // namespace

void CaptureReader::BeginFile(const std::string& name, uint64_t offset) {
    if (!mCurrent.bytes.empty()) {
        EndCarried();
        mCarried = std::move(mCurrent);
    }
    mCurrent = {name, offset, ""};
    mIsFirst = offset == 0;
}

bool CaptureReader::Take(std::string_view bytes) {
    while (!bytes.empty()) {
        const char* const flag = FindFrameEnd(bytes.data(), bytes.data() + bytes.size());
        if (flag == nullptr) {
            mCurrent.bytes.append(bytes);
            return true;
        }
        const auto taken = static_cast<size_t>(flag - bytes.data()) + 1;
        std::string_view raw = bytes.substr(0, taken);
        if (!mCurrent.bytes.empty()) raw = mCurrent.bytes.append(raw);
        if (!EndFrame(raw)) return false;
        mCurrent.offset += raw.size();
        mCurrent.bytes.clear();
        bytes.remove_prefix(taken);
    }
    return true;
}

void CaptureReader::Finish() {
    BeginFile("");
    EndCarried();
}

// Tells of the frame raw, which ends with its 0x7E.
bool CaptureReader::EndFrame(std::string_view raw) {
    const bool isFirst = std::exchange(mIsFirst, false);
    if (!mCarried.bytes.empty()) {
        const std::string whole = mCarried.bytes + std::string(raw);
        CaptureFrame joined{CaptureCheck::kGood, mCarried.file, mCarried.offset, whole.size(), {}};
        if (Decode(whole, &joined)) {
            mCarried.bytes.clear();
            return mTaker(joined);
        }
        if (!EndCarried()) return false;
    }
    if (raw.size() == 1) return true;

    CaptureFrame frame{CaptureCheck::kGood, mCurrent.file, mCurrent.offset, raw.size(), {}};
    if (!Decode(raw, &frame)) {
        const bool isRest = isFirst && !BeginsCapturedFrame(frame);
        frame.check = isRest ? CaptureCheck::kCutAtStart : CaptureCheck::kBad;
    }
    return mTaker(frame);
}

// Gives up what the files before ended with, if anything.
bool CaptureReader::EndCarried() {
    if (mCarried.bytes.empty()) return true;
    const Piece carried = std::exchange(mCarried, {});
    return mTaker({CaptureCheck::kCutAtEnd, carried.file, carried.offset, carried.bytes.size(),
                   Unescape(carried.bytes)});
}

// The frame un-escaped, with its 0x7E unless an escape right before took that. Valid until the next
// call, or as long as raw.
std::string_view CaptureReader::Unescape(std::string_view raw) {
    if (raw.size() > kLongestFrame) return {};
    if (memchr(raw.data(), kHdlcEscape, raw.size()) == nullptr) return raw;
    mPlain.assign(raw).push_back('\0');
    const int length = HdlcUnescape(mPlain.data(), static_cast<int>(raw.size()));
    return {mPlain.data(), static_cast<size_t>(length)};
}

// Sets the packet, with a bad check sequence too; returns whether that is good.
bool CaptureReader::Decode(std::string_view raw, CaptureFrame* frame) {
    std::string_view plain = Unescape(raw);
    const bool closed = !plain.empty() && CommandOf({&plain.back(), 1}) == kHdlcFlag;
    if (closed) plain.remove_suffix(1);
    frame->packet = plain.substr(0, plain.size() - std::min(plain.size(), kFcsLength));
    if (!closed || frame->packet.empty()) return false;
    const auto* packet = reinterpret_cast<const unsigned char*>(plain.data());
    return HdlcFcs(packet, static_cast<int>(frame->packet.size())) ==
           ReadLe16(&plain[frame->packet.size()]);
}
