// Records, references and the table: who keeps what alive, and under which lock.
#include "zemhttpd/clients/clienttable.h"

#include "tests/fakes/fakemedia.h"
#include "zemhttpd/clients/realtimeclient.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

class ClientTable : public ::testing::Test {
protected:
    ClientTable() : media(FakeMedia()) { media.Reset(); }
    ~ClientTable() override {
        {
            const CClientTable::CLock lock(table);
            table.UnlinkIf([](const WString&, ZemClient* client) {
                if (client) client->Release();
                return true;
            });
        }
        EXPECT_EQ(media.LiveChannels(), 0);
    }
    ZemClient* Insert(const WString& id) {
        auto* const client = new ZemClient(TEXT("(x)"), new CZemChannelIo(1), 100);
        const CClientTable::CLock lock(table);
        table.Insert(id, client);
        return client;
    }
    ZemClient* Unlink(const WString& id) {
        const CClientTable::CLock lock(table);
        return table.Unlink(id);
    }
    CFakeMedia& media;
    CClientTable table;
};

TEST_F(ClientTable, NewRecordHasItsFields) {
    ZemClient* const client = Insert(TEXT("a"));
    EXPECT_EQ(client->displayString, TEXT("(x)"));
    EXPECT_EQ(client->lastRequestTime, 100);
    EXPECT_EQ(client->requestCount, 1u);
    EXPECT_NE(client->channel, nullptr);
    client->Touch(150);
    EXPECT_EQ(client->lastRequestTime, 150);
    EXPECT_EQ(client->requestCount, 2u);
}

TEST_F(ClientTable, FindGivesChannelLockAndRecord) {
    ZemClient* const client = Insert(TEXT("a"));
    const CZemClientRef found = table.Find(TEXT("a"));
    EXPECT_TRUE(found);
    EXPECT_EQ(found.Record(), client);
    EXPECT_EQ(found.Channel(), client->channel);
    EXPECT_EQ(found.RecordLock(), &client->recordLock);
    const CZemClientRef none = table.Find(TEXT("b"));
    EXPECT_FALSE(none);
    EXPECT_EQ(none.Channel(), nullptr);
    EXPECT_EQ(none.RecordLock(), nullptr);
    EXPECT_EQ(none.Record(), nullptr);
}

TEST_F(ClientTable, IdsThatDifferInCaseAreTwoClients) {
    ZemClient* const upper = Insert(TEXT("ABC"));
    ZemClient* const lower = Insert(TEXT("abc"));
    EXPECT_EQ(table.Find(TEXT("ABC")).Record(), upper);
    EXPECT_EQ(table.Find(TEXT("abc")).Record(), lower);
}

TEST_F(ClientTable, LastReferenceDetachesTheReadAllocatorThenDestroys) {
    Insert(TEXT("a"));
    CZemClientRef held = table.Find(TEXT("a"));
    CZemClientRef moved = std::move(held);
    ZemClient* const unlinked = Unlink(TEXT("a"));
    unlinked->Release();
    EXPECT_EQ(media.LiveChannels(), 1) << "in use";
    EnterCriticalSection(moved.RecordLock());
    LeaveCriticalSection(moved.RecordLock());
    moved = CZemClientRef();
    EXPECT_EQ(media.LiveChannels(), 0);
    const auto calls = media.Calls();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[1].op, "SetReadAllocator");
    EXPECT_EQ(calls[1].pointer, nullptr);
    EXPECT_EQ(calls[2].op, "~CZemChannelIo");
}

TEST_F(ClientTable, UnlinkOfAnUnknownClientIsNull) {
    EXPECT_EQ(Unlink(TEXT("x")), nullptr);
}

TEST_F(ClientTable, EntryWithoutARecordIsNotFound) {
    const CClientTable::CLock lock(table);
    table.Insert(TEXT("empty"), nullptr);
    EXPECT_FALSE(table.Find(TEXT("empty")));
    EXPECT_EQ(table.Count(), 1u);
    EXPECT_EQ(table.Unlink(TEXT("empty")), nullptr);
    EXPECT_EQ(table.Count(), 0u);
}

TEST_F(ClientTable, TheLockMayBeEnteredAgain) {
    const CClientTable::CLock outer(table);
    const CClientTable::CLock inner(table);
    EXPECT_FALSE(table.Find(TEXT("x")));
}

TEST_F(ClientTable, WalkFollowsTheBins) {
    // "a" hashes to 97, bin 12 of 17; "r" to 114, bin 12 too; "b" to 98, bin 13; "U" to 85, bin 0.
    for (const WCHAR* id : {TEXT("b"), TEXT("a"), TEXT("r"), TEXT("U")})
        Insert(id);
    std::vector<WString> order;
    const CClientTable::CLock lock(table);
    table.ForEach([&](const WString& id, ZemClient*) { order.push_back(id); });
    EXPECT_EQ(order, (std::vector<WString>{TEXT("U"), TEXT("r"), TEXT("a"), TEXT("b")}));
}

TEST_F(ClientTable, TableIsFullAt65536) {
    const CClientTable::CLock lock(table);
    for (size_t i = 0; i < 65536; ++i) {
        ASSERT_FALSE(table.Full());
        const WCHAR id[] = {static_cast<WCHAR>(1 + i % 256), static_cast<WCHAR>(1 + i / 256), 0};
        table.Insert(id, nullptr);
    }
    EXPECT_EQ(table.Count(), 65536u);
    EXPECT_TRUE(table.Full());
    table.Unlink(TEXT("\u0001\u0001"));
    EXPECT_FALSE(table.Full());
}

TEST_F(ClientTable, LookUpsAndLeavesMayRunAtOnce) {
    std::atomic<bool> stop{false};
    std::atomic<int> found{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            while (!stop) {
                const CZemClientRef client = table.Find(TEXT("a"));
                if (!client) continue;
                client.Record()->Touch(1);
                client.Channel()->BumpRealTimeIoMsgs();
                EnterCriticalSection(client.RecordLock());
                LeaveCriticalSection(client.RecordLock());
                ++found;
            }
        });
    }
    int rounds = 0;
    while (rounds < 300 || found < 100) {
        Insert(TEXT("a"));
        if (ZemClient* const client = Unlink(TEXT("a"))) client->Release();
        ++rounds;
        std::this_thread::yield();
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
}

TEST(RealTimeClientId, EmptyMeansNone) {
    CRealTimeClient client;
    WCHAR id[kNameUnits];
    EXPECT_FALSE(client.Get(id));
    EXPECT_EQ(id[0], 0);
    EXPECT_FALSE(client.Is(TEXT("")));
    EXPECT_FALSE(client.Is(TEXT("x")));
}

TEST(RealTimeClientId, IsComparedWithoutCase) {
    CRealTimeClient client;
    client.Set(TEXT("Abc"));
    EXPECT_TRUE(client.Is(TEXT("aBC")));
    EXPECT_FALSE(client.Is(TEXT("abcd")));
    WCHAR id[kNameUnits];
    EXPECT_TRUE(client.Get(id));
    EXPECT_EQ(WString(id), TEXT("Abc"));
    client.Set(TEXT(""));
    EXPECT_FALSE(client.Get(id));
}

TEST(RealTimeClientId, KeepsAtMost259Characters) {
    CRealTimeClient client;
    client.Set(WString(300, u'x').c_str());
    WCHAR id[kNameUnits];
    client.Get(id);
    EXPECT_EQ(WString(id), WString(259, u'x'));
}

TEST(RealTimeClientId, IsWholeUnderConcurrentWrites) {
    CRealTimeClient client;
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        while (!stop) {
            client.Set(WString(200, u'a').c_str());
            client.Set(WString(100, u'b').c_str());
        }
    });
    for (int i = 0; i < 2000; ++i) {
        WCHAR id[kNameUnits];
        if (!client.Get(id)) continue;
        const WString text(id);
        EXPECT_TRUE(text == WString(200, u'a') || text == WString(100, u'b'));
    }
    stop = true;
    writer.join();
}

}  // namespace
