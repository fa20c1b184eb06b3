// One connection that captures, or not, with every byte accounted for.
#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "bench/runs.h"
#include "tools/common/mask_requests.h"
#include "tools/common/packet.h"
#include "tools/modem/modem_end.h"
#include "tools/modem/sim_modem.h"

namespace {

constexpr uint16_t kWantedCode = 0x117C;
constexpr uint16_t kOtherCode = 0x1069;
constexpr int kWantedEvery = 10;
constexpr uint64_t kSlotSize = 16384;  // what the daemon may keep until it has more of it

const std::string kVersionRequest(1, static_cast<char>(kCmdVersion));

bool LogHas(const std::string& text) {
    std::ostringstream log;
    log << std::ifstream(kDaemonLog).rdbuf();
    return log.str().find(text) != std::string::npos;
}

// Has the log packets of kWantedCode sent to the tool.
std::string ToolMask() {
    SetMaskRequest request = SetMaskRequestsFor({kWantedCode}).front();
    request.bits = kLogItemCounts[request.id];
    request.mask.resize(LogMaskBytes(request.bits));
    return MakeSetMask(request);
}

uint64_t FramedSize(std::string_view packet) {
    std::string framed;
    AppendFrame(framed, packet);
    return framed.size();
}

// Mostly below 256 bytes, now and then more than a kilobyte; two bytes and some more need escapes.
std::string Payload(int number) {
    std::string payload = {static_cast<char>(kHdlcEscape), static_cast<char>(kHdlcFlag)};
    const int length = number % 9 == 8 ? 1400 : number * 29 % 240;
    for (int i = 0; i < length; ++i)
        AppendByte(payload, static_cast<unsigned char>(number + 13 * i));
    return payload;
}

// Log packets, of which one in ten has kWantedCode.
struct Frames {
    Frames() {
        constexpr size_t kSize = 1 << 18;
        for (int number = 0; bytes.size() < kSize || number % kWantedEvery != 0; ++number) {
            const bool isWanted = number % kWantedEvery == 0;
            const size_t before = bytes.size();
            AppendFrame(bytes, SimModem::MakeLogPacket(isWanted ? kWantedCode : kOtherCode,
                                                       Payload(number), 0));
            if (isWanted) wantedSize += bytes.size() - before;
        }
    }

    std::string bytes;
    uint64_t wantedSize = 0;
};

// Sends frames as fast as the line takes them, and answers requests like the simulated modem, on a
// thread of its own.
class FrameModem {
  public:
    explicit FrameModem(const std::string& frames) : mFrames(frames) {}
    FrameModem(const FrameModem&) = delete;
    FrameModem& operator=(const FrameModem&) = delete;
    ~FrameModem() {
        mStop = true;
        mThread.join();
    }

    // Whether some logging has been switched on.
    bool IsProgrammed() const { return mIsProgrammed; }

    // Lets the next request be answered behind so many times all frames.
    void SendBeforeNextAnswer(uint64_t times) { mBytesLeft = times * mFrames.size(); }

  private:
    void Serve() {
        constexpr int kStopMillis = 50;
        ModemEnd::Input input;
        while (!mStop) {
            const bool hasOutput = mBytesLeft > 0 || !mModem.Output().empty();
            pollfd watched{mLine.fd(), static_cast<short>(POLLIN | (hasOutput ? POLLOUT : 0)), 0};
            poll(&watched, 1, kStopMillis);
            while ((watched.revents & POLLIN) != 0 && mLine.Read(&input)) {
                if (input.flushed) mModem.PortOpened();
                mModem.Receive(input.data.data(), input.data.size());
            }
            mIsProgrammed = mModem.HasReports();
            while (WriteSome())
                continue;
        }
    }

    // Whole frames before answers; false when the line is full or nothing is left.
    bool WriteSome() {
        constexpr size_t kWriteSize = 1 << 16;
        if (mBytesLeft > 0) {
            const size_t at = mFrames.size() - 1 - (mBytesLeft - 1) % mFrames.size();
            const size_t count = mLine.Write(std::string_view(mFrames).substr(at, kWriteSize));
            mBytesLeft -= count;
            return count > 0;
        }
        const size_t count = mModem.Output().empty() ? 0 : mLine.Write(mModem.Output());
        mModem.Consume(count);
        return count > 0;
    }

    const std::string& mFrames;
    ModemEnd mLine{ModemEnd::Kind::kPty, kModemPort};
    SimModem mModem{{}};
    std::atomic<bool> mIsProgrammed{false};
    std::atomic<uint64_t> mBytesLeft{0};  // of the frames
    std::atomic<bool> mStop{false};
    std::thread mThread{[this] { Serve(); }};
};

class Session {
  public:
    Session(const Contender& daemon, Capture capture)
        : mCapture(capture), mDaemon(daemon.start()), mClient(Connect()) {
        if (mCapture == Capture::kOff) {
            mToolShare = mFrames.bytes.size();
        } else {
            Await("the modem is programmed", [this] { return mModem.IsProgrammed(); });
        }
        if (mCapture == Capture::kTenthToTool) {
            mToolShare = mFrames.wantedSize;
            mForTool += FramedSize(Ask(*mClient, ToolMask()));
        }
        mAnswerSize = FramedSize(Ask(*mClient, kVersionRequest));
        mForTool += mAnswerSize;
    }

    CaptureCost Run(double bytes) {
        Move(kWarmUpBytes);
        CaptureCost cost{};
        const double before = mDaemon.CpuSeconds();
        cost.seconds = SecondsOf([&] { cost.bytes = Move(bytes); });
        cost.cpuSeconds = mDaemon.CpuSeconds() - before;
        cost.residentMegabytes = mDaemon.ResidentMegabytes();
        if (mCapture != Capture::kOff) CheckAccounts();
        return cost;
    }

  private:
    // Sends at least so many bytes, until tool and flash have them; returns how many.
    double Move(double bytes) {
        const uint64_t size = mFrames.bytes.size();
        const auto times = static_cast<uint64_t>(std::ceil(bytes / static_cast<double>(size)));
        mSent += times * size;
        mModem.SendBeforeNextAnswer(times);
        mClient->Send(kVersionRequest);
        Receive(times * mToolShare + mAnswerSize);
        if (mCapture != Capture::kOff) {
            Await("the captured bytes", [&] { return CapturedBytes() + kSlotSize >= mSent; });
        }
        return static_cast<double>(times * size);
    }

    // Takes so many bytes, the last of which come when the daemon has handled all that was sent.
    void Receive(uint64_t bytes) {
        constexpr int kIdleMillis = 120000;
        mForTool += bytes;
        std::vector<char> buffer(1 << 18);
        while (bytes > 0) {
            pollfd watched{mClient->fd(), POLLIN, 0};
            poll(&watched, 1, kIdleMillis);
            const ssize_t count = read(mClient->fd(), buffer.data(), buffer.size());
            if (count <= 0) throw std::runtime_error("bytes for the tool are missing");
            bytes -= std::min(bytes, static_cast<uint64_t>(count));
        }
    }

    // Ends the connection and compares the daemon's own count with what tool and flash have got.
    // What the capture begins with, an answer to the daemon itself, is not in that count.
    void CheckAccounts() {
        constexpr auto kLevelLife = std::chrono::milliseconds(1100);  // a log level is remembered
        SetProperty(kLogLevel, "D");
        std::this_thread::sleep_for(kLevelLife);
        mClient.reset();
        Await("the daemon's count", [] { return LogHas("mTotalLengthForLogDataWriteToAp"); });
        std::string firstFrame;
        std::ifstream file(CaptureFiles().front(), std::ios::binary);
        std::getline(file, firstFrame, static_cast<char>(kHdlcFlag));
        if (!LogHas(fmt::format("SavedToFlash:{}, WriteToAP:{},", mSent, mForTool)) ||
            LogHas("Data number is not equal") ||
            CapturedBytes() != mSent + firstFrame.size() + 1) {
            throw std::runtime_error("captured bytes are unaccounted for");
        }
    }

    const Capture mCapture;
    const Frames mFrames;
    FrameModem mModem{mFrames.bytes};
    const Child mDaemon;
    std::optional<DiagClient> mClient;
    uint64_t mToolShare = 0;   // bytes of the frames that the tool gets
    uint64_t mAnswerSize = 0;  // of the version
    uint64_t mSent = 0;        // bytes of the modem's frames
    uint64_t mForTool = 0;     // bytes that the tool has got
};

}  // namespace

CaptureCost RunCapture(const Contender& daemon, Capture capture, double bytes) {
    ClearFlash();
    SetProperty(kLogSwitch, capture == Capture::kOff ? "false" : "true");
    return Session(daemon, capture).Run(bytes);
}
