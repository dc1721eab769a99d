// Everything the store asks of the operating system's files, as two interfaces. In
// production fileio_posix.cpp and volume_posix.cpp implement them, or their namesakes for Windows;
// tests put a device of their own under the store that loses, tears and refuses writes. Any thread,
// several at once on one file; the store itself keeps writes to one range apart.
#pragma once

#include "platform/platform.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#pragma GCC visibility push(default)

namespace zemstore {

struct IoSpan {
    const void* data;
    size_t size_bytes;
};

// Equal for two opens of one file, whatever names they used.
struct FileIdentity {
    uint64_t device;
    uint64_t inode;
    auto operator<=>(const FileIdentity&) const = default;
};

// One open regular file.
class IStoreFile {
public:
    virtual ~IStoreFile() = default;

    // `done` is less than size_bytes only at the file's end.
    virtual HRESULT ReadAt(void* to, size_t size_bytes, uint64_t offset_bytes, size_t& done) = 0;
    // Writes the spans one after another. On failure the first `done` bytes reached the file.
    // ERROR_DISK_FULL tells a full device from a broken one.
    virtual HRESULT WriteAt(const IoSpan* spans, size_t count, uint64_t offset_bytes,
                            size_t& done) = 0;
    // Returns when everything written before, the file's length included, is on the device.
    virtual HRESULT Sync() = 0;
    virtual HRESULT Size(uint64_t& size_bytes) = 0;
    // When it was last changed, in a unit and from a start of the system's own.
    virtual HRESULT ModifiedTime(uint64_t& time) {
        time = 0;
        return E_NOTIMPL;
    }
    virtual HRESULT SetSize(uint64_t size_bytes) = 0;
    // Whether bytes of the range that a view showed are still on their way to somebody, although
    // whoever was given the view is done with it: their place must not be given back yet.
    virtual bool IsBeingSent(uint64_t /*offset_bytes*/, uint64_t /*size_bytes*/) { return false; }
    // Before a hole: has the system forget the range's pages, and at its ends what it keeps in one
    // piece with them. False when somebody, a socket, may still hold such a piece: a hole would
    // clear a part of it under his hands. May take a millisecond.
    virtual bool LetGo(uint64_t /*offset_bytes*/, uint64_t /*size_bytes*/) { return true; }
    // Gives the range back to the file system; it reads as zeros. Not supported is a success.
    virtual HRESULT PunchHole(uint64_t offset_bytes, uint64_t size_bytes) = 0;

    // Keeps writers in other processes out; ERROR_SHARING_VIOLATION when one is there. Taking it
    // twice is harmless.
    virtual HRESULT LockForWriting() = 0;
    virtual void UnlockForWriting() = 0;
    virtual bool Writable() const = 0;
    virtual FileIdentity Identity() const = 0;

    // True when reading the range would not wait for the device. May be wrong for a moment.
    virtual bool Cached(uint64_t offset_bytes, size_t size_bytes) = 0;
    // Reads what needs no waiting for the device; returns how much that was.
    virtual size_t ReadCached(void* /*to*/, size_t /*size_bytes*/, uint64_t /*offset_bytes*/) {
        return 0;
    }
    // The first byte at or after the offset that is not in a hole; the file's size when there is
    // none. Not knowing holes is allowed.
    virtual uint64_t NextData(uint64_t offset_bytes) { return offset_bytes; }
    // Forgets what the system remembers of the file and is not waiting to be written: what is read
    // from now on is what the device has. As far as the system lets one.
    virtual void DropCache() {}
    // The system reads ahead of whoever reads in sequence: the store need not.
    virtual bool ReadsAhead() const { return false; }
    // From now on the system is to read what it is asked for and nothing else.
    virtual void StopReadAhead() {}
    virtual void ResumeReadAhead() {}
    // Pages of the file for somebody else to send; never touched here. Null when there are none.
    virtual void* MapView(uint64_t offset_bytes, size_t size_bytes) = 0;
    virtual void UnmapView(void* view) = 0;

    // The system's descriptor or handle for asynchronous I/O, or -1: then the calls above are used.
    virtual intptr_t Descriptor() const { return -1; }
};

enum class OpenFor { kRead, kReadIfPossibleWrite, kWrite };

// A directory tree. Paths are relative, UTF-8, `/` between components, already checked by
// ParseName; nothing reaches outside of the tree, whatever symbolic links say.
class IVolume {
public:
    virtual ~IVolume() = default;

    // Regular files only, anything else is E_ACCESSDENIED.
    virtual HRESULT Open(const std::string& path, OpenFor mode,
                         std::unique_ptr<IStoreFile>& file) = 0;
    // A new file without a name of its own yet, in the directory that will hold `path`; missing
    // directories are made. `temporary` receives what Publish needs.
    virtual HRESULT CreateUnpublished(const std::string& path, std::unique_ptr<IStoreFile>& file,
                                      std::string& temporary) = 0;
    // Gives it its name in one step. An existing file is replaced, or refused with
    // ERROR_FILE_EXISTS. On failure the temporary file is gone.
    virtual HRESULT Publish(const std::string& temporary, const std::string& path,
                            bool replace) = 0;
    virtual void Discard(const std::string& temporary) = 0;
    // Returns when the names in the directory of `path` are on the device.
    virtual HRESULT SyncDirectoryOf(const std::string& path) = 0;

    virtual HRESULT Delete(const std::string& path) = 0;
    virtual HRESULT Move(const std::string& from, const std::string& to) = 0;
    virtual HRESULT MakeDirectory(const std::string& path) = 0;
    virtual HRESULT Attributes(const std::string& path, DWORD& attributes) = 0;
    virtual HRESULT FileSize(const std::string& path, uint64_t& size_bytes) = 0;
    virtual HRESULT Identity(const std::string& path, FileIdentity& identity) = 0;
    virtual HRESULT Space(const std::string& path, uint64_t& total_bytes, uint64_t& free_bytes) = 0;
};

// The directory `root` (UTF-8, absolute) as a volume; ERROR_PATH_NOT_FOUND when there is none.
HRESULT OpenVolume(const std::string& root, std::shared_ptr<IVolume>& volume);

// Bytes that nobody can guess.
HRESULT RandomBytes(void* to, size_t size_bytes);

// Whether an environment variable is set to anything but the empty string.
bool EnvironmentFlag(const char* name);

}  // namespace zemstore

#pragma GCC visibility pop
