// The two transaction pools: bounds, order, what a block is after its release, wake-ups, blocks
// that are kept.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "tests/fakes/serverfixture.h"
#include "zemhttpd/frameio/httpxactn.h"

// A block's private layout.
struct XactionTestAccess {
    static void Fill(CHttpXaction& xaction) {
        std::memset(xaction.RequestBuffer(), 0xAA, CHttpXaction::RequestBufferSize());
        std::memset(static_cast<void*>(xaction.Overlapped()), 0xAA, sizeof(OVERLAPPED));
        std::memset(static_cast<void*>(&xaction.Response()), 0xAA, sizeof(HTTP_RESPONSE));
        std::memset(static_cast<void*>(&xaction.DataChunk()), 0xAA, sizeof(HTTP_DATA_CHUNK));
        xaction.SetTransId(5);
        xaction.SetReplySent();
        xaction.SetStartTick(6);
        xaction.BumpSendCount();
        xaction.BumpReceiveCount();
        xaction.m_reserved1 = 7;
        xaction.m_reserved2 = 8;
    }
    static bool ReservedAreZero(const CHttpXaction& xaction) {
        return xaction.m_reserved1 == 0 && xaction.m_reserved2 == 0;
    }
};

namespace {

bool AllZero(const void* bytes, size_t size) {
    const BYTE* byte = static_cast<const BYTE*>(bytes);
    return std::all_of(byte, byte + size, [](BYTE b) { return b == 0; });
}

CHttpCommandHandler* const kHandler = reinterpret_cast<CHttpCommandHandler*>(0x1230);

class XactionPool : public ::testing::Test {
protected:
    XactionPool() { FakeErrorLog().Reset(); }
    CHttpXaction* Take(CHttpXactionPool& pool) {
        CHttpXaction* xaction = nullptr;
        EXPECT_EQ(pool.Acquire(xaction), S_OK);
        return xaction;
    }
};

// Runs `body` on a thread of the layer, to which APCs can be queued.
class CThread {
public:
    explicit CThread(std::function<void()> body) : m_body(std::move(body)) {
        m_handle = reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, Start, this, 0, nullptr));
    }
    ~CThread() {
        Join();
        CloseHandle(m_handle);
    }
    void Join() { WaitForSingleObject(m_handle, INFINITE); }
    void QueueApc() {
        QueueUserAPC([](ULONG_PTR) {}, m_handle, 0);
    }

private:
    static unsigned __stdcall Start(void* self) {
        static_cast<CThread*>(self)->m_body();
        return 0;
    }
    std::function<void()> m_body;
    HANDLE m_handle;
};

TEST_F(XactionPool, ABlockBeginsWithItsOverlapped) {
    CHttpXaction xaction;
    EXPECT_EQ(static_cast<void*>(xaction.Overlapped()), static_cast<void*>(&xaction));
    EXPECT_EQ(xaction.RequestBuffer(), reinterpret_cast<BYTE*>(&xaction) + 40);
    EXPECT_EQ(CHttpXaction::RequestBufferSize(), 4096u);
    EXPECT_EQ(reinterpret_cast<BYTE*>(&xaction.Response()),
              reinterpret_cast<BYTE*>(&xaction) + 40 + 4096 + 8);
}

TEST_F(XactionPool, BlocksComeInArrayOrderAndReturnInTheOrderOfTheirRelease) {
    CHttpXactionPool pool;
    ASSERT_EQ(pool.Init(kHandler, 3), S_OK);
    CHttpXaction* a = Take(pool);
    CHttpXaction* b = Take(pool);
    CHttpXaction* c = Take(pool);
    EXPECT_EQ(b, a + 1);
    EXPECT_EQ(c, a + 2);
    EXPECT_EQ(pool.FreeCount(), 0);
    pool.Release(b);
    pool.Release(a);
    EXPECT_EQ(Take(pool), b);
    pool.Release(c);
    EXPECT_EQ(Take(pool), a);
    EXPECT_EQ(Take(pool), c);
    for (CHttpXaction* xaction : {a, b, c})
        pool.Release(xaction);
    EXPECT_EQ(pool.FreeCount(), 3);
}

TEST_F(XactionPool, AReleasedBlockIsAsNewButForOwnerRequestAndTimer) {
    CHttpXactionPool pool;
    ASSERT_EQ(pool.Init(kHandler, 1), S_OK);
    CHttpXaction* xaction = Take(pool);
    EXPECT_EQ(xaction->Owner(), kHandler);
    EXPECT_EQ(reinterpret_cast<BYTE*>(xaction->Request()), xaction->RequestBuffer());
    xaction->Timer().StartXaction(TEXT("c"), TEXT("d"), 1);
    XactionTestAccess::Fill(*xaction);
    pool.Release(xaction);
    EXPECT_FALSE(xaction->InUse());
    ASSERT_EQ(Take(pool), xaction);
    EXPECT_EQ(xaction->TransId(), 0xFFFFFFFFu);
    EXPECT_FALSE(xaction->ReplySent());
    EXPECT_EQ(xaction->StartTick(), 0u);
    EXPECT_EQ(xaction->SendCount(), 0);
    EXPECT_EQ(xaction->ReceiveCount(), 0);
    EXPECT_TRUE(XactionTestAccess::ReservedAreZero(*xaction));
    EXPECT_TRUE(AllZero(xaction->Overlapped(), sizeof(OVERLAPPED)));
    EXPECT_TRUE(AllZero(xaction->RequestBuffer(), 4096));
    EXPECT_TRUE(AllZero(&xaction->Response(), sizeof(HTTP_RESPONSE)));
    EXPECT_TRUE(AllZero(&xaction->DataChunk(), sizeof(HTTP_DATA_CHUNK)));
    EXPECT_EQ(xaction->RequestId(), HTTP_NULL_ID);
    EXPECT_EQ(xaction->Owner(), kHandler);
    EXPECT_EQ(reinterpret_cast<BYTE*>(xaction->Request()), xaction->RequestBuffer());
    EXPECT_EQ(xaction->Timer().Count(), 1);
    EXPECT_TRUE(xaction->InUse());
    pool.Release(xaction);
}

TEST_F(XactionPool, ASecondReleaseChangesNothing) {
    CHttpXactionPool pool;
    ASSERT_EQ(pool.Init(kHandler, 2), S_OK);
    CHttpXaction* a = Take(pool);
    CHttpXaction* b = Take(pool);
    pool.Release(a);
    pool.Release(a);
    EXPECT_EQ(pool.FreeCount(), 1);
    EXPECT_EQ(Take(pool), a);
    // The semaphore counts nothing more: only an APC ends the next wait.
    HRESULT result = S_OK;
    CThread taker([&] {
        CHttpXaction* none = nullptr;
        result = pool.Acquire(none);
    });
    taker.QueueApc();
    taker.Join();
    EXPECT_EQ(result, static_cast<HRESULT>(0x800700C0));
    pool.Release(a);
    pool.Release(b);
}

TEST_F(XactionPool, AnApcEndsTheWaitWithoutABlock) {
    CHttpXactionPool pool;
    ASSERT_EQ(pool.Init(kHandler, 1), S_OK);
    CHttpXaction* held = Take(pool);
    HRESULT result = S_OK;
    CHttpXaction* none = held;
    CThread taker([&] { result = pool.Acquire(none); });
    taker.QueueApc();
    taker.Join();
    EXPECT_EQ(result, static_cast<HRESULT>(0x800700C0));
    EXPECT_EQ(none, nullptr);
    pool.Release(held);
    EXPECT_EQ(Take(pool), held) << "no count was consumed";
    pool.Release(held);
}

TEST_F(XactionPool, ATakerWaitsForTheNextRelease) {
    CHttpXactionPool pool;
    ASSERT_EQ(pool.Init(kHandler, 1), S_OK);
    CHttpXaction* held = Take(pool);
    std::atomic<bool> released{false};
    bool sawRelease = false;
    CThread taker([&] {
        CHttpXaction* xaction = nullptr;
        EXPECT_EQ(pool.Acquire(xaction), S_OK);
        sawRelease = released;
        pool.Release(xaction);
    });
    released = true;
    pool.Release(held);
    taker.Join();
    EXPECT_TRUE(sawRelease);
}

TEST_F(XactionPool, AnInitThatGetsNoMemoryFails) {
    CHttpXactionPool pool;
    EXPECT_EQ(pool.Init(kHandler, -1), E_OUTOFMEMORY);
    const LogRecord error =
        FakeErrorLog().Error(TEXT("Unable to allocate transaction pool; -1 transactions"));
    EXPECT_EQ(error.hr, E_OUTOFMEMORY);
    EXPECT_EQ(error.file, TEXT("httpxactn.cpp"));
    EXPECT_EQ(FakeErrorLog().EntryPoints(TEXT("CHttpXactionPool::Init")), 1u);
}

TEST_F(XactionPool, AnInitWithoutASemaphoreFails) {
    CHttpXactionPool pool;
    EXPECT_EQ(pool.Init(kHandler, 0), HRESULT_FROM_WIN32(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(FakeErrorLog().Error(TEXT("Unable to create HTTP transaction pool semaphore")).kind,
              LogRecord::Ex);
}

TEST_F(XactionPool, DestructionWritesNoDumps) {
    CFakeClock clock;
    clock.SetTick(0);
    {
        CHttpXactionPool pool;
        ASSERT_EQ(pool.Init(kHandler, 2), S_OK);
        CHttpXaction* xaction = Take(pool);
        xaction->Timer().StartXaction(TEXT("c"), TEXT("d"), 1);
        clock.AdvanceTick(10000);
        pool.Release(xaction);
    }
    EXPECT_TRUE(FakeErrorLog().Empty());
}

TEST_F(XactionPool, OwnsItsBlocksOnly) {
    CHttpXactionPool pool;
    OVERLAPPED foreign{};
    EXPECT_EQ(pool.Owns(&foreign), nullptr) << "before Init";
    ASSERT_EQ(pool.Init(kHandler, 2), S_OK);
    CHttpXaction* a = Take(pool);
    CHttpXaction* b = Take(pool);
    EXPECT_EQ(pool.Owns(a->Overlapped()), a);
    EXPECT_EQ(pool.Owns(b->Overlapped()), b);
    EXPECT_EQ(pool.Owns(nullptr), nullptr);
    EXPECT_EQ(pool.Owns(&foreign), nullptr);
    const auto at = [](CHttpXaction* base, ptrdiff_t offset) {
        return reinterpret_cast<OVERLAPPED*>(reinterpret_cast<BYTE*>(base) + offset);
    };
    EXPECT_EQ(pool.Owns(at(a, 8)), nullptr) << "inside a block";
    EXPECT_EQ(pool.Owns(at(a, -static_cast<ptrdiff_t>(sizeof(CHttpXaction)))), nullptr);
    EXPECT_EQ(pool.Owns(at(b, sizeof(CHttpXaction))), nullptr) << "one behind the last";
    pool.Release(a);
    pool.Release(b);
}

// The count of the semaphore, seen by taking: how many blocks can be had before the stop APC ends
// the wait.
int Takeable(CHttpXactionPool& pool, std::vector<CHttpXaction*>* taken = nullptr) {
    int count = 0;
    std::vector<CHttpXaction*> blocks;
    CThread taker([&] {
        CHttpXaction* xaction = nullptr;
        while (pool.Acquire(xaction) == S_OK)
            blocks.push_back(xaction);
    });
    taker.QueueApc();  // a count that is there wins over it
    taker.Join();
    count = static_cast<int>(blocks.size());
    if (taken) taken->insert(taken->end(), blocks.begin(), blocks.end());
    return count;
}

TEST_F(XactionPool, CountsAreWithheldWhilePlentyOfReceivesArePosted) {
    CHttpXactionPool pool;
    ASSERT_EQ(pool.Init(kHandler, 8), S_OK);
    std::vector<CHttpXaction*> blocks;
    for (int i = 0; i < 8; ++i) {
        blocks.push_back(Take(pool));
        pool.ReceivePosted();
    }
    for (int i = 0; i < 4; ++i) {  // 7, 6, 5, 4 stay posted
        pool.ReceivePickedUp();
        pool.Release(blocks[static_cast<size_t>(i)]);
    }
    EXPECT_EQ(Takeable(pool), 0) << "the issuer sleeps on";
    pool.ReceivePickedUp();  // 3 are posted: below half
    std::vector<CHttpXaction*> again;
    EXPECT_EQ(Takeable(pool, &again), 4) << "all that were withheld come at once";
    pool.Release(blocks[4]);
    EXPECT_EQ(Takeable(pool, &again), 1) << "few are posted: nothing is withheld";
    for (CHttpXaction* xaction : again)
        pool.Release(xaction);
    for (int i = 5; i < 8; ++i)
        pool.Release(blocks[static_cast<size_t>(i)]);
    EXPECT_EQ(pool.FreeCount(), 8);
}

TEST_F(XactionPool, APoolOfOneWithholdsNothing) {
    CHttpXactionPool pool;
    ASSERT_EQ(pool.Init(kHandler, 1), S_OK);
    for (int i = 0; i < 3; ++i) {
        CHttpXaction* xaction = Take(pool);
        pool.ReceivePosted();
        pool.ReceivePickedUp();
        pool.Release(xaction);
    }
    EXPECT_EQ(pool.FreeCount(), 1);
}

TEST_F(XactionPool, AWorkerFasterThanTheReportWithholdsNothingForEver) {
    CHttpXactionPool pool;
    ASSERT_EQ(pool.Init(kHandler, 2), S_OK);
    CHttpXaction* a = Take(pool);
    pool.ReceivePickedUp();
    pool.Release(a);
    pool.ReceivePosted();
    EXPECT_EQ(Take(pool), a + 1);
    EXPECT_EQ(Take(pool), a);
    pool.Release(a);
    pool.Release(a + 1);
}

TEST_F(XactionPool, NoBlockIsLostBetweenIssuerAndWorkers) {
    const unsigned seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    constexpr int kCount = 4;
    constexpr int kRequests = 20000;
    CHttpXactionPool pool;
    ASSERT_EQ(pool.Init(kHandler, kCount), S_OK);
    // A queue of posted receives: the issuer puts, workers take.
    std::mutex lock;
    std::condition_variable posted;
    std::vector<CHttpXaction*> receives;
    int served = 0;
    CThread issuer([&] {
        CHttpXaction* xaction = nullptr;
        while (pool.Acquire(xaction) == S_OK) {
            {
                const std::lock_guard guard(lock);
                receives.push_back(xaction);
            }
            pool.ReceivePosted();
            posted.notify_one();
        }
    });
    const auto work = [&](unsigned workerSeed) {
        std::mt19937 random(workerSeed);
        for (;;) {
            CHttpXaction* xaction = nullptr;
            {
                std::unique_lock guard(lock);
                posted.wait(guard, [&] { return !receives.empty() || served >= kRequests; });
                if (served >= kRequests) break;
                ++served;
                const size_t index = random() % receives.size();
                xaction = receives[index];
                receives.erase(receives.begin() + static_cast<ptrdiff_t>(index));
            }
            pool.ReceivePickedUp();
            pool.Release(xaction);
        }
        posted.notify_all();
    };
    std::thread first(work, seed), second(work, seed + 1);
    first.join();
    second.join();
    issuer.QueueApc();
    issuer.Join();
    EXPECT_EQ(served, kRequests);
    EXPECT_EQ(pool.FreeCount() + static_cast<int>(receives.size()), kCount);
    for (CHttpXaction* xaction : receives)
        pool.Release(xaction);
}

class FramePool : public ::testing::Test {
protected:
    FramePool() : pool(new CFrameIoXactionPool) { pool->Initialize(kHandler); }
    void GiveBack(CFrameIoXaction* block) {
        pool->ReleaseBlock(block);
        pool->EndIo();
    }
    std::unique_ptr<CFrameIoXactionPool> pool;
};

TEST_F(FramePool, IsOneAllocationOfAbout22Megabytes) {
    EXPECT_GT(sizeof(CFrameIoXactionPool), 22'400'000u);
    EXPECT_LT(sizeof(CFrameIoXactionPool), 23'800'000u);
    EXPECT_EQ(sizeof(CFrameIoXaction) * CFrameIoXactionPool::kBlocks, 23'558'400u);
}

TEST_F(FramePool, ABlockKnowsItsParts) {
    CFrameIoXaction* block = pool->AcquireBlock();
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->owner, kHandler);
    EXPECT_EQ(block->streamData.entries, block->entries);
    EXPECT_EQ(block->ioDesc.streamData, &block->streamData);
    EXPECT_TRUE(AllZero(block->entries, sizeof(block->entries)));
    EXPECT_EQ(block->channel, nullptr);
    EXPECT_EQ(block->httpXaction, nullptr);
    GiveBack(block);
}

// A new pool's blocks are zeroed whole, the descriptor's stamp with them, and filling the pool sets
// pointers only.
TEST_F(FramePool, ABlockHasNoStamp) {
    const auto filled = std::make_unique<CFrameIoXactionPool>();
    filled->Initialize(kHandler);
    CFrameIoXaction* block = filled->AcquireBlock();
    EXPECT_EQ(block->ioDesc.stamp, 0u);
    EXPECT_EQ(block->ioDesc.streamData, &block->streamData);
    EXPECT_EQ(block->streamData.entries, block->entries);
    filled->ReleaseBlock(block);
    filled->EndIo();
    EXPECT_EQ(block->ioDesc.stamp, 0u);
}

TEST_F(FramePool, The7201stBlockIsNull) {
    std::vector<CFrameIoXaction*> blocks;
    while (CFrameIoXaction* block = pool->AcquireBlock())
        blocks.push_back(block);
    EXPECT_EQ(blocks.size(), 7200u);
    EXPECT_EQ(std::set<CFrameIoXaction*>(blocks.begin(), blocks.end()).size(), 7200u);
    EXPECT_EQ(pool->AcquireBlock(), nullptr);
    EXPECT_EQ(pool->ActiveCount(), 7200);
    GiveBack(blocks[17]);
    EXPECT_EQ(pool->AcquireBlock(), blocks[17]);
    for (CFrameIoXaction* block : blocks)
        GiveBack(block);
    EXPECT_EQ(pool->FreeCount(), 7200);
    EXPECT_EQ(pool->ActiveCount(), 0);
}

TEST_F(FramePool, ARegisteredBlockIsFoundUntilItsRelease) {
    CHttpXactionPool xactions;
    ASSERT_EQ(xactions.Init(kHandler, 1), S_OK);
    CHttpXaction* xaction = nullptr;
    ASSERT_EQ(xactions.Acquire(xaction), S_OK);
    xaction->Request()->RequestId = 0xFEDCBA9876543210ull;
    CFrameIoXaction* block = pool->AcquireBlock();
    block->httpXaction = xaction;
    EXPECT_EQ(pool->FindBlock(0xFEDCBA9876543210ull), nullptr);
    pool->RegisterBlock(block);
    EXPECT_EQ(pool->FindBlock(0xFEDCBA9876543210ull), block);
    block->streamData.entryCount = 22;
    block->entries[21].userData32 = 9;
    block->entries[0].token = 9;
    pool->ReleaseBlock(block);
    EXPECT_EQ(pool->FindBlock(0xFEDCBA9876543210ull), nullptr);
    EXPECT_TRUE(AllZero(block->entries, sizeof(block->entries)));
    EXPECT_EQ(block->httpXaction, xaction) << "only the entries are cleared";
    pool->EndIo();
    xactions.Release(xaction);
}

TEST_F(FramePool, ASecondRegistrationUnderAnIdReplacesTheFirst) {
    CHttpXaction xaction;
    CFrameIoXaction* first = pool->AcquireBlock();
    CFrameIoXaction* second = pool->AcquireBlock();
    first->httpXaction = second->httpXaction = &xaction;
    pool->RegisterBlock(first);
    pool->RegisterBlock(second);
    EXPECT_EQ(pool->FindBlock(HTTP_NULL_ID), second);
    GiveBack(first);
    GiveBack(second);
}

TEST_F(FramePool, AnUnregisteredBlockReturnsToTheFreeList) {
    CHttpXaction xaction;
    CFrameIoXaction* block = pool->AcquireBlock();
    block->httpXaction = &xaction;
    GiveBack(block);
    EXPECT_EQ(pool->FreeCount(), 7200);
}

TEST_F(FramePool, ReleasingNullChangesNothing) {
    pool->ReleaseBlock(nullptr);
    EXPECT_EQ(pool->FreeCount(), 7200);
}

TEST_F(FramePool, AKeptBlockStaysOutAndIsCounted) {
    CFrameIoXaction* block = pool->AcquireBlock();
    pool->KeepBlock(block);
    pool->EndIo();
    EXPECT_EQ(pool->FreeCount(), 7199);
    EXPECT_EQ(pool->KeptCount(), 1);
    EXPECT_EQ(pool->ActiveCount(), 0) << "nothing waits for it";
    pool->WaitUntilIdle();
}

TEST_F(FramePool, TheRegistryAsksForKeptBlocksBack) {
    const CRegistryValue reclaim(kTestZemKey, TEXT("ReclaimFrameBlocks"), DWORD{1});
    const std::unique_ptr<CFrameIoXactionPool> reclaiming(new CFrameIoXactionPool);
    reclaiming->Initialize(kHandler);
    CFrameIoXaction* block = reclaiming->AcquireBlock();
    reclaiming->KeepBlock(block);
    reclaiming->EndIo();
    EXPECT_EQ(reclaiming->FreeCount(), 7200);
    EXPECT_EQ(reclaiming->KeptCount(), 0);
}

TEST_F(FramePool, WaitUntilIdleReturnsAfterTheLastEnd) {
    CFrameIoXaction* block = pool->AcquireBlock();
    std::atomic<bool> ended{false};
    std::thread library([&] {
        pool->ReleaseBlock(block);
        ended = true;
        pool->EndIo();
    });
    pool->WaitUntilIdle();
    EXPECT_TRUE(ended);
    library.join();
}

TEST_F(FramePool, BlocksGoRoundUnderSeveralThreads) {
    const auto work = [&] {
        CHttpXaction xaction;
        for (int i = 0; i < 2000; ++i) {
            CFrameIoXaction* block = pool->AcquireBlock();
            ASSERT_NE(block, nullptr);
            block->httpXaction = &xaction;
            block->streamData.entryCount = 4;
            block->entries[3].token = 1;
            pool->RegisterBlock(block);
            GiveBack(block);
        }
    };
    std::thread first(work), second(work);
    first.join();
    second.join();
    EXPECT_EQ(pool->FreeCount(), 7200);
}

}  // namespace
