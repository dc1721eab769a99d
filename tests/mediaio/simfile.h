// A file on a device that can lose power. What was written since the last sync may be
// there or not, call by call and sector by sector, in any order; the Nth call of a kind fails when
// it is told to; room can run out; a failed sync loses what it could not write. One thread.
#pragma once

#include "mediaio/store/fileio.h"
#include "mediaio/store/mediafile.h"

#include <array>
#include <random>
#include <vector>

namespace simfile {

inline constexpr uint64_t kSector = 512;

enum class Call { kRead, kWrite, kSync, kSetSize, kPunch };
inline constexpr size_t kCalls = 5;

// Which of the unsynced writes a power cut leaves. Sizes count as writes.
enum class Cut {
    kNothing,     // none
    kEverything,  // all
    kPrefix,      // those before some call, and of that call the sectors before some sector
    kWholeCalls,  // any of the calls, each whole
    kTornCalls,   // any of the calls, each torn in two at some sector, either part may be lost
    kSectors,     // any sectors of any calls
    kLateFirst,   // the last calls and not the ones before
    kOtherOrder,  // any sectors of any calls, and where calls overlap the earlier one may win
};
inline constexpr unsigned kCuts = 8;

// The Nth call of a kind from now on (0: the next) fails once.
struct Fault {
    Call call;
    uint32_t countdown;
    HRESULT error;
};

// The device; outlives the files opened on it.
struct Device {
    struct Write {
        bool isSize;      // the file's length became `offset`
        uint64_t offset;  // else these bytes went here
        std::vector<uint8_t> bytes;
    };
    std::vector<uint8_t> content;  // what the system shows
    std::vector<uint8_t> durable;  // what is on the device for certain
    std::vector<Write> pending;    // written and not synced, in their order

    int callsLeft = -1;  // so many calls that change something work, then all is over; -1: all
    bool dead = false;
    std::vector<Fault> faults;
    uint32_t faultsHit = 0;
    uint32_t syncsFailed = 0;
    uint32_t writesWithoutRoom = 0;
    uint64_t capacity = ~0ull;  // bytes of the file's length; what is punched is room again
    std::array<uint64_t, kCalls> calls{};
    uint64_t bytesRead = 0;
    uint64_t inode = 0;
    const void* writer = nullptr;         // who holds the lock
    uint64_t sentBegin = 0, sentEnd = 0;  // bytes that are on their way to somebody
    uint64_t keptBegin = 0, keptEnd = 0;  // bytes that the system does not let go of
    uint64_t largestHole = 0;
    std::mt19937 random;

    void LosePower(Cut cut);
    void LosePower(double kept);  // each sector with this probability
    // What the system remembers and has nothing to write for is read from the device again.
    void Evict();

    // For CSimFile.
    HRESULT Admit(Call call);
    void Change(uint64_t offset, std::vector<uint8_t> bytes);
    void Resize(uint64_t size);
    void Settle();
    void FailSync();

private:
    void Apply(std::vector<uint8_t>& to, const Write& write, double probability);
    bool Likely(double probability) {
        if (probability <= 0 || probability >= 1) return probability > 0;
        return std::bernoulli_distribution(probability)(random);
    }
};

class CSimFile : public zemstore::IStoreFile {
public:
    explicit CSimFile(Device& device) : m_device(device) {}
    ~CSimFile() override { UnlockForWriting(); }
    HRESULT ReadAt(void* to, size_t size, uint64_t offset, size_t& done) override;
    HRESULT WriteAt(const zemstore::IoSpan* spans, size_t count, uint64_t offset,
                    size_t& done) override;
    HRESULT Sync() override;
    HRESULT Size(uint64_t& size) override;
    HRESULT SetSize(uint64_t size) override;
    bool IsBeingSent(uint64_t offset, uint64_t size) override {
        return offset < m_device.sentEnd && m_device.sentBegin < offset + size;
    }
    bool LetGo(uint64_t offset, uint64_t size) override {
        return offset >= m_device.keptEnd || m_device.keptBegin >= offset + size;
    }
    HRESULT PunchHole(uint64_t offset, uint64_t size) override;
    HRESULT LockForWriting() override;
    void UnlockForWriting() override;
    bool Writable() const override { return true; }
    zemstore::FileIdentity Identity() const override { return {0, m_device.inode}; }
    bool Cached(uint64_t, size_t) override { return true; }
    uint64_t NextData(uint64_t offset) override;  // a page of zeros is a hole
    void DropCache() override { m_device.Evict(); }
    void* MapView(uint64_t, size_t) override { return nullptr; }
    void UnmapView(void*) override {}

private:
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
// A frame of a special stream: a description and no data.
HRESULT WriteDescription(zemstore::CMediaFile& file, uint32_t position, uint32_t version);
// As the store reads: what was compared with its checksum before is believed.
HRESULT ReadFrame(zemstore::CMediaFile& file, uint32_t position, std::vector<uint8_t>& bytes);

}  // namespace simfile
