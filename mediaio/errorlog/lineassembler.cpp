// One line per message.
#include "mediaio/errorlog/lineassembler.h"

#include <algorithm>

namespace {

// A thread writes the pieces of a message one after the other without a pause.
constexpr std::chrono::milliseconds kPieceWait_ms{20};

}  // namespace

void CLineAssembler::Add(const ErrorRecord& record, ErrorLogFormat format, Clock::time_point now,
                         std::string& out) {
    auto open = std::find_if(m_open.begin(), m_open.end(), [&](const OpenLine& line) {
        return line.threadId == record.threadId;
    });
    std::string text;
    if (open != m_open.end()) {
        const bool joins = record.piece != 0 && record.piece == open->nextPiece;
        if (joins) {
            text = std::move(open->text);
            format = open->format;
        } else {
            End(*open, out);
        }
        m_open.erase(open);
    }
    if (text.empty()) {
        AppendRecordStart(record, format, text);
        if (record.piece != 0) text += "... ";
    }
    AppendRecordText(record, format, text);
    OpenLine line{record.threadId, record.piece + 1u, now + kPieceWait_ms, format, std::move(text)};
    if (record.mayContinue)
        m_open.push_back(std::move(line));
    else
        End(line, out);
}

void CLineAssembler::End(const OpenLine& line, std::string& out) {
    out += line.text;
    AppendRecordEnd(line.format, out);
}

void CLineAssembler::EndOverdue(Clock::time_point now, std::string& out) {
    auto line = m_open.begin();
    for (; line != m_open.end() && line->deadline <= now; ++line)
        End(*line, out);
    m_open.erase(m_open.begin(), line);
}

void CLineAssembler::EndAll(std::string& out) {
    EndOverdue(Clock::time_point::max(), out);
}

std::optional<CLineAssembler::Clock::time_point> CLineAssembler::NextDeadline() const {
    if (m_open.empty()) return std::nullopt;
    return m_open.front().deadline;
}
