// See terminal.h. Signal handlers only set flags, or write the sequence that gives the terminal
// back.
#include "apps/zem/terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "apps/zem/client/text.h"
#include "apps/zem/output.h"

namespace zem {

bool StdoutIsTerminal() {
    return isatty(STDOUT_FILENO) == 1;
}
bool StderrIsTerminal() {
    return isatty(STDERR_FILENO) == 1;
}

namespace {

ColourMode g_colours = ColourMode::kAuto;

bool Colourful(Stream stream) {
    if (g_colours != ColourMode::kAuto) return g_colours == ColourMode::kAlways;
    const char* const no = std::getenv("NO_COLOR");
    const char* const term = std::getenv("TERM");
    if ((no != nullptr && *no != '\0') || term == nullptr || std::string_view(term) == "dumb")
        return false;
    return stream == Stream::kOut ? StdoutIsTerminal() : StderrIsTerminal();
}

const char* SequenceOf(Colour colour) {
    switch (colour) {
        case Colour::kBold:
            return "\x1b[1m";
        case Colour::kDim:
            return "\x1b[2m";
        case Colour::kRed:
            return "\x1b[31m";
        case Colour::kGreen:
            return "\x1b[32m";
        case Colour::kYellow:
            return "\x1b[33m";
        case Colour::kCyan:
            return "\x1b[36m";
    }
    return "";
}

// Ranges of the Unicode tables for East Asian width and combining marks, coarse on purpose: a
// column too few in a name is a blemish, not an error.
size_t ColumnsOfPoint(uint32_t point) {
    struct Range {
        uint32_t first;
        uint32_t last;
    };
    constexpr std::array<Range, 6> kNone = {{{0x0300, 0x036F},
                                             {0x0483, 0x0489},
                                             {0x0591, 0x05BD},
                                             {0x200B, 0x200D},
                                             {0x20D0, 0x20FF},
                                             {0xFE00, 0xFE0F}}};
    constexpr std::array<Range, 8> kWide = {{{0x1100, 0x115F},
                                             {0x2E80, 0x303E},
                                             {0x3041, 0xA4CF},
                                             {0xAC00, 0xD7A3},
                                             {0xF900, 0xFAFF},
                                             {0xFE30, 0xFE6F},
                                             {0xFF00, 0xFF60},
                                             {0x1F300, 0x1FAFF}}};
    for (const Range& range : kNone)
        if (point >= range.first && point <= range.last) return 0;
    for (const Range& range : kWide)
        if (point >= range.first && point <= range.last) return 2;
    return point >= 0x20000 && point <= 0x3FFFD ? 2 : 1;
}

size_t TerminalColumns(int descriptor) {
    winsize size{};
    if (ioctl(descriptor, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) return 80;
    return size.ws_col;
}

}  // namespace

void SetColourMode(ColourMode mode) {
    g_colours = mode;
}

std::string Painted(Stream stream, Colour colour, std::string_view text) {
    if (!Colourful(stream)) return std::string(text);
    return SequenceOf(colour) + std::string(text) + "\x1b[0m";
}

size_t ColumnsOf(std::string_view text) {
    size_t columns = 0;
    for (size_t at = 0; at < text.size();)
        columns += ColumnsOfPoint(NextCodePoint(text, at));
    return columns;
}

std::string CutToColumns(std::string_view text, size_t columns) {
    if (ColumnsOf(text) <= columns) return std::string(text);
    size_t used = 1;  // the mark
    size_t at = 0;
    while (at < text.size()) {
        size_t next = at;
        used += ColumnsOfPoint(NextCodePoint(text, next));
        if (used > columns) break;
        at = next;
    }
    return std::string(text.substr(0, at)) + (columns > 0 ? "~" : "");
}

std::string DurationText(double seconds) {
    const auto whole = std::lround(seconds);
    std::array<char, 48> text{};
    if (whole >= 3600) {
        std::snprintf(text.data(), text.size(), "%ld:%02ld:%02ld", whole / 3600, whole / 60 % 60,
                      whole % 60);
    } else {
        std::snprintf(text.data(), text.size(), "%ld:%02ld", whole / 60, whole % 60);
    }
    return text.data();
}

std::string ProgressLine(std::string_view label, const ProgressState& state, size_t columns) {
    constexpr size_t kWidestBar = 24;
    constexpr size_t kNarrowestBar = 6;
    constexpr size_t kLabel = 24;  // so much of it stays before the bar gets narrower
    // One column stays free: a terminal may wrap when its last one is filled.
    const size_t room = columns > 1 ? columns - 1 : 1;
    std::string tail;
    const auto add = [&tail](const std::string& text) {
        tail += (tail.empty() ? "" : "  ") + text;
    };
    const double part = state.total == 0 ? 0
                                         : static_cast<double>(std::min(state.done, state.total)) /
                                               static_cast<double>(state.total);
    if (state.total > 0) {
        std::array<char, 8> percent{};
        std::snprintf(percent.data(), percent.size(), "%3d %%", static_cast<int>(part * 100));
        add(percent.data());
    }
    if (state.frames > 0) add(std::to_string(state.frames) + " frames");
    if (state.bytes_per_s >= 0) add(HumanBytes(static_cast<uint64_t>(state.bytes_per_s)) + "/s");
    if (state.left_s >= 0) add(DurationText(state.left_s) + " left");
    if (tail.size() + 3 > room) return CutToColumns(tail, room);
    size_t rest = room - tail.size() - 2;  // for the label, and "[bar]  "
    const size_t wanted =
        std::min(ColumnsOf(label), std::max(kLabel, rest - std::min(rest, kWidestBar + 4)));
    if (state.total > 0 && rest >= wanted + kNarrowestBar + 4) {
        const size_t bar = std::min(kWidestBar, rest - wanted - 4);
        const auto filled = static_cast<size_t>(part * static_cast<double>(bar));
        tail = "[" + std::string(filled, '#') + std::string(bar - filled, '.') + "]  " + tail;
        rest -= bar + 4;
    }
    return CutToColumns(label, rest) + "  " + tail;
}

CProgress::CProgress(std::string label, bool wanted)
    : m_label(std::move(label)),
      m_on(wanted && StderrIsTerminal()),
      m_last(Clock::now()),
      m_sampled(m_last) {}

CProgress::~CProgress() {
    if (m_drawn) std::fputs("\r\x1b[K", stderr);
}

void CProgress::Show(uint64_t done, uint64_t total, uint64_t frames, uint64_t bytes) {
    if (!m_on) return;
    const Clock::time_point now = Clock::now();
    if (m_drawn && now - m_last < std::chrono::milliseconds(100)) return;
    m_last = now;
    const double seconds = std::chrono::duration<double>(now - m_sampled).count();
    // An average that forgets: what was longer ago than three seconds hardly counts.
    if (seconds > 0) {
        const double weight = m_bytes_per_s < 0 ? 1 : seconds / (seconds + 3);
        const auto follow = [&](double& rate, uint64_t value, uint64_t& before) {
            const double fresh = value > before ? static_cast<double>(value - before) / seconds : 0;
            rate = (rate < 0 ? 0 : rate) * (1 - weight) + fresh * weight;
            before = value;
        };
        follow(m_done_per_s, done, m_sampledDone);
        follow(m_bytes_per_s, bytes, m_sampledBytes);
        m_sampled = now;
    }
    ProgressState state{done, total, frames, bytes > 0 ? m_bytes_per_s : -1, -1};
    if (total > done && m_done_per_s > 0)
        state.left_s = static_cast<double>(total - done) / m_done_per_s;
    m_drawn = true;
    std::fprintf(stderr, "\r\x1b[K%s",
                 ProgressLine(m_label, state, TerminalColumns(STDERR_FILENO)).c_str());
}

namespace {

// The other screen, no cursor, and what is too long ends at the edge instead of in the next line.
constexpr std::string_view kEnterScreen = "\x1b[?1049h\x1b[?25l\x1b[?7l";
constexpr std::string_view kLeaveScreen = "\x1b[0m\x1b[?7h\x1b[?25h\x1b[?1049l";

// Signal handlers set these, on whichever thread they run.
std::atomic<int> g_stop{0};
std::atomic<int64_t> g_stoppedAt_ns{0};
std::atomic<int> g_outputClosed{0};
std::atomic<int> g_suspend{0};
std::atomic<int> g_screen{0};  // the terminal is ours
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<int64_t>::is_always_lock_free);
// A signal between a look at the flags and the wait must not be missed: its handler writes into
// this pipe, which the wait watches. -1 before signals are caught.
std::array<int, 2> g_signals = {-1, -1};
termios g_before{};

void WriteAll(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written < 0 && errno != EINTR) return;
        if (written > 0) text.remove_prefix(static_cast<size_t>(written));
    }
}

void TakeTerminal() {
    termios mine = g_before;
    mine.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    mine.c_cc[VMIN] = 0;
    mine.c_cc[VTIME] = 0;
    g_screen = 1;
    tcsetattr(STDIN_FILENO, TCSANOW, &mine);
    WriteAll(kEnterScreen);
}

// Safe in a signal handler.
void GiveTerminalBack() {
    if (g_screen == 0) return;
    g_screen = 0;
    WriteAll(kLeaveScreen);
    tcsetattr(STDIN_FILENO, TCSANOW, &g_before);
}

void WakeWaiter() {
    const int before = errno;
    const char byte = 0;
    // A full pipe wakes as well.
    if (g_signals[1] >= 0 && write(g_signals[1], &byte, 1) < 0) errno = before;
}

int64_t Now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

void RequestStop() {
    g_stoppedAt_ns = Now_ns();
    g_stop = 1;
    WakeWaiter();
}

void OnStopSignal(int number) {
    // timeout(1) and others signal a process and its group: a second one that comes with the first
    // is the same wish.
    constexpr int64_t kSameWish_ns = 300'000'000;
    if (g_stop == 0) {
        RequestStop();
        return;
    }
    if (Now_ns() - g_stoppedAt_ns < kSameWish_ns) return;
    GiveTerminalBack();
    std::signal(number, SIG_DFL);
    std::raise(number);
}
// From a write to stdout or stderr that nobody reads any more; connections never send this. The
// write fails.
void OnClosedPipe(int) {
    g_outputClosed = 1;
    if (g_stop == 0) RequestStop();
}
void OnSuspend(int) {
    g_suspend = 1;
    WakeWaiter();
}
void OnResize(int) {
    WakeWaiter();  // the next picture has the new size
}

void Catch(int number, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;  // poll ends all the same
    sigaction(number, &action, nullptr);
}

}  // namespace

void CatchStopSignals() {
    if (pipe2(g_signals.data(), O_NONBLOCK | O_CLOEXEC) != 0) g_signals = {-1, -1};
    Catch(SIGINT, &OnStopSignal);
    Catch(SIGTERM, &OnStopSignal);
    // nohup(1) asks to go on when the terminal is gone.
    struct sigaction hangup {};
    sigaction(SIGHUP, nullptr, &hangup);
    if (hangup.sa_handler != SIG_IGN) Catch(SIGHUP, &OnStopSignal);
    Catch(SIGPIPE, &OnClosedPipe);
    std::signal(SIGXFSZ, SIG_IGN);
}

bool StopRequested() {
    return g_stop != 0;
}

bool OutputClosed() {
    return g_outputClosed != 0;
}

bool WaitForInput(int fd) {
    while (!StopRequested()) {
        std::array<pollfd, 2> ends = {{{fd, POLLIN, 0}, {g_signals[0], POLLIN, 0}}};
        const int ready = poll(ends.data(), ends.size(), -1);
        // What is closed or no pipe is told by the read.
        if (ready > 0 && ends[0].revents != 0) return !StopRequested();
        if (ready < 0 && errno != EINTR) return true;
    }
    return false;
}

CScreen::CScreen() {
    tcgetattr(STDIN_FILENO, &g_before);
    Catch(SIGTSTP, &OnSuspend);
    Catch(SIGWINCH, &OnResize);
    TakeTerminal();
}

CScreen::~CScreen() {
    GiveTerminalBack();
    Catch(SIGTSTP, SIG_DFL);
    Catch(SIGWINCH, SIG_DFL);
}

CScreen::Size CScreen::CurrentSize() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
        return {80, 24};
    return {size.ws_col, size.ws_row};
}

void CScreen::Draw(const std::string* lines, size_t count) {
    const size_t room = CurrentSize().lines;
    // One write a picture: nothing flickers. A line is cleared before it is written: behind a full
    // one the cursor still stands on its last character.
    std::string picture = "\x1b[H";
    const size_t shown = std::min(count, room);
    for (size_t i = 0; i < shown; ++i)
        picture += (i == 0 ? "\x1b[K" : "\r\n\x1b[K") + lines[i];
    if (shown < room) picture += shown == 0 ? "\x1b[J" : "\r\n\x1b[J";
    WriteAll(picture);
}

char CScreen::Wait(std::chrono::steady_clock::time_point deadline) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    std::array<pollfd, 2> ends = {
        {{STDIN_FILENO, POLLIN, 0}, {g_signals[0], POLLIN, 0}}};  // a negative one is not watched
    const int timeout_ms = left.count() > 0 ? static_cast<int>(left.count()) : 0;
    char key = 0;
    if (poll(ends.data(), ends.size(), timeout_ms) > 0) {
        std::array<char, 64> seen{};
        while (ends[1].revents != 0 && read(g_signals[0], seen.data(), seen.size()) > 0) {
        }
        // A terminal that is gone is always readable and never has a key.
        if (ends[0].revents != 0 && read(STDIN_FILENO, &key, 1) != 1) {
            key = 0;
            if ((ends[0].revents & (POLLHUP | POLLERR)) != 0 && g_stop == 0) RequestStop();
        }
    }
    if (g_suspend != 0) {
        g_suspend = 0;
        GiveTerminalBack();
        std::raise(SIGSTOP);
        tcgetattr(STDIN_FILENO, &g_before);
        TakeTerminal();
    }
    return key;
}

}  // namespace zem
