// zem top: volume, clients and the own requests' latency, again and again: as a picture on a
// terminal, as blocks of text into a file, as a JSON object a sample. It does not join: watching
// changes nothing.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <ctime>
#include <thread>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/localfile.h"
#include "apps/zem/output.h"
#include "apps/zem/terminal.h"
#include "apps/zem/topview.h"
#include "apps/zem/valuecheck.h"
#include "apps/zem/verbs.h"

namespace zem {
namespace {

using Clock = std::chrono::steady_clock;

struct TopOptions {
    double interval_s = 1;
    uint32_t count = 0;  // 0: until it is stopped
};

// The local time now, as strftime writes it.
std::string TimeAs(const char* format) {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    localtime_r(&now, &parts);
    std::array<char, 40> text{};
    std::strftime(text.data(), text.size(), format, &parts);
    return text.data();
}

// As the server's log writes it: 2026-11-23T01:45:49+00:00.
std::string Stamp() {
    std::string stamp = TimeAs("%Y-%m-%dT%H:%M:%S%z");
    return stamp.insert(stamp.size() - 2, ":");
}

class CTop {
public:
    CTop(const CommandLine& line, const TopOptions& options)
        : m_line(line), m_options(options), m_http(line.Connection()) {
        m_http.SetStopCheck(&StopRequested);
        m_state.server = line.server;
        m_state.interval_s = options.interval_s;
        m_state.onScreen = !line.json && StdoutIsTerminal() && isatty(STDIN_FILENO) == 1;
    }

    int Run() {
        try {
            // An address that is wrong is told at once; what fails later is waited for.
            Sample();
            if (m_state.onScreen)
                Watch();
            else
                Print();
        } catch (const CZemError& error) {
            // Who ends it may do so in the middle of a sample.
            if (error.Kind() != ErrorKind::kInterrupted || !StopRequested()) throw;
        }
        return m_failure;
    }

private:
    void Sample();
    bool Next(uint32_t done);
    void Watch();
    void Print();
    void PrintSample() const;

    const CommandLine& m_line;
    const TopOptions& m_options;
    CHttpConnection m_http;
    TopState m_state;
    int m_failure = kExitOk;
};

// Asks for both pages. Throws what the first sample meets; later failures are part of the state.
void CTop::Sample() {
    const auto timed = [this](auto ask) {
        const Clock::time_point start = Clock::now();
        auto answer = ask(m_http);
        const auto took =
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
        m_state.TakeLatency(static_cast<uint64_t>(took.count()));
        return answer;
    };
    const std::string now = TimeAs("%H:%M:%S");
    try {
        const VolumeStatus volume = timed(&GetStatus);
        const ClientList clients = timed(&GetClients);
        m_state.Take(now, volume, clients);
        m_failure = kExitOk;
    } catch (const CZemError& error) {
        if (error.Kind() == ErrorKind::kInterrupted || !m_state.Started()) throw;
        m_state.TakeFailure(now, error.what());
        m_failure = error.Kind() == ErrorKind::kUnreachable ? kExitUnreachable : kExitBadReply;
    }
}

// False when `done` samples were enough, or somebody wants it to end.
bool CTop::Next(uint32_t done) {
    return !StopRequested() && (m_options.count == 0 || done < m_options.count);
}

void CTop::Watch() {
    CScreen screen;
    Clock::time_point due = Clock::now();
    const auto interval = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(m_options.interval_s));
    for (uint32_t done = 1;; ++done) {
        due = std::max(due + interval, Clock::now());
        const bool next = Next(done);
        while (!StopRequested()) {
            const CScreen::Size size = CScreen::CurrentSize();
            const std::vector<std::string> picture = TopPicture(m_state, size.columns, size.lines);
            CScreen::Draw(picture.data(), picture.size());
            if (!next || Clock::now() >= due) break;
            const char key = CScreen::Wait(due);
            if (key == 'q' || key == 'Q') return;
        }
        if (!next || StopRequested()) return;
        Sample();
    }
}

void CTop::PrintSample() const {
    if (m_line.json) {
        PrintLine(TopJson(m_state, Stamp()));
    } else {
        for (const std::string& row : TopPicture(m_state, 80, SIZE_MAX))
            PrintLine(row);
        PrintLine("");
    }
    FlushStdout();
}

void CTop::Print() {
    Clock::time_point due = Clock::now();
    const auto interval = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(m_options.interval_s));
    for (uint32_t done = 1;; ++done) {
        PrintSample();
        if (!Next(done)) return;
        due = std::max(due + interval, Clock::now());
        while (Clock::now() < due) {
            if (StopRequested()) return;
            std::this_thread::sleep_until(
                std::min(due, Clock::now() + std::chrono::milliseconds(100)));
        }
        Sample();
    }
}

}  // namespace

void AddTopVerb(CVerb program, CommandLine& line) {
    auto options = std::make_shared<TopOptions>();
    const CVerb verb = VerbGroup{program, line, "The server"}.Add(
        "top",
        "Watch volume, clients and the latency of its own requests. On a terminal a live picture, "
        "which q or Ctrl-C ends; else a block of text a sample, or with --json an object a sample",
        [options, &line] { return CTop(line, *options).Run(); });
    verb.Option("--interval", "SECONDS", options->interval_s, "Seconds between samples")
        .Check(Number(0.1, 3600))
        .ShowDefault();
    verb.Option("--count", "N", options->count, "End after so many samples (default: none)")
        .Check(WholeNumber(1));
}

}  // namespace zem
