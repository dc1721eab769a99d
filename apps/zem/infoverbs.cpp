// Verbs that ask about files, directories and the volume, and change nothing.
#include <array>
#include <cstdio>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/demux.h"
#include "apps/zem/output.h"
#include "apps/zem/reasons.h"
#include "apps/zem/session.h"
#include "apps/zem/verbs.h"

namespace zem {
namespace {

struct InfoOptions {
    std::string name;
    std::string aux;
    std::string volume;
    bool byName = false;
};

std::string EsFlagsText(uint32_t flags) {
    std::string text;
    const auto add = [&](uint32_t bit, const char* word) {
        if ((flags & bit) != 0) text += text.empty() ? word : std::string(", ") + word;
    };
    add(kEsFlagDropFrame, "drop-frame");
    add(kEsFlagStriped, "striped");
    add(kEsFlagGrowing, "growing");
    add(kEsFlagReadOnly, "read-only");
    return text.empty() ? "none" : text;
}

// An index may tell of frames that a foreign file has not: they are marked as damaged.
bool IsCutOff(CZemClient& client, uint64_t token, const ZemEsDesc& desc) {
    if ((desc.flags & kEsFlagReadOnly) == 0 || desc.frameCount == 0) return false;
    const std::vector<FrameDescEntry> last = client.FrameDescs(token, desc.frameCount - 1, 1);
    return !last.empty() && (last[0].flags & kFrameFlagCorrupt) != 0;
}

void PrintInfoJson(const std::string& name, const ZemEsDesc& desc, bool cutOff) {
    CJson json;
    json.Open('{').Text("name", name).Text("type", MediaTypeText(desc.mediaType));
    TellCodec(json, desc).Unsigned("frames", desc.frameCount);
    json.Unsigned("rate_numerator", desc.rateNumerator);
    json.Unsigned("rate_denominator", desc.rateDenominator);
    json.Unsigned("width", desc.width).Unsigned("height", desc.height);
    json.Unsigned("sample_rate", desc.sampleRate).Unsigned("channels", desc.channels);
    json.Unsigned("bits_per_sample", desc.bitsPerSample);
    json.Text("start_timecode", TimecodeText(StartTimecode(desc)));
    json.Bool("drop_frame", (desc.flags & kEsFlagDropFrame) != 0);
    json.Bool("striped", (desc.flags & kEsFlagStriped) != 0);
    json.Bool("growing", (desc.flags & kEsFlagGrowing) != 0);
    json.Bool("read_only", (desc.flags & kEsFlagReadOnly) != 0);
    json.Bool("cut_off", cutOff);
    PrintLine(json.Close().Str());
}

int Info(const CommandLine& line, const InfoOptions& options) {
    CSession session(line);
    const FileRef ref = FileNamed(options.name, options.aux);
    COpenFile file(*session, options.byName ? 0 : OpenNamed(*session, ref));
    const ZemEsDesc desc =
        options.byName ? InfoNamed(*session, ref) : session->FileInfo(file.Token());
    const bool cutOff = !options.byName && IsCutOff(*session, file.Token(), desc);
    file.Close();
    if (line.json) {
        PrintInfoJson(options.name, desc, cutOff);
        return kExitOk;
    }
    std::printf("name      %s\n", Printable(options.name).c_str());
    std::printf("type      %s\n", MediaTypeText(desc.mediaType));
    std::printf("codec     %s\n", CodecText(desc).c_str());
    std::printf("frames    %u\n", desc.frameCount);
    std::printf("rate      %s\n", RateText(desc.rateNumerator, desc.rateDenominator).c_str());
    if (desc.width != 0) std::printf("size      %ux%u\n", desc.width, desc.height);
    if (desc.sampleRate != 0) {
        std::printf("audio     %u Hz, %s, %u bits\n", desc.sampleRate,
                    Counted(desc.channels, "channel").c_str(), desc.bitsPerSample);
    }
    std::printf("timecode  %s\n", TimecodeText(StartTimecode(desc)).c_str());
    std::printf("flags     %s\n", EsFlagsText(desc.flags).c_str());
    if (cutOff) std::printf("cut off   the last frame lies behind the end of the file\n");
    return kExitOk;
}

int Marks(const CommandLine& line, const InfoOptions& options) {
    CSession session(line);
    const FileRef ref = FileNamed(options.name, options.aux);
    COpenFile file(*session, options.byName ? 0 : OpenNamed(*session, ref));
    // Of names that are no file's the answer is what stood in the request.
    if (options.byName) InfoNamed(*session, ref);
    const FileMarks marks = options.byName ? session->Marks(ref) : session->Marks(file.Token());
    file.Close();
    if (line.json) {
        CJson json;
        json.Open('{').Text("name", options.name);
        json.Unsigned("first", marks.first).Unsigned("second", marks.second);
        PrintLine(json.Close().Str());
    } else {
        std::printf("first   %u\nsecond  %u\n", marks.first, marks.second);
    }
    return kExitOk;
}

int Space(const CommandLine& line, const InfoOptions& options) {
    CSession session(line);
    const std::u16string volume = ToUtf16(options.volume, "the volume name");
    const VolumeSpace space = session->Space(volume);
    if (space.total_bytes == 0) {
        Why why = WhyBadName(volume);
        if (why.word == nullptr && !volume.empty() && session->Attributes(volume) == kNoAttributes)
            why = {": there is no folder " + Printable(options.volume), kReasonNoFolder};
        throw Refused("the server could not tell the space of this volume", why);
    }
    if (line.json) {
        CJson json;
        json.Open('{').Text("volume", options.volume).Unsigned("total_bytes", space.total_bytes);
        PrintLine(json.Unsigned("free_bytes", space.free_bytes).Close().Str());
    } else {
        std::printf("total  %s\nfree   %s\n", HumanBytes(space.total_bytes).c_str(),
                    HumanBytes(space.free_bytes).c_str());
    }
    return kExitOk;
}

struct AttributeName {
    uint32_t bit;
    const char* name;
};
constexpr std::array<AttributeName, 7> kAttributeNames = {{{0x1, "read-only"},
                                                           {0x2, "hidden"},
                                                           {0x4, "system"},
                                                           {0x10, "directory"},
                                                           {0x20, "archive"},
                                                           {0x80, "normal"},
                                                           {0x400, "reparse-point"}}};

int Stat(const CommandLine& line, const InfoOptions& options) {
    CSession session(line);
    const std::u16string name = FileNamed(options.name).name;
    const uint32_t attributes = session->Attributes(name);
    if (attributes == kNoAttributes) ThrowNoFile(options.name);
    const bool directory = (attributes & kAttributeDirectory) != 0;
    const uint64_t size_bytes = directory ? 0 : session->Size_bytes(name);
    CJson json;
    json.Open('{').Text("name", options.name).Unsigned("attributes", attributes);
    json.Bool("directory", directory);
    if (directory)
        json.Null("size_bytes");
    else
        json.Unsigned("size_bytes", size_bytes);
    if (line.json) {
        PrintLine(json.Close().Str());
        return kExitOk;
    }
    std::string words;
    for (const AttributeName& entry : kAttributeNames) {
        if ((attributes & entry.bit) != 0)
            words += std::string(words.empty() ? "" : ", ") + entry.name;
    }
    std::printf("name        %s\nattributes  0x%x (%s)\n", Printable(options.name).c_str(),
                attributes, words.c_str());
    if (!directory) {
        std::printf("size        %llu bytes (%s)\n", static_cast<unsigned long long>(size_bytes),
                    HumanBytes(size_bytes).c_str());
    }
    return kExitOk;
}

}  // namespace

void AddInfoVerbs(CVerb program, CommandLine& line) {
    const VerbGroup verbs{program, line, "Files"};
    auto info = std::make_shared<InfoOptions>();
    CVerb verb = verbs.Add("info", "What a media file holds", info, &Info);
    AddFileName(verb, info->name, &info->aux);
    verb.Flag("--by-name", info->byName, "Ask without opening the file");

    auto marks = std::make_shared<InfoOptions>();
    verb = verbs.Add(
        "marks",
        "The two marks of a media file. They are set by a client that writes to the stream mk",
        marks, &Marks);
    AddFileName(verb, marks->name, &marks->aux);
    verb.Flag("--by-name", marks->byName, "Ask without opening the file");

    auto space = std::make_shared<InfoOptions>();
    verb = verbs.Add("df", "Space of a volume", space, &Space);
    verb.Place("VOLUME", space->volume, "Volume (default: the server's volume root)");

    auto stat = std::make_shared<InfoOptions>();
    verb = verbs.Add("stat", "Size and attributes of a file or directory", stat, &Stat);
    AddFileName(verb, stat->name);
}

}  // namespace zem
