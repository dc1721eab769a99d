// Thousands of seeded crashes: whatever call the power or the process ends in, whatever the device
// kept, the file opens, every flushed frame is whole, no frame is torn or older than what was
// flushed, and the file goes on.
#include "seeded.h"
#include "simfile.h"

#include "apps/zemfsck/print.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <utility>

namespace {

using namespace simfile;
using namespace zemstore;

// Near each other, in other leaves, under other branches, and the last one there can be. The last
// four are frames of a special stream, which are a description and no data.
constexpr uint32_t kPositions[] = {
    0,  1,  2,  3,  4,  5,  6,   7,    8,          9,          10,         11,
    12, 13, 14, 63, 64, 65, 999, 8191, 0x00100000, 0x07FFFFFF, 0x08000000, kLastPosition};
constexpr uint32_t kCount = sizeof kPositions / sizeof kPositions[0];
constexpr uint32_t kFirstSpecial = kCount - 4;

// One state that a position may be found in. Version 0 is a hole, kErased an erased frame.
constexpr uint32_t kErased = 0xFFFFFFFF;
using Version = uint32_t;

// The size and the bytes follow from the version, so that what is found can be told.
size_t SizeOf(Version version) {
    CRandom random(version);
    return random() % 8 == 0 ? 8 : random() % 20000 + 8;
}

const HRESULT kBadFrame = HRESULT_FROM_WIN32(ERROR_CRC);
const HRESULT kBroken = HRESULT_FROM_WIN32(ERROR_IO_DEVICE);
const HRESULT kFull = HRESULT_FROM_WIN32(ERROR_DISK_FULL);

Version Find(CMediaFile& file, uint32_t index, HRESULT& hr) {
    const uint32_t position = kPositions[index];
    std::vector<uint8_t> bytes(kDescriptionSize);
    if (index >= kFirstSpecial) {
        uint8_t description[kDescriptionSize];
        hr = file.Description(position, description);
        if (SUCCEEDED(hr)) std::copy_n(description, kDescriptionSize, bytes.begin());
    } else {
        hr = ReadFrame(file, position, bytes);
    }
    if (hr == kErrorFrameErased) return kErased;
    if (FAILED(hr)) return 0;
    const Version version = static_cast<Version>(bytes[0] | bytes[1] << 8 | bytes[2] << 16);
    const size_t size = index >= kFirstSpecial ? kDescriptionSize : SizeOf(version);
    return FrameBytes(position, version, size) == bytes ? version : 0;
}

struct Totals {
    uint64_t powerCuts = 0;
    uint64_t kills = 0;
    uint64_t failedSyncs = 0;
    uint64_t failedCalls = 0;
    uint64_t withoutRoom = 0;
    uint64_t tornRecords = 0;
    uint64_t tailRecords = 0;
    uint64_t framesChecked = 0;
};

// What each position may hold: what was flushed last and everything since.
class CModel {
public:
    CModel() {
        for (auto& states : m_possible)
            states.insert(0);
    }
    Version Next() { return m_next++; }
    Version Now(uint32_t index) const { return m_now[index]; }
    bool Sure(uint32_t index) const { return m_unsure[index].empty(); }
    void Wrote(uint32_t index, Version version) {
        m_now[index] = version;
        m_possible[index].insert(version);
    }
    // Not acknowledged: it may be there all the same.
    void Tried(uint32_t index, Version version) {
        m_possible[index].insert(version);
        m_unsure[index].insert(version);
    }
    void Flushed() {
        for (uint32_t i = 0; i < kCount; ++i)
            m_possible[i] = {m_now[i]};
        m_possibleMarks = {m_marks};
    }
    void Erased(uint32_t index, bool done) {
        if (m_now[index] == 0 || m_now[index] == kErased) {
            // An erased hole stays a hole; what an unacknowledged write may have left is gone.
            if (!m_unsure[index].empty()) Tried(index, kErased);
        } else if (done) {
            Wrote(index, kErased);
        } else {
            Tried(index, kErased);
        }
    }
    void Marked(uint32_t mark, bool done) {
        m_possibleMarks.insert(mark);
        if (done)
            m_marks = mark;
        else
            m_unsureMarks.insert(mark);
    }
    // `lost`: unsynced writes may be gone. `kept`: what is found is on the device.
    void Found(uint32_t index, Version found, bool lost, bool kept) {
        const bool known = lost ? m_possible[index].contains(found)
                                : found == m_now[index] || m_unsure[index].contains(found);
        ASSERT_TRUE(known) << "position " << kPositions[index] << " holds version " << found
                           << (lost ? " after unsynced writes were lost" : " after a kill")
                           << ", last written " << m_now[index];
        m_now[index] = found;
        if (kept) m_possible[index].clear();
        m_possible[index].insert(found);
        m_unsure[index].clear();
    }
    void FoundMarks(uint32_t mark, bool lost, bool kept) {
        const bool known =
            lost ? m_possibleMarks.contains(mark) : mark == m_marks || m_unsureMarks.contains(mark);
        ASSERT_TRUE(known) << "mark " << mark << ", last set " << m_marks;
        m_marks = mark;
        if (kept) m_possibleMarks.clear();
        m_possibleMarks.insert(mark);
        m_unsureMarks.clear();
    }

private:
    std::set<Version> m_possible[kCount];
    std::set<Version> m_unsure[kCount];
    Version m_now[kCount] = {};
    Version m_next = 1;
    uint32_t m_marks = kMarkUnset;
    std::set<uint32_t> m_possibleMarks{kMarkUnset};
    std::set<uint32_t> m_unsureMarks;
};

enum class Ending { kPowerCut, kKill, kRestart };

// How one life of the file goes wrong.
struct Plan {
    int callsLeft = -1;         // the machine or the process ends in this call; -1: later
    std::vector<Fault> faults;  // and these calls fail before
    bool checkpointFirst = false;
    uint64_t room_bytes = ~0ull;  // of the device, beside what the file has
    int cut = -1;                 // what a power cut leaves; -1: by chance, as whether there is one
};

// A file through some lives, each of which ends badly.
class CCrashRun {
public:
    CCrashRun(uint32_t seed, Totals& totals) : m_random(seed), m_totals(totals) {
        m_device.random.seed(seed * 2654435761u + 1);
        m_device.inode = seed;
        FormatVideo(m_device);
    }
    void Run() {
        for (int life = 0; life < 4; ++life) {
            Plan plan;
            plan.checkpointFirst = Below(4) == 0;
            // Another crash while the first one's traces are being put in order.
            plan.callsLeft = static_cast<int>(Below(plan.checkpointFirst ? 6 : 60));
            if (!plan.checkpointFirst) plan.faults = SomeFaults();
            if (Below(3) == 0) {
                plan.room_bytes = Below(120000);
                if (Below(2) == 0) plan.callsLeft = -1;  // long enough to fill it
            }
            ASSERT_NO_FATAL_FAILURE(OpenThroughReadErrors());
            ASSERT_NO_FATAL_FAILURE(Life(plan));
        }
        ASSERT_NO_FATAL_FAILURE(LastLife());
    }
    // A life that goes well, one that ends as planned, and one that must go well. False when the
    // plan lay beyond the life's end.
    bool RunOnce(const Plan& plan) {
        RunAll({Plan{}, plan});
        return m_planMet;
    }

private:
    uint32_t Below(uint32_t limit) { return m_random() % limit; }

    void RunAll(const std::vector<Plan>& plans) {
        for (const Plan& plan : plans)
            ASSERT_NO_FATAL_FAILURE(Life(plan));
        ASSERT_NO_FATAL_FAILURE(LastLife());
    }

    // Whatever a crash leaves is in order; a file that was closed wastes no space either.
    void CheckWhole(bool closed = false) {
        zemfsck::Report report;
        ASSERT_EQ(zemfsck::Check(std::make_unique<CSimFile>(m_device), report), S_OK);
        ASSERT_EQ(report.damages, 0u) << zemfsck::AsText("the file", report);
        if (!closed) return;
        ASSERT_EQ(report.deadBytes, 0u) << zemfsck::AsText("the file", report);
    }

    void Life(const Plan& plan) {
        ASSERT_NO_FATAL_FAILURE(CheckWhole());
        Opened file(m_device);
        ASSERT_EQ(file.hr, S_OK) << "the file always opens";
        m_totals.tornRecords += file->OpenReport().tornRecords;
        m_totals.tailRecords += file->OpenReport().tailRecords;
        ASSERT_NO_FATAL_FAILURE(Verify(*file.file));
        ASSERT_EQ(file->BeginWriting(), S_OK) << "and can be written";
        m_failed = false;
        m_device.callsLeft = plan.callsLeft;
        m_device.faults = plan.faults;
        if (plan.room_bytes != ~0ull) m_device.capacity = m_device.content.size() + plan.room_bytes;
        if (plan.checkpointFirst) Took(file->Checkpoint());
        bool closed = false;
        for (uint32_t step = 0; step < 60 && !m_device.dead && !m_failed && !closed; ++step)
            ASSERT_NO_FATAL_FAILURE(closed = Step(*file.file));
        ASSERT_NO_FATAL_FAILURE(LetGo(*file.file));
        if (!m_device.dead && !closed && Below(2) == 0) Took(file->EndWriting());
        m_planMet = m_device.dead || m_device.faultsHit != 0;
        End(plan.cut);
    }

    void End(int cut) {
        const bool lost = m_failed || m_device.syncsFailed != m_syncsSeen;
        m_syncsSeen = m_device.syncsFailed;
        m_totals.failedSyncs += lost ? 1 : 0;
        m_totals.failedCalls += m_device.faultsHit;
        m_device.faultsHit = 0;
        m_totals.withoutRoom += std::exchange(m_device.writesWithoutRoom, 0);
        m_device.faults.clear();
        m_device.dead = false;
        m_device.callsLeft = -1;
        m_device.capacity = ~0ull;
        m_device.writer = nullptr;
        if (cut >= 0 || Below(3) != 0) {
            m_ending = Ending::kPowerCut;
            m_device.LosePower(cut >= 0 ? static_cast<Cut>(cut) : static_cast<Cut>(Below(kCuts)));
            ++m_totals.powerCuts;
        } else {
            // The process is gone, the system is not: what was written is there, unless the system
            // failed to write it.
            m_ending = lost ? Ending::kRestart : Ending::kKill;
            ++m_totals.kills;
        }
    }

    void LastLife() {
        {
            Opened file(m_device);
            ASSERT_EQ(file.hr, S_OK);
            ASSERT_NO_FATAL_FAILURE(Verify(*file.file));
            ASSERT_EQ(file->BeginWriting(), S_OK);
            for (uint32_t i = 0; i < kCount; i += 3)
                Write(*file.file, i);
            ASSERT_EQ(file->Flush(), S_OK);
            m_model.Flushed();
        }
        m_device.LosePower(Cut::kNothing);
        m_ending = Ending::kPowerCut;
        ASSERT_NO_FATAL_FAILURE(CheckWhole());
        {
            Opened file(m_device);
            ASSERT_EQ(file.hr, S_OK);
            ASSERT_NO_FATAL_FAILURE(Verify(*file.file));
            ASSERT_EQ(file->BeginWriting(), S_OK);
            ASSERT_EQ(file->EndWriting(), S_OK);
        }
        ASSERT_NO_FATAL_FAILURE(CheckWhole(true));
        Opened file(m_device);
        ASSERT_EQ(file.hr, S_OK);
        ASSERT_NO_FATAL_FAILURE(Verify(*file.file));
    }

    std::vector<Fault> SomeFaults() {
        static constexpr Call kFaulty[] = {Call::kWrite, Call::kWrite, Call::kSync, Call::kSetSize,
                                           Call::kPunch};
        std::vector<Fault> faults;
        for (uint32_t n = Below(4); n > 1; --n) {
            const Call call = kFaulty[Below(5)];
            faults.push_back(
                {call, Below(call == Call::kWrite ? 20 : 6), Below(2) == 0 ? kBroken : kFull});
        }
        return faults;
    }

    // While the device does not read, the file does not open; and that leaves no trace.
    void OpenThroughReadErrors() {
        if (Below(4) != 0) return;
        m_device.faults = {{Call::kRead, Below(12), kBroken}};
        const uint32_t before = m_device.faultsHit;
        {
            Opened file(m_device);
            const bool hit = m_device.faultsHit != before;
            ASSERT_EQ(file.hr, hit ? kBroken : S_OK);
        }
        m_device.faults.clear();
    }

    // True when the writer closed the file and all is durable.
    bool Step(CMediaFile& file) {
        const uint32_t what = Below(100);
        if (what < 50) {
            Write(file, Below(kCount));
        } else if (what < 57) {
            const uint32_t first = Below(kCount);
            Erase(file, first, first + 1 + Below(kCount - first));
        } else if (what < 60) {
            const uint32_t mark = Below(1000);
            const bool done = SUCCEEDED(file.AppendSettings({mark, kMarkUnset, {}, 0}));
            m_model.Marked(mark, done);
            if (done) m_model.Flushed();
        } else if (what < 70) {
            Check(file, Below(kCount));
        } else if (what < 74) {
            Hold(file);
        } else if (what < 86) {
            Took(file.Flush());
        } else if (what < 97) {
            Took(file.Checkpoint());
        } else {
            LetGo(file);
            Took(file.EndWriting());
            return true;
        }
        Notice(file);
        return false;
    }

    void Took(HRESULT hr) {
        if (SUCCEEDED(hr)) m_model.Flushed();
    }

    // After a failed sync the object promises nothing: it is closed and opened again.
    void Notice(CMediaFile& file) {
        if (m_device.dead || m_failed || m_device.syncsFailed == m_syncsSeen) return;
        m_failed = true;
        WriteItem probe;
        probe.kind = RecordKind::kErase;  // of nothing
        probe.completed = [](WriteItem&) {};
        file.Append(probe);
        ASSERT_TRUE(FAILED(probe.result)) << "a failed sync was forgotten";
        ASSERT_TRUE(FAILED(file.Flush())) << "a failed sync was forgotten";
        for (uint32_t i = 0; i < kCount; ++i)
            ASSERT_NO_FATAL_FAILURE(Check(file, i));
    }

    void Write(CMediaFile& file, uint32_t index) {
        const Version version = m_model.Next();
        const uint32_t position = kPositions[index];
        const HRESULT hr =
            index >= kFirstSpecial
                ? WriteDescription(file, position, version)
                : WriteFrame(file, position, FrameBytes(position, version, SizeOf(version)));
        if (SUCCEEDED(hr))
            m_model.Wrote(index, version);
        else
            m_model.Tried(index, version);
    }

    void Erase(CMediaFile& file, uint32_t first, uint32_t end) {
        const bool done =
            SUCCEEDED(file.Erase(kPositions[first], uint64_t{kPositions[end - 1]} + 1));
        for (uint32_t i = first; i < end; ++i)
            m_model.Erased(i, done);
        if (done) m_model.Flushed();
    }

    // What the object itself says of a frame while it is open.
    void Check(CMediaFile& file, uint32_t index) {
        if (!m_model.Sure(index)) return;
        HRESULT hr;
        const Version found = Find(file, index, hr);
        ++m_totals.framesChecked;
        // The pages of a frame that a failed sync lost are gone; nothing else is in their place.
        if (m_failed && hr == kBadFrame) return;
        ASSERT_EQ(found, m_model.Now(index)) << "position " << kPositions[index];
    }

    // A reader that keeps a frame while it is overwritten and erased keeps its bytes.
    void Hold(CMediaFile& file) {
        LetGo(file);
        const uint32_t index = Below(kFirstSpecial);
        PinnedFrame frame{};
        if (!m_model.Sure(index) || FAILED(file.Pin(kPositions[index], true, frame))) return;
        m_held = frame;
        m_heldVersion = m_model.Now(index);
    }
    void LetGo(CMediaFile& file) {
        if (m_heldVersion == 0) return;
        std::vector<uint8_t> bytes(m_held.dataSize);
        size_t done = 0;
        const HRESULT hr = file.File().ReadAt(bytes.data(), bytes.size(), m_held.slotOffset, done);
        const auto expected = FrameBytes(m_held.position, m_heldVersion, SizeOf(m_heldVersion));
        m_heldVersion = 0;
        file.Unpin(m_held.epoch);
        if (FAILED(hr) || m_failed || m_device.syncsFailed != m_syncsSeen) return;
        ASSERT_EQ(bytes, expected) << "punched under a reader";
    }

    void Verify(CMediaFile& file) {
        const bool lost = m_ending != Ending::kKill;
        const bool kept = m_ending == Ending::kPowerCut;
        for (uint32_t i = 0; i < kCount; ++i) {
            HRESULT hr;
            const Version found = Find(file, i, hr);
            ++m_totals.framesChecked;
            const bool known = hr == S_OK || hr == kErrorFrameErased || hr == kErrorFrameHole ||
                               hr == HRESULT_FROM_WIN32(ERROR_END_OF_MEDIA);
            ASSERT_TRUE(known) << "position " << kPositions[i] << std::hex << " 0x" << hr;
            if (hr == S_OK) {
                ASSERT_NE(found, 0u) << "a torn frame at position " << kPositions[i];
            }
            ASSERT_NO_FATAL_FAILURE(m_model.Found(i, found, lost, kept));
        }
        ASSERT_NO_FATAL_FAILURE(m_model.FoundMarks(file.CurrentSettings().firstMark, lost, kept));
    }

    CRandom m_random;
    Totals& m_totals;
    Device m_device;
    CModel m_model;
    Ending m_ending = Ending::kKill;
    bool m_failed = false;
    bool m_planMet = false;
    uint32_t m_syncsSeen = 0;
    PinnedFrame m_held{};
    Version m_heldVersion = 0;
};

// ZEM_CRASH_SEEDS: how many; ZEM_CRASH_FIRST: the first one, to look at a failure again.
uint32_t FromEnvironment(const char* name, uint32_t otherwise) {
    const char* value = getenv(name);
    return value == nullptr ? otherwise : static_cast<uint32_t>(strtoul(value, nullptr, 10));
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr uint32_t kSeeds = 150;  // the same crashes take ten times as long there
constexpr uint32_t kScripts = 1;
constexpr uint32_t kFaultScripts = 1;
constexpr int kCutStep = 3;
constexpr uint32_t kFullDevices = 40;
#else
constexpr uint32_t kSeeds = 1200;
constexpr uint32_t kScripts = 2;
constexpr uint32_t kFaultScripts = 4;
constexpr int kCutStep = 1;
constexpr uint32_t kFullDevices = 400;
#endif

TEST(Crash, EveryFlushedFrameSurvivesAndNoneIsTorn) {
    const uint32_t first = FromEnvironment("ZEM_CRASH_FIRST", std::random_device{}() >> 1);
    const uint32_t count = FromEnvironment("ZEM_CRASH_SEEDS", kSeeds);
    Totals totals;
    for (uint32_t i = 0; i < count; ++i) {
        SCOPED_TRACE(testing::Message() << "ZEM_CRASH_SEEDS=1 ZEM_CRASH_FIRST=" << first + i);
        CCrashRun(first + i, totals).Run();
        if (HasFailure()) break;
    }
    printf(
        "seeds %u to %u: %llu power cuts, %llu kills, %llu failed syncs, %llu failed calls, "
        "%llu writes without room; "
        "found %llu records, %llu of them torn; %llu frames compared\n",
        first, first + count - 1, static_cast<unsigned long long>(totals.powerCuts),
        static_cast<unsigned long long>(totals.kills),
        static_cast<unsigned long long>(totals.failedSyncs),
        static_cast<unsigned long long>(totals.failedCalls),
        static_cast<unsigned long long>(totals.withoutRoom),
        static_cast<unsigned long long>(totals.tailRecords),
        static_cast<unsigned long long>(totals.tornRecords),
        static_cast<unsigned long long>(totals.framesChecked));
}

// Every call of a life in turn is the last one, and the power cut leaves each kind of rest.
TEST(Crash, InEveryCallWithEveryRest) {
    Totals totals;
    uint32_t runs = 0;
    for (uint32_t seed = 1; seed <= kScripts; ++seed) {
        bool met = true;
        for (int call = 0; met; ++call) {
            for (int cut = 0; cut < static_cast<int>(kCuts); cut += kCutStep) {
                SCOPED_TRACE(testing::Message()
                             << "seed " << seed << ", call " << call << ", cut " << cut);
                met = CCrashRun(seed, totals).RunOnce({call, {}, false, ~0ull, cut});
                ++runs;
                if (HasFailure()) return;
            }
        }
    }
    printf("%u runs\n", runs);
    EXPECT_GT(runs, kScripts * kCuts / kCutStep * 20);
}

// Every call of a life in turn fails once, and life goes on.
TEST(Crash, EveryCallFailsOnce) {
    Totals totals;
    uint32_t runs = 0;
    for (uint32_t seed = 1; seed <= kFaultScripts; ++seed) {
        for (const Call call : {Call::kWrite, Call::kSync, Call::kSetSize, Call::kPunch}) {
            for (const HRESULT error : {kBroken, kFull}) {
                bool met = true;
                for (uint32_t nth = 0; met; ++nth) {
                    SCOPED_TRACE(testing::Message() << "seed " << seed << ", call of kind "
                                                    << static_cast<int>(call) << ", " << nth);
                    met = CCrashRun(seed, totals)
                              .RunOnce({-1, {{call, nth, error}}, false, ~0ull, -1});
                    ++runs;
                    if (HasFailure()) return;
                }
            }
        }
    }
    printf("%u runs, %llu failed calls\n", runs,
           static_cast<unsigned long long>(totals.failedCalls));
    EXPECT_GT(totals.failedCalls, 20u * kFaultScripts);
}

TEST(Crash, FullDeviceFailsTheWriteAndNothingElse) {
    for (uint32_t seed = 1; seed <= kFullDevices; ++seed) {
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
                    ASSERT_EQ(hr, kFull);
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

}  // namespace
