// Where every frame of one file is, in memory, in the shape that format.h gives it on
// disk: a tree of fixed height in which changed nodes are known, so that a checkpoint writes those
// alone. Not thread-safe: its file's lock guards it.
#pragma once

#include "mediaio/store/fileio.h"
#include "mediaio/store/format.h"
#include "mediaio/store/loadreport.h"

#include <array>
#include <functional>
#include <memory>
#include <vector>

#pragma GCC visibility push(default)

namespace zemstore {

// A range of the file that nothing refers to any more.
struct DeadRange {
    uint64_t offset_bytes;
    uint64_t size_bytes;
};

// Runtime bits beside the kFrameFlag… ones of an entry; never written to disk.
inline constexpr uint32_t kEntryVerified = 0x80000000u;  // the checksum matched since it was opened
inline constexpr uint32_t kEntryCorrupt = 0x40000000u;   // it did not
inline constexpr uint32_t kEntryRuntimeBits = 0xC0000000u;

struct IndexEntry {
    uint64_t slotOffset = 0;
    uint64_t sequence = 0;
    uint32_t dataSize = 0;
    uint32_t dataCrc = 0;
    uint32_t flags = 0;
    vdrTimecode_s timecode{};
    uint32_t cachedStamp = 0;  // when its pages were last seen in memory; see CMediaFile
};

class CFrameIndex {
public:
    CFrameIndex();
    ~CFrameIndex();
    CFrameIndex(const CFrameIndex&) = delete;
    CFrameIndex& operator=(const CFrameIndex&) = delete;

    // Null when nothing near the position was ever written.
    IndexEntry* Find(uint32_t position);
    // The entry for changing it; its nodes count as changed from now on. May throw bad_alloc.
    IndexEntry& Change(uint32_t position);
    const uint8_t* Description(uint32_t position);  // 24 bytes, or null
    void SetDescription(uint32_t position, const uint8_t* description);
    // Calls `visit` for every entry that is in memory in [first, end), in order; `visit` may change
    // entries and says true when it did.
    void ForEach(uint32_t first, uint64_t end,
                 const std::function<bool(uint32_t, IndexEntry&)>& visit);

    // Calls `visit` for every node that has a place in the file.
    void ForEachNode(const std::function<void(uint64_t offset, uint32_t level)>& visit) const;

    size_t ChangedNodes() const { return m_changed; }
    size_t Nodes() const { return m_nodes; }
    bool Empty() const { return m_nodes == 0; }

    // Writes the changed nodes (all of them when `everything`) into `pages`, as they are to lie at
    // `offset`, children first; the last page is the top node. The nodes count as unchanged then;
    // the pages they replace are appended to `dead`.
    void Serialize(uint64_t offset, uint64_t generation, const FileId& fileId, bool everything,
                   std::vector<uint8_t>& pages, std::vector<DeadRange>& dead);
    // What Serialize gave did not reach the file: every node counts as changed again.
    void MarkAllChanged();
    // The top node's place after Serialize or Load.
    uint64_t TopOffset() const;
    uint32_t TopCrc() const;

    // Reads the tree that a root names. ERROR_INVALID_DATA for anything that is not exactly as
    // written, with the first such page in `fault`; `limit` is the file's size.
    HRESULT Load(IStoreFile& file, const Root& root, uint64_t limit, NodeFault& fault);

private:
    struct Node;
    struct Leaf;
    struct Inner;
    struct Writer;
    class CReader;
    Leaf* FindLeaf(uint32_t position);
    Leaf& ChangeLeaf(uint32_t position);
    void MarkChanged(Node& node);
    HRESULT LoadNode(CReader& reader, uint32_t level, uint32_t firstPosition, const ChildRef& ref,
                     std::unique_ptr<Node>& node);
    void Visit(Node& node, uint32_t level, uint32_t base, uint32_t first, uint64_t end,
               const std::function<bool(uint32_t, IndexEntry&)>& visit);
    void WriteNode(Node& node, uint32_t level, uint32_t base, Writer& writer);

    std::unique_ptr<Node> m_top;
    size_t m_nodes = 0;
    size_t m_changed = 0;
};

}  // namespace zemstore

#pragma GCC visibility pop
