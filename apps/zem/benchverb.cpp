// zem bench: a load test of the user's own server and network. Every connection is a client with a
// file of its own and a thread of its own; what was written is read back and compared before it is
// called written.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <cstdio>
#include <exception>
#include <thread>

#include "apps/zem/benchworker.h"
#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/output.h"
#include "apps/zem/session.h"
#include "apps/zem/terminal.h"
#include "apps/zem/usage.h"
#include "apps/zem/verbs.h"

namespace zem {
namespace {

using Clock = std::chrono::steady_clock;

struct BenchOptions {
    std::string mode = "both";
    std::string frameSize = "1M";
    BenchPlan plan;
};

// A frame that is written is one run of the server's frame memory: of the smaller of the two that
// servers have, and of the larger.
constexpr uint64_t kFrameMemory_bytes = 120u << 20;
constexpr const char* kFrameMemoryText =
    "the server's frame memory (120M; 240M in file-server mode, HttpFileServer=1)";

struct Run {
    const char* mode;
    double seconds = 0;
    BenchResult total;
};

class CBench {
public:
    CBench(const CommandLine& line, const BenchOptions& options);
    int Go();

private:
    // Throws CZemError(kRefused) when the test would not fit into the server.
    void CheckRoom();
    void TryFrameSize();
    void RunAll();
    void CleanUp();
    // Calls `work` in a thread per connection. Throws what the first of them threw; a failure ends
    // the others.
    template <typename Work>
    void Everywhere(const char* title, double seconds, Work work);
    void Measure(const char* mode, void (CBenchWorker::*work)(Clock::time_point));
    void Print() const;
    void PrintRun(const Run& run) const;
    void PrintJson() const;

    const CommandLine& m_line;
    BenchPlan m_plan;
    const bool m_writes;
    const bool m_reads;
    std::atomic<bool> m_stop{false};
    std::vector<std::unique_ptr<CBenchWorker>> m_workers;
    std::vector<Run> m_runs;
    std::string m_folderNote;
    bool m_compared = false;  // all that was written
    uint64_t m_lost = 0;
};

CBench::CBench(const CommandLine& line, const BenchOptions& options)
    : m_line(line),
      m_plan(options.plan),
      m_writes(options.mode != "read"),
      m_reads(options.mode != "write") {
    m_plan.connection = line.Connection();
    if (line.clientId.empty())
        m_plan.connection.clientId = "zem-bench" + DefaultClientId().substr(3);
    if (!ParseBytes(options.frameSize, m_plan.frame_bytes) || m_plan.frame_bytes < 16 ||
        m_plan.frame_bytes > kMaxFrame_bytes) {
        throw CZemError(ErrorKind::kUsage,
                        "--frame-size: '" + options.frameSize +
                            "' is no number of bytes from 16 to 240M, such as 1M; a frame must fit "
                            "into " +
                            kFrameMemoryText);
    }
    if (!m_plan.file.empty() && m_writes)
        throw CZemError(ErrorKind::kUsage, "--file is only read: give it with --mode read");
}

void CBench::TryFrameSize() {
    bool taken = false;
    m_workers.push_back(std::make_unique<CBenchWorker>(m_plan, 1, m_stop));
    try {
        Everywhere("try", 0, [&taken](CBenchWorker& worker) {
            worker.Prepare();
            taken = worker.TakesFrame();
        });
    } catch (...) {
        CleanUp();
        throw;
    }
    CleanUp();
    m_workers.clear();
    if (taken) return;
    throw CZemError(ErrorKind::kRefused, "the server did not take a frame of " +
                                             HumanBytes(m_plan.frame_bytes) +
                                             ": it must fit into " + kFrameMemoryText);
}

void CBench::CheckRoom() {
    if (!m_plan.file.empty()) return;
    uint64_t free_bytes = 0;
    {
        CSession session(m_line);  // who has not joined is told nothing
        NearestFolder folder = FindNearestFolder(*session, m_plan.folder);
        m_plan.folder = folder.path;
        m_folderNote = folder.note;
        free_bytes = session->Space(u"").free_bytes;
    }
    if (m_plan.frame_bytes > kFrameMemory_bytes) TryFrameSize();
    // A frame that is written over gives its space back later: room for twice as much.
    const double wanted =
        2.0 * static_cast<double>(m_plan.frame_bytes) * m_plan.frames * m_plan.connections;
    if (free_bytes > 0 && static_cast<double>(free_bytes) < wanted) {
        throw CZemError(ErrorKind::kRefused,
                        "the volume has " + HumanBytes(free_bytes) + " free, and this test wants " +
                            HumanBytes(static_cast<uint64_t>(wanted)) +
                            ": fewer --connections or --frames, or a smaller --frame-size");
    }
}

template <typename Work>
void CBench::Everywhere(const char* title, double seconds, Work work) {
    std::mutex lock;
    std::condition_variable ended;
    std::exception_ptr failure;
    size_t running = m_workers.size();
    std::vector<std::thread> threads;
    for (const std::unique_ptr<CBenchWorker>& worker : m_workers) {
        threads.emplace_back([&, target = worker.get()] {
            std::exception_ptr mine;
            try {
                work(*target);
            } catch (...) {
                mine = std::current_exception();
            }
            const std::lock_guard<std::mutex> guard(lock);
            if (mine && !failure) {
                failure = mine;
                m_stop = true;
            }
            --running;
            ended.notify_one();
        });
    }
    CProgress progress("bench " + std::string(title), !m_line.quiet);
    const Clock::time_point start = Clock::now();
    std::unique_lock<std::mutex> hold(lock);
    while (!ended.wait_for(hold, std::chrono::milliseconds(100), [&] { return running == 0; })) {
        if (StopRequested()) m_stop = true;
        uint64_t frames = 0;
        uint64_t bytes = 0;
        for (const std::unique_ptr<CBenchWorker>& worker : m_workers) {
            frames += worker->doneFrames();
            bytes += worker->doneBytes();
        }
        const std::chrono::duration<double, std::milli> gone = Clock::now() - start;
        progress.Show(static_cast<uint64_t>(gone.count()), static_cast<uint64_t>(seconds * 1000),
                      frames, bytes);
    }
    hold.unlock();
    for (std::thread& thread : threads)
        thread.join();
    if (StopRequested()) throw CZemError(ErrorKind::kInterrupted, "stopped");
    if (failure) std::rethrow_exception(failure);
}

void CBench::Measure(const char* mode, void (CBenchWorker::*work)(Clock::time_point)) {
    const Clock::time_point start = Clock::now();
    const auto take = [&] {
        Run run{mode, std::chrono::duration<double>(Clock::now() - start).count(), {}};
        for (const std::unique_ptr<CBenchWorker>& worker : m_workers) {
            run.total.frames += worker->result.frames;
            run.total.bytes += worker->result.bytes;
            run.total.late += worker->result.late;
            run.total.latency.Add(worker->result.latency);
        }
        if (run.total.frames > 0) m_runs.push_back(run);
    };
    try {
        Everywhere(mode, m_plan.seconds, [&](CBenchWorker& worker) { (worker.*work)(start); });
    } catch (...) {
        take();
        throw;
    }
    take();
}

void CBench::RunAll() {
    Everywhere("prepare", 0, [](CBenchWorker& worker) { worker.Prepare(); });
    if (m_writes) Measure("write", &CBenchWorker::Write);
    if (m_reads) {
        Everywhere("fill", 0, [](CBenchWorker& worker) { worker.Fill(); });
        Measure("read", &CBenchWorker::Read);
    }
    if (m_plan.file.empty()) {
        Everywhere("compare", 0, [](CBenchWorker& worker) { worker.Check(); });
        m_compared = true;
    }
}

void CBench::CleanUp() {
    for (const std::unique_ptr<CBenchWorker>& worker : m_workers)
        worker->CleanUp();
}

int CBench::Go() {
    CheckRoom();
    for (unsigned i = 1; i <= m_plan.connections; ++i)
        m_workers.push_back(std::make_unique<CBenchWorker>(m_plan, i, m_stop));
    std::exception_ptr end;
    try {
        RunAll();
    } catch (...) {
        end = std::current_exception();
    }
    CleanUp();
    for (const std::unique_ptr<CBenchWorker>& worker : m_workers)
        m_lost += worker->lost;
    // Stopped or failed: what was measured until then is told all the same.
    if (!m_runs.empty()) m_line.json ? PrintJson() : Print();
    if (end) std::rethrow_exception(end);
    return m_lost == 0 ? kExitOk : kExitFailed;
}

double PerSecond(uint64_t count, double seconds) {
    return seconds > 0 ? static_cast<double>(count) / seconds : 0;
}

struct Quantile {
    const char* title;
    const char* key;
    double part;
};
constexpr std::array<Quantile, 4> kQuantiles = {{{"median", "p50", 0.5},
                                                 {"90 %", "p90", 0.9},
                                                 {"99 %", "p99", 0.99},
                                                 {"99.9 %", "p999", 0.999}}};

void PrintHistogram(const CLatency& latency) {
    constexpr size_t kBar = 40;
    uint64_t most = 1;
    size_t first = CLatency::kRows;
    size_t last = 0;
    for (size_t row = 0; row < CLatency::kRows; ++row) {
        if (latency.RowCount(row) == 0) continue;
        most = std::max(most, latency.RowCount(row));
        first = std::min(first, row);
        last = row;
    }
    for (size_t row = first; row <= last && first < CLatency::kRows; ++row) {
        const uint64_t count = latency.RowCount(row);
        const bool open = row + 1 == CLatency::kRows;
        const std::string bound =
            LatencyText(static_cast<double>(CLatency::RowBound_us(open ? row - 1 : row)));
        // A row that is not empty shows at least a little.
        const size_t length = static_cast<size_t>((count * kBar + most - 1) / most);
        std::printf("  %s %7s %10llu  %s\n", open ? "over " : "up to", bound.c_str(),
                    static_cast<unsigned long long>(count),
                    Painted(Stream::kOut, Colour::kCyan, std::string(length, '#')).c_str());
    }
}

void CBench::PrintRun(const Run& run) const {
    const BenchResult& total = run.total;
    std::printf("\n%s  %llu frames in %.2f s: %s frames/s, %s/s\n",
                Painted(Stream::kOut, Colour::kBold, run.mode).c_str(),
                static_cast<unsigned long long>(total.frames), run.seconds,
                Painted(Stream::kOut, Colour::kBold,
                        std::to_string(static_cast<long>(PerSecond(total.frames, run.seconds))))
                    .c_str(),
                Painted(Stream::kOut, Colour::kBold,
                        HumanBytes(static_cast<uint64_t>(PerSecond(total.bytes, run.seconds))))
                    .c_str());
    std::printf("  latency  least %s",
                LatencyText(static_cast<double>(total.latency.Min_us())).c_str());
    for (const Quantile& quantile : kQuantiles) {
        const auto duration_us = static_cast<double>(total.latency.Percentile_us(quantile.part));
        std::printf("  %s %s", quantile.title, LatencyText(duration_us).c_str());
    }
    std::printf("  most %s\n", LatencyText(static_cast<double>(total.latency.Max_us())).c_str());
    if (m_plan.rate_per_s > 0) {
        std::printf("  late     %s of %llu frames were answered after the next one was due\n",
                    Painted(Stream::kOut, total.late == 0 ? Colour::kGreen : Colour::kYellow,
                            std::to_string(total.late))
                        .c_str(),
                    static_cast<unsigned long long>(total.frames));
    }
    PrintHistogram(total.latency);
}

void CBench::Print() const {
    std::printf("%s: %s, ", m_line.server.c_str(),
                Counted(m_plan.connections, "connection").c_str());
    if (m_plan.file.empty()) {
        std::printf("frames of %s%s\n", HumanBytes(m_plan.frame_bytes).c_str(),
                    m_folderNote.c_str());
    } else {
        std::printf("%s\n", Printable(m_plan.file).c_str());
    }
    for (const Run& run : m_runs)
        PrintRun(run);
    if (!m_plan.file.empty()) return;
    if (!m_compared) {
        std::printf("\nEnded early: what was written was not compared.\n");
    } else if (m_lost == 0) {
        std::printf("\nAll frames read back as they were written.\n");
    } else {
        const bool perhapsTooLarge = m_plan.frame_bytes > kFrameMemory_bytes / m_plan.connections;
        const std::string lost =
            Counted(m_lost, "frame") + " did not read back as written; " +
            (perhapsTooLarge
                 ? std::string("what is written at a time must fit into ") + kFrameMemoryText
                 : "the server's log has the reason.");
        std::printf("\n%s\n", Painted(Stream::kOut, Colour::kRed, lost).c_str());
    }
}

void CBench::PrintJson() const {
    CJson json;
    json.Open('{').Text("server", m_line.server).Unsigned("connections", m_plan.connections);
    if (m_plan.file.empty())
        json.Unsigned("frame_bytes", m_plan.frame_bytes);
    else
        json.Text("file", m_plan.file);
    json.Open('[', "runs");
    for (const Run& run : m_runs) {
        const CLatency& latency = run.total.latency;
        json.Open('{').Text("mode", run.mode).Real("seconds", run.seconds);
        json.Unsigned("frames", run.total.frames).Unsigned("bytes", run.total.bytes);
        json.Real("frames_per_s", PerSecond(run.total.frames, run.seconds));
        json.Real("bytes_per_s", PerSecond(run.total.bytes, run.seconds));
        json.Unsigned("late", run.total.late).Open('{', "latency_us");
        json.Unsigned("min", latency.Min_us()).Real("mean", latency.Mean_us());
        for (const Quantile& quantile : kQuantiles)
            json.Unsigned(quantile.key, latency.Percentile_us(quantile.part));
        json.Unsigned("max", latency.Max_us()).Close().Open('[', "histogram");
        for (size_t row = 0; row < CLatency::kRows; ++row) {
            if (latency.RowCount(row) == 0) continue;
            json.Open('{');
            if (row + 1 == CLatency::kRows)
                json.Null("up_to_us");
            else
                json.Unsigned("up_to_us", CLatency::RowBound_us(row));
            json.Unsigned("count", latency.RowCount(row)).Close();
        }
        json.Close().Close();
    }
    json.Close();
    if (m_plan.file.empty() && !m_compared)
        json.Null("lost");
    else
        json.Unsigned("lost", m_lost);
    PrintLine(json.Close().Str());
}

}  // namespace

void AddBenchVerb(CLI::App& app, CommandLine& line) {
    auto options = std::make_shared<BenchOptions>();
    BenchPlan& plan = options->plan;
    CLI::App* verb = VerbGroup{app, line, "The server"}.Add(
        "bench",
        "Load the server and measure: frames and bytes a second, percentiles and a histogram "
        "of the latency. It makes files of its own and deletes them; what it wrote it reads back",
        [options, &line] { return CBench(line, *options).Go(); });
    verb->add_option("--mode", options->mode,
                     "What to do: write, read, or both one after the other")
        ->type_name("MODE")
        ->check(OneOf({"read", "write", "both"}))
        ->capture_default_str();
    verb->add_option("--connections", plan.connections, "Clients at the same time")
        ->type_name("N")
        ->transform(WholeNumber(1, 256))
        ->capture_default_str();
    verb->add_option("--seconds", plan.seconds, "How long each mode goes on")
        ->type_name("SECONDS")
        ->check(Number(0.1, 86400))
        ->capture_default_str();
    verb->add_option("--frame-size", options->frameSize, "Bytes of a frame; k, M and G count 1024")
        ->type_name("BYTES")
        ->capture_default_str();
    verb->add_option("--frames", plan.frames, "Frames in the file of a connection")
        ->type_name("N")
        ->transform(WholeNumber(1, 1000000))
        ->capture_default_str();
    verb->add_option("--rate", plan.rate_per_s,
                     "Frames a second of a connection, as in playout (default: as fast as they are "
                     "answered). Latency then counts from when a frame was due")
        ->type_name("FPS")
        ->check(Number(0.1, 100000));
    verb->add_flag("--random", plan.random, "Frames by chance instead of one after another");
    verb->add_option("--folder", plan.folder,
                     "Where the files are made; where there is none, above it")
        ->type_name("FOLDER")
        ->capture_default_str();
    verb->add_option("--file", plan.file, "Read this file of the server, from all connections")
        ->type_name("NAME");
}

}  // namespace zem
