#include "tools/capture/capture_text.h"

#include <array>
#include <cstdio>

#include "tools/common/frame_text.h"

namespace {

// Whether the packet's head is there to tell its kind.
bool HasKind(const CaptureFrame& frame) {
    return frame.check != CaptureCheck::kCutAtStart && !frame.packet.empty();
}

std::string HexLines(std::string_view packet) {
    constexpr size_t kPerLine = 16;
    std::string lines;
    for (size_t at = 0; at < packet.size(); at += kPerLine) {
        char offset[24];
        snprintf(offset, sizeof offset, "%14zX  ", at);
        lines += offset + FormatHex(packet.substr(at, kPerLine), kPerLine) + "\n";
    }
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
    const auto code = HasKind(frame) ? LogCodeOf(frame.packet) : std::nullopt;
    char codeText[8] = "-";
    char idText[4] = "-";
    if (code.has_value()) {
        snprintf(codeText, sizeof codeText, "0x%04X", *code & 0xFFFF);
        snprintf(idText, sizeof idText, "%u", *code >> 12 & 0xF);
    }
    char line[128];
    snprintf(line, sizeof line, "%10llu  %-12s  %-6s  %2s  %6zu  %s\n",
             static_cast<unsigned long long>(frame.offset),
             HasKind(frame) ? CaptureKindName(KindOf(frame.packet)) : "-", codeText, idText,
             frame.packet.size(), CaptureCheckText(frame.check));
    return hex ? line + HexLines(frame.packet) : line;
}
