// zem put: a clip goes in packet by packet, one media file per stream. zem import: the same, but
// PCM is cut to the pictures, and what the frames do not say of the clip is kept for zem export.
// The protocol answers S_OK to every write, so the verb remembers size and checksum of what it sent
// and compares them with what the server has afterwards.
#include <CLI/CLI.hpp>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/crc.h>
#include <libavutil/mathematics.h>
}

#include <algorithm>
#include <cstdio>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/clipfile.h"
#include "apps/zem/demux.h"
#include "apps/zem/output.h"
#include "apps/zem/terminal.h"
#include "apps/zem/verbs.h"
#include "mediaio/cadence.h"
#include "mediaio/foreign/avdesc.h"

namespace zem {
namespace {

// So much may be under way unconfirmed: a third of the smaller of the two frame memories that
// servers have. A server whose disk falls behind drops frames without telling; waiting for its disk
// now and then keeps it from that.
constexpr uint64_t kFlushEvery_bytes = 40u << 20;

struct PutOptions {
    std::string clip;
    std::string name;
    std::string verify = "quick";
    bool force = false;
    bool import = false;
};

struct SentFrame {
    uint32_t size_bytes;
    uint32_t crc;
};

struct PutFile {
    std::string name;
    std::string written;  // its name until the import is whole; put: the same
    ZemEsDesc desc{};
    std::string codecName;
    uint64_t token = 0;
    uint64_t total_bytes = 0;
    std::vector<SentFrame> frames;
    StreamHead head;            // import: what goes into the clip's description
    std::vector<uint8_t> rest;  // PCM that does not make a frame yet
};

uint32_t CrcOf(std::span<const uint8_t> data) {
    return av_crc(av_crc_get_table(AV_CRC_32_IEEE_LE), 0xFFFFFFFFu, data.data(), data.size());
}

// True when the server did what was asked; false when it does not know the command (an older or
// smaller server).
template <typename Call>
bool IfImplemented(Call call) {
    try {
        call();
        return true;
    } catch (const CZemError& error) {
        if (error.Kind() == ErrorKind::kRefused && error.Hr() == kHrNotImplemented) return false;
        throw;
    }
}

class CPut {
public:
    CPut(const CommandLine& line, const PutOptions& options)
        : m_line(line), m_options(options), m_clip(options.clip), m_session(line) {}

    int Run() {
        bool complete = false;
        try {
            CreateFiles();
            SendAll();
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
            } else if (!complete && !m_files.empty()) {
                left = "; the files on the server are incomplete";
            }
            throw CZemError(error.Kind(), error.what() + left, error.Hr());
        }
        Summary();
        return kExitOk;
    }

private:
    void CreateFiles();
    void Create(PutFile file);
    void PrepareHead(size_t stream, PutFile& file);
    void SendAll();
    void Take(const ClipPacket& packet);
    void SendCut(PutFile& file, bool all);
    void Describe();
    void Send(PutFile& file, std::span<const uint8_t> data, bool isKey);
    void Flush(uint64_t token);
    void Close(PutFile& file);
    void CheckLast(const PutFile& file);
    void Publish();
    std::string TakeBack(ErrorKind failure);
    [[noreturn]] void ThrowLost(const PutFile& file, uint32_t position, const std::string& what);
    void Verify(const PutFile& file);
    void VerifyDescs(const PutFile& file, uint64_t token, bool& implemented);
    void VerifyFrame(const PutFile& file, uint64_t token, uint32_t position);
    void Summary() const;

    const CommandLine& m_line;
    const PutOptions& m_options;
    CDemuxer m_clip;
    CSession m_session;
    std::vector<PutFile> m_files;
    uint64_t m_unconfirmed_bytes = 0;
    bool m_canFlush = true;
};

// The answer to a write says nothing of the disk; the commonest reason is told here.
void CPut::ThrowLost(const PutFile& file, uint32_t position, const std::string& what) {
    std::string reason = "; the server answered its write with success, its log has the reason";
    VolumeSpace space;
    IfImplemented([&] { space = m_session->Space(u""); });
    constexpr uint64_t kAsGoodAsNone_bytes = 16 << 20;
    if (space.total_bytes != 0 && space.free_bytes < kAsGoodAsNone_bytes)
        reason = "; its volume is full (" + HumanBytes(space.free_bytes) + " free)";
    throw CZemError(ErrorKind::kRefused, Printable(file.name) + ": frame " +
                                             std::to_string(position) + " " + what + reason);
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

// An import appears under its names when it is whole. What an import that was killed has left is
// written over.
void CPut::Create(PutFile file) {
    file.written = file.name + (m_options.import ? ".part" : "");
    const bool replace = m_options.force || m_options.import;
    const uint32_t flags = kFileRead | kFileWrite | (replace ? kFileTruncate : kFileCreateNew);
    if (m_options.import && !m_options.force &&
        m_session->Attributes(FileNamed(file.name).name) != kNoAttributes)
        throw CZemError(ErrorKind::kRefused, Printable(file.name) + " exists; --force replaces it");
    try {
        file.token = m_session->Create(FileNamed(file.written).name, u"", file.desc, flags);
    } catch (const CZemError& error) {
        if (error.Kind() != ErrorKind::kRefused) throw;
        throw CZemError(
            error.Kind(),
            std::string(error.what()) +
                (m_options.force ? "; is its directory there, and may the server write it?"
                                 : "; if it exists, --force replaces it; else see whether its "
                                   "directory is there"),
            error.Hr());
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
        avcodec_parameters_copy(head.parameters.get(), source.codecpar) < 0)
        throw std::bad_alloc();
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

void CPut::SendAll() {
    CProgress progress((m_options.import ? "import " : "put ") + Printable(m_options.name),
                       !m_line.quiet);
    const uint64_t clip_bytes = m_clip.Size_bytes();
    uint64_t sent_bytes = 0;
    uint64_t packets = 0;
    ClipPacket packet;
    while (m_clip.Next(packet)) {
        if (StopRequested()) {
            throw CZemError(ErrorKind::kInterrupted,
                            "stopped after " + std::to_string(packets) + " frames");
        }
        Take(packet);
        sent_bytes += packet.data.size();
        ++packets;
        progress.Show(m_clip.Position_bytes(), clip_bytes, packets, sent_bytes);
    }
    if (packets == 0) {
        throw CZemError(ErrorKind::kLocalFile, Printable(m_options.clip) + ": no frame in it");
    }
    for (PutFile& file : m_files)
        SendCut(file, true);
}

void CPut::Take(const ClipPacket& packet) {
    PutFile& file = m_files[packet.stream];
    StreamHead& head = file.head;
    if (head.sampleSize != 0) {
        if (file.frames.empty() && file.rest.empty())
            head.firstPts = packet.pts == kNoTime
                                ? 0
                                : av_rescale_q(packet.pts, m_clip.Source(packet.stream).time_base,
                                               head.timeBase);
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
    if (m_unconfirmed_bytes + data.size() > kFlushEvery_bytes) {
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

// A disk that is full takes no more: that shows here, and not when all has been sent in vain.
void CPut::CheckLast(const PutFile& file) {
    if (!m_canFlush || file.frames.empty()) return;
    const auto last = static_cast<uint32_t>(file.frames.size() - 1);
    std::vector<FrameDescEntry> descs;
    IfImplemented([&] { descs = m_session->FrameDescs(file.token, last, 1); });
    if (!descs.empty() && (descs[0].flags & kFrameFlagPresent) == 0)
        ThrowLost(file, last, "is missing");
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
    const std::string left = "; " + Printable(m_options.name) + ".*.part is left on the server";
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

void CPut::Verify(const PutFile& file) {
    if (file.frames.empty()) return;
    COpenFile open(*m_session, m_session->Open(FileNamed(file.written)));
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
    if (frame.status < 0) {
        ThrowLost(file, position, "cannot be read back: " + HresultText(frame.status));
    }
    const SentFrame& sent = file.frames[position];
    if (frame.data.size() != sent.size_bytes || CrcOf(frame.data) != sent.crc) {
        ThrowLost(file, position, "reads back with other contents");
    }
}

void CPut::Summary() const {
    if (m_line.json) {
        CJson json;
        json.Open('{').Text("clip", m_options.clip).Open('[', "files");
        for (const PutFile& file : m_files) {
            json.Open('{').Text("name", file.name);
            json.Text("type", MediaTypeText(file.desc.mediaType));
            json.Text("codec", file.codecName);
            json.Unsigned("frames", file.frames.size()).Unsigned("bytes", file.total_bytes).Close();
        }
        json.Close().Number("skipped_streams", m_clip.SkippedStreams()).Close();
        PrintLine(json.Str());
        return;
    }
    if (m_line.quiet || !StdoutIsTerminal()) return;
    for (const PutFile& file : m_files) {
        std::printf("%s: %s %s, %zu frames, %s\n", Printable(file.name).c_str(),
                    MediaTypeText(file.desc.mediaType), file.codecName.c_str(), file.frames.size(),
                    HumanBytes(file.total_bytes).c_str());
    }
    if (m_clip.SkippedStreams() > 0) {
        std::printf("%d stream(s) that are neither video nor audio were left out\n",
                    m_clip.SkippedStreams());
    }
}

}  // namespace

void AddPutVerbs(CLI::App& app, CommandLine& line) {
    struct Verb {
        const char* name;
        const char* help;
        bool import;
    };
    const Verb verbs[] = {
        {"put",
         "Write every coded video and audio frame of a clip into files of the server: NAME.v0, "
         "NAME.v1, NAME.a0 ...",
         false},
        {"import",
         "Bring a whole clip in: as put, with PCM cut to the pictures and a description, "
         "NAME.clip, "
         "from which export makes the clip again",
         true},
    };
    for (const Verb& each : verbs) {
        auto options = std::make_shared<PutOptions>();
        options->import = each.import;
        CLI::App* verb = VerbGroup{app, line, "Clips"}.Add(
            each.name, each.help, [options, &line] { return CPut(line, *options).Run(); });
        verb->add_option("CLIP", options->clip,
                         "MOV, MP4, MXF or other clip of this machine; - is stdin")
            ->type_name(kTypeFile)
            ->required();
        verb->add_option("NAME", options->name, "Name on the server, without the stream's ending")
            ->required();
        verb->add_flag("--force", options->force, "Replace files that exist");
        verb->add_option("--verify", options->verify,
                         "quick: compare the size of every frame and the contents of the last; "
                         "all: read every frame back")
            ->type_name("HOW")
            ->check(CLI::IsMember({"quick", "all"}))
            ->capture_default_str();
    }
}

}  // namespace zem
