// The stage timer of a transaction. Marking costs one interlocked increment and one tick read;
// everything else happens only for a timer that is destroyed late.
#include "mediaio/errorlog.h"
#include "zemhttpd/frameio/httpxactn.h"

#include <algorithm>
#include <string_view>

namespace {

constexpr DWORD kDumpCategory = 5;
constexpr DWORD kDumpHeadLevel = 15;
constexpr DWORD kDumpStageLevel = 16;
constexpr ULONGLONG kFileTimePerMs = 10000;

constexpr const WCHAR* kXactionStageNames[] = {
    TEXT("Timer start"),
    TEXT("AcquiringIoContext"),
    TEXT("ReadingReqData"),
    TEXT("IssuingZemRequest"),
    TEXT("BeginIoCompletion"),
    TEXT("PreparingReply"),
    TEXT("SendingZemReplyHdr"),
    TEXT("ZemReplyHdrSendError"),
    TEXT("ZemReplyHdrSent"),
    TEXT("SendingFrameData"),
    TEXT("FrameDataSendError"),
    TEXT("FrameDataSent"),
    TEXT("IssuingZemIoCompletion"),
    TEXT("ZemIoCompletionEnd"),
    TEXT("IoContextReleased"),
};
static_assert(sizeof(kXactionStageNames) / sizeof(kXactionStageNames[0]) == kStageCount);

// Milliseconds after which a transaction is slow. Nothing changes it; a debugger may.
DWORD g_slowXaction_ms = 500;

constexpr DWORD TickOf(ULONGLONG stage) {
    return static_cast<DWORD>(stage);
}
constexpr DWORD NumberOf(ULONGLONG stage) {
    return static_cast<DWORD>(stage >> 32);
}

SYSTEMTIME LocalTimeOf(ULONGLONG utc) {
    const FILETIME fileTime = {static_cast<DWORD>(utc), static_cast<DWORD>(utc >> 32)};
    FILETIME local = {};
    SYSTEMTIME time = {};
    if (FileTimeToLocalFileTime(&fileTime, &local)) FileTimeToSystemTime(&local, &time);
    return time;
}

// Writes a timer's name piece by piece; what does not fit is cut off.
class CNameWriter {
public:
    explicit CNameWriter(WCHAR (&name)[kNameUnits]) : m_at(name), m_end(name + kNameUnits - 1) {}
    ~CNameWriter() { *m_at = 0; }
    CNameWriter(const CNameWriter&) = delete;
    CNameWriter& operator=(const CNameWriter&) = delete;

    void Text(std::basic_string_view<WCHAR> text) {
        m_at += text.copy(m_at, static_cast<size_t>(m_end - m_at));
    }
    void Number(DWORD number) {
        WCHAR digits[10];
        WCHAR* const end = digits + 10;
        WCHAR* first = end;
        do
            *--first = static_cast<WCHAR>(u'0' + number % 10);
        while (number /= 10);
        Text({first, static_cast<size_t>(end - first)});
    }

private:
    WCHAR* m_at;
    WCHAR* const m_end;
};

}  // namespace

CZemTimer::~CZemTimer() {
    DumpIfSlow();
}

void CZemTimer::Start() {
    m_stages[0] = GetTickCount();
    m_count.store(1, std::memory_order_relaxed);
}

void CZemTimer::SetName(const WCHAR* format, ...) {
    va_list args;
    va_start(args, format);
    _vsnwprintf_s(m_name, kNameUnits, _TRUNCATE, format, args);
    va_end(args);
    m_name[kNameUnits - 1] = 0;
}

void CZemTimer::MarkStage(DWORD stage) {
    const LONG slot = m_count.fetch_add(1, std::memory_order_relaxed);
    if (slot >= 0 && slot < kMaxStages)
        m_stages[slot] = GetTickCount() | (static_cast<ULONGLONG>(stage) << 32);
}

const WCHAR* CZemTimer::StageName(DWORD stage) const {
    return m_stageNames && stage < kStageCount ? m_stageNames[stage] : TEXT("");
}

void CZemTimer::DumpIfSlow() {
    const LONG count = m_count.load(std::memory_order_relaxed);
    if (count < 1) return;
    const DWORD elapsed_ms = GetTickCount() - TickOf(m_stages[0]);
    if (elapsed_ms > m_threshold_ms) {
        SYSTEMTIME now;
        GetLocalTime(&now);
        FILETIME utc;
        GetSystemTimeAsFileTime(&utc);
        ULONGLONG at = (static_cast<ULONGLONG>(utc.dwHighDateTime) << 32) | utc.dwLowDateTime;
        at -= elapsed_ms * kFileTimePerMs;
        const DWORD chainId = static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(this));
        ErrorLogWriteExW(0, &now, kDumpCategory, kDumpHeadLevel, TEXT(""), 0, elapsed_ms, m_name,
                         chainId);
        for (LONG i = 1; i < std::min(count, kMaxStages); ++i) {
            const DWORD delta_ms = TickOf(m_stages[i]) - TickOf(m_stages[i - 1]);
            if (delta_ms == 0) continue;
            at += delta_ms * kFileTimePerMs;
            const SYSTEMTIME time = LocalTimeOf(at);
            WCHAR line[kNameUnits];
            _snwprintf_s(line, kNameUnits, _TRUNCATE, TEXT("  %u:%s [prev %u:%s]"),
                         TickOf(m_stages[i]), StageName(NumberOf(m_stages[i])),
                         TickOf(m_stages[i - 1]), StageName(NumberOf(m_stages[i - 1])));
            ErrorLogWriteExW(0, &time, kDumpCategory, kDumpStageLevel, TEXT(""), 0, delta_ms, line,
                             chainId);
        }
    }
    Discard();
}

CZemHttpdXactionTimer::CZemHttpdXactionTimer() {
    m_threshold_ms = g_slowXaction_ms;
    m_stageNames = kXactionStageNames;
}

void CZemHttpdXactionTimer::StartXaction(const WCHAR* client, const WCHAR* description,
                                         DWORD transId) {
    Start();
    // Every command comes by here, so the printf engine is spared.
    CNameWriter name(m_name);
    name.Text(TEXT("ZemHttpdXaction "));
    name.Text(client);
    name.Text(TEXT(": "));
    name.Text(description);
    name.Text(TEXT(", transId "));
    name.Number(transId);
}
