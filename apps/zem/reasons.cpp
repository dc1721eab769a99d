// See reasons.h.
#include "apps/zem/reasons.h"

#include <algorithm>
#include <string_view>

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/output.h"
#include "apps/zem/serverpages.h"
#include "apps/zem/session.h"

namespace zem {
namespace {

constexpr uint32_t kAttributeReadOnly = 0x1;
constexpr const char* kFolder = ": it is a folder";
constexpr const char* kPerhapsElsewhere =
    ": it can be read; perhaps another server writes it, or this one may not";
constexpr std::string_view kInLog = " (its log has the reason)";

// The failure that is explained is the one that counts: another one on the way explains nothing.
template <typename Ask>
Why Asked(Ask ask) {
    try {
        return ask();
    } catch (const CZemError&) {
        return {};
    }
}

// A client that the server does not know is told nothing of its files either.
bool IsKnown(CZemClient& client) {
    return client.Space(u"").total_bytes != 0;
}

std::u16string FolderOf(const std::u16string& name) {
    const size_t end = name.find_last_of(u"/\\");
    return end == std::u16string::npos ? std::u16string() : name.substr(0, end);
}

// What is wrong with the folder that `name` is to lie in; a server makes folders for files only.
Why WhyNotIn(CZemClient& client, const std::u16string& name, bool mustBeThere) {
    for (std::u16string folder = FolderOf(name); !folder.empty(); folder = FolderOf(folder)) {
        const uint32_t attributes = client.Attributes(folder);
        const std::string shown = Printable(ToUtf8(folder));
        if (attributes == kNoAttributes && mustBeThere)
            return {": there is no folder " + shown, kReasonNoFolder};
        if (attributes == kNoAttributes) continue;
        if ((attributes & kAttributeDirectory) != 0) return {};
        return {": " + shown + " is a file, and no folder", kReasonNoFolder};
    }
    return {};
}

// Whether a part of a name is that of a device, with whatever ending: "aux", "COM1.v0".
bool NamesDevice(const std::string& part) {
    std::string stem = part.substr(0, part.find('.'));
    std::transform(stem.begin(), stem.end(), stem.begin(),
                   [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; });
    for (const char* const device : {"CON", "PRN", "AUX", "NUL", "CONIN$", "CONOUT$"})
        if (stem == device) return true;
    return stem.size() == 4 && (stem.starts_with("COM") || stem.starts_with("LPT")) &&
           stem[3] >= '0' && stem[3] <= '9';
}

std::string WhyBadPart(const std::string& part) {
    constexpr size_t kLongest_bytes = 255;
    constexpr std::string_view kRefused = ":*?\"<>|";
    if (part.empty() || part == ".") return {};
    if (part == "..") return "a name does not lead upwards: '..' is refused";
    for (const char c : part) {
        if (kRefused.find(c) != std::string_view::npos)
            return std::string("a name has no '") + c + "' in it";
        if (static_cast<uint8_t>(c) < 0x20) return "a name has no control characters in it";
    }
    if (part.ends_with('.') || part.ends_with(' ')) return "a name ends in no dot and no blank";
    if (part.size() > kLongest_bytes) {
        return "a part of the name has " + std::to_string(part.size()) + " bytes, the most are " +
               std::to_string(kLongest_bytes);
    }
    if (NamesDevice(part)) return "'" + Printable(part) + "' is the name of a device";
    return {};
}

// Who puts a clip names it without an ending, its files have one.
std::string ClipOf(CZemClient& client, const std::u16string& name) {
    return Asked([&]() -> Why {
               for (const char16_t* const ending : {u".v0", u".a0"}) {
                   const std::u16string stream = name + ending;
                   if (client.Attributes(stream) != kNoAttributes)
                       return {"; a clip of this name has " + Printable(ToUtf8(stream))};
               }
               return {};
           })
        .text;
}

// What the file says of itself to who only reads it.
ZemEsDesc InfoOf(CZemClient& client, FileRef file) {
    file.openFlags = kFileRead;
    const uint64_t token = client.Open(file);
    const ZemEsDesc info = client.FileInfo(token);
    client.Close(token);
    return info;
}

bool CanBeRead(CZemClient& client, const FileRef& file) {
    try {
        InfoOf(client, file);
        return true;
    } catch (const CZemError&) {
        return false;
    }
}

Why WhyNotOpened(CZemClient& client, const FileRef& file) {
    if (!IsKnown(client)) {
        return {": this client has not joined (--channel 255 joins none), or the volume is gone",
                kReasonNotJoined};
    }
    Why why = WhyBadName(file.name);
    if (why.word != nullptr) return why;
    const uint32_t attributes = client.Attributes(file.name);
    if (attributes == kNoAttributes) {
        why = WhyNotIn(client, file.name, true);
        if (why.word != nullptr) return why;
        return {": there is no such file" + ClipOf(client, file.name), kReasonNoFile};
    }
    if ((attributes & kAttributeDirectory) != 0) return {kFolder, kReasonFolder};
    if ((file.openFlags & kFileWrite) != 0 && CanBeRead(client, file)) {
        why = WhyNotChanged(InfoOf(client, file));
        return why.word != nullptr ? why : Why{kPerhapsElsewhere};
    }
    FileRef whole = file;
    whole.aux.clear();
    if (!file.aux.empty() && CanBeRead(client, whole))
        return {": it has no stream " + Printable(ToUtf8(file.aux)), kReasonNoStream};
    const uint64_t size_bytes = client.Size_bytes(file.name);
    if (size_bytes == 0) return {": it is empty", kReasonEmpty};
    return {": it is there, with " + HumanBytes(size_bytes) +
            "; perhaps it is no media file, is damaged or cut off, or the server may not read it"};
}

// Does what is to be done with a file; a refusal says why.
template <typename Do>
auto WithReason(CZemClient& client, const FileRef& file, Do what) {
    try {
        return what();
    } catch (const CZemError& error) {
        if (error.Kind() != ErrorKind::kRefused) throw;
        throw Explained(error, Asked([&] { return WhyNotOpened(client, file); }));
    }
}

}  // namespace

CZemError Refused(const std::string& message, const Why& why, int32_t hr) {
    const char* const log = why.word != nullptr ? "" : " (the server's log has the reason)";
    return {ErrorKind::kRefused, message + log + why.text, hr, why.word};
}

CZemError Explained(const CZemError& error, const Why& why) {
    std::string message = error.what();
    if (why.word != nullptr && message.ends_with(kInLog))
        message.resize(message.size() - kInLog.size());
    return {error.Kind(), message + why.text, error.Hr(), why.word};
}

CZemError RefusedByHttp(const std::string& message, const PageReply& reply, const Why& why) {
    const std::string said =
        message + ": HTTP " + std::to_string(reply.status) + " " + Printable(reply.reason);
    // A media server says 400 of what it has not, and 404 only outside of its own paths.
    if (reply.status == 404 && why.word != kReasonNotServed) {
        return {ErrorKind::kBadReply, "this does not look like a media server: " + said, 0,
                kReasonOtherServer};
    }
    return Refused(said, why);
}

uint64_t OpenNamed(CZemClient& client, const FileRef& file) {
    return WithReason(client, file, [&] { return client.Open(file); });
}

ZemEsDesc InfoNamed(CZemClient& client, const FileRef& file) {
    return WithReason(client, file, [&] { return client.FileInfo(file); });
}

void ThrowNoFile(const std::string& name) {
    Why why = Asked([&] { return WhyBadName(ToUtf16(name, "the file name")); });
    if (why.word == nullptr) why = {": there is no such file", kReasonNoFile};
    throw Refused(Printable(name), why);
}

Why WhyBadName(const std::u16string& name) {
    const std::string text = ToUtf8(name);
    if (text.starts_with('/') || text.starts_with('\\'))
        return {": a name begins below the volume root, without a slash", kReasonBadName};
    for (size_t at = 0; at <= text.size();) {
        const size_t end = std::min(text.find_first_of("/\\", at), text.size());
        const std::string why = WhyBadPart(text.substr(at, end - at));
        if (!why.empty()) return {": " + why, kReasonBadName};
        at = end + 1;
    }
    return {};
}

Why WhyNotCreated(CZemClient& client, const std::string& name, bool replace) {
    return Asked([&]() -> Why {
        const std::u16string wide = ToUtf16(name, "the file name");
        const uint32_t attributes = client.Attributes(wide);
        if (attributes == kNoAttributes) {
            Why why = WhyBadName(wide);
            if (why.word == nullptr) why = WhyNotIn(client, wide, false);
            if (why.word == nullptr) why = IfVolumeIsFull(client);
            if (why.word == nullptr) why = {": perhaps the server may not write there"};
            return why;
        }
        if ((attributes & kAttributeDirectory) != 0) return {kFolder, kReasonFolder};
        if (!replace) return {": it exists; --force replaces it", kReasonExists};
        return {": perhaps somebody has it open, or the server may not write it"};
    });
}

Why WhyNotNamed(CZemClient& client, const std::string& name) {
    return Asked([&] {
        const std::u16string wide = ToUtf16(name, "the file name");
        Why why = WhyBadName(wide);
        if (why.word == nullptr) why = WhyNotIn(client, wide, true);
        if (why.word == nullptr) why = IfVolumeIsFull(client);
        if (why.word == nullptr) why = {": perhaps the server may not write there"};
        return why;
    });
}

Why WhyNotMoved(CZemClient& client, const std::string& name, const std::string& to) {
    const std::u16string moved = ToUtf16(name, "the file name");
    std::u16string folder = FolderOf(ToUtf16(to, "the file name"));
    for (; !folder.empty(); folder = FolderOf(folder))
        if (folder == moved) return {": it cannot lie in itself", kReasonBadName};
    return WhyNotNamed(client, to);
}

Why WhyNotRemoved(uint32_t attributes) {
    if ((attributes & kAttributeDirectory) != 0) {
        return {std::string(kFolder) +
                    ", which the protocol has no command for: that is done on the server",
                kReasonFolder};
    }
    if ((attributes & kAttributeReadOnly) != 0) return {": it is read-only", kReasonReadOnly};
    return {
        ": perhaps somebody has it open for writing, or the server may not open it, or not write "
        "in "
        "its folder"};
}

Why WhyNotSent(uint32_t attributes) {
    if ((attributes & kAttributeDirectory) != 0) return {kFolder, kReasonFolder};
    return {": it is there; perhaps the server may not read it, or its path is too long"};
}

Why WhyNotServed(const CommandLine& line, const std::string& name, Why (*whyNot)(uint32_t)) {
    if (!IsServed(name))
        return {": plain HTTP reaches only what lies in media/ or zem/", kReasonNotServed};
    Why why = Asked([&]() -> Why {
        CommandLine asking = line;
        asking.clientId.clear();  // leaving ends what a client of this ID has open
        asking.stay = false;
        CSession session(asking);
        const std::u16string wide = FileNamed(name.substr(name.find_first_not_of('/'))).name;
        if (!IsKnown(*session)) return {};
        // HTTP takes some such names, but nothing brought a file of that name here.
        if (Why bad = WhyBadName(wide); bad.word != nullptr) return bad;
        const uint32_t attributes = session->Attributes(wide);
        if (attributes != kNoAttributes) return whyNot(attributes);
        const Why folder = WhyNotIn(*session, wide, true);
        return folder.word != nullptr ? folder : Why{": there is no such file", kReasonNoFile};
    });
    if (why.text.empty()) why = {": perhaps there is no such file, or the server may not touch it"};
    return why;
}

Why WhyNotChanged(const ZemEsDesc& info) {
    if ((info.flags & kEsFlagReadOnly) != 0) {
        return {": a file of a foreign format is only read; import it to change it",
                kReasonReadOnly};
    }
    if ((info.flags & kEsFlagGrowing) != 0)
        return {": somebody has it open for writing", kReasonInUse};
    return {};
}

Why WhyNotStriped(CZemClient& client, const ZemEsDesc& info) {
    const bool writtenHere = (info.flags & kEsFlagGrowing) != 0;
    Why why;
    if (!writtenHere) why = WhyNotChanged(info);
    if (why.word == nullptr) why = IfVolumeIsFull(client);
    if (why.word == nullptr && !writtenHere) why = {kPerhapsElsewhere};
    return why;
}

Why IfVolumeIsFull(CZemClient& client) {
    return Asked([&]() -> Why {
        constexpr uint64_t kAsGoodAsNone_bytes = 16 << 20;
        const VolumeSpace space = client.Space(u"");
        if (space.total_bytes == 0 || space.free_bytes >= kAsGoodAsNone_bytes) return {};
        return {": its volume is full (" + HumanBytes(space.free_bytes) + " free)", kReasonFull};
    });
}

}  // namespace zem
