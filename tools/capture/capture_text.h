// Captured frames for people.
#pragma once

#include <optional>
#include <set>
#include <string>

#include "tools/capture/capture_reader.h"
#include "tools/common/packet.h"

// "log packet", as people read it.
const char* CaptureKindName(PacketKind kind);

// The word for an option or a program: log, event, message or answer.
const char* CaptureKindWord(PacketKind kind);

// "good", "BAD check sequence", or how the frame is cut.
const char* CaptureCheckText(CaptureCheck check);

// Which frames to show; without a condition all of them.
struct CaptureFilter {
    std::set<uint32_t> codes;  // log packets of these only; empty for no condition
    std::optional<PacketKind> kind;

    bool Wants(const CaptureFrame& frame) const;
};

// The line above those of CaptureLine, which says what stands where.
std::string CaptureHeading();

// One line, and with hex the packet below it, sixteen bytes a line. Ends with a line end.
std::string CaptureLine(const CaptureFrame& frame, bool hex);
