// The two text pages, /media/status and /media/clients. Worker threads.
#include "zemhttpd/entry/entrypoint.h"
#include "zemhttpd/server/httpcmdhdlr.h"

#include <cstring>

namespace {

constexpr LONG kCatchLineCapacity = 3380;
constexpr LONG kCatchLineClients = 3412;

}  // namespace

void CHttpCommandHandler::GetCapacityString(const WCHAR* label, char* out, int size_bytes) {
    CZemEntry scope(TEXT("CHttpCommandHandler::GetCapacityString"));
    try {
        if (!out) scope = E_INVALIDARG;
        const DWORD now_ms = GetTickCount();
        HRESULT error = S_OK;
        ULONGLONG free_bytes = m_capacity.Free_bytes();
        ULONGLONG total_bytes = m_capacity.Total_bytes();
        if (m_capacity.Due(now_ms)) {
            ULARGE_INTEGER available = {};
            ULARGE_INTEGER total = {};
            if (!GetDiskFreeSpaceExW(m_volumeRoot, &available, &total, nullptr)) {
                error = HRESULT_FROM_WIN32(GetLastError());
                available = {};
                total = {};
                if (Tracing()) {
                    scope.Trace(TEXT("%s: error 0x%x querying disk capacity on status check"),
                                label, error);
                }
            }
            free_bytes = available.QuadPart;
            total_bytes = total.QuadPart;
            m_capacity.Store(now_ms, free_bytes, total_bytes);
        }
        // The error shows only in the answer of the call that met it.
        sprintf_s(out, static_cast<size_t>(size_bytes), "%x %I64u %I64u", error, free_bytes,
                  total_bytes);
    } catch (...) {
        LogCaught(scope, kSourceCmdHdlr, kCatchLineCapacity);
    }
}

void CHttpCommandHandler::GetClientsInfo(const WCHAR*, char* out, int size_bytes) {
    CZemEntry scope(TEXT("CHttpCommandHandler::GetClientsInfo"));
    try {
        const size_t size = static_cast<size_t>(size_bytes);
        size_t used = std::strlen(out);
        const CClientTable::CLock lock(m_clients);
        m_clients.ForEachWhile([&](const WString& clientId, ZemClient*) {
            char line[4 * kNameUnits];  // 259 units are at most 777 bytes of UTF-8
            constexpr char kEnd[] = "\r\n";
            // Converted by the code page: the runtime's printf would do it by its locale.
            const int bytes = WideCharToMultiByte(
                CP_ACP, 0, clientId.c_str(), static_cast<int>(clientId.size()), line,
                static_cast<int>(sizeof(line) - sizeof(kEnd)), nullptr, nullptr);
            std::memcpy(line + bytes, kEnd, sizeof(kEnd));
            const size_t length = static_cast<size_t>(bytes) + sizeof(kEnd) - 1;
            // The page ends at the last whole line that fits.
            if (used + length >= size) return false;
            std::memcpy(out + used, line, length + 1);
            used += length;
            return true;
        });
        if (used == 0) strcpy_s(out, size, "No Clients\r\n");
    } catch (...) {  // Not reached in tests: nothing in the walk allocates or throws
        LogCaught(scope, kSourceCmdHdlr, kCatchLineClients);
    }
}
