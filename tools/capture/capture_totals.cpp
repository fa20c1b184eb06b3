#include "tools/capture/capture_totals.h"

#include <fmt/chrono.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "tools/capture/capture_text.h"
#include "tools/common/diag_time.h"
#include "tools/common/frame_text.h"
#include "tools/common/mask_requests.h"

namespace {

using OrderedJson = nlohmann::ordered_json;

constexpr size_t kListedProblems = 20;
constexpr size_t kBarredCodes = 10;
constexpr uint64_t kBarWidth = 40;

// "2026-11-23 00:21:01.123"
std::string TimeText(uint64_t stamp, char separator) {
    const auto millis = DiagTimeSince1970(stamp).count() / 1000;
    const auto time = fmt::gmtime(static_cast<time_t>(millis / 1000));
    return fmt::format("{:%F}{}{:%T}.{:03}", time, separator, time, millis % 1000);
}

}  // namespace

void CaptureTotals::AddFile(uint64_t bytes) {
    ++mFiles;
    mBytes += bytes;
}

void CaptureTotals::Add(const CaptureFrame& frame) {
    if (frame.check != CaptureCheck::kGood) {
        (frame.check == CaptureCheck::kBad ? mBad : mCut).Add(frame.length);
        mProblems.push_back({std::string(frame.file), frame.offset, frame.check});
        return;
    }
    mKinds[static_cast<size_t>(KindOf(frame.packet))].Add(frame.length);
    if (const auto code = LogCodeOf(frame.packet)) mCodes[*code].Add(frame.length);
    if (const auto time = TimeStampOf(frame.packet)) {
        mFirstTime = std::min(mFirstTime, *time);
        mLastTime = std::max(mLastTime, *time);
    }
}

// The codes that occur, the most bytes first.
std::vector<uint32_t> CaptureTotals::CodesByBytes() const {
    std::vector<uint32_t> codes;
    for (uint32_t code = 0; code < mCodes.size(); ++code)
        if (mCodes[code].frames > 0) codes.push_back(code);
    std::stable_sort(codes.begin(), codes.end(),
                     [this](uint32_t a, uint32_t b) { return mCodes[a].bytes > mCodes[b].bytes; });
    return codes;
}

std::string CaptureTotals::CodeLines() const {
    const std::vector<uint32_t> codes = CodesByBytes();
    if (codes.empty()) return "";
    std::string lines = "\nlog code  id      frames         bytes\n";
    for (uint32_t code = 0; code < mCodes.size(); ++code) {
        const Count& count = mCodes[code];
        if (count.frames == 0) continue;
        lines += fmt::format("{:<8}  {:2}  {:10}  {:12}\n", LogCodeText(code), code >> 12,
                             count.frames, count.bytes);
    }
    lines += "\nbusiest codes, bytes of all log packets\n";
    const uint64_t all = mKinds[static_cast<size_t>(PacketKind::kLogPacket)].bytes;
    const uint64_t most = mCodes[codes.front()].bytes;
    for (size_t i = 0; i < std::min(codes.size(), kBarredCodes); ++i) {
        const uint64_t bytes = mCodes[codes[i]].bytes;
        const std::string bar(std::max<uint64_t>(bytes * kBarWidth / most, 1), '#');
        lines += fmt::format("{:<8}  {:<{}} {:5.1f}%\n", LogCodeText(codes[i]), bar, kBarWidth,
                             100.0 * static_cast<double>(bytes) / static_cast<double>(all));
    }
    return lines;
}

std::string CaptureTotals::ProblemLines() const {
    std::string lines;
    for (size_t i = 0; i < std::min(mProblems.size(), kListedProblems); ++i) {
        const Problem& problem = mProblems[i];
        lines += fmt::format("  {}, offset {}: {}\n", problem.file, problem.offset,
                             CaptureCheckText(problem.check));
    }
    if (mProblems.size() > kListedProblems) {
        lines +=
            fmt::format("  and {} more; --json lists all\n", mProblems.size() - kListedProblems);
    }
    return lines.empty() ? "" : "\n" + lines;
}

std::string CaptureTotals::SpanLine() const {
    if (mFirstTime > mLastTime) return "\nno log packet has a time stamp\n";
    const auto span = DiagTimeSince1970(mLastTime) - DiagTimeSince1970(mFirstTime);
    return fmt::format("\nlog packets from {} to {} UTC, {:.3f} s\n", TimeText(mFirstTime, ' '),
                       TimeText(mLastTime, ' '), static_cast<double>(span.count()) / 1e6);
}

std::vector<std::pair<std::string, CaptureTotals::Count>> CaptureTotals::KindRows() const {
    std::vector<std::pair<std::string, Count>> rows;
    for (size_t kind = 0; kind < kPacketKinds; ++kind)
        rows.emplace_back(CaptureKindName(static_cast<PacketKind>(kind)), mKinds[kind]);
    rows.emplace_back("bad check", mBad);
    rows.emplace_back("cut", mCut);
    return rows;
}

std::string CaptureTotals::Text() const {
    std::string text = fmt::format("{}, {} bytes\n\n", Counted(mFiles, "file"), mBytes);
    text += "kind              frames         bytes\n";
    for (const auto& [name, count] : KindRows())
        text += fmt::format("{:<12}  {:10}  {:12}\n", name, count.frames, count.bytes);
    return text + ProblemLines() + SpanLine() + CodeLines();
}

std::string CaptureTotals::Json() const {
    OrderedJson kinds = OrderedJson::array();
    for (const auto& [name, count] : KindRows())
        kinds.push_back({{"kind", name}, {"frames", count.frames}, {"bytes", count.bytes}});
    OrderedJson codes = OrderedJson::array();
    for (const uint32_t code : CodesByBytes())
        codes.push_back({{"code", LogCodeText(code)},
                         {"equipment_id", code >> 12},
                         {"frames", mCodes[code].frames},
                         {"bytes", mCodes[code].bytes}});
    OrderedJson problems = OrderedJson::array();
    for (const Problem& problem : mProblems)
        problems.push_back({{"file", problem.file},
                            {"offset", problem.offset},
                            {"check", CaptureCheckText(problem.check)}});
    const auto time = [this](uint64_t stamp) {
        return mFirstTime > mLastTime ? OrderedJson() : OrderedJson(TimeText(stamp, 'T') + "Z");
    };
    const OrderedJson totals = {{"files", mFiles},
                                {"bytes", mBytes},
                                {"kinds", kinds},
                                {"codes", codes},
                                {"problems", problems},
                                {"first_time", time(mFirstTime)},
                                {"last_time", time(mLastTime)}};
    // A file's name may be any bytes.
    return totals.dump(2, ' ', false, OrderedJson::error_handler_t::replace) + "\n";
}
