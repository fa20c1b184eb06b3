// The modem's log masks: what is sent to a modem behind a socket pair, and what is kept.
#include "logmask/log_mask.h"

#include <optional>
#include <utility>
#include <vector>

#include "tests/support/bytes.h"
#include "tests/unit/support/descriptors.h"
#include "tests/unit/support/log_lines.h"
#include "tests/unit/support/temp_dir.h"

namespace {

const std::string kFirst = Hex("0C 01 7E");
const std::string kSecond = Hex("0C 02 7E");

class LogMaskTest : public testing::Test {
  protected:
    LogMaskTest() {
        dir.HoldProperties();
        mask.SetDiagFd(modem.near);
    }
    int Send(const std::string& bytes) {
        return mask.DiagDataSend(bytes.data(), static_cast<int>(bytes.size()));
    }
    std::string Arrived() { return ReadAvailable(modem.far); }
    void MakeBlocking() { fcntl(modem.near, F_SETFL, 0); }

    LogLines log;
    TempDir dir;
    LogMask mask{dir.Path().c_str()};
    SocketPair modem;
};

TEST_F(LogMaskTest, FileIsSentAsFarAsItIsWhole) {
    const std::string loneFlags = "\x7E" + kFirst + "\x7E\x7E" + kSecond;
    const std::string longest = std::string(16383, 'x') + "\x7E";
    const struct {
        const char* name;
        std::vector<std::pair<std::string, std::string>> files;
        std::string sent;
        std::optional<std::string> property;
    } kRows[] = {
        {"empty", {{"DIAG.cfg", kFirst}, {".cfg", kSecond}}, kFirst, ""},
        {"upper case", {{"LTE.cfg", kFirst}, {"lte.cfg", kSecond}}, kSecond, "LTE"},
        {"one letter", {{"DIAG.cfg", kFirst}, {"a.cfg", kSecond}}, kSecond, "A"},
        {"ends of the alphabet", {{"[az]@.cfg", kSecond}}, kSecond, "[AZ]@"},
        {"path", {{"DIAG.cfg", kFirst}, {"lte.cfg", kSecond}}, kFirst, "./lte"},
        {"lone flags, and no closing one", {{"DIAG.cfg", loneFlags + "\x0C"}}, loneFlags, {}},
        {"longest", {{"DIAG.cfg", longest + kFirst}}, longest + kFirst, {}},
        {"too long", {{"DIAG.cfg", kFirst + "x" + longest + kSecond}}, kFirst, {}},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        const TempDir files;
        files.HoldProperties();
        for (const auto& [name, bytes] : row.files)
            files.Store(name, bytes);
        if (row.property) files.Store("persist.vendor.factory.logmask", *row.property);
        LogMask loaded(files.Path().c_str());
        SocketPair port;
        const int room = 1 << 20;
        setsockopt(port.near, SOL_SOCKET, SO_SNDBUF, &room, sizeof(room));
        EXPECT_EQ(1, loaded.DiagMask(port.near, 0));
        EXPECT_TRUE(Same(row.sent, ReadAvailable(port.far)));
        EXPECT_FALSE(loaded.IsLogPacketEnable());
    }
}

TEST_F(LogMaskTest, CommandsAreKeptUnescapedByEquipmentId) {
    const std::string command = SetMask(13, "}~\x81");
    const struct {
        const char* name;
        std::string frame;
        int id;
        std::string kept;
    } kRows[] = {
        {"escapes", Framed(command), 13, command},
        {"without mask", Framed(SetMask(1, "").substr(0, 10)), 1, SetMask(1, "").substr(0, 10)},
        {"too short", Framed(SetMask(2, "").substr(0, 9)), 2, ""},
        {"not a mask", Framed("\x10" + command.substr(1)), 13, ""},
        {"no such id", Framed(SetMask(14, "\x01")), 0, ""},
        {"17 bytes have a mask", Framed(SetMask(0, "\xFF")), 0, SetMask(0, "\xFF")},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        LogMask fresh("");
        const char* const end = row.frame.data() + row.frame.size();
        EXPECT_EQ(1, fresh.ParseSetLogMask(row.frame.data(), end));
        char out[kDiagAreaSize];
        const int len = fresh.GetSetLogMaskDiagCmd(out, row.id, kDiagAreaSize);
        EXPECT_TRUE(Same(row.kept, {out, static_cast<size_t>(len)}));
        EXPECT_EQ(0, fresh.GetSetLogMaskDiagCmd(out, row.id, static_cast<int>(row.kept.size())));
    }
    dir.Store("DIAG.cfg", Framed(command));
    mask.DiagMask(modem.near, 0);
    EXPECT_TRUE(mask.IsLogPacketEnable());
}

// ---- Sending ----

TEST_F(LogMaskTest, SendResults) {
    EXPECT_EQ(1, Send(kFirst));
    EXPECT_EQ(kFirst, Arrived());
    FillUntilFull(modem.near);
    EXPECT_EQ(-1, Send(kFirst));
    EXPECT_EQ(5, log.Count("DiagDataSend send fail, retry"));
    Arrived();
    log.On("send fail, retry", [this] { Arrived(); });
    FillUntilFull(modem.near);
    EXPECT_EQ(1, Send(kFirst)) << "room in time";
}

// None gets into a frame of the other's, whatever the port takes when.
TEST_F(LogMaskTest, ToolAndDaemonShareTheLine) {
    const auto tool = [this](const std::string& bytes) {
        return mask.Line().WriteTool(modem.near, bytes.data(), bytes.size());
    };
    EXPECT_EQ(2, tool("to"));
    FillUntilFull(modem.near);
    EXPECT_EQ(-1, Send(kFirst)) << "no room for the end of the tool's";
    Arrived();
    mask.SetDiagFd(modem.near);  // of the next connection
    EXPECT_EQ(1, Send(kFirst));
    EXPECT_EQ("~" + kFirst, Arrived());
    EXPECT_EQ(4, mask.Line().WriteRequest(modem.near, "half", 4));
    FillUntilFull(modem.near);
    EXPECT_EQ(-1, tool("ol~")) << "no room for the end of the daemon's";
    Arrived();
    EXPECT_EQ(3, tool("ol~"));
    EXPECT_EQ(1, Send(kFirst));
    EXPECT_EQ("~ol~" + kFirst, Arrived());
    Send("x");
    EXPECT_EQ(1, Send("~"));
    EXPECT_EQ("x~", Arrived()) << "one flag is enough";
}

TEST_F(LogMaskTest, BlockingPortIsWaitedFor) {
    const size_t filled = FillUntilFull(modem.near);
    MakeBlocking();
    Limits limits;
    limits.inVain = std::chrono::milliseconds(2);
    mask.StartWaits({}, limits);
    EXPECT_EQ(-1, Send(kFirst));
    EXPECT_EQ(1, log.Count("Failed to write FTM, erron = 11"));
    limits.inVain = std::chrono::hours(1);
    mask.StartWaits(Deadline::In(std::chrono::milliseconds(2)), limits);
    EXPECT_EQ(-1, Send(kFirst)) << "the deadline comes first";
    mask.StartWaits({}, limits);
    auto sent = Waiting([this] { return Send(kFirst); });
    ReadExactly(modem.far, filled);
    EXPECT_EQ(1, sent.get());
    EXPECT_EQ(0, fcntl(modem.near, F_GETFL) & O_NONBLOCK);
    // An answer that does not come leaves as much time to a slow line.
    limits.answer = limits.inVain = std::chrono::seconds(9);
    mask.StartWaits({}, limits);
    dir.Store("DIAG.cfg", kFirst);
    mask.DiagMask(modem.near, 1);
    fcntl(modem.near, F_SETFL, O_NONBLOCK);
    FillUntilFull(modem.near);
    MakeBlocking();
    sent = Waiting([this] { return Send(kFirst); });
    Arrived();
    EXPECT_EQ(1, sent.get());
}

// What comes around it is lost, and nothing else.
TEST_F(LogMaskTest, AnswersAreAwaited) {
    const std::string stamp = HexFrame("1D 01 02"), packet = LogFrame(0x117C);
    const std::string head = packet.substr(0, 7), rest = packet.substr(7);
    const struct {
        const char* name;
        std::string requests;
        std::vector<std::string> replies;  // behind each of them
        std::string stamp;
        int unanswered;
        std::string next, relayed;  // what the modem sends then, and what is left of it
    } kRows[] = {
        {"quiet modem", HexFrame("1D"), {stamp}, stamp, 0, packet, packet},
        {"busy modem", HexFrame("1D"), {packet + stamp + head}, stamp, 0, rest + packet, packet},
        {"rest in two pieces", HexFrame("1D"), {stamp + head}, stamp, 0, rest.substr(0, 3), ""},
        {"refused", HexFrame("7D 05"), {HexFrame("13 7D 05")}, "", 0, packet, packet},
        {"not the last answer", HexFrame("1D"), {packet}, "", 1, packet, packet},
        {"lone flag", "~" + HexFrame("1D"), {"", stamp}, stamp, 0, packet, packet},
        {"one is not answered", kFirst + HexFrame("1D"), {"", stamp}, stamp, 1, "", ""},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        const LogLines lines;
        dir.Store("DIAG.cfg", row.requests);
        LogMask loaded(dir.Path().c_str());
        loaded.SetDiagFd(modem.near);
        MakeBlocking();
        size_t count = 0;
        lines.On("Diag data send successfully", [&] { WriteAll(modem.far, row.replies[count++]); });
        Limits limits;
        limits.answer = row.unanswered == 0 ? std::chrono::hours(1) : std::chrono::milliseconds(50);
        limits.inVain = std::chrono::hours(1);
        loaded.StartWaits({}, limits);
        loaded.DiagMask(modem.near, 1);
        EXPECT_EQ(row.unanswered, lines.Count("Failed to read any data from FTM port"));
        EXPECT_TRUE(Same(row.requests, Arrived()));
        EXPECT_EQ("", ReadAvailable(modem.near));
        char out[kDiagAreaSize];
        EXPECT_EQ(row.stamp, std::string(out, static_cast<size_t>(loaded.GetTimeStamp(out, 99))));
        std::string next = row.next;
        next.resize(static_cast<size_t>(
            loaded.DropRestOfReply(next.data(), static_cast<int>(next.size()))));
        EXPECT_TRUE(Same(row.relayed, next));
    }
}

TEST_F(LogMaskTest, TimeStampIsKeptInWholeFrames) {
    char out[16];
    EXPECT_EQ(0, mask.GetTimeStamp(out, 16));
    const std::string stamp = Hex("1D 01 7E 1D 02 7E");
    for (const std::string& reply : {stamp, kFirst}) {
        WriteAll(modem.far, reply);
        EXPECT_EQ(static_cast<int>(reply.size()), mask.DiagDataRead());
    }
    for (const auto& [room, kept] : {std::pair(6, 6U), std::pair(5, 3U), std::pair(2, 0U)}) {
        const auto len = static_cast<size_t>(mask.GetTimeStamp(out, room));
        EXPECT_EQ(stamp.substr(0, kept), std::string(out, len)) << room;
    }
    EXPECT_EQ(-1, mask.DiagDataRead()) << "nothing there";
}

}  // namespace
