#include "tools/capture/capture_totals.h"

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "tools/capture/capture_text.h"
#include "tools/common/diag_time.h"
#include "tools/common/mask_requests.h"

namespace {

constexpr size_t kListedProblems = 20;
constexpr size_t kBarredCodes = 10;
constexpr uint64_t kBarWidth = 40;

[[gnu::format(printf, 1, 2)]] std::string Format(const char* format, ...) {
    char text[128];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return text;
}

// "2026-11-23 00:21:01.123"
std::string TimeText(uint64_t stamp, char separator) {
    const auto millis = DiagTimeSince1970(stamp).count() / 1000;
    const auto seconds = static_cast<time_t>(millis / 1000);
    tm utc = {};
    gmtime_r(&seconds, &utc);
    return Format("%04d-%02d-%02d%c%02d:%02d:%02d.%03d", utc.tm_year + 1900, utc.tm_mon + 1,
                  utc.tm_mday, separator, utc.tm_hour, utc.tm_min, utc.tm_sec,
                  static_cast<int>(millis % 1000));
}

std::string Quoted(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') quoted += '\\';
        if (static_cast<unsigned char>(c) < 0x20) {
            quoted += Format("\\u%04x", static_cast<unsigned>(c));
        } else {
            quoted += c;
        }
    }
    return quoted + "\"";
}

std::string JsonList(const std::vector<std::string>& items) {
    std::string list;
    for (const std::string& item : items)
        list += (list.empty() ? "\n    " : ",\n    ") + item;
    return "[" + list + "]";
}

std::string CodeText(uint32_t code) {
    return LogCodeText(code >> 12, code & 0xFFF);
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
        lines += Format("%-8s  %2u  %10" PRIu64 "  %12" PRIu64 "\n", CodeText(code).c_str(),
                        code >> 12, count.frames, count.bytes);
    }
    lines += "\nbusiest codes, bytes of all log packets\n";
    const uint64_t all = mKinds[static_cast<size_t>(PacketKind::kLogPacket)].bytes;
    const uint64_t most = mCodes[codes.front()].bytes;
    for (size_t i = 0; i < std::min(codes.size(), kBarredCodes); ++i) {
        const uint64_t bytes = mCodes[codes[i]].bytes;
        const std::string bar(std::max<uint64_t>(bytes * kBarWidth / most, 1), '#');
        lines += Format("%-8s  %-40s %5.1f%%\n", CodeText(codes[i]).c_str(), bar.c_str(),
                        100.0 * static_cast<double>(bytes) / static_cast<double>(all));
    }
    return lines;
}

std::string CaptureTotals::ProblemLines() const {
    std::string lines;
    for (size_t i = 0; i < std::min(mProblems.size(), kListedProblems); ++i) {
        const Problem& problem = mProblems[i];
        lines +=
            "  " + problem.file +
            Format(", offset %" PRIu64 ": %s\n", problem.offset, CaptureCheckText(problem.check));
    }
    if (mProblems.size() > kListedProblems) {
        lines += Format("  and %zu more; --json lists all\n", mProblems.size() - kListedProblems);
    }
    return lines.empty() ? "" : "\n" + lines;
}

std::string CaptureTotals::SpanLine() const {
    if (mFirstTime > mLastTime) return "\nno log packet has a time stamp\n";
    const auto span = DiagTimeSince1970(mLastTime) - DiagTimeSince1970(mFirstTime);
    return "\nlog packets from " + TimeText(mFirstTime, ' ') + " to " + TimeText(mLastTime, ' ') +
           Format(" UTC, %.3f s\n", static_cast<double>(span.count()) / 1e6);
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
    std::string text =
        Format("%" PRIu64 " file%s, %" PRIu64 " bytes\n\n", mFiles, mFiles == 1 ? "" : "s", mBytes);
    text += "kind              frames         bytes\n";
    for (const auto& [name, count] : KindRows()) {
        text += Format("%-12s  %10" PRIu64 "  %12" PRIu64 "\n", name.c_str(), count.frames,
                       count.bytes);
    }
    return text + ProblemLines() + SpanLine() + CodeLines();
}

std::string CaptureTotals::Json() const {
    std::vector<std::string> kinds;
    for (const auto& [name, count] : KindRows())
        kinds.push_back(Format("{\"kind\": \"%s\", \"frames\": %" PRIu64 ", \"bytes\": %" PRIu64
                               "}",
                               name.c_str(), count.frames, count.bytes));
    std::vector<std::string> codes;
    for (const uint32_t code : CodesByBytes())
        codes.push_back(Format("{\"code\": \"%s\", \"equipment_id\": %u, \"frames\": %" PRIu64
                               ", \"bytes\": %" PRIu64 "}",
                               CodeText(code).c_str(), code >> 12, mCodes[code].frames,
                               mCodes[code].bytes));
    std::vector<std::string> problems;
    for (const Problem& problem : mProblems)
        problems.push_back("{\"file\": " + Quoted(problem.file) +
                           Format(", \"offset\": %" PRIu64 ", \"check\": \"%s\"}", problem.offset,
                                  CaptureCheckText(problem.check)));
    const bool timed = mFirstTime <= mLastTime;
    return Format("{\n  \"files\": %" PRIu64 ",\n  \"bytes\": %" PRIu64, mFiles, mBytes) +
           ",\n  \"kinds\": " + JsonList(kinds) + ",\n  \"codes\": " + JsonList(codes) +
           ",\n  \"problems\": " + JsonList(problems) +
           ",\n  \"first_time\": " + (timed ? Quoted(TimeText(mFirstTime, 'T') + "Z") : "null") +
           ",\n  \"last_time\": " + (timed ? Quoted(TimeText(mLastTime, 'T') + "Z") : "null") +
           "\n}\n";
}
