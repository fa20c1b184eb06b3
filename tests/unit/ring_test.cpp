#include "buffer/ring.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

// Beside each ring stands a string that holds the same bytes.
TEST(Ring, IsAQueueOfBytesWhereverItWraps) {
    std::mt19937 random(1);
    for (unsigned long size = 2; size < 10; ++size) {
        std::vector<char> storage(size);
        Ring ring(storage.data(), size);
        std::string held;
        bool isDrained = true;
        for (int step = 0; step < 3000; ++step) {
            ASSERT_EQ(held.size(), ring.NumBytes());
            ASSERT_EQ(held.empty(), ring.IsEmpty());
            ASSERT_EQ(held.size() == size - 1, ring.IsFull());
            ASSERT_EQ(held.rfind('~') + 1, ring.NumBytesUpTo('~'));
            std::string bytes(random() % (size + 1), '?');
            for (char& byte : bytes)
                byte = "~\xFFz"[random() % 3];
            const bool fits = held.size() + bytes.size() < size;
            const auto result = static_cast<ssize_t>(random() % 9) - 1;  // of a call handed in
            switch (random() % 3) {
                case 0:
                    ASSERT_EQ(fits, ring.Append(bytes.data(), bytes.size()));
                    if (fits) held += bytes;
                    break;
                case 1: {
                    const ssize_t n = ring.ReadSpan([&](char* at, unsigned long room) -> ssize_t {
                        EXPECT_EQ(held.size() == size - 1, room == 0);
                        EXPECT_TRUE(!isDrained || room == size - 1) << "all of it in one piece";
                        bytes.resize(std::min(bytes.size(), room));
                        if (result < 1) return result;
                        bytes.copy(at, bytes.size());
                        return static_cast<ssize_t>(bytes.size());
                    });
                    ASSERT_EQ(result < 1 ? result : static_cast<ssize_t>(bytes.size()), n);
                    if (n > 0) held += bytes;
                    break;
                }
                default: {
                    ssize_t n = 7;
                    const bool isAny = ring.WriteSpan(
                        n, bytes.size(), [&](const char* at, unsigned long len) -> ssize_t {
                            EXPECT_LE(len, bytes.size());
                            EXPECT_EQ(0, held.compare(0, len, at, len));
                            return std::min<ssize_t>(result, static_cast<ssize_t>(len));
                        });
                    ASSERT_EQ(!held.empty(), isAny);
                    if (!isAny || n < 1) break;
                    held.erase(0, static_cast<size_t>(n));
                    isDrained = held.empty();
                    continue;
                }
            }
            isDrained = isDrained && held.empty();
        }
    }
}

}  // namespace
