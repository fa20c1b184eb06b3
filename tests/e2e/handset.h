// The world around the daemon, inside a private handset (scripts/handset) only: the modem's line,
// the PC's tool, the daemon as a process. All on one thread: bytes move, and the modem answers,
// only while Until waits.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "tests/support/bytes.h"
#include "tools/common/diag_client.h"
#include "tools/common/handset.h"
#include "tools/modem/modem_end.h"

namespace e2e {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using testing::AssertionResult;

// In the virtual handset (scripts/virtual-handset), with USB and the modem's end of its port; slow.
inline const bool isVirtual = access("/bin/usb", X_OK) == 0;
inline constexpr char kVirtualModem[] = "/dev/ttyGS0";

inline constexpr milliseconds kLimit{30000};  // for what must happen
// From a relay's end to the next connection, and from what ends it, behind 2 s of tries.
inline const milliseconds kEndBound{isVirtual ? 10000 : 5000};
inline const milliseconds kTriesBound{isVirtual ? 14000 : 7000};

inline const std::string kMaskFile = kMaskDirectory + std::string("DIAG.cfg");

// The daemon's own requests: of the log-mask file, and to switch the modem's logging off.
inline const std::string kFileMask = Framed(SetMask(4, "\x03"));
inline const std::string kDisableRequests =
    Hex("73 00 00 00 00 00 00 00 DA 81 7E 7D 5D 05 00 00 00 00 00 00 74 41 7E 60 00 12 6A 7E");
// The tool's first request: the log codes 0x1000 and 0x117E.
inline const std::string kToolMask = Framed(SetMask(1, MaskOf({0x000, 0x17E})));

void SetLink(bool isUp);
std::string Captured();  // all bytes of the capture files
// What came to the modem, without the daemon's own requests above.
std::string WithoutOwnRequests(std::string atModem);

// What one end of the relay has to send, and what it got.
struct Side {
    void Send(const std::string& bytes);   // behind what still waits
    void Flood(const std::string& bytes);  // over and over, instead
    size_t StopFlood();                    // after a whole one; returns how many there are in all
    bool HasMore() const { return sent < end; }
    void WriteSome(int fd);
    short Wanted() const;  // events now

    std::string out;
    uint64_t sent = 0;       // of out again and again ...
    uint64_t end = 0;        // ... up to here
    size_t burst = 1 << 16;  // so much at once ...
    milliseconds pause{0};   // ... so far apart
    Clock::time_point nextWrite;
    bool takes = true;       // what comes ...
    size_t most = 1 << 16;   // ... from the tool's socket, so much at once ...
    milliseconds rest{0};    // ... so far apart
    Clock::time_point next;  // not before this moment
    std::string in;
};

// With its modem in place, the link up and no files; the daemon is not started.
class Handset {
  public:
    Handset();
    ~Handset();

    // Moves bytes until condition holds; throws what otherwise.
    void Until(const std::string& what, const std::function<bool()>& condition,
               milliseconds limit = kLimit);
    // Until side got so much; whether that was expected. Forgets it.
    AssertionResult Gets(Side& side, const std::string& expected);

    void StartDaemon();  // and waits until it listens
    void StopDaemon();   // fails the test when it had ended by itself
    pid_t Pid() const { return mPid; }
    std::string Proc(const std::string& name) const {
        return "/proc/" + std::to_string(mPid) + "/" + name;
    }
    bool IsListening() const;
    // Within kEndBound from the relay's end, as the log tells it, and within bound from since.
    void UntilListening(Clock::time_point since = Clock::now(), milliseconds bound = kEndBound);
    const std::string& Log();
    void UntilLogged(const std::string& text, size_t from = 0);  // at from or later
    void UntilStalled();  // a peer takes nothing of what the daemon has for it

    // Puts the switch there and waits until a daemon that runs has seen it.
    void Switch(bool isOn);

    // Connects from the PC, or for 127.* from the handset.
    static DiagClient Dial(const char* host, milliseconds limit);
    void Connect();  // from the PC, until the daemon has accepted
    void Attach();   // and until the tool's first request came to the modem
    void AttachAgain() {
        UntilListening();
        Attach();
    }
    void Start(bool isOn) {
        Switch(isOn);
        StartDaemon();
        Attach();
    }
    AssertionResult Exchange();  // some bytes go each way, and nothing else
    // Shuts the tool's side down and waits for the end of the daemon's, where the capture is whole.
    void Finish();
    void CloseTool() { mTool.reset(); }
    void UntilClosed() {
        Until("the tool's end", [this] { return !mTool; });
    }
    int ToolFd() const { return mTool->fd(); }

    void MakeLine();  // anew
    void BreakLine();
    int LineFd() const { return mLine->fd(); }
    size_t FillLine();  // puts bytes on the line towards the modem until it holds no more

    size_t UpTo(size_t limit) { return 1 + random() % limit; }

    Side modem;
    Side tool;
    std::string begun;       // what came to the modem before the tool's first request
    bool isServing = false;  // the tool's first request has come
    bool isMute = false;     // the modem answers nothing
    // The modem's to each frame; from the start to the daemon's own requests, before a tool is
    // served and at its end.
    std::function<std::string(const std::string& frame)> answer;
    bool captures = false;  // as switched last
    std::minstd_rand random;
    milliseconds slowest{0};  // of UntilListening, from the relay's end

  private:
    void TakeFromModem();
    void TakeFromTool();

    std::optional<ModemEnd> mLine;
    std::optional<DiagClient> mTool;
    std::string mFrame;  // under way to the modem
    pid_t mPid = -1;
    std::string mLogPath;
    std::string mLog;       // read so far
    size_t mConnected = 0;  // at which size of it the last connection began
};

struct HandsetTest : testing::Test, Handset {};

}  // namespace e2e
