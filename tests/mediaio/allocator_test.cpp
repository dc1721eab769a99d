// Frame memory as its users see it.
#include "mediaio/zemmemallocator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <thread>

namespace {

constexpr size_t kPage = 4096;

TEST(Allocator, RefusesWhatItShould) {
    CZemMemAllocator allocator;
    EXPECT_EQ(allocator.Allocate(1), nullptr);
    EXPECT_EQ(allocator.Initialize(0, nullptr), E_INVALIDARG);
    int something = 0;
    EXPECT_EQ(allocator.Initialize(kPage, &something), E_INVALIDARG);
    EXPECT_EQ(allocator.Initialize(kPage, nullptr), S_OK);
    EXPECT_EQ(allocator.Initialize(kPage, nullptr), E_INVALIDARG);
    EXPECT_EQ(allocator.Allocate(0), nullptr);
    EXPECT_EQ(allocator.Allocate(kPage + 1), nullptr);
    EXPECT_EQ(allocator.Allocate(~size_t{0}), nullptr);
    allocator.Free(nullptr);
}

TEST(Allocator, HandsOutWholePagesAndCountsThem) {
    CZemMemAllocator allocator;
    ASSERT_EQ(allocator.Initialize(125829120, nullptr), S_OK);
    void* a = allocator.Allocate(1);
    void* b = allocator.Allocate(kPage + 1);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % kPage, 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % kPage, 0u);
    EXPECT_EQ(allocator.BytesInUse(), 3 * kPage);
    allocator.Free(a);
    EXPECT_EQ(allocator.BytesInUse(), 2 * kPage);
    allocator.Free(b);
    EXPECT_EQ(allocator.BytesInUse(), 0u);
}

TEST(Allocator, OneRunMayTakeEverythingAndExhaustionIsNull) {
    CZemMemAllocator allocator;
    ASSERT_EQ(allocator.Initialize(16 * kPage, nullptr), S_OK);
    void* all = allocator.Allocate(16 * kPage);
    ASSERT_NE(all, nullptr);
    EXPECT_EQ(allocator.Allocate(1), nullptr);
    allocator.Free(all);
    void* again = allocator.Allocate(16 * kPage);
    EXPECT_EQ(again, all);
    allocator.Free(again);
}

TEST(Allocator, NeighboursMerge) {
    CZemMemAllocator allocator;
    ASSERT_EQ(allocator.Initialize(3 * kPage, nullptr), S_OK);
    void* runs[3];
    for (void*& run : runs)
        run = allocator.Allocate(kPage);
    allocator.Free(runs[0]);
    allocator.Free(runs[2]);
    EXPECT_EQ(allocator.Allocate(2 * kPage), nullptr);
    allocator.Free(runs[1]);
    void* all = allocator.Allocate(3 * kPage);
    EXPECT_NE(all, nullptr);
    allocator.Free(all);
}

TEST(Allocator, RunsNeverOverlapAndKeepTheirBytes) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    CZemMemAllocator allocator;
    constexpr size_t kSize = 64 << 20;
    ASSERT_EQ(allocator.Initialize(kSize, nullptr), S_OK);
    std::map<char*, std::pair<size_t, char>> live;
    size_t inUse = 0;
    for (int step = 0; step < 4000; ++step) {
        if (!live.empty() && random() % 5 < 2) {
            auto which = live.begin();
            std::advance(which, random() % live.size());
            const auto [size, mark] = which->second;
            ASSERT_EQ(which->first[0], mark);
            ASSERT_EQ(which->first[size - 1], mark);
            allocator.Free(which->first);
            inUse -= (size + kPage - 1) / kPage * kPage;
            live.erase(which);
        } else {
            const size_t size = random() % (random() % 10 == 0 ? (4 << 20) : 100000) + 1;
            char* run = static_cast<char*>(allocator.Allocate(size));
            if (run == nullptr) continue;
            const auto next = live.lower_bound(run);
            if (next != live.end()) {
                ASSERT_LE(run + size, next->first);
            }
            if (next != live.begin()) {
                const auto before = std::prev(next);
                ASSERT_LE(before->first + before->second.first, run);
            }
            const char mark = static_cast<char>(random());
            run[0] = run[size - 1] = mark;
            live[run] = {size, mark};
            inUse += (size + kPage - 1) / kPage * kPage;
        }
        ASSERT_EQ(allocator.BytesInUse(), inUse);
    }
    for (const auto& [run, what] : live)
        allocator.Free(run);
    void* all = allocator.Allocate(kSize);
    EXPECT_NE(all, nullptr) << "everything came home, so everything is one run again";
    allocator.Free(all);
}

TEST(Allocator, ManyThreads) {
    CZemMemAllocator allocator;
    constexpr size_t kSize = 48 << 20;
    ASSERT_EQ(allocator.Initialize(kSize, nullptr), S_OK);
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 4; ++t) {
        threads.emplace_back([&allocator, t] {
            std::mt19937 random(t);
            for (int i = 0; i < 1500; ++i) {
                const size_t size = random() % (12 << 20) + 1;
                char* run = static_cast<char*>(allocator.Allocate(size));
                if (run == nullptr) continue;
                run[0] = run[size - 1] = static_cast<char>(t);
                EXPECT_EQ(run[0], static_cast<char>(t));
                EXPECT_EQ(run[size - 1], static_cast<char>(t));
                allocator.Free(run);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(allocator.BytesInUse(), 0u);
    void* all = allocator.Allocate(kSize);
    EXPECT_NE(all, nullptr);
    allocator.Free(all);
}

// The largest run that could be had now, in bytes.
size_t LargestRun(CZemMemAllocator& allocator, size_t memory) {
    size_t low = 0;
    size_t high = memory / kPage;
    while (low < high) {
        const size_t middle = (low + high + 1) / 2;
        void* run = allocator.Allocate(middle * kPage);
        allocator.Free(run);
        if (run == nullptr)
            high = middle - 1;
        else
            low = middle;
    }
    return low * kPage;
}

// Mixed frame sizes, the oldest going first as they reach the device: what is free must stay
// usable. bench/allocator does the same for a day.
TEST(Allocator, FragmentationStaysBounded) {
    std::mt19937 random(20240229);
    CZemMemAllocator allocator;
    constexpr size_t kSize = 125829120;
    ASSERT_EQ(allocator.Initialize(kSize, nullptr), S_OK);
    std::vector<void*> live;
    size_t failures = 0;
    size_t least = kSize;
    for (int step = 0; step < 50000; ++step) {
        static constexpr size_t kSizes[] = {7680, 9600, 150000, 400000, 1048576, 2500000, 5529600};
        const size_t base = kSizes[random() % std::size(kSizes)];
        void* run = allocator.Allocate(base / 2 + random() % base);
        if (run == nullptr)
            ++failures;
        else
            live.push_back(run);
        while (allocator.BytesInUse() > kSize / 2) {
            const size_t which = random() % std::min<size_t>(live.size(), 8);
            allocator.Free(live[which]);
            live.erase(live.begin() + static_cast<std::ptrdiff_t>(which));
        }
        if (step % 500 == 499) least = std::min(least, LargestRun(allocator, kSize));
    }
    EXPECT_EQ(failures, 0u) << "half of the memory is free, a frame of 8 MB must find room";
    EXPECT_GE(least, kSize / 8) << "a quarter of what is free, in one run, at any time";
    RecordProperty("least_largest_run", static_cast<int>(least));
    for (void* run : live)
        allocator.Free(run);
    EXPECT_EQ(allocator.BytesInUse(), 0u);
}

// More is asked for than there is: what fails costs nothing, and what was had comes home.
TEST(Allocator, ExhaustionLeavesNothingBehind) {
    std::mt19937 random(7);
    CZemMemAllocator allocator;
    constexpr size_t kSize = 125829120;
    ASSERT_EQ(allocator.Initialize(kSize, nullptr), S_OK);
    size_t refused = 0;
    for (int round = 0; round < 20; ++round) {
        std::vector<void*> live;
        for (int i = 0; i < 200; ++i) {
            const size_t before = allocator.BytesInUse();
            void* run = allocator.Allocate(100000 + random() % 2000000);
            if (run != nullptr) {
                live.push_back(run);
                continue;
            }
            ++refused;
            ASSERT_EQ(allocator.BytesInUse(), before);
        }
        std::shuffle(live.begin(), live.end(), random);
        for (void* run : live)
            allocator.Free(run);
        ASSERT_EQ(allocator.BytesInUse(), 0u);
        ASSERT_EQ(LargestRun(allocator, kSize), kSize);
    }
    EXPECT_GT(refused, 100u);
}

}  // namespace
