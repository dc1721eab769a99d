// One connection of zem bench: a client of its own with a file of its own, which writes and reads
// frames as fast as they are answered, or so many a second. Each object belongs to one thread while
// a run goes on.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "apps/zem/client/zemclient.h"
#include "apps/zem/latency.h"

namespace zem {

struct BenchPlan {
    ConnectionOptions connection;  // its client ID is the beginning of every connection's
    std::string file;              // read this one; empty: the connections make their own
    std::string folder = "media";  // where they make them; empty: the volume root
    unsigned connections = 4;
    double seconds = 5;
    uint64_t frame_bytes = 1 << 20;
    uint32_t frames = 64;   // of a connection's file
    double rate_per_s = 0;  // of a connection; 0: as fast as it goes
    bool random = false;    // positions by chance instead of one after another
};

struct BenchResult {
    uint64_t frames = 0;
    uint64_t bytes = 0;
    uint64_t late = 0;  // answered later than the next frame was due; only at a rate
    CLatency latency;
};

class CBenchWorker {
public:
    // `stop` ends every run of all workers: the user's wish, or a failure of one of them.
    CBenchWorker(const BenchPlan& plan, unsigned number, std::atomic<bool>& stop);
    CBenchWorker(const CBenchWorker&) = delete;
    CBenchWorker& operator=(const CBenchWorker&) = delete;

    const std::string& FileName() const { return m_name; }

    // Joins, and creates the file or opens the one of the plan. These throw CZemError.
    void Prepare();
    using Clock = std::chrono::steady_clock;
    // Whether the server keeps a frame of the plan's size; one that it drops it answers all the
    // same.
    bool TakesFrame();
    // Writes until the time is up, then until all of it is on the device.
    void Write(Clock::time_point start);
    // Writes each frame once, if nothing has written it yet: reading needs them.
    void Fill();
    // Counts the frames that are not what was last written.
    void Check();
    void Read(Clock::time_point start);
    // Closes, leaves, and deletes what it made; never throws.
    void CleanUp() noexcept;
    // Whether the file that it made is still there: what cannot be reached cannot be deleted.
    bool LeftFile() const { return m_created; }

    BenchResult result;  // of the run that ended last
    uint64_t lost = 0;   // frames of which it was seen that the server does not have them

    uint64_t doneFrames() const { return m_done.load(std::memory_order_relaxed); }
    uint64_t doneBytes() const { return m_doneBytes.load(std::memory_order_relaxed); }

private:
    void Begin();
    bool Due(Clock::time_point start, Clock::time_point& due);
    void Count(Clock::time_point due, Clock::time_point issued, uint64_t bytes);
    uint32_t NextPosition();
    void BeginRun();
    void BeginPart();
    bool IsThere(const std::vector<FrameDescEntry>& descs, uint32_t first) const;
    void CheckPart(uint32_t first, uint32_t end);
    void WriteOne(uint32_t position);
    void FlushIf(uint64_t more_bytes);
    bool IsOurs(const StreamFrame& frame, uint32_t position) const;

    const BenchPlan& m_plan;
    std::atomic<bool>& m_stop;
    CZemClient m_client;
    std::string m_name;
    bool m_joined = false;
    bool m_created = false;
    uint64_t m_token = 0;
    uint32_t m_frames = 0;
    uint64_t m_random;
    uint32_t m_next = 0;
    uint64_t m_unflushed_bytes = 0;
    uint64_t m_sequence = 0;
    std::vector<uint64_t> m_written;  // the sequence number that each position should hold; 0: none
    std::vector<uint32_t> m_flags;    // of each position's next frame, then of the one written
    std::vector<uint32_t> m_parts;    // of a round, in the order of writing: where each begins
    std::vector<uint32_t> m_order;    // the positions of this part, the next one last
    uint32_t m_partFrames = 1;
    size_t m_nextPart = 0;
    bool m_writesAgain = false;  // not the first round
    std::vector<uint8_t> m_data;
    std::atomic<uint64_t> m_done{0};
    std::atomic<uint64_t> m_doneBytes{0};
};

}  // namespace zem
