#include "capture/log_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "base/log_switch.h"
#include "platform/tagged_log.h"

namespace {

constexpr mode_t kUmask = 027;
constexpr mode_t kFileMode = 0644;
constexpr uint64_t kRotationSize = 200ULL << 20;
constexpr int kStampSize = 30;

// Local date and time, then the milliseconds since the epoch; these alone without a local time.
void BuildStamp(char (&stamp)[kStampSize]) {
    timeval now = {};
    gettimeofday(&now, nullptr);
    tm local = {};
    size_t dateLen = 0;
    if (localtime_r(&now.tv_sec, &local) != nullptr) {
        dateLen = strftime(stamp, sizeof(stamp), "%Y%m%d_%H%M%S", &local);
    }
    const int64_t milliseconds = int64_t{now.tv_sec} * 1000 + now.tv_usec / 1000;
    snprintf(stamp + dateLen, sizeof(stamp) - dateLen, "%" PRId64, milliseconds);
}

}  // namespace

LogFiles& LogFiles::GetInstance() {
    static LogFiles instance("/data/misc/radio/", kRotationSize);
    return instance;
}

LogFiles::LogFiles(const char* directory, uint64_t rotationSize)
    : output_dir(directory), mRotationSize(rotationSize) {}

void LogFiles::WriteRecordLine() {
    char line[256];
    const int len = snprintf(line, sizeof(line), "%s\n", dev_file_path);
    const auto ret = static_cast<int>(write(fd_record, line, static_cast<size_t>(len)));
    if (ret < len) LIB_LOGE("PoolBuffer: record error, ret=%d", ret);
}

void LogFiles::OpenLogFile() {
    char stamp[kStampSize];
    BuildStamp(stamp);
    snprintf(dev_file_path, sizeof(dev_file_path), "%s%s%s%s", output_dir.c_str(), "diag_log_",
             stamp, ".qmdl");
    umask(kUmask);
    fd_dev = open(dev_file_path, O_RDWR | O_CREAT | O_TRUNC | O_SYNC, kFileMode);
    if (fd_dev < 0) {
        LIB_LOGE("PoolBuffer: open file fail ptr length");
        return;
    }
    LIB_LOGD("PoolBuffer: open file succeed");
    WriteRecordLine();
}

void LogFiles::CloseLogFile() {
    if (fd_dev >= 0) close(fd_dev);
    fd_dev = -1;
    dev_file_size = 0;
}

// Makes fd_dev the file to store in. Returns whether there is one.
bool LogFiles::HaveLogFile() {
    struct stat status = {};
    if (fd_dev >= 0) {
        errno = 0;
        if (fstat(fd_dev, &status) != 0) return false;
        if (status.st_nlink != 0) return true;
        CloseLogFile();  // removed: nothing goes into a file that nobody can find any more
    }
    OpenLogFile();
    errno = 0;
    return fstat(fd_dev, &status) == 0;
}

void LogFiles::OpenRecordFile() {
    if (fd_record >= 0) return;
    umask(kUmask);
    fd_record =
        open((output_dir + "record.txt").c_str(), O_RDWR | O_CREAT | O_APPEND | O_SYNC, kFileMode);
    if (fd_record < 0) LIB_LOGE("PoolBuffer: fd_record open file");
    struct stat status = {};
    const int32_t logEnable = gLogEnable;
    if (fstat(fd_record, &status) == 0 && logEnable == 1) {
        [[maybe_unused]] const ssize_t ignored = write(fd_record, "\n\n", 2);
    } else if (logEnable != 0) {
        LIB_LOGE("PoolBuffer: record file name fail errno: %d", errno);
    } else {
        LIB_LOGD("PoolBuffer: no need to record file name as gLogEnable=0");
    }
}

void LogFiles::Store(const char* data, int len) {
    if (data == nullptr || len < 1) {
        LIB_LOGD("PoolBuffer: Invalid ptr in %s length is %d", "LogToDevice", len);
        return;
    }
    int ret = -1;
    if (HaveLogFile()) {
        ret = static_cast<int>(write(fd_dev, data, static_cast<size_t>(len)));
    } else {
        LIB_LOGE("PoolBuffer: Invalid ptr length is %d", len);
    }
    if (ret < len) LIB_LOGE("PoolBuffer: write error, ret=%d", ret);
    if (ret >= 1) dev_file_size += static_cast<uint64_t>(len);
    if (dev_file_size >= mRotationSize) {
        LIB_LOGD("PoolBuffer: finish write file=%s,size=%d", dev_file_path,
                 static_cast<int>(dev_file_size));
        CloseLogFile();
    }
}

void LogFiles::Close() {
    CloseLogFile();
    LIB_LOGD("PoolBuffer: finish record");
    if (fd_record >= 0) close(fd_record);
    fd_record = -1;
}
