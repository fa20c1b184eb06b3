#include "tests/e2e/handset.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <utility>

#include "tools/common/tool_error.h"

namespace e2e {

namespace fs = std::filesystem;

void SetLink(bool isUp) {
    if (system(isUp ? "ip link set usb0 up" : "ip link set usb0 down") != 0) ADD_FAILURE();
}

std::string Captured() {
    std::string bytes;
    for (const std::string& path : CaptureFiles())
        bytes += Contents(path);
    return bytes;
}

std::string WithoutOwnRequests(std::string atModem) {
    for (const std::string& own : {kFileMask, kDisableRequests}) {
        for (size_t at = atModem.find(own); at != std::string::npos; at = atModem.find(own, at))
            atModem.erase(at, own.size());
    }
    return atModem;
}

void Side::Send(const std::string& bytes) {
    out = (HasMore() ? out.substr(sent) : "") + bytes;
    sent = 0;
    end = out.size();
}

void Side::Flood(const std::string& bytes) {
    out = bytes;
    sent = 0;
    end = UINT64_MAX;
}

size_t Side::StopFlood() {
    const uint64_t count = (sent + out.size() - 1) / out.size();
    end = count * out.size();
    return count;
}

void Side::WriteSome(int fd) {
    const size_t at = sent % out.size();
    const auto count = std::min<uint64_t>({out.size() - at, end - sent, burst});
    nextWrite = Clock::now() + pause;
    sent += static_cast<uint64_t>(std::max<ssize_t>(write(fd, out.data() + at, count), 0));
}

short Side::Wanted() const {
    const auto now = Clock::now();
    const bool gives = HasMore() && now >= nextWrite;
    return static_cast<short>((takes && now >= next ? POLLIN : 0) | (gives ? POLLOUT : 0));
}

Handset::Handset() {
    signal(SIGPIPE, SIG_IGN);
    answer = [this](const std::string& frame) { return isServing || isMute ? "" : frame; };
    MakeLine();
    for (const char* directory : {kMaskDirectory, kCaptureDirectory}) {
        for (const auto& entry : fs::directory_iterator(directory))
            fs::remove_all(entry);
    }
    Store(kMaskFile, kFileMask);
}

Handset::~Handset() {
    StopDaemon();
    BreakLine();
    SetLink(true);
    for (const auto& entry : fs::directory_iterator(kPropertyDirectory))
        fs::remove(entry.path());
}

void Handset::Until(const std::string& what, const std::function<bool()>& condition,
                    milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() >= deadline) {
            const std::string end = Log().substr(mLog.size() - std::min<size_t>(mLog.size(), 4000));
            throw ToolError("not in time: " + what + "; the log's end:\n" + end);
        }
        pollfd ends[] = {{mLine ? mLine->fd() : -1, modem.Wanted(), 0},
                         {mTool ? mTool->fd() : -1, tool.Wanted(), 0}};
        poll(ends, 2, 3);  // and another look: /proc and files announce nothing
        if ((ends[0].revents & POLLOUT) != 0) modem.WriteSome(mLine->fd());
        if ((ends[1].revents & POLLOUT) != 0) tool.WriteSome(mTool->fd());
        if ((ends[0].revents & POLLIN) != 0) TakeFromModem();
        if ((ends[1].revents & POLLIN) != 0) TakeFromTool();
    }
}

void Handset::TakeFromModem() {
    ModemEnd::Input input;
    if (!mLine->Read(&input)) return;
    modem.next = Clock::now() + modem.rest;
    modem.in += input.data;
    for (const char byte : input.data) {
        mFrame += byte;
        if (byte != '\x7E') continue;
        isServing |= mFrame.rfind(kToolMask) != std::string::npos;
        const std::string bytes = answer(std::exchange(mFrame, ""));
        if (!bytes.empty()) modem.Send(bytes);
    }
}

void Handset::TakeFromTool() {
    char chunk[1 << 16];
    const ssize_t got = read(mTool->fd(), chunk, std::min(sizeof(chunk), tool.most));
    tool.next = Clock::now() + tool.rest;
    if (got > 0) tool.in.append(chunk, static_cast<size_t>(got));
    if (got == 0 || (got < 0 && errno != EAGAIN)) mTool.reset();
}

AssertionResult Handset::Gets(Side& side, const std::string& expected) {
    Until("bytes", [&] { return side.in.size() >= expected.size(); });
    return Same(expected, std::exchange(side.in, ""));
}

void Handset::StartDaemon() {
    static int runs = 0;
    mLogPath = "/data/quillod-" + std::to_string(++runs) + ".log";
    mLog.clear();
    mConnected = 0;
    setenv("QUILLOD_LOG_FILE", mLogPath.c_str(), 1);
    const char* path = getenv("QUILLOD_BIN");
    ASSERT_NE(nullptr, path) << "QUILLOD_BIN does not name the daemon";
    char* const arguments[] = {const_cast<char*>(path), nullptr};
    ASSERT_EQ(0, posix_spawn(&mPid, path, nullptr, nullptr, arguments, environ)) << path;
    UntilListening();
}

void Handset::StopDaemon() {
    if (mPid == -1) return;
    int status = 0;
    if (waitpid(mPid, &status, WNOHANG) == 0) {
        kill(mPid, SIGKILL);
        waitpid(mPid, &status, 0);
    } else {
        ADD_FAILURE() << "the daemon ended by itself, wait status " << status << '\n' << Log();
    }
    mPid = -1;
    EXPECT_EQ(std::string::npos, Log().find("Data number is not equal"));
}

bool Handset::IsListening() const {
    return Contents("/proc/net/tcp").find(":2B00 00000000:0000 0A") != std::string::npos;
}

const std::string& Handset::Log() {
    std::ifstream file(mLogPath);
    file.seekg(static_cast<std::streamoff>(mLog.size()));
    mLog.append(std::istreambuf_iterator<char>(file), {});
    return mLog;
}

void Handset::UntilLogged(const std::string& text, size_t from) {
    Until(text, [&] { return Log().find(text, from) != std::string::npos; });
}

void Handset::UntilStalled() {
    UntilLogged("write error, try again", Log().size());
}

void Handset::Switch(bool isOn) {
    if (std::exchange(captures, isOn) == isOn) return;
    const size_t from = Log().size();
    SetProperty(kLogSwitch, isOn ? "true" : "false");
    if (mPid != -1) UntilLogged("prop change", from);
}

DiagClient Handset::Dial(const char* host, milliseconds limit) {
    const UniqueFd home(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    const UniqueFd pc(open("/run/netns/pc", O_RDONLY | O_CLOEXEC));
    struct Return {
        ~Return() { setns(fd, CLONE_NEWNET); }
        int fd;
    } const homeAgain{home.get()};
    if (strncmp(host, "127.", 4) != 0) setns(pc.get(), CLONE_NEWNET);
    return DiagClient(host, kDaemonPort, limit);
}

void Handset::Connect() {
    tool = Side();
    isServing = false;
    mConnected = Log().size();
    mTool.emplace(Dial(kHandset, kLimit));
    Until("accepted", [this] { return !IsListening(); });
}

void Handset::Attach() {
    Connect();
    tool.Send(kToolMask);
    Until("served", [this] { return isServing; });
    begun = std::exchange(modem.in, "");
    begun.erase(begun.find(kToolMask));
}

AssertionResult Handset::Exchange() {
    const std::string request = Framed("\x0C request");
    tool.Send(request);
    modem.Send("the answer");
    const auto there = Gets(modem, request);
    return there ? Gets(tool, "the answer") : there;
}

void Handset::Finish() {
    isServing = false;
    shutdown(mTool->fd(), SHUT_WR);
    Until(
        "the connection's end", [this] { return !mTool; }, kEndBound);
}

void Handset::UntilListening(Clock::time_point since, milliseconds bound) {
    static constexpr const char* kEnds[] = {
        "was closed by the remote end",  "error detected on fd", "has waited long enough",
        "Thread Read/Write Error, Exit", "USBLAN_REMOVED exit",  "select returned error"};
    const auto hasEnded = [this](const char* text) {
        return Log().find(text, mConnected) != std::string::npos;
    };
    Until("the relay's end", [&] {
        return IsListening() || std::any_of(std::begin(kEnds), std::end(kEnds), hasEnded);
    });
    const auto relayEnd = Clock::now();
    Until("listening", [this] { return IsListening(); });
    const auto now = Clock::now();
    const auto took = std::chrono::duration_cast<milliseconds>(now - relayEnd);
    slowest = std::max(slowest, took);
    EXPECT_LE(took, kEndBound);
    EXPECT_LE(std::chrono::duration_cast<milliseconds>(now - since), bound);
}

void Handset::MakeLine() {
    BreakLine();
    if (isVirtual) {
        EXPECT_EQ(0, system("usb modem on"));
        mLine.emplace(ModemEnd::Kind::kPort, kVirtualModem);
    } else {
        mLine.emplace(ModemEnd::Kind::kPty, kModemPort);
    }
    modem = Side();
    if (isVirtual) {
        modem.burst = 8192;
        modem.pause = milliseconds(10);
    }
    isMute = false;
    mFrame.clear();
}

void Handset::BreakLine() {
    // Plugged in, the modem's end would wait 15 s for its bytes to leave.
    if (isVirtual && system("usb modem off") != 0) ADD_FAILURE();
    mLine.reset();
}

size_t Handset::FillLine() {
    const UniqueFd port(open(kModemPort, O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC));
    const std::string page(4096, 'f');
    size_t filled = 0;
    // The kernel moves bytes on towards the reader, so a full line may have room a moment later,
    // of which poll does not tell; for one byte, too, where a page found none.
    for (int inVain = 0; inVain < 20; ++inVain) {
        for (const size_t size : {page.size(), size_t{1}}) {
            ssize_t count = 0;
            for (; (count = write(port.get(), page.data(), size)) > 0; inVain = 0)
                filled += static_cast<size_t>(count);
        }
        poll(nullptr, 0, 5);
    }
    return filled;
}

}  // namespace e2e
