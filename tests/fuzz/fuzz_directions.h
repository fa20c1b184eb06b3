// Both directions of a connection for fuzz targets: without the relay, with the pool in memory, and
// with the work of the processing thread done by the caller. One for the life of the process.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "buffer/circular_buffer_ext.h"
#include "daemon/log_switch.h"
#include "tests/fuzz/fuzz_input.h"

extern std::string gCaptured;  // what the pool took

// The inside of CircularBufferExt.
class CircularBufferExtPeer {
  public:
    using Buffer = CircularBufferExt;

    // As constructed, but for the block queue, which is not used.
    static void Reset(Buffer& buffer) {
        buffer.mThreadExitCode = 1;
        buffer.mHead = buffer.mTail = 0;
        buffer.mNumBytes = 0;
        buffer.mIsWholePakcetRead = buffer.mIsPrevWholePacketRead = true;
        buffer.mCurrentCmdCode = -1;
        buffer.mIsToolLogPiece = buffer.mIsResponseIntercepted = false;
        buffer.ResetLogPacket();
        buffer.m73CmdResponseBufferCurrentLength = 0;
        buffer.mIsCurrentLogMaskCmdResponseNotCopyAgain = false;
        buffer.mTotalLengthForReadDataFromBP = buffer.mTotalLengthForSavedToFlash = 0;
        buffer.mTotalLengthForReadDataWriteToAP = buffer.mTotalLengthForLogDataWriteToAp = 0;
    }

    static void ForgetToolRequests() {
        Buffer::msIsFTMLogEnable = false;
        Buffer::msCurrentEquipmentId = 0;
        for (int id = 0; id < kEquipmentIds; ++id) {
            Buffer::isAPLogPacketNeed[id] = false;
            Buffer::EmptyToolCodes(id);
            Buffer::data_length_for_ap_set_log_mask[id] = 0;
        }
    }

    // One block, in memory of its own size, as the processing thread handles it.
    static void HandleBlock(Buffer& buffer, const char* data, int len) {
        buffer.mBlocks[0] =
            static_cast<char*>(realloc(buffer.mBlocks[0], static_cast<size_t>(len)));
        memcpy(buffer.mBlocks[0], data, static_cast<size_t>(len));
        buffer.mBlockSizes[0] = len;
        buffer.ProcessBlock(0);
    }

    // Takes bytes out of the ring, at most limit, as a write does.
    static std::string Drain(Buffer& buffer, unsigned long limit = SIZE_MAX) {
        Check(buffer.mNumBytes < buffer.mBufferSize, "one byte of the ring stays free");
        const unsigned long count = std::min<unsigned long>(buffer.mNumBytes, limit);
        const unsigned long untilEnd = std::min(count, buffer.mBufferSize - buffer.mHead);
        std::string bytes(buffer.mBuffer + buffer.mHead, untilEnd);
        bytes.append(buffer.mBuffer, count - untilEnd);
        buffer.mHead = (buffer.mHead + count) % buffer.mBufferSize;
        buffer.mNumBytes -= count;
        if (!buffer.IsEmpty()) return bytes;
        Check(buffer.mHead == buffer.mTail, "the ring's count is its content");
        buffer.mHead = buffer.mTail = 0;
        return bytes;
    }

    // The counters, against the bytes that the tool and the pool really got.
    static void CheckCounts(const Buffer& buffer, uint64_t toTool) {
        const auto held = static_cast<uint64_t>(buffer.m73CmdResponseBufferCurrentLength);
        Check(buffer.IsCountBalanced(), "counters balance");
        Check(buffer.mTotalLengthForReadDataWriteToAP == toTool + held, "WriteToAP is true");
        Check(buffer.mTotalLengthForSavedToFlash == gCaptured.size(), "SavedToFlash is true");
        Check(buffer.ThreadExitCode() == 1, "no write failed");
    }
    static uint64_t CapturedAndSent(const Buffer& buffer) {
        return buffer.mTotalLengthForLogDataWriteToAp;
    }
};

class FuzzDirections {
  public:
    using Peer = CircularBufferExtPeer;
    static constexpr size_t kBlock = 4095;

    FuzzDirections() {
        int ends[2];
        Check(pipe2(ends, O_NONBLOCK | O_CLOEXEC) == 0, "there are pipes");
        mFromTool = ends[0];
        tool = ends[1];
    }

    // A new connection; what the tool asked for on the one before is forgotten, or not.
    void Reset(bool forgetsRequests = true) {
        Peer::Reset(toTool);
        Peer::Reset(toModem);
        if (forgetsRequests) Peer::ForgetToolRequests();
        gCaptured.clear();
        mSentToTool = 0;
        gLogEnable = 1;
    }

    // One block of the modem, at least a byte; returns what the tool gets.
    std::string ToTool(const char* data, size_t len) {
        Peer::HandleBlock(toTool, data, static_cast<int>(len));
        // Written when the ring had no room.
        std::string out(static_cast<size_t>(lseek(mSink, 0, SEEK_CUR)), '\0');
        if (!out.empty()) {
            Check(pread(mSink, &out[0], out.size(), 0) > 0, "the sink can be read");
            lseek(mSink, 0, SEEK_SET);
        }
        out += Peer::Drain(toTool);
        mSentToTool += out.size();
        Peer::CheckCounts(toTool, mSentToTool);
        return out;
    }

    // Reads what the tool wrote into the pipe, as far as the ring has room, which it must have.
    int ReadTool() { return toModem.Read(mFromTool); }

    // Reads all of it; returns what the modem gets.
    std::string RelayTool() {
        std::string out = Peer::Drain(toModem);
        while (ReadTool() != -EAGAIN || !toModem.IsEmpty())
            out += Peer::Drain(toModem);
        return out;
    }

    // One read of the tool, which the ring has room for; returns what the modem gets.
    std::string ToModem(std::string chunk) {
        if (!chunk.empty()) toModem.ParseReadData(&chunk[0], &chunk[0] + chunk.size());
        return Peer::Drain(toModem);
    }

  private:
    static constexpr unsigned long kSize = 16384;
    std::vector<char> mToModemRing = std::vector<char>(kSize);
    std::vector<char> mToToolRing = std::vector<char>(kSize);
    int mFromTool = -1;
    int mSink = memfd_create("sink", MFD_CLOEXEC);
    uint64_t mSentToTool = 0;

  public:
    int tool = -1;  // what is written here comes from the tool
    CircularBufferExt toModem{mToModemRing.data(), kSize, "AP --> BP", mFromTool, mSink};
    CircularBufferExt toTool{mToToolRing.data(), kSize, "AP <-- BP", mFromTool, mSink};
};

inline std::string Framed(const std::string& packet) {
    char framed[kDiagAreaSize];
    const int len = EncodeFrame(packet.data(), static_cast<int>(packet.size()), framed);
    return {framed, static_cast<size_t>(len)};
}

// The mask file's content as a file; the descriptor is the caller's.
inline int LoadMasks(int fileFd, int modemFd, const std::string& content) {
    const auto path = "/proc/self/fd/" + std::to_string(fileFd);
    Check(ftruncate(fileFd, 0) == 0, "the mask file can be emptied");
    const auto written = pwrite(fileFd, content.data(), content.size(), 0);
    Check(written == static_cast<ssize_t>(content.size()), "the mask file can be written");
    return LogMask::GetInstance()->DiagMaskRead(modemFd, path.c_str(), 0);
}
