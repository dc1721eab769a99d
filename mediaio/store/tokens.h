// A channel's open streams behind unguessable numbers. Looking one up takes no lock: a
// user is counted in its slot, and closing waits until the slot has no user. Any thread.
#pragma once

#include "mediaio/store/framefile.h"
#include "mediaio/store/readahead.h"
#include "mediaio/zemiotypes.h"

#include <array>
#include <atomic>
#include <mutex>
#include <vector>

#pragma GCC visibility push(default)

namespace zemstore {

// What a token stands for.
struct OpenStream {
    CFrameFile* file = nullptr;  // one reference
    uint32_t kind = 0;           // kTokenKind…
    bool writer = false;
    std::shared_ptr<CReadAhead> ahead = nullptr;  // the table's
};

class CTokenTable {
public:
    static constexpr size_t kMaxOpen = 1024;

    CTokenTable() = default;
    ~CTokenTable();

    struct Slot;

    // Holds a stream open for as long as the object lives. Short calls only: closing waits for it.
    class CUse {
    public:
        CUse() = default;
        CUse(const CUse&) = delete;
        CUse& operator=(const CUse&) = delete;
        ~CUse() { End(); }
        explicit operator bool() const { return m_slot != nullptr; }
        inline const OpenStream* operator->() const;
        inline const OpenStream& operator*() const;
        void End();

    private:
        friend class CTokenTable;
        Slot* m_slot = nullptr;
        ULONGLONG m_token = 0;
    };

    // ERROR_TOO_MANY_OPEN_FILES. The table takes over the stream's reference on success.
    HRESULT Add(const OpenStream& stream, ULONGLONG& token);
    // E_HANDLE for anything that is not an open token of this table.
    HRESULT Use(ULONGLONG token, CUse& use);
    // Takes the stream out; the caller owns its reference then. One of two concurrent calls wins.
    HRESULT Remove(ULONGLONG token, OpenStream& stream);
    // Takes any stream out; false when none is left.
    bool RemoveAny(OpenStream& stream);

private:
    // Most channels have a few files open: slots are made a block at a time and stay.
    static constexpr size_t kBlockSlots = 64;
    Slot* Find(ULONGLONG token);

    std::array<std::atomic<Slot*>, kMaxOpen / kBlockSlots> m_blocks{};
    std::mutex m_lock;  // guards what follows
    size_t m_made = 0;
    std::vector<uint16_t> m_free;
};

struct CTokenTable::Slot {
    std::atomic<ULONGLONG> token{0};
    std::atomic<uint32_t> users{0};
    OpenStream stream;
};

inline const OpenStream* CTokenTable::CUse::operator->() const {
    return &m_slot->stream;
}
inline const OpenStream& CTokenTable::CUse::operator*() const {
    return m_slot->stream;
}

}  // namespace zemstore

#pragma GCC visibility pop
