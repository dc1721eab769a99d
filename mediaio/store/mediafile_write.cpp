// The writing side of a media file: one queue, one batch of neighbouring slots at the device at a
// time. A frame becomes visible when its whole slot has been written, before its writer hears so.
#include "mediaio/store/mediafile.h"

#include "mediaio/store/crc32c.h"

#include <cstring>
#include <new>
#include <thread>

namespace zemstore {

HRESULT CMediaFile::Guard() {
    std::lock_guard hold(m_lock);
    if (m_readOnly) return E_ACCESSDENIED;
    if (FAILED(m_failure)) return m_failure;
    if (m_guards == 0) {
        HRESULT hr = m_file->LockForWriting();
        if (FAILED(hr)) return hr;
        // Whoever writes a file makes it longer. Where another process did so since it was loaded,
        // what is known here is old, and the log's end is somebody else's frame.
        uint64_t size = 0;
        hr = m_file->Size(size);
        if (SUCCEEDED(hr) && size != m_knownSize) hr = HRESULT_FROM_WIN32(ERROR_FILE_INVALID);
        try {
            m_tails.resize(kBatchItems * kTailRoom);
        } catch (const std::bad_alloc&) {
            hr = E_OUTOFMEMORY;
        }
        if (FAILED(hr)) {
            m_file->UnlockForWriting();
            return hr;
        }
    }
    ++m_guards;
    return S_OK;
}

void CMediaFile::Unguard() {
    std::lock_guard hold(m_lock);
    if (--m_guards != 0) return;
    if (FAILED(m_file->Size(m_knownSize))) m_knownSize = 0;  // not to be written again
    m_file->UnlockForWriting();
}

HRESULT CMediaFile::BeginWriting() {
    HRESULT hr = Guard();
    if (FAILED(hr)) return hr;
    {
        std::lock_guard hold(m_lock);
        if (m_writer) hr = HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION);
        m_writer = true;
    }
    if (FAILED(hr))
        Unguard();
    else
        FindLostSpace();
    return hr;
}

HRESULT CMediaFile::EndWriting() {
    HRESULT hr = WaitForCheckpoint(Wanted::kCompaction);
    // Without room for the index (a full device) the records alone still tell everything.
    if (FAILED(hr)) hr = SyncNow();
    {
        std::lock_guard hold(m_lock);
        m_writer = false;
    }
    Unguard();
    return hr;
}

void CMediaFile::Append(WriteItem& item) {
    std::unique_lock hold(m_lock);
    if (FAILED(m_failure)) {
        item.result = m_failure;
        hold.unlock();
        item.completed(item);
        return;
    }
    item.next = nullptr;
    item.awaitedSpace = false;
    *m_queueEnd = &item;
    m_queueEnd = &item.next;
    ++m_appended;
    Pump(hold);
    const bool deep = m_appended - m_finished >= kBatchItems / 2;
    hold.unlock();
    // On a processor that both share, who brings frames would run until its memory is full, and
    // what is written then has left the processor's caches: who writes goes first.
    if (deep) std::this_thread::yield();
}

// One sync at a time, because the system tells of a failure once, to one of those who ask at the
// same time: the others would believe. A sync covers what was written before it began, whoever
// wrote it, so many who wait share one.
HRESULT CMediaFile::SyncNow() {
    std::unique_lock hold(m_lock);
    const uint64_t needed = m_syncsBegun + 1;
    while (SUCCEEDED(m_failure) && m_syncsBegun - (m_syncRunning ? 1 : 0) < needed) {
        if (m_syncRunning) {
            m_changed.wait(hold);
            continue;
        }
        m_syncRunning = true;
        ++m_syncsBegun;
        hold.unlock();
        const HRESULT hr = m_file->Sync();
        hold.lock();
        EndSync(hr);
        if (m_syncParked) {
            m_syncParked = false;
            ContinueCheckpoint(hold);
        }
    }
    return m_failure;
}

// Called with the lock. After a failed sync the system may have dropped what it could not write,
// and will not say so again: nothing that this object promised can be relied on, not even what its
// frames look like, for the pages that were lost may be read again from the device any time.
void CMediaFile::EndSync(HRESULT hr) {
    m_syncRunning = false;
    if (FAILED(hr) && SUCCEEDED(m_failure)) {
        m_failure = hr;
        m_wanted = Wanted::kNothing;
        m_index.ForEach(0, uint64_t{kLastPosition} + 1, [](uint32_t, IndexEntry& entry) {
            entry.flags &= ~kEntryVerified;
            return false;
        });
        m_file->DropCache();
    }
    m_changed.notify_all();
}

HRESULT CMediaFile::Flush() {
    {
        std::unique_lock hold(m_lock);
        const uint64_t target = m_appended;
        m_changed.wait(hold, [&] { return m_finished >= target; });
        if (FAILED(m_failure)) return m_failure;
    }
    return SyncNow();
}

// For records that a command writes and answers for itself.
HRESULT CMediaFile::AppendDurably(WriteItem& item) {
    HRESULT hr = Guard();
    if (FAILED(hr)) return hr;
    std::atomic<bool> finished{false};
    item.context = &finished;
    item.completed = [](WriteItem& done) {
        static_cast<std::atomic<bool>*>(done.context)->store(true);
    };
    Append(item);
    {
        std::unique_lock hold(m_lock);
        m_changed.wait(hold, [&] { return finished.load(); });
    }
    hr = SUCCEEDED(item.result) ? SyncNow() : item.result;
    Unguard();
    return hr;
}

HRESULT CMediaFile::AppendSettings(const Settings& settings) {
    WriteItem item;
    item.kind = RecordKind::kSettings;
    item.settings = settings;
    return AppendDurably(item);
}

HRESULT CMediaFile::Erase(uint32_t first, uint64_t end) {
    WriteItem item;
    item.kind = RecordKind::kErase;
    item.position = first;
    item.count = static_cast<uint32_t>(end - first);
    const HRESULT hr = AppendDurably(item);
    if (SUCCEEDED(hr)) AskForCheckpoint();
    return hr;
}

// Space is given back behind a checkpoint only. Who erases often does so because the device is
// full, and then the next checkpoint may never become due.
void CMediaFile::AskForCheckpoint() {
    std::unique_lock hold(m_lock);
    if (FAILED(m_failure) || !m_writer || m_wanted != Wanted::kNothing) return;
    m_wanted = Wanted::kCheckpoint;
    Pump(hold);
}

// Starts whatever may run next. Called with the lock, which is given up meanwhile.
void CMediaFile::Pump(std::unique_lock<std::mutex>& hold) {
    while (!m_batchRunning) {
        if (CheckpointDue()) {
            if (BeginCheckpoint()) ContinueCheckpoint(hold);
            continue;
        }
        if (m_phase == Phase::kIdle) m_spaceAwaited = false;
        const bool held = m_phase != Phase::kIdle && m_phase != Phase::kPunch &&
                          m_logEnd - m_logStart > kTailLimit;
        if (m_queue == nullptr || held || m_spaceAwaited || !BuildBatch()) return;
        m_batchRunning = true;
        AddRef();  // until BatchDone
        Start(m_batchRequest, hold);
    }
}

void CMediaFile::Start(IoRequest& request, std::unique_lock<std::mutex>& hold) {
    hold.unlock();
    if (m_async != nullptr) {
        m_async->Submit(request);
    } else {
        PerformIo(request);
        request.completed(request);
    }
    hold.lock();
}

// A large record gets a call of its own: the page cache puts the bytes of one call into common
// pieces of memory, of up to some megabytes, and when a part of such a piece is given back it is
// cleared where it is, under the hands of a socket that has still to send it. What covers a whole
// number of pieces only lets them go. Small records are copied by who sends them.
bool CMediaFile::JoinsBatch(const WriteItem& item, uint64_t batch_bytes) const {
    if (m_batchCount == 0) return true;
    const bool large = m_batch[0]->dataSize >= kLargeRecord;
    return m_batchCount < kBatchItems && batch_bytes <= kBatchBytes &&
           large == (item.dataSize >= kLargeRecord);
}

bool CMediaFile::BuildBatch() {
    uint64_t offset = m_logEnd;
    size_t spans = 0;
    bool realTime = false;
    m_batchCount = 0;
    m_batchOffset = offset;
    while (m_queue != nullptr &&
           JoinsBatch(*m_queue, offset - m_batchOffset + SlotSize(m_queue->dataSize))) {
        WriteItem& item = *m_queue;
        m_queue = item.next;
        if (m_queue == nullptr) m_queueEnd = &m_queue;
        item.slotOffset = offset;
        item.sequence = m_sequence++;
        const uint64_t slot = SlotSize(item.dataSize);
        uint8_t* tail = m_tails.data() + m_batchCount * kTailRoom;
        const auto tailSize = static_cast<size_t>(slot - item.dataSize);
        FillRecord(item, tail, tailSize);
        if (item.dataSize != 0) m_spans[spans++] = {item.data, item.dataSize};
        m_spans[spans++] = {tail, tailSize};
        offset += slot;
        realTime = realTime || item.realTime;
        m_batch[m_batchCount++] = &item;
    }
    m_batchRequest = {};
    m_batchRequest.op = IoOp::kWrite;
    m_batchRequest.realTime = realTime;
    m_batchRequest.file = m_file.get();
    m_batchRequest.offset_bytes = m_batchOffset;
    m_batchRequest.spans = m_spans;
    m_batchRequest.spanCount = spans;
    if (m_batchCount != 0 && m_batch[0]->dataSize >= kLargeRecord)
        m_batchRequest.spansPerCall = kSpansOfLargeRecord;
    m_batchRequest.completed = OnBatch;
    m_batchRequest.context = this;
    return m_batchCount != 0;
}

void CMediaFile::FillRecord(WriteItem& item, uint8_t* tail, size_t tailSize) {
    LogRecord record{};
    record.magic = kRecordMagic;
    record.kind = static_cast<uint16_t>(item.kind);
    record.size = sizeof record;
    record.fileId = m_header.fileId;
    record.sequence = item.sequence;
    record.slotOffset = item.slotOffset;
    record.position = item.position;
    record.dataSize = item.dataSize;
    record.flags = item.flags;
    record.dataCrc = item.dataCrc;
    record.count = item.count;
    memcpy(record.description, item.description, sizeof record.description);
    record.settings = item.settings;
    record.crc = Crc32c(0, &record, offsetof(LogRecord, crc));
    memset(tail, 0, tailSize - sizeof record);
    memcpy(tail + tailSize - sizeof record, &record, sizeof record);
}

void CMediaFile::OnBatch(IoRequest& request) {
    auto* file = static_cast<CMediaFile*>(request.context);
    file->BatchDone();
    file->Release();
}

void CMediaFile::BatchDone() {
    const uint64_t written = m_batchOffset + m_batchRequest.done_bytes;
    uint64_t end = m_batchOffset;
    size_t whole = 0;
    for (; whole < m_batchCount; ++whole) {
        const uint64_t slotEnd = m_batch[whole]->slotOffset + SlotSize(m_batch[whole]->dataSize);
        if (slotEnd > written) break;
        end = slotEnd;
    }
    // Half a slot is of no use to anyone; the next one may begin where it began.
    if (whole < m_batchCount) m_file->SetSize(end);

    WriteItem* done[kBatchItems];
    size_t doneCount = 0;
    std::unique_lock hold(m_lock);
    m_logEnd = end;
    for (size_t i = 0; i < whole; ++i) {
        WriteItem& item = *m_batch[i];
        IndexEntry entry;
        entry.slotOffset = item.slotOffset;
        entry.sequence = item.sequence;
        entry.dataSize = item.dataSize;
        entry.dataCrc = item.dataCrc;
        entry.flags = item.flags | kFrameFlagPresent | kEntryVerified;
        try {
            Apply(item.kind, item.position, item.count, entry,
                  item.hasDescription ? item.description : nullptr, item.settings);
            item.result = S_OK;
            ++m_tailRecords;
        } catch (const std::bad_alloc&) {
            item.result = E_OUTOFMEMORY;
        }
        done[doneCount++] = &item;
    }
    if (whole < m_batchCount) {
        WriteItem& failed = *m_batch[whole];
        failed.result = FAILED(m_batchRequest.result) ? m_batchRequest.result
                                                      : HRESULT_FROM_WIN32(ERROR_DISK_FULL);
        size_t again = whole + 1;  // what came after it in the batch has not had its own chance yet
        if (failed.result == HRESULT_FROM_WIN32(ERROR_DISK_FULL) && !failed.awaitedSpace &&
            SpaceComesBack()) {
            failed.awaitedSpace = m_spaceAwaited = true;
            again = whole;
        } else {
            done[doneCount++] = &failed;
        }
        for (size_t i = m_batchCount; i-- > again;) {
            m_batch[i]->next = m_queue;
            if (m_queue == nullptr) m_queueEnd = &m_batch[i]->next;
            m_queue = m_batch[i];
        }
    }
    m_batchRunning = false;
    Pump(hold);
    hold.unlock();
    for (size_t i = 0; i < doneCount; ++i)
        done[i]->completed(*done[i]);
    hold.lock();
    m_finished += doneCount;
    m_changed.notify_all();
}

// True when a checkpoint is on its way that gives space back, or is worth a try: whoever erased or
// overwrote frames to make room need not know when the room is there. After a failed sync there are
// no checkpoints: who waited for one would wait for ever. Called with the lock.
bool CMediaFile::SpaceComesBack() {
    if (FAILED(m_failure)) return false;
    if (m_phase != Phase::kIdle || m_wanted != Wanted::kNothing) return true;
    if (!m_writer || m_dead.empty() || m_logEnd < m_retryAt) return false;
    m_wanted = Wanted::kCheckpoint;
    return true;
}

// Brings one record into the index. Called with the lock, or before anyone else sees the file.
void CMediaFile::Apply(RecordKind kind, uint32_t position, uint32_t count, const IndexEntry& entry,
                       const uint8_t* description, const Settings& settings) {
    const DeadRange slot{entry.slotOffset, SlotSize(entry.dataSize)};
    const auto bury = [this](const IndexEntry& old) {
        if (old.dataSize != 0 && (old.flags & kFrameFlagPresent) != 0)
            m_dead.push_back({old.slotOffset, SlotSize(old.dataSize)});
    };
    switch (kind) {
        case RecordKind::kFrame: {
            IndexEntry& now = m_index.Change(position);
            if (description != nullptr && (entry.dataSize == 0 || m_index.Description(position)))
                m_index.SetDescription(position, description);
            bury(now);
            now = entry;
            if (entry.dataSize == 0) {
                // All there is of it is in the index from the next checkpoint on.
                now.slotOffset = 0;
                m_dead.push_back(slot);
            }
            if (position >= m_frameCount) m_frameCount = position + 1;
            break;
        }
        case RecordKind::kErase:
            m_index.ForEach(position, uint64_t{position} + count, [&](uint32_t, IndexEntry& old) {
                if ((old.flags & kFrameFlagPresent) == 0) return false;
                bury(old);
                old = {};
                old.sequence = entry.sequence;
                old.flags = kFrameFlagErased;
                return true;
            });
            m_dead.push_back(slot);
            break;
        case RecordKind::kSettings:
            m_settings = settings;
            m_dead.push_back(slot);
            break;
    }
}

}  // namespace zemstore
