#include "tools/probe/bulk_run.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "tools/common/bulk_pattern.h"
#include "tools/common/frame_stream.h"
#include "tools/common/frame_text.h"
#include "tools/common/packet.h"
#include "tools/common/tool_error.h"

namespace {

using Clock = DiagClient::Clock;

constexpr size_t kReadSize = 1 << 18;
constexpr size_t kSinkAnswerLength = 18;

std::string BulkRequest(char operation, uint64_t count) {
    std::string packet;
    AppendByte(packet, kCmdBulk);
    packet += operation;
    AppendLe64(packet, count);
    return packet;
}

class BulkRun {
  public:
    BulkRun(DiagClient& client, uint64_t upBytes, uint64_t downBytes, Clock::duration idleLimit)
        : mClient(client), mIdleLimit(idleLimit), mUpBytes(upBytes), mDownBytes(downBytes) {
        if (downBytes > 0) AppendFrame(mRequests, BulkRequest(kBulkSource, downBytes));
        if (upBytes > 0) AppendFrame(mRequests, BulkRequest(kBulkSink, upBytes));
        mReport.up.mismatch = kNoMismatch;
        mReport.down.mismatch = kNoMismatch;
    }

    BulkReport Run() {
        const std::string unread = mClient.TakeUnread();
        TakeBytes(unread.data(), unread.size());
        while (!Done()) {
            Wait();
            WriteSome();
            ReadSome();
        }
        mReport.down.bytes = mChecker.received();
        mReport.down.mismatch = mChecker.mismatch();
        return mReport;
    }

  private:
    bool Done() const {
        return mChecker.received() == mDownBytes && (mUpBytes == 0 || mSinkAnswered);
    }

    // What to send next, in one piece.
    std::string_view Unsent() const {
        if (mRequestsSent < mRequests.size()) {
            return std::string_view(mRequests).substr(mRequestsSent);
        }
        return BulkPatternAt(mUpSent, mUpBytes - mUpSent);
    }

    void Wait() const {
        pollfd watched{mClient.fd(), POLLIN, 0};
        if (!Unsent().empty()) watched.events |= POLLOUT;
        const auto limit = std::chrono::ceil<std::chrono::milliseconds>(mIdleLimit);
        const int ready = poll(&watched, 1, static_cast<int>(limit.count()));
        if (ready < 0 && errno != EINTR) throw SystemError("poll");
        if (ready == 0) throw ToolError("bulk: nothing moves any more; {}", Progress());
    }

    void WriteSome() {
        const std::string_view unsent = Unsent();
        if (unsent.empty()) return;
        const ssize_t count = write(mClient.fd(), unsent.data(), unsent.size());
        if (count < 0) {
            if (errno == EAGAIN || errno == EINTR) return;
            throw ToolError("bulk: cannot send: {}; {}", strerror(errno), Progress());
        }
        if (mRequestsSent < mRequests.size()) {
            mRequestsSent += static_cast<size_t>(count);
            return;
        }
        mUpSent += static_cast<uint64_t>(count);
        if (mUpSent < mUpBytes) return;
        // The modem's answer tells the true end, unless it waits behind bytes for us.
        mReport.up.seconds = SecondsPassed();
        mAnswerWaits = mChecker.received() < mDownBytes;
    }

    void ReadSome() {
        const ssize_t count = read(mClient.fd(), mBuffer.data(), mBuffer.size());
        if (count == 0) throw ToolError("bulk: the connection was closed; {}", Progress());
        if (count < 0) {
            if (errno == EAGAIN || errno == EINTR) return;
            throw ToolError("bulk: cannot receive: {}; {}", strerror(errno), Progress());
        }
        TakeBytes(mBuffer.data(), static_cast<size_t>(count));
    }

    void TakeBytes(const char* data, size_t len) {
        const auto raw =
            static_cast<size_t>(std::min<uint64_t>(len, mDownBytes - mChecker.received()));
        mChecker.Check(data, raw);
        if (raw > 0 && mChecker.received() == mDownBytes) mReport.down.seconds = SecondsPassed();
        for (std::string_view framed(data + raw, len - raw); !framed.empty();) {
            FrameState state;
            framed.remove_prefix(mReader.Take(framed.data(), framed.size(), &state));
            if (state != FrameState::kIncomplete) TakeFrame(state);
        }
    }

    void TakeFrame(FrameState state) {
        const std::string_view packet = mReader.packet();
        const bool isSinkAnswer = state == FrameState::kGood &&
                                  packet.size() == kSinkAnswerLength &&
                                  packet.substr(0, 2) == BulkRequest(kBulkSink, 0).substr(0, 2);
        if (!isSinkAnswer) {
            throw ToolError("bulk: unexpected frame: {}; {}", DescribePacket(packet), Progress());
        }
        mReport.up.bytes = ReadLe64(&packet[2]);
        mReport.up.mismatch = ReadLe64(&packet[10]);
        if (!mAnswerWaits) mReport.up.seconds = SecondsPassed();
        mSinkAnswered = true;
    }

    double SecondsPassed() const {
        return std::chrono::duration<double>(Clock::now() - mStart).count();
    }

    std::string Progress() const {
        const std::string wrong =
            mChecker.mismatch() == kNoMismatch
                ? ""
                : fmt::format(", the first wrong one at offset {}", mChecker.mismatch());
        return fmt::format("{} of {} bytes sent, {} of {} received{}", mUpSent, mUpBytes,
                           mChecker.received(), mDownBytes, wrong);
    }

    DiagClient& mClient;
    const Clock::duration mIdleLimit;
    const uint64_t mUpBytes;
    const uint64_t mDownBytes;
    const Clock::time_point mStart = Clock::now();
    std::string mRequests;
    size_t mRequestsSent = 0;
    uint64_t mUpSent = 0;
    bool mSinkAnswered = false;
    bool mAnswerWaits = false;
    BulkChecker mChecker;
    FrameReader mReader;
    BulkReport mReport;
    std::vector<char> mBuffer = std::vector<char>(kReadSize);
};

}  // namespace

BulkReport RunBulk(DiagClient& client, uint64_t upBytes, uint64_t downBytes,
                   DiagClient::Clock::duration idleLimit) {
    return BulkRun(client, upBytes, downBytes, idleLimit).Run();
}
