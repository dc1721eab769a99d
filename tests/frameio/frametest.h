// Frame requests for tests, and a server whose transaction blocks can be looked at while a frame is
// in the library.
#pragma once

#include <cstring>
#include <vector>

#include "tests/commands/commandtest.h"

struct FrameEntrySpec {
    ULONGLONG token = 0x0000000001000042ull;  // a video stream
    DWORD position = 5;
    DWORD streamFlags = 0;
    std::vector<DWORD> lengths;  // of data buffers, write only
    std::string special;         // 24 bytes of a special token, write only
    ULONGLONG userData64 = 0;
    DWORD userData32 = 0;
    LONG bufferCount = -1;  // -1: as many as lengths
};

inline std::string FrameEntryBytes(const FrameEntrySpec& given) {
    std::string entry(96, '\0');
    const auto put = [&](size_t offset, const auto& value) {
        std::memcpy(entry.data() + offset, &value, sizeof(value));
    };
    put(8, given.token);
    put(16, given.position);
    put(20, given.streamFlags);
    if (!given.special.empty()) {
        std::memcpy(entry.data() + 24, given.special.data(), 24);
    } else {
        put(24,
            given.bufferCount < 0 ? static_cast<LONG>(given.lengths.size()) : given.bufferCount);
        for (size_t k = 0; k < given.lengths.size(); ++k)
            put(32 + 8 * k, given.lengths[k]);
    }
    put(80, given.userData64);
    put(88, given.userData32);
    return entry;
}

inline std::string FrameBody(const std::vector<FrameEntrySpec>& entries, DWORD requestWord = 0x77,
                             std::optional<DWORD> count = std::nullopt) {
    std::string body =
        Bytes(requestWord, count.value_or(static_cast<DWORD>(entries.size())), ULONGLONG{0});
    for (const FrameEntrySpec& entry : entries)
        body += FrameEntryBytes(entry);
    return body;
}

class CFrameTest : public CCommandTest {
protected:
    // A frame command whose last entry keeps only `lastEntry_bytes` bytes and ends with the posted
    // buffer.
    RequestSpec CutAtBufferEnd(DWORD code, const std::vector<FrameEntrySpec>& entries,
                               size_t lastEntry_bytes) {
        RequestSpec given;
        const std::string body = FrameBody(entries);
        given.entity = Command(kTransId, code, body.substr(0, body.size() - 96 + lastEntry_bytes));
        given.entityOffset = CHttpXaction::RequestBufferSize() - given.entity.size();
        given.contentLength = std::to_string(given.entity.size());
        return given;
    }
    // Everything that a frame took is back, and was ended once.
    void ExpectAllHome() {
        EXPECT_EQ(FramePool().ActiveCount(), 0);
        EXPECT_EQ(FramePool().FreeCount(), CFrameIoXactionPool::kBlocks);
        EXPECT_EQ(Pool().FreeCount(), kBlocks);
    }
    // Takes every frame block out of the pool, as 7200 frames in work would.
    void TakeAllBlocks() {
        while (CFrameIoXaction* block = FramePool().AcquireBlock())
            m_taken.push_back(block);
    }
    void GiveBlocksBack() {
        for (CFrameIoXaction* block : m_taken) {
            block->httpXaction = nullptr;
            FramePool().ReleaseBlock(block);
            FramePool().EndIo();
        }
        m_taken.clear();
    }
    ~CFrameTest() override {
        GiveBlocksBack();
        EXPECT_EQ(FramePool().ActiveCount(), 0);
        EXPECT_EQ(FramePool().FreeCount() + FramePool().KeptCount(), CFrameIoXactionPool::kBlocks);
    }
    CFrameIoXactionPool& FramePool() { return *access.FramePool(); }
    ZemChannelCounters Counters() { return Channel()->Counters(); }

private:
    std::vector<CFrameIoXaction*> m_taken;
};
