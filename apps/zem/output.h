// What the program shows: numbers for people, JSON for programs, a progress line on a terminal.
// Main thread only.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace zem {

// "12.3 MiB"; below 1 KiB in bytes.
std::string HumanBytes(uint64_t bytes);

// A JSON text, built in order. Members of an object are given a key, elements of an array none (an
// empty key).
class CJson {
public:
    CJson& Open(char bracket, std::string_view key = {});  // '{' or '['
    CJson& Close();
    CJson& Text(std::string_view key, std::string_view value);
    CJson& Number(std::string_view key, int64_t value);
    CJson& Unsigned(std::string_view key, uint64_t value);
    CJson& Bool(std::string_view key, bool value);
    CJson& Null(std::string_view key);
    const std::string& Str() const { return m_text; }

private:
    void Begin(std::string_view key);
    void Quote(std::string_view value);
    std::string m_text;
    std::string m_brackets;  // the closing brackets that are still owed
    bool m_first = true;
};

bool StdoutIsTerminal();
bool StderrIsTerminal();

// "[####....] 41 % 2:31 left, NOTE"; a `total` of 0 means unknown.
std::string ProgressText(uint64_t done, uint64_t total, double seconds, std::string_view note);

// One line on stderr that is redrawn at most ten times a second. Draws nothing when stderr is not a
// terminal.
class CProgress {
public:
    explicit CProgress(std::string label, bool wanted);
    ~CProgress();  // clears the line
    CProgress(const CProgress&) = delete;
    CProgress& operator=(const CProgress&) = delete;

    // `total` 0 means unknown; `note` is free text behind the bar.
    void Show(uint64_t done, uint64_t total, std::string_view note);
    double Seconds() const;

private:
    std::string m_label;
    bool m_on;
    bool m_drawn = false;
    std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_last;
};

// Makes SIGINT and SIGTERM set a flag instead of ending the process; a second one ends it.
void CatchStopSignals();
bool StopRequested();

// zem-PID-RANDOM: no other running client has it.
std::string DefaultClientId();

}  // namespace zem
