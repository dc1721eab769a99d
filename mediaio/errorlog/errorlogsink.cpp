// errorlogsink.cpp: the error log's queue and writer thread.
#include "mediaio/errorlog/errorlogsink.h"

#include <cstring>

#include "mediaio/errorlog.h"

namespace {

constexpr std::chrono::milliseconds kExitFlush_ms{2000};

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

// Built when the module is loaded, so that it is among the last to go when the process exits.
struct ExitFlush {
    ~ExitFlush() { CErrorLogSink::Instance().Stop(kExitFlush_ms); }
} g_exitFlush;

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

size_t CErrorLogSink::TakeBatch(ErrorRecord* batch, uint64_t& dropped) {
    std::unique_lock lock(m_lock);
    m_done = m_taken;
    m_progress.notify_all();
    while (m_taken == m_put && !m_stop) {
        m_writerWaits = true;
        m_wakeWriter.wait(lock);
    }
    size_t count = 0;
    for (; count < kBatchRecords && m_taken < m_put; ++count, ++m_taken)
        CopyRecord(batch[count], m_ring[m_taken % kErrorLogQueueRecords]);
    dropped = m_dropped;
    m_dropped = 0;
    if (count == 0) {
        m_writerEnded = true;
        m_progress.notify_all();
    }
    return count;
}

void CErrorLogSink::RunWriter() {
    const auto batch = std::make_unique<ErrorRecord[]>(kBatchRecords);
    std::string lines;
    uint64_t unwritten = 0;
    uint64_t dropped = 0;
    while (const size_t count = TakeBatch(batch.get(), dropped)) {
        lines.clear();
        // What was dropped is older than this batch, and younger than the one before.
        dropped += unwritten;
        if (dropped != 0) AppendDroppedLine(batch[0].time, dropped, lines);
        for (size_t i = 0; i < count; ++i)
            AppendRecordLine(batch[i], lines);
        std::scoped_lock lock(m_outputLock);
        unwritten = m_output.Write(lines) ? 0 : dropped + count;
    }
}

bool CErrorLogSink::Configure(const ErrorLogSettings& settings, std::string* problem) {
    CErrorLogOutput output;
    if (!output.Open(settings, problem)) return false;
    Flush(kExitFlush_ms);
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
