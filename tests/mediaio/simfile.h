// simfile.h: a file on a device that can lose power. What was written since the last sync may be
// there or not, sector by sector; calls can be made to fail; room can run out. One thread.
#pragma once

#include "mediaio/store/fileio.h"
#include "mediaio/store/mediafile.h"

#include <map>
#include <random>
#include <vector>

namespace simfile {

inline constexpr uint64_t kSector = 512;

// The device; outlives the files opened on it.
struct Device {
    std::vector<uint8_t> content;                     // what the system's cache shows
    std::map<uint64_t, std::vector<uint8_t>> before;  // sectors changed since the last sync
    uint64_t durableSize = 0;

    int callsLeft = -1;  // so many writes and syncs work, then the device is gone; -1: all
    bool dead = false;
    uint64_t capacity = ~0ull;  // bytes of the file's length
    uint64_t bytesRead = 0;
    uint64_t inode = 0;
    std::mt19937 random;

    // The power fails: every sector that was not synced is there with this probability.
    void LosePower(double kept);
    bool CountCall();
};

class CSimFile final : public zemstore::IStoreFile {
public:
    explicit CSimFile(Device& device) : m_device(device) {}
    HRESULT ReadAt(void* to, size_t size, uint64_t offset, size_t& done) override;
    HRESULT WriteAt(const zemstore::IoSpan* spans, size_t count, uint64_t offset,
                    size_t& done) override;
    HRESULT Sync() override;
    HRESULT Size(uint64_t& size) override;
    HRESULT SetSize(uint64_t size) override;
    HRESULT PunchHole(uint64_t offset, uint64_t size) override;
    HRESULT LockForWriting() override { return S_OK; }
    void UnlockForWriting() override {}
    bool Writable() const override { return true; }
    zemstore::FileIdentity Identity() const override { return {0, m_device.inode}; }
    bool Cached(uint64_t, size_t) override { return true; }
    void Prefetch(uint64_t, uint64_t) override {}
    void* MapView(uint64_t, size_t) override { return nullptr; }
    void UnmapView(void*) override {}

private:
    void Remember(uint64_t offset, uint64_t size);
    Device& m_device;
};

// A formatted, empty file on the device.
void FormatVideo(Device& device);

// Opens it as the store does, without threads of its own.
struct Opened {
    explicit Opened(Device& device)
        : file(new zemstore::CMediaFile(std::make_unique<CSimFile>(device), nullptr)),
          hr(file->Load()) {}
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;
    ~Opened() { file->Release(); }
    zemstore::CMediaFile* operator->() const { return file; }
    zemstore::CMediaFile* file;
    HRESULT hr;
};

// Frames that tell what they are: position and version in every eight bytes.
std::vector<uint8_t> FrameBytes(uint32_t position, uint32_t version, size_t size);
HRESULT WriteFrame(zemstore::CMediaFile& file, uint32_t position,
                   const std::vector<uint8_t>& bytes);
HRESULT ReadFrame(zemstore::CMediaFile& file, uint32_t position, std::vector<uint8_t>& bytes);

}  // namespace simfile
