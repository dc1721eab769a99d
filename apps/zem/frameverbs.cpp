// Verbs that read frames: framemd5, read, frames.
extern "C" {
#include <libavutil/md5.h>
}

#include <algorithm>
#include <array>
#include <cstdio>
#include <numeric>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/demux.h"
#include "apps/zem/localfile.h"
#include "apps/zem/output.h"
#include "apps/zem/reasons.h"
#include "apps/zem/session.h"
#include "apps/zem/terminal.h"
#include "apps/zem/valuecheck.h"
#include "apps/zem/verbs.h"

namespace zem {
namespace {

struct FrameOptions {
    std::string name;
    std::string aux;
    std::string output = "-";
    uint32_t from = 0;
    uint32_t count = 0xFFFFFFFFu;
    int32_t rate = kFrameRateFile;
    bool byName = false;
    bool force = false;
};

using OptionsPtr = std::shared_ptr<FrameOptions>;

std::string Md5Of(std::span<const uint8_t> data) {
    std::array<uint8_t, 16> digest{};
    av_md5_sum(digest.data(), data.data(), data.size());
    std::string text;
    for (const uint8_t byte : digest) {
        text.push_back("0123456789abcdef"[byte >> 4]);
        text.push_back("0123456789abcdef"[byte & 15]);
    }
    return text;
}

// Calls `visit` for every frame from the first to the end of the file or of the count, gaps
// included (their status tells). Returns how many positions were seen. Any other failure of a frame
// is thrown.
template <typename Visit>
uint32_t ForEachFrame(CZemClient& client, uint64_t token, const FrameOptions& options,
                      Visit visit) {
    uint32_t seen = 0;
    for (; seen < options.count && options.from + seen >= options.from; ++seen) {
        if (StopRequested()) throw CZemError(ErrorKind::kInterrupted, "stopped");
        const uint32_t position = options.from + seen;
        const StreamFrame& frame = ReadOneFrame(client, token, position);
        if (frame.status == kHrEndOfMedia) break;
        if (!IsGap(frame.status)) RequireRead(options.name, position, frame.status);
        visit(position, frame);
    }
    return seen;
}

// How many of `all` frames are asked for.
uint32_t Wanted(const FrameOptions& options, uint32_t all) {
    RequireFirst(options.name, options.from, all);
    return std::min(options.count, all - options.from);
}

// How many frames ForEachFrame will see, for the progress line: the file may grow meanwhile. A
// read's positions count in the rate of the client's channel, which the server tells of nobody, and
// the file's count does not: whether there is the first one a read of it shows.
uint32_t Expected(CZemClient& client, uint64_t token, const FrameOptions& options) {
    const uint32_t all = client.FileInfo(token).frameCount;
    if (options.from == 0 || all == 0) return Wanted(options, all);
    const bool there = ReadOneFrame(client, token, options.from).status != kHrEndOfMedia;
    if (there) return std::min(options.count, std::max(all, options.from + 1) - options.from);
    if (options.from >= all) RequireFirst(options.name, options.from, all);
    throw CZemError(ErrorKind::kRefused,
                    Printable(options.name) + ": there is no frame " +
                        std::to_string(options.from) + " at the frame rate of the client's channel",
                    0, kReasonNoFrame);
}

// How many positions a file has when they are counted in a rate of the protocol: those that lie
// before its end.
uint32_t PositionsAt(const ZemEsDesc& info, int32_t rate) {
    static constexpr std::array<std::array<uint64_t, 2>, 9> kRates = {{{0, 0},
                                                                       {24000, 1001},
                                                                       {24, 1},
                                                                       {25, 1},
                                                                       {30000, 1001},
                                                                       {30, 1},
                                                                       {50, 1},
                                                                       {60000, 1001},
                                                                       {60, 1}}};
    const auto [numerator, denominator] = kRates.at(static_cast<size_t>(rate));
    uint64_t above = info.rateDenominator * numerator;
    uint64_t below = info.rateNumerator * denominator;
    if (above == 0 || below == 0) return info.frameCount;  // the file's own, or it has none
    const uint64_t common = std::gcd(above, below);
    above /= common;
    below /= common;
    if (above > 0xFFFFFFFFu) return info.frameCount;  // no rate that anything has
    const uint64_t parts = info.frameCount * above;
    return static_cast<uint32_t>(
        std::min<uint64_t>(parts / below + (parts % below != 0 ? 1 : 0), 0xFFFFFFFFu));
}

int FrameMd5(const CommandLine& line, const FrameOptions& options) {
    CSession session(line);
    COpenFile file(*session, OpenNamed(*session, FileNamed(options.name, options.aux)));
    const uint32_t expected = Expected(*session, file.Token(), options);
    CJson json;
    if (line.json) {
        json.Open('{').Text("name", options.name).Open('[', "frames");
    } else {
        // The column layout of the usual per-frame checksum lists, so that files can be compared
        // with a text tool.
        PrintLine(
            "#format: frame checksums\n#version: 2\n#hash: MD5\n"
            "#stream#, dts,        pts, duration,     size, hash");
    }
    CProgress progress("framemd5 " + Printable(options.name), !line.quiet && !StdoutIsTerminal());
    uint64_t bytes = 0;
    const uint32_t seen = ForEachFrame(
        *session, file.Token(), options, [&](uint32_t position, const StreamFrame& frame) {
            const uint32_t done = position - options.from + 1;
            bytes += frame.data.size();
            progress.Show(done, expected, done, bytes);
            if (line.json) {
                json.Open('{').Unsigned("frame", position);
                if (IsGap(frame.status))
                    json.Null("size").Null("md5").Close();
                else
                    json.Unsigned("size", frame.data.size()).Text("md5", Md5Of(frame.data)).Close();
            } else if (IsGap(frame.status)) {
                std::printf("# %u: %s\n", position, HresultText(frame.status).c_str());
            } else {
                std::printf("0, %10u, %10u, %8d, %8zu, %s\n", position, position, 1,
                            frame.data.size(), Md5Of(frame.data).c_str());
            }
        });
    if (line.json) PrintLine(json.Close().Unsigned("count", seen).Close().Str());
    file.Close();
    return kExitOk;
}

int Read(const CommandLine& line, const FrameOptions& options) {
    if (line.json && options.output == "-")
        throw CZemError(ErrorKind::kUsage, "--json needs -o FILE: the frames go to stdout");
    COutputFile output(options.output, options.force);
    CSession session(line);
    COpenFile file(*session, OpenNamed(*session, FileNamed(options.name, options.aux)));
    CProgress progress("read " + Printable(options.name), !line.quiet);
    const uint32_t expected = Expected(*session, file.Token(), options);
    uint64_t total_bytes = 0;
    uint32_t gaps = 0;
    const uint32_t seen = ForEachFrame(*session, file.Token(), options,
                                       [&](uint32_t position, const StreamFrame& frame) {
                                           const uint32_t done = position - options.from + 1;
                                           if (IsGap(frame.status)) {
                                               ++gaps;
                                               return;
                                           }
                                           output.Write(frame.data);
                                           total_bytes += frame.data.size();
                                           progress.Show(done, expected, done, total_bytes);
                                       });
    file.Close();
    output.Finish();
    if (gaps > 0)
        std::fprintf(stderr, "zem: left out: %s\n", Counted(gaps, "missing frame").c_str());
    if (line.json) {
        CJson json;
        json.Open('{').Text("name", options.name).Text("output", options.output);
        json.Unsigned("frames", seen - gaps).Unsigned("gaps", gaps).Unsigned("bytes", total_bytes);
        PrintLine(json.Close().Str());
    }
    return kExitOk;
}

std::string FlagsText(uint32_t flags) {
    std::string text;
    text += (flags & kFrameFlagKey) != 0 ? 'K' : '-';
    text += (flags & kFrameFlagPresent) != 0 ? 'P' : '-';
    text += (flags & kFrameFlagErased) != 0 ? 'E' : '-';
    text += (flags & kFrameFlagCorrupt) != 0 ? 'C' : '-';
    return text;
}

bool AllEmpty(const std::vector<FrameDescEntry>& descs) {
    return std::all_of(descs.begin(), descs.end(), [](const FrameDescEntry& desc) {
        return desc.dataSize == 0 && desc.flags == 0;
    });
}

int Frames(const CommandLine& line, const FrameOptions& options) {
    constexpr uint32_t kChunk = 1024;
    constexpr const char* kHeading = "     frame       size  flags  timecode";
    CSession session(line);
    const FileRef ref = FileNamed(options.name, options.aux);
    COpenFile file(*session, options.byName ? 0 : OpenNamed(*session, ref));
    const ZemEsDesc info =
        options.byName ? InfoNamed(*session, ref) : session->FileInfo(file.Token());
    const uint32_t positions = PositionsAt(info, options.rate);
    const uint32_t count = Wanted(options, positions);
    CJson json;
    if (line.json) {
        json.Open('{').Text("name", options.name).Unsigned("frame_count", positions);
        json.Open('[', "frames");
    }
    for (uint32_t done = 0; done < count;) {
        if (StopRequested()) throw CZemError(ErrorKind::kInterrupted, "stopped");
        const uint32_t from = options.from + done;
        const uint32_t some = count - done < kChunk ? count - done : kChunk;
        const std::vector<FrameDescEntry> descs =
            options.byName ? session->FrameDescs(ref, from, some)
                           : session->FrameDescs(file.Token(), from, some, options.rate);
        if (options.byName && AllEmpty(descs)) {
            throw CZemError(ErrorKind::kRefused,
                            "no frame found by name: the server puts the number of frames into the "
                            "name before it looks, so most names are not found; ask without "
                            "--by-name");
        }
        if (done == 0 && !line.json) PrintLine(kHeading);
        for (uint32_t i = 0; i < some; ++i) {
            const FrameDescEntry& desc = descs[i];
            if (!line.json) {
                std::printf("%10u %10u  %s   %s\n", from + i, desc.dataSize,
                            FlagsText(desc.flags).c_str(), TimecodeText(desc.timecode).c_str());
                continue;
            }
            json.Open('{').Unsigned("frame", from + i).Unsigned("size", desc.dataSize);
            json.Bool("key", (desc.flags & kFrameFlagKey) != 0);
            json.Bool("present", (desc.flags & kFrameFlagPresent) != 0);
            json.Bool("erased", (desc.flags & kFrameFlagErased) != 0);
            json.Bool("corrupt", (desc.flags & kFrameFlagCorrupt) != 0);
            json.Text("timecode", TimecodeText(desc.timecode)).Close();
        }
        done += some;
    }
    if (line.json)
        PrintLine(json.Close().Close().Str());
    else if (count == 0)
        PrintLine(kHeading);
    file.Close();
    return kExitOk;
}

CVerb Add(const VerbGroup& group, const char* name, const char* help, const OptionsPtr& options,
          int (*run)(const CommandLine&, const FrameOptions&)) {
    const CVerb verb = group.Add(name, help, options, run);
    AddFileName(verb, options->name, &options->aux);
    verb.Option("--from", "N", options->from, "First frame").Check(WholeNumber(0)).ShowDefault();
    verb.Option("--count", "N", options->count, "How many frames (default: to the end)")
        .Check(WholeNumber(1));
    return verb;
}

}  // namespace

void AddFrameVerbs(CVerb program, CommandLine& line) {
    const VerbGroup group{program, line, "Frames"};
    Add(group, "framemd5", "Read frames back and print size and MD5 of each",
        std::make_shared<FrameOptions>(), &FrameMd5);

    auto read = std::make_shared<FrameOptions>();
    CVerb verb = Add(group, "read",
                     "Write the frames' data, one after another, to a file or a pipe", read, &Read);
    verb.Option("-o,--output", kTypeFile, read->output, "File; - is stdout").ShowDefault();
    verb.Flag("--force", read->force, "Replace the file if it exists");

    auto frames = std::make_shared<FrameOptions>();
    verb = Add(group, "frames",
               "List the frames: size, flags (Key, Present, Erased, Corrupt), timecode. None is "
               "read: corrupt is one that a read has found to be, since the file was opened first",
               frames, &Frames);
    const CArgument byName =
        verb.Flag("--by-name", frames->byName,
                  "Ask without opening the file; few names survive what the protocol does to them");
    verb.Option("--rate", "N", frames->rate,
                "Count positions in this rate: 0 the file's own, 1 23.976, 2 24, 3 25, "
                "4 29.97, 5 30, 6 50, 7 59.94, 8 60")
        .Check(WholeNumber(0, 8))
        .Excludes(byName)
        .ShowDefault();
}

}  // namespace zem
