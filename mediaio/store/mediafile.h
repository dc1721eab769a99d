// One native media file, shared by every channel of the process that has it open: its
// frame index, its one writer's queue, its checkpoints, and the views of its pages that readers
// hand out. format.h says what is on disk. Any thread; one short lock per file, never held across
// a system call of the read path. Writes go to the end of the file in the order of the queue, one
// batch at a time, on the library's I/O thread (or, for a file opened without one, on the caller).
#pragma once

#include "mediaio/store/asyncio.h"
#include "mediaio/store/fileio.h"
#include "mediaio/store/format.h"
#include "mediaio/store/framefile.h"
#include "mediaio/store/frameindex.h"
#include "mediaio/store/loadreport.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#pragma GCC visibility push(default)

namespace zemstore {

// One record on its way to the end of the file. The caller keeps it, and the data, until
// `completed`, which runs on an I/O thread (or inside Append) without any lock of the file.
struct WriteItem {
    RecordKind kind = RecordKind::kFrame;
    bool realTime = false;
    uint32_t position = 0;
    uint32_t count = 0;
    uint32_t flags = 0;
    const void* data = nullptr;
    uint32_t dataSize = 0;
    uint32_t dataCrc = 0;
    bool hasDescription = false;
    uint8_t description[kDescriptionSize] = {};
    Settings settings{};
    void (*completed)(WriteItem& item) = nullptr;
    void* context = nullptr;
    HRESULT result = S_OK;

    WriteItem* next = nullptr;  // from here on the file's
    bool awaitedSpace = false;  // once: the next failure for want of space is final
    uint64_t slotOffset = 0;
    uint64_t sequence = 0;
};

class CMediaFile final : public CFrameFile {
public:
    // A record of so much data is written by a call of its own (JoinsBatch).
    static constexpr uint32_t kLargeRecord = 32 * 1024;

    // Makes `file` an empty media file: header and first root, on the device.
    static HRESULT Format(IStoreFile& file, const ZemEsDesc& esDesc);
    // `async` null: writes and checkpoints run on the thread that asks for them.
    CMediaFile(std::unique_ptr<IStoreFile> file, std::shared_ptr<IAsyncIo> async,
               std::string openedAs = {});
    // Reads header and index and recovers the log's tail. ERROR_BAD_FORMAT: not a native file.
    // REQUIRES: before anything else.
    HRESULT Load();

    // One writer at a time, in this process or another: ERROR_SHARING_VIOLATION.
    // ERROR_FILE_INVALID: another process has changed the file since this object loaded it.
    HRESULT BeginWriting();
    HRESULT EndWriting();  // everything on the device, index included; the writer is gone anyway
    bool HasWriter() const;

    // Queues a record. REQUIRES: BeginWriting, or AppendDurably's guard.
    void Append(WriteItem& item);
    // Appends and waits for a record that is not a frame, then puts it on the device. Works without
    // a writer.
    HRESULT AppendSettings(const Settings& settings);
    // The space of erased frames is given back soon, once no root and no reader needs it.
    HRESULT Erase(uint32_t first, uint64_t end);
    // Returns when everything appended before is on the device. A failure is final: this object
    // promises nothing any more and takes no further record.
    HRESULT Flush();
    // Puts the index on the device and ends the tail. REQUIRES: writer.
    HRESULT Checkpoint();

    HRESULT Pin(uint32_t position, bool pin, PinnedFrame& frame) override;
    void Unpin(unsigned epoch) override;
    FrameSource SourceOf(const PinnedFrame&) override { return {m_file.get(), nullptr}; }
    void ReportVerified(const PinnedFrame& frame, bool good) override;
    void ReportCached(const PinnedFrame& frame, uint32_t stamp) override;
    HRESULT Description(uint32_t position, uint8_t (&description)[kDescriptionSize]) override;

    const ZemEsDesc& EsDescAtCreation() const override { return m_header.esDesc; }
    ZemEsDesc EsDescNow() const override;
    Settings CurrentSettings() const override;
    uint32_t FrameCount() const override;
    void FrameDesc(uint32_t position, ZemFrameDesc& desc) const override;
    CMediaFile* Native() override { return this; }
    vdrTimecode_s StartTimecode(bool& dropFrame) const;

    IStoreFile& File() { return *m_file; }
    const FileIdentity& Identity() const { return m_identity; }
    const LoadReport& OpenReport() const { return m_report; }
    uint64_t LogEnd() const;
    uint64_t NextSequence() const;
    size_t IndexNodes() const;
    // Every entry and every page of the index, in the order of positions. With the file's lock.
    void VisitIndex(const std::function<void(uint32_t position, const IndexEntry& entry)>& entry,
                    const std::function<void(uint64_t offset, uint32_t level)>& node);
    const FileHeader& Header() const { return m_header; }
    // Why a header is none of ours, null when it is.
    static const char* HeaderFault(const FileHeader& header);

    // Called with the object when its last reference is gone, before it is deleted.
    void (*m_forget)(CMediaFile& file) = nullptr;

private:
    ~CMediaFile() override;
    void LastRelease() override;

    static constexpr size_t kBatchItems = 16;
    static constexpr uint64_t kBatchBytes = uint64_t{8} << 20;
    static constexpr size_t kSpansOfLargeRecord = 2;  // data and tail
    // A slot's end: at most a page less one byte of data rest and padding, and the record's page.
    static constexpr size_t kTailRoom = kPageSize + sizeof(LogRecord);
    static constexpr uint64_t kCheckpointBytes = uint64_t{64} << 20;
    static constexpr uint32_t kCheckpointRecords = 1024;
    static constexpr uint64_t kTailLimit = uint64_t{1} << 30;
    // What is given back at a time lies between two multiples of this.
    static constexpr uint64_t kLargestHole = uint64_t{16} << 20;
    static uint64_t EndOfHole(uint64_t begin) { return (begin / kLargestHole + 1) * kLargestHole; }
    // A view's step; it is longer by a frame.
    static constexpr uint64_t kWindow = uint64_t{1} << 30;
    static constexpr uint64_t kWindowOverlap = uint64_t{256} << 20;
    enum class Phase { kIdle, kNodes, kNodesSync, kRoot, kRootSync, kPunch };

    // mediafile_load.cpp
    HRESULT ReadHeader();
    HRESULT ReadRoot(int which, Root& root);
    HRESULT LoadIndex(const Root& root);
    HRESULT ScanTail(uint64_t start, uint64_t limit);
    class CTailReader;
    bool RecordIsValid(const LogRecord& record, uint64_t pageOffset, uint64_t scanned) const;
    HRESULT TakeRecord(CTailReader& reader, const LogRecord& record);
    void Apply(RecordKind kind, uint32_t position, uint32_t count, const IndexEntry& entry,
               const uint8_t* description, const Settings& settings);

    // mediafile_write.cpp
    void Pump(std::unique_lock<std::mutex>& hold);
    bool JoinsBatch(const WriteItem& item, uint64_t batch_bytes) const;
    bool BuildBatch();
    bool SpaceComesBack();
    void FillRecord(WriteItem& item, uint8_t* tail, size_t tailSize);
    void BatchDone();
    void Start(IoRequest& request, std::unique_lock<std::mutex>& hold);
    static void OnBatch(IoRequest& request);
    HRESULT Guard();
    void Unguard();
    HRESULT AppendDurably(WriteItem& item);
    void AskForCheckpoint();
    HRESULT SyncNow();
    void EndSync(HRESULT hr);

    // mediafile_checkpoint.cpp
    enum class Wanted { kNothing, kCheckpoint, kCompaction };
    HRESULT WaitForCheckpoint(Wanted wanted);
    bool RootSaysAll() const;  // nothing was written or changed since the newest root
    bool CheckpointDue() const;
    bool BeginCheckpoint();
    void PrepareRoot(uint64_t nodesOffset, uint64_t nodesSize, bool compact);
    void ContinueCheckpoint(std::unique_lock<std::mutex>& hold);
    void BeginPunching();
    bool NextPunch();
    void PutOff(const DeadRange& range);
    void FindLostSpace();
    void EndCheckpoint(HRESULT hr);
    static void OnCheckpoint(IoRequest& request);

    std::unique_ptr<IStoreFile> m_file;
    std::shared_ptr<IAsyncIo> m_async;
    FileIdentity m_identity;
    FileHeader m_header{};
    bool m_readOnly = false;
    LoadReport m_report;

    mutable std::mutex m_lock;  // guards what follows
    std::condition_variable m_changed;
    CFrameIndex m_index;
    uint32_t m_frameCount = 0;
    Settings m_settings{kMarkUnset, kMarkUnset, {}, 0};
    std::vector<void*> m_views;
    uint64_t m_pins[2] = {0, 0};
    unsigned m_epoch = 0;

    bool m_writer = false;
    unsigned m_guards = 0;  // writers and record appenders that hold the process lock
    WriteItem* m_queue = nullptr;
    WriteItem** m_queueEnd = &m_queue;
    uint64_t m_appended = 0;
    uint64_t m_finished = 0;
    bool m_batchRunning = false;
    bool m_spaceAwaited = false;  // the queue rests until the checkpoint has given space back
    uint64_t m_logEnd = kLogOffset;
    uint64_t m_sequence = 1;
    uint64_t m_knownSize = 0;  // of the file, when this object last read or wrote it
    // One sync at a time: see SyncNow.
    bool m_syncRunning = false;
    bool m_syncParked = false;  // the checkpoint's waits for the running one
    uint64_t m_syncsBegun = 0;
    HRESULT m_failure = S_OK;       // a sync failed: nothing can be promised any more
    std::vector<DeadRange> m_dead;  // superseded since the last checkpoint
    bool m_searched = false;        // for space that a crash left

    // The running batch; touched by the thread that runs it.
    WriteItem* m_batch[kBatchItems];
    size_t m_batchCount = 0;
    uint64_t m_batchOffset = 0;
    IoSpan m_spans[kBatchItems * 2];
    std::vector<uint8_t> m_tails;
    IoRequest m_batchRequest;

    // The running checkpoint.
    Phase m_phase = Phase::kIdle;
    Wanted m_wanted = Wanted::kNothing;
    HRESULT m_checkpointResult = S_OK;
    uint64_t m_generation = 0;
    uint64_t m_logStart = kLogOffset;
    uint64_t m_tailRecords = 0;
    uint64_t m_retryAt = 0;  // after a failure: not before the log has grown to here
    uint64_t m_compactOffset = 0;
    uint64_t m_compactEnd = 0;
    size_t m_scattered = 0;  // nodes written since the index was last compacted
    Root m_nextRoot{};
    std::vector<uint8_t> m_nodePages;
    alignas(8) uint8_t m_rootPage[kPageSize];
    IoSpan m_checkpointSpan{};
    IoRequest m_checkpointRequest;
    std::vector<DeadRange> m_dying;     // dead once the running checkpoint is durable
    std::vector<DeadRange> m_punching;  // durable dead, waiting for readers of an older epoch
    size_t m_punched = 0;
    unsigned m_punchEpoch = 0;
};

}  // namespace zemstore

#pragma GCC visibility pop
