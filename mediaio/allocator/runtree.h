// Which pages of a reservation are free, as a binary tree over the pages in which every
// node knows the free run at its left edge, at its right edge and the longest inside. Taking the
// lowest run that is long enough and giving one back cost O(log pages); neighbours merge by
// themselves. Not thread-safe: its allocator's lock guards it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zemstore {

class CRunTree {
public:
    static constexpr uint32_t kNone = 0xFFFFFFFFu;

    explicit CRunTree(uint32_t pages);

    // First page of the lowest free run of `pages` pages, now taken; kNone when there is none.
    uint32_t Take(uint32_t pages);
    // Takes exactly these pages. REQUIRES: all of them are free.
    void TakeAt(uint32_t first, uint32_t pages) {
        Assign(1, 0, m_leaves, first, first + pages, true);
    }
    // REQUIRES: all of these pages are taken.
    void Give(uint32_t first, uint32_t pages) {
        Assign(1, 0, m_leaves, first, first + pages, false);
    }
    uint32_t LongestRun() const { return m_nodes[1].longest; }
    // Free pages at or after `from`: the first of them, and how many are known to follow it at once
    // (more may). False when there is none. Whole stretches of taken pages are skipped.
    bool NextFree(uint32_t from, uint32_t& first, uint32_t& pages) const;

private:
    struct Node {
        uint32_t left;
        uint32_t right;
        uint32_t longest;
    };

    static void Fill(Node& node, uint32_t width, bool taken) {
        node.left = node.right = node.longest = taken ? 0 : width;
    }
    void Push(uint32_t node, uint32_t width);
    void Pull(uint32_t node, uint32_t width);
    void Assign(uint32_t node, uint32_t low, uint32_t width, uint32_t first, uint32_t end,
                bool taken);

    uint32_t m_pages;
    uint32_t m_leaves;  // m_pages rounded up to a power of two; the pages beyond are taken for good
    std::vector<Node> m_nodes;
};

}  // namespace zemstore
