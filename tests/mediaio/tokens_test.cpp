// Tokens: unguessable, checked on every use, safe against being closed while in use.
#include "mediaio/store/tokens.h"

#include <gtest/gtest.h>

#include <set>
#include <thread>

namespace {

using namespace zemstore;

// The table never looks at the object.
CFrameFile* Fake(uintptr_t n) {
    return reinterpret_cast<CFrameFile*>(n);
}

TEST(Tokens, CarryTheirKindAndNeverRepeat) {
    CTokenTable table;
    std::set<ULONGLONG> seen;
    for (int i = 0; i < 2000; ++i) {
        ULONGLONG token = 0;
        ASSERT_EQ(table.Add({Fake(1), kTokenKindMarker, false}, token), S_OK);
        EXPECT_EQ(TokenKind(token), kTokenKindMarker);
        EXPECT_TRUE(seen.insert(token).second);
        OpenStream out;
        ASSERT_EQ(table.Remove(token, out), S_OK);
        EXPECT_EQ(table.Remove(token, out), E_HANDLE);
    }
}

TEST(Tokens, WrongOnesAreRefused) {
    CTokenTable table;
    CTokenTable other;
    ULONGLONG token = 0;
    ASSERT_EQ(table.Add({Fake(1), kTokenKindVideo, true}, token), S_OK);
    CTokenTable::CUse use;
    EXPECT_EQ(table.Use(0, use), E_HANDLE);
    EXPECT_EQ(other.Use(token, use), E_HANDLE);
    for (int bit = 0; bit < 64; ++bit)
        EXPECT_EQ(table.Use(token ^ (1ull << bit), use), E_HANDLE);
    ASSERT_EQ(table.Use(token, use), S_OK);
    EXPECT_EQ(use->file, Fake(1));
    EXPECT_TRUE(use->writer);
    use.End();
    OpenStream out;
    EXPECT_TRUE(table.RemoveAny(out));
    EXPECT_FALSE(table.RemoveAny(out));
}

TEST(Tokens, AThousandAndTwentyFour) {
    CTokenTable table;
    ULONGLONG token = 0;
    for (size_t i = 0; i < CTokenTable::kMaxOpen; ++i)
        ASSERT_EQ(table.Add({Fake(i + 1), kTokenKindAudio, false}, token), S_OK);
    ULONGLONG more = 0;
    EXPECT_EQ(table.Add({Fake(1), 1, false}, more), HRESULT_FROM_WIN32(ERROR_TOO_MANY_OPEN_FILES));
    OpenStream out;
    ASSERT_EQ(table.Remove(token, out), S_OK);
    EXPECT_EQ(out.file, Fake(CTokenTable::kMaxOpen));
    EXPECT_EQ(table.Add({Fake(7), 1, false}, more), S_OK);
}

TEST(Tokens, RemovalWaitsForUsersAndHappensOnce) {
    CTokenTable table;
    for (int round = 0; round < 300; ++round) {
        ULONGLONG token = 0;
        ASSERT_EQ(table.Add({Fake(5), kTokenKindVideo, false}, token), S_OK);
        std::atomic<int> inside{0};
        std::atomic<int> removed{0};
        const auto user = [&] {
            for (;;) {
                CTokenTable::CUse use;
                if (FAILED(table.Use(token, use))) return;
                ++inside;
                EXPECT_EQ(use->file, Fake(5));
                --inside;
            }
        };
        const auto remover = [&] {
            OpenStream out;
            if (FAILED(table.Remove(token, out))) return;
            EXPECT_EQ(inside.load(), 0);
            EXPECT_EQ(out.file, Fake(5));
            ++removed;
        };
        std::thread threads[] = {std::thread(user), std::thread(user), std::thread(remover),
                                 std::thread(remover)};
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(removed.load(), 1);
    }
}

}  // namespace
