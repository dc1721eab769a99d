// Open files on Windows. They are opened for overlapped I/O; the calls here wait for theirs on an
// event of the calling thread.
#include "mediaio/store/fileio_windows.h"

#include <bcrypt.h>
#include <winioctl.h>

namespace zemstore {
namespace {

constexpr DWORD kMaxTransfer_bytes = 1u << 30;
// Where writers lock: far behind every byte that a file can have, since such locks are mandatory.
constexpr DWORD kLockOffsetHigh = 0x7FFFFFFF;

// An event that the calling thread waits on; it ends with the thread.
HANDLE OwnEvent() {
    thread_local const CHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    return event.Get();
}

// One overlapped call, waited for: `start` gets the OVERLAPPED and says whether the call was taken.
template <typename Start>
DWORD Await(HANDLE file, uint64_t offset_bytes, DWORD& moved_bytes, Start&& start) {
    moved_bytes = 0;
    OVERLAPPED overlapped{};
    overlapped.Offset = static_cast<DWORD>(offset_bytes);
    overlapped.OffsetHigh = static_cast<DWORD>(offset_bytes >> 32);
    overlapped.hEvent = OwnEvent();
    if (overlapped.hEvent == nullptr) return ERROR_NOT_ENOUGH_MEMORY;
    if (!start(overlapped) && GetLastError() != ERROR_IO_PENDING) return GetLastError();
    if (!GetOverlappedResult(file, &overlapped, &moved_bytes, TRUE)) return GetLastError();
    return ERROR_SUCCESS;
}

class CWindowsFile final : public IStoreFile {
public:
    CWindowsFile(CHandle file, bool writable, FileIdentity identity)
        : m_file(std::move(file)), m_writable(writable), m_identity(identity) {}

    HRESULT ReadAt(void* to, size_t size_bytes, uint64_t offset_bytes, size_t& done) override {
        done = 0;
        while (done < size_bytes) {
            const auto part =
                static_cast<DWORD>(std::min<size_t>(size_bytes - done, kMaxTransfer_bytes));
            DWORD moved = 0;
            const DWORD error =
                Await(m_file.Get(), offset_bytes + done, moved, [&](OVERLAPPED& overlapped) {
                    return ReadFile(m_file.Get(), static_cast<char*>(to) + done, part, nullptr,
                                    &overlapped);
                });
            if (error == ERROR_HANDLE_EOF) break;
            if (error != ERROR_SUCCESS) return HRESULT_FROM_WIN32(error);
            if (moved == 0) break;
            done += moved;
        }
        return S_OK;
    }

    HRESULT WriteAt(const IoSpan* spans, size_t count, uint64_t offset_bytes,
                    size_t& done) override {
        done = 0;
        for (size_t i = 0; i < count; ++i) {
            for (size_t within = 0; within < spans[i].size_bytes;) {
                const auto part = static_cast<DWORD>(
                    std::min<size_t>(spans[i].size_bytes - within, kMaxTransfer_bytes));
                DWORD moved = 0;
                const DWORD error =
                    Await(m_file.Get(), offset_bytes + done, moved, [&](OVERLAPPED& overlapped) {
                        return WriteFile(m_file.Get(),
                                         static_cast<const char*>(spans[i].data) + within, part,
                                         nullptr, &overlapped);
                    });
                if (error != ERROR_SUCCESS) return HRESULT_FROM_WIN32(error);
                if (moved == 0) return HRESULT_FROM_WIN32(ERROR_DISK_FULL);
                within += moved;
                done += moved;
            }
        }
        return S_OK;
    }

    HRESULT Sync() override { return FlushFileBuffers(m_file.Get()) ? S_OK : LastFailure(); }

    HRESULT Size(uint64_t& size_bytes) override {
        LARGE_INTEGER size;
        if (!GetFileSizeEx(m_file.Get(), &size)) return LastFailure();
        size_bytes = static_cast<uint64_t>(size.QuadPart);
        return S_OK;
    }

    HRESULT SetSize(uint64_t size_bytes) override {
        FILE_END_OF_FILE_INFO end{};
        end.EndOfFile.QuadPart = static_cast<LONGLONG>(size_bytes);
        return SetFileInformationByHandle(m_file.Get(), FileEndOfFileInfo, &end, sizeof end)
                   ? S_OK
                   : LastFailure();
    }

    // Only a sparse file gives space back, so it becomes one; elsewhere zeros would be written.
    HRESULT PunchHole(uint64_t offset_bytes, uint64_t size_bytes) override {
        DWORD moved = 0;
        DWORD error = Await(m_file.Get(), 0, moved, [&](OVERLAPPED& overlapped) {
            return DeviceIoControl(m_file.Get(), FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, nullptr,
                                   &overlapped);
        });
        if (error == ERROR_SUCCESS) {
            FILE_ZERO_DATA_INFORMATION range{};
            range.FileOffset.QuadPart = static_cast<LONGLONG>(offset_bytes);
            range.BeyondFinalZero.QuadPart = static_cast<LONGLONG>(offset_bytes + size_bytes);
            error = Await(m_file.Get(), 0, moved, [&](OVERLAPPED& overlapped) {
                return DeviceIoControl(m_file.Get(), FSCTL_SET_ZERO_DATA, &range, sizeof range,
                                       nullptr, 0, nullptr, &overlapped);
            });
        }
        return error == ERROR_SUCCESS || NotSupported(error) ? S_OK : HRESULT_FROM_WIN32(error);
    }

    HRESULT LockForWriting() override {
        if (m_locked) return S_OK;
        DWORD moved = 0;
        const DWORD error = Await(
            m_file.Get(), uint64_t{kLockOffsetHigh} << 32, moved, [&](OVERLAPPED& overlapped) {
                return LockFileEx(m_file.Get(), LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY,
                                  0, 1, 0, &overlapped);
            });
        if (error == ERROR_LOCK_VIOLATION) return HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION);
        m_locked = error == ERROR_SUCCESS;
        return m_locked || NotSupported(error) ? S_OK : HRESULT_FROM_WIN32(error);
    }
    void UnlockForWriting() override {
        if (!m_locked) return;
        m_locked = false;
        DWORD moved = 0;
        Await(m_file.Get(), uint64_t{kLockOffsetHigh} << 32, moved, [&](OVERLAPPED& overlapped) {
            return UnlockFileEx(m_file.Get(), 0, 1, 0, &overlapped);
        });
    }
    bool Writable() const override { return m_writable; }
    FileIdentity Identity() const override { return m_identity; }

    // Windows does not tell what is cached: everything is read asynchronously.
    bool Cached(uint64_t, size_t) override { return false; }
    bool ReadsAhead() const override { return true; }
    // The HTTP interface takes memory or whole files: a read's buffer is memory of the allocator.
    void* MapView(uint64_t, size_t) override { return nullptr; }
    void UnmapView(void*) override {}
    intptr_t Descriptor() const override { return reinterpret_cast<intptr_t>(m_file.Get()); }

private:
    CHandle m_file;
    bool m_writable;
    bool m_locked = false;
    FileIdentity m_identity;
};

}  // namespace

HRESULT LastFailure() {
    const DWORD error = GetLastError();
    return HRESULT_FROM_WIN32(error != ERROR_SUCCESS ? error : DWORD{ERROR_GEN_FAILURE});
}

HRESULT FromStatus(NTSTATUS status) {
    return status >= 0 ? S_OK : HRESULT_FROM_WIN32(RtlNtStatusToDosError(status));
}

bool NotSupported(DWORD error) {
    return error == ERROR_INVALID_FUNCTION || error == ERROR_NOT_SUPPORTED ||
           error == ERROR_CALL_NOT_IMPLEMENTED || error == ERROR_INVALID_PARAMETER;
}

std::unique_ptr<IStoreFile> MakeStoreFile(CHandle file, bool writable,
                                          const FileIdentity& identity) {
    return std::make_unique<CWindowsFile>(std::move(file), writable, identity);
}

HRESULT RandomBytes(void* to, size_t size_bytes) {
    return FromStatus(BCryptGenRandom(nullptr, static_cast<PUCHAR>(to),
                                      static_cast<ULONG>(size_bytes),
                                      BCRYPT_USE_SYSTEM_PREFERRED_RNG));
}

bool EnvironmentFlag(const char* name) {
    return GetEnvironmentVariableA(name, nullptr, 0) > 1;
}

}  // namespace zemstore
