// The pool and the files it writes, in this process: /data/misc/radio is the handset's own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include "capture/log_files.h"
#include "capture/pool_buffer.h"
#include "daemon/log_switch.h"
#include "handset.h"

namespace e2e {
namespace {

namespace fs = std::filesystem;

constexpr int kSlotSize = 16384;
constexpr int kSlots = 50;

class CaptureFilesTest : public HandsetTest {
  protected:
    CaptureFilesTest() { gLogEnable = 1; }
    ~CaptureFilesTest() override { gLogEnable = 0; }

    static int Put(PoolBuffer& pool, const std::string& bytes) {
        return pool.Read(bytes.data(), static_cast<int>(bytes.size()));
    }
    static void StoreNow(const std::string& bytes) {
        StoreInLogFile(bytes.data(), static_cast<int>(bytes.size()));
    }
};

struct PlacementCase {
    const char* name;
    std::vector<size_t> chunks;
    size_t stored;  // bytes that need no end to be stored: those of the slots left behind
};

class Placement : public CaptureFilesTest, public testing::WithParamInterface<PlacementCase> {};

TEST_P(Placement, KeepsChunksWholeAndInOrder) {
    const PlacementCase& row = GetParam();
    PoolBuffer pool;
    std::string all;
    for (const size_t size : row.chunks) {
        const std::string chunk = Pattern(size, static_cast<unsigned>(all.size() + 1));
        const size_t taken = std::min<size_t>(size, kSlotSize);
        EXPECT_EQ(static_cast<int>(taken), Put(pool, chunk));
        all += chunk.substr(0, taken);
    }
    ASSERT_TRUE(WaitUntil([&] { return Captured().size() >= row.stored; }));
    EXPECT_TRUE(Same(all.substr(0, row.stored), Captured()));
    pool.Exit();
    EXPECT_EQ(0, Put(pool, "late"));
    pool.Join();
    EXPECT_TRUE(Same(all, Captured()));
    EXPECT_EQ(all.empty(), CaptureFiles().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Placement,
    testing::Values(
        PlacementCase{"FillsASlotToTheLastByte", {16383, 1, 1}, 16384},
        PlacementCase{"FullSizedChunkBehindAByte", {1, 16384, 1}, 16385},
        PlacementCase{"ChunkThatDoesNotFitLeavesARest", {10000, 6385, 9999, 1}, 10000 + 16384},
        PlacementCase{"OversizedChunkIsCut", {20000, 20000, 5}, 32768},
        PlacementCase{"ManyRoundsOfTheRing", std::vector<size_t>(700, 7001), size_t{698} * 7001},
        PlacementCase{"NothingQueuedLeavesNoFile", {}, 0}),
    NameOf<PlacementCase>);

// Whether the pool exits while the producer waits.
class FullPool : public CaptureFilesTest, public testing::WithParamInterface<bool> {};

TEST_P(FullPool, HoldsTheProducerUntilASlotIsFreeOrTheEnd) {
    // The writer begins with the record file: a full pipe in its place holds the writer.
    ASSERT_EQ(0, mkfifo(kRecordFile.c_str(), 0600));
    const int pipe = open(kRecordFile.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    char page[4096] = {};
    while (write(pipe, page, sizeof(page)) > 0) {
    }
    std::string all;
    PoolBuffer pool;
    for (unsigned i = 0; i < kSlots; ++i) {
        const std::string chunk = Pattern(i + 1 < kSlots ? kSlotSize : 10, i);
        ASSERT_EQ(static_cast<int>(chunk.size()), Put(pool, chunk));
        all += chunk;
    }
    auto waiting = std::async(std::launch::async, [&] { return Put(pool, "fits, but waits"); });
    EXPECT_EQ(std::future_status::timeout, waiting.wait_for(milliseconds(100)));
    if (GetParam()) {
        pool.Exit();
        EXPECT_EQ(0, waiting.get());
    }
    while (read(pipe, page, sizeof(page)) > 0) {
    }
    if (!GetParam()) {
        EXPECT_EQ(15, waiting.get());
        all += "fits, but waits";
    }
    pool.Exit();
    pool.Join();
    close(pipe);
    EXPECT_TRUE(Same(all, Captured()));
}

INSTANTIATE_TEST_SUITE_P(Exits, FullPool, testing::Bool());

// The name of a file is made of the moment of its opening, in milliseconds.
void WaitForAnotherName() {
    const auto opened = std::chrono::system_clock::now();
    WaitUntil([&] { return std::chrono::system_clock::now() > opened + milliseconds(1); });
}

TEST_F(CaptureFilesTest, RotateAt200MiBAndAreListedPerConnection) {
    const std::string most(8 << 20, 'm');
    OpenRecordFile();
    for (int i = 0; i < 25; ++i)
        StoreNow(most);
    WaitForAnotherName();
    StoreNow("second file");
    CloseLogFiles();
    WaitForAnotherName();
    OpenRecordFile();
    StoreNow("third file");
    CloseLogFiles();

    const std::vector<std::string> files = CaptureFiles();
    ASSERT_EQ(3U, files.size());
    EXPECT_EQ(209715200U, fs::file_size(files[0]));
    EXPECT_EQ("second file", Contents(files[1]));
    EXPECT_EQ("third file", Contents(files[2]));
    EXPECT_EQ("\n\n" + files[0] + "\n" + files[1] + "\n\n\n" + files[2] + "\n",
              Contents(kRecordFile));
    for (const std::string& path : {files[0], files[2], kRecordFile})
        EXPECT_EQ(0640U, static_cast<unsigned>(fs::status(path).permissions())) << path;
}

struct TroubleCase {
    const char* name;
    void (*trouble)();
    void (*repair)();
    std::string captured;
};

// The captures lie on a flash of 16 pages.
class FlashTrouble : public CaptureFilesTest, public testing::WithParamInterface<TroubleCase> {
  protected:
    FlashTrouble() {
        EXPECT_EQ(0, mount("flash", "/data/misc", "tmpfs", 0, "size=64k"));
        fs::create_directory(kCaptureDirectory);
    }
    ~FlashTrouble() override { umount2("/data/misc", MNT_DETACH); }
};

TEST_P(FlashTrouble, CostsTheDataOfItsTimeOnly) {
    OpenRecordFile();
    StoreNow(std::string(kSlotSize, 'a'));
    GetParam().trouble();
    WaitForAnotherName();
    StoreNow(std::string(kSlotSize, 'b'));
    GetParam().repair();
    WaitForAnotherName();
    StoreNow(std::string(kSlotSize, 'c'));
    CloseLogFiles();
    EXPECT_TRUE(Same(GetParam().captured, Captured()));
}

const std::string kFiller = kCaptureDirectory + "filler";
const std::string kC(kSlotSize, 'c');

INSTANTIATE_TEST_SUITE_P(
    Rows, FlashTrouble,
    testing::Values(TroubleCase{"Full", [] { Store(kFiller, std::string(32768, 'f')); },
                                [] { fs::remove(kFiller); },  // one more page is the record file's
                                std::string(kSlotSize, 'a') + std::string(12288, 'b') + kC},
                    TroubleCase{"DirectoryRemoved", [] { fs::remove_all(kCaptureDirectory); },
                                [] { fs::create_directory(kCaptureDirectory); }, kC},
                    TroubleCase{"FileRemoved", [] { fs::remove(CaptureFiles().at(0)); }, [] {},
                                std::string(kSlotSize, 'b') + kC}),
    NameOf<TroubleCase>);

}  // namespace
}  // namespace e2e
