#include "handset.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <spawn.h>
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
#include <utility>

namespace e2e {

namespace {

namespace fs = std::filesystem;
using testing::AssertionFailure;
using testing::AssertionSuccess;

constexpr char kPropertyDirectory[] = "/data/property/";

bool WaitFor(int fd, short events, Clock::time_point deadline) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
    pollfd entry = {fd, events, 0};
    return poll(&entry, 1, static_cast<int>(std::max<int64_t>(left, 0))) > 0;
}

// A socket stays in the network that its thread was in when it was made.
int NewPcSocket() {
    const int home = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    const int pc = open("/run/netns/pc", O_RDONLY | O_CLOEXEC);
    if (setns(pc, CLONE_NEWNET) != 0) ADD_FAILURE() << "no PC here: " << strerror(errno);
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

bool WaitUntil(const std::function<bool()>& condition) {
    const auto deadline = Clock::now() + kLimit;
    while (!condition()) {
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(milliseconds(3));  // between looks: /proc announces nothing
    }
    return true;
}

void SetLink(bool isUp) {
    if (system(isUp ? "ip link set usb0 up" : "ip link set usb0 down") != 0) ADD_FAILURE();
}

bool LinkEventsArrive() {
    std::ifstream map("/proc/self/uid_map");
    unsigned inside = 1;
    unsigned outside = 1;
    map >> inside >> outside;
    return inside == 0 && outside == 0;
}

void SetProperty(const std::string& name, const std::string& value) {
    const std::string path = kPropertyDirectory + name;
    std::ofstream(path + ".new") << value;
    fs::rename(path + ".new", path);
}

std::string Contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void Store(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

std::vector<std::string> CaptureFiles() {
    std::vector<std::string> files;
    for (const auto& entry : fs::directory_iterator(kCaptureDirectory)) {
        if (entry.path().extension() == ".qmdl") files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::string Captured() {
    std::string bytes;
    for (const std::string& path : CaptureFiles())
        bytes += Contents(path);
    return bytes;
}

size_t Stream::SendSome(const char* bytes, size_t count) {
    ssize_t sent = send(mFd, bytes, count, MSG_NOSIGNAL);
    if (sent < 0 && errno == ENOTSOCK) sent = write(mFd, bytes, count);
    return sent > 0 ? static_cast<size_t>(sent) : 0;
}

bool Stream::Send(const std::string& bytes) {
    const auto deadline = Clock::now() + kLimit;
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

bool Stream::WaitForClose() {
    char byte;
    return WaitFor(mFd, POLLIN, Clock::now() + kLimit) && read(mFd, &byte, 1) <= 0;
}

Modem::Modem() {
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
    Appear();
}

void Modem::Appear() {
    if (symlink(mPortName.c_str(), kModemPort) != 0) ADD_FAILURE() << strerror(errno);
}

void Modem::FillLine() {
    // The kernel moves bytes on towards the reader, so a full line may have room a moment later.
    while (WaitFor(mPortFd, POLLOUT, Clock::now() + milliseconds(100))) {
        while (write(mPortFd, "f", 1) == 1) {
        }
    }
}

int Tool::Connect() {
    Close();
    mFd = NewPcSocket();
    if (mBuffer != 0) {
        setsockopt(mFd, SOL_SOCKET, SO_RCVBUF, &mBuffer, sizeof(mBuffer));
        setsockopt(mFd, SOL_SOCKET, SO_SNDBUF, &mBuffer, sizeof(mBuffer));
    }
    sockaddr_in target = {AF_INET, htons(11008), {inet_addr("192.168.42.129")}, {}};
    if (connect(mFd, reinterpret_cast<sockaddr*>(&target), sizeof(target)) == 0) return 0;
    if (errno != EINPROGRESS) return errno;
    if (!WaitFor(mFd, POLLOUT, Clock::now() + kLimit)) return ETIMEDOUT;
    int error = 0;
    socklen_t len = sizeof(error);
    getsockopt(mFd, SOL_SOCKET, SO_ERROR, &error, &len);
    return error;
}

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
        ADD_FAILURE() << "the daemon ended by itself, wait status " << status << '\n' << Log();
    }
    mPid = -1;
    for (const auto& entry : fs::directory_iterator("/data")) {
        const bool isReport = entry.path().string().find(mLogPath + ".report") == 0;
        if (isReport) ADD_FAILURE() << Contents(entry.path());
    }
}

const std::string& Daemon::Log() {
    std::ifstream file(mLogPath);
    file.seekg(static_cast<std::streamoff>(mLog.size()));
    mLog.append(std::istreambuf_iterator<char>(file), {});
    return mLog;
}

bool Daemon::TakeFromLog(const std::string& text) {
    const size_t at = Log().find(text, mBehindMatch);
    if (at != std::string::npos) mBehindMatch = at + text.size();
    return at != std::string::npos;
}

AssertionResult Daemon::WaitForLog(const std::string& text) {
    if (WaitUntil([&] { return TakeFromLog(text); })) return AssertionSuccess();
    return AssertionFailure() << "no \"" << text << "\" in the log, which ends:\n"
                              << mLog.substr(mLog.size() - std::min<size_t>(mLog.size(), 3000));
}

int Daemon::LogCount(const std::string& text) {
    int count = 0;
    for (size_t at = Log().find(text); at != std::string::npos; at = mLog.find(text, at + 1))
        ++count;
    return count;
}

HandsetTest::HandsetTest() {
    for (const std::string& directory : {kMaskDirectory, kCaptureDirectory}) {
        fs::remove_all(directory);
        fs::create_directories(directory);
    }
}

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
    daemon.Start();
    const AssertionResult listens = daemon.WaitForLog(kListens);
    return listens ? Attach(tool) : listens;
}

}  // namespace e2e
