#include "buffer/block_queue.h"

#include <gtest/gtest.h>

#include <cstring>

#include "tests/unit/support/descriptors.h"

namespace {

using Wait = BlockQueue::Wait;
using Work = BlockQueue::Work;
constexpr std::chrono::milliseconds kNow(0);

void Push(BlockQueue& queue, int number) {
    memcpy(queue.FreeBlock(), &number, sizeof(number));
    queue.Push(number);
}

TEST(BlockQueue, Keeps399BlocksInOrder) {
    BlockQueue queue;
    queue.Allocate();
    for (int first = 0; first < 5 * 399; first += 399) {
        int number = first;
        for (; queue.WaitForFreeBlock(kNow) == Wait::kReady && queue.HasFreeBlock(); ++number)
            Push(queue, number);
        ASSERT_EQ(first + 399, number);
        for (number = first; number < first + 399; ++number) {
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

TEST(BlockQueue, WritesComeBeforeBlocksAndTheStopBehind) {
    BlockQueue queue;
    queue.Allocate();
    Push(queue, 1);
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

// Who waits is woken at once; with all blocks filled, or one.
TEST(BlockQueue, ChangesWakeWhoWaitsForThem) {
    static const auto forBlock = [](BlockQueue& q) {
        return q.WaitForFreeBlock(std::chrono::hours(1));
    };
    static const auto untilEmpty = [](BlockQueue& q) {
        return q.WaitUntilEmpty(std::chrono::hours(1));
    };
    const struct {
        const char* name;
        Wait (*wait)(BlockQueue&);
        void (BlockQueue::*change)();
        Wait result;
    } kRows[] = {
        {"a block is freed", forBlock, &BlockQueue::FreeOldest, Wait::kReady},
        {"stop", forBlock, &BlockQueue::Stop, Wait::kNever},
        {"consumer ends", forBlock, &BlockQueue::EndConsuming, Wait::kNever},
        {"the last is freed", untilEmpty, &BlockQueue::FreeOldest, Wait::kReady},
        {"consumer ends, not empty", untilEmpty, &BlockQueue::EndConsuming, Wait::kNever},
    };
    for (const auto& row : kRows) {
        BlockQueue queue;
        queue.Allocate();
        do
            queue.Push(1);
        while (row.wait == forBlock && queue.HasFreeBlock());
        auto waiting = Waiting([&] { return row.wait(queue); });
        (queue.*row.change)();
        EXPECT_EQ(row.result, waiting.get()) << row.name;
    }
    for (const Work work : {Work::kBlock, Work::kWrite, Work::kStop}) {
        BlockQueue queue;
        auto waiting = Waiting([&] { return queue.WaitForWork(); });
        if (work == Work::kBlock) queue.Push(1);
        if (work == Work::kWrite) queue.RequestWrite();
        if (work == Work::kStop) queue.Stop();
        EXPECT_EQ(work, waiting.get());
    }
}

}  // namespace
