// The registry's calls over the current state of the file. Any thread: a state is immutable once
// built, and keys hold the one that they were opened from; the lock is taken for a pointer's copy,
// or to read a changed file.
#include "platform/posix/registry.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

#include "platform/posix/object.h"
#include "platform/posix/registryfile.h"
#include "platform/posix/utf.h"

namespace posix {
namespace {

constexpr const char* kDefaultFile = "/etc/zemhttpd/zemhttpd.reg";
constexpr off_t kMaxFileBytes = 64 << 20;
constexpr size_t kMaxReports = 20;
// A file system's clock may tick this slowly; a file that was written a moment ago could change
// again unseen.
constexpr int64_t kClockTickNanoseconds = 50'000'000;

struct CFileState {
    bool exists = false;
    ino_t inode = 0;
    off_t size = 0;
    timespec time{};

    static CFileState Of(const struct stat& status) {
        return {true, status.st_ino, status.st_size, status.st_mtim};
    }
    bool operator==(const CFileState& other) const {
        return exists == other.exists && inode == other.inode && size == other.size &&
               time.tv_sec == other.time.tv_sec && time.tv_nsec == other.time.tv_nsec;
    }
    bool MayChangeUnseen() const {
        timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        const int64_t age =
            (int64_t{now.tv_sec} - time.tv_sec) * 1'000'000'000 + now.tv_nsec - time.tv_nsec;
        return exists && age < kClockTickNanoseconds;
    }
};

struct CSnapshot {
    std::string path;
    CFileState state;
    bool settled = false;  // false: look into the file again even if its state seems the same
    std::string content;
    CRegistryTree tree;
    DWORD skippedLines = 0;
};
using Snapshot = std::shared_ptr<const CSnapshot>;

struct COverride {
    std::u16string key;
    std::u16string name;
    CRegistryValue value;
};

struct CRegistry {
    std::mutex lock;  // guards all of it
    std::string path;
    std::vector<COverride> overrides;
    Snapshot current;
};

CRegistry& Registry() {
    static auto* registry = new CRegistry;
    return *registry;
}

std::string PathInUse(const CRegistry& registry) {
    if (!registry.path.empty()) return registry.path;
    const char* named = std::getenv("ZEM_REGISTRY");
    return named && *named ? named : kDefaultFile;
}

void Report(const std::string& path, size_t line, const char* reason) {
    std::fprintf(stderr, "registry: %s:%zu: %s\n", path.c_str(), line, reason);
    syslog(LOG_WARNING, "registry: %s:%zu: %s", path.c_str(), line, reason);
}

// The file's bytes and the state they were read in; a file that is missing, no regular file or too
// large is empty.
CFileState ReadWhole(const std::string& path, std::string* content) {
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (descriptor < 0) return {};
    struct stat status;
    CFileState state;
    if (fstat(descriptor, &status) == 0) {
        state = CFileState::Of(status);
        if (S_ISREG(status.st_mode) && status.st_size <= kMaxFileBytes) {
            content->resize(static_cast<size_t>(status.st_size));
            size_t used = 0;
            ssize_t got = 1;
            while (used < content->size() && got > 0) {
                got = read(descriptor, content->data() + used, content->size() - used);
                if (got > 0) used += static_cast<size_t>(got);
            }
            content->resize(used);
        } else {
            Report(path, 0, "not a regular file of at most 64 MiB");
        }
    }
    close(descriptor);
    return state;
}

// REQUIRES: the registry's lock.
Snapshot Build(const CRegistry& registry, const std::string& path) {
    auto made = std::make_shared<CSnapshot>();
    made->path = path;
    made->state = ReadWhole(path, &made->content);
    made->settled = !made->state.MayChangeUnseen();
    std::vector<CRegistryComplaint> complaints;
    if (!made->content.empty()) made->tree = ParseRegistryFile(made->content, &complaints);
    made->skippedLines = static_cast<DWORD>(complaints.size());
    const bool known = registry.current && registry.current->path == path &&
                       registry.current->content == made->content;
    for (size_t i = 0; i < complaints.size() && !known; ++i) {
        if (i == kMaxReports) {
            Report(path, complaints[i].line, "further lines are skipped without being named");
            break;
        }
        Report(path, complaints[i].line, complaints[i].reason);
    }
    for (const COverride& o : registry.overrides)
        made->tree.Make(o.key)[o.name] = o.value;
    return made;
}

Snapshot Current() {
    CRegistry& registry = Registry();
    std::string path;
    Snapshot current;
    {
        const std::lock_guard guard(registry.lock);
        path = PathInUse(registry);
        current = registry.current;
    }
    struct stat status;
    const CFileState state =
        stat(path.c_str(), &status) == 0 ? CFileState::Of(status) : CFileState{};
    if (current && current->settled && current->path == path && current->state == state)
        return current;
    const std::lock_guard guard(registry.lock);
    registry.current = Build(registry, PathInUse(registry));
    return registry.current;
}

class CKey final : public CObject {
public:
    static constexpr ObjectKind kKind = ObjectKind::RegistryKey;
    CKey(Snapshot snapshot, std::u16string path, const RegistryKeyValues* values)
        : CObject(kKind),
          m_snapshot(std::move(snapshot)),
          m_path(std::move(path)),
          m_values(values) {}
    const std::u16string& Path() const { return m_path; }
    const RegistryKeyValues& Values() const { return *m_values; }

private:
    const Snapshot m_snapshot;
    const std::u16string m_path;
    const RegistryKeyValues* const m_values;  // in the snapshot
};

// The path of one of the two predefined keys; null for any other.
const WCHAR* PredefinedPath(HKEY key) {
    if (key == HKEY_LOCAL_MACHINE) return TEXT("");
    if (key == HKEY_CLASSES_ROOT) return TEXT("software\\classes");
    return nullptr;
}

bool StartsWithKey(std::u16string_view path, std::u16string_view key) {
    return path.starts_with(key) && (path.size() == key.size() || path[key.size()] == u'\\');
}

std::u16string InView(std::u16string path, REGSAM rights) {
    constexpr std::u16string_view kSoftware = u"software";
    if ((rights & KEY_WOW64_32KEY) == 0 || !StartsWithKey(path, kSoftware) ||
        StartsWithKey(path, u"software\\wow6432node") ||
        StartsWithKey(path, u"software\\classes")) {
        return path;
    }
    return path.insert(kSoftware.size(), u"\\wow6432node");
}

// Calls `use` with the values of an open or predefined key.
template <class Use>
LSTATUS WithValues(HKEY key, Use use) {
    if (const WCHAR* path = PredefinedPath(key)) {
        const Snapshot snapshot = Current();
        const RegistryKeyValues* values = snapshot->tree.Find(path);
        return values ? use(*values) : ERROR_FILE_NOT_FOUND;
    }
    const CPin<CKey> pin(key);
    return pin ? use(pin->Values()) : ERROR_INVALID_HANDLE;
}

LSTATUS Deliver(DWORD value_type, const std::string& value, LPDWORD type, LPBYTE data,
                LPDWORD size) {
    if (type) *type = value_type;
    if (!size) return ERROR_SUCCESS;
    const DWORD room = *size;
    *size = static_cast<DWORD>(value.size());
    if (!data) return ERROR_SUCCESS;
    if (room < value.size()) return ERROR_MORE_DATA;
    std::memcpy(data, value.data(), value.size());
    return ERROR_SUCCESS;
}

LSTATUS Query(HKEY key, std::u16string_view name, LPDWORD reserved, LPDWORD type, LPBYTE data,
              LPDWORD size, bool narrow) {
    if (reserved || (data && !size)) return ERROR_INVALID_PARAMETER;
    return WithValues(key, [&](const RegistryKeyValues& values) -> LSTATUS {
        const auto found = values.find(LowerCase(name));
        if (found == values.end()) return ERROR_FILE_NOT_FOUND;
        const CRegistryValue& value = found->second;
        const bool text =
            value.type == REG_SZ || value.type == REG_EXPAND_SZ || value.type == REG_MULTI_SZ;
        if (!narrow || !text) return Deliver(value.type, value.data, type, data, size);
        std::u16string wide(value.data.size() / sizeof(WCHAR), u'\0');
        std::memcpy(wide.data(), value.data.data(), wide.size() * sizeof(WCHAR));
        return Deliver(value.type, ToUtf8(wide), type, data, size);
    });
}

constexpr REGSAM kKnownRights = KEY_ALL_ACCESS | KEY_WOW64_64KEY | KEY_WOW64_32KEY;

}  // namespace
}  // namespace posix

using namespace posix;

extern "C" {

LSTATUS RegOpenKeyExW(HKEY key, LPCWSTR sub_key, DWORD options, REGSAM rights, PHKEY result) {
    if (!result || options != 0 || (rights & ~kKnownRights) != 0 ||
        (rights & (KEY_WOW64_32KEY | KEY_WOW64_64KEY)) == (KEY_WOW64_32KEY | KEY_WOW64_64KEY)) {
        return ERROR_INVALID_PARAMETER;
    }
    std::u16string path;
    if (const WCHAR* predefined = PredefinedPath(key)) {
        path = predefined;
    } else {
        const CPin<CKey> pin(key);
        if (!pin) return ERROR_INVALID_HANDLE;
        path = pin->Path();
    }
    std::u16string sub = LowerCase(sub_key ? sub_key : TEXT(""));
    if (!sub.empty() && sub.front() == u'\\') return ERROR_BAD_PATHNAME;
    if (!sub.empty() && sub.back() == u'\\') sub.pop_back();
    if (!sub.empty() && !path.empty()) path += u'\\';
    path = InView(path + sub, rights);
    Snapshot snapshot = Current();
    const RegistryKeyValues* values = snapshot->tree.Find(path);
    if (!values) return ERROR_FILE_NOT_FOUND;
    const HANDLE handle = OpenHandle(new CKey(std::move(snapshot), std::move(path), values));
    if (!handle) return ERROR_NO_SYSTEM_RESOURCES;
    *result = reinterpret_cast<HKEY>(handle);
    return ERROR_SUCCESS;
}

LSTATUS RegQueryValueExW(HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data,
                         LPDWORD size) {
    return Query(key, name ? name : TEXT(""), reserved, type, data, size, false);
}

LSTATUS RegQueryValueExA(HKEY key, LPCSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data,
                         LPDWORD size) {
    return Query(key, ToUtf16(name ? name : ""), reserved, type, data, size, true);
}

LSTATUS RegCloseKey(HKEY key) {
    if (PredefinedPath(key)) return ERROR_SUCCESS;
    const CPin<CKey> pin(key);
    return pin && CloseObjectHandle(key) ? ERROR_SUCCESS : ERROR_INVALID_HANDLE;
}

void SetRegistryFile(const char* path) {
    CRegistry& registry = Registry();
    const std::lock_guard guard(registry.lock);
    registry.path = path ? path : "";
}

void RegistryFileInUse(char* path, DWORD size) {
    CRegistry& registry = Registry();
    const std::lock_guard guard(registry.lock);
    std::snprintf(path, size, "%s", PathInUse(registry).c_str());
}

bool OverrideRegistryValue(LPCWSTR key, LPCWSTR name, DWORD type, const void* data, DWORD size) {
    std::u16string path;
    bool outside;
    if (!key || !ParseRootedPath(key, &path, &outside)) return false;
    const std::u16string lower_name = LowerCase(name ? name : TEXT(""));
    CRegistry& registry = Registry();
    const std::lock_guard guard(registry.lock);
    std::erase_if(registry.overrides,
                  [&](const COverride& o) { return o.key == path && o.name == lower_name; });
    if (data) {
        registry.overrides.push_back(
            {path, lower_name, {type, std::string(static_cast<const char*>(data), size)}});
    }
    registry.current = nullptr;
    return true;
}

DWORD SkippedRegistryLines() {
    return Current()->skippedLines;
}

void VisitRegistryValues(void (*each)(void* context, LPCWSTR key, LPCWSTR name, DWORD type),
                         void* context) {
    const Snapshot snapshot = Current();
    const std::map keys(snapshot->tree.keys.begin(), snapshot->tree.keys.end());
    for (const auto& [key, values] : keys) {
        for (const auto& [name, value] : values)
            each(context, key.c_str(), name.c_str(), value.type);
    }
}

}  // extern "C"
