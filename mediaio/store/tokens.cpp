// Tokens. Bits 0 to 9 name the slot, bits 24 to 31 the stream kind, all others are random.
#include "mediaio/store/tokens.h"

#include "platform/atomicwait.h"

namespace zemstore {
namespace {
constexpr ULONGLONG kSlotMask = CTokenTable::kMaxOpen - 1;
constexpr ULONGLONG kKindMask = ULONGLONG{0xFF} << 24;
}  // namespace

CTokenTable::~CTokenTable() {
    for (auto& block : m_blocks)
        delete[] block.load();
}

CTokenTable::Slot* CTokenTable::Find(ULONGLONG token) {
    const size_t index = token & kSlotMask;
    Slot* block = token == 0 ? nullptr : m_blocks[index / kBlockSlots].load();
    return block == nullptr ? nullptr : block + index % kBlockSlots;
}

void CTokenTable::CUse::End() {
    if (m_slot == nullptr) return;
    const bool last = m_slot->users.fetch_sub(1) == 1;
    if (last && m_slot->token.load() != m_token) WakeWaiters(m_slot->users);
    m_slot = nullptr;
}

HRESULT CTokenTable::Add(const OpenStream& stream, ULONGLONG& token) {
    ULONGLONG random = 0;
    const HRESULT hr = RandomBytes(&random, sizeof random);
    if (FAILED(hr)) return hr;
    auto ahead = std::make_shared<CReadAhead>();
    std::lock_guard hold(m_lock);
    if (m_free.empty()) {
        if (m_made == kMaxOpen) return HRESULT_FROM_WIN32(ERROR_TOO_MANY_OPEN_FILES);
        m_free.reserve(m_made + kBlockSlots);
        m_blocks[m_made / kBlockSlots].store(new Slot[kBlockSlots]);
        for (size_t i = kBlockSlots; i-- > 0;)
            m_free.push_back(static_cast<uint16_t>(m_made + i));
        m_made += kBlockSlots;
    }
    const uint16_t index = m_free.back();
    m_free.pop_back();
    Slot& slot = m_blocks[index / kBlockSlots].load()[index % kBlockSlots];
    slot.stream = stream;
    slot.stream.ahead = std::move(ahead);
    token = (random & ~kSlotMask & ~kKindMask) | index | (ULONGLONG{stream.kind & 0xFF} << 24);
    slot.token.store(token);
    return S_OK;
}

HRESULT CTokenTable::Use(ULONGLONG token, CUse& use) {
    use.End();
    Slot* slot = Find(token);
    if (slot == nullptr) return E_HANDLE;
    slot->users.fetch_add(1);
    use.m_slot = slot;
    use.m_token = token;
    if (slot->token.load() == token) return S_OK;
    use.End();
    return E_HANDLE;
}

HRESULT CTokenTable::Remove(ULONGLONG token, OpenStream& stream) {
    Slot* found = Find(token);
    if (found == nullptr) return E_HANDLE;
    Slot& slot = *found;
    ULONGLONG expected = token;
    if (!slot.token.compare_exchange_strong(expected, 0)) return E_HANDLE;
    for (uint32_t users = slot.users.load(); users != 0; users = slot.users.load())
        WaitWhile(slot.users, users);
    stream = slot.stream;
    slot.stream = {};
    std::lock_guard hold(m_lock);
    m_free.push_back(static_cast<uint16_t>(token & kSlotMask));
    return S_OK;
}

bool CTokenTable::RemoveAny(OpenStream& stream) {
    for (auto& entry : m_blocks) {
        Slot* block = entry.load();
        for (size_t i = 0; block != nullptr && i < kBlockSlots; ++i) {
            const ULONGLONG token = block[i].token.load();
            if (token != 0 && SUCCEEDED(Remove(token, stream))) return true;
        }
    }
    return false;
}

}  // namespace zemstore
