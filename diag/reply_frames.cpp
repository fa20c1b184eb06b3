#include "diag/reply_frames.h"

#include "diag/hdlc.h"

namespace {

// The modem refuses a command with one of these codes and the command: not known, bad parameters,
// bad length, bad mode and more.
constexpr unsigned char kFirstErrorCode = 0x13;
constexpr unsigned char kLastErrorCode = 0x18;

}  // namespace

void ReplyFrames::Expect(const char* request, int len) {
    mCommand = len > 0 ? static_cast<unsigned char>(request[0]) : kHdlcFlag;
    if (mCommand == kHdlcEscape && len > 1) {
        mCommand = static_cast<unsigned char>(request[1]) ^ kHdlcEscapeXor;
    } else if (mCommand == kHdlcFlag) {
        mCommand = kNone;
    }
}

bool ReplyFrames::Take(const char* data, int len) {
    bool hasAnswer = false;
    for (int i = 0; i < len; ++i) {
        const auto byte = static_cast<unsigned char>(data[i]);
        if (byte != kHdlcFlag) {
            TakeHead(byte);
            continue;
        }
        hasAnswer = hasAnswer || IsAnswer();
        Reset();
    }
    return hasAnswer;
}

void ReplyFrames::TakeHead(unsigned char byte) {
    if (mHeadLength == 2) return;
    if (byte == kHdlcEscape && !mIsEscaped) {
        mIsEscaped = true;
        return;
    }
    mHead[mHeadLength++] = mIsEscaped ? byte ^ kHdlcEscapeXor : byte;
    mIsEscaped = false;
}

bool ReplyFrames::IsAnswer() const {
    if (mHeadLength < 1) return false;
    const bool isError = mHead[0] >= kFirstErrorCode && mHead[0] <= kLastErrorCode;
    return mHead[0] == mCommand || (mHeadLength == 2 && isError && mHead[1] == mCommand);
}

void ReplyFrames::Reset() {
    mHeadLength = 0;
    mIsEscaped = false;
}
