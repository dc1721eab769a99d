// Compares where the system says a file is with where it says the root is: both names come from
// handles, so links and relative parts are resolved the same way on both sides.
#include "zemhttpd/webfiles/volumepath.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

bool IsSeparator(WCHAR unit) {
    return unit == TEXT('/') || unit == TEXT('\\');
}

HANDLE OpenFolder(const WCHAR* name) {
    return CreateFileW(name, GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING,
                       FILE_FLAG_BACKUP_SEMANTICS, nullptr);
}

// A volume root that is only separators would be the machine's own.
HANDLE OpenRoot(const WCHAR* volumeRoot) {
    for (const WCHAR* unit = volumeRoot; *unit; ++unit) {
        if (!IsSeparator(*unit)) return OpenFolder(volumeRoot);
    }
    return INVALID_HANDLE_VALUE;
}

}  // namespace

FinalPath::FinalPath(HANDLE file) {
    if (file == INVALID_HANDLE_VALUE) return;
    length = GetFinalPathNameByHandleW(file, text, kUnits, FILE_NAME_NORMALIZED);
    if (length >= kUnits) length = 0;
    while (length > 0 && IsSeparator(text[length - 1]))
        --length;
}

bool FinalPath::Contains(const FinalPath& other) const {
    return length > 0 && other.length >= length &&
           std::memcmp(text, other.text, length * sizeof(WCHAR)) == 0 &&
           (other.length == length || IsSeparator(other.text[length]));
}

UrlText::UrlText(const WCHAR* start, USHORT length_bytes) {
    const size_t kept = start ? std::min<size_t>(length_bytes / sizeof(WCHAR), kUnits - 1) : 0;
    std::copy_n(start, kept, text);
    text[kept] = 0;
}

CVolumePath::CVolumePath(const WCHAR* volumeRoot, const WCHAR* separator, const UrlText& path)
    : m_root(CFileHandle(OpenRoot(volumeRoot)).Get()) {
    m_refused = _snwprintf_s(m_fullPath, kNameUnits, _TRUNCATE, TEXT("%s%s%s"), volumeRoot,
                             separator, path.text) < 0 ||
                !NamesPlainFile(path.text);
}

bool CVolumePath::IsPlainFile() const {
    if (m_root.length == 0 || m_refused) return false;
    WCHAR folder[kNameUnits];
    std::memcpy(folder, m_fullPath, sizeof(folder));
    size_t end = wcslen(folder);
    while (end > 0 && !IsSeparator(folder[end - 1]))
        --end;
    folder[end] = 0;
    const CFileHandle folderHandle(OpenFolder(folder));
    if (!folderHandle || !Holds(folderHandle.Get())) return false;
    const DWORD attributes = GetFileAttributesW(m_fullPath);
    constexpr DWORD kNotPlain =
        FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE | FILE_ATTRIBUTE_REPARSE_POINT;
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & kNotPlain) == 0;
}

bool CVolumePath::Holds(HANDLE file) const {
    return m_root.Contains(FinalPath(file));
}
