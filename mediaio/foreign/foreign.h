// The door to the readers of foreign containers (MXF, MOV, MKV ...). They are a module
// of their own, loaded when the first file that is not a native one is opened, so that a server
// without such files carries nothing of it and a build may leave it out (ZEM_FOREIGN). Any thread.
#pragma once

#include "mediaio/store/framefile.h"
#include "mediaio/store/names.h"

#include <memory>
#include <string>

#pragma GCC visibility push(default)

namespace zemstore {

// An open file and where it came from: what had to be found out by reading it through is kept
// beside it.
struct ForeignSource {
    std::shared_ptr<IVolume> volume;
    std::string path;
    std::unique_ptr<IStoreFile> file;
};

// Opens one stream: `stream` receives a reference, `kind` a kTokenKind value. ERROR_BAD_FORMAT: not
// a container that can be read. ERROR_NOT_FOUND: it has no such stream. ERROR_BUSY: it is still
// being opened, by threads of the module.
using OpenForeignFunction = HRESULT (*)(ForeignSource source, const StreamName& name,
                                        MediaFileType type, CFrameFile*& stream, uint32_t& kind);

// Null when there is no such module here; that is logged once.
#ifdef ZEM_FOREIGN
OpenForeignFunction ForeignReader();
#else
inline OpenForeignFunction ForeignReader() {
    return nullptr;
}
#endif

// What is kept beside a file goes and moves with it.
void DropForeignIndex(IVolume& volume, const std::string& path);
void MoveForeignIndex(IVolume& volume, const std::string& from, const std::string& to);

// The name beside `path` under which its index is kept; empty when it would be too long.
std::string ForeignIndexPath(const std::string& path);

}  // namespace zemstore

#pragma GCC visibility pop
