#include "tests/e2e/steps.h"

#include <sys/socket.h>

#include <algorithm>

#include "tools/modem/sim_modem.h"

namespace e2e {

namespace {

const std::string kLastAnswer = Framed("\x0C the last one");

// A packet without 0x1D when framed: at the start of a read that is a time stamp for the daemon to
// keep.
std::string PlainPacket(std::minstd_rand& random, const std::string& head, bool isLog,
                        uint16_t code) {
    for (;;) {
        std::string payload(random() % (random() % 9 == 0 ? 6000 : 200), '\0');
        for (char& byte : payload)
            byte = static_cast<char>('P' + random() % 48);  // of these, 0x7D and 0x7E are escaped
        std::string packet =
            isLog ? SimModem::MakeLogPacket(code, payload, 0x0123457D7E89ABCD) : head + payload;
        if (Framed(packet).find('\x1D') == std::string::npos) return packet;
    }
}

// Whether actual is what comes first when unit is sent over and over; its last ragged bytes may be
// anything.
AssertionResult IsBegun(const std::string& unit, std::string actual, size_t ragged = 0) {
    actual.resize(actual.size() - std::min(ragged, actual.size()));
    if (unit.empty()) return Same(unit, actual);
    for (size_t at = 0; at < actual.size(); at += unit.size()) {
        const std::string part = actual.substr(at, unit.size());
        if (const auto same = Same(unit.substr(0, part.size()), part); !same) return same;
    }
    return testing::AssertionSuccess();
}

constexpr int kRoom = 4096;  // bytes, of a socket: soon full
// A hang-up may overtake a read: the kernel drops what waits for it, and gives it what comes
// behind, as much again at most. Seen without the daemon, too.
constexpr size_t kLineRoom = 4096;  // bytes

// What came is the beginning of what was sent, and nothing is missing on flash before it.
void CheckBegun(const Handset& world, const Mix& mix, size_t ragged) {
    const std::string flash = Captured();
    EXPECT_TRUE(IsBegun(mix.forTool, world.tool.in, ragged)) << "at the tool";
    EXPECT_TRUE(IsBegun(mix.own, flash, ragged)) << "on flash";
    EXPECT_GE(flash.size(), world.tool.in.size() / mix.forTool.size() * mix.own.size());
}

// Floods the tool, until it takes nothing if it stalls, and then ends the connection somehow.
void EndInAFlood(Handset& world, bool stalls, const std::function<void()>& end,
                 milliseconds bound = kEndBound, size_t ragged = 0) {
    const Mix mix(world.random, 1'000'000, world.captures);
    const size_t count = world.UpTo(2'000'000);
    world.Attach();
    world.modem.Flood(mix.all);
    world.Until("bytes at the tool", [&] { return world.tool.in.size() >= count; });
    if (stalls) {
        setsockopt(world.ToolFd(), SOL_SOCKET, SO_RCVBUF, &kRoom, sizeof(kRoom));
        world.tool.takes = false;
        world.UntilStalled();
    }
    const auto since = Clock::now();
    end();
    world.UntilListening(since, bound);
    CheckBegun(world, mix, ragged);
}

void PullLink() {
    SetLink(false);
    SetLink(true);
}

// The modem takes nothing on its line, nothing of so many bytes of the tool, and no end.
void FailEverything(Handset& world) {
    const auto end = [&] {
        world.modem.takes = false;
        world.FillLine();
        world.tool.Send(Mix(world.random, world.UpTo(60'000), false).all);
        world.Until("taken by the socket", [&] { return !world.tool.HasMore(); });
        PullLink();
    };
    EndInAFlood(world, true, end, kTriesBound);
}

// Back-pressure; with capture on, for some time only.
void StallTheTool(Handset& world) {
    const auto end = [&] {
        if (world.captures) return;
        const size_t left = world.modem.StopFlood();
        world.tool.takes = true;
        const size_t count = left * world.modem.out.size();
        world.Until("all at the tool", [&] { return world.tool.in.size() >= count; });
        world.Finish();
    };
    EndInAFlood(world, true, end, kTriesBound);
}

// The modem takes nothing of so many bytes of the tool. Then the tool leaves, the modem takes them,
// or both; perhaps behind a pause that lasts as long as a write waits.
void StallTheModem(Handset& world, size_t count, bool leaves, bool takesAgain,
                   bool pauses = false) {
    const std::string toModem = Mix(world.random, count, false).all;
    world.Attach();
    world.modem.takes = false;
    const size_t filled = world.FillLine();
    const size_t from = world.Log().size();
    world.tool.Send(toModem);
    world.Until("all in the socket", [&] { return !world.tool.HasMore(); });
    world.UntilLogged("write error, try again", from);
    const auto since = Clock::now();
    if (leaves) world.CloseTool();
    if (pauses) world.UntilLogged("retry_count: 1000", from);
    world.modem.takes = takesAgain;
    if (!leaves) {
        const auto isIn = [&] { return world.modem.in.size() >= filled + toModem.size(); };
        world.Until("bytes at the modem", isIn);
        world.Finish();
    }
    world.UntilListening(since, kTriesBound);
    EXPECT_TRUE(!takesAgain ||
                Same(std::string(filled, 'f') + toModem, WithoutOwnRequests(world.modem.in)));
}

// A modem of 1 kB/s: the tool leaves behind what it cannot take in time.
void LeaveATrickle(Handset& world) {
    const std::string toModem = Mix(world.random, 150'000, false).all;
    world.Attach();
    world.modem.rest = milliseconds(4000);  // a line gives 4 kB at most at once
    world.tool.Send(toModem);
    world.UntilStalled();
    world.CloseTool();
    world.UntilListening(Clock::now(), kTriesBound);
    EXPECT_TRUE(IsBegun(toModem, WithoutOwnRequests(world.modem.in)));
}

// A tool that reads on, but too slowly for what is queued when the connection ends somehow.
void EndWithASlowTool(Handset& world) {
    constexpr int kSlowRoom = 32768;  // of which the system tells the daemon soon
    const Mix mix(world.random, 1'000'000, world.captures);
    SetProperty("log.tag", "I");
    world.Attach();
    setsockopt(world.ToolFd(), SOL_SOCKET, SO_RCVBUF, &kSlowRoom, sizeof(kSlowRoom));
    world.tool.most = 2000;
    world.tool.rest = milliseconds(10);
    world.modem.Flood(mix.forTool);
    const size_t from = world.Log().size();
    world.UntilLogged(world.captures ? "Read wait cond as buffer is FULL" : "write error", from);
    if (world.captures) world.UntilLogged("retry_count: 30", world.Log().size());
    const auto since = Clock::now();
    const bool hangsUp = world.random() % 2 == 0;
    hangsUp ? world.BreakLine() : static_cast<void>(shutdown(world.ToolFd(), SHUT_WR));
    world.UntilListening(since, kEndBound + milliseconds(1000));  // after a turn of the relay
    EXPECT_TRUE(IsBegun(mix.forTool, world.tool.in));
}

// Short answers of the modem, each of which becomes a long one for a tool that takes nothing.
void StallOnLongAnswers(Handset& world) {
    std::string answers;
    for (int i = 0; i < 60 * 682; ++i)  // more than any socket holds of what becomes of them
        answers += Hex("73 00 00 00 03 7E");
    SetProperty("log.tag", "I");  // not 200 MB of traces
    world.Attach();
    world.tool.Send(Framed(SetMask(1, std::string(512, '\x01'))));
    world.tool.takes = false;
    world.modem.Send(answers);
    world.captures ? world.UntilStalled() : world.CloseTool();
    world.UntilListening(Clock::now(), kTriesBound);
}

// The switch moves while the tool's bytes, none of which ends a frame, fill the ring.
void SwitchAtAFullRing(Handset& world) {
    const size_t count = 400'000;
    world.Attach();
    world.modem.rest = milliseconds(20);
    world.tool.Send(std::string(count, 'U'));
    world.Until("some of it", [&] { return world.modem.in.size() > 50'000; });
    world.Switch(!world.captures);
    const auto taken = [&] {
        return static_cast<size_t>(std::count(world.modem.in.begin(), world.modem.in.end(), 'U'));
    };
    world.Until("all of it", [&] { return taken() >= count; });
    world.Finish();
    EXPECT_EQ(count, taken());
}

// The modem answers the requests of the log-mask file, but late, and one not at all.
void AnswerLate(Handset& world) {
    std::string requests = "~" + kFileMask;
    for (int i = 0; i < 20; ++i)
        requests += Framed("\x0C request " + std::to_string(i));
    Store(kMaskFile, requests);
    const auto usual = std::exchange(world.answer, [&](const std::string& frame) {
        return world.isServing || frame == kFileMask ? "" : frame;
    });
    world.Connect();
    world.modem.rest = milliseconds(80);
    world.tool.Send(kToolMask);
    world.Until("served", [&] { return world.isServing; });
    world.modem.in.clear();
    EXPECT_TRUE(world.Exchange());
    world.Finish();
    Store(kMaskFile, kFileMask);
    world.answer = usual;
}

void Transfer(Handset& world) {
    const Mix mix(world.random, world.UpTo(4'000'000), world.captures);
    const std::string toModem = Mix(world.random, world.UpTo(500'000), false).all;
    world.Attach();
    // The tool before may have left half a frame, which the daemon then ends for its own requests.
    const bool isEnded = world.begun.size() > 1 && world.begun[0] == '\x7E';
    EXPECT_TRUE(Same("", WithoutOwnRequests(world.begun.substr(isEnded ? 1 : 0))));
    world.modem.Send(mix.all);
    world.tool.Send(toModem);
    EXPECT_TRUE(world.Gets(world.tool, mix.forTool));
    EXPECT_TRUE(world.Gets(world.modem, toModem));
    world.Finish();
    EXPECT_TRUE(Same(mix.own, Captured()));
}

void FlapTheLink(Handset& world) {
    for (size_t flaps = world.UpTo(3); flaps > 0; --flaps) {
        SetLink(false);
        world.Until("not listening", [&] { return !world.IsListening(); });
        SetLink(true);
        world.UntilListening(Clock::now(), milliseconds(2000));
    }
    world.Attach();
    world.Finish();
}

// The frames of bytes that are answers of a Mix, whole.
std::string Answers(const std::string& bytes) {
    std::string answers;
    FrameReader reader;
    for (size_t at = 0; at < bytes.size();) {
        FrameState state;
        at += reader.Take(&bytes[at], bytes.size() - at, &state);
        const bool isAnswer = reader.packet().find_first_of("\x0C\x13\x73") == 0;
        if (state == FrameState::kGood && isAnswer) answers += Framed(std::string(reader.packet()));
    }
    return answers;
}

// Whether atModem, but for the daemon's own requests, is unit over and over. Each of these stands
// behind a 0x7E, which is one more where the tool did not complete its frame in time: counts them.
AssertionResult IsOrderly(const std::string& unit, const std::string& atModem, size_t* added) {
    std::string fromTool;
    for (size_t at = 0; at < atModem.size();) {
        const bool isMask = atModem.compare(at, kFileMask.size(), kFileMask) == 0;
        const std::string& own = isMask ? kFileMask : kDisableRequests;
        if (atModem.compare(at, own.size(), own) != 0) {
            fromTool += atModem[at++];
            continue;
        }
        at += own.size();
        if (fromTool.empty()) continue;
        if (fromTool.back() != '\x7E')
            return Same("a frame's end", fromTool.substr(fromTool.size() - 9));
        if (unit[(fromTool.size() - 1) % unit.size()] == '\x7E') continue;
        fromTool.pop_back();
        ++*added;
    }
    return IsBegun(unit, fromTool);
}

// While bytes go both ways. The tool's come in pieces that end anywhere, but never so many that the
// line is full.
void MoveTheSwitch(Handset& world) {
    const Mix mix(world.random, 200'000, true, false);
    const std::string requests = Mix(world.random, 200'000, false).all;
    const size_t moves = 4 + 2 * world.UpTo(4) + (world.captures ? 1 : 0);
    size_t requested = 0;
    const auto keepSending = [&] {
        if (world.modem.in.size() + 10'000 < requested) return;
        const std::string piece = requests.substr(requested % requests.size(), 4000);
        world.tool.Send(piece);
        requested += piece.size();
    };
    world.Attach();
    world.modem.Flood(mix.all);
    for (size_t move = 0; move < moves; ++move) {
        const size_t count = world.tool.in.size() + world.UpTo(500'000);
        const auto isIn = [&] { return keepSending(), world.tool.in.size() >= count; };
        world.Until("bytes at the tool", isIn);
        world.captures = !world.captures;
        size_t at = world.modem.in.size();
        SetProperty(kLogSwitch, world.captures ? "true" : "false");
        const std::string& own = world.captures ? kFileMask : kDisableRequests;
        world.Until("the daemon's requests", [&] {
            keepSending();
            const size_t from = std::exchange(at, world.modem.in.size());
            return world.modem.in.find(own, from - std::min(from, own.size())) != std::string::npos;
        });
    }
    const size_t count = world.modem.StopFlood();
    world.Until("the last answer", [&] {  // the switch is off
        const size_t got = world.tool.in.size();
        return !world.modem.HasMore() && !world.tool.HasMore() && got > kLastAnswer.size() &&
               world.tool.in.find(kLastAnswer, got - kLastAnswer.size()) != std::string::npos;
    });
    world.Finish();
    size_t cut = 0;
    EXPECT_TRUE(IsOrderly(requests, world.modem.in, &cut));
    EXPECT_LT(cut, moves) << "no frame of the tool was completed";
    EXPECT_LE(requested, world.modem.in.size());
    // A log packet's head that was held back when the switch went off is on flash and at the tool.
    const size_t twice = world.tool.in.size() + Captured().size() - count * mix.all.size();
    EXPECT_LT(twice, 16 * moves);
    const std::string answers = Answers(world.tool.in);
    EXPECT_EQ(count * mix.forTool.size(), answers.size());
    EXPECT_TRUE(IsBegun(mix.forTool, answers));
}

}  // namespace

const std::vector<Step> kSteps = {
    {"ToolThatIsGoneAtOnce",
     [](Handset& world) {
         world.Connect();
         world.CloseTool();
         world.UntilListening();
     },
     false},
    {"BytesBothWays", Transfer, true},
    {"MuteModem",
     [](Handset& world) {
         world.isMute = true;
         Transfer(world);
     },
     true},
    {"ToolThatLeavesInAFlood",
     [](Handset& world) { EndInAFlood(world, false, [&] { world.CloseTool(); }); }, true},
    {"LinkFlaps", FlapTheLink, false},
    {"LinkPulledInAFlood",
     [](Handset& world) { EndInAFlood(world, world.random() % 2 == 0, PullLink); }, true},
    {"PortThatHangsUpInAFlood",
     [](Handset& world) {
         EndInAFlood(
             world, false, [&] { world.BreakLine(); }, kEndBound, kLineRoom);
     },
     true},
    {"EverythingAtOnce", FailEverything, true},
    {"ToolThatStalls", StallTheTool, true},
    {"ToolThatStallsAndLeaves",
     [](Handset& world) { EndInAFlood(world, true, [&] { world.CloseTool(); }); }, true},
    {"ToolThatReadsSlowly", EndWithASlowTool, true},
    {"ToolThatStallsOnLongAnswers", StallOnLongAnswers, true},
    {"SwitchMovesAtAFullRing", SwitchAtAFullRing, false},
    {"ToolThatLeavesAPausingModem",
     [](Handset& world) { StallTheModem(world, 28'000, true, true, true); }, false},
    {"ModemThatAnswersLate", AnswerLate, true},
    {"ModemThatStalls", [](Handset& world) { StallTheModem(world, 140'000, false, true); }, true},
    {"ToolThatLeavesASlowModem", [](Handset& world) { StallTheModem(world, 140'000, true, true); },
     true},
    {"ToolThatLeavesAFullLine", [](Handset& world) { StallTheModem(world, 1, true, false); },
     false},
    // The tool is not read any more, so that its end cannot be read either.
    {"ToolThatLeavesAFullRing", [](Handset& world) { StallTheModem(world, 60'000, true, false); },
     true},
    {"ToolThatLeavesATrickle", LeaveATrickle, true},
    // Nor does the news of its end come: it stands behind bytes that find no room in the socket.
    {"ToolThatLeavesAFullSocket",
     [](Handset& world) { StallTheModem(world, 150'000, true, false); }, false},
    {"SwitchMoves", MoveTheSwitch, false},
};

Mix::Mix(std::minstd_rand& random, size_t size, bool isCaptured, bool hasWantedLogs) {
    static constexpr uint16_t kCodes[] = {0x1000, 0x117E, 0x1001, 0x117C, 0x7E7D, 0x4000};
    static const std::string kHeads[] = {"\x60", "\x79", "\x99", "\x92",
                                         "\x98", "\x0C", "\x13", Hex("73 00 00 00 01 00 00 00")};
    while (all.size() < size) {
        const size_t head = random() % std::size(kHeads);
        const size_t code = hasWantedLogs ? random() % 6 : 2 + random() % 4;
        const bool isLog = random() % 2 == 0;
        const std::string frame = Framed(PlainPacket(random, kHeads[head], isLog, kCodes[code]));
        all += frame;
        if (isCaptured && (isLog || head < 5)) own += frame;
        if (!isCaptured || (isLog ? code < 2 : head >= 5)) forTool += frame;
    }
    all += kLastAnswer;
    forTool += kLastAnswer;
}

}  // namespace e2e
