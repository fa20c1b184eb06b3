// The modem's log masks: programmed from a log-mask file, switched off again.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "base/limits.h"
#include "base/waiting.h"
#include "diag/diag_commands.h"
#include "diag/hdlc.h"
#include "diag/reply_frames.h"
#include "logmask/modem_line.h"

// The one object that programs the modem's logging, and keeps what capture needs of it: the
// set-log-mask commands of the files loaded, whether there was any, and the modem's last time-stamp
// reply. The daemon's lives as long as the process. Relay thread only, but for IsLogPacketEnable
// (any thread).
//
// Every send and read goes to the descriptor recorded last, which the caller owns. StartWaits
// bounds what they wait for in sum.
class LogMask {
  public:
    static LogMask* GetInstance();

    // directory: where the log-mask files are.
    explicit LogMask(const char* directory) : mMaskDirectory(directory) {}
    LogMask(const LogMask&) = delete;
    LogMask& operator=(const LogMask&) = delete;

    // Records the connection's modem port, or -1 when it has none.
    void SetDiagFd(int fd) {
        mDiagFd = fd;
        mReplies.Reset();
    }

    // What the modem has got, of all connections.
    ModemLine& Line() { return mLine; }

    // Allows the following sends and reads to wait until the deadline, for an answer no longer than
    // limits.answer, and limits.inVain in sum for a modem that takes or answers nothing. Then all
    // go on without waiting. The last limits.answer of it are for a modem that takes nothing.
    void StartWaits(const Deadline& deadline, const Limits& limits) {
        mDeadline = deadline;
        mAnswerLimit = limits.answer;
        mInVain = limits.inVain;
    }

    // Takes the rest of a frame whose head was read behind a request out of the modem's next bytes
    // data[0, len). Returns the length of what is left, which then begins at data.
    int DropRestOfReply(char* data, int len);

    // Sends the requests of the log-mask file that the property selects to fd and records fd. With
    // readReplies what the modem sends is read behind each request until the answer has come, and
    // not relayed; fd must be in blocking mode. Returns 1, also when nothing could be sent.
    int DiagMask(int& fd, int readReplies);

    // DiagMask for the file at path. Returns 1 when the file was read, else -1.
    int DiagMaskRead(int& fd, const char* path, int readReplies);

    // Keeps the set-log-mask command framed in [begin, end), end just past its 0x7E, at most
    // kDiagAreaSize bytes. Returns 1, or 0 on null pointers.
    int ParseSetLogMask(const char* begin, const char* end);

    // Logs the log codes that the framed command enables and returns their number, or -1 on null
    // pointers.
    int CountOfLogPacket(const char* begin, const char* end);

    // Sends one frame whole, after a 0x7E when the line is within a frame. Returns 1, or -1 with an
    // error line.
    int DiagDataSend(const char* data, int len);

    // Reads once, up to kDiagAreaSize bytes, and keeps what begins like a time-stamp reply. Returns
    // the bytes read or -1.
    int DiagDataRead();

    // Switches the modem's logs, messages and events off. With readReplies, as in DiagMask, the
    // replies are read and traced. Returns 1.
    int DisableLog(int readReplies);

    // Reads once and traces what was read. Returns the bytes read or -1.
    int DiagDataReadForDisableLog();

    // Whether a set-log-mask command was ever loaded.
    bool IsLogPacketEnable() const { return mLogPacketEnable; }
    // The same as a flag to look at, which lives as long as the process.
    const std::atomic<bool>& LogPacketEnable() const { return mLogPacketEnable; }

    // Copies the last time-stamp reply, as read, into out: all of it when it fits into room bytes,
    // otherwise as many of its whole frames as fit. Returns the bytes copied, 0 when there is none.
    int GetTimeStamp(char* out, int room) const;

    // Copies the stored set-log-mask command of an equipment id (0 to 13), un-escaped and without
    // check sequence and 0x7E. Returns its length, or 0 when there is none or it is not shorter
    // than maxLen bytes.
    int GetSetLogMaskDiagCmd(char* out, int equipmentId, int maxLen) const;

    // HdlcUnescape, as the log-mask interception calls it.
    static int RemoveEscape(char* buffer, int len) { return HdlcUnescape(buffer, len); }

  private:
    void SendMaskFrame(const char* frame, int len, int readReplies);
    int SendFrame(const char* data, int len);
    int WriteWaiting(const char* data, int len);
    void ReadReplies(const char* request, int len, bool isTraced);
    int ReadOnce(char (&area)[kDiagAreaSize]);
    void KeepTimeStamp(const char* data, int len);

    const std::string mMaskDirectory;
    char mMaskFile[501] = {};  // path last given to DiagMaskRead
    char mSetLogMaskCmd[kEquipmentIds][kDiagAreaSize] = {};
    int32_t mSetLogMaskCmdLen[kEquipmentIds] = {};  // bytes; 0: none
    int32_t mDiagFd = 0;
    std::atomic<bool> mLogPacketEnable{false};  // never cleared
    char mTimeStamp[kDiagAreaSize] = {};
    int32_t mTimeStampLen = 0;  // bytes

    // As StartWaits.
    Deadline mDeadline{Deadline::Clock::time_point::min()};
    Deadline::Clock::duration mAnswerLimit{0};
    Deadline::Clock::duration mInVain{0};  // what is left of it

    ModemLine mLine;
    ReplyFrames mReplies;
    bool mBeginsReply = false;  // the last bytes read began a frame
    bool mHasAnswer = false;    // an answer ended in them
};
