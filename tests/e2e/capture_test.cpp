// The split of the modem's stream between tool and flash.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/e2e/steps.h"

namespace e2e {
namespace {

namespace fs = std::filesystem;

const std::string kRecordFile = kCaptureDirectory + std::string("record.txt");

using Capture = HandsetTest;

TEST_F(Capture, ShowsTheToolItsOwnMasksAndPackets) {
    const std::string fileMask = Framed(SetMask(1, MaskOf({15})));
    const std::string toolMask = Framed(SetMask(1, MaskOf({0}) + '\0'));
    const std::string merged = Framed(SetMask(1, MaskOf({0, 15})));
    const std::string wanted = LogFrame(0x1000);
    const std::string other = LogFrame(0x100F);
    Store(kMaskFile, fileMask);
    answer = [&](const std::string& frame) {  // refused, but set all the same
        if (frame != merged) return frame;
        return Answer(3, 1, MaskOf({0, 15}), 2) + Answer(4, 1, MaskOf({0, 15})) + wanted + other;
    };
    Switch(true);
    StartDaemon();
    Connect();
    tool.Send(toolMask);
    const std::string forTool =
        Answer(3, 1, MaskOf({0}) + '\0') + Answer(4, 1, MaskOf({0}) + '\0') + wanted;
    EXPECT_TRUE(Gets(tool, forTool));
    EXPECT_TRUE(Gets(modem, fileMask + merged));
    Finish();
    EXPECT_TRUE(Same(wanted + other, Captured()));
    const auto count = [](const std::string& bytes) { return std::to_string(bytes.size()); };
    EXPECT_NE(std::string::npos, Log().find("ReadDataFromBP:" + count(forTool + other) +
                                            ", SavedToFlash:" + count(wanted + other) +
                                            ", WriteToAP:" + count(forTool) +
                                            ", mTotalLengthForLogDataWriteToAp: " + count(wanted)));
}

TEST_F(Capture, OnASlowFlashCostsTheToolNothingUntilThePoolIsFull) {
    // The writer thread begins with the record file: a full pipe in its place holds it.
    ASSERT_EQ(0, mkfifo(kRecordFile.c_str(), 0600));
    fs::permissions(kRecordFile, fs::perms::all);
    const UniqueFd pipe(open(kRecordFile.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    char page[4096] = {};
    while (write(pipe.get(), page, sizeof(page)) > 0) {
    }
    const Mix withinPool(random, 700'000, true);
    const Mix beyond(random, 3'000'000, true);
    Start(true);
    modem.Send(withinPool.all);
    EXPECT_TRUE(Gets(tool, withinPool.forTool));
    modem.Send(beyond.all);
    UntilLogged("PoolBuffer: Read wait cond");
    EXPECT_TRUE(CaptureFiles().empty());
    while (read(pipe.get(), page, sizeof(page)) > 0) {
    }
    EXPECT_TRUE(Gets(tool, beyond.forTool));
    Finish();
    EXPECT_TRUE(Same(withinPool.own + beyond.own, Captured()));
}

TEST_F(Capture, OnAFaultyFlashCostsTheToolNothing) {
    enum { kFull, kReadOnly, kMissing };
    for (const int fault : {kFull, kReadOnly, kMissing}) {
        const unsigned long readOnly = fault == kReadOnly ? MS_RDONLY : 0;
        ASSERT_EQ(0, mount("flash", "/data/misc", "tmpfs", 0, "size=64k"));
        if (fault != kMissing) fs::create_directory(kCaptureDirectory);
        if (fault != kMissing) fs::permissions(kCaptureDirectory, fs::perms::all);
        mount(nullptr, "/data/misc", nullptr, MS_REMOUNT | readOnly, nullptr);
        const Mix mix(random, 400'000, true);
        Start(true);
        modem.Send(mix.all);
        EXPECT_TRUE(Gets(tool, mix.forTool)) << fault;
        Finish();
        if (fault == kFull) {  // one of 16 pages is the record file's
            EXPECT_TRUE(Same(mix.own.substr(0, size_t{15} * 4096), Captured()));
        }
        StopDaemon();
        umount2("/data/misc", MNT_DETACH);
    }
}

}  // namespace
}  // namespace e2e
