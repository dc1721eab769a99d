// Puts the pieces of a message together again, so that one message is one line. A
// piece that may be followed by another waits for a moment; pieces of several threads may be mixed.
// Used by the writer thread only.
#pragma once

#include "mediaio/errorlog/record.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

class CLineAssembler {
public:
    using Clock = std::chrono::steady_clock;

    // Appends the lines that the record completes to `out`. A piece whose predecessor is missing
    // begins a line of its own, marked with dots.
    void Add(const ErrorRecord& record, ErrorLogFormat format, Clock::time_point now,
             std::string& out);

    // Appends the lines that have waited for their next piece long enough.
    void EndOverdue(Clock::time_point now, std::string& out);
    void EndAll(std::string& out);

    // When EndOverdue has something to do; nothing while no line waits.
    std::optional<Clock::time_point> NextDeadline() const;

private:
    struct OpenLine {
        DWORD threadId;
        unsigned nextPiece;
        Clock::time_point deadline;
        ErrorLogFormat format;
        std::string text;
    };

    static void End(const OpenLine& line, std::string& out);

    std::vector<OpenLine> m_open;  // at most one of each thread, oldest first
};
