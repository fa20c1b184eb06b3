#include "tools/capture/capture_files.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <set>

#include "tools/common/tool_error.h"

namespace {

namespace fs = std::filesystem;

constexpr char kRecordName[] = "record.txt";
constexpr char kCaptureSuffix[] = ".qmdl";
constexpr size_t kReadSize = 1 << 20;

std::set<std::string> CaptureNames(const std::string& directory) {
    std::set<std::string> names;
    std::error_code error;
    fs::directory_iterator entries(directory, error);
    for (; !error && entries != fs::directory_iterator(); entries.increment(error)) {
        const std::string name = entries->path().filename();
        if (IsCaptureFile(name)) names.insert(name);
    }
    if (error) throw ToolError("cannot read {}: {}", directory, error.message());
    return names;
}

}  // namespace

bool IsCaptureFile(const std::string& name) {
    return fs::path(name).extension() == kCaptureSuffix;
}

std::string CapturePath(const std::string& directory, const std::string& name) {
    return fs::path(directory) / name;
}

CaptureDirectory ListCaptureDirectory(const std::string& directory) {
    // The record file is read first: a file appears before its line does.
    std::vector<std::string> listed;
    std::ifstream record(CapturePath(directory, kRecordName));
    for (std::string line; std::getline(record, line);) {
        const std::string name = fs::path(line).filename();
        if (IsCaptureFile(name)) listed.push_back(name);
    }

    std::set<std::string> names = CaptureNames(directory);
    CaptureDirectory result;
    std::set<std::string> taken;
    for (const std::string& name : listed) {
        if (!taken.insert(name).second) continue;
        if (names.erase(name) != 0) {
            result.files.push_back(CapturePath(directory, name));
        } else {
            result.missing.push_back(name);
        }
    }
    for (const std::string& name : names)
        result.files.push_back(CapturePath(directory, name));
    return result;
}

UniqueFd OpenCaptureFile(const std::string& path) {
    UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() == -1) throw SystemError("cannot open {}", path);
    return fd;
}

bool ReadCaptureFile(int fd, const std::string& path,
                     const std::function<bool(std::string_view)>& take) {
    static std::vector<char> buffer(kReadSize);
    while (true) {
        const ssize_t count = read(fd, buffer.data(), buffer.size());
        if (count == 0) return true;
        if (count < 0 && errno != EINTR) {
            throw SystemError("cannot read {}", path);
        }
        if (count > 0 && !take({buffer.data(), static_cast<size_t>(count)})) return false;
    }
}
