// The name of the file that holds a foreign file's index.
#include "mediaio/foreign/foreign.h"

namespace zemstore {

std::string ForeignIndexPath(const std::string& path) {
    const size_t leaf = path.rfind('/') + 1;  // 0 without a slash
    const std::string name = "." + path.substr(leaf) + ".zemindex";
    return name.size() > 255 ? std::string() : path.substr(0, leaf) + name;
}

void DropForeignIndex(IVolume& volume, const std::string& path) {
    const std::string index = ForeignIndexPath(path);
    uint64_t size = 0;
    if (!index.empty() && SUCCEEDED(volume.FileSize(index, size))) volume.Delete(index);
}

void MoveForeignIndex(IVolume& volume, const std::string& from, const std::string& to) {
    const std::string index = ForeignIndexPath(from);
    const std::string moved = ForeignIndexPath(to);
    uint64_t size = 0;
    if (index.empty() || FAILED(volume.FileSize(index, size))) return;
    if (moved.empty() || FAILED(volume.Move(index, moved))) volume.Delete(index);
}

}  // namespace zemstore
