// The modem's stream divided between tool and flash: by kind of frame, wherever reads cut it and
// whenever capture is switched.
#include <future>
#include <random>
#include <thread>

#include "tests/unit/support/directions.h"

namespace {

class Splitter : public CaptureTest {};

TEST_F(Splitter, SendsFramesWhereTheirFirstByteTells) {
    const std::string captured = Hex("10 60 79 92 98 99");
    Directions directions;
    std::string flash;
    for (int code = 0; code < 256; ++code) {
        const std::string frame = static_cast<char>(code) + Hex("01 02 7E");
        const bool isCaptured = captured.find(frame[0]) != std::string::npos;
        ExpectBytes(isCaptured ? "" : frame, directions.ToTool(frame), "tool");
        if (isCaptured) flash += frame;
    }
    ExpectBytes(flash, directions.Close(), "flash");
}

TEST_F(Splitter, RoutesPieces) {
    const std::string endless(3 * 4095, '\x1D');
    const std::string disable = Hex("4B 12 18 02 01 7E");
    PlayAll({
        {"answer between reports",
         {Modem(Hex("79 7E 1D 02 7E 79 03 7E"), Hex("1D 02 7E"))},
         Hex("79 7E 79 03 7E")},
        {"cut answer leaves at once",
         {Passes(Hex("1D 02")), Modem(Hex("79 7E 60 7E"), Hex("79 7E"))},
         Hex("60 7E")},
        {"cut report stays a report",
         {Keeps(Hex("99 01")), Modem(Hex("1D 7E 1D 7E"), Hex("1D 7E"))},
         Hex("99 01 1D 7E")},
        {"report's end alone", {Keeps(Hex("92 01")), Keeps("\x7E")}, Hex("92 01 7E")},
        {"empty frames", {Modem(Hex("7E 7E 60 7E 7E"), Hex("7E 7E 7E"))}, Hex("60 7E")},
        {"frame without end", {Passes(endless), Modem(Hex("7E 60 7E"), "\x7E")}, Hex("60 7E")},
        {"answer to HDLC disabling", {Modem(disable, Hex("13 12 18 02 01 7E"))}, ""},
        {"its four bytes alone", {Passes(disable.substr(0, 4)), Passes(Hex("01 7E"))}, ""},
        {"not at a read's start", {Modem(Hex("60 7E") + disable, disable)}, Hex("60 7E")},
        {"in the rest of a frame", {Passes("\x1D"), Passes(disable)}, ""},
    });
}

TEST_F(Splitter, FollowsTheSwitchWithinAFrame) {
    const std::string wanted = LogFrame(0x4123);
    const std::string withheld = LogFrame(0x4124);
    const std::string answer = Answer(4, 5, "\x01");
    const std::string masked = Answer(4, 5, Hex("00"));
    const auto head = [](const std::string& frame) { return frame.substr(0, 6); };
    const auto rest = [](const std::string& frame) { return frame.substr(6); };
    const Step wants = Wants(4, {0x123});
    const Step on = Switch(1);
    const Step off = Switch(0);
    PlayAll({
        {"answer, off", {Passes(Hex("1D 01")), off, Passes(Hex("7E 60 7E"))}, ""},
        {"report, off and on",
         {Keeps(Hex("79 01")), off, Passes(Hex("02 7E 60 7E")), on, Keeps(Hex("60 7E"))},
         Hex("79 01 60 7E")},
        {"held 0x73 answer, off: only the next one is rewritten",
         {Keeps(head(answer)), off, Modem(rest(answer), answer), on, Modem(answer, masked)},
         ""},
        {"held 0x73 answer, off and on, nothing in between",
         {Keeps(head(answer)), off, on, Modem(rest(answer), masked)},
         ""},
        {"held 0x73 answer, off and on again",
         {Keeps(head(answer)), off, Modem("\x01", head(answer) + "\x01"), on,
          Modem(Hex("02 7E 60 7E"), Hex("02 7E"))},
         Hex("60 7E")},
        {"held packet head, off",
         {wants, Keeps(head(wanted)), off, Modem(rest(wanted), wanted), on,
          Modem(withheld + wanted, wanted)},
         head(wanted) + withheld + wanted},
        {"wanted packet under way, off",
         {wants, Passes(wanted.substr(0, 9)), off, Passes(wanted.substr(9)), on, Keeps(withheld)},
         wanted.substr(0, 9) + withheld},
        {"report, on: its rest is no frame of its own",
         {Keeps(Hex("79 7E")), off, Passes(Hex("79 01")), on, Passes(Hex("60 02")),
          Modem(Hex("10 7E 79 7E"), Hex("10 7E"))},
         Hex("79 7E 79 7E")},
        {"wanted packet, on",
         {wants, off, Passes(head(wanted)), on,
          Modem(rest(wanted) + withheld + wanted, rest(wanted) + wanted)},
         withheld + wanted},
        {"0x73 answer, on: its rest is no answer",
         {Modem(answer, masked), off, Passes("\x73"), on, Modem(answer + answer, answer + masked)},
         ""},
        {"between frames, on", {off, Passes(Hex("79 7E")), on, Keeps(Hex("79 7E"))}, Hex("79 7E")},
    });
}

// ---- Cuts ----

// What the tool asks for on one connection it gets on later ones, too.
void Ask(const std::vector<Step>& requests) {
    Directions directions;
    Play(directions, requests);
}

struct Split {
    std::string tool;
    std::string flash;
    uint64_t both;
};

// The stream read in pieces that end before each of the cuts, which ascend.
Split SplitAt(const std::string& stream, const std::vector<size_t>& cuts) {
    Directions directions;
    Split split = {};
    size_t start = 0;
    for (const size_t cut : cuts) {
        split.tool += directions.ToTool(stream.substr(start, cut - start));
        start = cut;
    }
    split.tool += directions.ToTool(stream.substr(start));
    split.flash = directions.Close();
    split.both = CircularBufferExtPeer::CapturedAndSent(directions.toTool);
    return split;
}

void ExpectSame(const Split& uncut, const Split& cut) {
    ExpectBytes(uncut.tool, cut.tool, "tool");
    ExpectBytes(uncut.flash, cut.flash, "flash");
    EXPECT_EQ(uncut.both, cut.both);
}

// Everything that has a state of its own: log packets wanted and not, with escapes in their head
// and too short ones, and all kinds of 0x73 answers.
TEST_F(Splitter, CutsChangeNothing) {
    const std::string escapes = Hex("7E 00 7D 7D 7E");
    const std::string wanted = LogFrame(0x4123) + LogFrame(0x477E, escapes);
    const std::string stream = Hex("79 01 02 7E 7E") + wanted +
                               Hex("1D 7E 10 00 00 00 00 00 23 7E") + LogFrame(0x477D, escapes) +
                               Answer(1, 4, "") + Hex("10 7E 60 08 7E 4B 12 7E") +
                               Answer(3, 4, "") + wanted + Answer(4, 4, Hex("7E 7D 7E 7D")) +
                               Hex("98 7E 73 7E FF 0A 7E 10 00 7D 7E 73 00 00 00 03 7E 99 7E");
    Ask({Wants(4, {0x123, 0x77E})});
    const Split uncut = SplitAt(stream, {});
    EXPECT_EQ(2 * wanted.size(), uncut.both);
    std::vector<size_t> everywhere;
    for (size_t cut = 1; cut < stream.size() && !HasFailure(); ++cut) {
        SCOPED_TRACE(cut);
        ExpectSame(uncut, SplitAt(stream, {cut}));
        everywhere.push_back(cut);
    }
    ExpectSame(uncut, SplitAt(stream, everywhere));
}

TEST_F(Splitter, PairsOfCutsChangeNothing) {
    const std::string stream = LogFrame(0x477E, Hex("7E 00 00 00 7D")) + Answer(4, 4, "\xFF") +
                               Hex("60 7E 73 00 00 00 01 7E");
    Ask({Wants(4, {0x77E})});
    const Split uncut = SplitAt(stream, {});
    for (size_t first = 1; first < stream.size() && !HasFailure(); ++first) {
        for (size_t second = first + 1; second < stream.size(); ++second) {
            SCOPED_TRACE(::testing::Message() << first << ' ' << second);
            ExpectSame(uncut, SplitAt(stream, {first, second}));
        }
    }
}

// ---- A tool that takes nothing while capture is switched ----

// What is queued when capture goes off leaves before anything newer, which is read either with
// capture off or with capture on again, and there ends a frame.
void QueueBehindStalledTool(const std::string& begun, bool isOnAgain) {
    SCOPED_TRACE(::testing::Message() << FormatHex(begun, 8) << (isOnAgain ? ", on again" : ""));
    Directions directions;
    Play(directions, {Wants(4, {0x123})});
    const size_t filled = FillUntilFull(directions.tool.near);
    directions.Queue(Hex("1D 7E") + begun);
    while (directions.toTool.NumBytes() == 0)  // the block is being handled, with capture on
        std::this_thread::yield();
    directions.Queue(Hex("02 7E 60 03"));
    gLogEnable = 0;
    WriteAll(directions.modem.far, Hex("79 7E"));
    auto read = std::async(std::launch::async, [&] {
        if (isOnAgain) CircularBufferExtPeer::WaitUntilHandled(directions.toTool);
        if (isOnAgain) gLogEnable = 1;
        return directions.toTool.Read(directions.modem.near);
    });
    ReadExactly(directions.tool.far, filled);
    EXPECT_EQ(isOnAgain ? 2 : -EAGAIN, read.get());
    CircularBufferExtPeer::WaitUntilHandled(directions.toTool);
    directions.toTool.Write(directions.tool.near);
    const std::string held = begun[0] == '\x79' ? "" : begun;
    ExpectBytes(Hex("1D 7E") + held + Hex("02 7E 60 03 79 7E"), ReadAvailable(directions.tool.far),
                "tool");
    ExpectBytes(begun[0] == '\x73' ? "" : begun, directions.Close(), "flash");
}

TEST_F(Splitter, QueuedBlocksComeFirstWhenCaptureGoesOff) {
    const std::string answer = Hex("73 00 00 00 04");
    for (const std::string& begun : {LogFrame(0x4123).substr(0, 4), answer, Hex("79 01")}) {
        QueueBehindStalledTool(begun, false);
        QueueBehindStalledTool(begun, true);
    }
}

TEST_F(Splitter, BytesInTheRingLeaveWhenCaptureGoesOn) {
    for (const bool isModemSilent : {true, false}) {
        Directions directions;
        const size_t filled = FillUntilFull(directions.tool.near);
        gLogEnable = 0;
        WriteAll(directions.modem.far, Hex("1D 01 7E"));
        EXPECT_EQ(-EAGAIN, directions.toTool.Read(directions.modem.near));
        gLogEnable = 1;
        if (isModemSilent) directions.toTool.RequestWrite();
        if (!isModemSilent) directions.Queue(Hex("1D 02 7E 60 7E"));
        ReadExactly(directions.tool.far, filled);
        const std::string tool = isModemSilent ? Hex("1D 01 7E") : Hex("1D 01 7E 1D 02 7E");
        ExpectBytes(tool, ReadExactly(directions.tool.far, tool.size()), "tool");
        ExpectBytes(isModemSilent ? "" : Hex("60 7E"), directions.Close(), "flash");
    }
}

// ---- Garbage ----

TEST_F(Splitter, RecoversFromGarbageAtTheNextFrame) {
    const std::string alphabet = Hex("73 00 00 00 03 04 10 7E 7D 5E 60 4B 12 18 02 FF 0E");
    static constexpr size_t kLengths[] = {1, 2, 7, 30, 200, 4095};
    std::minstd_rand random(5);
    Directions directions;
    for (int i = 0; i < 2000 && !HasFailure(); ++i) {
        std::string bytes(1 + random() % kLengths[random() % std::size(kLengths)], '\0');
        const bool isWithoutEnd = random() % 8 == 0;
        for (char& byte : bytes) {
            byte = alphabet[random() % alphabet.size()];
            if (isWithoutEnd && byte == '\x7E') byte = '\x73';
        }
        if (random() % 2 == 0) bytes.replace(0, 5, Hex("73 00 00 00 03"));
        SCOPED_TRACE(::testing::Message() << "chunk " << i << ": " << FormatHex(bytes, 40));
        if (random() % 4 == 0) {
            directions.ToModem(bytes);
        } else {
            directions.ToTool(bytes);
        }
    }
    directions.ToTool("\x7E");
    ExpectBytes(Hex("1D 01 7E"), directions.ToTool(Hex("60 01 7E 1D 01 7E 60 02 7E")), "tool");
    const std::string& flash = directions.Close();
    ExpectBytes(Hex("60 01 7E 60 02 7E"), flash.substr(flash.size() - 6), "flash");
}

}  // namespace
