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
        {"ends of the alphabet", {{"[az]@.cfg", kSecond}}, kSecond, "[AZ]@"},
        {"missing", {{"DIAG.cfg", kFirst}}, kFirst, "lte"},
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
        int codes;
    } kRows[] = {
        {"escapes", Framed(command), 13, command, 14},
        {"without mask", Framed(SetMask(1, "").substr(0, 10)), 1, SetMask(1, "").substr(0, 10), 0},
        {"too short", Framed(SetMask(2, "").substr(0, 9)), 2, "", 0},
        {"not a mask", Framed("\x10" + command.substr(1)), 13, "", 14},
        {"no such id", Framed(SetMask(14, "\x01")), 0, "", 1},
        {"17 bytes have a mask", Framed(SetMask(0, "\xFF")), 0, SetMask(0, "\xFF"), 8},
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
        EXPECT_EQ(row.codes, fresh.CountOfLogPacket(row.frame.data(), end));
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
    mask.SetDiagFd(-1);
    EXPECT_EQ(-1, Send(kFirst));
    EXPECT_EQ(-1, mask.DiagDataRead());
}

TEST_F(LogMaskTest, BudgetBoundsTheWaitsInBlockingMode) {
    const size_t filled = FillUntilFull(modem.near);
    MakeBlocking();
    mask.StartWaitBudget(std::chrono::milliseconds(2));
    EXPECT_EQ(-1, Send(kFirst));
    EXPECT_EQ(-1, mask.DiagDataRead());
    EXPECT_EQ(1, log.Count("Failed to write FTM, erron = 11"));
    mask.StartWaitBudget(std::chrono::hours(1));
    auto sent = Waiting([this] { return Send(kFirst); });
    ReadExactly(modem.far, filled);
    EXPECT_EQ(1, sent.get());
    auto got = Waiting([this] { return mask.DiagDataRead(); });
    WriteAll(modem.far, kFirst);
    EXPECT_EQ(3, got.get());
    modem.CloseFar();
    EXPECT_EQ(-1, mask.DiagDataRead()) << "the modem has gone";
    EXPECT_EQ(0, fcntl(modem.near, F_GETFL) & O_NONBLOCK);
}

TEST_F(LogMaskTest, TimeStampIsKeptInWholeFrames) {
    char out[16];
    EXPECT_EQ(0, mask.GetTimeStamp(out, 16));
    const std::string stamp = Hex("1D 01 7E 1D 02 7E");
    for (const std::string& reply : {stamp, kFirst}) {
        WriteAll(modem.far, reply);
        EXPECT_EQ(static_cast<int>(reply.size()), mask.DiagDataRead());
    }
    const std::pair<int, size_t> kRows[] = {{16, 6}, {6, 6}, {5, 3}, {3, 3}, {2, 0}};
    for (const auto& [room, kept] : kRows) {
        const auto len = static_cast<size_t>(mask.GetTimeStamp(out, room));
        EXPECT_EQ(stamp.substr(0, kept), std::string(out, len)) << room;
    }
    EXPECT_EQ(-1, mask.DiagDataRead()) << "nothing there";
}

}  // namespace
