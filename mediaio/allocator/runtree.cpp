// The tree of free runs. A node that is wholly free or wholly taken says so by itself; its children
// may then be out of date and are refreshed by Push before anyone looks at them.
#include "mediaio/allocator/runtree.h"

#include <algorithm>
#include <bit>

namespace zemstore {

CRunTree::CRunTree(uint32_t pages)
    : m_pages(pages), m_leaves(std::bit_ceil(pages)), m_nodes(size_t{2} * m_leaves) {
    Fill(m_nodes[1], m_leaves, false);
    if (m_leaves > m_pages) TakeAt(m_pages, m_leaves - m_pages);
}

void CRunTree::Push(uint32_t node, uint32_t width) {
    const uint32_t longest = m_nodes[node].longest;
    if (longest != 0 && longest != width) return;
    Fill(m_nodes[2 * node], width / 2, longest == 0);
    Fill(m_nodes[2 * node + 1], width / 2, longest == 0);
}

void CRunTree::Pull(uint32_t node, uint32_t width) {
    const Node& a = m_nodes[2 * node];
    const Node& b = m_nodes[2 * node + 1];
    const uint32_t half = width / 2;
    Node& up = m_nodes[node];
    up.left = a.left == half ? half + b.left : a.left;
    up.right = b.right == half ? half + a.right : b.right;
    up.longest = std::max({a.longest, b.longest, a.right + b.left});
}

void CRunTree::Assign(uint32_t node, uint32_t low, uint32_t width, uint32_t first, uint32_t end,
                      bool taken) {
    if (first <= low && low + width <= end) {
        Fill(m_nodes[node], width, taken);
        return;
    }
    Push(node, width);
    const uint32_t middle = low + width / 2;
    if (first < middle) Assign(2 * node, low, width / 2, first, end, taken);
    if (end > middle) Assign(2 * node + 1, middle, width / 2, first, end, taken);
    Pull(node, width);
}

uint32_t CRunTree::Take(uint32_t pages) {
    if (pages == 0 || m_nodes[1].longest < pages) return kNone;
    uint32_t node = 1;
    uint32_t low = 0;
    uint32_t width = m_leaves;
    while (m_nodes[node].left < pages) {  // the run does not begin at this node's left edge
        Push(node, width);
        width /= 2;
        const Node& a = m_nodes[2 * node];
        if (a.longest >= pages) {
            node = 2 * node;
        } else if (a.right + m_nodes[2 * node + 1].left >= pages) {
            low += width - a.right;
            break;
        } else {
            node = 2 * node + 1;
            low += width;
        }
    }
    TakeAt(low, pages);
    return low;
}

bool CRunTree::NextFree(uint32_t from, uint32_t& first, uint32_t& pages) const {
    // Descends to the page that holds `from`, skipping whole subtrees that are taken.
    uint32_t page = from;
    while (page < m_pages) {
        uint32_t node = 1;
        uint32_t low = 0;
        uint32_t width = m_leaves;
        while (width > 1 && m_nodes[node].longest != 0 && m_nodes[node].longest != width) {
            width /= 2;
            node = 2 * node + (page >= low + width ? 1 : 0);
            if (page >= low + width) low += width;
        }
        const uint32_t end = low + width;
        if (m_nodes[node].longest != 0) {
            first = page;
            pages = std::min(end, m_pages) - page;
            return true;
        }
        page = end;
    }
    return false;
}

}  // namespace zemstore
