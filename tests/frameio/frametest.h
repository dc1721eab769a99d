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

inline std::string FrameEntryBytes(const FrameEntrySpec& spec) {
    std::string entry(96, '\0');
    const auto put = [&](size_t offset, const auto& value) {
        std::memcpy(entry.data() + offset, &value, sizeof(value));
    };
    put(8, spec.token);
    put(16, spec.position);
    put(20, spec.streamFlags);
    if (!spec.special.empty()) {
        std::memcpy(entry.data() + 24, spec.special.data(), 24);
    } else {
        put(24, spec.bufferCount < 0 ? static_cast<LONG>(spec.lengths.size()) : spec.bufferCount);
        for (size_t k = 0; k < spec.lengths.size(); ++k)
            put(32 + 8 * k, spec.lengths[k]);
    }
    put(80, spec.userData64);
    put(88, spec.userData32);
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
        RequestSpec spec;
        const std::string body = FrameBody(entries);
        spec.entity = Command(kTransId, code, body.substr(0, body.size() - 96 + lastEntry_bytes));
        spec.entityOffset = CHttpXaction::RequestBufferSize() - spec.entity.size();
        spec.contentLength = std::to_string(spec.entity.size());
        return spec;
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
