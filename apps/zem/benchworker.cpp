// See benchworker.h. Every frame begins with who wrote it, where and when, so that a read tells
// whether it is the one that was last written. A server answers a write that it drops, too, and
// what is written to the same position later hides that. So positions are written in rounds, each
// once, and before a frame is written over its flags must be those that the last round gave it.
#include "apps/zem/benchworker.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <thread>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/nearestfolder.h"
#include "apps/zem/reasons.h"
#include "apps/zem/session.h"

namespace zem {
namespace {

using Stamp = std::array<uint64_t, 2>;  // position, sequence
static_assert(sizeof(Stamp) == 16);

ConnectionOptions Numbered(ConnectionOptions options, unsigned number) {
    options.clientId += "-" + std::to_string(number);
    return options;
}

uint64_t NextRandom(uint64_t& state) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return state;
}

// What tells a frame of one round from that of the next: kFrameFlagKey or 0; else there is none.
uint32_t FlagsOf(const FrameDescEntry& desc) {
    constexpr uint32_t kNone = ~0u;
    return (desc.flags & kFrameFlagPresent) != 0 ? desc.flags & kFrameFlagKey : kNone;
}

void Shuffle(std::vector<uint32_t>& numbers, uint64_t& random) {
    for (size_t left = numbers.size(); left > 1; --left)
        std::swap(numbers[left - 1], numbers[NextRandom(random) % left]);
}

}  // namespace

CBenchWorker::CBenchWorker(const BenchPlan& plan, unsigned number, std::atomic<bool>& stop)
    : m_plan(plan),
      m_stop(stop),
      m_client(Numbered(plan.connection, number)),
      m_random(0x9E3779B97F4A7C15u + number) {
    m_client.Http().SetStopCheck([this] { return m_stop.load(); });
    m_name = plan.file.empty()
                 ? PathIn(plan.folder, plan.connection.clientId + "-" + std::to_string(number))
                 : plan.file;
}

void CBenchWorker::Prepare() {
    m_joined = true;  // also when a stop comes before the answer
    m_client.Join(0);
    if (!m_plan.file.empty()) {
        m_token = OpenNamed(m_client, FileNamed(m_name));
        m_frames = m_client.FileInfo(m_token).frameCount;
        if (m_frames == 0)
            throw CZemError(ErrorKind::kRefused, Printable(m_name) + ": no frame in it");
        // Connections that read one file begin at different frames.
        m_next = static_cast<uint32_t>(NextRandom(m_random) % m_frames);
        return;
    }
    ZemEsDesc desc{};
    desc.sizeVersion = kEsDescVersion1;
    desc.mediaType = kMediaFileVideo;
    desc.codec = 0x68636E62;  // bnch
    desc.rateNumerator = 25;
    desc.rateDenominator = 1;
    try {
        m_token = m_client.Create(FileNamed(m_name).name, u"", desc,
                                  kFileRead | kFileWrite | kFileCreateNew);
    } catch (const CZemError& error) {
        if (error.Kind() != ErrorKind::kRefused) throw;
        throw Explained(error, WhyNotCreated(m_client, m_name, false));
    }
    m_created = true;
    m_frames = m_plan.frames;
    m_written.assign(m_frames, 0);
    m_flags.assign(m_frames, kFrameFlagKey);
    m_data.resize(m_plan.frame_bytes);
    for (size_t at = 0; at + 8 <= m_data.size(); at += 8) {
        const uint64_t word = NextRandom(m_random);
        std::memcpy(m_data.data() + at, &word, 8);
    }
}

void CBenchWorker::Begin() {
    result = BenchResult{};
    m_done = 0;
    m_doneBytes = 0;
}

bool CBenchWorker::TakesFrame() {
    WriteOne(0);
    m_client.Flush(m_token);
    return m_client.FileInfo(m_token).frameCount > 0;
}

// Waits for the time of the next frame; false when the run is over.
bool CBenchWorker::Due(Clock::time_point start, Clock::time_point& due) {
    const Clock::time_point end = start + std::chrono::duration_cast<Clock::duration>(
                                              std::chrono::duration<double>(m_plan.seconds));
    due = std::max(start, Clock::now());
    if (m_plan.rate_per_s > 0) {
        due = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(
                          static_cast<double>(result.frames) / m_plan.rate_per_s));
    }
    // However short the run and slow the server: what was measured is at least a frame.
    if (due >= end && result.frames > 0) return false;
    // In short pieces: a stop must not wait for a slow rate.
    for (Clock::time_point now = Clock::now(); now < due; now = Clock::now()) {
        if (m_stop) return false;
        std::this_thread::sleep_until(std::min(due, now + std::chrono::milliseconds(50)));
    }
    return !m_stop;
}

// A frame's latency counts from when it was due, so a server that falls behind is not spared the
// wait of the frames behind.
void CBenchWorker::Count(Clock::time_point due, Clock::time_point issued, uint64_t bytes) {
    const Clock::time_point from = m_plan.rate_per_s > 0 ? due : issued;
    const std::chrono::duration<double> took = Clock::now() - from;
    result.latency.Add(static_cast<uint64_t>(took.count() * 1e6));
    if (m_plan.rate_per_s > 0 && took.count() > 1 / m_plan.rate_per_s) ++result.late;
    ++result.frames;
    result.bytes += bytes;
    m_done.store(result.frames, std::memory_order_relaxed);
    m_doneBytes.store(result.bytes, std::memory_order_relaxed);
}

uint32_t CBenchWorker::NextPosition() {
    if (m_plan.random) return static_cast<uint32_t>(NextRandom(m_random) % m_frames);
    const uint32_t position = m_next;
    m_next = (m_next + 1) % m_frames;
    return position;
}

void CBenchWorker::WriteOne(uint32_t position) {
    const Stamp stamp = {position, ++m_sequence};
    std::memcpy(m_data.data(), stamp.data(), sizeof(Stamp));
    WriteEntry entry;
    entry.token = m_token;
    entry.position = position;
    entry.streamFlags = m_flags[position];
    entry.bufferLengths_bytes = {static_cast<uint32_t>(m_data.size())};
    m_client.WriteFrames({&entry, 1}, m_data);
    m_written[position] = m_sequence;
}

void CBenchWorker::FlushIf(uint64_t more_bytes) {
    const uint64_t share = kUnconfirmed_bytes / m_plan.connections;
    if (m_unflushed_bytes + more_bytes > share) {
        m_client.Flush(m_token);
        m_unflushed_bytes = 0;
    }
    m_unflushed_bytes += more_bytes;
}

// A part is what one answer tells of, and half of the file at most: the frames that are looked at
// were written some frames ago, so that as a rule the server has them by now, flushed or not.
void CBenchWorker::BeginRun() {
    m_partFrames = std::clamp(m_frames / 2, 1u, kFrameDescBatch);
    m_parts.clear();
    for (uint32_t first = 0; first < m_frames; first += m_partFrames)
        m_parts.push_back(first);
    m_nextPart = 0;
    m_writesAgain = false;
    m_order.clear();
}

void CBenchWorker::BeginPart() {
    if (m_nextPart == m_parts.size()) {
        m_nextPart = 0;
        m_writesAgain = true;
        if (m_plan.random) Shuffle(m_parts, m_random);
    }
    const uint32_t first = m_parts[m_nextPart++];
    const uint32_t end = first + std::min(m_partFrames, m_frames - first);
    if (m_writesAgain) CheckPart(first, end);
    for (uint32_t position = end; position-- > first;)
        m_order.push_back(position);
    if (m_plan.random) Shuffle(m_order, m_random);
}

// Whether what was written last is there; `descs` is of the positions from `first` on.
bool CBenchWorker::IsThere(const std::vector<FrameDescEntry>& descs, uint32_t first) const {
    for (size_t i = 0; i < descs.size(); ++i)
        if (FlagsOf(descs[i]) != m_flags[first + i]) return false;
    return true;
}

// Counts the frames from `first` to before `end` that the server does not have. The next one of a
// position gets the other flags than what is there now.
void CBenchWorker::CheckPart(uint32_t first, uint32_t end) {
    std::vector<FrameDescEntry> descs = m_client.FrameDescs(m_token, first, end - first);
    if (!IsThere(descs, first)) {  // dropped, or not written yet
        m_client.Flush(m_token);
        m_unflushed_bytes = 0;
        descs = m_client.FrameDescs(m_token, first, end - first);
    }
    for (uint32_t position = first; position < end; ++position) {
        const uint32_t flags = FlagsOf(descs[position - first]);
        if (flags != m_flags[position]) {
            ++lost;
            m_written[position] = 0;
        }
        m_flags[position] = flags == kFrameFlagKey ? 0 : kFrameFlagKey;
    }
}

void CBenchWorker::Write(Clock::time_point start) {
    Begin();
    BeginRun();
    for (Clock::time_point due; Due(start, due);) {
        if (m_order.empty()) BeginPart();
        FlushIf(m_data.size());
        const Clock::time_point issued = Clock::now();
        WriteOne(m_order.back());
        m_order.pop_back();
        Count(due, issued, m_data.size());
    }
    m_client.Flush(m_token);
    m_unflushed_bytes = 0;
}

void CBenchWorker::Fill() {
    if (!m_created) return;
    for (uint32_t position = 0; position < m_frames && !m_stop; ++position) {
        if (m_written[position] != 0) continue;
        FlushIf(m_data.size());
        WriteOne(position);
    }
    m_client.Flush(m_token);
    m_unflushed_bytes = 0;
}

bool CBenchWorker::IsOurs(const StreamFrame& frame, uint32_t position) const {
    if (frame.status < 0 || frame.data.size() != m_data.size()) return false;
    Stamp stamp{};
    std::memcpy(stamp.data(), frame.data.data(), sizeof(Stamp));
    return stamp[0] == position && stamp[1] == m_written[position] &&
           std::memcmp(frame.data.data() + sizeof(Stamp), m_data.data() + sizeof(Stamp),
                       m_data.size() - sizeof(Stamp)) == 0;
}

void CBenchWorker::Check() {
    for (uint32_t position = 0; position < m_written.size() && !m_stop; ++position) {
        if (m_written[position] == 0) continue;
        if (!IsOurs(ReadOneFrame(m_client, m_token, position), position)) ++lost;
    }
}

void CBenchWorker::Read(Clock::time_point start) {
    Begin();
    for (Clock::time_point due; Due(start, due);) {
        const uint32_t position = NextPosition();
        const Clock::time_point issued = Clock::now();
        const StreamFrame& frame = ReadOneFrame(m_client, m_token, position);
        // Of its own file the server may have dropped a frame: Check counts it.
        const bool dropped = m_created && frame.status == kHrEndOfMedia;
        if (!dropped && !IsGap(frame.status)) RequireRead(m_name, position, frame.status);
        Count(due, issued, frame.data.size());
    }
}

void CBenchWorker::CleanUp() noexcept {
    m_client.Http().SetStopCheck({});
    const auto quietly = [](auto call) {
        try {
            call();
        } catch (const std::exception&) {
            // What cannot be reached any more cannot be tidied; the server drops silent clients.
        }
    };
    if (m_token != 0) quietly([&] { m_client.Close(m_token); });
    if (m_created) {
        quietly([&] {
            m_client.Remove(FileNamed(m_name).name);
            m_created = false;
        });
    }
    if (m_joined) quietly([&] { m_client.Leave(); });
    m_token = 0;
    m_joined = false;
}

}  // namespace zem
