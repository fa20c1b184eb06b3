// The modem's answers to log-configuration requests (0x73): joined where they arrive in pieces, and
// rewritten to show the tool only its own masks. Knows bytes alone, and the tool's requests.
#pragma once

#include "diag/hdlc.h"
#include "diag/tool_log_requests.h"

// One answer at a time: Keep its pieces but the last, then Parse73CmdResponse, then Forget. One
// thread at a time.
class LogConfigAnswers {
  public:
    explicit LogConfigAnswers(const ToolLogRequests& requests) : mRequests(requests) {}
    LogConfigAnswers(const LogConfigAnswers&) = delete;
    LogConfigAnswers& operator=(const LogConfigAnswers&) = delete;

    // Whether len more bytes can be kept or parsed: kDiagAreaSize in all.
    bool Fits(int len) const { return m73CmdResponseBufferCurrentLength + len <= kDiagAreaSize; }

    // Keeps a piece that Fits.
    void Keep(const char* piece, int len);

    const char* Kept() const { return m73CmdResponseBuffer; }
    int KeptLength() const { return m73CmdResponseBufferCurrentLength; }
    void Forget() { m73CmdResponseBufferCurrentLength = 0; }

    // What the tool gets in the place of an answer; valid until the next call and Forget.
    struct Reply {
        const char* frame;
        int len;       // bytes; 0: nothing
        int modemLen;  // bytes of the modem's frame that it stands for
    };
    // The reply to the answer whose last piece is [piece, piece + len), which Fits and ends with
    // 0x7E. An operation without a rule is replied as it is. isWholePakcetRead is traced only.
    Reply Parse73CmdResponse(const char* piece, int len, bool isWholePakcetRead);

  private:
    Reply ParseAPSetLogMaskResponse(const char* frame, int len);
    Reply ParseAPGetLogMaskResponse(const char* frame, int len);
    void ReplaceMask(char* response, int req_length, int equipmentId) const;

    const ToolLogRequests& mRequests;
    char m73CmdResponseBuffer[kDiagAreaSize];  // an answer cut so far
    int m73CmdResponseBufferCurrentLength = 0;
    char mFramed[kDiagAreaSize];  // the last rewritten frame
};
