// The two transaction pools. The issuer takes HTTP blocks, workers take frame blocks; workers and
// the media library's threads give both back. Free blocks stand in rings, first in, first out, so
// that no pool ever allocates.
#include "zemhttpd/frameio/httpxactn.h"

#include "zemhttpd/entry/entrypoint.h"
#include "zemhttpd/server/registrykey.h"
#include "zemhttpd/server/sectionguard.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <iterator>
#include <new>

namespace {

constexpr LONG kLineAllocate = 71;
constexpr LONG kLineSemaphore = 85;
constexpr LONG kCatchLineInit = 93;

[[maybe_unused]] bool AllZero(const void* bytes, size_t size) {  // asserted only
    const BYTE* const first = static_cast<const BYTE*>(bytes);
    return std::all_of(first, first + size, [](BYTE byte) { return byte == 0; });
}

bool ReclaimWanted() {
    DWORD value = 0;
    CRegistryKey(kZemKeyPath).ReadDword(TEXT("ReclaimFrameBlocks"), value);
    return value != 0;
}

}  // namespace

void CHttpXaction::Reset() {
    std::memset(&m_overlapped, 0, sizeof(m_overlapped));
    // A short request and its reply touch a quarter of it.
    std::memset(m_requestBuffer, 0, m_written_bytes);
    m_written_bytes = kRequestBuffer_bytes;
    assert(AllZero(m_requestBuffer, sizeof(m_requestBuffer)));
    std::memset(static_cast<void*>(&m_response), 0, sizeof(m_response));
    m_reserved1 = 0;
    std::memset(static_cast<void*>(&m_dataChunk), 0, sizeof(m_dataChunk));
    m_transId = kNoTransId;
    m_inUse = 0;
    m_replySent = 0;
    m_startTick = 0;
    m_reserved2 = 0;
    m_sendCount = 0;
    m_receiveCount = 0;
    m_sendError = NO_ERROR;
}

CHttpXactionPool::CHttpXactionPool() {
    InitializeCriticalSection(&m_lock);
}

CHttpXactionPool::~CHttpXactionPool() {
    assert(m_freeCount + KeptCount() == m_count && "a block is missing");
    for (int i = 0; i < m_count; ++i)
        m_blocks[i].m_timer.Discard();
    m_blocks.reset();
    DeleteCriticalSection(&m_lock);
    if (m_semaphore) CloseHandle(m_semaphore);
}

HRESULT CHttpXactionPool::Init(CHttpCommandHandler* handler, int count) {
    CZemEntry scope(TEXT("CHttpXactionPool::Init"));
    try {
        if (count >= 0) {
            const size_t size = static_cast<size_t>(count);
            m_blocks.reset(new (std::nothrow) CHttpXaction[size]);
            m_free.reset(new (std::nothrow) CHttpXaction*[size]);
        }
        if (!m_blocks || !m_free) {
            ThrowError(scope, E_OUTOFMEMORY, kSourceXactn, kLineAllocate,
                       TEXT("Unable to allocate transaction pool; %d transactions"), count);
        }
        m_count = count;
        for (int i = 0; i < count; ++i) {
            m_blocks[i].m_owner = handler;
            m_blocks[i].m_request = reinterpret_cast<HTTP_REQUEST*>(m_blocks[i].m_requestBuffer);
            m_free[i] = &m_blocks[i];
        }
        m_freeCount = count;
        m_semaphore = CreateSemaphoreW(nullptr, count, count, nullptr);
        if (!m_semaphore) {
            ThrowError(scope, HRESULT_FROM_WIN32(GetLastError()), kSourceXactn, kLineSemaphore,
                       TEXT("Unable to create HTTP transaction pool semaphore"));
        }
    } catch (...) {
        LogCaught(scope, kSourceXactn, kCatchLineInit);
    }
    return scope.GetResult();
}

HRESULT CHttpXactionPool::Acquire(CHttpXaction*& xaction) {
    xaction = nullptr;
    const DWORD wait = WaitForSingleObjectEx(m_semaphore, INFINITE, TRUE);
    if (wait != WAIT_OBJECT_0) return HRESULT_FROM_WIN32(wait);
    CSectionGuard guard(m_lock);
    if (m_freeCount == 0) return E_UNEXPECTED;
    xaction = m_free[m_freeHead];
    m_freeHead = m_freeHead + 1 == m_count ? 0 : m_freeHead + 1;
    --m_freeCount;
    xaction->m_inUse = 1;
    return S_OK;
}

void CHttpXactionPool::Release(CHttpXaction* xaction) {
    if (!xaction->m_inUse) return;
    xaction->Reset();
    {
        CSectionGuard guard(m_lock);
        int tail = m_freeHead + m_freeCount;
        if (tail >= m_count) tail -= m_count;
        m_free[tail] = xaction;
        ++m_freeCount;
    }
    if (!PlentyPosted(m_posted.load())) return HandOver(1);
    // Both sides write their own number before they read the other's: either this thread sees that
    // receives ran low, or the worker that made them low sees what is withheld here. No count is
    // ever left behind.
    m_withheld.fetch_add(1);
    if (!PlentyPosted(m_posted.load())) HandOver(0);
}

bool CHttpXactionPool::PlentyPosted(int posted) const {
    return posted > 0 && posted >= m_count / 2;
}

void CHttpXactionPool::HandOver(int more) {
    if (m_withheld.load() != 0) more += m_withheld.exchange(0);
    if (more > 0) ReleaseSemaphore(m_semaphore, more, nullptr);
}

void CHttpXactionPool::ReceivePosted() {
    m_posted.fetch_add(1);
}

void CHttpXactionPool::ReceivePickedUp() {
    if (!PlentyPosted(m_posted.fetch_sub(1) - 1)) HandOver(0);
}

CHttpXaction* CHttpXactionPool::Owns(const OVERLAPPED* overlapped) const {
    const ULONG_PTR address = reinterpret_cast<ULONG_PTR>(overlapped);
    const ULONG_PTR first = reinterpret_cast<ULONG_PTR>(m_blocks.get());
    if (!first || address < first) return nullptr;
    const ULONG_PTR distance = address - first;
    if (distance % sizeof(CHttpXaction) != 0) return nullptr;
    const ULONG_PTR index = distance / sizeof(CHttpXaction);
    return index < static_cast<ULONG_PTR>(m_count) ? &m_blocks[index] : nullptr;
}

int CHttpXactionPool::FreeCount() {
    CSectionGuard guard(m_lock);
    return m_freeCount;
}

CFrameIoXactionPool::CFrameIoXactionPool() {
    InitializeCriticalSection(&m_lock);
    std::memset(m_blocks, 0, sizeof(m_blocks));
}

CFrameIoXactionPool::~CFrameIoXactionPool() {
    assert(ActiveCount() == 0 && "a frame I/O is still in work");
    assert((m_freeCount == 0 || m_freeCount + KeptCount() == kBlocks) && "a block is missing");
    DeleteCriticalSection(&m_lock);
}

void CFrameIoXactionPool::Initialize(CHttpCommandHandler* handler) {
    for (CFrameIoXaction& block : m_blocks) {
        block.owner = handler;
        block.streamData.entries = block.entries;
        block.ioDesc.streamData = &block.streamData;
        m_free[m_freeCount++] = &block;
    }
    m_reclaim = ReclaimWanted();
}

CFrameIoXaction* CFrameIoXactionPool::AcquireBlock() {
    CFrameIoXaction* block;
    {
        CSectionGuard guard(m_lock);
        if (m_freeCount == 0) return nullptr;
        block = m_free[m_freeHead];
        m_freeHead = m_freeHead + 1 == kBlocks ? 0 : m_freeHead + 1;
        --m_freeCount;
    }
    m_active.fetch_add(1, std::memory_order_relaxed);
    return block;
}

void CFrameIoXactionPool::RegisterBlock(CFrameIoXaction* block) {
    const HTTP_REQUEST_ID requestId = block->httpXaction->RequestId();
    CSectionGuard guard(m_lock);
    m_byRequest.Set(requestId, block);
}

void CFrameIoXactionPool::ReleaseBlock(CFrameIoXaction* block) {
    if (!block) return;
    // Nothing is written behind the entries that count.
    const size_t used = std::min<size_t>(block->streamData.entryCount, kMaxStreamEntries);
    std::memset(block->entries, 0, used * sizeof(ElemStrmEntry));
    assert(AllZero(block->entries, sizeof(block->entries)));
    block->ioDesc.inUse = 0;
    const HTTP_REQUEST_ID requestId =
        block->httpXaction ? block->httpXaction->RequestId() : HTTP_NULL_ID;
    CSectionGuard guard(m_lock);
    m_byRequest.Remove(requestId);
    int tail = m_freeHead + m_freeCount;
    if (tail >= kBlocks) tail -= kBlocks;
    m_free[tail] = block;
    ++m_freeCount;
}

void CFrameIoXactionPool::KeepBlock(CFrameIoXaction* block) {
    if (m_reclaim)
        ReleaseBlock(block);
    else
        m_kept.fetch_add(1, std::memory_order_relaxed);
}

void CFrameIoXactionPool::WaitUntilIdle() const {
    // Polled, because the thread that ends the last I/O must not touch this object after the count
    // fell to 0.
    while (m_active.load(std::memory_order_acquire) != 0)
        SleepEx(1, FALSE);
}

CFrameIoXaction* CFrameIoXactionPool::FindBlock(HTTP_REQUEST_ID requestId) {
    CSectionGuard guard(m_lock);
    CFrameIoXaction** block = m_byRequest.Find(requestId);
    return block ? *block : nullptr;
}

int CFrameIoXactionPool::FreeCount() {
    CSectionGuard guard(m_lock);
    return m_freeCount;
}
