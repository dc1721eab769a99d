// Checkpoints: the changed index nodes go to the end of the log, then to the device, then the next
// root, then that to the device; only then is the space given back that nothing refers to any more.
// Frames are written meanwhile. Each step runs where the one before it completed.
#include "mediaio/store/mediafile.h"

#include "mediaio/store/crc32c.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace zemstore {

HRESULT CMediaFile::Checkpoint() {
    return WaitForCheckpoint(Wanted::kCheckpoint);
}

HRESULT CMediaFile::WaitForCheckpoint(Wanted wanted) {
    std::unique_lock hold(m_lock);
    // Who closes the file waits until its space is given back too: afterwards nobody may be left
    // who knows of it.
    const bool closing = wanted == Wanted::kCompaction;
    const auto resting = [&] {
        return m_phase == Phase::kIdle || (!closing && m_phase == Phase::kPunch);
    };
    m_changed.wait(hold, [&] { return m_finished == m_appended && !m_batchRunning && resting(); });
    if (FAILED(m_failure)) return m_failure;
    if (RootSaysAll() && m_dead.empty() && (!closing || m_scattered < 64)) {
        // The newest root says everything; it may be a killed process's and not on the device yet.
        hold.unlock();
        return SyncNow();
    }
    m_changed.wait(hold, [&] { return m_phase == Phase::kIdle; });
    if (FAILED(m_failure)) return m_failure;
    m_checkpointResult = S_OK;
    m_wanted = wanted;
    Pump(hold);
    m_changed.wait(hold, [&] { return m_wanted == Wanted::kNothing && resting(); });
    return FAILED(m_failure) ? m_failure : m_checkpointResult;
}

bool CMediaFile::RootSaysAll() const {
    return m_logEnd == m_logStart && m_tailRecords == 0 && m_index.ChangedNodes() == 0;
}

bool CMediaFile::CheckpointDue() const {
    if (m_phase != Phase::kIdle || FAILED(m_failure)) return false;
    if (m_wanted != Wanted::kNothing) return true;
    return m_writer && m_logEnd >= m_retryAt &&
           (m_logEnd - m_logStart >= kCheckpointBytes || m_tailRecords >= kCheckpointRecords);
}

// Takes the picture that the next root will show. Called with the lock and no batch running, so
// every record below the log's end is in it. False when there is no memory for it.
bool CMediaFile::BeginCheckpoint() {
    const bool compact = m_wanted == Wanted::kCompaction && 4 * m_scattered >= m_index.Nodes();
    m_wanted = Wanted::kNothing;
    const uint64_t offset = m_logEnd;
    if (RootSaysAll() && !compact) {
        // All there is to do is to give space back, once the root is certain to be on the device.
        m_nextRoot.generation = m_generation;
        m_nextRoot.logStart = m_logStart;
        m_dying.swap(m_dead);
        m_phase = Phase::kRootSync;
        AddRef();  // until EndCheckpoint
        return true;
    }
    try {
        m_index.Serialize(offset, m_generation + 1, m_header.fileId, compact, m_nodePages, m_dead);
    } catch (const std::bad_alloc&) {
        EndCheckpoint(E_OUTOFMEMORY);
        return false;
    }
    PrepareRoot(offset, m_nodePages.size(), compact);
    m_dying.swap(m_dead);
    m_phase = m_nodePages.empty() ? Phase::kNodesSync : Phase::kNodes;
    m_batchRunning = m_phase == Phase::kNodes;
    m_checkpointSpan = {m_nodePages.data(), m_nodePages.size()};
    AddRef();  // until EndCheckpoint
    return true;
}

void CMediaFile::PrepareRoot(uint64_t nodesOffset, uint64_t nodesSize, bool compact) {
    if (compact) {
        m_compactOffset = nodesOffset;
        m_compactEnd = nodesOffset + nodesSize;
        m_scattered = 0;
    } else {
        m_scattered += static_cast<size_t>(nodesSize / kPageSize);
    }
    m_nextRoot = {};
    m_nextRoot.magic = kRootMagic;
    m_nextRoot.fileId = m_header.fileId;
    m_nextRoot.generation = m_generation + 1;
    m_nextRoot.logStart = nodesOffset + nodesSize;
    m_nextRoot.nextSequence = m_sequence;
    m_nextRoot.indexOffset = m_index.TopOffset();
    m_nextRoot.indexCrc = m_index.TopCrc();
    m_nextRoot.frameCount = m_frameCount;
    m_nextRoot.settings = m_settings;
    m_nextRoot.compactOffset = m_compactOffset;
    m_nextRoot.compactEnd = m_compactEnd;
    m_nextRoot.crc = Crc32c(0, &m_nextRoot, offsetof(Root, crc));
    memset(m_rootPage, 0, sizeof m_rootPage);
    memcpy(m_rootPage, &m_nextRoot, sizeof m_nextRoot);
    m_tailRecords = 0;
}

// Asks for the I/O of the present phase. Called with the lock, which is given up meanwhile.
void CMediaFile::ContinueCheckpoint(std::unique_lock<std::mutex>& hold) {
    IoRequest& request = m_checkpointRequest;
    request = {};
    request.file = m_file.get();
    request.completed = OnCheckpoint;
    request.context = this;
    switch (m_phase) {
        case Phase::kNodes:
            request.op = IoOp::kWrite;
            request.offset_bytes = m_logEnd;
            request.spans = &m_checkpointSpan;
            request.spanCount = 1;
            break;
        case Phase::kNodesSync:
        case Phase::kRootSync:
            if (m_syncRunning) {
                m_syncParked = true;  // who syncs now comes back here
                return;
            }
            m_syncRunning = true;
            ++m_syncsBegun;
            request.op = IoOp::kSync;
            break;
        case Phase::kRoot:
            m_checkpointSpan = {m_rootPage, sizeof m_rootPage};
            request.op = IoOp::kWrite;
            request.offset_bytes = kRootOffset[m_nextRoot.generation & 1];
            request.spans = &m_checkpointSpan;
            request.spanCount = 1;
            break;
        case Phase::kPunch:
            request.op = IoOp::kPunch;
            request.offset_bytes = m_punching[m_punched].offset_bytes;
            request.size_bytes = static_cast<size_t>(m_punching[m_punched].size_bytes);
            break;
        case Phase::kIdle:
            return;
    }
    Start(request, hold);
}

void CMediaFile::OnCheckpoint(IoRequest& request) {
    auto* file = static_cast<CMediaFile*>(request.context);
    const HRESULT hr = request.result;
    file->AddRef();  // the step that this one starts may be the last one and done at once
    bool ended = false;
    {
        std::unique_lock hold(file->m_lock);
        const Phase phase = file->m_phase;
        if (phase == Phase::kNodes) file->m_batchRunning = false;
        const bool sync = phase == Phase::kNodesSync || phase == Phase::kRootSync;
        if (sync) file->EndSync(hr);
        const HRESULT result = sync ? file->m_failure : hr;
        if (FAILED(result) && phase != Phase::kPunch) {
            if (phase == Phase::kNodes) file->m_file->SetSize(file->m_logEnd);
            file->EndCheckpoint(result);
        } else {
            switch (phase) {
                case Phase::kNodes:
                    file->m_logEnd += file->m_nodePages.size();
                    file->m_phase = Phase::kNodesSync;
                    break;
                case Phase::kNodesSync:
                    file->m_phase = Phase::kRoot;
                    break;
                case Phase::kRoot:
                    file->m_phase = Phase::kRootSync;
                    break;
                case Phase::kRootSync:
                    file->EndCheckpoint(S_OK);
                    break;
                case Phase::kPunch:
                    if (hr == S_FALSE) file->PutOff(file->m_punching[file->m_punched]);
                    ++file->m_punched;
                    if (!file->NextPunch()) file->m_phase = Phase::kIdle;
                    break;
                case Phase::kIdle:
                    break;
            }
        }
        ended = file->m_phase == Phase::kIdle;
        if (!ended) file->ContinueCheckpoint(hold);
        file->Pump(hold);
        file->m_changed.notify_all();
    }
    if (ended) file->Release();  // the checkpoint's own
    file->Release();
}

// Called with the lock when the root is durable, or when there will be none this time.
void CMediaFile::EndCheckpoint(HRESULT hr) {
    m_nodePages.clear();
    m_nodePages.shrink_to_fit();
    m_checkpointResult = hr;
    m_phase = Phase::kIdle;
    if (FAILED(hr)) {
        // The picture never became the truth: everything is still to be written, and what it
        // replaced is still in use.
        m_index.MarkAllChanged();
        m_dead.insert(m_dead.end(), m_dying.begin(), m_dying.end());
        m_dying.clear();
        m_retryAt = m_logEnd + kCheckpointBytes;
        m_compactOffset = m_compactEnd = 0;
        m_scattered = m_index.Nodes();
        m_tailRecords += 1;
        return;
    }
    m_generation = m_nextRoot.generation;
    m_logStart = m_nextRoot.logStart;
    BeginPunching();
    if (NextPunch()) m_phase = Phase::kPunch;
}

// Hands the dead space on to be punched, unless the last lot still waits for readers: it is known
// only of two epochs of readers whether they are over.
void CMediaFile::BeginPunching() {
    if (m_punched < m_punching.size()) {
        m_dead.insert(m_dead.end(), m_dying.begin(), m_dying.end());
        m_dying.clear();
        return;
    }
    m_punching.clear();
    m_punched = 0;
    std::sort(m_dying.begin(), m_dying.end(), [](const DeadRange& a, const DeadRange& b) {
        return a.offset_bytes < b.offset_bytes;
    });
    // Holes are made larger than what died at a time, but not so large that one slow client, who
    // keeps all of a hole from being made, keeps much, or that much waits behind one. They end
    // where no piece of memory reaches across.
    for (const DeadRange& range : m_dying) {
        const uint64_t end = range.offset_bytes + range.size_bytes;
        for (uint64_t from = range.offset_bytes; from < end;) {
            const uint64_t to = std::min(end, EndOfHole(from));
            DeadRange* const last = m_punching.empty() ? nullptr : &m_punching.back();
            if (last != nullptr && last->offset_bytes + last->size_bytes == from &&
                from % kLargestHole != 0) {
                last->size_bytes += to - from;
            } else {
                m_punching.push_back({from, to - from});
            }
            from = to;
        }
    }
    m_dying.clear();
    if (m_punching.empty()) return;
    m_punchEpoch = m_epoch;
    m_epoch ^= 1;
}

// A crash between a root and the holes behind it leaves space that belongs to nothing any more. The
// first writer of a file looks for it, below where the log is scanned: what lies between the frames
// and nodes there, and is no hole yet, is given back behind the next checkpoint. What others append
// meanwhile lies elsewhere, and what they replace still counts as used here.
void CMediaFile::FindLostSpace() {
    std::vector<DeadRange> used;
    uint64_t end = 0;
    try {
        {
            std::lock_guard hold(m_lock);
            if (m_searched) return;
            m_searched = true;
            end = m_logStart;
            const auto visit = [&](uint32_t, IndexEntry& entry) {
                if (entry.slotOffset != 0)
                    used.push_back({entry.slotOffset, SlotSize(entry.dataSize)});
                return false;
            };
            m_index.ForEach(0, uint64_t{kLastPosition} + 1, visit);
            m_index.ForEachNode([&](uint64_t offset, uint32_t) {
                used.push_back({offset, kPageSize});
            });
        }
        used.push_back({end, 0});
        std::sort(used.begin(), used.end(), [](const DeadRange& a, const DeadRange& b) {
            return a.offset_bytes < b.offset_bytes;
        });
        std::vector<DeadRange> lost;
        uint64_t behind = kLogOffset;
        for (const DeadRange& range : used) {
            const uint64_t to = std::min(range.offset_bytes, end);
            while (behind < to) {  // most of it may be holes
                const uint64_t data = std::max(behind, m_file->NextData(behind));
                behind = std::min(to, EndOfHole(data));
                if (data < to) lost.push_back({data, behind - data});
            }
            behind = std::max(behind, range.offset_bytes + range.size_bytes);
        }
        std::lock_guard hold(m_lock);
        m_dead.insert(m_dead.end(), lost.begin(), lost.end());
    } catch (const std::bad_alloc&) {
        // It stays lost until another object of this file is written.
    }
}

// True when there is a range to punch and no reader from before it died. What is still being sent
// to a slow client is put off.
bool CMediaFile::NextPunch() {
    if (m_pins[m_punchEpoch] != 0) return false;
    for (; m_punched < m_punching.size(); ++m_punched) {
        const DeadRange& range = m_punching[m_punched];
        if (!m_file->IsBeingSent(range.offset_bytes, range.size_bytes)) return true;
        PutOff(range);
    }
    return false;
}

// To the next checkpoint, or, when there is none before the file is closed, to the next object's
// FindLostSpace.
void CMediaFile::PutOff(const DeadRange& range) {
    try {
        m_dead.push_back(range);
    } catch (const std::bad_alloc&) {
        // As lost as if the file had been closed.
    }
}

}  // namespace zemstore
