// The terminal: whether there is one, its colours, a progress line, a full screen that is always
// given back, and the signals that ask to stop. Main thread only, but for
// StopRequested.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace zem {

bool StdoutIsTerminal();
bool StderrIsTerminal();

// Colours go to a terminal only, and not when NO_COLOR is set to anything or TERM is "dumb"
// (kAuto).
enum class ColourMode { kAuto, kAlways, kNever };
void SetColourMode(ColourMode mode);
enum class Stream { kOut, kErr };
enum class Colour { kBold, kDim, kRed, kGreen, kYellow, kCyan };
// `text` between the colour's sequence and its end, or as it is where colours are off.
std::string Painted(Stream stream, Colour colour, std::string_view text);

// Columns that `text` takes: one for a code point, two for the wide ones of East Asia, none for
// combining marks. `text` is Printable.
size_t ColumnsOf(std::string_view text);
// The beginning of `text` that fits, with a mark at its end when something was cut off.
std::string CutToColumns(std::string_view text, size_t columns);

// "0:07", "12:31", "2:03:40".
std::string DurationText(double seconds);

// What a progress line tells; see ProgressLine.
struct ProgressState {
    uint64_t done = 0;
    uint64_t total = 0;  // in the unit of `done`; 0: unknown
    uint64_t frames = 0;
    double bytes_per_s = 0;  // below 0: not known yet
    double left_s = -1;      // below 0: not known
};
// "put media/clip [######......]  42 %  1204 frames  118.2 MiB/s  0:07 left", cut to `columns`:
// what does not fit goes from the middle, the label first.
std::string ProgressLine(std::string_view label, const ProgressState& state, size_t columns);

// One line on stderr that is redrawn at most ten times a second. Draws nothing when stderr is not a
// terminal. Rate and time left are those of the last seconds.
class CProgress {
public:
    CProgress(std::string label, bool wanted);
    ~CProgress();  // clears the line
    CProgress(const CProgress&) = delete;
    CProgress& operator=(const CProgress&) = delete;

    // `done` of `total` (0: unknown), in whatever unit; frames and bytes moved so far.
    void Show(uint64_t done, uint64_t total, uint64_t frames, uint64_t bytes);

private:
    using Clock = std::chrono::steady_clock;
    std::string m_label;
    bool m_on;
    bool m_drawn = false;
    Clock::time_point m_last;
    Clock::time_point m_sampled;
    uint64_t m_sampledDone = 0;
    uint64_t m_sampledBytes = 0;
    double m_done_per_s = -1;
    double m_bytes_per_s = -1;
};

// Makes SIGINT, SIGTERM and SIGHUP (unless the process was started to ignore it) set a flag instead
// of ending the process; a second one, 0.3 s later or more, ends it, after the terminal was given
// back. SIGPIPE sets the flag, too: who read the output is gone. SIGXFSZ does nothing: a file at
// its size limit is a failed write, which is cleaned up after.
void CatchStopSignals();
bool StopRequested();
bool OutputClosed();  // it was SIGPIPE
// Waits until `fd` can be read; false when a stop is asked for.
bool WaitForInput(int fd);

// The whole terminal for one picture after another: the other screen, no cursor, keys at once and
// without echo. Stdin and stdout must be terminals. However the process ends, but for SIGKILL, the
// terminal is as it was; so it is while the process is stopped by SIGTSTP.
class CScreen {
public:
    CScreen();
    ~CScreen();
    CScreen(const CScreen&) = delete;
    CScreen& operator=(const CScreen&) = delete;

    struct Size {
        size_t columns;
        size_t lines;
    };
    static Size CurrentSize();
    // Shows `lines` from the top; what does not fit is cut off at the bottom. Lines hold no
    // sequences but those of Painted, and are cut to the columns already.
    static void Draw(const std::string* lines, size_t count);
    // Waits for a key, a new size of the terminal or a signal, at most until `deadline`. The key,
    // or 0.
    static char Wait(std::chrono::steady_clock::time_point deadline);
};

}  // namespace zem
