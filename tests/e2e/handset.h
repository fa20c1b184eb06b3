// The world around the daemon, inside a private handset (scripts/handset) only. A limit is the
// longest time that a call may take.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tools/common/frame_stream.h"
#include "tools/common/packet.h"

namespace e2e {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using testing::AssertionResult;

inline constexpr milliseconds kLimit{30000};
inline constexpr char kLogSwitch[] = "persist.vendor.factory.diagdebug";
inline constexpr char kModemPort[] = "/dev/ttydiag0";
inline constexpr char kMaskProperty[] = "persist.vendor.factory.logmask";
inline const std::string kMaskDirectory = "/vendor/etc/quillod/cfg/";
inline const std::string kCaptureDirectory = "/data/misc/radio/";
inline const std::string kRecordFile = kCaptureDirectory + "record.txt";

// The daemon's log says these when a tool can connect, and when the modem port is open and set up.
inline constexpr char kListens[] = "Listening for connections on socket";
inline constexpr char kRelayStarts[] = "AP <-- BP: CircularBufferExt init start";

// What the daemon sends to switch the modem's logging off.
inline const std::string kDisableRequests(
    "\x73\0\0\0\0\0\0\0\xDA\x81\x7E"
    "\x7D\x5D\x05\0\0\0\0\0\0\x74\x41\x7E"
    "\x60\0\x12\x6A\x7E",
    28);

// A string of bytes that may hold 0.
template <size_t kSize>
std::string Bytes(const char (&literal)[kSize]) {
    return {literal, kSize - 1};
}

inline std::string Frame(const std::string& packet) {
    std::string framed;
    AppendFrame(framed, packet);
    return framed;
}

// Log configuration 0x73, operation 3, of one equipment id.
inline std::string SetMask(uint32_t id, const std::string& mask) {
    std::string packet = Bytes("\x73\0\0\0\3\0\0\0");
    AppendLe32(packet, id);
    AppendLe32(packet, static_cast<uint32_t>(8 * mask.size()));
    return Frame(packet + mask);
}

// count bytes without 0x4B: the one command that the daemon alters on its way begins with it.
std::string Pattern(size_t count, unsigned seed);
// Whether both are equal; tells the lengths and the first difference otherwise.
AssertionResult Same(const std::string& expected, const std::string& actual);
// Looks at condition every few milliseconds.
bool WaitUntil(const std::function<bool()>& condition);

void SetLink(bool isUp);
// Whether link events reach the daemon with root's credentials: not in an ordinary user's handset.
bool LinkEventsArrive();
void SetProperty(const std::string& name, const std::string& value);
std::string Contents(const std::string& path);
void Store(const std::string& path, const std::string& bytes);
std::vector<std::string> CaptureFiles();  // oldest first
std::string Captured();                   // all bytes of these

// One end of a connection.
class Stream {
  public:
    ~Stream() { Close(); }

    // Sends all; false when the peer did not take it within the limit, or is gone.
    bool Send(const std::string& bytes);
    // Sends what is taken without waiting; returns how much.
    size_t SendSome(const char* bytes, size_t count);
    // Returns fewer bytes only after the limit, or at the end of the stream.
    std::string ReceiveExactly(size_t count, milliseconds limit = kLimit);
    std::string ReceiveAvailable() { return ReceiveExactly(SIZE_MAX, milliseconds(0)); }
    bool WaitForClose();  // false when bytes come before the end of the stream
    void Close() {
        if (mFd != -1) close(mFd);
        mFd = -1;
    }

  protected:
    int mFd = -1;  // does not block
};

// The modem's end of a raw line that stays open between the daemon's connections, as a real one
// does: a descriptor of the port's end is kept, too.
class Modem : public Stream {
  public:
    Modem();
    ~Modem() {
        unlink(kModemPort);
        close(mPortFd);
    }

    void Appear();  // as the daemon's port; so it is from the start
    void Disappear() { unlink(kModemPort); }
    void FillLine();  // puts bytes on the line towards the modem until it holds no more

    int PortFd() const { return mPortFd; }

  private:
    int mPortFd = -1;
    std::string mPortName;
};

// Serves the modem's end of the line on a thread of its own: keeps what comes and sends the answer
// to each frame, the empty one included. An empty answer is none.
class AnsweringModem {
  public:
    using Answer = std::function<std::string(const std::string& frame)>;

    AnsweringModem(Modem& line, Answer answer)
        : mLine(line), mAnswer(std::move(answer)), mThread([this] { Serve(); }) {}
    ~AnsweringModem() {
        mStops = true;
        mThread.join();
    }

    std::string Received() {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mReceived;
    }
    // Waits until expected has come, and forgets it.
    AssertionResult TakeReceived(const std::string& expected) {
        WaitUntil([&] { return Received().size() >= expected.size(); });
        const std::lock_guard<std::mutex> lock(mMutex);
        return Same(expected, std::exchange(mReceived, ""));
    }

  private:
    void Serve() {
        std::string frame;
        while (!mStops) {
            std::string bytes = mLine.ReceiveExactly(1, milliseconds(20));
            if (bytes.empty()) continue;
            bytes += mLine.ReceiveAvailable();
            {
                const std::lock_guard<std::mutex> lock(mMutex);
                mReceived += bytes;
            }
            for (const char byte : bytes) {
                frame += byte;
                if (byte != '\x7E') continue;
                const std::string answer = mAnswer(frame);
                if (!answer.empty()) mLine.Send(answer);
                frame.clear();
            }
        }
    }

    Modem& mLine;
    const Answer mAnswer;
    std::mutex mMutex;
    std::string mReceived;  // mMutex
    std::atomic<bool> mStops{false};
    std::thread mThread;
};

class Tool : public Stream {
  public:
    // bufferSize: of the socket, in bytes each way; 0 leaves the system's.
    explicit Tool(int bufferSize = 0) : mBuffer(bufferSize) {}
    int Connect();  // from the PC's side; returns 0 or the errno of the failure

  private:
    const int mBuffer;
};

// One run of the built daemon. Stopping it, as the destructor does, fails the test when it had
// ended by itself or a sanitizer complained.
class Daemon {
  public:
    ~Daemon() { Stop(); }

    void Start();
    void Stop();
    void Signal(int signal) const { EXPECT_EQ(0, kill(mPid, signal)); }

    // Looks for text in the log behind the last match (or the start), which it becomes then.
    bool TakeFromLog(const std::string& text);
    // Waits for that.
    AssertionResult WaitForLog(const std::string& text);
    int LogCount(const std::string& text);
    const std::string& Log();
    // The path of /proc/PID/name.
    std::string Proc(const std::string& name) const {
        return "/proc/" + std::to_string(mPid) + "/" + name;
    }

  private:
    pid_t mPid = -1;
    std::string mLogPath;
    std::string mLog;         // read so far
    size_t mBehindMatch = 0;  // in mLog
};

// A handset with its modem in place, the link up and no files; the daemon is not started.
class HandsetTest : public testing::Test {
  public:
    HandsetTest();
    ~HandsetTest() override;

    // Connects the tool to the listening daemon and waits until its relay starts.
    AssertionResult Attach(Tool& tool);
    // The same with a daemon that it starts.
    AssertionResult Serve(Tool& tool);
    // Closes the tool's connection and waits for its end.
    AssertionResult Finish(Tool& tool) {
        tool.Close();
        return daemon.WaitForLog(kListens);
    }
    // A few bytes each way.
    AssertionResult Exchange(Tool& tool) {
        const std::string request = "a request";
        const std::string answer = "the answer";
        tool.Send(request);
        const std::string atModem = modem.ReceiveExactly(request.size());
        modem.Send(answer);
        return Same(request + answer, atModem + tool.ReceiveExactly(answer.size()));
    }

    static void Switch(bool isOn) { SetProperty(kLogSwitch, isOn ? "true" : "false"); }
    // During a connection; waits until the daemon has done all that the change brings.
    AssertionResult SwitchAndWait(bool isOn) {
        Switch(isOn);
        return daemon.WaitForLog(std::string("E libquillod: end gLogEnable:") + (isOn ? "1" : "0"));
    }

    Modem modem;
    Daemon daemon;
    Tool tool;
};

// The name of a table's row.
template <typename Case>
std::string NameOf(const testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

}  // namespace e2e
