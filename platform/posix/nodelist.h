// A list whose nodes belong to somebody else. Guarded by its owner's lock.
#pragma once

namespace posix {

// Nodes that live elsewhere, in the order in which they came: coming and going needs no memory. A
// node has `before` and `after` for it.
template <class T>
class CNodeList {
public:
    bool Empty() const { return !m_first; }
    T* First() const { return m_first; }
    T* Last() const { return m_last; }
    void Append(T* node) {
        node->before = m_last;
        node->after = nullptr;
        (m_last ? m_last->after : m_first) = node;
        m_last = node;
    }
    void Remove(T* node) {
        (node->before ? node->before->after : m_first) = node->after;
        (node->after ? node->after->before : m_last) = node->before;
    }

private:
    T* m_first = nullptr;
    T* m_last = nullptr;
};

}  // namespace posix
