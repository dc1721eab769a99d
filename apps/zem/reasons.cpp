// See reasons.h.
#include "apps/zem/reasons.h"

#include "apps/zem/client/text.h"
#include "apps/zem/client/zemerror.h"
#include "apps/zem/output.h"

namespace zem {
namespace {

constexpr uint32_t kAttributeReadOnly = 0x1;
constexpr const char* kFolder = ": it is a folder";

// The failure that is explained is the one that counts: another one on the way explains nothing.
template <typename Ask>
std::string Asked(Ask ask) {
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
std::string WhyNotIn(CZemClient& client, const std::u16string& name, bool mustBeThere) {
    for (std::u16string folder = FolderOf(name); !folder.empty(); folder = FolderOf(folder)) {
        const uint32_t attributes = client.Attributes(folder);
        const std::string shown = Printable(ToUtf8(folder));
        if (attributes == kNoAttributes && mustBeThere) return ": there is no folder " + shown;
        if (attributes == kNoAttributes) continue;
        if ((attributes & kAttributeDirectory) != 0) return {};
        return ": " + shown + " is a file, and no folder";
    }
    return {};
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

std::string WhyNotOpened(CZemClient& client, const FileRef& file) {
    if (!IsKnown(client))
        return ": this client has not joined (--channel 255 joins none), or the volume is gone";
    const uint32_t attributes = client.Attributes(file.name);
    if (attributes == kNoAttributes) {
        std::string why = WhyNotIn(client, file.name, true);
        return why.empty() ? ": there is no such file" : why;
    }
    if ((attributes & kAttributeDirectory) != 0) return kFolder;
    if ((file.openFlags & kFileWrite) != 0 && CanBeRead(client, file)) {
        std::string why = WhyNotChanged(InfoOf(client, file));
        return why.empty() ? ": it can be read; perhaps the server may not write it" : why;
    }
    FileRef whole = file;
    whole.aux.clear();
    if (!file.aux.empty() && CanBeRead(client, whole))
        return ": it has no stream " + Printable(ToUtf8(file.aux));
    const uint64_t size_bytes = client.Size_bytes(file.name);
    if (size_bytes == 0) return ": it is empty";
    return ": it is there, with " + HumanBytes(size_bytes) +
           "; perhaps it is no media file, is damaged or cut off, or the server may not read it";
}

}  // namespace

uint64_t OpenNamed(CZemClient& client, const FileRef& file) {
    try {
        return client.Open(file);
    } catch (const CZemError& error) {
        if (error.Kind() != ErrorKind::kRefused) throw;
        throw CZemError(error.Kind(),
                        error.what() + Asked([&] { return WhyNotOpened(client, file); }),
                        error.Hr());
    }
}

std::string WhyNotCreated(CZemClient& client, const std::string& name, bool replace) {
    return Asked([&]() -> std::string {
        const std::u16string wide = ToUtf16(name, "the file name");
        const uint32_t attributes = client.Attributes(wide);
        if (attributes == kNoAttributes) {
            std::string why = WhyNotIn(client, wide, false);
            if (!why.empty()) return why;
            const std::string full = IfVolumeIsFull(client);
            return full.empty() ? ": perhaps the server may not write there" : full;
        }
        if ((attributes & kAttributeDirectory) != 0) return kFolder;
        return replace ? ": perhaps somebody has it open, or the server may not write it"
                       : ": it exists; --force replaces it";
    });
}

std::string WhyNotNamed(CZemClient& client, const std::string& name) {
    return Asked([&] { return WhyNotIn(client, ToUtf16(name, "the file name"), true); });
}

std::string WhyNotRemoved(uint32_t attributes) {
    if ((attributes & kAttributeDirectory) != 0) {
        return std::string(kFolder) +
               ", which the protocol has no command for: that is done on the server";
    }
    if ((attributes & kAttributeReadOnly) != 0) return ": it is read-only";
    return ": perhaps somebody has it open for writing, or the server may not write in its folder";
}

std::string WhyNotChanged(const ZemEsDesc& info) {
    if ((info.flags & kEsFlagReadOnly) != 0)
        return ": a file of a foreign format is only read; import it to change it";
    if ((info.flags & kEsFlagGrowing) != 0) return ": somebody has it open for writing";
    return {};
}

std::string IfVolumeIsFull(CZemClient& client) {
    return Asked([&]() -> std::string {
        constexpr uint64_t kAsGoodAsNone_bytes = 16 << 20;
        const VolumeSpace space = client.Space(u"");
        if (space.total_bytes == 0 || space.free_bytes >= kAsGoodAsNone_bytes) return {};
        return ": its volume is full (" + HumanBytes(space.free_bytes) + " free)";
    });
}

}  // namespace zem
