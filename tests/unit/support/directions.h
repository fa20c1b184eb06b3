// Both directions of a connection on real descriptors, without the relay around them, and tables of
// what happens there. For private handsets only: what is captured lands in the real directory.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "buffer/circular_buffer_ext.h"
#include "capture/log_files.h"
#include "daemon/log_switch.h"
#include "tests/unit/support/descriptors.h"
#include "tools/common/frame_text.h"

// The inside of CircularBufferExt.
class CircularBufferExtPeer {
  public:
    using Buffer = CircularBufferExt;

    // As in a new process.
    static void ForgetToolRequests() {
        Buffer::msIsFTMLogEnable = false;
        Buffer::msCurrentEquipmentId = 0;
        for (int id = 0; id < kEquipmentIds; ++id) {
            Buffer::isAPLogPacketNeed[id] = false;
            Buffer::EmptyToolCodes(id);
            Buffer::data_length_for_ap_set_log_mask[id] = 0;
        }
    }
    static bool IsAnyCodeWanted() { return Buffer::msIsFTMLogEnable; }
    static bool IsCodeWanted(uint32_t code) { return Buffer::IsToolCode(code); }
    // By equipment id, then as listed.
    static std::vector<uint32_t> ListedCodes() {
        std::vector<uint32_t> codes;
        for (int id = 0; id < kEquipmentIds; ++id) {
            const uint32_t* const row = Buffer::toolNeededLogId[id];
            codes.insert(codes.end(), row, row + Buffer::numToolNeededLogId[id]);
        }
        return codes;
    }
    static bool WaitUntilHandled(Buffer& buffer) {
        int result = buffer.WaitForEmptyQueue();
        while (result == -EAGAIN)
            result = buffer.WaitForEmptyQueue();
        return result == 1;
    }
    static bool IsBalanced(const Buffer& buffer) { return buffer.IsCountBalanced(); }
    static uint64_t CapturedAndSent(const Buffer& buffer) {
        return buffer.mTotalLengthForLogDataWriteToAp;
    }
    static int SizeOfBlock(const Buffer& buffer, int index) { return buffer.mBlockSizes[index]; }
    static void LoseBlock(Buffer& buffer, int index) {
        free(buffer.mBlocks[index]);
        buffer.mBlocks[index] = nullptr;
    }
};

// ---- Bytes ----

inline std::string Hex(const char* text) {
    std::string bytes;
    EXPECT_EQ("", ParseHex(text, &bytes));
    return bytes;
}

inline std::string Le32(uint32_t value) {
    return {static_cast<char>(value), static_cast<char>(value >> 8), static_cast<char>(value >> 16),
            static_cast<char>(value >> 24)};
}

inline std::string Framed(const std::string& packet) {
    char framed[kDiagAreaSize];
    const int len = EncodeFrame(packet.data(), static_cast<int>(packet.size()), framed);
    return {framed, static_cast<size_t>(len)};
}

// Set-mask request of the tool, one bit for each bit of the mask.
inline std::string SetMask(uint32_t id, const std::string& mask) {
    return Le32(0x73) + Le32(3) + Le32(id) + Le32(static_cast<uint32_t>(8 * mask.size())) + mask;
}

// Answer of the modem to such a request (operation 3), or to one for the mask (operation 4).
inline std::string Answer(uint32_t operation, uint32_t id, const std::string& mask,
                          uint32_t status = 0) {
    return Framed(Le32(0x73) + Le32(operation) + Le32(status) + SetMask(id, mask).substr(8));
}

// A mask with these items' bits set, as long as the last of them needs, but at least a byte.
inline std::string MaskOf(const std::vector<uint32_t>& items) {
    std::string mask(1, '\0');
    for (const uint32_t item : items) {
        mask.resize(std::max<size_t>(mask.size(), item / 8 + 1));
        mask[item / 8] = static_cast<char>(mask[item / 8] | 1 << item % 8);
    }
    return mask;
}

// Log packet; header: the five bytes between command and code.
inline std::string LogFrame(uint32_t code, const std::string& header = std::string(5, '\0')) {
    return Framed("\x10" + header + Le32(code).substr(0, 2) + "payload");
}

inline void ExpectBytes(const std::string& expected, const std::string& actual, const char* what) {
    if (expected == actual) return;
    size_t same = 0;
    while (same < expected.size() && same < actual.size() && expected[same] == actual[same])
        ++same;
    ADD_FAILURE() << what << " differs at byte " << same << "\n  expected " << expected.size()
                  << ": " << FormatHex(expected.substr(same), 64) << "\n  actual   "
                  << actual.size() << ": " << FormatHex(actual.substr(same), 64);
}

// ---- The connection ----

// Begins with capture off, which makes for a quick end, and switches it on. One at a time: the log
// files are the process's.
class Directions {
  public:
    Directions() {
        LogMask::GetInstance()->SetDiagFd(-1);
        gLogEnable = 1;
    }
    ~Directions() { Close(); }

    // One read of the tool; returns what the modem gets.
    std::string ToModem(const std::string& bytes) {
        WriteAll(tool.far, bytes);
        EXPECT_EQ(-EAGAIN, toModem.Read(tool.near));
        toModem.Write(modem.near);
        return ReadAvailable(modem.far);
    }

    // Takes the modem's bytes, up to 4095 a block, and waits until they are handled; returns what
    // the tool gets.
    std::string ToTool(const std::string& bytes) {
        std::string out;
        WriteAll(modem.far, bytes);
        for (size_t left = bytes.size(); left > 0;) {
            const int n = toTool.Read(modem.near);
            if (n == 0 || (n < 0 && n != -EAGAIN)) break;
            left -= n == -EAGAIN ? left : static_cast<size_t>(n);
            if (gLogEnable == 0) toTool.Write(tool.near);
            if (!CircularBufferExtPeer::WaitUntilHandled(toTool)) break;
            out += ReadAvailable(tool.far);
        }
        EXPECT_TRUE(CircularBufferExtPeer::IsBalanced(toTool)) << "counters";
        EXPECT_EQ(1, toTool.ThreadExitCode());
        return out;
    }

    // Takes the modem's bytes into one block and does not wait.
    void Queue(const std::string& bytes) {
        WriteAll(modem.far, bytes);
        EXPECT_EQ(static_cast<int>(bytes.size()), toTool.Read(modem.near));
    }

    // Ends the connection, once; returns what is on flash.
    const std::string& Close() {
        if (mIsClosed) return mFlash;
        mIsClosed = true;
        toTool.CloseProcess();
        toModem.CloseProcess();
        gLogEnable = 0;
        std::ifstream file(LogFilePath(), std::ios::binary);
        mFlash.assign(std::istreambuf_iterator<char>(file), {});
        std::filesystem::remove(LogFilePath());
        EXPECT_TRUE(CircularBufferExtPeer::IsBalanced(toTool)) << "counters";
        return mFlash;
    }

  private:
    static constexpr unsigned long kSize = 16384;
    std::vector<char> mToModemRing = std::vector<char>(kSize);
    std::vector<char> mToToolRing = std::vector<char>(kSize);
    std::string mFlash;
    bool mIsClosed = false;

  public:
    SocketPair tool;
    SocketPair modem;
    CircularBufferExt toModem{mToModemRing.data(), kSize, "AP --> BP", tool.near, modem.near};
    CircularBufferExt toTool{mToToolRing.data(), kSize, "AP <-- BP", modem.near, tool.near};
};

// ---- Tables ----

// What one side sends, and what the other side gets at once; or the switch.
struct Step {
    enum { kTool, kModem, kSwitch } kind;
    std::string in;
    std::string out;
    int32_t logEnable = 0;
};

inline Step Tool(const std::string& in, const std::string& out) {
    return {Step::kTool, in, out};
}
inline Step Modem(const std::string& in, const std::string& out) {
    return {Step::kModem, in, out};
}
// Of the modem's bytes all, or none, reach the tool.
inline Step Passes(const std::string& in) {
    return Modem(in, in);
}
inline Step Keeps(const std::string& in) {
    return Modem(in, "");
}
// The tool's request for an equipment id without capture mask.
inline Step Wants(uint32_t id, const std::vector<uint32_t>& items) {
    const std::string request = Framed(SetMask(id, MaskOf(items)));
    return Tool(request, request);
}
inline Step Switch(int32_t logEnable) {
    return {Step::kSwitch, "", "", logEnable};
}

struct Story {
    const char* name;
    std::vector<Step> steps;
    std::optional<std::string> flash = {};  // otherwise all that the modem sends
};

// Plays the steps; returns all that the modem sent.
inline std::string Play(Directions& directions, const std::vector<Step>& steps) {
    std::string sent;
    for (const Step& step : steps) {
        SCOPED_TRACE(::testing::Message() << "step " << &step - steps.data() + 1);
        if (step.kind == Step::kTool) ExpectBytes(step.out, directions.ToModem(step.in), "modem");
        if (step.kind == Step::kModem) ExpectBytes(step.out, directions.ToTool(step.in), "tool");
        if (step.kind == Step::kModem) sent += step.in;
        if (step.kind == Step::kSwitch) gLogEnable = step.logEnable;
    }
    return sent;
}

// Each on a connection of its own.
inline void PlayAll(const std::vector<Story>& stories) {
    for (const Story& story : stories) {
        SCOPED_TRACE(story.name);
        CircularBufferExtPeer::ForgetToolRequests();
        Directions directions;
        const std::string sent = Play(directions, story.steps);
        ExpectBytes(story.flash.value_or(sent), directions.Close(), "flash");
    }
}

// The tool asked for nothing, and there are capture masks for two equipment ids: 1 with item 15, 2
// with item 31.
class CaptureTest : public ::testing::Test {
  protected:
    CaptureTest() {
        CircularBufferExtPeer::ForgetToolRequests();
        constexpr char kMasks[] = "/data/masks.cfg";
        std::ofstream(kMasks, std::ios::binary)
            << Framed(SetMask(1, MaskOf({15}))) << Framed(SetMask(2, MaskOf({31})));
        SocketPair modem;
        EXPECT_EQ(1, LogMask::GetInstance()->DiagMaskRead(modem.near, kMasks, 0));
    }
};
