// The pool and the files it writes, in this process: /data/misc/radio is the handset's own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <numeric>
#include <string>
#include <vector>

#include "capture/log_files.h"
#include "capture/pool_buffer.h"
#include "capture_handset.h"
#include "daemon/log_switch.h"

namespace e2e {
namespace {

namespace fs = std::filesystem;

constexpr int kSlotSize = 16384;
constexpr int kSlots = 50;

class CaptureFilesTest : public CaptureHandset {
  protected:
    CaptureFilesTest() { gLogEnable = 1; }
    ~CaptureFilesTest() override { gLogEnable = 0; }

    static int Put(PoolBuffer& pool, const std::string& bytes) {
        return pool.Read(bytes.data(), static_cast<int>(bytes.size()));
    }
    static void StoreNow(const std::string& bytes) {
        StoreInLogFile(bytes.data(), static_cast<int>(bytes.size()));
    }
    static void End(PoolBuffer& pool) {
        pool.Exit();
        pool.Join();
    }
};

// ---- Slots ----

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
}

INSTANTIATE_TEST_SUITE_P(
    Rows, Placement,
    testing::Values(PlacementCase{"FillsASlotToTheLastByte", {16383, 1, 1}, 16384},
                    PlacementCase{"FullSizedChunkBehindAByte", {1, 16384, 1}, 16385},
                    PlacementCase{
                        "ChunkThatDoesNotFitLeavesARest", {10000, 6385, 9999, 1}, 10000 + 16384},
                    PlacementCase{"OversizedChunkIsCut", {20000, 20000, 5}, 32768},
                    PlacementCase{"SmallChunksWaitForTheEnd", {1, 2, 3}, 0}),
    NameOf<PlacementCase>);

TEST_F(CaptureFilesTest, ManyRoundsOfTheRingStayInOrder) {
    std::string all;
    PoolBuffer pool;
    for (unsigned i = 1; i <= 700; ++i) {
        const std::string chunk = Pattern(i * 7919 % 16384 + 1, i);
        ASSERT_EQ(static_cast<int>(chunk.size()), Put(pool, chunk));
        all += chunk;
    }
    End(pool);
    EXPECT_TRUE(Same(all, Captured()));
}

// ---- Full pool ----

struct FullCase {
    const char* name;
    bool exits;  // while the producer waits
};

class FullPool : public CaptureFilesTest, public testing::WithParamInterface<FullCase> {};

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
    if (GetParam().exits) {
        pool.Exit();
        EXPECT_EQ(0, waiting.get());
    }
    while (read(pipe, page, sizeof(page)) > 0) {
    }
    if (!GetParam().exits) {
        EXPECT_EQ(15, waiting.get());
        all += "fits, but waits";
    }
    End(pool);
    close(pipe);
    EXPECT_TRUE(Same(all, Captured()));
}

INSTANTIATE_TEST_SUITE_P(Rows, FullPool,
                         testing::Values(FullCase{"Released", false}, FullCase{"Exits", true}),
                         NameOf<FullCase>);

// ---- Files ----

TEST_F(CaptureFilesTest, NothingQueuedLeavesARecordFileOnly) {
    PoolBuffer pool;
    End(pool);
    EXPECT_TRUE(CaptureFiles().empty());
    EXPECT_EQ("\n\n", Contents(kRecordFile));
}

// The name of a file is made of the moment of its opening, in milliseconds.
void WaitForAnotherName() {
    const auto now = [] {
        return std::chrono::time_point_cast<milliseconds>(std::chrono::system_clock::now());
    };
    const auto opened = now();
    WaitUntil([&] { return now() > opened; });
}

TEST_F(CaptureFilesTest, RotateAt200MiBAndAreListedPerConnection) {
    const std::string most(8 << 20, 'm');
    OpenRecordFile();
    for (int i = 1; i < 25; ++i)
        StoreNow(most);
    StoreNow(most.substr(1));
    StoreNow("r");
    WaitForAnotherName();
    StoreNow("second file");
    CloseLogFiles();
    WaitForAnotherName();
    gLogEnable = 0;  // no separator, but what is stored is listed
    OpenRecordFile();
    StoreNow("third file");
    CloseLogFiles();
    gLogEnable = 1;
    WaitForAnotherName();
    OpenRecordFile();
    StoreNow("fourth file");
    CloseLogFiles();

    const std::vector<std::string> files = CaptureFiles();
    ASSERT_EQ(4U, files.size());
    EXPECT_EQ(209715200U, fs::file_size(files[0]));
    EXPECT_EQ("second file", Contents(files[1]));
    EXPECT_EQ("third file", Contents(files[2]));
    EXPECT_EQ("fourth file", Contents(files[3]));
    EXPECT_EQ("\n\n" + files[0] + "\n" + files[1] + "\n" + files[2] + "\n\n\n" + files[3] + "\n",
              Contents(kRecordFile));
    for (const std::string& path : {files[0], files[3], kRecordFile})
        EXPECT_EQ(0640U, static_cast<unsigned>(fs::status(path).permissions())) << path;
}

// ---- Flash in trouble ----

struct TroubleCase {
    const char* name;
    void (*before)();
    void (*trouble)();
    void (*repair)();
    std::string captured;
};

class FlashTrouble : public CaptureFilesTest, public testing::WithParamInterface<TroubleCase> {
  protected:
    ~FlashTrouble() override {
        while (umount2(kCaptureDirectory.c_str(), MNT_DETACH) == 0) {
        }
    }
};

void Nothing() {}

TEST_P(FlashTrouble, CostsTheDataOfItsTimeOnly) {
    const TroubleCase& row = GetParam();
    row.before();
    OpenRecordFile();
    StoreNow(std::string(kSlotSize, 'a'));
    row.trouble();
    WaitForAnotherName();
    StoreNow(std::string(kSlotSize, 'b'));
    row.repair();
    WaitForAnotherName();
    StoreNow(std::string(kSlotSize, 'c'));
    CloseLogFiles();
    EXPECT_TRUE(Same(row.captured, Captured()));
}

const std::string kFiller = kCaptureDirectory + "filler";
const std::string kA(kSlotSize, 'a');
const std::string kB(kSlotSize, 'b');
const std::string kC(kSlotSize, 'c');

INSTANTIATE_TEST_SUITE_P(
    Rows, FlashTrouble,
    testing::Values(
        TroubleCase{"FullAndEmptiedAgain",
                    [] {
                        // 16 pages, one of them for the record file, eight for the filler.
                        ASSERT_EQ(
                            0, mount("flash", kCaptureDirectory.c_str(), "tmpfs", 0, "size=64k"));
                        Store(kFiller, std::string(32768, 'f'));
                    },
                    Nothing, [] { fs::remove(kFiller); }, kA + kB.substr(0, 12288) + kC},
        TroubleCase{"DirectoryRemovedAndPutBack", Nothing,
                    [] { fs::remove_all(kCaptureDirectory); },
                    [] { fs::create_directory(kCaptureDirectory); }, kC},
        TroubleCase{"DirectoryMissingAtFirst", [] { fs::remove_all(kCaptureDirectory); },
                    [] { fs::create_directory(kCaptureDirectory); }, Nothing, kB + kC},
        TroubleCase{"FileRemoved", Nothing, [] { fs::remove(CaptureFiles().at(0)); }, Nothing,
                    kB + kC},
        TroubleCase{"RecordFileUnwritable", [] { fs::create_directory(kRecordFile); }, Nothing,
                    Nothing, kA + kB + kC}),
    NameOf<TroubleCase>);

}  // namespace
}  // namespace e2e
