// zem bench: a load test of the user's own server and network. Every connection is a client with a
// file of its own and a thread of its own; what was written is read back and compared before it is
// called written.
#include <exception>
#include <thread>

#include "apps/zem/benchreport.h"
#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/nearestfolder.h"
#include "apps/zem/output.h"
#include "apps/zem/session.h"
#include "apps/zem/terminal.h"
#include "apps/zem/valuecheck.h"
#include "apps/zem/verbs.h"

namespace zem {
namespace {

using Clock = std::chrono::steady_clock;

struct BenchOptions {
    std::string mode = "both";
    std::string frameSize = "1M";
    BenchPlan plan;
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
    // Throws that failure again, with the names of what could not be deleted.
    [[noreturn]] void Fail(const std::exception_ptr& failure) const;
    // Calls `work` in a thread per connection. Throws what the first of them threw; a failure ends
    // the others.
    template <typename Work>
    void Everywhere(const char* title, double seconds, Work work);
    void Measure(const char* mode, void (CBenchWorker::*work)(Clock::time_point));

    const CommandLine& m_line;
    BenchPlan m_plan;
    const bool m_writes;
    const bool m_reads;
    std::atomic<bool> m_stop{false};
    std::vector<std::unique_ptr<CBenchWorker>> m_workers;
    BenchReport m_report;
};

CBench::CBench(const CommandLine& line, const BenchOptions& options)
    : m_line(line),
      m_plan(options.plan),
      m_writes(options.mode != "read"),
      m_reads(options.mode != "write") {
    m_report.server = line.server;
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
        Fail(std::current_exception());
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
        m_report.folderNote = folder.note;
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
        BenchRun run{mode, std::chrono::duration<double>(Clock::now() - start).count(), {}};
        for (const std::unique_ptr<CBenchWorker>& worker : m_workers) {
            run.total.frames += worker->result.frames;
            run.total.bytes += worker->result.bytes;
            run.total.late += worker->result.late;
            run.total.latency.Add(worker->result.latency);
        }
        if (run.total.frames > 0) m_report.runs.push_back(run);
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
        m_report.compared = true;
    }
}

void CBench::CleanUp() {
    for (const std::unique_ptr<CBenchWorker>& worker : m_workers)
        worker->CleanUp();
}

void CBench::Fail(const std::exception_ptr& failure) const {
    std::string left;
    for (const std::unique_ptr<CBenchWorker>& worker : m_workers)
        if (worker->LeftFile()) left += (left.empty() ? "" : ", ") + Printable(worker->FileName());
    try {
        std::rethrow_exception(failure);
    } catch (const CZemError& error) {
        if (left.empty()) throw;
        throw CZemError(error.Kind(), std::string(error.what()) + "; not deleted: " + left,
                        error.Hr(), error.Reason());
    }
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
        m_report.lost += worker->lost;
    // Stopped or failed: what was measured until then is told all the same.
    if (!m_report.runs.empty()) (m_line.json ? PrintBenchJson : PrintBench)(m_plan, m_report);
    if (end) Fail(end);
    return m_report.lost == 0 ? kExitOk : kExitFailed;
}

}  // namespace

void AddBenchVerb(CVerb program, CommandLine& line) {
    auto options = std::make_shared<BenchOptions>();
    BenchPlan& plan = options->plan;
    const CVerb verb = VerbGroup{program, line, "The server"}.Add(
        "bench",
        "Load the server and measure: frames and bytes a second, percentiles and a histogram "
        "of the latency. It makes files of its own and deletes them; what it wrote it reads back",
        [options, &line] { return CBench(line, *options).Go(); });
    verb.Option("--mode", "MODE", options->mode,
                "What to do: write, read, or both one after the other")
        .Check(OneOf({"read", "write", "both"}))
        .ShowDefault();
    verb.Option("--connections", "N", plan.connections, "Clients at the same time")
        .Check(WholeNumber(1, 256))
        .ShowDefault();
    verb.Option("--seconds", "SECONDS", plan.seconds, "How long each mode goes on")
        .Check(Number(0.1, 86400))
        .ShowDefault();
    verb.Option("--frame-size", "BYTES", options->frameSize,
                "Bytes of a frame; k, M and G count 1024")
        .ShowDefault();
    verb.Option("--frames", "N", plan.frames, "Frames in the file of a connection")
        .Check(WholeNumber(1, 1000000))
        .ShowDefault();
    verb.Option("--rate", "FPS", plan.rate_per_s,
                "Frames a second of a connection, as in playout (default: as fast as they are "
                "answered). Latency then counts from when a frame was due")
        .Check(Number(0.1, 100000));
    verb.Flag("--random", plan.random, "Frames by chance instead of one after another");
    verb.Option("--folder", "FOLDER", plan.folder,
                "Where the files are made; where there is none, above it")
        .ShowDefault();
    verb.Option("--file", "NAME", plan.file, "Read this file of the server, from all connections");
}

}  // namespace zem
