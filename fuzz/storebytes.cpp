// Files for the store's fuzz target, and forged checksums.
#include "fuzz/storebytes.h"

#include <cstring>

#include "fuzz/fuzz.h"
#include "mediaio/store/crc32c.h"

namespace fuzz {
namespace {

using namespace simfile;
using namespace zemstore;

// A structure of the format at a place where it may lie.
template <class T>
T* At(std::vector<uint8_t>& bytes, uint64_t offset) {
    return offset + sizeof(T) <= bytes.size() ? reinterpret_cast<T*>(bytes.data() + offset)
                                              : nullptr;
}

template <class T>
void ForgeSimple(T* what) {
    if (what) what->crc = Crc32c(0, what, offsetof(T, crc));
}

NodeHeader* NodeAt(std::vector<uint8_t>& bytes, uint64_t offset) {
    if (offset % kPageSize != 0 || offset < kLogOffset || !At<InnerNode>(bytes, offset))
        return nullptr;
    auto* node = At<NodeHeader>(bytes, offset);
    return node->magic == kNodeMagic ? node : nullptr;
}

// Children first: a node holds their checksums.
void ForgeNodes(std::vector<uint8_t>& bytes) {
    for (uint32_t level = 0; level <= kTopLevel; ++level) {
        for (uint64_t at = kLogOffset; at + kPageSize <= bytes.size(); at += kPageSize) {
            NodeHeader* node = NodeAt(bytes, at);
            if (!node || node->level != level) continue;
            if (level > 0) {
                for (ChildRef& child : At<InnerNode>(bytes, at)->children) {
                    if (const NodeHeader* below = NodeAt(bytes, child.offset))
                        child.crc = below->crc;
                }
            }
            node->crc = 0;
            node->crc = Crc32c(0, node, kPageSize);
        }
    }
}

void ForgeRecords(std::vector<uint8_t>& bytes, bool data) {
    for (uint64_t at = kLogOffset; at + kPageSize <= bytes.size(); at += kPageSize) {
        auto* record = At<LogRecord>(bytes, at + kPageSize - sizeof(LogRecord));
        if (record->magic != kRecordMagic) continue;
        const bool there = record->slotOffset <= bytes.size() &&
                           record->dataSize <= bytes.size() - record->slotOffset;
        if (data && there)
            record->dataCrc = Crc32c(0, bytes.data() + record->slotOffset, record->dataSize);
        ForgeSimple(record);
    }
}

void Rename(std::vector<uint8_t>& bytes, const FileId& from, const FileId& to) {
    const auto rename = [&](FileId& id) {
        if (id == from) id = to;
    };
    rename(At<FileHeader>(bytes, 0)->fileId);
    for (const uint64_t root : kRootOffset)
        rename(At<Root>(bytes, root)->fileId);
    for (uint64_t at = kLogOffset; at + kPageSize <= bytes.size(); at += kPageSize) {
        rename(At<LogRecord>(bytes, at + kPageSize - sizeof(LogRecord))->fileId);
        if (NodeHeader* node = NodeAt(bytes, at)) rename(node->fileId);
    }
}

// Nothing random and no time is left in it.
void MakeRepeatable(Device& device) {
    auto* header = At<FileHeader>(device.content, 0);
    FileId id;
    std::memset(&id, 0x5A, sizeof id);
    Rename(device.content, header->fileId, id);
    header->created = 0;
    Forge(device.content, false);
    device.pending.clear();
    device.durable = device.content;
    device.random.seed(1);
}

Device Make(uint8_t which) {
    Device device;
    FormatVideo(device);
    if (which != 0) {
        Opened file(device);
        file->BeginWriting();
        for (uint32_t i = 0; i < 12; ++i)
            WriteFrame(*file.file, i, FrameBytes(i, 1, 700 * i));
        WriteFrame(*file.file, 9000, FrameBytes(9000, 1, 50));
        file->Checkpoint();
        file->Erase(3, 5);
        file->AppendSettings({1, 7, {}, kSettingStriped});
        for (uint32_t i = 8; i < 14; ++i)
            WriteFrame(*file.file, i, FrameBytes(i, 2, 300));
        if (which == 1) {
            file->EndWriting();
        } else {
            file->Flush();
            Device left = device;  // as a killed process leaves it
            left.writer = nullptr;
            file->EndWriting();
            device = left;
        }
    }
    MakeRepeatable(device);
    return device;
}

}  // namespace

void Forge(std::vector<uint8_t>& bytes, bool data) {
    ForgeSimple(At<FileHeader>(bytes, 0));
    ForgeRecords(bytes, data);
    ForgeNodes(bytes);
    for (const uint64_t at : kRootOffset) {
        auto* root = At<Root>(bytes, at);
        if (!root || root->magic != kRootMagic) continue;
        if (const NodeHeader* top = NodeAt(bytes, root->indexOffset)) root->indexCrc = top->crc;
        ForgeSimple(root);
    }
}

Device FirstFile(uint8_t which) {
    static const Device files[] = {Make(0), Make(1), Make(2)};
    return files[which % 3];
}

}  // namespace fuzz
