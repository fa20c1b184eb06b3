// One connection that captures, or not, with every byte accounted for.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "bench/bench_support.h"
#include "bench/frame_modem.h"
#include "bench/rig.h"
#include "bench/runs.h"
#include "tools/common/packet.h"

namespace {

constexpr uint64_t kSlotSize = 16384;  // what the daemon may keep until it has more of it
constexpr auto kLevelLife = std::chrono::milliseconds(1100);  // how long a log level is remembered

const std::string kVersionRequest(1, static_cast<char>(kCmdVersion));

// Has the log packets of FrameModem's wanted code sent to the tool.
std::string ToolMask() {
    constexpr uint32_t kItems = 4095;
    constexpr uint16_t kItem = FrameModem::kWantedCode & 0xFFF;
    std::string packet;
    AppendLe32(packet, kCmdLogConfig);
    AppendLe32(packet, kLogConfigSetMask);
    AppendLe32(packet, FrameModem::kWantedCode >> 12);
    AppendLe32(packet, kItems);
    std::string mask((kItems + 7) / 8, '\0');
    mask[kItem / 8] = static_cast<char>(1 << kItem % 8);
    return packet + mask;
}

uint64_t FramedSize(std::string_view packet) {
    std::string framed;
    AppendFrame(framed, packet);
    return framed.size();
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class Session {
  public:
    Session(const std::string& daemon, Capture capture)
        : mCapture(capture), mDaemon(StartDaemon(daemon)) {
        if (mCapture != Capture::kOff) {
            Await("the modem is programmed", [this] { return mModem.IsProgrammed(); });
        }
        if (mCapture == Capture::kTenthToTool) mForTool += FramedSize(Ask(*mClient, ToolMask()));
        mAnswerSize = FramedSize(Ask(*mClient, kVersionRequest));
        mForTool += mAnswerSize;
    }

    CaptureResult Run(double bytes) {
        Move(kWarmUpBytes);
        CaptureResult result{};
        const double before = mDaemon.CpuSeconds();
        result.seconds = SecondsOf([&] { result.bytes = Move(bytes); });
        result.cpuSeconds = mDaemon.CpuSeconds() - before;
        result.residentMegabytes = mDaemon.ResidentMegabytes();
        result.isComplete = mCapture == Capture::kOff || IsAccounted();
        return result;
    }

  private:
    // Sends at least so many bytes, until tool and flash have them; returns how many.
    double Move(double bytes) {
        const auto times =
            static_cast<uint64_t>(std::ceil(bytes / static_cast<double>(mModem.Frames().size())));
        mSent += times * mModem.Frames().size();
        mModem.SendBeforeNextAnswer(times);
        mClient->Send(kVersionRequest);
        Receive(ToolShare(times) + mAnswerSize);
        if (mCapture != Capture::kOff) AwaitStored();
        return static_cast<double>(times * mModem.Frames().size());
    }

    // Of the frames that the modem sends.
    uint64_t ToolShare(uint64_t times) const {
        switch (mCapture) {
            case Capture::kOff:
                return times * mModem.Frames().size();
            case Capture::kTenthToTool:
                return times * mModem.WantedBytes();
            case Capture::kAllToFlash:
                break;
        }
        return 0;
    }

    // Takes so many bytes, the last of which come when the daemon has handled all that was sent.
    void Receive(uint64_t bytes) {
        constexpr int kLookMillis = 50;
        constexpr auto kLongRun = std::chrono::minutes(2);
        mForTool += bytes;
        std::vector<char> buffer(1 << 18);
        const auto until = DiagClient::Clock::now() + kLongRun;
        while (bytes > 0) {
            pollfd watched{mClient->fd(), POLLIN, 0};
            if (poll(&watched, 1, kLookMillis) == 0) mFlash.RemoveFinished();
            const ssize_t count = read(mClient->fd(), buffer.data(), buffer.size());
            if (count > 0) bytes -= std::min(bytes, static_cast<uint64_t>(count));
            if (count == 0 || DiagClient::Clock::now() > until) {
                throw std::runtime_error("bytes for the tool are missing");
            }
        }
    }

    void AwaitStored() {
        Await("the captured bytes", [&] {
            mFlash.RemoveFinished();
            return mFlash.Bytes() + kSlotSize >= mSent;
        });
    }

    // Ends the connection and compares the daemon's own count with what tool and flash have got.
    // What the capture begins with, an answer to the daemon itself, is not in that count.
    bool IsAccounted() {
        SetProperty(kLogLevel, "D");
        std::this_thread::sleep_for(kLevelLife);
        mClient.reset();
        const std::string report = "ReadDataFromBP:";
        Await("the daemon's count", [&] { return Contains(DaemonLog(), report); });
        const std::string log = DaemonLog();
        const auto counted = [&](const std::string& name) {
            const size_t at = log.find(name + ":", log.rfind(report));
            return std::stoull(log.substr(at + name.size() + 1));
        };
        return !Contains(log, "Data number is not equal") &&
               mFlash.Bytes() == mSent + mFlash.FirstFrameSize() &&
               counted("SavedToFlash") == mSent && counted("WriteToAP") == mForTool &&
               counted("ReadDataFromBP") + counted("LogDataWriteToAp") == mSent + mForTool;
    }

    const Capture mCapture;
    Flash mFlash;
    FrameModem mModem;
    Child mDaemon;
    std::optional<DiagClient> mClient{ConnectFromPc()};
    uint64_t mAnswerSize = 0;  // of the version
    uint64_t mSent = 0;        // bytes of the modem's frames
    uint64_t mForTool = 0;     // bytes that the tool has got
};

}  // namespace

CaptureResult RunCapture(const std::string& daemon, Capture capture, double bytes) {
    SetProperty(kSwitch, capture == Capture::kOff ? "false" : "true");
    const CaptureResult result = Session(daemon, capture).Run(bytes);
    SetProperty(kSwitch, "false");
    return result;
}
