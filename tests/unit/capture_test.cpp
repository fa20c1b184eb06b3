// The pool and the files that it writes.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <vector>

#include "base/log_switch.h"
#include "capture/pool_buffer.h"
#include "tests/support/bytes.h"
#include "tests/unit/support/descriptors.h"
#include "tests/unit/support/log_lines.h"
#include "tests/unit/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

constexpr int kSlotSize = 16384;

class Flash : public testing::Test {
  protected:
    Flash() { gLogEnable = 1; }
    ~Flash() override { gLogEnable = 0; }

    static int Put(PoolBuffer& pool, const std::string& bytes) {
        return pool.Read(bytes.data(), static_cast<int>(bytes.size()));
    }
    // Returns the path. A file is named by the millisecond of its opening, so the next is awaited.
    std::string Store(const std::string& bytes) {
        using std::chrono::system_clock, std::chrono::milliseconds;
        const auto last = system_clock::now().time_since_epoch() / milliseconds(1);
        while (system_clock::now().time_since_epoch() / milliseconds(1) == last)
            std::this_thread::yield();
        files.Store(bytes.data(), static_cast<int>(bytes.size()));
        return files.Path();
    }
    std::string Stored() const { return Contents(files.Path()); }

    LogLines log;
    TempDir dir;
    LogFiles files{(dir / "").c_str(), 10000};
};

TEST_F(Flash, RotatesAndListsItsFilesByConnection) {
    umask(0);
    files.OpenRecordFile();
    files.OpenRecordFile();
    const std::string first = Store(std::string(9999, 'a'));
    EXPECT_EQ(first, Store("b"));
    const std::string second = Store("c");
    files.Close();
    EXPECT_EQ(0U, files.Size());
    files.OpenRecordFile();
    const std::string third = Store(std::string(20000, 'd'));
    files.Close();
    EXPECT_EQ(std::string(9999, 'a') + "b", Contents(first));
    EXPECT_EQ("c", Contents(second));
    EXPECT_EQ(std::string(20000, 'd'), Contents(third));
    EXPECT_EQ("\n\n" + first + "\n" + second + "\n\n\n" + third + "\n",
              Contents(dir / "record.txt"));
    EXPECT_TRUE(Matches(first, "/diag_log_20[0-9_.-]*.qmdl$")) << first;
    for (const std::string& path : {first, dir / "record.txt"})
        EXPECT_EQ(0640U, static_cast<unsigned>(fs::status(path).permissions())) << path;
}

TEST_F(Flash, IsWrittenThrough) {
    files.OpenRecordFile();
    Store("a");
    int found = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code none;
        if (fs::read_symlink(entry, none).parent_path() != dir.Path()) continue;
        ++found;
        EXPECT_EQ(O_SYNC, fcntl(std::stoi(entry.path().filename()), F_GETFL) & O_SYNC);
    }
    EXPECT_EQ(2, found);
    files.Close();
}

// What cannot be stored costs the data of its time only.
TEST_F(Flash, TroublePasses) {
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit = {};
    getrlimit(RLIMIT_FSIZE, &limit);
    files.OpenRecordFile();
    Store("a");
    limit.rlim_cur = 3;
    setrlimit(RLIMIT_FSIZE, &limit);
    Store("bcd");
    Store("e");
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(4U, files.Size()) << "a cut chunk counts whole";
    Store("f");
    EXPECT_EQ("abcf", Stored());
    files.Close();
}

TEST_F(Flash, PoolKeepsChunksWholeAndInOrder) {
    const struct {
        const char* name;
        std::vector<size_t> chunks;
    } kRows[] = {
        {"a slot is filled to the last byte", {16383, 1, 1}},
        {"full-sized chunk behind a byte", {1, 16384, 1}},
        {"chunk that does not fit leaves a rest", {10000, 6385, 9999, 1}},
        {"oversized chunk is cut", {20000, 20000, 5}},
        {"rounds of the ring", std::vector<size_t>(130, 16384)},
        {"nothing queued leaves no file", {}},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        LogFiles whole((dir / "").c_str(), 1 << 30);
        PoolBuffer pool(whole);
        std::string all;
        for (const size_t size : row.chunks) {
            const std::string chunk = Pattern(size, static_cast<unsigned>(all.size() + 1));
            const size_t taken = std::min<size_t>(size, kSlotSize);
            EXPECT_EQ(static_cast<int>(taken), Put(pool, chunk));
            all += chunk.substr(0, taken);
        }
        pool.Exit();
        EXPECT_EQ(0, Put(pool, "late"));
        pool.Join();
        EXPECT_TRUE(Same(all, Contents(whole.Path())));
        EXPECT_EQ(all.empty(), std::string(whole.Path()).empty());
        fs::remove(whole.Path());
    }
}

}  // namespace
