// The two exported functions against a system without a network.
#include "zemhttpd/entry/zemhttpd.h"

#include "tests/fakes/allocfault.h"
#include "tests/fakes/fakesystem.h"
#include "tests/fakes/serverfixture.h"

#include <gtest/gtest.h>

namespace {

class Exported : public ::testing::Test {
protected:
    Exported() : log(FakeErrorLog()), media(FakeMedia()) {
        log.Reset();
        media.Reset();
    }
    ~Exported() override { EXPECT_EQ(media.LiveAllocators(), 0); }
    CFakeErrorLog& log;
    CFakeMedia& media;
    CFakeSystem system;
    CHttpCommandHandler* const kStale = reinterpret_cast<CHttpCommandHandler*>(uintptr_t{1});
};

TEST_F(Exported, CreateStartsAServerAndDestroyStopsIt) {
    CHttpCommandHandler* server = kStale;
    ASSERT_EQ(CreateZemHttpSvr(&server), S_OK);
    ASSERT_NE(server, nullptr);
    ASSERT_NE(server, kStale);
    EXPECT_TRUE(system.Happened("start sniffer"));
    EXPECT_EQ(DestroyZemHttpSvr(server), S_OK);
    EXPECT_TRUE(system.Happened("HttpTerminate"));
    EXPECT_TRUE(log.Empty()) << Utf8(log.Messages().empty() ? TEXT("") : log.Messages()[0].text);
}

TEST_F(Exported, CreateWithoutAPlaceIsInvalid) {
    EXPECT_EQ(CreateZemHttpSvr(nullptr), E_INVALIDARG);
    EXPECT_EQ(log.EntryPoints(TEXT("CreateZemHttpSvr")), 1u);
    EXPECT_TRUE(log.Messages().empty()) << "a checked argument writes an entry-point record only";
    EXPECT_TRUE(system.Events().empty());
}

TEST_F(Exported, DestroyOfNothingIsInvalid) {
    EXPECT_EQ(DestroyZemHttpSvr(nullptr), E_INVALIDARG);
    EXPECT_EQ(log.EntryPoints(TEXT("DestroyZemHttpSvr")), 1u);
}

TEST_F(Exported, FailedStartHandsNothingOutAndFreesEverything) {
    system.errors["HttpAddUrl http://*:80/media/"] = ERROR_ACCESS_DENIED;
    CHttpCommandHandler* server = kStale;
    EXPECT_EQ(CreateZemHttpSvr(&server), E_ACCESSDENIED);
    EXPECT_EQ(server, nullptr);
    EXPECT_TRUE(system.Happened("CloseHandle queue"));
    EXPECT_TRUE(system.Happened("HttpTerminate"));
    EXPECT_EQ(log.EntryPoints(TEXT("CreateZemHttpSvr")), 1u);
}

TEST_F(Exported, TheResultIsTheChainId) {
    log.chainId = [](HRESULT) { return 0x80CC0007u; };
    system.errors["HttpInitialize"] = ERROR_ACCESS_DENIED;
    CHttpCommandHandler* server = kStale;
    EXPECT_EQ(CreateZemHttpSvr(&server), static_cast<HRESULT>(0x80CC0007u));
    EXPECT_EQ(server, nullptr);
}

TEST_F(Exported, PositiveResultNeitherHandsOutNorFrees) {
    // An error log whose chain ids are positive makes a failed start look like this.
    log.chainId = [](HRESULT) { return 5u; };
    system.errors["HttpInitialize"] = ERROR_ACCESS_DENIED;
    CHttpCommandHandler* server = kStale;
    WatchNothrowAllocation(sizeof(CHttpCommandHandler));
    EXPECT_EQ(CreateZemHttpSvr(&server), 5);
    EXPECT_EQ(server, nullptr);
    auto* const left = static_cast<CHttpCommandHandler*>(WatchedAllocation());
    ASSERT_NE(left, nullptr);
    WString url;
    EXPECT_EQ(left->GetBaseUrl(TEXT("zem"), url), S_OK) << "the object is left alone";
    delete left;
}

TEST_F(Exported, ServerObjectThatCannotBeAllocatedIsOutOfMemory) {
    FailNextNothrowAllocation(1);
    CHttpCommandHandler* server = kStale;
    EXPECT_EQ(CreateZemHttpSvr(&server), E_OUTOFMEMORY);
    EXPECT_TRUE(NothrowAllocationFailed());
    EXPECT_EQ(server, nullptr);
    EXPECT_TRUE(log.Messages().empty());
    EXPECT_EQ(log.EntryPoints(TEXT("CreateZemHttpSvr")), 1u);
}

TEST_F(Exported, FramePoolThatCannotBeAllocatedIsLoggedAtTheCatchOfCreate) {
    FailNextAllocation(16u << 20);
    CHttpCommandHandler* server = kStale;
    EXPECT_EQ(CreateZemHttpSvr(&server), E_OUTOFMEMORY);
    EXPECT_TRUE(AllocationFailed());
    EXPECT_EQ(server, nullptr);
    const LogRecord error = log.Error(TEXT("Unknown error"));
    EXPECT_EQ(error.file, TEXT("zemhttpd.cpp"));
    EXPECT_EQ(error.line, 47);
    EXPECT_EQ(error.hr, E_OUTOFMEMORY);
}

TEST_F(Exported, AllocationThatFailsDuringConstructionIsOutOfMemory) {
    const uint64_t before = AllocationsOfThisThread();
    auto probe = std::make_unique<CHttpCommandHandler>();
    const uint64_t allocations = AllocationsOfThisThread() - before;
    probe.reset();
    EXPECT_GE(allocations, 6u) << "object, bins, frame pool, its bins, two words";
    for (uint64_t skipped = 0; skipped < allocations; ++skipped) {
        SCOPED_TRACE("after " + std::to_string(skipped) + " allocations");
        CHttpCommandHandler* server = kStale;
        FailAllocationAfter(skipped);
        EXPECT_EQ(CreateZemHttpSvr(&server), E_OUTOFMEMORY);
        EXPECT_TRUE(AllocationFailed());
        EXPECT_EQ(server, nullptr);
    }
    EXPECT_TRUE(system.Events().empty()) << "nothing was started";
}

TEST_F(Exported, SecondServerOnTheSameRegistryFailsAtItsUrlAndLeavesTheFirstAlone) {
    CHttpCommandHandler* first = nullptr;
    ASSERT_EQ(CreateZemHttpSvr(&first), S_OK);
    system.WaitForReceives(300);  // the first one's issuer reads the errors no more
    system.errors["HttpAddUrl http://*:80/zem/"] = ERROR_ALREADY_EXISTS;
    CHttpCommandHandler* second = kStale;
    EXPECT_EQ(CreateZemHttpSvr(&second), HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS));
    EXPECT_EQ(second, nullptr);
    EXPECT_NE(first->XactionPool(), nullptr);
    EXPECT_EQ(DestroyZemHttpSvr(first), S_OK);
}

}  // namespace
