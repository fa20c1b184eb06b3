#include "bench/rig.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <fstream>
#include <stdexcept>
#include <thread>

#include "tools/common/unique_fd.h"

namespace {

namespace fs = std::filesystem;

[[noreturn]] void Execute(std::vector<std::string>& command) {
    setns(open("/proc/1/ns/net", O_RDONLY | O_CLOEXEC), CLONE_NEWNET);
    dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (std::string& word : command)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    perror(arguments[0]);
    _exit(127);
}

}  // namespace

Child::Child(std::vector<std::string> command) : mPid(fork()) {
    if (mPid == 0) Execute(command);
    if (mPid == -1) throw std::runtime_error("cannot start " + command[0]);
}

Child::~Child() {
    kill(mPid, SIGTERM);
    waitpid(mPid, nullptr, 0);
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

Contender Daemon(const std::string& name, const std::string& program) {
    return {name, [program] {
                fs::remove(kDaemonLog);
                SetProperty(kLogLevel, "I");
                fs::copy_file(BuiltProgram("DIAG.cfg"), kMaskDirectory + std::string("DIAG.cfg"),
                              fs::copy_options::overwrite_existing);
                return Child({"env", std::string("QUILLOD_LOG_FILE=") + kDaemonLog, program});
            }};
}

Child StartModem(std::vector<std::string> options) {
    options.insert(options.begin(), {BuiltProgram("quilltool"), "modem"});
    return Child(std::move(options));
}

DiagClient Connect() {
    Await("the modem", [] { return fs::exists(kModemPort); });
    return {kHandset, kDaemonPort, kPatience};
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

uint64_t CapturedBytes() {
    uint64_t bytes = 0;
    for (const std::string& file : CaptureFiles())
        bytes += fs::file_size(file);
    return bytes;
}

void ClearFlash() {
    for (const auto& entry : fs::directory_iterator(kCaptureDirectory))
        fs::remove(entry.path());
    syncfs(UniqueFd(open(kCaptureDirectory, O_RDONLY | O_CLOEXEC)).get());
}
