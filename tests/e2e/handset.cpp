#include "handset.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <spawn.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

namespace e2e {

namespace {

namespace fs = std::filesystem;
using testing::AssertionFailure;
using testing::AssertionSuccess;

constexpr char kModemPort[] = "/dev/ttydiag0";
constexpr char kPropertyDirectory[] = "/data/property/";
constexpr uint16_t kPort = 11008;

bool WaitFor(int fd, short events, Clock::time_point deadline) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
    pollfd entry = {fd, events, 0};
    return poll(&entry, 1, static_cast<int>(std::max<int64_t>(left, 0))) > 0;
}

std::string ReadFile(const std::string& path, size_t from = 0) {
    std::ifstream file(path, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(from));
    return {std::istreambuf_iterator<char>(file), {}};
}

// A socket stays in the network that its thread was in when it was made.
int NewSocket(Tool::Side side) {
    const int home = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    const int pc = open("/run/netns/pc", O_RDONLY | O_CLOEXEC);
    if (setns(side == Tool::Side::kPc ? pc : home, CLONE_NEWNET) != 0) {
        ADD_FAILURE() << "no PC here: " << strerror(errno);
    }
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (setns(home, CLONE_NEWNET) != 0) abort();
    close(pc);
    close(home);
    return fd;
}

}  // namespace

std::string Pattern(size_t count, unsigned seed) {
    std::minstd_rand random(seed);
    std::string bytes(count, '\0');
    for (char& byte : bytes) {
        do {
            byte = static_cast<char>(random() >> 8);
        } while (byte == '\x4B');
    }
    return bytes;
}

AssertionResult Same(const std::string& expected, const std::string& actual) {
    if (expected == actual) return AssertionSuccess();
    const auto shorter = static_cast<ptrdiff_t>(std::min(expected.size(), actual.size()));
    const auto at = std::mismatch(expected.begin(), expected.begin() + shorter, actual.begin());
    return AssertionFailure() << actual.size() << " bytes instead of " << expected.size()
                              << ", the same up to byte " << at.first - expected.begin();
}

bool WaitUntil(const std::function<bool()>& condition, milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (!condition()) {
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(milliseconds(3));
    }
    return true;
}

// ---- Link and properties ----

void SetLink(bool isUp) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request = {};
    strcpy(request.ifr_name, "usb0");
    ioctl(fd, SIOCGIFFLAGS, &request);
    const int others = request.ifr_flags & ~IFF_UP;
    request.ifr_flags = static_cast<short>(isUp ? others | IFF_UP : others);
    if (ioctl(fd, SIOCSIFFLAGS, &request) != 0) ADD_FAILURE() << strerror(errno);
    close(fd);
}

bool LinkEventsArrive() {
    std::ifstream map("/proc/self/uid_map");
    unsigned inside = 1;
    unsigned outside = 1;
    map >> inside >> outside;
    return inside == 0 && outside == 0;
}

bool IsPortListening() {
    return ReadFile("/proc/net/tcp").find(":2B00 00000000:0000 0A") != std::string::npos;
}

void SetProperty(const std::string& name, const std::string& value) {
    const std::string path = kPropertyDirectory + name;
    std::ofstream(path + ".new") << value;
    fs::rename(path + ".new", path);
}

AssertionResult WaitForPropertyReads(const std::string& name, int count) {
    const int watch = inotify_init1(IN_CLOEXEC);
    inotify_add_watch(watch, (kPropertyDirectory + name).c_str(), IN_CLOSE_NOWRITE);
    inotify_event events[16];
    const auto deadline = Clock::now() + kLimit;
    while (count > 0 && WaitFor(watch, POLLIN, deadline) && read(watch, events, sizeof(events)) > 0)
        --count;
    close(watch);
    return count == 0 ? AssertionSuccess() : AssertionFailure() << name << " is not read";
}

// ---- Streams ----

size_t Stream::SendSome(const char* bytes, size_t count) {
    ssize_t sent = send(mFd, bytes, count, MSG_NOSIGNAL);
    if (sent < 0 && errno == ENOTSOCK) sent = write(mFd, bytes, count);
    return sent > 0 ? static_cast<size_t>(sent) : 0;
}

bool Stream::Send(const std::string& bytes, milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    size_t sent = 0;
    while (sent < bytes.size() && Clock::now() < deadline && WaitFor(mFd, POLLOUT, deadline))
        sent += SendSome(bytes.data() + sent, bytes.size() - sent);
    return sent == bytes.size();
}

std::string Stream::ReceiveExactly(size_t count, milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    std::string all;
    char chunk[65536];
    while (all.size() < count && WaitFor(mFd, POLLIN, deadline)) {
        const ssize_t got = read(mFd, chunk, std::min(sizeof(chunk), count - all.size()));
        if (got <= 0) break;
        all.append(chunk, static_cast<size_t>(got));
    }
    return all;
}

AssertionResult Stream::WaitForClose(milliseconds limit) {
    char byte;
    if (!WaitFor(mFd, POLLIN, Clock::now() + limit)) return AssertionFailure() << "still open";
    if (read(mFd, &byte, 1) > 0) return AssertionFailure() << "bytes came instead of the end";
    return AssertionSuccess();
}

void Stream::Close() {
    if (mFd != -1) close(mFd);
    mFd = -1;
}

// ---- Modem ----

Modem::Modem() {
    OpenLine();
    Appear();
}

Modem::~Modem() {
    Disappear();
    close(mPortFd);
}

void Modem::OpenLine() {
    constexpr int kFlags = O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC;
    char name[64] = "";
    mFd = posix_openpt(kFlags);
    grantpt(mFd);
    unlockpt(mFd);
    ptsname_r(mFd, name, sizeof(name));
    mPortName = name;
    mPortFd = open(name, kFlags);
    termios line = {};
    tcgetattr(mPortFd, &line);
    cfmakeraw(&line);
    if (tcsetattr(mPortFd, TCSANOW, &line) != 0) ADD_FAILURE() << "no pty: " << strerror(errno);
}

void Modem::Appear() {
    if (symlink(mPortName.c_str(), kModemPort) != 0) ADD_FAILURE() << strerror(errno);
}

void Modem::Disappear() {
    unlink(kModemPort);
}

void Modem::Replace() {
    Disappear();
    close(mPortFd);
    Close();
    OpenLine();
    Appear();
}

void Modem::SpoilLine() {
    termios line = {};
    tcgetattr(mPortFd, &line);
    line.c_iflag = BRKINT | PARMRK | INPCK | ISTRIP | IGNCR | ICRNL | IXON | IXOFF | IXANY;
    line.c_oflag = OPOST | ONLCR;
    line.c_cflag = B9600 | CS7 | PARENB | CSTOPB | HUPCL;
    line.c_lflag = ISIG | ICANON | IEXTEN | ECHO | ECHOE | ECHOK | ECHONL | TOSTOP;
    line.c_cc[VMIN] = 7;
    line.c_cc[VTIME] = 3;
    if (tcsetattr(mPortFd, TCSANOW, &line) != 0) ADD_FAILURE() << strerror(errno);
}

void Modem::FillLine() {
    // The kernel moves bytes on towards the reader, so a full line may have room a moment later.
    while (WaitFor(mPortFd, POLLOUT, Clock::now() + milliseconds(100))) {
        while (write(mPortFd, "f", 1) == 1) {
        }
    }
}

// ---- Tool ----

int Tool::Connect(const char* address, milliseconds limit) {
    Close();
    mFd = NewSocket(mSide);
    if (mBuffer != 0) {
        setsockopt(mFd, SOL_SOCKET, SO_RCVBUF, &mBuffer, sizeof(mBuffer));
        setsockopt(mFd, SOL_SOCKET, SO_SNDBUF, &mBuffer, sizeof(mBuffer));
    }
    sockaddr_in target = {AF_INET, htons(kPort), {inet_addr(address)}, {}};
    if (connect(mFd, reinterpret_cast<sockaddr*>(&target), sizeof(target)) == 0) return 0;
    if (errno != EINPROGRESS) return errno;
    if (!WaitFor(mFd, POLLOUT, Clock::now() + limit)) return ETIMEDOUT;
    int error = 0;
    socklen_t len = sizeof(error);
    getsockopt(mFd, SOL_SOCKET, SO_ERROR, &error, &len);
    return error;
}

void Tool::Reset() {
    const linger atOnce = {1, 0};
    setsockopt(mFd, SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
    Close();
}

// ---- Daemon ----

void Daemon::Start() {
    static int runs = 0;
    mLogPath = "/data/quillod-" + std::to_string(++runs) + ".log";
    mLog.clear();
    mBehindMatch = 0;
    setenv("QUILLOD_LOG_FILE", mLogPath.c_str(), 1);
    // The daemon has no standard error to complain on. The last setting of an option counts.
    for (const char* name : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"}) {
        const char* options = getenv(name);
        const std::string report = ":log_path=" + mLogPath + ".report";
        setenv(name, ((options != nullptr ? options : "") + report).c_str(), 1);
    }
    const char* path = getenv("QUILLOD_BIN");
    ASSERT_NE(nullptr, path) << "QUILLOD_BIN does not name the daemon";
    char* const arguments[] = {const_cast<char*>(path), nullptr};
    ASSERT_EQ(0, posix_spawn(&mPid, path, nullptr, nullptr, arguments, environ)) << path;
}

void Daemon::Stop() {
    if (mPid == -1) return;
    int status = 0;
    if (waitpid(mPid, &status, WNOHANG) == 0) {
        kill(mPid, SIGKILL);
        waitpid(mPid, &status, 0);
    } else {
        ADD_FAILURE() << "the daemon ended by itself, wait status " << status << '\n' << Tail();
    }
    mPid = -1;
    for (const auto& entry : fs::directory_iterator("/data")) {
        const bool isReport = entry.path().string().find(mLogPath + ".report") == 0;
        if (isReport) ADD_FAILURE() << ReadFile(entry.path());
    }
}

void Daemon::Signal(int signal) const {
    ASSERT_EQ(0, kill(mPid, signal));
}

const std::string& Daemon::Log() {
    return mLog += ReadFile(mLogPath, mLog.size());
}

AssertionResult Daemon::WaitForLog(const std::string& text, milliseconds limit) {
    size_t from = mBehindMatch;
    const bool isFound = WaitUntil(
        [&] {
            const size_t at = Log().find(text, from);
            from = std::max(from, mLog.size() - std::min(mLog.size(), text.size()));
            if (at != std::string::npos) mBehindMatch = at + text.size();
            return at != std::string::npos;
        },
        limit);
    if (isFound) return AssertionSuccess();
    return AssertionFailure() << "no \"" << text << "\" in the log, which ends:\n" << Tail();
}

int Daemon::LogCount(const std::string& text) {
    int count = 0;
    for (size_t at = Log().find(text); at != std::string::npos; at = mLog.find(text, at + 1))
        ++count;
    return count;
}

std::string Daemon::Tail() {
    const size_t length = std::min<size_t>(Log().size(), 3000);
    return mLog.substr(mLog.size() - length);
}

std::string Daemon::StatusField(const std::string& name) const {
    const std::string status = ReadFile("/proc/" + std::to_string(mPid) + "/status");
    const std::string key = "\n" + name + ":\t";
    const size_t at = status.find(key);
    if (at == std::string::npos) return "";
    const size_t begin = at + key.size();
    return status.substr(begin, status.find('\n', begin) - begin);
}

std::string Daemon::LinkTarget(const std::string& name) const {
    std::error_code error;
    return fs::read_symlink("/proc/" + std::to_string(mPid) + "/" + name, error);
}

std::chrono::nanoseconds Daemon::CpuTime() const {
    clockid_t clock = 0;
    timespec used = {};
    clock_getcpuclockid(mPid, &clock);
    if (clock_gettime(clock, &used) != 0) ADD_FAILURE() << strerror(errno);
    return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

// ---- Fixture ----

HandsetTest::~HandsetTest() {
    daemon.Stop();
    SetLink(true);
    for (const auto& entry : fs::directory_iterator(kPropertyDirectory))
        fs::remove(entry.path());
}

AssertionResult HandsetTest::Attach(Tool& tool) {
    const int error = tool.Connect();
    if (error != 0) return AssertionFailure() << "not connected: " << strerror(error);
    return daemon.WaitForLog(kRelayStarts);
}

AssertionResult HandsetTest::Serve(Tool& tool) {
    const AssertionResult listens = daemon.WaitForLog(kListens);
    return listens ? Attach(tool) : listens;
}

AssertionResult HandsetTest::Exchange(Tool& tool) {
    const std::string request = Pattern(40, 1);
    const std::string answer = Pattern(60, 2);
    tool.Send(request);
    const std::string atModem = modem.ReceiveExactly(request.size());
    modem.Send(answer);
    return Same(request + answer, atModem + tool.ReceiveExactly(answer.size()));
}

}  // namespace e2e
