// The directory tree on Windows. Every name is opened component by component, each relative to the
// handle of the folder before it and never through a reparse point, so that neither a link nor a
// rename meanwhile leads out of the volume.
#include "mediaio/store/fileio_windows.h"
#include "mediaio/store/names.h"

#include <cstdio>
#include <cstring>
#include <vector>

namespace zemstore {
namespace {

constexpr ULONG kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr ACCESS_MASK kFolderAccess = FILE_LIST_DIRECTORY | FILE_TRAVERSE | FILE_READ_ATTRIBUTES;

// The later forms of rename and delete let other handles of the file live on. Not every header has
// them and not every system knows them.
constexpr ULONG kRenameInformation = 10, kRenameInformationEx = 65;
constexpr ULONG kDispositionInformation = 13, kDispositionInformationEx = 64;
constexpr ULONG kReplaceIfExists = 1, kRenamePosix = 2, kDelete = 1, kDeletePosix = 2;

WString Widen(const std::string& utf8) {
    WString wide(utf8.size(), 0);
    const int length = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), static_cast<int>(utf8.size()),
                                           wide.data(), static_cast<int>(wide.size()));
    wide.resize(static_cast<size_t>(length));
    return wide;
}

NTSTATUS SetInformation(HANDLE file, ULONG kind, void* information, ULONG size_bytes) {
    using Call = NTSTATUS(NTAPI*)(HANDLE, IO_STATUS_BLOCK*, void*, ULONG, ULONG);
    static const Call call = reinterpret_cast<Call>(&NtSetInformationFile);
    IO_STATUS_BLOCK status{};
    return call(file, &status, information, size_bytes, kind);
}

// Opens or creates one name in the folder; `name` has no separator.
HRESULT OpenIn(HANDLE folder, const WString& name, ACCESS_MASK access, ULONG disposition,
               ULONG options, CHandle& opened) {
    UNICODE_STRING text{};
    text.Length = static_cast<USHORT>(name.size() * sizeof(WCHAR));
    text.MaximumLength = text.Length;
    text.Buffer = const_cast<WCHAR*>(name.c_str());
    OBJECT_ATTRIBUTES attributes{};
    attributes.Length = sizeof attributes;
    attributes.RootDirectory = folder;
    attributes.ObjectName = &text;
    attributes.Attributes = OBJ_CASE_INSENSITIVE;
    IO_STATUS_BLOCK status{};
    HANDLE handle = nullptr;
    const NTSTATUS result = NtCreateFile(&handle, access | SYNCHRONIZE, &attributes, &status,
                                         nullptr, FILE_ATTRIBUTE_NORMAL, kShareAll, disposition,
                                         options | FILE_OPEN_REPARSE_POINT, nullptr, 0);
    if (result < 0) return FromStatus(result);
    opened = CHandle(handle);
    return S_OK;
}

HRESULT InfoOf(HANDLE file, BY_HANDLE_FILE_INFORMATION& info) {
    if (!GetFileInformationByHandle(file, &info)) return LastFailure();
    return (info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 ? E_ACCESSDENIED : S_OK;
}

FileIdentity IdentityOf(const BY_HANDLE_FILE_INFORMATION& info) {
    return {info.dwVolumeSerialNumber, uint64_t{info.nFileIndexHigh} << 32 | info.nFileIndexLow};
}

// Puts the open file into the folder under a new name.
HRESULT Rename(HANDLE file, HANDLE folder, const WString& name, bool replace) {
    struct Information {  // of both forms: the first field is a flag byte in the older one
        ULONG flags;
        HANDLE folder;
        ULONG name_bytes;
        WCHAR name[1];
    };
    const size_t name_bytes = name.size() * sizeof(WCHAR);
    std::vector<uint64_t> room((sizeof(Information) + name_bytes) / sizeof(uint64_t) + 1);
    auto* const information = reinterpret_cast<Information*>(room.data());
    information->flags = kRenamePosix | (replace ? kReplaceIfExists : 0);
    information->folder = folder;
    information->name_bytes = static_cast<ULONG>(name_bytes);
    memcpy(information->name, name.data(), name_bytes);
    // A name of one unit ends before the record does.
    const auto size =
        static_cast<ULONG>(std::max(sizeof(Information), offsetof(Information, name) + name_bytes));
    NTSTATUS result = SetInformation(file, kRenameInformationEx, information, size);
    if (result < 0) {
        information->flags = replace ? kReplaceIfExists : 0;
        const NTSTATUS first = result;
        result = SetInformation(file, kRenameInformation, information, size);
        if (result < 0 && NotSupported(RtlNtStatusToDosError(result))) result = first;
    }
    return FromStatus(result);
}

HRESULT Remove(HANDLE file) {
    ULONG flags = kDelete | kDeletePosix;
    NTSTATUS result = SetInformation(file, kDispositionInformationEx, &flags, sizeof flags);
    if (result < 0) {
        BOOLEAN remove = TRUE;
        result = SetInformation(file, kDispositionInformation, &remove, sizeof remove);
    }
    return FromStatus(result);
}

HRESULT TemporaryName(const char* ending, std::string& name) {
    uint64_t unique = 0;
    const HRESULT hr = RandomBytes(&unique, sizeof unique);
    if (FAILED(hr)) return hr;
    char text[40];
    snprintf(text, sizeof text, ".zem-%016llx.%s", static_cast<unsigned long long>(unique), ending);
    name = text;
    return S_OK;
}

// Where a file that somebody has open cannot be replaced in one step, it makes room first.
HRESULT ReplaceOpen(HANDLE file, HANDLE folder, const WString& name) {
    CHandle old;
    std::string aside;
    HRESULT hr = OpenIn(folder, name, DELETE, FILE_OPEN, FILE_NON_DIRECTORY_FILE, old);
    if (SUCCEEDED(hr)) hr = TemporaryName("old", aside);
    if (SUCCEEDED(hr)) hr = Rename(old.Get(), folder, Widen(aside), false);
    if (FAILED(hr)) return hr;
    hr = Rename(file, folder, name, false);
    if (FAILED(hr))
        Rename(old.Get(), folder, name, false);
    else
        Remove(old.Get());
    return hr;
}

class CWindowsVolume final : public IVolume {
public:
    explicit CWindowsVolume(CHandle root) : m_root(std::move(root)) {}

    HRESULT Open(const std::string& path, OpenFor mode, std::unique_ptr<IStoreFile>& file) override;
    HRESULT CreateUnpublished(const std::string& path, std::unique_ptr<IStoreFile>& file,
                              std::string& temporary) override;
    HRESULT Publish(const std::string& temporary, const std::string& path, bool replace) override;
    void Discard(const std::string& temporary) override { DeleteFileAt(temporary); }
    HRESULT SyncDirectoryOf(const std::string& path) override;
    HRESULT Delete(const std::string& path) override;
    HRESULT Move(const std::string& from, const std::string& to) override;
    HRESULT MakeDirectory(const std::string& path) override;
    HRESULT Attributes(const std::string& path, DWORD& attributes) override;
    HRESULT FileSize(const std::string& path, uint64_t& size_bytes) override;
    HRESULT Identity(const std::string& path, FileIdentity& identity) override;
    HRESULT Space(const std::string& path, uint64_t& total_bytes, uint64_t& free_bytes) override;

private:
    HRESULT OpenBeneath(const std::string& path, ACCESS_MASK access, ULONG options, CHandle& opened,
                        BY_HANDLE_FILE_INFORMATION& info) const;
    HRESULT OpenDirectory(const std::string& path, CHandle& folder) const;
    HRESULT MakeDirectories(const std::string& path, CHandle& folder) const;
    HRESULT DeleteFileAt(const std::string& path) const;

    CHandle m_root;
};

HRESULT CWindowsVolume::OpenBeneath(const std::string& path, ACCESS_MASK access, ULONG options,
                                    CHandle& opened, BY_HANDLE_FILE_INFORMATION& info) const {
    CHandle at;
    for (size_t begin = 0;;) {
        const size_t slash = path.find('/', begin);
        const bool last = slash == std::string::npos;
        const HANDLE folder = at.Get() != nullptr ? at.Get() : m_root.Get();
        CHandle next;
        HRESULT hr =
            OpenIn(folder, Widen(path.substr(begin, slash - begin)), last ? access : kFolderAccess,
                   FILE_OPEN, last ? options : FILE_DIRECTORY_FILE, next);
        if (SUCCEEDED(hr)) hr = InfoOf(next.Get(), info);
        if (FAILED(hr)) return hr;
        at = std::move(next);
        if (last) break;
        begin = slash + 1;
    }
    opened = std::move(at);
    return S_OK;
}

HRESULT CWindowsVolume::OpenDirectory(const std::string& path, CHandle& folder) const {
    BY_HANDLE_FILE_INFORMATION info;
    const HRESULT hr = OpenBeneath(path, kFolderAccess, FILE_DIRECTORY_FILE, folder, info);
    const bool missing =
        hr == HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND) || hr == HRESULT_FROM_WIN32(ERROR_DIRECTORY);
    return missing ? HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND) : hr;
}

HRESULT CWindowsVolume::Open(const std::string& path, OpenFor mode,
                             std::unique_ptr<IStoreFile>& file) {
    CHandle handle;
    BY_HANDLE_FILE_INFORMATION info;
    bool writable = mode != OpenFor::kRead;
    HRESULT hr = OpenBeneath(path, GENERIC_READ | (writable ? GENERIC_WRITE : 0),
                             FILE_NON_DIRECTORY_FILE, handle, info);
    if (FAILED(hr) && mode == OpenFor::kReadIfPossibleWrite &&
        (hr == E_ACCESSDENIED || hr == HRESULT_FROM_WIN32(ERROR_WRITE_PROTECT))) {
        writable = false;
        hr = OpenBeneath(path, GENERIC_READ, FILE_NON_DIRECTORY_FILE, handle, info);
    }
    if (FAILED(hr)) return hr;
    file = MakeStoreFile(std::move(handle), writable, IdentityOf(info));
    return S_OK;
}

HRESULT CWindowsVolume::MakeDirectories(const std::string& path, CHandle& folder) const {
    const HRESULT hr = OpenDirectory(path, folder);
    if (hr != HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND) || path.empty()) return hr;
    CHandle parent;
    const HRESULT made = MakeDirectories(ParentOf(path), parent);
    if (FAILED(made)) return made;
    CHandle created;
    const HRESULT opened = OpenIn(parent.Get(), Widen(LeafOf(path)), kFolderAccess, FILE_OPEN_IF,
                                  FILE_DIRECTORY_FILE, created);
    if (FAILED(opened) && opened != HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS)) return opened;
    return OpenDirectory(path, folder);
}

HRESULT CWindowsVolume::CreateUnpublished(const std::string& path,
                                          std::unique_ptr<IStoreFile>& file,
                                          std::string& temporary) {
    CHandle parent;
    HRESULT hr = MakeDirectories(ParentOf(path), parent);
    if (FAILED(hr)) return hr;
    std::string leaf;
    hr = TemporaryName("new", leaf);
    if (FAILED(hr)) return hr;
    CHandle handle;
    hr = OpenIn(parent.Get(), Widen(leaf), GENERIC_READ | GENERIC_WRITE, FILE_CREATE,
                FILE_NON_DIRECTORY_FILE, handle);
    if (FAILED(hr)) return hr;
    BY_HANDLE_FILE_INFORMATION info;
    hr = InfoOf(handle.Get(), info);
    if (FAILED(hr)) return hr;
    const std::string directory = ParentOf(path);
    temporary = directory.empty() ? leaf : directory + "/" + leaf;
    file = MakeStoreFile(std::move(handle), true, IdentityOf(info));
    return S_OK;
}

HRESULT CWindowsVolume::Publish(const std::string& temporary, const std::string& path,
                                bool replace) {
    CHandle parent;
    HRESULT hr = OpenDirectory(ParentOf(path), parent);
    if (FAILED(hr)) return hr;
    const WString to = Widen(LeafOf(path));
    CHandle file;
    hr = OpenIn(parent.Get(), Widen(LeafOf(temporary)), DELETE, FILE_OPEN, FILE_NON_DIRECTORY_FILE,
                file);
    if (FAILED(hr)) return hr;
    // A folder or link of that name is refused, not replaced.
    CHandle existing;
    BY_HANDLE_FILE_INFORMATION info;
    hr = OpenIn(parent.Get(), to, FILE_READ_ATTRIBUTES, FILE_OPEN, 0, existing);
    if (SUCCEEDED(hr)) {
        hr = InfoOf(existing.Get(), info);
        if (SUCCEEDED(hr) && (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
            hr = E_ACCESSDENIED;
    } else if (hr == HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)) {
        hr = S_OK;
    }
    const bool exists = existing.Get() != nullptr;
    existing = CHandle();
    if (SUCCEEDED(hr)) hr = Rename(file.Get(), parent.Get(), to, replace);
    if (hr == E_ACCESSDENIED && exists && replace) hr = ReplaceOpen(file.Get(), parent.Get(), to);
    if (FAILED(hr)) Remove(file.Get());
    return hr == HRESULT_FROM_WIN32(ERROR_ALREADY_EXISTS) ? HRESULT_FROM_WIN32(ERROR_FILE_EXISTS)
                                                          : hr;
}

// NTFS keeps its own log of names. Where a folder can be flushed by itself it is; a file system
// that cannot do that has nothing to add.
HRESULT CWindowsVolume::SyncDirectoryOf(const std::string& path) {
    CHandle parent;
    const HRESULT hr = OpenDirectory(ParentOf(path), parent);
    if (FAILED(hr)) return hr;
    const HANDLE folder =
        ReOpenFile(parent.Get(), FILE_ADD_FILE, kShareAll, FILE_FLAG_BACKUP_SEMANTICS);
    if (folder == INVALID_HANDLE_VALUE) return S_OK;
    const CHandle writable(folder);
    FlushFileBuffers(folder);
    return S_OK;
}

HRESULT CWindowsVolume::DeleteFileAt(const std::string& path) const {
    CHandle parent;
    HRESULT hr = OpenDirectory(ParentOf(path), parent);
    if (FAILED(hr)) return hr;
    CHandle file;
    BY_HANDLE_FILE_INFORMATION info;
    hr = OpenIn(parent.Get(), Widen(LeafOf(path)), DELETE | FILE_READ_ATTRIBUTES, FILE_OPEN,
                FILE_NON_DIRECTORY_FILE, file);
    if (SUCCEEDED(hr)) hr = InfoOf(file.Get(), info);
    return SUCCEEDED(hr) ? Remove(file.Get()) : hr;
}

HRESULT CWindowsVolume::Delete(const std::string& path) {
    const HRESULT hr = DeleteFileAt(path);
    return SUCCEEDED(hr) ? SyncDirectoryOf(path) : hr;
}

HRESULT CWindowsVolume::Move(const std::string& from, const std::string& to) {
    CHandle source;
    CHandle target;
    HRESULT hr = OpenDirectory(ParentOf(from), source);
    if (SUCCEEDED(hr)) hr = OpenDirectory(ParentOf(to), target);
    if (FAILED(hr)) return hr;
    CHandle moved;
    BY_HANDLE_FILE_INFORMATION info;
    hr = OpenIn(source.Get(), Widen(LeafOf(from)), DELETE | FILE_READ_ATTRIBUTES, FILE_OPEN, 0,
                moved);
    if (SUCCEEDED(hr)) hr = InfoOf(moved.Get(), info);
    if (SUCCEEDED(hr)) hr = Rename(moved.Get(), target.Get(), Widen(LeafOf(to)), false);
    if (SUCCEEDED(hr)) hr = SyncDirectoryOf(to);
    return SUCCEEDED(hr) ? SyncDirectoryOf(from) : hr;
}

HRESULT CWindowsVolume::MakeDirectory(const std::string& path) {
    CHandle parent;
    HRESULT hr = OpenDirectory(ParentOf(path), parent);
    if (FAILED(hr)) return hr;
    CHandle made;
    hr = OpenIn(parent.Get(), Widen(LeafOf(path)), kFolderAccess, FILE_CREATE, FILE_DIRECTORY_FILE,
                made);
    return SUCCEEDED(hr) ? SyncDirectoryOf(path) : hr;
}

HRESULT CWindowsVolume::Attributes(const std::string& path, DWORD& attributes) {
    CHandle file;
    BY_HANDLE_FILE_INFORMATION info;
    const HRESULT hr = OpenBeneath(path, FILE_READ_ATTRIBUTES, 0, file, info);
    if (FAILED(hr)) return hr;
    const DWORD bits = info.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY);
    attributes = bits != 0 ? bits : FILE_ATTRIBUTE_NORMAL;
    return S_OK;
}

HRESULT CWindowsVolume::FileSize(const std::string& path, uint64_t& size_bytes) {
    CHandle file;
    BY_HANDLE_FILE_INFORMATION info;
    const HRESULT hr = OpenBeneath(path, FILE_READ_ATTRIBUTES, 0, file, info);
    if (FAILED(hr)) return hr;
    if ((info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return E_ACCESSDENIED;
    size_bytes = uint64_t{info.nFileSizeHigh} << 32 | info.nFileSizeLow;
    return S_OK;
}

HRESULT CWindowsVolume::Identity(const std::string& path, FileIdentity& identity) {
    CHandle file;
    BY_HANDLE_FILE_INFORMATION info;
    const HRESULT hr = OpenBeneath(path, FILE_READ_ATTRIBUTES, 0, file, info);
    if (SUCCEEDED(hr)) identity = IdentityOf(info);
    return hr;
}

HRESULT CWindowsVolume::Space(const std::string& path, uint64_t& total_bytes,
                              uint64_t& free_bytes) {
    CHandle place;
    BY_HANDLE_FILE_INFORMATION info;
    const HRESULT hr = OpenBeneath(path, FILE_READ_ATTRIBUTES, 0, place, info);
    if (FAILED(hr)) return hr;
    FILE_FS_FULL_SIZE_INFORMATION space{};
    IO_STATUS_BLOCK status{};
    const NTSTATUS result = NtQueryVolumeInformationFile(place.Get(), &status, &space, sizeof space,
                                                         FileFsFullSizeInformation);
    if (result < 0) return FromStatus(result);
    const uint64_t unit_bytes = uint64_t{space.SectorsPerAllocationUnit} * space.BytesPerSector;
    total_bytes = static_cast<uint64_t>(space.TotalAllocationUnits.QuadPart) * unit_bytes;
    free_bytes = static_cast<uint64_t>(space.CallerAvailableAllocationUnits.QuadPart) * unit_bytes;
    return S_OK;
}

}  // namespace

HRESULT OpenVolume(const std::string& root, std::shared_ptr<IVolume>& volume) {
    const HANDLE folder = CreateFileW(Widen(root).c_str(), kFolderAccess, kShareAll, nullptr,
                                      OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (folder == INVALID_HANDLE_VALUE) {
        return GetLastError() == ERROR_ACCESS_DENIED ? E_ACCESSDENIED
                                                     : HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND);
    }
    CHandle opened(folder);
    BY_HANDLE_FILE_INFORMATION info;
    if (!GetFileInformationByHandle(folder, &info)) return LastFailure();
    if ((info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0)
        return HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND);
    volume = std::make_shared<CWindowsVolume>(std::move(opened));
    return S_OK;
}

}  // namespace zemstore
