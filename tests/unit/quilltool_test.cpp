// The program itself: arguments in, exit status and both outputs out.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "tests/support/bytes.h"
#include "tests/unit/support/temp_dir.h"
#include "tools/modem/sim_modem.h"

namespace {

std::string Log(uint16_t code, uint64_t ticks) {
    constexpr uint64_t kStamp = uint64_t{1156792320800} << 16;  // 2025-11-01 00:00:01 UTC
    return Framed(SimModem::MakeLogPacket(code, "", kStamp + ticks));
}

// In a directory of its own, with a list, mask files and captures.
class Quilltool : public testing::Test {
  protected:
    Quilltool() {
        dir.Store("list", "0x117C\n0xB0C0-0xB0CF\nevents on\n");
        dir.Store("mask.cfg", HexFrame("60 01") + HexFrame("1D"));
        dir.Store("bad.cfg", HexFrame("60 01") + Hex("60 00 00 7E"));
        dir.Store("frames", HexFrame("60 01 00") + HexFrame("79 00") + HexFrame("1D 05"));
        dir.Store("cut.qmdl", HexFrame("60 01 00").substr(0, 4));
        dir.Store("logs.qmdl", Log(1, (2 << 16) + 40960) + HexFrame("1D 05") + Log(2, 0));
        Run("mkdir captures recorded; cp frames captures/a.qmdl; cd recorded;"
            "for i in a.qmdl b.qmdl c.qmdl z.qmdl d.txt; do cp ../frames $i; done");
        dir.Store("recorded/record.txt",
                  "\n\n/data/misc/radio/c.qmdl\n\n\n/x/gone.qmdl\n/x/a.qmdl\nc.qmdl");
    }
    // A line for the shell, where $q is the program; its exit status.
    int Run(const std::string& line) {
        const std::string prepare =
            "cd " + dir.Path() + "; q='" QUILLTOOL "';" +
            "Until() { timeout 20 sh -c \"until $1; do sleep 0.01; done\"; };";
        return WEXITSTATUS(system((prepare + line).c_str()));
    }
    std::string Output(const char* name) const { return Contents(dir / name); }

    struct Call {
        std::string arguments;
        int status;
        const char* out;  // patterns; "^$" for nothing
        const char* err;
    };
    void CheckCalls(const std::vector<Call>& calls) {
        for (const Call& call : calls) {
            SCOPED_TRACE(call.arguments);
            EXPECT_EQ(call.status, Run("$q 2>err >out " + call.arguments));
            EXPECT_TRUE(Matches(Output("out"), call.out)) << Output("out");
            EXPECT_TRUE(Matches(Output("err"), call.err)) << Output("err");
        }
    }

    const TempDir dir;
};

TEST_F(Quilltool, AnswersEveryCall) {
    CheckCalls({
        {"--version", 0, "^quilltool [0-9]+\\.[0-9]+\\.[0-9]+\n$", "^$"},
        {"--help", 0, "modem.*probe.*mask.*capture", "^$"},
        {"", 2, "^$", "there are modem, probe, mask, capture"},
        {"nosuch", 2, "^$", "nosuch is no subcommand; there are modem"},
        {"mask compile list -o new.cfg", 0, "^$", "^$"},
        {"mask print bad.cfg", 1, "event", "bad.cfg: offset 5: bad check sequence"},
        {"probe 127.0.0.1 --port 1 --timeout 0.01", 1, "^$", "refused.*one tool at a time"},
        {"modem --port missing", 1, "^$", "cannot open missing: No such file"},
        {"capture show captures", 0, "event report.*good\n.*message.*good\n.*answer", "^$"},
        {"capture show cut.qmdl", 1, "mid-frame", "cut frames: 1"},
        {"capture stat captures", 0, "^1 file, 17 bytes\n.*answer +1 ", "^$"},
        {"capture stat captures --json", 0, "\"bytes\": 17,.*\"problems\": \\[\\]", "^$"},
        {"capture stat logs.qmdl", 0,
         "from 2025-11-01 00:00:01.000 to 2025-11-01 00:00:01.003 UTC, 0.004 s\n.*\n"
         "0x0002 +0 +1 +19\n.*\n0x0001 +#{40} +50.0%",
         "^$"},
        {"capture show recorded", 0, "^recorded/c.*\nrecorded/a.*\nrecorded/b.*\nrecorded/z",
         "^quilltool: recorded: its record file lists gone.qmdl, which is not there\n$"},
        {"capture show captures >/dev/full", 1, "^$", "not be written: No space left"},
    });
    EXPECT_EQ(Packets(Output("new.cfg")).size(), 3U);
    for (const char* wrong : {"--request ' '", "--request 730", "--bulk 9300000000G", "--bulk 0M",
                              "--bulk M", "--bulk 3MB", "--bulk -3"})
        CheckCalls({{std::string("probe localhost ") + wrong, 2, "^$", "^--(request|bulk): "}});
}

TEST_F(Quilltool, EndsQuietlyWhenNobodyReadsOn) {
    for (const char* arguments : {"capture show captures", "modem --at line"}) {
        Run(std::string("{ Until 'test -e closed'; $q 2>err ") + arguments +
            "; echo $? >status; } | { exec <&-; >closed; Until 'test -s status'; }");
        EXPECT_EQ(Output("status") + Output("err"), "0\n");
        Run("rm closed status");
    }
}

// With what comes, not with what was there before.
TEST_F(Quilltool, FollowsUntilCtrlC) {
    dir.Store("more", HexFrame("79 01"));
    EXPECT_EQ(0, Run("set -m 2>&-; $q capture follow captures >out 2>err &"
                     "Until 'grep -q waiting err'; cat more >>captures/a.qmdl;"
                     "Until 'grep -q message out'; kill -INT $!; wait $!"));
    EXPECT_FALSE(Matches(Output("out"), "answer"));
}

}  // namespace
