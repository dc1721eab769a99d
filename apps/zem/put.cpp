// Sending a clip: the files are created, filled frame by frame, and an import takes its names when
// it is whole.
#include "apps/zem/put.h"

extern "C" {
#include <libavutil/mathematics.h>
}

#include <algorithm>

#include "apps/zem/client/text.h"
#include "apps/zem/output.h"
#include "apps/zem/reasons.h"
#include "apps/zem/terminal.h"
#include "mediaio/cadence.h"
#include "mediaio/foreign/avdesc.h"

namespace zem {

void RequireClipName(const std::string& name) {
    if (!name.empty() && !name.ends_with('/') && !name.ends_with('\\')) return;
    throw CZemError(
        ErrorKind::kUsage,
        "'" + Printable(name) + "' has no name for the clip at its end, as in " + "media/clip");
}

// Its files would lie beside the folder, where nobody looks for them.
void CPut::RequireNoFolder() {
    const uint32_t attributes = m_session->Attributes(FileNamed(m_options.name).name);
    if (attributes == kNoAttributes || (attributes & kAttributeDirectory) == 0) return;
    const std::string name = Printable(m_options.name);
    throw CZemError(
        ErrorKind::kRefused,
        name + " is a folder: say what the clip is to be called in it, as in " + name + "/clip", 0,
        kReasonFolder);
}

int CPut::Run() {
    bool complete = false;
    try {
        // A clip that cannot be read shows at its first frame: no file was made by then.
        ClipPacket first;
        if (!m_clip.Next(first))
            throw CZemError(ErrorKind::kLocalFile, Printable(m_options.clip) + ": no frame in it");
        RequireNoFolder();
        CreateFiles();
        SendAll(first);
        if (m_options.import) Describe();
        complete = true;
        for (PutFile& file : m_files)
            Close(file);
        // Opened anew: what is compared is what the next client will see.
        for (const PutFile& file : m_files)
            Verify(file);
        if (m_options.import) Publish();
    } catch (const CZemError& error) {
        std::string left;
        if (m_options.import) {
            left = TakeBack(error.Kind());
        } else if (!m_files.empty()) {
            left = complete && error.Kind() != ErrorKind::kRefused
                       ? Left("; nobody has compared the files on the server:")
                       : Left("; the files on the server are incomplete:");
        }
        throw CZemError(error.Kind(), error.what() + left, error.Hr(), error.Reason());
    }
    Summary();
    return kExitOk;
}

std::string CPut::Left(std::string text) const {
    for (const PutFile& file : m_files)
        text += " " + Printable(file.written);
    return text + " (zem rm removes them, " +
           (m_options.import ? "the same import writes over them)"
                             : "zem put --force replaces them)");
}

void CPut::CreateFiles() {
    for (size_t i = 0; i < m_clip.Streams().size(); ++i) {
        const ClipStream& stream = m_clip.Streams()[i];
        PutFile file;
        file.name = m_options.name + "." + stream.suffix;
        file.desc = stream.desc;
        file.codecName = stream.codecName;
        if (m_options.import) PrepareHead(i, file);
        Create(std::move(file));
    }
    if (!m_options.import) return;
    PutFile file;
    file.name = ClipFileName(m_options.name);
    file.desc = ClipFileDesc();
    file.codecName = "clip description";
    Create(std::move(file));
}

// " (video, jpeg (mjpeg), 25 frames)"; empty where that cannot be told.
std::string CPut::WhatIs(const std::string& name) {
    try {
        const ZemEsDesc desc = m_session->FileInfo(FileNamed(name));
        return std::string(" (") + MediaTypeText(desc.mediaType) + ", " + CodecText(desc) + ", " +
               Counted(desc.frameCount, "frame") + ")";
    } catch (const CZemError& error) {
        if (error.Kind() != ErrorKind::kRefused) throw;
        return {};
    }
}

// An import appears under its names when it is whole. What an import that was killed has left is
// written over.
void CPut::Create(PutFile file) {
    file.written = file.name + (m_options.import ? ".part" : "");
    const bool replace = m_options.force || m_options.import;
    const uint32_t flags = kFileRead | kFileWrite | (replace ? kFileTruncate : kFileCreateNew);
    if (m_options.import && !m_options.force &&
        m_session->Attributes(FileNamed(file.name).name) != kNoAttributes) {
        throw CZemError(
            ErrorKind::kRefused,
            Printable(file.name) + " exists" + WhatIs(file.name) + "; --force replaces it", 0,
            kReasonExists);
    }
    try {
        file.token = m_session->Create(FileNamed(file.written).name, u"", file.desc, flags);
    } catch (const CZemError& error) {
        if (error.Kind() != ErrorKind::kRefused) throw;
        throw Explained(error, WhyNotCreated(*m_session, file.written, replace));
    }
    m_files.push_back(std::move(file));
}

void CPut::PrepareHead(size_t stream, PutFile& file) {
    const AVStream& source = m_clip.Source(stream);
    StreamHead& head = file.head;
    head.suffix = m_clip.Streams()[stream].suffix;
    head.timecode = m_clip.Streams()[stream].timecode;
    head.timeBase = source.time_base;
    head.parameters.reset(avcodec_parameters_alloc());
    if (head.parameters == nullptr ||
        avcodec_parameters_copy(head.parameters.get(), source.codecpar) < 0) {
        throw std::bad_alloc();
    }
    if (file.desc.mediaType == kMediaFileVideo && file.desc.rateDenominator != 0) {
        head.rate = {static_cast<int>(file.desc.rateNumerator),
                     static_cast<int>(file.desc.rateDenominator)};
    }
    head.sampleSize = zemav::PcmSampleSize(*source.codecpar);
    if (head.sampleSize == 0) return;
    head.timeBase = {1, static_cast<int>(file.desc.sampleRate)};
    // Frame n of the sound belongs to frame n of the pictures.
    file.desc.rateNumerator = 25;
    file.desc.rateDenominator = 1;
    for (const ClipStream& video : m_clip.Streams()) {
        if (video.desc.mediaType != kMediaFileVideo || video.desc.rateDenominator == 0) continue;
        file.desc.rateNumerator = video.desc.rateNumerator;
        file.desc.rateDenominator = video.desc.rateDenominator;
        file.desc.startTimecode = video.desc.startTimecode;
        file.desc.flags = video.desc.flags;
        break;
    }
}

void CPut::SendAll(ClipPacket packet) {
    CProgress progress((m_options.import ? "import " : "put ") + Printable(m_options.name),
                       !m_line.quiet);
    const uint64_t clip_bytes = m_clip.Size_bytes();
    uint64_t sent_bytes = 0;
    uint64_t packets = 0;
    do {
        if (StopRequested()) {
            throw CZemError(ErrorKind::kInterrupted,
                            "stopped after " + std::to_string(packets) + " frames");
        }
        Take(packet);
        sent_bytes += packet.data.size();
        ++packets;
        progress.Show(m_clip.Position_bytes(), clip_bytes, packets, sent_bytes);
    } while (m_clip.Next(packet));
    for (PutFile& file : m_files)
        SendCut(file, true);
}

void CPut::Take(const ClipPacket& packet) {
    PutFile& file = m_files[packet.stream];
    StreamHead& head = file.head;
    if (head.sampleSize != 0) {
        if (file.frames.empty() && file.rest.empty()) {
            head.firstPts = packet.pts == kNoTime
                                ? 0
                                : av_rescale_q(packet.pts, m_clip.Source(packet.stream).time_base,
                                               head.timeBase);
        }
        file.rest.insert(file.rest.end(), packet.data.begin(), packet.data.end());
        return SendCut(file, false);
    }
    if (m_options.import) {
        head.times.push_back({packet.dts, packet.pts, static_cast<uint32_t>(packet.duration),
                              packet.isKey ? kFrameFlagKey : 0});
    }
    Send(file, packet.data, packet.isKey);
}

// Sends the whole frames that the PCM at hand makes; at the end of the clip the last one is short.
void CPut::SendCut(PutFile& file, bool all) {
    const ZemEsDesc& desc = file.desc;
    const auto first = [&](uint64_t frame) {
        return FirstSampleOfFrame(frame, desc.sampleRate, desc.rateNumerator,
                                  desc.rateDenominator) *
               file.head.sampleSize;
    };
    size_t sent = 0;
    while (sent < file.rest.size()) {
        const uint64_t frame = file.frames.size();
        const uint64_t wanted = first(frame + 1) - first(frame);
        const size_t left = file.rest.size() - sent;
        if (left < wanted && !all) break;
        const auto size = static_cast<size_t>(std::min<uint64_t>(wanted, left));
        Send(file, std::span(file.rest).subspan(sent, size), true);
        sent += size;
    }
    file.rest.erase(file.rest.begin(), file.rest.begin() + static_cast<std::ptrdiff_t>(sent));
}

void CPut::Describe() {
    PutFile& description = m_files.back();
    Send(description, WriteClipHead(m_files.size() - 1), true);
    for (PutFile& file : m_files) {
        if (file.head.parameters == nullptr) continue;
        Send(description, WriteStreamHead(file.head), true);
    }
}

void CPut::Send(PutFile& file, std::span<const uint8_t> data, bool isKey) {
    const auto position = static_cast<uint32_t>(file.frames.size());
    if (data.size() > kMaxFrame_bytes) {
        throw CZemError(ErrorKind::kLocalFile,
                        Printable(m_options.clip) + ": frame " + std::to_string(position) +
                            " has " + HumanBytes(data.size()) + ", more than a server can take");
    }
    if (m_unconfirmed_bytes + data.size() > kUnconfirmed_bytes) {
        for (const PutFile& each : m_files)
            Flush(each.token);
        for (const PutFile& each : m_files)
            CheckLast(each);
        m_unconfirmed_bytes = 0;
    }
    WriteEntry entry;
    entry.token = file.token;
    entry.position = position;
    entry.streamFlags = isKey ? kFrameFlagKey : 0;
    entry.bufferLengths_bytes = {static_cast<uint32_t>(data.size())};
    m_session->WriteFrames({&entry, 1}, data);
    file.frames.push_back({static_cast<uint32_t>(data.size()), CrcOf(data)});
    file.total_bytes += data.size();
    m_unconfirmed_bytes += data.size();
}

void CPut::Flush(uint64_t token) {
    // Without the command closing has to do: it returns after the data are on the device, too.
    if (m_canFlush) m_canFlush = IfImplemented([&] { m_session->Flush(token); });
}

void CPut::Close(PutFile& file) {
    const uint64_t token = file.token;
    file.token = 0;
    Flush(token);
    m_session->Close(token);
}

// The description comes last, and an old one goes first: a clip that has one is whole.
void CPut::Publish() {
    for (auto file = m_files.rbegin(); file != m_files.rend(); ++file) {
        const std::u16string name = FileNamed(file->name).name;
        if (m_options.force && m_session->Attributes(name) != kNoAttributes)
            m_session->Remove(name);
    }
    for (const PutFile& file : m_files) {
        const std::u16string name = FileNamed(file.name).name;
        m_session->Move(FileNamed(file.written).name, name);
        if (m_session->Attributes(name) == kNoAttributes)
            throw CZemError(ErrorKind::kRefused, Printable(file.name) + " could not be named");
    }
}

// Deletes what an import that failed has written; says what came of it.
std::string CPut::TakeBack(ErrorKind failure) {
    if (m_files.empty()) return {};
    std::string left = Left("; files may be left on the server:");
    if (failure == ErrorKind::kUnreachable) return left;
    m_session->Http().SetStopCheck(nullptr);  // the user stopped the import, not this
    try {
        for (PutFile& file : m_files) {
            if (file.token != 0) m_session->Close(file.token);
            m_session->Remove(FileNamed(file.written).name);
        }
    } catch (const CZemError&) {
        return left;
    }
    return "; nothing of it is left on the server";
}

}  // namespace zem
