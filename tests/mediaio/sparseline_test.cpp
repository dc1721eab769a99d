// The line that says itself once in ten seconds, however often it would be written.
#include "mediaio/store/log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

using std::chrono::milliseconds;
using zemstore::CSparseLine;

TEST(SparseLine, IsWrittenAtOnceAndThenOnceInAPause) {
    CSparseLine line;
    const CSparseLine::Clock::time_point start{};
    uint64_t leftOut = 99;
    EXPECT_TRUE(line.Due(start, leftOut));
    EXPECT_EQ(leftOut, 0u);
    EXPECT_FALSE(line.Due(start, leftOut));
    EXPECT_FALSE(line.Due(start + CSparseLine::kPause - milliseconds(1), leftOut));
    EXPECT_TRUE(line.Due(start + CSparseLine::kPause, leftOut));
    EXPECT_EQ(leftOut, 2u);
    EXPECT_TRUE(line.Due(start + 5 * CSparseLine::kPause, leftOut));
    EXPECT_EQ(leftOut, 0u) << "those were told already";
}

TEST(SparseLine, CountsEveryoneOfManyThreads) {
    constexpr uint64_t kThreads = 4;
    constexpr uint64_t kTimes = 1000;
    CSparseLine line;
    const CSparseLine::Clock::time_point now{};
    std::atomic<uint64_t> written{0};
    std::vector<std::thread> threads;
    for (uint64_t i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (uint64_t k = 0; k < kTimes; ++k) {
                uint64_t leftOut = 0;
                if (line.Due(now, leftOut)) ++written;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(written, 1u);
    uint64_t leftOut = 0;
    EXPECT_TRUE(line.Due(now + CSparseLine::kPause, leftOut));
    EXPECT_EQ(leftOut, kThreads * kTimes - 1);
}

}  // namespace
