// What the tests of log masks and capture share: a handset with mask files and capture files, and a
// modem that answers.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "handset.h"
#include "tools/frame_stream.h"
#include "tools/packet.h"

namespace e2e {

inline const std::string kMaskDirectory = "/vendor/etc/quillod/cfg/";
inline const std::string kCaptureDirectory = "/data/misc/radio/";
inline const std::string kRecordFile = kCaptureDirectory + "record.txt";
inline constexpr char kMaskProperty[] = "persist.vendor.factory.logmask";

// What the daemon sends to switch the modem's logging off.
inline const std::string kDisableRequests(
    "\x73\0\0\0\0\0\0\0\xDA\x81\x7E"
    "\x7D\x5D\x05\0\0\0\0\0\0\x74\x41\x7E"
    "\x60\0\x12\x6A\x7E",
    28);

// A string of bytes that may hold 0.
template <size_t kSize>
std::string Bytes(const char (&literal)[kSize]) {
    return {literal, kSize - 1};
}

inline std::string Frame(const std::string& packet) {
    std::string framed;
    AppendFrame(framed, packet);
    return framed;
}

// Log configuration 0x73, operation 3, of one equipment id.
inline std::string SetMask(uint32_t id, const std::string& mask) {
    std::string packet = Bytes("\x73\0\0\0\3\0\0\0");
    AppendLe32(packet, id);
    AppendLe32(packet, static_cast<uint32_t>(8 * mask.size()));
    return Frame(packet + mask);
}

inline std::string Contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void Store(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// Paths of the capture files, oldest first.
inline std::vector<std::string> CaptureFiles() {
    std::vector<std::string> files;
    if (!std::filesystem::exists(kCaptureDirectory)) return files;
    for (const auto& entry : std::filesystem::directory_iterator(kCaptureDirectory)) {
        if (entry.path().extension() == ".qmdl") files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

// All captured bytes, file after file.
inline std::string Captured() {
    std::string bytes;
    for (const std::string& path : CaptureFiles())
        bytes += Contents(path);
    return bytes;
}

// Serves the modem's end of the line on a thread of its own: keeps what comes and sends the answer
// to each frame, the empty one included. An empty answer is none.
class AnsweringModem {
  public:
    using Answer = std::function<std::string(const std::string& frame)>;

    AnsweringModem(Modem& line, Answer answer)
        : mLine(line), mAnswer(std::move(answer)), mThread([this] { Serve(); }) {}
    AnsweringModem(const AnsweringModem&) = delete;
    AnsweringModem& operator=(const AnsweringModem&) = delete;
    ~AnsweringModem() {
        mStops = true;
        mThread.join();
    }

    // All that came so far, since the last TakeReceived.
    std::string Received() {
        const std::lock_guard<std::mutex> lock(mMutex);
        return mReceived;
    }

    // Waits until expected has come, and forgets it.
    AssertionResult TakeReceived(const std::string& expected) {
        WaitUntil([&] { return Received().size() >= expected.size(); });
        const std::lock_guard<std::mutex> lock(mMutex);
        return Same(expected, std::exchange(mReceived, ""));
    }

  private:
    void Serve() {
        std::string frame;
        while (!mStops) {
            std::string bytes = mLine.ReceiveExactly(1, milliseconds(20));
            if (bytes.empty()) continue;
            bytes += mLine.ReceiveAvailable();
            {
                const std::lock_guard<std::mutex> lock(mMutex);
                mReceived += bytes;
            }
            for (const char byte : bytes) {
                frame += byte;
                if (byte != '\x7E') continue;
                const std::string answer = mAnswer(frame);
                if (!answer.empty()) mLine.Send(answer);
                frame.clear();
            }
        }
    }

    Modem& mLine;
    const Answer mAnswer;
    std::mutex mMutex;
    std::string mReceived;  // mMutex
    std::atomic<bool> mStops{false};
    std::thread mThread;
};

// A handset without mask files and captures of earlier tests.
class CaptureHandset : public HandsetTest {
  protected:
    CaptureHandset() {
        for (const std::string& directory : {kMaskDirectory, kCaptureDirectory}) {
            std::filesystem::remove_all(directory);
            std::filesystem::create_directories(directory);
        }
    }

    void Switch(bool isOn) { SetProperty(kLogSwitch, isOn ? "true" : "false"); }

    // During a connection; waits until the daemon has done all that the change brings.
    AssertionResult SwitchAndWait(bool isOn) {
        Switch(isOn);
        return daemon.WaitForLog(std::string("E libquillod: end gLogEnable:") + (isOn ? "1" : "0"));
    }

    // Closes the tool's connection and waits until its capture is complete.
    AssertionResult Finish(Tool& tool) {
        tool.Close();
        return daemon.WaitForLog(kListens);
    }
};

}  // namespace e2e
