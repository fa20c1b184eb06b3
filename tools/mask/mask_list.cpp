#include "tools/mask/mask_list.h"

#include <array>
#include <bitset>
#include <charconv>

#include "tools/common/frame_stream.h"
#include "tools/common/frame_text.h"
#include "tools/common/mask_requests.h"
#include "tools/common/tool_error.h"

namespace {

bool ParseNumber(std::string_view digits, int base, uint32_t* value) {
    const char* const end = digits.data() + digits.size();
    const auto result = std::from_chars(digits.data(), end, *value, base);
    return result.ec == std::errc() && result.ptr == end;
}

bool IsHexNumber(std::string_view text) {
    return text.substr(0, 2) == "0x" || text.substr(0, 2) == "0X";
}

// Hexadecimal behind 0x, decimal otherwise.
bool ParseAnyNumber(std::string_view text, uint32_t* value) {
    return IsHexNumber(text) ? ParseNumber(text.substr(2), 16, value)
                             : ParseNumber(text, 10, value);
}

// The line without comment, its words with one blank between.
std::string Tidy(std::string_view line) {
    std::string tidy;
    bool blank = false;
    for (const char c : line.substr(0, line.find('#'))) {
        if (c == ' ' || c == '\t' || c == '\r') {
            blank = !tidy.empty();
            continue;
        }
        if (blank) tidy += ' ';
        blank = false;
        tidy += c;
    }
    return tidy;
}

class MaskListCompiler {
  public:
    explicit MaskListCompiler(const std::string& name) : mName(name) {}

    void TakeLine(std::string_view line) {
        ++mLine;
        const std::string item = Tidy(line);
        if (item.empty()) return;
        const size_t blank = item.find(' ');
        const std::string_view word = std::string_view(item).substr(0, blank);
        const std::string_view rest =
            blank == std::string::npos ? "" : std::string_view(item).substr(blank + 1);
        if (IsHexNumber(word)) {
            TakeCodes(item);
        } else if (word == "width") {
            TakeWidth(rest);
        } else if (word == "raw") {
            TakeRaw(rest);
        } else {
            TakeNamed(item);
        }
    }

    CompiledMaskList Finish() {
        CheckWidths();
        if (mRequests.empty()) throw ToolError("{}: the list has no requests", mName);
        for (const Request& request : mRequests) {
            AppendFrame(mResult.file,
                        request.packet.empty() ? SetMaskOf(request.id) : request.packet);
        }
        return std::move(mResult);
    }

  private:
    // What the list says about an equipment id; line numbers are 0 when it says nothing.
    struct Mask {
        std::bitset<kItemsPerEquipment> items;
        uint32_t highest = 0;
        int highestLine = 0;
        uint32_t width = 0;
        int widthLine = 0;
    };

    // An empty packet stands for the mask of id.
    struct Request {
        std::string packet;
        uint32_t id = 0;
    };

    void TakeCodes(std::string_view item) {
        LogCodeRange range = {};
        const std::string error = ParseLogCodeRange(item, &range);
        if (!error.empty()) Fail(mLine, "{}: {}", error, item);
        const auto [first, last] = range;
        const uint32_t id = first >> 12;
        Mask& mask = mMasks[id];
        if (mask.highestLine == 0) mRequests.push_back({"", id});
        for (uint32_t code = first; code <= last; ++code)
            mask.items.set(code % kItemsPerEquipment);
        if (mask.highestLine == 0 || last % kItemsPerEquipment > mask.highest) {
            mask.highest = last % kItemsPerEquipment;
            mask.highestLine = mLine;
        }
    }

    void TakeWidth(std::string_view numbers) {
        const size_t blank = numbers.find(' ');
        uint32_t id = 0;
        uint32_t bits = 0;
        if (blank == std::string::npos || !ParseAnyNumber(numbers.substr(0, blank), &id) ||
            !ParseAnyNumber(numbers.substr(blank + 1), &bits) || id >= kMaskFileIds || bits == 0 ||
            bits > kItemsPerEquipment) {
            Fail(mLine,
                 "width takes an equipment id (0 to 13) and a number of bits (1 to 4096): {}",
                 numbers);
        }
        Mask& mask = mMasks[id];
        if (mask.widthLine != 0) {
            Fail(mLine, "equipment id {} has a width from line {} already: {}", id, mask.widthLine,
                 numbers);
        }
        mask.width = bits;
        mask.widthLine = mLine;
    }

    void TakeRaw(std::string_view hex) {
        std::string packet;
        const std::string error = ParseHex(hex, &packet);
        if (!error.empty()) Fail(mLine, "raw: {}", error);
        std::string frame;
        AppendFrame(frame, packet);
        if (frame.size() > kDiagAreaSize) {
            Fail(mLine, "raw: a frame of {} bytes; the daemon reads frames up to {}", frame.size(),
                 kDiagAreaSize);
        }
        mRequests.push_back({packet});
    }

    void TakeNamed(std::string_view item) {
        for (const NamedRequest& named : kNamedRequests) {
            if (item != named.item) continue;
            mRequests.push_back({std::string(named.packet)});
            return;
        }
        Fail(
            mLine,
            "unknown item (there are log codes, width, events on, messages on, timestamp, raw): {}",
            item);
    }

    void CheckWidths() {
        for (uint32_t id = 0; id < kMaskFileIds; ++id) {
            const Mask& mask = mMasks[id];
            if (mask.widthLine == 0) continue;
            if (mask.highestLine == 0) {
                mResult.warnings.push_back(fmt::format(
                    "{}:{}: no log codes of equipment id {}: its width makes no request", mName,
                    mask.widthLine, id));
            } else if (mask.highest >= mask.width) {
                Fail(mask.highestLine, "log code {} lies beyond the {} bits given in line {}",
                     LogCodeText(id << 12 | mask.highest), mask.width, mask.widthLine);
            }
        }
    }

    std::string SetMaskOf(uint32_t id) const {
        const Mask& mask = mMasks[id];
        const uint32_t bits = mask.widthLine != 0 ? mask.width : 8 * (mask.highest / 8 + 1);
        std::string bytes(LogMaskBytes(bits), '\0');
        for (uint32_t item = 0; item <= mask.highest; ++item) {
            if (mask.items[item]) bytes[item / 8] |= static_cast<char>(1U << item % 8);
        }
        return MakeSetMask({id, bits, bytes});
    }

    template <typename... T>
    [[noreturn]] void Fail(int line, fmt::format_string<T...> format, T&&... arguments) const {
        throw ToolError("{}:{}: {}", mName, line,
                        fmt::format(format, std::forward<T>(arguments)...));
    }

    const std::string mName;
    int mLine = 0;  // the one being taken, from 1
    std::array<Mask, kMaskFileIds> mMasks;
    std::vector<Request> mRequests;  // in the file's order
    CompiledMaskList mResult;
};

}  // namespace

CompiledMaskList CompileMaskList(std::string_view text, const std::string& name) {
    MaskListCompiler compiler(name);
    while (!text.empty()) {
        const size_t end = text.find('\n');
        compiler.TakeLine(text.substr(0, end));
        text.remove_prefix(end == std::string::npos ? text.size() : end + 1);
    }
    return compiler.Finish();
}
