#include "bench/frame_modem.h"

#include <poll.h>

#include <algorithm>

#include "tools/common/frame_stream.h"
#include "tools/common/packet.h"

namespace {

constexpr uint16_t kOtherCode = 0x1069;
constexpr int kWantedEvery = 10;
constexpr size_t kFramesSize = 1 << 18;
constexpr size_t kWriteSize = 1 << 16;
constexpr int kStopMillis = 50;

// Mostly below 256 bytes, now and then more than a kilobyte; two bytes and some more need escapes.
std::string Payload(int number) {
    std::string payload = {static_cast<char>(kHdlcEscape), static_cast<char>(kHdlcFlag)};
    const int length = number % 9 == 8 ? 1400 : number * 29 % 240;
    for (int i = 0; i < length; ++i)
        AppendByte(payload, static_cast<unsigned char>(number + 13 * i));
    return payload;
}

}  // namespace

FrameModem::FrameModem() {
    for (int number = 0; mFrames.size() < kFramesSize || number % kWantedEvery != 0; ++number) {
        const bool isWanted = number % kWantedEvery == 0;
        const size_t before = mFrames.size();
        AppendFrame(mFrames, SimModem::MakeLogPacket(isWanted ? kWantedCode : kOtherCode,
                                                     Payload(number), 0));
        if (isWanted) mWantedBytes += mFrames.size() - before;
    }
    mThread = std::thread([this] { Serve(); });
}

FrameModem::~FrameModem() {
    mStop = true;
    mThread.join();
}

void FrameModem::Serve() {
    PtyLine::Input input;
    while (!mStop) {
        const bool hasOutput = mBytesLeft > 0 || !mModem.Output().empty();
        pollfd watched{mLine.fd(), static_cast<short>(POLLIN | (hasOutput ? POLLOUT : 0)), 0};
        poll(&watched, 1, kStopMillis);
        while ((watched.revents & POLLIN) != 0 && mLine.Read(&input)) {
            if (input.flushed) mModem.PortOpened();
            mModem.Receive(input.data.data(), input.data.size());
        }
        mIsProgrammed = mModem.HasReports();
        WriteSome();
    }
}

// Whole frames before answers.
void FrameModem::WriteSome() {
    while (mBytesLeft > 0) {
        const size_t at = mFrames.size() - 1 - (mBytesLeft - 1) % mFrames.size();
        const size_t count = mLine.Write(std::string_view(mFrames).substr(at, kWriteSize));
        if (count == 0) return;
        mBytesLeft -= count;
    }
    while (!mModem.Output().empty()) {
        const size_t count = mLine.Write(mModem.Output());
        if (count == 0) return;
        mModem.Consume(count);
    }
}
