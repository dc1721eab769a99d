// The map under the client table and the frame pool: its order is visible on the client page.
#include "zemhttpd/server/binmap.h"

#include "tests/fakes/allocfault.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

namespace {

using CNumberMap = CBinMap<ULONGLONG, int, CNumberKeyTraits>;
using CTextMap = CBinMap<WString, int, CWideKeyTraits>;

std::vector<ULONGLONG> Walk(CNumberMap& map) {
    std::vector<ULONGLONG> keys;
    map.ForEach([&](ULONGLONG key, int) { keys.push_back(key); });
    return keys;
}

TEST(BinMap, HashMultipliesBy33AndAddsTheUnit) {
    EXPECT_EQ(CWideKeyTraits::Hash(TEXT("")), 0u);
    EXPECT_EQ(CWideKeyTraits::Hash(TEXT("a")), 97u);
    EXPECT_EQ(CWideKeyTraits::Hash(TEXT("ab")), 97u * 33u + 98u);
    uint32_t wrapped = 0;
    for (int i = 0; i < 20; ++i)
        wrapped = wrapped * 33u + 0xFFFFu;
    EXPECT_EQ(CWideKeyTraits::Hash(WString(20, static_cast<WCHAR>(0xFFFF))), wrapped);
}

TEST(BinMap, StartsWith17EmptyBins) {
    CNumberMap map;
    EXPECT_EQ(map.BinCount(), 17u);
    EXPECT_EQ(map.Count(), 0u);
    EXPECT_EQ(map.Find(ULONGLONG{1}), nullptr);
    EXPECT_FALSE(map.Remove(ULONGLONG{1}));
}

TEST(BinMap, WalkGoesFromBin0AndNewEntriesStandInFront) {
    CNumberMap map;
    for (const ULONGLONG key : {16u, 3u, 20u, 0u, 37u})
        map.Set(key, 1);
    // Bins: 0 holds 0; 3 holds 37, 20, 3 (the newest first); 16 holds 16.
    EXPECT_EQ(Walk(map), (std::vector<ULONGLONG>{0, 37, 20, 3, 16}));
}

TEST(BinMap, OverwritingKeepsThePlace) {
    CNumberMap map;
    map.Set(3, 1);
    map.Set(20, 2);
    map.Set(3, 9);
    EXPECT_EQ(Walk(map), (std::vector<ULONGLONG>{20, 3}));
    EXPECT_EQ(*map.Find(ULONGLONG{3}), 9);
    EXPECT_EQ(map.Count(), 2u);
}

TEST(BinMap, TextKeysAreCaseSensitive) {
    CTextMap map;
    map.Set(TEXT("abc"), 1);
    map.Set(TEXT("ABC"), 2);
    EXPECT_EQ(map.Count(), 2u);
    EXPECT_EQ(*map.Find(WStringView(TEXT("abc"))), 1);
    EXPECT_EQ(*map.Find(TEXT("ABC")), 2);
    EXPECT_EQ(map.Find(TEXT("Abc")), nullptr);
}

TEST(BinMap, GrowsAboveTwoAndAQuarterPerBinToAPrimeNumberOfBins) {
    CNumberMap map;
    for (ULONGLONG key = 0; key < 38; ++key)
        map.Set(key, 0);
    EXPECT_EQ(map.BinCount(), 17u) << "38 entries are 2.24 per bin";
    map.Set(38, 0);
    EXPECT_EQ(map.BinCount(), 53u) << "39 entries at 0.75 need 52 bins; 53 is prime";
    EXPECT_EQ(map.Count(), 39u);
    for (ULONGLONG key = 0; key < 39; ++key)
        EXPECT_NE(map.Find(key), nullptr);
}

TEST(BinMap, ShrinksBelowAQuarterPerBinButNotBelow17) {
    CNumberMap map;
    for (ULONGLONG key = 0; key < 39; ++key)
        map.Set(key, 0);
    for (ULONGLONG key = 38; key >= 14; --key)
        map.Remove(key);
    EXPECT_EQ(map.BinCount(), 53u) << "14 entries are 0.26 per bin";
    map.Remove(ULONGLONG{13});
    EXPECT_EQ(map.BinCount(), 19u) << "13 entries at 0.75 need 18 bins; 19 is prime";
    for (ULONGLONG key = 0; key < 13; ++key)
        map.Remove(key);
    EXPECT_EQ(map.BinCount(), 17u);
    EXPECT_EQ(map.Count(), 0u);
}

TEST(BinMap, RemoveGivesTheValueBack) {
    CNumberMap map;
    map.Set(5, 55);
    int value = 0;
    EXPECT_TRUE(map.Remove(ULONGLONG{5}, &value));
    EXPECT_EQ(value, 55);
    EXPECT_EQ(map.Find(ULONGLONG{5}), nullptr);
}

TEST(BinMap, RemoveIfVisitsEveryEntryOnce) {
    CNumberMap map;
    for (ULONGLONG key = 0; key < 100; ++key)
        map.Set(key, 0);
    std::set<ULONGLONG> seen;
    map.RemoveIf([&](ULONGLONG key, int) {
        EXPECT_TRUE(seen.insert(key).second);
        return key % 2 == 0;
    });
    EXPECT_EQ(seen.size(), 100u);
    EXPECT_EQ(map.Count(), 50u);
    EXPECT_EQ(map.Find(ULONGLONG{4}), nullptr);
    EXPECT_NE(map.Find(ULONGLONG{5}), nullptr);
}

TEST(BinMap, AVisitorThatThrowsLeavesTheMapWhole) {
    CNumberMap map;
    for (ULONGLONG key = 0; key < 10; ++key)
        map.Set(key, 0);
    int visits = 0;
    EXPECT_THROW(map.RemoveIf([&](ULONGLONG, int) -> bool {
        if (++visits == 5) throw 1;
        return true;
    }),
                 int);
    EXPECT_EQ(map.Count(), 6u);
    EXPECT_EQ(Walk(map).size(), 6u);
}

TEST(BinMap, AKeyThatFindsNoMemoryLeavesTheMapWhole) {
    CTextMap map;
    map.Set(TEXT("a"), 1);
    const WString key(100, TEXT('k'));
    FailNextAllocation(100 * sizeof(WCHAR));
    EXPECT_THROW(map.Set(key, 2), HRESULT);
    EXPECT_TRUE(AllocationFailed());
    EXPECT_EQ(map.Count(), 1u);
    const uint64_t before = AllocationsOfThisThread();
    map.Set(TEXT("b"), 3);
    EXPECT_EQ(AllocationsOfThisThread(), before) << "its node is free again";
    map.Set(key, 2);
    ASSERT_NE(map.Find(key), nullptr);
    EXPECT_EQ(*map.Find(key), 2);
    EXPECT_EQ(map.Count(), 3u);
}

TEST(BinMap, NodesComeInBlocksOfTenAndAreReused) {
    CNumberMap map;
    map.Set(0, 0);
    const uint64_t before = AllocationsOfThisThread();
    for (ULONGLONG key = 1; key < 10; ++key)
        map.Set(key, 0);
    EXPECT_EQ(AllocationsOfThisThread(), before) << "the first block has ten nodes";
    map.Set(10, 0);
    EXPECT_GT(AllocationsOfThisThread(), before);
    const uint64_t warm = AllocationsOfThisThread();
    for (int round = 0; round < 100; ++round) {
        map.Remove(ULONGLONG{3});
        map.Set(3, round);
    }
    EXPECT_EQ(AllocationsOfThisThread(), warm);
}

TEST(BinMap, ValuesAreDestroyedWithTheirEntries) {
    const auto value = std::make_shared<int>(1);
    {
        CBinMap<ULONGLONG, std::shared_ptr<int>, CNumberKeyTraits> map;
        for (ULONGLONG key = 0; key < 50; ++key)
            map.Set(key, value);
        EXPECT_EQ(value.use_count(), 51);
        map.Remove(ULONGLONG{7});
        EXPECT_EQ(value.use_count(), 50);
        map.Clear();
        EXPECT_EQ(value.use_count(), 1);
        map.Set(1, value);
    }
    EXPECT_EQ(value.use_count(), 1);
}

TEST(BinMap, BehavesAsAMapUnderRandomWork) {
    const unsigned seed = std::random_device{}();
    RecordProperty("seed", static_cast<int>(seed));
    printf("seed %u\n", seed);
    std::mt19937 random(seed);
    CNumberMap map;
    std::map<ULONGLONG, int> model;
    for (int step = 0; step < 20000; ++step) {
        const ULONGLONG key = random() % 500;
        // Phases of growth and of removal, so that both rehash thresholds are crossed.
        if (random() % 100 < (step / 2000 % 2 ? 25u : 75u)) {
            map.Set(key, step);
            model[key] = step;
        } else {
            EXPECT_EQ(map.Remove(key), model.erase(key) == 1);
        }
        ASSERT_EQ(map.Count(), model.size());
        ASSERT_LE(map.Count() * 4, map.BinCount() * 9);
    }
    size_t visited = 0;
    map.ForEach([&](ULONGLONG key, int value) {
        ++visited;
        ASSERT_TRUE(model.count(key));
        EXPECT_EQ(model[key], value);
    });
    EXPECT_EQ(visited, model.size());
}

TEST(BinMap, AWalkEndsWhereItsVisitorSaysSo) {
    CNumberMap map;
    for (ULONGLONG key = 0; key < 10; ++key)
        map.Set(key, 0);
    std::vector<ULONGLONG> keys;
    map.ForEachWhile([&](ULONGLONG key, int) {
        keys.push_back(key);
        return keys.size() < 3;
    });
    EXPECT_EQ(keys, (std::vector<ULONGLONG>{0, 1, 2}));
}

}  // namespace
