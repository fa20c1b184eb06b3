#include "tools/mask/mask_print.h"

#include <fmt/format.h>

#include <array>

#include "tools/common/frame_stream.h"
#include "tools/common/frame_text.h"
#include "tools/common/mask_requests.h"

namespace {

constexpr size_t kFcsLength = 2;

struct MaskFrame {
    size_t offset = 0;
    size_t length = 0;  // as it stands in the file
    bool good = false;  // complete, with the right check sequence
    std::string packet;
    std::vector<std::string> problems;
};

void CheckSetMask(MaskFrame& frame) {
    const auto request = ReadSetMask(frame.packet);
    auto& problems = frame.problems;
    if (!request.has_value()) {
        problems.emplace_back("set-log-mask request too short for a mask");
        return;
    }
    if (request->id >= kMaskFileIds) {
        problems.push_back(fmt::format(
            "equipment id {} is above 13: the daemon does not keep its mask", request->id));
    }
    if (request->bits > kItemsPerEquipment) {
        problems.push_back(
            fmt::format("a mask has at most {} bits, not {}", kItemsPerEquipment, request->bits));
        return;
    }
    if (request->mask.size() != LogMaskBytes(request->bits)) {
        problems.push_back(fmt::format("{} for {} bits", Counted(request->mask.size(), "mask byte"),
                                       request->bits));
    }
    const auto items = EnabledItems(*request);
    if (!items.empty() && items.back() >= request->bits) {
        problems.push_back(fmt::format("codes are enabled beyond the {} bits", request->bits));
    }
}

void TakeFrame(FrameState state, std::string_view packet, bool closed, MaskFrame& frame) {
    switch (state) {
        case FrameState::kGood:
            frame.good = true;
            frame.packet = packet;
            break;
        case FrameState::kBadCheck:
            if (packet.size() > kFcsLength) {
                frame.packet = packet.substr(0, packet.size() - kFcsLength);
            }
            frame.problems.emplace_back("bad check sequence");
            break;
        case FrameState::kOverlong:
            frame.problems.push_back(
                fmt::format("{} bytes without 0x7E: the daemon stops reading here", kDiagAreaSize));
            break;
        case FrameState::kIncomplete:
            if (closed) break;
            frame.problems.push_back(
                fmt::format("no 0x7E behind the last {}: the daemon does not send them",
                            Counted(frame.length, "byte")));
    }
    if (BeginsSetMask(frame.packet)) CheckSetMask(frame);
}

std::vector<MaskFrame> CutFrames(std::string_view file) {
    std::vector<MaskFrame> frames;
    FrameReader reader;
    for (size_t offset = 0; offset < file.size(); offset += frames.back().length) {
        MaskFrame frame;
        FrameState state;
        frame.offset = offset;
        frame.length = reader.Take(&file[offset], file.size() - offset, &state);
        const char last = file[offset + frame.length - 1];
        TakeFrame(state, reader.packet(), static_cast<unsigned char>(last) == kHdlcFlag, frame);
        frames.push_back(std::move(frame));
    }
    return frames;
}

// One line, without its end.
std::string Describe(const MaskFrame& frame) {
    if (frame.packet.empty()) {
        return frame.problems.empty() ? "empty frame"
                                      : "no request in " + Counted(frame.length, "byte");
    }
    const char* const check = frame.good ? "check sequence good" : "check sequence BAD";
    const auto request = ReadSetMask(frame.packet);
    if (!request.has_value()) return DescribePacket(frame.packet, check);
    return fmt::format("set log mask (0x73), {}, {}: equipment id {}, {}, {}",
                       Counted(frame.packet.size(), "byte"), check, request->id,
                       Counted(request->bits, "bit"),
                       Counted(EnabledItems(*request).size(), "code"));
}

// The codes of request, and its width unless a list has that anyway. Empty when such lines make
// another request than packet.
std::string MaskLines(const SetMaskRequest& request, std::string_view packet) {
    const auto items = EnabledItems(request);
    const bool listable = request.id < kMaskFileIds && !items.empty() &&
                          request.bits <= kItemsPerEquipment && items.back() < request.bits &&
                          request.mask.size() == LogMaskBytes(request.bits) &&
                          MakeSetMask(request) == packet;
    if (!listable) return "";
    std::string lines;
    if (request.bits != 8 * (items.back() / 8 + 1)) {
        lines = fmt::format("width {} {}\n", request.id, request.bits);
    }
    return lines + CodeLines(request, "");
}

std::string RequestLine(std::string_view packet) {
    for (const NamedRequest& named : kNamedRequests) {
        if (packet == named.packet) return fmt::format("{}\n", named.item);
    }
    return fmt::format("raw {}\n", FormatHex(packet, packet.size()));
}

std::vector<std::string> Findings(const std::vector<MaskFrame>& frames) {
    std::vector<std::string> findings;
    if (frames.empty()) findings.emplace_back("offset 0: the file is empty");
    for (const MaskFrame& frame : frames) {
        for (const std::string& problem : frame.problems)
            findings.push_back(fmt::format("offset {}: {}", frame.offset, problem));
    }
    return findings;
}

}  // namespace

MaskFileText PrintMaskFile(std::string_view file) {
    const std::vector<MaskFrame> frames = CutFrames(file);
    MaskFileText result;
    result.findings = Findings(frames);
    for (const MaskFrame& frame : frames) {
        result.text += fmt::format("offset {}: {}\n", frame.offset, Describe(frame));
        const auto request = ReadSetMask(frame.packet);
        if (request.has_value() && request->id < kMaskFileIds) {
            result.text += CodeLines(*request, "  ");
        }
    }
    return result;
}

MaskFileText ListMaskFile(std::string_view file) {
    const std::vector<MaskFrame> frames = CutFrames(file);
    MaskFileText result;
    result.findings = Findings(frames);
    // A list gathers all codes of an equipment id in one request: its second one must be raw.
    std::array<bool, kMaskFileIds> listed{};
    for (const MaskFrame& frame : frames) {
        if (!frame.good) {
            result.text +=
                fmt::format("# left out: offset {}: {}\n", frame.offset, Describe(frame));
            continue;
        }
        const auto request = ReadSetMask(frame.packet);
        std::string lines;
        if (request.has_value() && request->id < kMaskFileIds && !listed[request->id]) {
            lines = MaskLines(*request, frame.packet);
            listed[request->id] = !lines.empty();
        }
        result.text += lines.empty() ? RequestLine(frame.packet) : lines;
    }
    return result;
}
