// The frame index: look-up, change, and its form on disk.
#include "mediaio/store/frameindex.h"

#include "mediaio/store/crc32c.h"

#include <algorithm>
#include <cstring>

namespace zemstore {

struct CFrameIndex::Node {
    virtual ~Node() = default;
    uint64_t offset = 0;  // 0: not on disk yet
    uint32_t crc = 0;
    bool changed = false;
};

struct CFrameIndex::Leaf : CFrameIndex::Node {
    std::array<IndexEntry, kLeafEntries> entries{};
    // Only special streams have descriptions.
    std::unique_ptr<std::array<std::array<uint8_t, kDescriptionSize>, kLeafEntries>> descriptions;
};

struct CFrameIndex::Inner : CFrameIndex::Node {
    std::array<std::unique_ptr<Node>, kInnerChildren> children;
};

namespace {

constexpr uint32_t ChildOf(uint32_t position, uint32_t level) {
    return (position >> LevelShift(level)) & (kInnerChildren - 1);
}
constexpr uint64_t SpanOf(uint32_t level) {
    return uint64_t{1} << LevelShift(level);
}
constexpr uint32_t kTopChildren = 1u << (32 - LevelShift(kTopLevel));

}  // namespace

CFrameIndex::CFrameIndex() = default;
CFrameIndex::~CFrameIndex() = default;

CFrameIndex::Leaf* CFrameIndex::FindLeaf(uint32_t position) {
    Node* node = m_top.get();
    for (uint32_t level = kTopLevel; node != nullptr && level > 0; --level)
        node = static_cast<Inner*>(node)->children[ChildOf(position, level)].get();
    return static_cast<Leaf*>(node);
}

IndexEntry* CFrameIndex::Find(uint32_t position) {
    Leaf* leaf = FindLeaf(position);
    return leaf == nullptr ? nullptr : &leaf->entries[position % kLeafEntries];
}

void CFrameIndex::MarkChanged(Node& node) {
    if (node.changed) return;
    node.changed = true;
    ++m_changed;
}

CFrameIndex::Leaf& CFrameIndex::ChangeLeaf(uint32_t position) {
    std::unique_ptr<Node>* at = &m_top;
    for (uint32_t level = kTopLevel;; --level) {
        if (*at == nullptr) {
            if (level > 0)
                *at = std::make_unique<Inner>();
            else
                *at = std::make_unique<Leaf>();
            ++m_nodes;
        }
        MarkChanged(**at);
        if (level == 0) return static_cast<Leaf&>(**at);
        at = &static_cast<Inner&>(**at).children[ChildOf(position, level)];
    }
}

IndexEntry& CFrameIndex::Change(uint32_t position) {
    return ChangeLeaf(position).entries[position % kLeafEntries];
}

const uint8_t* CFrameIndex::Description(uint32_t position) {
    Leaf* leaf = FindLeaf(position);
    if (leaf == nullptr || leaf->descriptions == nullptr) return nullptr;
    return (*leaf->descriptions)[position % kLeafEntries].data();
}

void CFrameIndex::SetDescription(uint32_t position, const uint8_t* description) {
    Leaf& leaf = ChangeLeaf(position);
    if (leaf.descriptions == nullptr) {
        leaf.descriptions =
            std::make_unique<std::array<std::array<uint8_t, kDescriptionSize>, kLeafEntries>>();
    }
    memcpy((*leaf.descriptions)[position % kLeafEntries].data(), description, kDescriptionSize);
}

void CFrameIndex::Visit(Node& node, uint32_t level, uint32_t base, uint32_t first, uint64_t end,
                        const std::function<bool(uint32_t, IndexEntry&)>& visit) {
    const uint64_t step = level == 0 ? 1 : SpanOf(level);
    const uint32_t count =
        level == 0 ? kLeafEntries : (level == kTopLevel ? kTopChildren : kInnerChildren);
    for (uint32_t i = 0; i < count; ++i) {
        const uint64_t low = base + i * step;
        if (low >= end || low + step <= first) continue;
        const auto position = static_cast<uint32_t>(low);
        if (level == 0) {
            IndexEntry& entry = static_cast<Leaf&>(node).entries[i];
            if (entry.sequence != 0 && visit(position, entry)) ChangeLeaf(position);
        } else if (Node* child = static_cast<Inner&>(node).children[i].get()) {
            Visit(*child, level - 1, position, first, end, visit);
        }
    }
}

void CFrameIndex::ForEach(uint32_t first, uint64_t end,
                          const std::function<bool(uint32_t, IndexEntry&)>& visit) {
    if (m_top != nullptr) Visit(*m_top, kTopLevel, 0, first, end, visit);
}

void CFrameIndex::ForEachNode(const std::function<void(uint64_t, uint32_t)>& visit) const {
    if (m_top == nullptr) return;
    const std::function<void(const Node&, uint32_t)> go = [&](const Node& node, uint32_t level) {
        if (node.offset != 0) visit(node.offset, level);
        if (level == 0) return;
        for (const auto& child : static_cast<const Inner&>(node).children)
            if (child != nullptr) go(*child, level - 1);
    };
    go(*m_top, kTopLevel);
}

struct CFrameIndex::Writer {
    uint64_t offset;
    uint64_t generation;
    const FileId& fileId;
    bool everything;
    std::vector<uint8_t>& pages;
    std::vector<DeadRange>& dead;
};

void CFrameIndex::WriteNode(Node& node, uint32_t level, uint32_t base, Writer& writer) {
    if (!node.changed && !writer.everything) return;
    alignas(8) uint8_t page[kPageSize] = {};
    if (level == 0) {
        auto& disk = *reinterpret_cast<LeafNode*>(page);
        auto& leaf = static_cast<Leaf&>(node);
        for (uint32_t i = 0; i < kLeafEntries; ++i) {
            const IndexEntry& from = leaf.entries[i];
            FrameEntry& to = disk.entries[i];
            to.slotOffset = from.slotOffset;
            to.sequence = from.sequence;
            to.dataSize = from.dataSize;
            to.dataCrc = from.dataCrc;
            to.flags = from.flags & ~kEntryRuntimeBits;
            to.timecode = from.timecode;
            if (leaf.descriptions != nullptr)
                memcpy(to.description, (*leaf.descriptions)[i].data(), kDescriptionSize);
        }
    } else {
        auto& disk = *reinterpret_cast<InnerNode*>(page);
        auto& inner = static_cast<Inner&>(node);
        for (uint32_t i = 0; i < kInnerChildren; ++i) {
            Node* child = inner.children[i].get();
            if (child == nullptr) continue;
            WriteNode(*child, level - 1, base + static_cast<uint32_t>(i * SpanOf(level)), writer);
            disk.children[i] = {child->offset, child->crc, 0};
        }
    }
    if (node.offset != 0) writer.dead.push_back({node.offset, kPageSize});
    auto& header = *reinterpret_cast<NodeHeader*>(page);
    header.magic = kNodeMagic;
    header.level = static_cast<uint16_t>(level);
    header.size = sizeof(NodeHeader);
    header.fileId = writer.fileId;
    header.offset = writer.offset + writer.pages.size();
    header.generation = writer.generation;
    header.firstPosition = base;
    header.crc = Crc32c(0, page, sizeof page);
    node.offset = header.offset;
    node.crc = header.crc;
    node.changed = false;
    writer.pages.insert(writer.pages.end(), page, page + sizeof page);
}

void CFrameIndex::Serialize(uint64_t offset, uint64_t generation, const FileId& fileId,
                            bool everything, std::vector<uint8_t>& pages,
                            std::vector<DeadRange>& dead) {
    pages.clear();
    if (m_top == nullptr) return;
    pages.reserve((everything ? m_nodes : m_changed) * kPageSize);
    dead.reserve(dead.size() + (everything ? m_nodes : m_changed));
    Writer writer{offset, generation, fileId, everything, pages, dead};
    WriteNode(*m_top, kTopLevel, 0, writer);
    m_changed = 0;
}

void CFrameIndex::MarkAllChanged() {
    if (m_top == nullptr) return;
    const std::function<void(Node&, uint32_t)> mark = [&](Node& node, uint32_t level) {
        node.offset = 0;
        MarkChanged(node);
        if (level == 0) return;
        for (auto& child : static_cast<Inner&>(node).children)
            if (child != nullptr) mark(*child, level - 1);
    };
    mark(*m_top, kTopLevel);
}

uint64_t CFrameIndex::TopOffset() const {
    return m_top == nullptr ? 0 : m_top->offset;
}
uint32_t CFrameIndex::TopCrc() const {
    return m_top == nullptr ? 0 : m_top->crc;
}

// Reads node pages with a window of neighbours: a compacted index lies in one piece.
class CFrameIndex::CReader {
public:
    CReader(IStoreFile& file, const Root& root, uint64_t limit, NodeFault& fault)
        : m_file(file), m_root(root), m_limit(limit), m_fault(fault) {}

    // Copies the page at `offset`, checked, or says ERROR_INVALID_DATA.
    HRESULT Read(const ChildRef& ref, uint32_t level, uint32_t firstPosition, uint8_t* page) {
        const uint64_t offset = ref.offset;
        const auto bad = [&](const char* what) {
            return Refuse({what, offset, level, firstPosition});
        };
        if (offset < kLogOffset || offset % kPageSize != 0 || offset > m_limit ||
            m_limit - offset < kPageSize) {
            return bad("lies outside of the file");
        }
        if (offset < m_begin || offset + kPageSize > m_begin + m_filled) {
            // Nodes that lie side by side are read from the low end up; a node among frames is
            // read alone.
            const bool compact = offset >= m_root.compactOffset && offset < m_root.compactEnd;
            const size_t want = compact ? kWindow : kPageSize;
            if (m_window.size() < want) m_window.resize(want);
            m_begin = offset;
            const HRESULT hr = m_file.ReadAt(m_window.data(), want, offset, m_filled);
            if (FAILED(hr)) return hr;
            if (m_filled < kPageSize) return bad("lies outside of the file");
        }
        memcpy(page, m_window.data() + (offset - m_begin), kPageSize);
        auto& header = *reinterpret_cast<NodeHeader*>(page);
        const uint32_t crc = header.crc;
        header.crc = 0;
        if (crc != ref.crc || Crc32c(0, page, kPageSize) != crc) return bad("wrong checksum");
        const bool right = header.magic == kNodeMagic && header.level == level &&
                           header.size == sizeof(NodeHeader) && header.fileId == m_root.fileId &&
                           header.offset == offset && header.firstPosition == firstPosition;
        return right ? S_OK : bad("another page's contents");
    }
    HRESULT Refuse(const NodeFault& fault) {
        if (m_fault.what == nullptr) m_fault = fault;
        return HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
    }
    uint64_t Limit() const { return m_limit; }

private:
    static constexpr size_t kWindow = size_t{256} << 10;
    IStoreFile& m_file;
    const Root& m_root;
    uint64_t m_limit;
    NodeFault& m_fault;
    std::vector<uint8_t> m_window;
    uint64_t m_begin = 0;
    size_t m_filled = 0;
};

namespace {

bool EntryIsSane(const FrameEntry& entry, uint64_t limit) {
    if ((entry.flags & ~(kFrameFlagKey | kFrameFlagPresent | kFrameFlagErased)) != 0) return false;
    if (entry.sequence == 0) return entry.slotOffset == 0 && entry.flags == 0;
    if ((entry.flags & kFrameFlagPresent) == 0) return entry.slotOffset == 0;
    if (entry.dataSize == 0) return entry.slotOffset == 0;
    return entry.dataSize <= kMaxFrameSize && entry.slotOffset >= kLogOffset &&
           entry.slotOffset % kPageSize == 0 && entry.slotOffset <= limit &&
           limit - entry.slotOffset >= SlotSize(entry.dataSize);
}

bool AnyByte(const uint8_t (&bytes)[kDescriptionSize]) {
    return std::any_of(std::begin(bytes), std::end(bytes), [](uint8_t b) { return b != 0; });
}

}  // namespace

HRESULT CFrameIndex::LoadNode(CReader& reader, uint32_t level, uint32_t firstPosition,
                              const ChildRef& ref, std::unique_ptr<Node>& node) {
    alignas(8) uint8_t page[kPageSize];
    HRESULT hr = reader.Read(ref, level, firstPosition, page);
    if (FAILED(hr)) return hr;
    ++m_nodes;
    if (level == 0) {
        auto leaf = std::make_unique<Leaf>();
        const auto& disk = *reinterpret_cast<const LeafNode*>(page);
        for (uint32_t i = 0; i < kLeafEntries; ++i) {
            const FrameEntry& from = disk.entries[i];
            if (!EntryIsSane(from, reader.Limit()))
                return reader.Refuse({"an entry that cannot be", ref.offset, 0, firstPosition + i});
            leaf->entries[i] = {from.slotOffset,
                                from.sequence,
                                from.dataSize,
                                from.dataCrc,
                                from.flags,
                                from.timecode,
                                0};
            if (!AnyByte(from.description)) continue;
            if (leaf->descriptions == nullptr) {
                leaf->descriptions = std::make_unique<
                    std::array<std::array<uint8_t, kDescriptionSize>, kLeafEntries>>();
            }
            memcpy((*leaf->descriptions)[i].data(), from.description, kDescriptionSize);
        }
        node = std::move(leaf);
    } else {
        auto inner = std::make_unique<Inner>();
        const auto& disk = *reinterpret_cast<const InnerNode*>(page);
        const uint32_t count = level == kTopLevel ? kTopChildren : kInnerChildren;
        for (uint32_t i = 0; i < count; ++i) {
            if (disk.children[i].offset == 0) continue;
            hr = LoadNode(reader, level - 1,
                          firstPosition + static_cast<uint32_t>(i * SpanOf(level)),
                          disk.children[i], inner->children[i]);
            if (FAILED(hr)) return hr;
        }
        node = std::move(inner);
    }
    node->offset = ref.offset;
    node->crc = ref.crc;
    return S_OK;
}

HRESULT CFrameIndex::Load(IStoreFile& file, const Root& root, uint64_t limit, NodeFault& fault) {
    m_top.reset();
    m_nodes = m_changed = 0;
    if (root.indexOffset == 0) return S_OK;
    CReader reader(file, root, limit, fault);
    const HRESULT hr =
        LoadNode(reader, kTopLevel, 0, ChildRef{root.indexOffset, root.indexCrc, 0}, m_top);
    if (FAILED(hr)) {
        m_top.reset();
        m_nodes = 0;
    }
    return hr;
}

}  // namespace zemstore
