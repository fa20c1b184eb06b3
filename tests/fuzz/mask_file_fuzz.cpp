// The loader of log-mask files. The input is the file.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "logmask/log_mask.h"
#include "tests/fuzz/fuzz_input.h"
#include "tests/support/bytes.h"

namespace {

const std::string kKnown("s\0\0\0\3\0\0\0\0\0\0\0", 12);

// Every id gets the same command, which an input may replace.
void ResetMasks() {
    static const std::string frame = Framed(kKnown);
    for (int id = 0; id < kEquipmentIds; ++id) {
        std::string known = frame;
        known[kEquipmentIdAt] = static_cast<char>(id);
        LogMask::GetInstance()->ParseSetLogMask(known.data(), known.data() + known.size());
    }
}

// The frames of the file that are sent: up to the first that is longer than an area.
std::vector<std::string> FramesOf(const std::string& file) {
    std::vector<std::string> frames;
    for (size_t at = 0;;) {
        const size_t end = file.find('\x7E', at);
        if (end == std::string::npos || end - at >= kDiagAreaSize) return frames;
        frames.push_back(file.substr(at, end + 1 - at));
        at = end + 1;
    }
}

// Un-escaped, without check sequence and flag.
std::string Raw(std::string frame) {
    const auto len = static_cast<int>(frame.size());
    frame += '\0';
    return frame.substr(0, static_cast<size_t>(std::max(HdlcUnescape(&frame[0], len) - 3, 0)));
}

int BitsOf(const std::string& packet) {
    int bits = 0;
    for (size_t at = kMaskAt; at < packet.size(); ++at)
        bits += __builtin_popcount(static_cast<unsigned char>(packet[at]));
    return bits;
}

void CheckSent(int modem, const std::string& expected) {
    std::string sent(static_cast<size_t>(lseek(modem, 0, SEEK_CUR)), '\0');
    lseek(modem, 0, SEEK_SET);
    Check(sent.empty() || pread(modem, &sent[0], sent.size(), 0) > 0, "the modem can be read");
    Check(sent == expected, "whole frames are sent as they are");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const int file = memfd_create("masks", MFD_CLOEXEC);
    static const int modem = memfd_create("modem", MFD_CLOEXEC);
    static const int isNonBlocking = fcntl(modem, F_SETFL, O_NONBLOCK);
    Check(isNonBlocking == 0, "the modem does not block");
    LogMask& masks = *LogMask::GetInstance();
    const std::string content = FuzzInput(data, size).Runs(SIZE_MAX);
    ResetMasks();
    Check(ftruncate(file, 0) == 0 && pwrite(file, content.data(), content.size(), 0) >= 0, "file");
    Check(ftruncate(modem, 0) == 0 && lseek(modem, 0, SEEK_SET) == 0, "the modem is empty");
    int fd = modem;
    const std::string path = "/proc/self/fd/" + std::to_string(file);
    Check(masks.DiagMaskRead(fd, path.c_str(), 0) == 1, "the file is read");

    std::string sent;
    std::vector<std::string> kept(kEquipmentIds, kKnown);
    for (size_t id = 0; id < kept.size(); ++id)
        kept[id][kEquipmentIdAt] = static_cast<char>(id);
    for (const std::string& frame : FramesOf(content)) {
        sent += frame;
        const std::string raw = Raw(frame);
        const int count = masks.CountOfLogPacket(frame.data(), frame.data() + frame.size());
        Check(count == (raw.size() >= kMaskAt + 1 ? BitsOf(raw) : 0), "every bit is counted");
        if (!BeginsSetLogMask(frame.data(), static_cast<long>(frame.size()))) continue;
        const size_t id =
            frame.size() > kEquipmentIdAt ? static_cast<unsigned char>(frame[kEquipmentIdAt]) : 0;
        if (id < kept.size() && raw.size() >= 10) kept[id] = raw;
    }
    CheckSent(modem, sent);
    for (int id = 0; id < kEquipmentIds; ++id) {
        char command[kDiagAreaSize];
        const int len = masks.GetSetLogMaskDiagCmd(command, id, kDiagAreaSize);
        Check(kept[static_cast<size_t>(id)].compare(0, std::string::npos, command,
                                                    static_cast<size_t>(len)) == 0,
              "the last command of an id is kept");
    }
    return 0;
}
