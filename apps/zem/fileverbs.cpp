// Verbs on files and directories. The protocol reports success whatever happened, so each verb that
// changes something looks afterwards whether it did.
#include <CLI/CLI.hpp>

#include <array>
#include <cstdio>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/demux.h"
#include "apps/zem/output.h"
#include "apps/zem/session.h"
#include "apps/zem/usage.h"
#include "apps/zem/verbs.h"
#include "mediaio/foreign/avdesc.h"

namespace zem {
namespace {

struct FileOptions {
    std::string name;
    std::string to;  // target of a move, volume of df, start of a stripe
    std::vector<std::string> names;
    std::string aux;
    uint32_t from = 0;
    uint32_t count = 0;
    uint32_t flags = 0;
    bool byName = false;
    bool overHttp = false;
};

using OptionsPtr = std::shared_ptr<FileOptions>;

[[noreturn]] void ThrowNotDone(const std::string& message) {
    throw CZemError(ErrorKind::kRefused, message + " (the server's log has the reason)");
}

void PrintDone(const CommandLine& line, const char* what, const std::string& name) {
    if (!line.json) return;
    CJson json;
    PrintLine(json.Open('{').Text(what, name).Bool("done", true).Close().Str());
}

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

void PrintInfoJson(const std::string& name, const ZemEsDesc& desc) {
    CJson json;
    json.Open('{').Text("name", name).Text("type", MediaTypeText(desc.mediaType));
    json.Text("codec", FourccText(desc.codec)).Unsigned("frames", desc.frameCount);
    json.Unsigned("rate_numerator", desc.rateNumerator);
    json.Unsigned("rate_denominator", desc.rateDenominator);
    json.Unsigned("width", desc.width).Unsigned("height", desc.height);
    json.Unsigned("sample_rate", desc.sampleRate).Unsigned("channels", desc.channels);
    json.Unsigned("bits_per_sample", desc.bitsPerSample);
    json.Text("start_timecode", TimecodeText(desc.startTimecode));
    json.Bool("drop_frame", (desc.flags & kEsFlagDropFrame) != 0);
    json.Bool("striped", (desc.flags & kEsFlagStriped) != 0);
    json.Bool("growing", (desc.flags & kEsFlagGrowing) != 0);
    json.Bool("read_only", (desc.flags & kEsFlagReadOnly) != 0);
    PrintLine(json.Close().Str());
}

int Info(const CommandLine& line, const FileOptions& options) {
    CSession session(line);
    const FileRef ref = FileNamed(options.name, options.aux);
    COpenFile file(*session, options.byName ? 0 : session->Open(ref));
    const ZemEsDesc desc =
        options.byName ? session->FileInfo(ref) : session->FileInfo(file.Token());
    file.Close();
    if (line.json) {
        PrintInfoJson(options.name, desc);
        return kExitOk;
    }
    std::printf("name      %s\n", Printable(options.name).c_str());
    std::printf("type      %s\n", MediaTypeText(desc.mediaType));
    std::printf("codec     %s\n", FourccText(desc.codec).c_str());
    std::printf("frames    %u\n", desc.frameCount);
    std::printf("rate      %s\n", RateText(desc.rateNumerator, desc.rateDenominator).c_str());
    if (desc.width != 0) std::printf("size      %ux%u\n", desc.width, desc.height);
    if (desc.sampleRate != 0) {
        std::printf("audio     %u Hz, %s, %u bits\n", desc.sampleRate,
                    Counted(desc.channels, "channel").c_str(), desc.bitsPerSample);
    }
    std::printf("timecode  %s\n", TimecodeText(desc.startTimecode).c_str());
    std::printf("flags     %s\n", EsFlagsText(desc.flags).c_str());
    return kExitOk;
}

int Marks(const CommandLine& line, const FileOptions& options) {
    CSession session(line);
    const FileRef ref = FileNamed(options.name, options.aux);
    COpenFile file(*session, options.byName ? 0 : session->Open(ref));
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

int Space(const CommandLine& line, const FileOptions& options) {
    CSession session(line);
    const VolumeSpace space = session->Space(ToUtf16(options.to, "the volume name"));
    if (space.total_bytes == 0) ThrowNotDone("the server could not tell the space of this volume");
    if (line.json) {
        CJson json;
        json.Open('{').Text("volume", options.to).Unsigned("total_bytes", space.total_bytes);
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

int Stat(const CommandLine& line, const FileOptions& options) {
    CSession session(line);
    const std::u16string name = FileNamed(options.name).name;
    const uint32_t attributes = session->Attributes(name);
    if (attributes == kNoAttributes)
        throw CZemError(ErrorKind::kRefused, Printable(options.name) + ": there is no such file");
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

int RemoveOverHttp(const CommandLine& line, const FileOptions& options) {
    CHttpConnection http(line.Connection());
    for (const std::string& name : options.names) {
        const PageReply reply = http.Delete(UrlPathOf(name));
        if (reply.status != 200) {
            ThrowNotDone(Printable(name) + " was not deleted: HTTP " +
                         std::to_string(reply.status) + " " + Printable(reply.reason));
        }
        PrintDone(line, "removed", name);
    }
    return kExitOk;
}

int Remove(const CommandLine& line, const FileOptions& options) {
    if (options.overHttp) return RemoveOverHttp(line, options);
    CSession session(line);
    for (const std::string& name : options.names) {
        const std::u16string wide = FileNamed(name).name;
        const uint32_t before = session->Attributes(wide);
        if (before == kNoAttributes)
            throw CZemError(ErrorKind::kRefused, Printable(name) + ": there is no such file");
        session->Remove(wide);
        if (session->Attributes(wide) != kNoAttributes)
            ThrowNotDone(Printable(name) + " was not deleted");
        PrintDone(line, "removed", name);
    }
    return kExitOk;
}

int Move(const CommandLine& line, const FileOptions& options) {
    CSession session(line);
    const std::u16string from = FileNamed(options.name).name;
    const std::u16string to = FileNamed(options.to).name;
    if (session->Attributes(from) == kNoAttributes)
        throw CZemError(ErrorKind::kRefused, Printable(options.name) + ": there is no such file");
    if (session->Attributes(to) != kNoAttributes)
        throw CZemError(ErrorKind::kRefused, Printable(options.to) + " exists");
    session->Move(from, to);
    if (session->Attributes(from) != kNoAttributes || session->Attributes(to) == kNoAttributes)
        ThrowNotDone(Printable(options.name) + " was not moved");
    PrintDone(line, "moved", options.name);
    return kExitOk;
}

int MakeDirectory(const CommandLine& line, const FileOptions& options) {
    CSession session(line);
    const std::u16string name = FileNamed(options.name).name;
    if (session->Attributes(name) != kNoAttributes)
        throw CZemError(ErrorKind::kRefused, Printable(options.name) + " exists");
    session->MakeDirectory(name);
    const uint32_t after = session->Attributes(name);
    if (after == kNoAttributes || (after & kAttributeDirectory) == 0)
        ThrowNotDone(Printable(options.name) + " was not created");
    PrintDone(line, "created", options.name);
    return kExitOk;
}

int Stripe(const CommandLine& line, const FileOptions& options) {
    CSession session(line);
    FileRef ref = FileNamed(options.name, options.aux);
    vdrTimecode_s start{};
    {
        COpenFile file(*session, session->Open(ref));
        const ZemEsDesc before = session->FileInfo(file.Token());
        if (!zemav::ParseTimecode(options.to, zemav::CountsPairs(before), start)) {
            throw CZemError(ErrorKind::kUsage, "'" + Printable(options.to) +
                                                   "' is no timecode of this file: HH:MM:SS:FF, "
                                                   "or HH:MM:SS;FF for drop-frame");
        }
        file.Close();
    }
    ref.openFlags = kFileRead | kFileWrite;
    session->StripeTimecode(ref, start, options.flags);
    COpenFile file(*session, session->Open(FileNamed(options.name, options.aux)));
    const ZemEsDesc after = session->FileInfo(file.Token());
    if ((after.flags & kEsFlagStriped) == 0 ||
        TimecodeText(after.startTimecode) != TimecodeText(start)) {
        ThrowNotDone(Printable(options.name) + " was not striped");
    }
    file.Close();
    PrintDone(line, "striped", options.name);
    return kExitOk;
}

int Erase(const CommandLine& line, const FileOptions& options) {
    CSession session(line);
    FileRef ref = FileNamed(options.name, options.aux);
    ref.openFlags = kFileRead | kFileWrite;
    COpenFile file(*session, session->Open(ref));
    const ZemEsDesc info = session->FileInfo(file.Token());
    RequireFirst(options.name, options.from, info.frameCount);
    const uint32_t left = info.frameCount - options.from;
    if (options.count > left) {
        throw CZemError(ErrorKind::kRefused, Printable(options.name) + ": from " +
                                                 std::to_string(options.from) + " on it has " +
                                                 Counted(left, "frame") + ", not " +
                                                 std::to_string(options.count));
    }
    session->EraseSegment(file.Token(), options.from, options.from + options.count, info.mediaType);
    session->Flush(file.Token());
    const std::vector<FrameDescEntry> descs =
        session->FrameDescs(file.Token(), options.from, options.count);
    for (size_t i = 0; i < descs.size(); ++i) {
        if ((descs[i].flags & kFrameFlagPresent) != 0)
            ThrowNotDone("frame " + std::to_string(options.from + i) + " was not erased");
    }
    file.Close();
    PrintDone(line, "erased", options.name);
    return kExitOk;
}

int Flush(const CommandLine& line, const FileOptions& options) {
    CSession session(line);
    COpenFile file(*session, session->Open(FileNamed(options.name, options.aux)));
    session->Flush(file.Token());
    file.Close();
    PrintDone(line, "flushed", options.name);
    return kExitOk;
}

using Routine = int (*)(const CommandLine&, const FileOptions&);

CLI::App* Add(const VerbGroup& group, const char* name, const char* help, const OptionsPtr& options,
              Routine run) {
    const CommandLine& line = group.line;
    return group.Add(name, help, [options, &line, run] { return run(line, *options); });
}

void AddName(CLI::App* verb, const OptionsPtr& options, bool with_stream) {
    verb->add_option("NAME", options->name, "File on the server")->required();
    if (with_stream) {
        verb->add_option("--stream", options->aux, "Stream of a file with several: v0, a1, tc")
            ->type_name("STREAM");
    }
}

void AddQueryVerbs(const VerbGroup& verbs) {
    auto info = std::make_shared<FileOptions>();
    CLI::App* verb = Add(verbs, "info", "What a media file holds", info, &Info);
    AddName(verb, info, true);
    verb->add_flag("--by-name", info->byName, "Ask without opening the file");

    auto marks = std::make_shared<FileOptions>();
    verb = Add(verbs, "marks", "The two marks of a media file", marks, &Marks);
    AddName(verb, marks, true);
    verb->add_flag("--by-name", marks->byName, "Ask without opening the file");

    auto space = std::make_shared<FileOptions>();
    verb = Add(verbs, "df", "Space of a volume", space, &Space);
    verb->add_option("VOLUME", space->to, "Volume (default: the server's volume root)");

    auto stat = std::make_shared<FileOptions>();
    verb = Add(verbs, "stat", "Size and attributes of a file or directory", stat, &Stat);
    AddName(verb, stat, false);
}

void AddChangeVerbs(const VerbGroup& verbs) {
    auto remove = std::make_shared<FileOptions>();
    CLI::App* verb =
        Add(verbs, "rm", "Delete files, in order; ends at the first that cannot be deleted", remove,
            &Remove);
    verb->add_option("NAME", remove->names, "Files on the server")->required();
    verb->add_flag("--http", remove->overHttp, "By plain HTTP DELETE, without joining");

    auto move = std::make_shared<FileOptions>();
    verb = Add(verbs, "mv", "Move or rename a file; an existing target is refused", move, &Move);
    verb->add_option("FROM", move->name, "File on the server")->required();
    verb->add_option("TO", move->to, "Its new name")->required();

    auto mkdir = std::make_shared<FileOptions>();
    verb = Add(verbs, "mkdir",
               "Create a directory. The protocol has no command that removes one: that is done on "
               "the server",
               mkdir, &MakeDirectory);
    AddName(verb, mkdir, false);

    auto stripe = std::make_shared<FileOptions>();
    verb = Add(verbs, "stripe", "Write a running timecode into a media file", stripe, &Stripe);
    AddName(verb, stripe, true);
    verb->add_option("TIMECODE", stripe->to, "Of the first frame: HH:MM:SS:FF, HH:MM:SS;FF")
        ->required();
    verb->add_option("--flags", stripe->flags, "Stripe flags of the server's media library")
        ->type_name("N")
        ->transform(WholeNumber(0))
        ->capture_default_str();

    auto erase = std::make_shared<FileOptions>();
    verb =
        Add(verbs, "erase", "Erase frames of a media file; the space is given back", erase, &Erase);
    AddName(verb, erase, true);
    verb->add_option("--from", erase->from, "First frame to erase")
        ->type_name("N")
        ->required()
        ->transform(WholeNumber(0));
    verb->add_option("--count", erase->count, "How many frames")
        ->type_name("N")
        ->required()
        ->transform(WholeNumber(1, 0x7FFFFFFF));

    auto flush = std::make_shared<FileOptions>();
    verb = Add(verbs, "flush", "Return when all that was written to a file is on the device", flush,
               &Flush);
    AddName(verb, flush, true);
}

}  // namespace

void AddFileVerbs(CLI::App& app, CommandLine& line) {
    const VerbGroup verbs{app, line, "Files"};
    AddQueryVerbs(verbs);
    AddChangeVerbs(verbs);
}

}  // namespace zem
