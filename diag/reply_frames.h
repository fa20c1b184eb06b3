// The frames in what the modem sends behind the daemon's own requests. Knows bytes alone.
#pragma once

// Looks for the answer to one request at a time, through the pieces in which the modem's stream is
// read. One thread at a time.
class ReplyFrames {
  public:
    // Begins to look for the answer to a framed request.
    void Expect(const char* request, int len);
    // Whether the request has a command, so that the modem answers it.
    bool IsAnswerExpected() const { return mCommand != kNone; }

    // Takes the next bytes of the stream. Returns whether an answer has ended in them: a frame that
    // begins with the command, or with the code of an error and the command.
    bool Take(const char* data, int len);

    // Whether the bytes so far end within a frame.
    bool IsWithinFrame() const { return mHeadLength > 0 || mIsEscaped; }
    // Forgets the frame that the bytes so far end in, if any.
    void Reset();

  private:
    static constexpr int kNone = -1;

    void TakeHead(unsigned char byte);
    bool IsAnswer() const;

    int mCommand = kNone;
    unsigned char mHead[2] = {};  // of the frame under way, un-escaped
    int mHeadLength = 0;          // 0 between frames, at most 2
    bool mIsEscaped = false;      // the last byte was an escape
};
