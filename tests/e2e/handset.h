// The world around the daemon, for end-to-end tests: the daemon as a process, the modem on a pty,
// the tool on the PC's side of the USB link, the link and the properties. All of it works inside a
// private handset (scripts/handset) only. A limit is the longest time that a call may take.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>

namespace e2e {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using testing::AssertionResult;

inline constexpr milliseconds kLimit{30000};
inline constexpr char kLogSwitch[] = "persist.vendor.factory.diagdebug";

// The daemon's log says these when a tool can connect, when the modem port is open and set up, and
// each time a peer takes nothing.
inline constexpr char kListens[] = "Listening for connections on socket";
inline constexpr char kRelayStarts[] = "AP <-- BP: CircularBufferExt init start";
inline constexpr char kWriteStalls[] = "write error, try again";

// count bytes, the same for the same seed, without 0x4B: the one command that the daemon alters on
// its way begins with it.
std::string Pattern(size_t count, unsigned seed);

// Whether both are equal; tells the lengths and the first difference otherwise.
AssertionResult Same(const std::string& expected, const std::string& actual);

// Looks at condition every few milliseconds.
bool WaitUntil(const std::function<bool()>& condition, milliseconds limit = kLimit);

void SetLink(bool isUp);

// Whether the kernel's link events reach the daemon with root's credentials: not in the handset of
// an ordinary user.
bool LinkEventsArrive();

// Whether some socket of the handset listens on the daemon's port.
bool IsPortListening();

void SetProperty(const std::string& name, const std::string& value);

// Waits until the daemon has read the property's present value count times.
AssertionResult WaitForPropertyReads(const std::string& name, int count);

// One end of a connection.
class Stream {
  public:
    Stream() = default;
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    ~Stream() { Close(); }

    // Sends all; false when the peer did not take it within the limit, or is gone.
    bool Send(const std::string& bytes, milliseconds limit = kLimit);
    // Sends what is taken without waiting; returns how much.
    size_t SendSome(const char* bytes, size_t count);
    // Returns fewer bytes only after the limit, or at the end of the stream.
    std::string ReceiveExactly(size_t count, milliseconds limit = kLimit);
    std::string ReceiveAvailable() { return ReceiveExactly(SIZE_MAX, milliseconds(0)); }
    // Waits for the end of the stream; bytes before it are a failure.
    AssertionResult WaitForClose(milliseconds limit = kLimit);
    bool IsOpen() const { return mFd != -1; }
    void Close();

  protected:
    int mFd = -1;  // does not block
};

// The modem's end of a raw line that stays open between the daemon's connections, as a real one
// does: a descriptor of the port's end is kept, too.
class Modem : public Stream {
  public:
    Modem();
    ~Modem();

    void Appear();  // as the daemon's port; so it is from the start
    void Disappear();
    void Replace();  // hangs up, and appears with a new line
    // Sets the line up as badly as a terminal can be for binary data.
    void SpoilLine();
    // Puts bytes on the line towards the modem until it holds no more.
    void FillLine();

    int PortFd() const { return mPortFd; }

  private:
    void OpenLine();

    int mPortFd = -1;
    std::string mPortName;
};

class Tool : public Stream {
  public:
    enum class Side { kPc, kHandset };

    // bufferSize: of the socket, in bytes each way; 0 leaves the system's.
    explicit Tool(int bufferSize = 0, Side side = Side::kPc) : mBuffer(bufferSize), mSide(side) {}

    // Returns 0 or the errno of the failure, ETIMEDOUT after the limit among them.
    int Connect(const char* address = "192.168.42.129", milliseconds limit = kLimit);
    void Reset();  // ends the connection with a reset

  private:
    const int mBuffer;
    const Side mSide;
};

// One run of the built daemon. Stopping it, as the destructor does, fails the test when it had
// ended by itself or a sanitizer complained.
class Daemon {
  public:
    Daemon() = default;
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    ~Daemon() { Stop(); }

    void Start();
    void Stop();
    void Signal(int signal) const;

    // Waits for text in the log behind the last match (or the start).
    AssertionResult WaitForLog(const std::string& text, milliseconds limit = kLimit);
    int LogCount(const std::string& text);
    const std::string& Log();

    std::string StatusField(const std::string& name) const;  // of /proc/PID/status
    std::string LinkTarget(const std::string& name) const;   // of /proc/PID/name
    std::chrono::nanoseconds CpuTime() const;

  private:
    std::string Tail();

    pid_t mPid = -1;
    std::string mLogPath;
    std::string mLog;         // read so far
    size_t mBehindMatch = 0;  // in mLog
};

// A handset with its modem in place and the link up; the daemon is not started.
class HandsetTest : public testing::Test {
  public:
    ~HandsetTest() override;

    // Connects the tool to the listening daemon and waits until its relay starts.
    AssertionResult Attach(Tool& tool);
    // The same after waiting for the daemon to listen.
    AssertionResult Serve(Tool& tool);
    // A few bytes each way.
    AssertionResult Exchange(Tool& tool);

    Modem modem;
    Daemon daemon;
};

// The name of a table's row.
template <typename Case>
std::string NameOf(const testing::TestParamInfo<Case>& info) {
    return info.param.name;
}

}  // namespace e2e
