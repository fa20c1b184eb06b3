// The tool's set-mask requests: which codes they make wanted, and how they merge with the
// capture's.
#include "diag/tool_log_requests.h"

#include "tests/support/bytes.h"

namespace {

struct Requests : ToolLogRequests {
    int Take(const std::string& framed) { return ::Record<ToolLogRequests>(*this, framed); }
    std::string MergedWith(int id, const std::string& command) {
        char framed[kDiagAreaSize];
        const int len = Merge(id, command.data(), static_cast<int>(command.size()), framed);
        return {framed, static_cast<size_t>(len)};
    }
    std::vector<uint32_t> Wanted() const {
        std::vector<uint32_t> codes;
        for (uint32_t code = 0; code <= 0x10FFF; ++code)
            if (IsToolCode(code)) codes.push_back(code);
        return codes;
    }
};

std::string Wants(uint32_t id, const std::vector<uint32_t>& items) {
    return Framed(SetMask(id, MaskOf(items)));
}

TEST(ToolLogRequests, WantTheCodesOfTheirBits) {
    const std::string noMask = Hex("73 00 00 00 03 00 00 00 01 00 00 00");
    const struct {
        const char* name;
        std::vector<std::string> requests;
        std::vector<uint32_t> wanted;  // ascending
        int lastId;                    // as recorded
    } kRows[] = {
        {"any bit of any id", {Wants(0, {8}), Wants(13, {4095})}, {0x0008, 0xDFFF}, 13},
        {"emptied, then wanted", {Wants(4, {5}), Wants(4, {}), Wants(4, {6})}, {0x4006}, 4},
        {"too short for a mask empties", {Wants(1, {0}), Framed(noMask + Le32(0))}, {}, 1},
        {"one mask byte", {Framed(noMask + Le32(8) + "\x80")}, {0x1007}, 1},
        {"ids without row", {Wants(13, {1}), Wants(14, {2}), Wants(255, {2})}, {0xD001}, -1},
        {"shortest of all", {Wants(1, {0}), Hex("73 00 00 00 03")}, {0x1000}, 0},
        {"bits beyond the last item", {Framed(SetMask(6, std::string(512, '\0') + "\xFF"))}, {}, 6},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        Requests requests;
        int id = -2;
        for (const std::string& request : row.requests)
            id = requests.Take(request);
        EXPECT_EQ(row.lastId, id);
        EXPECT_EQ(row.wanted, requests.Wanted());
        EXPECT_EQ(!row.wanted.empty(), requests.IsAnyCodeWanted());
        for (uint32_t each = 0; each < 256; ++each) {
            const auto isOfId = [&](uint32_t code) { return code >> 12 == each; };
            EXPECT_EQ(std::any_of(row.wanted.begin(), row.wanted.end(), isOfId),
                      requests.IsNeeded(static_cast<int>(each)));
        }
    }
    Requests all;
    all.Take(Framed(SetMask(6, std::string(8000, '\xFF'))));
    EXPECT_EQ(4096U, all.Wanted().size());
}

TEST(ToolLogRequests, MergeByteByByte) {
    const std::string capture = SetMask(1, MaskOf({15}));
    // The number of bits is ORed like the rest: the 16 of the capture with 8, 24 or 384.
    const auto merged = [](uint32_t bits, const std::string& mask) {
        return Framed(Le32(0x73) + Le32(3) + Le32(1) + Le32(bits) + mask);
    };
    const struct {
        const char* name;
        std::string request;
        std::string command;
        std::string toModem;  // "" for the tool's frame as it is
    } kRows[] = {
        {"same length", Hex("73 00 00 00 03 00 00 00 01 00 00 00 10 00 00 00 01 00 9B 0E 7E"),
         capture, Hex("73 00 00 00 03 00 00 00 01 00 00 00 10 00 00 00 01 80 93 8A 7E")},
        {"capture's is longer", Wants(1, {1}), capture, merged(24, Hex("02 80"))},
        {"tool's is longer", Wants(1, {17}), capture, merged(24, Hex("00 80 02"))},
        {"escapes", Framed(SetMask(1, Hex("7D 7E"))), capture, merged(16, Hex("7D FE"))},
        {"emptied: the capture's stays", Wants(1, {}), capture, merged(24, Hex("00 80"))},
        {"no command", Wants(1, {0}), "", ""},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        Requests requests;
        const int id = requests.Take(row.request);
        EXPECT_TRUE(Same(row.toModem, requests.MergedWith(id, row.command)));
    }
    Requests requests;
    requests.Take(Framed(SetMask(1, std::string(16000, '\x01'))));
    EXPECT_EQ(kDiagAreaSize - 1U, requests.MergedWith(1, std::string(16380, '\x7E')).size())
        << "cut to an area";
}

}  // namespace
