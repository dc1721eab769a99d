// Frames that wait for memory: an allocator that has none until the test says so.
#include "mediaio/store/frameroom.h"

#include <gtest/gtest.h>

#include <atomic>
#include <semaphore>
#include <thread>

namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using zemstore::CFrameRoom;

class CEmptyAllocator final : public IZemMemAllocator {
public:
    HRESULT Initialize(size_t, void*) override { return S_OK; }
    // A second look is made with the room's lock held, which is given up by nothing but the wait.
    void* Allocate(size_t) override {
        if (runs.load() > 0) {
            --runs;
            return this;
        }
        looks.release();
        return nullptr;
    }
    void Free(void*) override { ++runs; }
    size_t BytesInUse() const override { return 0; }

    std::atomic<int> runs{0};
    std::counting_semaphore<> looks{0};  // that found nothing
};

class FrameRoom : public testing::Test {
protected:
    // Comes back when one more waits.
    std::thread Wait(void*& run) {
        std::thread waiting([this, &run] { run = m_room.Allocate(m_memory, 4096); });
        m_memory.looks.acquire();
        m_memory.looks.acquire();
        return waiting;
    }

    CEmptyAllocator m_memory;
    CFrameRoom m_room{hours(24)};
};

TEST_F(FrameRoom, WhatIsFreeIsGivenAtOnce) {
    m_memory.runs = 1;
    EXPECT_EQ(m_room.Allocate(m_memory, 4096), &m_memory);
}

TEST_F(FrameRoom, WhoWaitsGetsWhatComesBack) {
    void* run = nullptr;
    std::thread waiting = Wait(run);
    m_room.Free(m_memory, &m_memory);
    waiting.join();
    EXPECT_EQ(run, &m_memory);
}

TEST_F(FrameRoom, OnlySoManyWait) {
    void* runs[CFrameRoom::kMostWaiting] = {};
    std::thread waiting[CFrameRoom::kMostWaiting];
    for (unsigned i = 0; i < CFrameRoom::kMostWaiting; ++i)
        waiting[i] = Wait(runs[i]);
    EXPECT_EQ(m_room.Allocate(m_memory, 4096), nullptr) << "at once";
    for (unsigned i = 0; i < CFrameRoom::kMostWaiting; ++i)
        m_room.Free(m_memory, &m_memory);
    for (unsigned i = 0; i < CFrameRoom::kMostWaiting; ++i) {
        waiting[i].join();
        EXPECT_EQ(runs[i], &m_memory);
    }
}

TEST_F(FrameRoom, APlaceToWaitIsFreeAgain) {
    for (unsigned i = 0; i < 2 * CFrameRoom::kMostWaiting; ++i) {
        void* run = nullptr;
        std::thread waiting = Wait(run);
        m_room.Free(m_memory, &m_memory);
        waiting.join();
        EXPECT_EQ(run, &m_memory);
    }
}

TEST(FrameRoomTime, NobodyWaitsForEver) {
    CEmptyAllocator memory;
    CFrameRoom room(milliseconds(1));
    EXPECT_EQ(room.Allocate(memory, 4096), nullptr);
}

}  // namespace
