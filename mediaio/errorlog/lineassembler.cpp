// lineassembler.cpp: one line per message.
#include "mediaio/errorlog/lineassembler.h"

#include <algorithm>

namespace {

// A thread writes the pieces of a message one after the other without a pause.
constexpr std::chrono::milliseconds kPieceWait_ms{20};

}  // namespace

void CLineAssembler::Add(const ErrorRecord& record, Clock::time_point now, std::string& out) {
    auto open = std::find_if(m_open.begin(), m_open.end(), [&](const OpenLine& line) {
        return line.threadId == record.threadId;
    });
    std::string text;
    if (open != m_open.end()) {
        const bool joins = record.piece != 0 && record.piece == open->nextPiece;
        text = std::move(open->text);
        m_open.erase(open);
        if (!joins) {
            out += text + '\n';
            text.clear();
        }
    }
    if (text.empty()) {
        AppendRecordStart(record, text);
        if (record.piece != 0) text += "... ";
    }
    AppendRecordText(record, text);
    if (record.mayContinue)
        m_open.push_back(
            {record.threadId, record.piece + 1u, now + kPieceWait_ms, std::move(text)});
    else
        out += text + '\n';
}

void CLineAssembler::EndOverdue(Clock::time_point now, std::string& out) {
    auto line = m_open.begin();
    for (; line != m_open.end() && line->deadline <= now; ++line)
        out += line->text + '\n';
    m_open.erase(m_open.begin(), line);
}

void CLineAssembler::EndAll(std::string& out) {
    EndOverdue(Clock::time_point::max(), out);
}

std::optional<CLineAssembler::Clock::time_point> CLineAssembler::NextDeadline() const {
    if (m_open.empty()) return std::nullopt;
    return m_open.front().deadline;
}
