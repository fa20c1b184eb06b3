// The tool's set-mask requests, merged with the capture's masks on their way to the modem, and the
// modem's answers, which show the tool only its own.
#include "tests/unit/support/directions.h"

namespace {

class Interception : public CaptureTest {};

const std::string kRequest = Hex("73 00 00 00 03 00 00 00 01 00 00 00 10 00 00 00 01 00 9B 0E 7E");
const std::string kMerged = Hex("73 00 00 00 03 00 00 00 01 00 00 00 10 00 00 00 01 80 93 8A 7E");
const Step kAsks = Tool(kRequest, kMerged);

// ---- Requests ----

TEST_F(Interception, RecordsAndMergesRequests) {
    struct Case {
        const char* name;
        std::vector<Step> steps;
        std::vector<uint32_t> codes;  // wanted at the end, as listed
    };
    const auto asks = [](uint32_t id, const char* mask) { return Framed(SetMask(id, Hex(mask))); };
    const auto same = [](const std::string& bytes) { return Tool(bytes, bytes); };
    // The number of bits is ORed like the rest: the 16 of the capture with 8, 24 or 384.
    const auto merged = [](uint32_t bits, const std::string& mask) {
        return Framed(Le32(0x73) + Le32(3) + Le32(1) + Le32(bits) + mask);
    };
    const Step item380 = Tool(Framed(SetMask(1, MaskOf({380}))), merged(400, MaskOf({15, 380})));
    const Step none = Tool(asks(1, "00 00"), asks(1, "00 80"));
    const std::string noMask = Framed(Hex("73 00 00 00 03 00 00 00 01 00 00 00"));
    const std::string disable = Hex("4B 12 18 02 01 7E");
    const std::vector<Case> cases = {
        {"merged", {kAsks}, {0x1000}},
        {"no capture mask for the id", {Wants(4, {0, 9})}, {0x4000, 0x4009}},
        {"capture's is longer", {Tool(asks(1, "02"), merged(24, Hex("02 80")))}, {0x1001}},
        {"tool's is longer", {Tool(asks(1, "00 00 02"), merged(24, Hex("00 80 02")))}, {0x1011}},
        {"item 380", {item380}, {0x117C}},
        {"escapes",
         {Tool(asks(1, "7E"), merged(24, Hex("7E 80"))), Tool(asks(1, "00 7D"), asks(1, "00 FD"))},
         {0x1001, 0x1002, 0x1003, 0x1004, 0x1005, 0x1006, 0x1008, 0x100A, 0x100B, 0x100C, 0x100D,
          0x100E}},
        {"emptied: the capture's mask stays", {kAsks, none}, {}},
        {"a second request adds", {Wants(4, {5}), Wants(4, {1, 5})}, {0x4005, 0x4001}},
        {"emptied, then wanted", {Wants(4, {5}), Wants(4, {}), Wants(4, {6})}, {0x4006}},
        {"another id is emptied", {Wants(4, {5}), Wants(5, {6}), Wants(4, {})}, {0x5006}},
        {"too short for a mask", {kAsks, Tool(noMask, asks(1, "00 80"))}, {}},
        {"shortest of all", {kAsks, same(Hex("73 00 00 00 03"))}, {0x1000}},
        {"rewritten without what follows", {Tool(kRequest + "\x1D\x7E", kMerged)}, {0x1000}},
        {"forwarded with what follows", {same(asks(4, "01") + "\x1D\x7E")}, {0x4000}},
        {"ids without table", {Wants(13, {1}), Wants(14, {2}), Wants(255, {2})}, {0xD001}},
        {"other operation", {same(Framed(Le32(0x73) + Le32(4) + Le32(1)))}, {}},
        {"not at the start of a read", {same("\x7E" + kRequest)}, {}},
        {"HDLC disabling disarmed", {Tool(disable, Hex("4B 12 18 02 00 7E"))}, {}},
        {"four bytes of each", {same(kRequest.substr(0, 4)), same(disable.substr(0, 4))}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        CircularBufferExtPeer::ForgetToolRequests();
        Directions directions;
        Play(directions, c.steps);
        EXPECT_EQ(c.codes, CircularBufferExtPeer::ListedCodes());
        EXPECT_EQ(!c.codes.empty(), CircularBufferExtPeer::IsAnyCodeWanted());
        for (uint32_t code = 0; code <= 0xFFFF; ++code) {
            const bool isListed = std::find(c.codes.begin(), c.codes.end(), code) != c.codes.end();
            ASSERT_EQ(isListed, CircularBufferExtPeer::IsCodeWanted(code)) << code;
        }
    }
}

TEST_F(Interception, MasksOfEveryLength) {
    for (const size_t bytes : {1, 511, 512, 513, 8000}) {
        SCOPED_TRACE(bytes);
        CircularBufferExtPeer::ForgetToolRequests();
        Directions directions;
        Play(directions, {Wants(6, {static_cast<uint32_t>(8 * bytes - 1)})});
        EXPECT_EQ(bytes <= 512, CircularBufferExtPeer::IsAnyCodeWanted());
        const std::string request = Framed(SetMask(6, std::string(bytes, '\xFF')));
        ExpectBytes(request, directions.ToModem(request), "modem");
        const size_t items = std::min<size_t>(8 * bytes, 4096);
        EXPECT_EQ(std::min<size_t>(items, 4095), CircularBufferExtPeer::ListedCodes().size());
        for (uint32_t code = 0; code <= 0xFFFF; ++code) {
            const bool isWanted = code >= 0x6000 && code < 0x6000 + items;
            ASSERT_EQ(isWanted, CircularBufferExtPeer::IsCodeWanted(code)) << code;
        }
    }
}

// ---- Answers ----

TEST_F(Interception, ShowsTheToolItsOwnMasks) {
    const std::string set =
        Hex("73 00 00 00 03 00 00 00 00 00 00 00 01 00 00 00 10 00 00 00 01 00 C3 1D 7E");
    const std::string modemGet =
        Hex("73 00 00 00 04 00 00 00 00 00 00 00 01 00 00 00 10 00 00 00 01 80 5C 63 7E");
    const std::string toolGet =
        Hex("73 00 00 00 04 00 00 00 00 00 00 00 01 00 00 00 10 00 00 00 01 00 54 E7 7E");
    const std::string other = Answer(1, 1, Hex("01 80"));
    const std::string failed = Answer(3, 1, Hex("01 80"), 0x7E);
    const std::string notZero = Answer(4, 1, "\xFF").replace(2, 1, "\x01");
    const std::string dropped = failed + Hex("1D 7E");
    const std::string long7E(512, '\x7E');
    const Step asksEscapes = Wants(4, {1, 2, 3, 4, 5, 6, 8, 10, 11, 12, 13, 14});  // 7E 7D
    const Step asksNone = Tool(Framed(SetMask(1, Hex("00 00"))), Framed(SetMask(1, Hex("00 80"))));
    PlayAll({
        {"set", {kAsks, Modem(Answer(3, 1, Hex("01 80")), set)}, ""},
        {"set, shortest answer", {kAsks, Modem(Hex("73 00 00 00 03 7E"), set)}, ""},
        {"set, refused by the modem", {kAsks, Modem(failed, set)}, ""},
        {"set, escapes in the tool's mask",
         {asksEscapes, Modem(Answer(3, 4, "\xFF\xFF"), Answer(3, 4, "\x7E\x7D"))},
         ""},
        {"set, nothing stored", {Modem(dropped, Hex("1D 7E"))}, ""},
        {"set, nothing stored, cut",
         {Keeps(dropped.substr(0, 9)), Modem(dropped.substr(9), Hex("1D 7E"))},
         ""},
        {"set, id without table",
         {kAsks, Wants(14, {1}), Passes(Answer(3, 14, "\x02")), kAsks, Modem(failed, set)},
         ""},
        {"get", {kAsks, Modem(modemGet, toolGet)}, ""},
        {"get, the modem's header stays",
         {kAsks, Modem(Answer(4, 1, "\x7E\x80", 5), Answer(4, 1, Hex("01 00"), 5))},
         ""},
        {"get, nothing wanted of this id",
         {kAsks, Modem(Answer(4, 5, "\xFF"), Answer(4, 5, Hex("00")))},
         ""},
        {"get, no more wanted", {kAsks, asksNone, Modem(modemGet, Answer(4, 1, Hex("00 00")))}, ""},
        {"get, id without table",
         {Wants(14, {1}), Modem(Answer(4, 14, "\x02"), Answer(4, 14, Hex("00")))},
         ""},
        {"get, id 255",
         {Wants(4, {1}), Modem(Answer(4, 255, "\x02"), Answer(4, 255, Hex("00")))},
         ""},
        {"get, tool's mask shorter",
         {asksEscapes,
          Modem(Answer(4, 4, long7E), Answer(4, 4, "\x7E\x7D" + std::string(510, '\0')))},
         ""},
        {"get, tool's mask longer",
         {asksEscapes, Modem(Answer(4, 4, "\xFF"), Answer(4, 4, "\x7E"))},
         ""},
        {"get, without mask", {kAsks, Passes(Answer(4, 1, ""))}, ""},
        {"other operation", {kAsks, Passes(other)}, ""},
        {"other operation, cut", {Keeps(other.substr(0, 7)), Modem(other.substr(7), other)}, ""},
        {"not zero behind the command", {kAsks, Passes(notZero)}, ""},
    });
}

// What is too long to be collected reaches the tool as it is; and whatever its length, so does all
// that comes behind it.
TEST_F(Interception, LongAnswers) {
    const std::string report = '\x79' + std::string(1998, '\x01') + '\x7E';
    const std::string answers = LogFrame(0x4001) + Answer(1, 4, "") + "\x1D\x7E";
    for (const uint32_t operation : {1, 3, 4}) {
        for (const size_t length : {16370, 16384, 16385, 17000, 20475, 20476, 60000}) {
            if (length <= 16384 && operation != 1) continue;
            SCOPED_TRACE(::testing::Message() << "operation " << operation << ", " << length);
            // Every block begins like an answer.
            const std::string head = Hex("73 00 00 00") + static_cast<char>(operation);
            std::string frame;
            while (frame.size() < length)
                frame += head;
            frame.replace(length - 1, std::string::npos, "\x7E");
            for (const std::string& begin : {std::string(), report}) {
                const std::string in = begin + frame + answers + Answer(4, 4, "\xFF");
                const std::string out = frame + answers + Answer(4, 4, "\x02");
                Directions directions;
                Play(directions, {Wants(4, {1}), Modem(in, out)});
            }
        }
    }
}

TEST_F(Interception, LongestAnswerIsRewritten) {
    std::string mask = "\x01";
    for (int i = 0; i < 8180; ++i)
        mask += "\x7D\x5E";
    const std::string fields = Le32(0x73) + Le32(4) + Le32(0) + Le32(4) + Le32(8 * 8181);
    const std::string frame = fields + mask + "\x55\x55\x7E";
    EXPECT_EQ(16384U, frame.size());
    Directions directions;
    Play(directions,
         {Wants(4, {1}), Modem(frame, Framed(fields + "\x02" + std::string(8180, '\0')))});
}

// In a process of its own only: what loads a capture mask is never undone.
TEST(InterceptionWithoutCaptureMask, LeavesAnswersAlone) {
    if (LogMask::GetInstance()->IsLogPacketEnable()) GTEST_SKIP() << "masks were loaded";
    const std::string answer = Answer(4, 4, "\xFF");
    PlayAll(
        {{"all",
          {Wants(4, {1}), Passes(answer), Passes(answer.substr(0, 7)), Passes(answer.substr(7))},
          ""}});
}

}  // namespace
