// Verbs that change files and directories, but for stripe. The protocol reports success whatever
// happened, so each verb that changes something looks afterwards whether it did.
#include <algorithm>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/output.h"
#include "apps/zem/reasons.h"
#include "apps/zem/session.h"
#include "apps/zem/terminal.h"
#include "apps/zem/valuecheck.h"
#include "apps/zem/verbs.h"

namespace zem {
namespace {

struct FileOptions {
    std::string name;
    std::string to;  // target of a move
    std::vector<std::string> names;
    std::string aux;
    uint32_t from = 0;
    uint32_t count = 0;
    bool overHttp = false;
};

int RemoveOverHttp(const CommandLine& line, const FileOptions& options) {
    CHttpConnection http(line.Connection());
    for (const std::string& name : options.names) {
        const PageReply reply = http.Delete(UrlPathOf(name));
        if (reply.status != 200) {
            throw RefusedByHttp(Printable(name) + " was not deleted", reply,
                                WhyNotServed(line, name, &WhyNotRemoved));
        }
        PrintDone(line, "rm", {{"name", name}});
    }
    return kExitOk;
}

int Remove(const CommandLine& line, const FileOptions& options) {
    if (options.overHttp) return RemoveOverHttp(line, options);
    CSession session(line);
    for (const std::string& name : options.names) {
        const std::u16string wide = FileNamed(name).name;
        const uint32_t before = session->Attributes(wide);
        if (before == kNoAttributes) ThrowNoFile(name);
        session->Remove(wide);
        if (session->Attributes(wide) != kNoAttributes)
            throw Refused(Printable(name) + " was not deleted", WhyNotRemoved(before));
        PrintDone(line, "rm", {{"name", name}});
    }
    return kExitOk;
}

void RequireNew(CZemClient& client, const std::string& name) {
    if (client.Attributes(FileNamed(name).name) == kNoAttributes) return;
    throw CZemError(ErrorKind::kRefused, Printable(name) + " exists", 0, kReasonExists);
}

int Move(const CommandLine& line, const FileOptions& options) {
    CSession session(line);
    const std::u16string from = FileNamed(options.name).name;
    const std::u16string to = FileNamed(options.to).name;
    if (session->Attributes(from) == kNoAttributes) ThrowNoFile(options.name);
    RequireNew(*session, options.to);
    session->Move(from, to);
    if (session->Attributes(from) != kNoAttributes || session->Attributes(to) == kNoAttributes) {
        throw Refused(Printable(options.name) + " was not moved",
                      WhyNotMoved(*session, options.name, options.to));
    }
    PrintDone(line, "mv", {{"name", options.name}, {"to", options.to}});
    return kExitOk;
}

int MakeDirectory(const CommandLine& line, const FileOptions& options) {
    CSession session(line);
    const std::u16string name = FileNamed(options.name).name;
    RequireNew(*session, options.name);
    session->MakeDirectory(name);
    const uint32_t after = session->Attributes(name);
    if (after == kNoAttributes || (after & kAttributeDirectory) == 0) {
        throw Refused(Printable(options.name) + " was not created",
                      WhyNotNamed(*session, options.name));
    }
    PrintDone(line, "mkdir", {{"name", options.name}});
    return kExitOk;
}

// Throws when one of the frames is there.
void RequireErased(const CommandLine& line, const FileOptions& options, CZemClient& client,
                   uint64_t token) {
    constexpr uint32_t kChunk = 8192;  // a file with few frames may have any number of positions
    CProgress progress("look at " + Printable(options.name), !line.quiet);
    for (uint32_t done = 0; done < options.count;) {
        const uint32_t from = options.from + done;
        const uint32_t some = std::min(options.count - done, kChunk);
        const std::vector<FrameDescEntry> descs = client.FrameDescs(token, from, some);
        for (uint32_t i = 0; i < some; ++i) {
            if ((descs[i].flags & kFrameFlagPresent) == 0) continue;
            throw Refused("frame " + std::to_string(from + i) + " was not erased",
                          IfVolumeIsFull(client));
        }
        done += some;
        progress.Show(done, options.count, done, 0);
    }
}

int Erase(const CommandLine& line, const FileOptions& options) {
    CSession session(line);
    FileRef ref = FileNamed(options.name, options.aux);
    ref.openFlags = kFileRead | kFileWrite;
    COpenFile file(*session, OpenNamed(*session, ref));
    const ZemEsDesc info = session->FileInfo(file.Token());
    RequireFirst(options.name, options.from, info.frameCount);
    const uint32_t left = info.frameCount - options.from;
    if (options.count > left) {
        throw CZemError(ErrorKind::kRefused,
                        Printable(options.name) + ": from " + std::to_string(options.from) +
                            " on it has " + Counted(left, "frame") + ", not " +
                            std::to_string(options.count),
                        0, kReasonNoFrame);
    }
    session->EraseSegment(file.Token(), options.from, options.from + options.count, info.mediaType);
    session->Flush(file.Token());
    RequireErased(line, options, *session, file.Token());
    file.Close();
    PrintDone(line, "erase", {{"name", options.name}});
    return kExitOk;
}

int Flush(const CommandLine& line, const FileOptions& options) {
    CSession session(line);
    COpenFile file(*session, OpenNamed(*session, FileNamed(options.name, options.aux)));
    session->Flush(file.Token());
    file.Close();
    PrintDone(line, "flush", {{"name", options.name}});
    return kExitOk;
}

void AddChangeVerbs(const VerbGroup& verbs) {
    auto remove = std::make_shared<FileOptions>();
    CVerb verb = verbs.Add("rm", "Delete files, in order; ends at the first that cannot be deleted",
                           remove, &Remove);
    verb.Place("NAME", remove->names, "Files on the server").Required();
    verb.Flag("--http", remove->overHttp, "By plain HTTP DELETE, without joining");

    auto move = std::make_shared<FileOptions>();
    verb = verbs.Add("mv", "Move or rename a file; an existing target is refused", move, &Move);
    verb.Place("FROM", move->name, "File on the server").Required();
    verb.Place("TO", move->to, "Its new name").Required();

    auto mkdir = std::make_shared<FileOptions>();
    verb = verbs.Add(
        "mkdir",
        "Create a directory. The protocol has no command that removes one: that is done on "
        "the server",
        mkdir, &MakeDirectory);
    verb.Place("NAME", mkdir->name, "Directory to make; the one that it is to lie in is there")
        .Required();
}

void AddFrameChangeVerbs(const VerbGroup& verbs) {
    auto erase = std::make_shared<FileOptions>();
    CVerb verb =
        verbs.Add("erase", "Erase frames of a media file; the space is given back", erase, &Erase);
    AddFileName(verb, erase->name, &erase->aux);
    verb.Option("--from", "N", erase->from, "First frame to erase")
        .Required()
        .Check(WholeNumber(0));
    verb.Option("--count", "N", erase->count, "How many frames")
        .Required()
        .Check(WholeNumber(1, 0x7FFFFFFF));

    auto flush = std::make_shared<FileOptions>();
    verb = verbs.Add("flush", "Return when all that was written to a file is on the device", flush,
                     &Flush);
    AddFileName(verb, flush->name, &flush->aux);
}

}  // namespace

void AddFileVerbs(CVerb program, CommandLine& line) {
    const VerbGroup verbs{program, line, "Files"};
    AddChangeVerbs(verbs);
    AddStripeVerb(program, line);
    AddFrameChangeVerbs(verbs);
}

}  // namespace zem
