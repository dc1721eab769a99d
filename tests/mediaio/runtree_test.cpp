// The tree of free runs against a plain array of pages.
#include "mediaio/allocator/runtree.h"
#include "seeded.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

using zemstore::CRunTree;

uint32_t LowestRun(const std::vector<bool>& taken, uint32_t pages) {
    uint32_t run = 0;
    for (uint32_t i = 0; i < taken.size(); ++i) {
        run = taken[i] ? 0 : run + 1;
        if (run == pages) return i + 1 - pages;
    }
    return CRunTree::kNone;
}

TEST(RunTree, AgreesWithAnArrayOfPages) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    CRandom random(seed);
    for (const uint32_t pages : {1u, 7u, 64u, 100u, 257u}) {
        CRunTree tree(pages);
        std::vector<bool> taken(pages);
        std::vector<std::pair<uint32_t, uint32_t>> runs;
        for (int step = 0; step < 3000; ++step) {
            if (!runs.empty() && random() % 2 == 0) {
                const size_t which = random() % runs.size();
                const auto [first, count] = runs[which];
                runs.erase(runs.begin() + static_cast<std::ptrdiff_t>(which));
                tree.Give(first, count);
                for (uint32_t i = 0; i < count; ++i)
                    taken[first + i] = false;
            } else {
                const uint32_t want = random() % (pages / 3 + 2) + 1;
                const uint32_t expected = LowestRun(taken, want);
                ASSERT_EQ(tree.Take(want), expected);
                if (expected == CRunTree::kNone) continue;
                for (uint32_t i = 0; i < want; ++i)
                    taken[expected + i] = true;
                runs.emplace_back(expected, want);
            }
            const uint32_t from = random() % pages;
            uint32_t first = 0;
            uint32_t count = 0;
            uint32_t next = from;
            while (next < pages && taken[next])
                ++next;
            ASSERT_EQ(tree.NextFree(from, first, count), next < pages);
            if (next < pages) {
                ASSERT_EQ(first, next);
                ASSERT_GE(count, 1u);
                for (uint32_t i = 0; i < count; ++i)
                    ASSERT_FALSE(taken[first + i]);
            }
        }
    }
}

TEST(RunTree, TakesAll) {
    CRunTree tree(1000);
    EXPECT_EQ(tree.LongestRun(), 1000u);
    EXPECT_EQ(tree.Take(1000), 0u);
    EXPECT_EQ(tree.Take(1), CRunTree::kNone);
    tree.Give(0, 1000);
    EXPECT_EQ(tree.Take(1001), CRunTree::kNone);
    EXPECT_EQ(tree.Take(1000), 0u);
}

}  // namespace
