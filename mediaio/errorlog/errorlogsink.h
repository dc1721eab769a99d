// The queue between every thread that logs and the one that writes. Put copies a
// record into a ring under a mutex that is never held during output; the writer thread starts with
// the first record. The sink is never destroyed: threads of the host may log until the process is
// gone.
#pragma once

#include "mediaio/errorlog/lineassembler.h"
#include "mediaio/errorlog/output.h"
#include "mediaio/errorlog/record.h"
#include "mediaio/errorlog/sink.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

class CErrorLogSink {
public:
    static CErrorLogSink& Instance();

    // Any thread. False for a record that the verbosity leaves out: do not fill one.
    bool Wants(ErrorRecordKind kind, DWORD level) const;

    // Any thread. Copies the used part of the record; drops the oldest when the ring is full.
    void Put(const ErrorRecord& record);

    bool Configure(const ErrorLogSettings& settings, std::string* problem);
    bool Flush(std::chrono::milliseconds timeout);

    // At process exit: writes what is queued within the time and ends the writer.
    void Stop(std::chrono::milliseconds timeout);

    // The same without the writer and without any lock, for the last thread of a process. REQUIRES:
    // no other thread of the process runs or ever will.
    void WriteAlone();

private:
    static constexpr size_t kBatchRecords = 32;

    CErrorLogSink();
    void StartWriter();
    void RunWriter();

    // What the writer took from the ring and has not written yet: nothing when a line became
    // overdue, or when all is written and the log ends.
    struct Batch {
        std::unique_ptr<ErrorRecord[]> records = std::make_unique<ErrorRecord[]>(kBatchRecords);
        size_t count = 0;
        uint64_t dropped = 0;
        bool last = false;
    };
    void FillBatch();
    void TakeBatch(std::optional<CLineAssembler::Clock::time_point> overdue);
    void AppendBatch(uint64_t dropped, CLineAssembler::Clock::time_point now,
                     CLineAssembler& assembler, std::string& lines) const;
    void EndWriter();

    std::atomic<ErrorLogVerbosity> m_verbosity{ErrorLogVerbosity::kTraces};

    // Guards the ring and the counts. Records are numbered from 0 in the order taken: [m_taken,
    // m_put) are in the ring, below m_done they are written or dropped.
    std::mutex m_lock;
    std::condition_variable m_wakeWriter;
    std::condition_variable m_progress;
    std::unique_ptr<ErrorRecord[]> m_ring;
    uint64_t m_put = 0;
    uint64_t m_taken = 0;
    uint64_t m_done = 0;
    uint64_t m_dropped = 0;
    bool m_writerWaits = false;
    bool m_stop = false;
    bool m_writerEnded = false;
    std::thread m_writer;
    Batch m_batch;  // the writer's

    // Guards the output; taken without m_lock.
    std::mutex m_outputLock;
    CErrorLogOutput m_output;
};
