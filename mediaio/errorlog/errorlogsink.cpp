// The error log's queue and writer thread.
#include "mediaio/errorlog/errorlogsink.h"

#include "mediaio/errorlog.h"

#include <cstring>

namespace {

constexpr std::chrono::milliseconds kFlush_ms{2000};

void CopyRecord(ErrorRecord& target, const ErrorRecord& source) {
    std::memcpy(&target, &source, offsetof(ErrorRecord, text) + source.text_chars * sizeof(WCHAR));
}

ErrorLogVerbosity VerbosityOf(ErrorRecordKind kind, DWORD level) {
    if (kind == ErrorRecordKind::kScope) return ErrorLogVerbosity::kErrors;
    switch (level) {
        case kErrorLogLevelError:
            return ErrorLogVerbosity::kErrors;
        case kErrorLogLevelWarning:
        case kErrorLogLevelSlowOperation:
            return ErrorLogVerbosity::kWarnings;
        case kErrorLogLevelTrace:
            return ErrorLogVerbosity::kTraces;
        default:
            return ErrorLogVerbosity::kMessages;
    }
}

}  // namespace

CErrorLogSink::CErrorLogSink() : m_ring(new ErrorRecord[kErrorLogQueueRecords]) {}

CErrorLogSink& CErrorLogSink::Instance() {
    static CErrorLogSink* const sink = new CErrorLogSink;
    return *sink;
}

bool CErrorLogSink::Wants(ErrorRecordKind kind, DWORD level) const {
    return VerbosityOf(kind, level) <= m_verbosity.load(std::memory_order_relaxed);
}

void CErrorLogSink::Put(const ErrorRecord& record) {
    std::unique_lock lock(m_lock);
    if (!m_writer.joinable() && !m_stop) StartWriter();
    if (m_put - m_taken == kErrorLogQueueRecords) {
        ++m_taken;
        ++m_dropped;
    }
    CopyRecord(m_ring[m_put % kErrorLogQueueRecords], record);
    ++m_put;
    if (m_writerWaits) {
        m_writerWaits = false;
        lock.unlock();
        m_wakeWriter.notify_one();
    }
}

// A process that cannot start a thread any more still runs: its records wait in the ring.
void CErrorLogSink::StartWriter() {
    try {
        m_writer = std::thread([this] { RunWriter(); });
    } catch (const std::system_error&) {
    }
}

void CErrorLogSink::FillBatch() {
    m_batch.count = 0;
    for (; m_batch.count < kBatchRecords && m_taken < m_put; ++m_batch.count, ++m_taken)
        CopyRecord(m_batch.records[m_batch.count], m_ring[m_taken % kErrorLogQueueRecords]);
    m_batch.dropped = m_dropped;
    m_dropped = 0;
}

void CErrorLogSink::TakeBatch(std::optional<CLineAssembler::Clock::time_point> overdue) {
    std::unique_lock lock(m_lock);
    // A line that still waits for its next piece is not written: then nothing is done yet.
    if (!overdue) {
        m_done = m_taken;
        m_progress.notify_all();
    }
    while (m_taken == m_put && !m_stop) {
        m_writerWaits = true;
        if (!overdue)
            m_wakeWriter.wait(lock);
        else if (m_wakeWriter.wait_until(lock, *overdue) == std::cv_status::timeout)
            break;
    }
    FillBatch();
    m_batch.last = m_batch.count == 0 && m_stop;
}

void CErrorLogSink::AppendBatch(uint64_t dropped, CLineAssembler::Clock::time_point now,
                                CLineAssembler& assembler, std::string& lines) const {
    const ErrorLogFormat format = m_output.Format();
    if (dropped != 0 && m_batch.count != 0)
        AppendDroppedLine(m_batch.records[0].time, dropped, format, lines);
    for (size_t i = 0; i < m_batch.count; ++i)
        assembler.Add(m_batch.records[i], format, now, lines);
}

void CErrorLogSink::EndWriter() {
    std::scoped_lock lock(m_lock);
    m_done = m_taken;
    m_writerEnded = true;
    m_progress.notify_all();
}

void CErrorLogSink::RunWriter() {
    NameThisThread(TEXT("zem-log"));
    const Batch& batch = m_batch;
    CLineAssembler assembler;
    std::string lines;
    uint64_t unwritten = 0;
    while (!batch.last) {
        TakeBatch(assembler.NextDeadline());
        lines.clear();
        // What was dropped is older than this batch, and younger than the one before.
        const uint64_t dropped = batch.dropped + unwritten;
        std::scoped_lock lock(m_outputLock);
        const auto now = CLineAssembler::Clock::now();
        AppendBatch(dropped, now, assembler, lines);
        if (batch.last)
            assembler.EndAll(lines);
        else
            assembler.EndOverdue(now, lines);
        if (!lines.empty()) unwritten = m_output.Write(lines) ? 0 : dropped + batch.count;
        m_batch.count = 0;
    }
    EndWriter();
}

// Begins with what the writer was writing when it was ended: that may be there twice. Pieces of a
// message that it had kept for joining are lost with it.
void CErrorLogSink::WriteAlone() {
    if (m_writerEnded) return;
    CLineAssembler assembler;
    std::string lines;
    const auto now = CLineAssembler::Clock::now();
    do {
        AppendBatch(m_batch.dropped, now, assembler, lines);
        FillBatch();
    } while (m_batch.count != 0);
    assembler.EndAll(lines);
    if (!lines.empty()) m_output.Write(lines);
}

bool CErrorLogSink::Configure(const ErrorLogSettings& settings, std::string* problem) {
    CErrorLogOutput output;
    if (!output.Open(settings, problem)) return false;
    Flush(kFlush_ms);
    std::scoped_lock lock(m_outputLock);
    m_output = std::move(output);
    m_verbosity.store(settings.verbosity, std::memory_order_relaxed);
    return true;
}

bool CErrorLogSink::Flush(std::chrono::milliseconds timeout) {
    std::unique_lock lock(m_lock);
    const uint64_t target = m_put;
    return m_progress.wait_for(lock, timeout, [&] { return m_done >= target; });
}

void CErrorLogSink::Stop(std::chrono::milliseconds timeout) {
    {
        std::unique_lock lock(m_lock);
        m_stop = true;
        if (!m_writer.joinable()) return;
        m_wakeWriter.notify_one();
        // A terminal that is stopped, or a dead network disk, must not keep the process from
        // ending.
        if (!m_progress.wait_for(lock, timeout, [&] { return m_writerEnded; })) return;
    }
    m_writer.join();
}

bool ErrorLogConfigure(const ErrorLogSettings& settings, std::string* problem) {
    return CErrorLogSink::Instance().Configure(settings, problem);
}

bool ErrorLogFlush(uint32_t timeout_ms) {
    return CErrorLogSink::Instance().Flush(std::chrono::milliseconds(timeout_ms));
}

void ErrorLogStop(uint32_t timeout_ms) {
    CErrorLogSink::Instance().Stop(std::chrono::milliseconds(timeout_ms));
}
