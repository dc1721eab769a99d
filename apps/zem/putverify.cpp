// Comparing a clip with what the server has of it: the protocol answers S_OK to every write, so the
// size and checksum of what was sent are remembered.
#include <cstdio>

#include "apps/zem/client/text.h"
#include "apps/zem/output.h"
#include "apps/zem/put.h"
#include "apps/zem/reasons.h"
#include "apps/zem/terminal.h"

namespace zem {

// The answer to a write says nothing of the disk; the commonest reason is told here.
void CPut::ThrowLost(const PutFile& file, uint32_t position, const std::string& what) {
    Why why = IfVolumeIsFull(*m_session);
    if (why.text.empty())
        why.text = "; the server answered its write with success, its log has the reason";
    throw CZemError(
        ErrorKind::kRefused,
        Printable(file.name) + ": frame " + std::to_string(position) + " " + what + why.text, 0,
        why.word);
}

// A disk that is full takes no more: that shows here, and not when all has been sent in vain.
void CPut::CheckLast(const PutFile& file) {
    if (!m_canFlush || file.frames.empty()) return;
    const auto last = static_cast<uint32_t>(file.frames.size() - 1);
    std::vector<FrameDescEntry> descs;
    IfImplemented([&] { descs = m_session->FrameDescs(file.token, last, 1); });
    if (descs.empty() || (descs[0].flags & kFrameFlagPresent) != 0) return;
    bool implemented = true;
    VerifyDescs(file, file.token, implemented);  // tells of the first that is missing
    ThrowLost(file, last, "is missing");
}

void CPut::Verify(const PutFile& file) {
    if (file.frames.empty()) return;
    COpenFile open(*m_session, OpenNamed(*m_session, FileNamed(file.written)));
    const auto count = static_cast<uint32_t>(file.frames.size());
    bool described = m_options.verify != "all";
    if (described) VerifyDescs(file, open.Token(), described);
    if (!described) {
        CProgress progress("verify " + Printable(file.name), !m_line.quiet);
        uint64_t bytes = 0;
        for (uint32_t position = 0; position + 1 < count; ++position) {
            VerifyFrame(file, open.Token(), position);
            bytes += file.frames[position].size_bytes;
            progress.Show(bytes, file.total_bytes, position + 1, bytes);
        }
    }
    VerifyFrame(file, open.Token(), count - 1);
    open.Close();
}

void CPut::VerifyDescs(const PutFile& file, uint64_t token, bool& implemented) {
    std::vector<FrameDescEntry> descs;
    implemented = IfImplemented([&] {
        descs = m_session->FrameDescs(token, 0, static_cast<uint32_t>(file.frames.size()));
    });
    for (size_t i = 0; i < descs.size(); ++i) {
        const auto position = static_cast<uint32_t>(i);
        if ((descs[i].flags & kFrameFlagPresent) == 0) ThrowLost(file, position, "is missing");
        if ((descs[i].flags & kFrameFlagCorrupt) != 0) ThrowLost(file, position, "is damaged");
        if (descs[i].dataSize != file.frames[i].size_bytes) {
            ThrowLost(file, position,
                      "has " + std::to_string(descs[i].dataSize) + " bytes there, " +
                          std::to_string(file.frames[i].size_bytes) + " here");
        }
    }
}

void CPut::VerifyFrame(const PutFile& file, uint64_t token, uint32_t position) {
    if (StopRequested()) throw CZemError(ErrorKind::kInterrupted, "stopped while verifying");
    const StreamFrame& frame = ReadOneFrame(*m_session, token, position);
    if (frame.status < 0)
        ThrowLost(file, position, "cannot be read back: " + HresultText(frame.status));
    const SentFrame& sent = file.frames[position];
    if (frame.data.size() != sent.size_bytes || CrcOf(frame.data) != sent.crc)
        ThrowLost(file, position, "reads back with other contents");
}

}  // namespace zem
