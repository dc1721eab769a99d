// A volume in memory for fuzz targets: files by name, no directories, no links. Any thread.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include "mediaio/store/fileio.h"

namespace fuzz {

struct MemoryFile {
    std::mutex lock;  // guards the bytes
    std::vector<uint8_t> bytes;
    uint64_t inode = 0;
};

class CMemoryFile final : public zemstore::IStoreFile {
public:
    explicit CMemoryFile(std::shared_ptr<MemoryFile> file) : m_file(std::move(file)) {}

    HRESULT ReadAt(void* to, size_t size, uint64_t offset, size_t& done) override {
        const std::lock_guard hold(m_file->lock);
        const std::vector<uint8_t>& bytes = m_file->bytes;
        done = offset < bytes.size() ? std::min<uint64_t>(size, bytes.size() - offset) : 0;
        if (done > 0) std::memcpy(to, bytes.data() + offset, done);
        return S_OK;
    }
    HRESULT WriteAt(const zemstore::IoSpan* spans, size_t count, uint64_t offset,
                    size_t& done) override {
        const std::lock_guard hold(m_file->lock);
        done = 0;
        for (size_t i = 0; i < count; ++i) {
            const size_t end = offset + done + spans[i].size_bytes;
            if (end > m_file->bytes.size()) m_file->bytes.resize(end);
            if (spans[i].size_bytes > 0) {
                std::memcpy(m_file->bytes.data() + offset + done, spans[i].data,
                            spans[i].size_bytes);
            }
            done += spans[i].size_bytes;
        }
        return S_OK;
    }
    HRESULT Sync() override { return S_OK; }
    HRESULT Size(uint64_t& size) override {
        const std::lock_guard hold(m_file->lock);
        size = m_file->bytes.size();
        return S_OK;
    }
    HRESULT ModifiedTime(uint64_t& time) override {
        time = 1;
        return S_OK;
    }
    HRESULT SetSize(uint64_t size) override {
        const std::lock_guard hold(m_file->lock);
        m_file->bytes.resize(size);
        return S_OK;
    }
    HRESULT PunchHole(uint64_t, uint64_t) override { return S_OK; }
    HRESULT LockForWriting() override { return S_OK; }
    void UnlockForWriting() override {}
    bool Writable() const override { return true; }
    zemstore::FileIdentity Identity() const override { return {1, m_file->inode}; }
    bool Cached(uint64_t, size_t) override { return true; }
    void* MapView(uint64_t, size_t) override { return nullptr; }
    void UnmapView(void*) override {}

private:
    const std::shared_ptr<MemoryFile> m_file;
};

class CMemoryVolume final : public zemstore::IVolume {
public:
    void Put(const std::string& path, std::vector<uint8_t> bytes) {
        Make(path)->bytes = std::move(bytes);
    }

    HRESULT Open(const std::string& path, zemstore::OpenFor,
                 std::unique_ptr<zemstore::IStoreFile>& file) override {
        const std::shared_ptr<MemoryFile> found = Find(path);
        if (!found) return kMissing;
        file = std::make_unique<CMemoryFile>(found);
        return S_OK;
    }
    HRESULT CreateUnpublished(const std::string& path, std::unique_ptr<zemstore::IStoreFile>& file,
                              std::string& temporary) override {
        temporary = path + ".new";
        file = std::make_unique<CMemoryFile>(Make(temporary));
        return S_OK;
    }
    HRESULT Publish(const std::string& temporary, const std::string& path, bool) override {
        return Move(temporary, path);
    }
    void Discard(const std::string& temporary) override { Delete(temporary); }
    HRESULT SyncDirectoryOf(const std::string&) override { return S_OK; }
    HRESULT Delete(const std::string& path) override {
        const std::lock_guard hold(m_lock);
        return m_files.erase(path) != 0 ? S_OK : kMissing;
    }
    HRESULT Move(const std::string& from, const std::string& to) override {
        const std::lock_guard hold(m_lock);
        const auto found = m_files.find(from);
        if (found == m_files.end()) return kMissing;
        m_files[to] = found->second;
        m_files.erase(from);
        return S_OK;
    }
    HRESULT MakeDirectory(const std::string&) override { return E_NOTIMPL; }
    HRESULT Attributes(const std::string&, DWORD&) override { return E_NOTIMPL; }
    HRESULT FileSize(const std::string& path, uint64_t& size) override {
        const std::shared_ptr<MemoryFile> found = Find(path);
        return found ? CMemoryFile(found).Size(size) : kMissing;
    }
    HRESULT Identity(const std::string&, zemstore::FileIdentity&) override { return E_NOTIMPL; }
    HRESULT Space(const std::string&, uint64_t&, uint64_t&) override { return E_NOTIMPL; }

private:
    static constexpr HRESULT kMissing = HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
    std::shared_ptr<MemoryFile> Find(const std::string& path) {
        const std::lock_guard hold(m_lock);
        const auto found = m_files.find(path);
        return found == m_files.end() ? nullptr : found->second;
    }
    std::shared_ptr<MemoryFile> Make(const std::string& path) {
        static std::atomic<uint64_t> inodes{0};
        const std::lock_guard hold(m_lock);
        auto made = std::make_shared<MemoryFile>();
        made->inode = ++inodes;
        m_files[path] = made;
        return made;
    }

    std::mutex m_lock;  // guards the map
    std::map<std::string, std::shared_ptr<MemoryFile>> m_files;
};

}  // namespace fuzz
