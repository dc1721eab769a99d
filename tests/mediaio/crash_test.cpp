// Thousands of seeded crashes: whatever call the power or the process ends in, the file opens,
// every flushed frame is whole, and no frame is ever torn or older than what was flushed.
#include "seeded.h"
#include "simfile.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>

namespace {

using namespace simfile;
using namespace zemstore;

constexpr uint32_t kPositions = 24;

// One state that a position may be found in. Version 0 is a hole, kErased an erased frame.
constexpr uint32_t kErasedVersion = 0xFFFFFFFF;

struct Version {
    uint32_t number = 0;
    size_t size = 0;
    bool operator<(const Version& other) const { return number < other.number; }
};

struct Model {
    // What the position may hold after a power cut: the flushed state and everything since.
    std::set<Version> possible[kPositions];
    Version now[kPositions];
    uint32_t nextVersion = 1;

    Model() {
        for (auto& states : possible)
            states.insert(Version{});
    }
    void Wrote(uint32_t position, Version version) {
        now[position] = version;
        possible[position].insert(version);
    }
    void Flushed() {
        for (uint32_t i = 0; i < kPositions; ++i)
            possible[i] = {now[i]};
    }
};

class CCrashRun {
public:
    explicit CCrashRun(uint32_t seed) : m_random(seed) {
        m_device.random.seed(seed * 2654435761u + 1);
        m_device.inode = seed;
        FormatVideo(m_device);
    }
    void Run() {
        for (int life = 0; life < 4 && !testing::Test::HasFatalFailure(); ++life)
            Life();
    }

private:
    uint32_t Below(uint32_t limit) { return m_random() % limit; }

    void Life() {
        Opened file(m_device);
        ASSERT_EQ(file.hr, S_OK) << "the file always opens";
        ASSERT_NO_FATAL_FAILURE(Verify(*file.file));
        if (FAILED(file->BeginWriting())) return;
        m_device.callsLeft = static_cast<int>(Below(40));
        bool closed = false;
        for (uint32_t step = 0; step < 60 && !m_device.dead && !closed; ++step)
            closed = Step(*file.file);
        const bool power = Below(3) != 0;
        if (power) {
            static constexpr double kKept[] = {0.0, 0.1, 0.5, 0.9, 1.0};
            m_device.LosePower(kKept[Below(5)]);
        } else {
            // The process is gone, the system is not: what was written is there.
            m_device.dead = false;
            m_device.callsLeft = -1;
        }
        m_power = power;
    }

    // True when the writer closed the file and all is durable.
    bool Step(CMediaFile& file) {
        const uint32_t what = Below(100);
        if (what < 60) {
            Write(file);
        } else if (what < 68) {
            const uint32_t first = Below(kPositions);
            const uint32_t end = first + 1 + Below(kPositions - first);
            Erase(file, first, end);
        } else if (what < 84) {
            if (SUCCEEDED(file.Flush())) m_model.Flushed();
        } else if (what < 97) {
            if (SUCCEEDED(file.Checkpoint())) m_model.Flushed();
        } else if (SUCCEEDED(file.EndWriting())) {
            m_model.Flushed();
            return true;
        } else {
            return true;
        }
        return false;
    }

    void Write(CMediaFile& file) {
        const uint32_t position = Below(kPositions);
        const Version version{m_model.nextVersion++, Below(8) == 0 ? 8 : Below(20000) + 8};
        const HRESULT hr =
            WriteFrame(file, position, FrameBytes(position, version.number, version.size));
        if (SUCCEEDED(hr)) {
            m_model.Wrote(position, version);
        } else {
            // Not acknowledged: it may have become whole all the same.
            m_model.possible[position].insert(version);
            m_unsure[position].insert(version);
        }
    }

    void Erase(CMediaFile& file, uint32_t first, uint32_t end) {
        const bool done = SUCCEEDED(file.Erase(first, end));
        for (uint32_t i = first; i < end; ++i) {
            if (m_model.now[i].number == 0 || m_model.now[i].number == kErasedVersion) {
                // An erased hole stays a hole; what an unacknowledged write may have left is gone.
                for (const Version& version : m_unsure[i])
                    if (version.number != 0) m_model.possible[i].insert({kErasedVersion, 0});
                continue;
            }
            if (done) {
                m_model.Wrote(i, {kErasedVersion, 0});
            } else {
                m_model.possible[i].insert({kErasedVersion, 0});
                m_unsure[i].insert({kErasedVersion, 0});
            }
        }
        if (done) m_model.Flushed();
    }

    void Verify(CMediaFile& file) {
        for (uint32_t i = 0; i < kPositions; ++i) {
            std::vector<uint8_t> bytes;
            const HRESULT hr = ReadFrame(file, i, bytes);
            Version found;
            if (hr == kErrorFrameErased) {
                found = {kErasedVersion, 0};
            } else if (hr == kErrorFrameHole || hr == HRESULT_FROM_WIN32(ERROR_END_OF_MEDIA)) {
                found = {};
            } else {
                ASSERT_EQ(hr, S_OK) << "position " << i;
                found = Identify(i, bytes);
                ASSERT_NE(found.number, 0u)
                    << "a torn frame at position " << i << ", " << bytes.size() << " bytes, "
                    << m_model.possible[i].size();
            }
            std::set<Version> allowed = m_power ? m_model.possible[i] : m_unsure[i];
            if (!m_power) allowed.insert(m_model.now[i]);
            ASSERT_TRUE(allowed.contains(found))
                << "position " << i << " holds version " << found.number << " after "
                << (m_power ? "a power cut" : "a killed process") << ", last written "
                << m_model.now[i].number;
            m_model.now[i] = found;
            // What a killed process left is in the system's cache; the power may still go.
            if (m_power) m_model.possible[i].clear();
            m_model.possible[i].insert(found);
            m_unsure[i].clear();
        }
    }

    Version Identify(uint32_t position, const std::vector<uint8_t>& bytes) const {
        for (const Version& version : m_model.possible[position])
            if (version.number != 0 && version.number != kErasedVersion &&
                version.size == bytes.size() &&
                FrameBytes(position, version.number, version.size) == bytes)
                return version;
        return {};
    }

    CRandom m_random;
    Device m_device;
    Model m_model;
    std::set<Version> m_unsure[kPositions];
    bool m_power = false;
};

// ZEM_CRASH_SEEDS: how many; ZEM_CRASH_FIRST: the first one, to look at a failure again.
uint32_t FromEnvironment(const char* name, uint32_t otherwise) {
    const char* value = getenv(name);
    return value == nullptr ? otherwise : static_cast<uint32_t>(strtoul(value, nullptr, 10));
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr uint32_t kSeeds = 200;
#else
constexpr uint32_t kSeeds = 3000;
#endif

TEST(Crash, EveryFlushedFrameSurvivesAndNoneIsTorn) {
    const uint32_t first = FromEnvironment("ZEM_CRASH_FIRST", std::random_device{}() >> 1);
    const uint32_t count = FromEnvironment("ZEM_CRASH_SEEDS", kSeeds);
    for (uint32_t i = 0; i < count; ++i) {
        SCOPED_TRACE(testing::Message() << "ZEM_CRASH_FIRST=" << first + i);
        CCrashRun(first + i).Run();
        if (HasFailure()) return;
    }
}

TEST(Crash, FullDeviceFailsTheWriteAndNothingElse) {
    for (uint32_t seed = 1; seed <= 400; ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        CRandom random(seed);
        Device device;
        FormatVideo(device);
        device.capacity = kLogOffset + random() % 200000;
        std::map<uint32_t, std::vector<uint8_t>> written;
        {
            Opened file(device);
            ASSERT_EQ(file.hr, S_OK);
            ASSERT_EQ(file->BeginWriting(), S_OK);
            uint32_t failed = 0;
            for (uint32_t i = 0; i < 60; ++i) {
                const auto bytes = FrameBytes(i, seed, random() % 20000);
                const HRESULT hr = WriteFrame(*file.file, i, bytes);
                if (SUCCEEDED(hr)) {
                    written[i] = bytes;
                } else {
                    ASSERT_EQ(hr, HRESULT_FROM_WIN32(ERROR_DISK_FULL));
                    ++failed;
                }
                if (random() % 16 == 0) file->Checkpoint();
            }
            EXPECT_GT(failed, 0u);
            std::vector<uint8_t> back;
            for (const auto& [position, bytes] : written) {
                ASSERT_EQ(ReadFrame(*file.file, position, back), S_OK);
                ASSERT_EQ(back, bytes);
            }
            if (random() % 2 == 0) {  // room again: the file goes on
                device.capacity = ~0ull;
                const auto bytes = FrameBytes(100, seed, 5000);
                ASSERT_EQ(WriteFrame(*file.file, 100, bytes), S_OK);
                written[100] = bytes;
            }
            ASSERT_EQ(file->EndWriting(), S_OK) << "closing needs no room";
        }
        device.LosePower(0.5);
        Opened again(device);
        ASSERT_EQ(again.hr, S_OK);
        std::vector<uint8_t> back;
        for (const auto& [position, bytes] : written) {
            ASSERT_EQ(ReadFrame(*again.file, position, back), S_OK) << position;
            ASSERT_EQ(back, bytes);
        }
    }
}

TEST(Crash, RecoveryReadsTheTailAndNotTheFile) {
    Device device;
    FormatVideo(device);
    constexpr size_t kFrame = 100000;
    {
        Opened file(device);
        ASSERT_EQ(file->BeginWriting(), S_OK);
        for (uint32_t i = 0; i < 600; ++i)
            ASSERT_EQ(WriteFrame(*file.file, i, FrameBytes(i, 1, kFrame)), S_OK);
        ASSERT_EQ(file->Checkpoint(), S_OK);
        for (uint32_t i = 600; i < 610; ++i)
            ASSERT_EQ(WriteFrame(*file.file, i, FrameBytes(i, 1, kFrame)), S_OK);
        ASSERT_EQ(file->Flush(), S_OK);
    }
    device.LosePower(0);
    device.bytesRead = 0;
    Opened file(device);
    ASSERT_EQ(file.hr, S_OK);
    EXPECT_EQ(file->FrameCount(), 610u);
    EXPECT_EQ(file->OpenReport().tailRecords, 10u);
    EXPECT_LT(device.bytesRead, 10 * kFrame * 2 + (size_t{1} << 20));
}

TEST(Crash, TheTailIsEndedByItselfAsTheFileGrows) {
    Device device;
    FormatVideo(device);
    Opened file(device);
    ASSERT_EQ(file->BeginWriting(), S_OK);
    for (uint32_t i = 0; i < 5000; ++i)
        ASSERT_EQ(WriteFrame(*file.file, i, FrameBytes(i, 1, 100)), S_OK);
    Opened other(device);  // as after a kill
    ASSERT_EQ(other.hr, S_OK);
    EXPECT_EQ(other->FrameCount(), 5000u);
    EXPECT_LE(other->OpenReport().tailRecords, 1024u);
}

TEST(Crash, AfterAFailedSyncNothingIsPromised) {
    Device device;
    FormatVideo(device);
    Opened file(device);
    ASSERT_EQ(file->BeginWriting(), S_OK);
    ASSERT_EQ(WriteFrame(*file.file, 0, FrameBytes(0, 1, 1000)), S_OK);
    device.callsLeft = 0;
    EXPECT_EQ(file->Flush(), HRESULT_FROM_WIN32(ERROR_IO_DEVICE));
    device.dead = false;
    device.callsLeft = -1;
    EXPECT_EQ(file->Flush(), HRESULT_FROM_WIN32(ERROR_IO_DEVICE)) << "a second try does not lie";
    EXPECT_EQ(WriteFrame(*file.file, 1, FrameBytes(1, 1, 1000)),
              HRESULT_FROM_WIN32(ERROR_IO_DEVICE));
    EXPECT_EQ(file->EndWriting(), HRESULT_FROM_WIN32(ERROR_IO_DEVICE));
}

}  // namespace
