// The joined clients: one record each, found by client ID, and the references that keep a record
// alive while it is in use. Workers join, leave and look up; the sniffer unlinks the silent. The
// table's lock guards the map alone; a record is never freed while linked, and after a leave or a
// purge not before the last reference to it has gone.
#pragma once

#include "mediaio/zemchannelio.h"
#include "platform/atomicwait.h"
#include "platform/platform.h"
#include "zemhttpd/server/binmap.h"
#include "zemhttpd/server/sectionguard.h"

#include <atomic>
#include <cstddef>
#include <utility>

class CHttpXaction;

// One joined client. Created with one reference, which belongs to the table and, once the record is
// unlinked, to whoever unlinked it (DeleteZemClient gives it up).
struct ZemClient {
    ZemClient(WString display, CZemChannelIo* channelIo, LONGLONG now_seconds);
    ZemClient(const ZemClient&) = delete;
    ZemClient& operator=(const ZemClient&) = delete;

    WString displayString;                  // User-Agent from its first "(" on; may be empty
    std::atomic<LONGLONG> lastRequestTime;  // seconds since 1970, wall clock
    std::atomic<ULONGLONG> requestCount;
    CZemChannelIo* channel;         // owned; null only in tests
    CRITICAL_SECTION recordLock;    // held through a whole frame write
    ZemClient* nextDead = nullptr;  // the sniffer's link, once it has unlinked the record

    void Touch(LONGLONG now_seconds) {
        lastRequestTime.store(now_seconds, std::memory_order_relaxed);
        requestCount.fetch_add(1, std::memory_order_relaxed);
    }

    // A frame write is answered before the media library has it, and the client's next command may
    // be faster than that last step. Between these two, under the record lock, such a write is on
    // its way; a file command waits for it, so that a flush or close covers every answered write.
    void BeginHandOver() { m_handOver.fetch_add(1); }
    void EndHandOver() {
        m_handOver.fetch_add(1);
        WakeWaiters(m_handOver);
    }
    bool HandingOver() const { return (m_handOver.load() & 1) != 0; }
    void AwaitHandOver() const {
        const DWORD phase = m_handOver.load();
        if (phase & 1) WaitWhile(m_handOver, phase);
    }

    // Whose turn it is to write. A write that finds another at work stands in line instead of
    // holding up a thread: a client whose uploads stall would soon hold up all of them. At most
    // kMaxInLine stand there, and none where there is no `room` in the server.
    enum class ETurn { Mine, InLine, LineIsFull };
    static constexpr int kMaxInLine = 64;
    // With InLine the transaction has a reference to the record, and is somebody else's by now.
    ETurn TakeTurn(CHttpXaction& xaction, bool room = true);
    // The turn is over: the transaction whose turn it is now, or null.
    CHttpXaction* PassTurn();

    void AddRef() { m_references.fetch_add(1, std::memory_order_relaxed); }
    // The last release detaches the channel's read allocator and destroys channel, lock and record,
    // on this thread.
    void Release();

private:
    ~ZemClient();

    std::atomic<LONG> m_references{1};
    CRITICAL_SECTION m_lineLock;  // guards the four below; nothing is called under it
    bool m_atWork = false;
    int m_inLine = 0;
    CHttpXaction* m_lineFirst = nullptr;
    CHttpXaction* m_lineLast = nullptr;
    std::atomic<DWORD> m_handOver{0};  // odd while a write is on its way
};

// A counted reference: record, record lock and channel stay while it lives. Hold it on the stack
// for the length of the calls into the channel. Never let the last one go inside a completion
// routine of that channel: destroying a channel waits for its completion routines. An asynchronous
// frame needs no reference of its own, for the same reason.
class CZemClientRef {
public:
    CZemClientRef() = default;
    explicit CZemClientRef(ZemClient* record) : m_record(record) {
        if (m_record) m_record->AddRef();
    }
    CZemClientRef(CZemClientRef&& other) noexcept
        : m_record(std::exchange(other.m_record, nullptr)) {}
    CZemClientRef& operator=(CZemClientRef&& other) noexcept {
        std::swap(m_record, other.m_record);
        return *this;
    }
    CZemClientRef(const CZemClientRef&) = delete;
    CZemClientRef& operator=(const CZemClientRef&) = delete;
    ~CZemClientRef() {
        if (m_record) m_record->Release();
    }

    // Takes over a reference that is there already.
    static CZemClientRef Adopt(ZemClient* record) {
        CZemClientRef reference;
        reference.m_record = record;
        return reference;
    }

    explicit operator bool() const { return m_record != nullptr; }
    CZemChannelIo* Channel() const { return m_record ? m_record->channel : nullptr; }
    CRITICAL_SECTION* RecordLock() const { return m_record ? &m_record->recordLock : nullptr; }
    ZemClient* Record() const { return m_record; }

private:
    ZemClient* m_record = nullptr;
};

// The sniffer's list of unlinked records, first in, first out. The link is in the record: between
// leaving the table and standing here nothing can fail and lose it. One thread.
class CDeadClients {
public:
    CDeadClients() = default;
    CDeadClients(const CDeadClients&) = delete;
    CDeadClients& operator=(const CDeadClients&) = delete;

    bool Empty() const { return m_count == 0; }
    int Count() const { return m_count; }
    void Append(ZemClient* record) {
        record->nextDead = nullptr;
        *m_end = record;
        m_end = &record->nextDead;
        ++m_count;
    }
    // The oldest; the caller then holds the table's reference. REQUIRES: not empty.
    ZemClient* TakeFirst() {
        ZemClient* const record = m_first;
        m_first = record->nextDead;
        if (--m_count == 0) m_end = &m_first;
        return record;
    }

private:
    ZemClient* m_first = nullptr;
    ZemClient** m_end = &m_first;
    int m_count = 0;
};

class CClientTable {
public:
    static constexpr size_t kMaxClients = 65536;

    CClientTable();
    ~CClientTable();  // REQUIRES: empty
    CClientTable(const CClientTable&) = delete;
    CClientTable& operator=(const CClientTable&) = delete;

    // The lock may be entered again by the thread that holds it.
    class CLock {
    public:
        explicit CLock(CClientTable& table) : m_guard(table.m_section) {}

    private:
        CSectionGuard m_guard;
    };

    // Takes the lock for the length of the search only; empty when the client is unknown.
    CZemClientRef Find(WStringView clientId);

    // --- REQUIRES: the caller holds a CLock ---
    size_t Count() const { return m_clients.Count(); }
    bool Full() const { return m_clients.Count() >= kMaxClients; }  // a join asks first
    // Throws HRESULT E_OUTOFMEMORY without memory; the record then still is the caller's.
    void Insert(const WString& clientId, ZemClient* record) { m_clients.Set(clientId, record); }
    // The unlinked record with the table's reference, or null for an unknown client.
    ZemClient* Unlink(WStringView clientId);
    // Visits in the order of the client page: visit(const WString& clientId, ZemClient* record).
    template <class Visit>
    void ForEach(Visit visit) {
        m_clients.ForEach(visit);
    }
    // The same until visit returns false.
    template <class Visit>
    void ForEachWhile(Visit visit) {
        m_clients.ForEachWhile(visit);
    }
    // Unlinks every entry for which take(const WString& clientId, ZemClient* record) is true.
    template <class Take>
    void UnlinkIf(Take take) {
        m_clients.RemoveIf(take);
    }

private:
    static constexpr DWORD kSpinCount = 4000;

    CRITICAL_SECTION m_section;
    CBinMap<WString, ZemClient*, CWideKeyTraits> m_clients;
};
