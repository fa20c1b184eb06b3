#include "bench/rig.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "tools/common/tool_error.h"

namespace {

namespace fs = std::filesystem;

constexpr char kDaemonLogFile[] = "/data/quillod.log";
constexpr char kMaskFile[] = "/vendor/etc/quillod/cfg/DIAG.cfg";
constexpr char kHandsetAddress[] = "192.168.42.129";

UniqueFd OpenReadable(const char* path) {
    UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
    if (fd.get() == -1) throw std::runtime_error(std::string("cannot open ") + path);
    return fd;
}

// While it lives, this thread's new sockets are on the PC's side.
class OnPc {
  public:
    OnPc() { Enter(mPc.get()); }
    OnPc(const OnPc&) = delete;
    OnPc& operator=(const OnPc&) = delete;
    ~OnPc() { setns(mHandset.get(), CLONE_NEWNET); }

  private:
    static void Enter(int space) {
        if (setns(space, CLONE_NEWNET) != 0) throw std::runtime_error("cannot change to the PC");
    }

    const UniqueFd mHandset = OpenReadable("/proc/self/ns/net");
    const UniqueFd mPc = OpenReadable("/run/netns/pc");
};

[[noreturn]] void Execute(std::vector<std::string>& command, const std::string& output) {
    const int fd = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(fd, STDOUT_FILENO);
    dup2(fd, STDERR_FILENO);
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (std::string& word : command)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    _exit(127);
}

// The one that is still written to comes last.
std::vector<fs::path> LogFiles() {
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(kFlashDirectory)) {
        if (entry.path().extension() == ".qmdl") files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end(), [](const fs::path& left, const fs::path& right) {
        return fs::last_write_time(left) < fs::last_write_time(right);
    });
    return files;
}

std::vector<std::string> ModemCommand(const std::vector<std::string>& arguments) {
    fs::remove(kModemDevice);
    std::vector<std::string> command = {BuiltProgram("quilltool"), "modem"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

}  // namespace

Child::Child(std::vector<std::string> command, const std::string& output) : mPid(fork()) {
    if (mPid == 0) Execute(command, "/data/" + output + ".log");
    if (mPid == -1) throw std::runtime_error("cannot start " + command[0]);
}

Child::~Child() {
    if (mPid == 0) return;
    kill(mPid, SIGTERM);
    waitpid(mPid, nullptr, 0);
}

bool Child::Succeeds() {
    int status = -1;
    waitpid(mPid, &status, 0);
    mPid = 0;
    return status == 0;
}

double Child::CpuSeconds() const {
    clockid_t clock = 0;
    timespec used{};
    if (clock_getcpuclockid(mPid, &clock) != 0 || clock_gettime(clock, &used) != 0) {
        throw std::runtime_error("a measured process has ended");
    }
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

double Child::ResidentMegabytes() const {
    std::ifstream status("/proc/" + std::to_string(mPid) + "/statm");
    double pages = 0;
    status >> pages >> pages;
    return pages * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1e6;
}

std::string BuiltProgram(const std::string& name) {
    return fs::read_symlink("/proc/self/exe").parent_path() / name;
}

Child StartDaemon(const std::string& program) {
    fs::remove(kDaemonLogFile);
    SetProperty(kLogLevel, "I");
    fs::copy_file(BuiltProgram("DIAG.cfg"), kMaskFile, fs::copy_options::overwrite_existing);
    return {{"env", std::string("QUILLOD_LOG_FILE=") + kDaemonLogFile, program}, "daemon"};
}

std::string DaemonLog() {
    std::ostringstream text;
    text << std::ifstream(kDaemonLogFile).rdbuf();
    return text.str();
}

Modem::Modem(const std::vector<std::string>& arguments) : Child(ModemCommand(arguments), "modem") {
    Await("the modem", [] { return fs::exists(kModemDevice); });
}

DiagClient ConnectFromPc(uint16_t port) {
    const OnPc pc;
    for (const auto until = DiagClient::Clock::now() + kPatience;;) {
        try {
            return {kHandsetAddress, port, kPatience};
        } catch (const ToolError&) {
            if (DiagClient::Clock::now() > until) throw;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

std::string_view Ask(DiagClient& client, std::string_view request) {
    client.Send(request);
    const auto until = DiagClient::Clock::now() + kPatience;
    ReceivedFrame frame{};
    do {
        if (!client.NextFrame(until, &frame)) throw std::runtime_error("no answer in time");
    } while (frame.state != FrameState::kGood || frame.packet.front() != request.front());
    return frame.packet;
}

void Await(const std::string& what, const std::function<bool()>& condition) {
    const auto until = DiagClient::Clock::now() + kPatience;
    while (!condition()) {
        if (DiagClient::Clock::now() > until) throw std::runtime_error("not in time: " + what);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void SetProperty(const std::string& name, const std::string& value) {
    const fs::path directory = "/data/property";
    std::ofstream(directory / ("." + name)) << value;
    fs::rename(directory / ("." + name), directory / name);
}

uint64_t Flash::Bytes() const {
    uint64_t bytes = mRemoved;
    for (const fs::path& file : LogFiles())
        bytes += fs::file_size(file);
    return bytes;
}

uint64_t Flash::FirstFrameSize() const {
    if (mRemoved > 0) return mFirstFrameSize;
    const std::vector<fs::path> files = LogFiles();
    if (files.empty()) return 0;
    std::string frame;
    std::ifstream file(files.front(), std::ios::binary);
    std::getline(file, frame, static_cast<char>(kHdlcFlag));
    return frame.size() + 1;
}

void Flash::RemoveFinished() {
    std::vector<fs::path> files = LogFiles();
    if (!files.empty()) files.pop_back();
    if (!files.empty()) mFirstFrameSize = FirstFrameSize();
    for (const fs::path& file : files) {
        mRemoved += fs::file_size(file);
        fs::remove(file);
    }
}

void Flash::Clear() {
    for (const auto& entry : fs::directory_iterator(kFlashDirectory))
        fs::remove(entry.path());
    syncfs(OpenReadable(kFlashDirectory).get());
    mRemoved = 0;
}
