// zem export: the files of a clip, NAME.v0, NAME.a0 ..., become one clip of this machine. What the
// frames do not say comes from NAME.clip; a clip without one was not imported but put or recorded,
// and only what its files' descriptors say is known: that does for codecs whose frames stand alone.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/mathematics.h>
}

#include <algorithm>
#include <array>
#include <cstdio>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/demux.h"
#include "apps/zem/mux.h"
#include "apps/zem/output.h"
#include "apps/zem/reasons.h"
#include "apps/zem/session.h"
#include "apps/zem/standalone.h"
#include "apps/zem/terminal.h"
#include "apps/zem/verbs.h"
#include "mediaio/foreign/avdesc.h"

namespace zem {
namespace {

struct ExportOptions {
    std::string name;
    std::string clip;
    bool force = false;
    bool allowShort = false;
};

struct ExportStream {
    std::string name;
    StreamHead head;
    ZemEsDesc desc{};
    uint64_t token = 0;
    uint32_t frames = 0;
    uint32_t next = 0;
    uint64_t bytes = 0;
    int64_t lastDts = kNoTime;
};

std::string TimecodeOf(const ZemEsDesc& desc) {
    return zemav::TimecodeSpelling(StartTimecode(desc), zemav::CountsPairs(desc));
}

class CExport {
public:
    CExport(const CommandLine& line, const ExportOptions& options)
        : m_line(line), m_options(options), m_session(line) {}

    int Run() {
        if (Exists(ClipFileName(m_options.name)))
            ReadHeads();
        else
            GuessHeads();
        CMuxer muxer(m_options.clip, m_options.force);
        for (const ExportStream& stream : m_streams)
            muxer.AddStream(stream.head);
        muxer.Begin();
        WriteAll(muxer);
        muxer.End();
        Verify(muxer.WrittenPath());
        muxer.Finish();
        for (ExportStream& stream : m_streams)
            m_session->Close(stream.token);
        Summary();
        return kExitOk;
    }

private:
    bool Exists(const std::string& name) {
        return m_session->Attributes(FileNamed(name).name) != kNoAttributes;
    }
    void ReadHeads();
    void GuessHeads();
    [[noreturn]] void ThrowNoClip();
    void GuessHead(ExportStream& stream);
    void RequireDecodable(ExportStream& stream);
    void Open(ExportStream& stream);
    void WriteAll(CMuxer& muxer);
    void WriteNext(CMuxer& muxer, ExportStream& stream);
    static int64_t DueAt(const ExportStream& stream);
    void Verify(const std::string& path) const;
    void Summary() const;

    const CommandLine& m_line;
    const ExportOptions& m_options;
    CSession m_session;
    std::vector<ExportStream> m_streams;
};

void CExport::Open(ExportStream& stream) {
    stream.token = OpenNamed(*m_session, FileNamed(stream.name));
    stream.desc = m_session->FileInfo(stream.token);
    stream.frames = stream.desc.frameCount;
}

void CExport::ReadHeads() {
    const std::string name = ClipFileName(m_options.name);
    COpenFile file(*m_session, OpenNamed(*m_session, FileNamed(name)));
    const auto read = [&](uint32_t position) {
        const StreamFrame& frame = ReadOneFrame(*m_session, file.Token(), position);
        RequireRead(name, position, frame.status);
        return frame.data;
    };
    const size_t count = ReadClipHead(read(0));
    for (uint32_t i = 0; i < count; ++i) {
        ExportStream stream;
        stream.head = ReadStreamHead(read(i + 1));
        stream.name = m_options.name + "." + stream.head.suffix;
        Open(stream);
        if (stream.head.sampleSize == 0 && stream.head.times.size() != stream.frames) {
            throw CZemError(ErrorKind::kRefused,
                            Printable(stream.name) + ": it was changed since it was imported");
        }
        // A stripe is newer than what the clip came with.
        if ((stream.desc.flags & kEsFlagStriped) != 0)
            stream.head.timecode = TimecodeOf(stream.desc);
        m_streams.push_back(std::move(stream));
    }
    file.Close();
}

void CExport::GuessHeads() {
    for (const char kind : {'v', 'a'}) {
        for (int number = 0;; ++number) {
            ExportStream stream;
            stream.head.suffix = kind + std::to_string(number);
            stream.name = m_options.name + "." + stream.head.suffix;
            if (!Exists(stream.name)) break;
            Open(stream);
            GuessHead(stream);
            RequireDecodable(stream);
            m_streams.push_back(std::move(stream));
        }
    }
    if (m_streams.empty()) ThrowNoClip();
}

void CExport::ThrowNoClip() {
    const std::string& name = m_options.name;
    std::string text = "there is no clip " + Printable(name) + " (neither .clip nor .v0 nor .a0)";
    const uint32_t attributes = m_session->Attributes(FileNamed(name).name);
    if (attributes != kNoAttributes && (attributes & kAttributeDirectory) != 0) {
        text = Printable(name) + " is a folder and no clip";
    } else if (attributes != kNoAttributes) {
        const std::string clip = ClipOfFile(name);
        const bool of_clip = !clip.empty() && (Exists(clip + ".v0") || Exists(clip + ".a0"));
        text = Printable(name) + " is a file and no clip: " +
               (of_clip ? "name the clip without the ending, " + Printable(clip)
                        : "zem get fetches it as it is");
    }
    throw CZemError(ErrorKind::kRefused, text, 0, kReasonNoFile);
}

void CExport::GuessHead(ExportStream& stream) {
    const ZemEsDesc& desc = stream.desc;
    StreamHead& head = stream.head;
    head.parameters.reset(avcodec_parameters_alloc());
    if (head.parameters == nullptr) throw std::bad_alloc();
    AVCodecParameters& codec = *head.parameters;
    const bool video = desc.mediaType == kMediaFileVideo;
    codec.codec_type = video ? AVMEDIA_TYPE_VIDEO : AVMEDIA_TYPE_AUDIO;
    codec.codec_id = zemav::CodecOf(video ? kMediaFileVideo : kMediaFileAudio, desc.codec);
    codec.codec_tag = desc.codec;
    codec.width = static_cast<int>(desc.width);
    codec.height = static_cast<int>(desc.height);
    codec.sample_rate = static_cast<int>(desc.sampleRate);
    codec.bits_per_coded_sample = desc.bitsPerSample;
    av_channel_layout_default(&codec.ch_layout, desc.channels);
    if (codec.codec_id == AV_CODEC_ID_NONE || (video && desc.rateNumerator == 0)) {
        throw CZemError(ErrorKind::kRefused, Printable(stream.name) + ": codec " +
                                                 FourccText(desc.codec) +
                                                 " or its rate cannot be told; clips that are "
                                                 "brought in by import can leave again");
    }
    head.sampleSize = zemav::PcmSampleSize(codec);
    head.timeBase = {static_cast<int>(desc.rateDenominator), static_cast<int>(desc.rateNumerator)};
    if (head.sampleSize != 0 || desc.rateNumerator == 0)
        head.timeBase = {1, static_cast<int>(desc.sampleRate)};
    if (video) {
        head.rate = {static_cast<int>(desc.rateNumerator), static_cast<int>(desc.rateDenominator)};
        head.timecode = TimecodeOf(desc);
    }
}

// A clip that no player can decode is worth nothing, and nobody notices it before it is played.
// What was recorded in the middle of a group of pictures is decoded from its next key frame on.
void CExport::RequireDecodable(ExportStream& stream) {
    if (stream.head.sampleSize != 0 || stream.frames == 0) return;
    constexpr uint32_t kLongestGroup_frames = 600;
    AVCodecParameters& codec = *stream.head.parameters;
    for (uint32_t i = 0; i < std::min(stream.frames, kLongestGroup_frames); ++i) {
        const StreamFrame& frame = ReadOneFrame(*m_session, stream.token, i);
        if (IsGap(frame.status)) continue;
        RequireRead(stream.name, i, frame.status);
        if (DecodesAlone(codec, frame.data)) return;
    }
    const std::string clip = Printable(ClipFileName(m_options.name));
    throw CZemError(ErrorKind::kRefused,
                    Printable(stream.name) + ": no player could decode it: its frames (" +
                        avcodec_get_name(codec.codec_id) + ") do not say how, and there is no " +
                        clip + " that does; zem import brings a clip in with it");
}

// When the stream's next frame is due, in its time base.
int64_t CExport::DueAt(const ExportStream& stream) {
    const StreamHead& head = stream.head;
    if (head.sampleSize != 0)
        return head.firstPts + static_cast<int64_t>(stream.bytes / head.sampleSize);
    if (head.times.empty()) return stream.next;
    const int64_t dts = head.times[stream.next].dts;
    if (dts != kNoTime && (stream.lastDts == kNoTime || dts > stream.lastDts)) return dts;
    // Containers that only know when a frame is shown: frames follow one another.
    if (stream.lastDts != kNoTime)
        return stream.lastDts + std::max<int64_t>(1, head.times[stream.next].duration);
    int64_t before = 0;
    for (size_t i = stream.next; i < head.times.size(); ++i) {
        if (head.times[i].dts != kNoTime) return head.times[i].dts - before;
        before += std::max<int64_t>(1, head.times[i].duration);
    }
    return 0;
}

void CExport::WriteNext(CMuxer& muxer, ExportStream& stream) {
    const StreamFrame& frame = ReadOneFrame(*m_session, stream.token, stream.next);
    if (IsGap(frame.status)) {
        throw CZemError(ErrorKind::kRefused,
                        Printable(stream.name) + ": frame " + std::to_string(stream.next) +
                            " cannot be read: " + HresultText(frame.status) +
                            "; a clip has every frame: bring it in anew (zem import --force), or "
                            "take what is there of the stream (zem read " +
                            Printable(stream.name) + " -o FILE)",
                        frame.status);
    }
    RequireRead(stream.name, stream.next, frame.status);
    const StreamHead& head = stream.head;
    const int64_t dts = DueAt(stream);
    int64_t pts = dts;
    int64_t duration = 1;
    bool isKey = true;
    if (head.sampleSize != 0) {
        duration = static_cast<int64_t>(frame.data.size() / head.sampleSize);
    } else if (!head.times.empty()) {
        const PacketTime& time = head.times[stream.next];
        if (time.pts != kNoTime) pts = std::max(time.pts, dts);
        duration = time.duration;
        isKey = (time.flags & kFrameFlagKey) != 0;
    }
    muxer.Write(static_cast<size_t>(&stream - m_streams.data()), frame.data, dts, pts, duration,
                isKey);
    stream.lastDts = dts;
    stream.bytes += frame.data.size();
    ++stream.next;
}

void CExport::WriteAll(CMuxer& muxer) {
    CProgress progress("export " + Printable(m_options.name), !m_line.quiet);
    uint64_t total = 0;
    for (const ExportStream& stream : m_streams)
        total += stream.frames;
    uint64_t bytes = 0;
    for (uint64_t done = 0; done < total; ++done) {
        if (StopRequested()) throw CZemError(ErrorKind::kInterrupted, "stopped");
        ExportStream* due = nullptr;
        for (ExportStream& stream : m_streams) {
            if (stream.next == stream.frames) continue;
            if (due == nullptr || av_compare_ts(DueAt(stream), stream.head.timeBase, DueAt(*due),
                                                due->head.timeBase) < 0) {
                due = &stream;
            }
        }
        if (due == nullptr) break;
        const uint64_t before = due->bytes;
        WriteNext(muxer, *due);
        bytes += due->bytes - before;
        progress.Show(done + 1, total, done + 1, bytes);
    }
}

// Some containers end with their shortest stream and leave out what is behind it, without a word.
// Frames that the container wanted in another form are counted, samples to the byte.
void CExport::Verify(const std::string& path) const {
    std::vector<uint64_t> frames(m_streams.size());
    std::vector<uint64_t> bytes(m_streams.size());
    CDemuxer written(path);
    for (ClipPacket packet; written.Next(packet);) {
        if (packet.stream >= frames.size()) break;
        ++frames[packet.stream];
        bytes[packet.stream] += packet.data.size();
    }
    for (size_t i = 0; i < m_streams.size(); ++i) {
        const ExportStream& stream = m_streams[i];
        const bool pcm = stream.head.sampleSize != 0;
        const uint64_t there = pcm ? bytes[i] : frames[i];
        const uint64_t here = pcm ? stream.bytes : stream.frames;
        if (there == here || (pcm && there > here)) continue;  // MXF fills up the last picture
        const std::string what = Printable(stream.name) + ": of " + std::to_string(here) +
                                 (pcm ? " bytes " : " frames ") + std::to_string(there) +
                                 " are in the clip that was written";
        if (!m_options.allowShort) {
            throw CZemError(ErrorKind::kRefused,
                            what + "; --allow-short keeps it, another container may hold it all");
        }
        std::fprintf(stderr, "zem: %s\n", what.c_str());
    }
}

void CExport::Summary() const {
    if (m_line.json) {
        CJson json;
        json.Open('{').Text("name", m_options.name).Text("clip", m_options.clip);
        json.Open('[', "streams");
        for (const ExportStream& stream : m_streams) {
            json.Open('{').Text("name", stream.name);
            TellCodec(json, stream.desc);
            json.Unsigned("frames", stream.frames).Unsigned("bytes", stream.bytes).Close();
        }
        PrintLine(json.Close().Close().Str());
        return;
    }
    if (m_line.quiet || !StdoutIsTerminal()) return;
    for (const ExportStream& stream : m_streams) {
        std::printf("%s: %s, %u frames, %s\n", Printable(stream.name).c_str(),
                    avcodec_get_name(stream.head.parameters->codec_id), stream.frames,
                    HumanBytes(stream.bytes).c_str());
    }
}

}  // namespace

void AddExportVerb(CVerb program, CommandLine& line) {
    auto options = std::make_shared<ExportOptions>();
    const CVerb verb = VerbGroup{program, line, "Clips"}.Add(
        "export",
        "Make a clip of this machine from NAME.v0, NAME.a0 ... of the server. It begins at the "
        "timecode that NAME.v0 was striped with, else at that of the clip that was brought in",
        [options, &line] { return CExport(line, *options).Run(); });
    verb.Place("NAME", options->name, "Name on the server, without the stream's ending").Required();
    verb.Place("CLIP", options->clip,
               "File to write; its ending names the container: .mov, .mp4, .mxf, .mkv")
        .File()
        .Required();
    verb.Flag("--force", options->force, "Replace the file if it exists");
    verb.Flag("--allow-short", options->allowShort,
              "Keep the clip even if its container left out what is behind its shortest stream");
}

}  // namespace zem
