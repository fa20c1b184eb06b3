#include "tools/capture/capture_text.h"

#include <fmt/format.h>

#include <array>

#include "tools/common/frame_text.h"
#include "tools/common/mask_requests.h"

namespace {

// Whether the packet's head is there to tell its kind.
bool HasKind(const CaptureFrame& frame) {
    return frame.check != CaptureCheck::kCutAtStart && !frame.packet.empty();
}

std::string HexLines(std::string_view packet) {
    constexpr size_t kPerLine = 16;
    std::string lines;
    for (size_t at = 0; at < packet.size(); at += kPerLine)
        lines += fmt::format("{:14X}  {}\n", at, FormatHex(packet.substr(at, kPerLine), kPerLine));
    return lines;
}

}  // namespace

const char* CaptureKindName(PacketKind kind) {
    static constexpr std::array<const char*, kPacketKinds> kNames = {"log packet", "event report",
                                                                     "message", "answer"};
    return kNames[static_cast<size_t>(kind)];
}

const char* CaptureKindWord(PacketKind kind) {
    static constexpr std::array<const char*, kPacketKinds> kWords = {"log", "event", "message",
                                                                     "answer"};
    return kWords[static_cast<size_t>(kind)];
}

const char* CaptureCheckText(CaptureCheck check) {
    switch (check) {
        case CaptureCheck::kGood:
            return "good";
        case CaptureCheck::kBad:
            return "BAD check sequence";
        case CaptureCheck::kCutAtStart:
            return "cut: the file begins in mid-frame";
        case CaptureCheck::kCutAtEnd:
            return "cut: the file ends in mid-frame";
    }
    return "";
}

bool CaptureFilter::Wants(const CaptureFrame& frame) const {
    if (codes.empty() && !kind.has_value()) return true;
    if (!HasKind(frame) || (kind.has_value() && KindOf(frame.packet) != *kind)) return false;
    const auto code = LogCodeOf(frame.packet);
    return codes.empty() || (code.has_value() && codes.count(*code) != 0);
}

std::string CaptureHeading() {
    return "    offset  kind          code    id  length  check sequence\n";
}

std::string CaptureLine(const CaptureFrame& frame, bool hex) {
    std::string code = "-";
    std::string id = "-";
    const auto logCode = LogCodeOf(frame.packet);
    if (HasKind(frame) && logCode.has_value()) {
        code = LogCodeText(*logCode);
        id = std::to_string(*logCode >> 12);
    }
    const std::string line =
        fmt::format("{:10}  {:<12}  {:<6}  {:>2}  {:6}  {}\n", frame.offset,
                    HasKind(frame) ? CaptureKindName(KindOf(frame.packet)) : "-", code, id,
                    frame.packet.size(), CaptureCheckText(frame.check));
    return hex ? line + HexLines(frame.packet) : line;
}
