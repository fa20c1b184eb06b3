#include "buffer/block_queue.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "tests/unit/support/descriptors.h"

namespace {

using Wait = BlockQueue::Wait;
using Work = BlockQueue::Work;
constexpr std::chrono::milliseconds kNow(0);

class BlockQueueTest : public testing::Test {
  protected:
    BlockQueueTest() { queue.Allocate(); }
    void Push(int number) {
        memset(queue.FreeBlock(), 0, BlockQueue::kBlockSize);
        memcpy(queue.FreeBlock(), &number, sizeof(number));
        queue.Push(number);
    }
    // Fills it with the numbers from first on; returns how many.
    int Fill(int first) {
        int count = 0;
        for (; queue.WaitForFreeBlock(kNow) == Wait::kReady; ++count) {
            EXPECT_TRUE(queue.HasFreeBlock());
            Push(first + count);
        }
        return count;
    }
    BlockQueue queue;
};

TEST_F(BlockQueueTest, Keeps399BlocksInOrder) {
    for (int first = 0; first < 5 * 399; first += 399) {
        ASSERT_EQ(399, Fill(first));
        EXPECT_FALSE(queue.HasFreeBlock());
        for (int number = first; number < first + 399; ++number) {
            EXPECT_EQ(Wait::kNotYet, queue.WaitUntilEmpty(kNow));
            ASSERT_EQ(Work::kBlock, queue.WaitForWork());
            EXPECT_EQ(0, memcmp(&number, queue.Oldest(), sizeof(number)));
            EXPECT_EQ(number, queue.OldestSize());
            queue.FreeOldest();
            EXPECT_TRUE(queue.HasFreeBlock());
        }
        EXPECT_EQ(Wait::kReady, queue.WaitUntilEmpty(kNow));
    }
}

TEST_F(BlockQueueTest, WritesComeBeforeBlocksAndTheStopBehind) {
    Push(1);
    queue.Stop();
    EXPECT_EQ(Work::kBlock, queue.WaitForWork());
    queue.RequestWrite();
    EXPECT_EQ(Work::kWrite, queue.WaitForWork());
    EXPECT_EQ(Work::kBlock, queue.WaitForWork());
    EXPECT_EQ(Wait::kNotYet, queue.WaitUntilEmpty(kNow));
    queue.FreeOldest();
    EXPECT_EQ(Work::kStop, queue.WaitForWork());
    EXPECT_EQ(Wait::kReady, queue.WaitForFreeBlock(kNow));
}

// Who waits, with all blocks but one or all blocks filled, is woken by each of these at once.
TEST_F(BlockQueueTest, ChangesWakeWhoWaitsForThem) {
    const struct {
        const char* name;
        int taken;  // of the blocks filled, before the wait
        std::function<void(BlockQueue&)> change;
        Wait forFreeBlock, untilEmpty;
    } kRows[] = {
        {"freed", 398, [](BlockQueue& q) { q.FreeOldest(); }, Wait::kReady, Wait::kReady},
        {"freed one", 0, [](BlockQueue& q) { q.FreeOldest(); }, Wait::kReady, Wait::kNotYet},
        {"stopped", 0, [](BlockQueue& q) { q.Stop(); }, Wait::kNever, Wait::kNotYet},
        {"consumer ended", 0, [](BlockQueue& q) { q.EndConsuming(); }, Wait::kNever, Wait::kNever},
    };
    for (const auto& row : kRows) {
        SCOPED_TRACE(row.name);
        for (const bool isForBlock : {true, false}) {
            const Wait expected = isForBlock ? row.forFreeBlock : row.untilEmpty;
            if (expected == Wait::kNotYet || (isForBlock && row.taken != 0)) continue;
            BlockQueue q;
            q.Allocate();
            while (q.HasFreeBlock())
                q.Push(1);
            for (int i = 0; i < row.taken; ++i)
                q.FreeOldest();
            auto waiting = Waiting([&q, isForBlock] {
                constexpr std::chrono::hours kLong(1);
                return isForBlock ? q.WaitForFreeBlock(kLong) : q.WaitUntilEmpty(kLong);
            });
            row.change(q);
            EXPECT_EQ(expected, waiting.get());
        }
    }
    for (const Work work : {Work::kBlock, Work::kWrite, Work::kStop}) {
        BlockQueue q;
        auto waiting = Waiting([&q] { return q.WaitForWork(); });
        if (work == Work::kBlock) q.Push(1);
        if (work == Work::kWrite) q.RequestWrite();
        if (work == Work::kStop) q.Stop();
        EXPECT_EQ(work, waiting.get());
    }
}

}  // namespace
