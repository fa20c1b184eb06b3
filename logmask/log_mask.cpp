// The log-mask file: which one, what it sends, what is kept of it.
#include "logmask/log_mask.h"

#include <cutils/properties.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "diag/diag_commands.h"
#include "platform/tagged_log.h"

namespace {

constexpr char kMaskDirectory[] = "/vendor/etc/quillod/cfg";
constexpr char kDefaultName[] = "DIAG";
constexpr char kMaskProperty[] = "persist.vendor.factory.logmask";
constexpr int kPathSize = 500;

void FormPath(char (&path)[kPathSize], const char* directory, const char* name) {
    snprintf(path, sizeof(path), "%s/%s.cfg", directory, name);
}

// ASCII only, whatever the locale.
void LowerCase(char* text) {
    for (; *text != '\0'; ++text) {
        if (*text >= 'A' && *text <= 'Z') *text = static_cast<char>(*text - 'A' + 'a');
    }
}

// Chooses the log-mask file by the property; the default when that names none that exists.
void ChooseMaskFile(char (&path)[kPathSize], const char* directory) {
    char name[kPathSize] = {};
    if (property_get(kMaskProperty, name, "") < 1) {
        LIB_LOGE("DiagMask, failed to read property ,and load default file,%s.cfg", kDefaultName);
        FormPath(path, directory, kDefaultName);
        return;
    }
    if (strlen(name) < 1) {
        LIB_LOGE("DiagMask, the length of property lower than 0, and load default file, %s.cfg",
                 kDefaultName);
        FormPath(path, directory, kDefaultName);
        return;
    }
    LowerCase(name);
    FormPath(path, directory, name);
    // A name is a file in the directory, never a way out of it.
    if (strchr(name, '/') != nullptr || access(path, F_OK) != 0) {
        LIB_LOGE("DiagMask, can't find log mask:%s in path:%s", path, directory);
        FormPath(path, directory, kDefaultName);
    }
}

// Un-escapes the frame [begin, end) into area. Returns the un-escaped length, as RemoveEscape.
int Unescape(const char* begin, const char* end, char (&area)[kDiagAreaSize + 1]) {
    const auto len = end - begin;
    if (len < 1 || len > kDiagAreaSize) return -1;
    memcpy(area, begin, static_cast<size_t>(len));
    return LogMask::RemoveEscape(area, static_cast<int>(len));
}

struct FileCloser {
    void operator()(FILE* file) const { fclose(file); }
};

}  // namespace

LogMask* LogMask::GetInstance() {
    static LogMask* const sInstance = new LogMask(kMaskDirectory);
    return sInstance;
}

int LogMask::DiagMask(int& fd, int readReplies) {
    char path[kPathSize];
    ChooseMaskFile(path, mMaskDirectory.c_str());
    LIB_LOGD("DiagMask, log mask file = %s", path);
    DiagMaskRead(fd, path, readReplies);
    return 1;
}

int LogMask::DiagMaskRead(int& fd, const char* path, int readReplies) {
    if (path == nullptr || fd == -1 || path[0] == '\0') {
        LIB_LOGE("DiagMaskRead,invalid parameters,writefd =%d, maskfile=%s", fd,
                 path != nullptr ? path : "(null)");
        return -1;
    }
    memset(mMaskFile, 0, sizeof(mMaskFile));
    snprintf(mMaskFile, sizeof(mMaskFile), "%s", path);
    mDiagFd = fd;
    const std::unique_ptr<FILE, FileCloser> file(fopen(mMaskFile, "rb"));
    if (file == nullptr) {
        LIB_LOGE("Open log mask file:%s fail, please check the device,errno:%d", mMaskFile, errno);
        return -1;
    }
    char frame[kDiagAreaSize];
    int len = 0;
    for (int c = fgetc(file.get()); c != EOF && len < kDiagAreaSize; c = fgetc(file.get())) {
        frame[len++] = static_cast<char>(c);
        if (c != kHdlcFlag) continue;
        SendMaskFrame(frame, len, readReplies);
        len = 0;
    }
    return 1;
}

// One frame of a log-mask file, its 0x7E included.
void LogMask::SendMaskFrame(const char* frame, int len, int readReplies) {
    if (BeginsSetLogMask(frame, len)) {
        ParseSetLogMask(frame, frame + len);
        mLogPacketEnable = true;
    }
    if (DiagDataSend(frame, len) == -1) {
        LIB_LOGE("Diag_data_send comand failed, and continue to send next one");
    } else if (readReplies != 0) {
        LIB_LOGD("Diag data send successfully, and begine to do read operations");
        ReadReplies(frame, len, false);
    }
}

int LogMask::ParseSetLogMask(const char* begin, const char* end) {
    if (begin == nullptr || end == nullptr) {
        LIB_LOGE("ParseSetLogMask,invalid parameters");
        return 0;
    }
    const int id =
        end - begin > kEquipmentIdAt ? static_cast<unsigned char>(begin[kEquipmentIdAt]) : 0;
    LIB_LOGD("ParseSeeLogMask, equipment_id of logpackets=0x%X", id);
    char area[kDiagAreaSize + 1];
    const int len = Unescape(begin, end, area);
    if (id >= kEquipmentIds || len < 1) {
        LIB_LOGE("LogPacketslabel, invalid parameters");
    } else if (area[0] != kSetLogMaskPrefix[0]) {
        LIB_LOGE("This log mask isn't log packet, do nothing");
    } else if (len > 12) {
        memcpy(mSetLogMaskCmd[id], area, static_cast<size_t>(len - kFrameTrailer));
        mSetLogMaskCmdLen[id] = len - kFrameTrailer;
    } else {
        LIB_LOGE("This log mask command don't contain any log configurations");
    }
    CountOfLogPacket(begin, end);
    return 1;
}

int LogMask::CountOfLogPacket(const char* begin, const char* end) {
    if (begin == nullptr || end == nullptr) {
        LIB_LOGE("CountOfLogPacket, invalid parameters");
        return -1;
    }
    char area[kDiagAreaSize + 1];
    const int len = Unescape(begin, end, area);
    int count = 0;
    if (len >= 20) {
        const int base = static_cast<unsigned char>(area[kEquipmentIdAt]) << 12;
        for (int at = kMaskAt; at < len - kFrameTrailer; ++at) {
            const auto byte = static_cast<unsigned char>(area[at]);
            for (int bit = 0; bit < 8; ++bit) {
                if ((byte & (1U << bit)) == 0) continue;
                LIB_LOGD("current_log_code: 0x%X, count_logpacket: %d",
                         base + 8 * (at - kMaskAt) + bit, count);
                ++count;
            }
        }
    }
    LIB_LOGD("CountOfLogPacket end, and cont of logcode=%d", count);
    return count;
}

int LogMask::GetSetLogMaskDiagCmd(char* out, int equipmentId, int maxLen) const {
    const int len = mSetLogMaskCmdLen[equipmentId];
    if (len >= maxLen) return 0;
    memcpy(out, mSetLogMaskCmd[equipmentId], static_cast<size_t>(len));
    return len;
}

int LogMask::GetTimeStamp(char* out, int room) const {
    int len = mTimeStampLen;
    if (len < 1) return 0;
    if (len > room) {
        const void* lastFlag = memrchr(mTimeStamp, kHdlcFlag, static_cast<size_t>(room));
        if (lastFlag == nullptr) return 0;
        len = static_cast<int>(static_cast<const char*>(lastFlag) - mTimeStamp) + 1;
    }
    memcpy(out, mTimeStamp, static_cast<size_t>(len));
    return len;
}
