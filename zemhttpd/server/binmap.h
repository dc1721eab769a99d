// A hash map whose walking order is part of what users see: an entry's bin is its hash modulo the
// number of bins, a new entry goes in front of its bin, and a walk visits the bins from 0. The
// client table and the frame pool's map use it. Not thread-safe: the owner's lock guards it. Nodes
// come in blocks of ten and are reused, so that a map which has been as full before allocates
// nothing.
#pragma once

#include "platform/platform.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

// Traits of a key that is a wide string: exact match, hash times 33 plus unit.
struct CWideKeyTraits {
    static uint32_t Hash(WStringView key) {
        uint32_t hash = 0;
        for (const WCHAR unit : key)
            hash = hash * 33u + unit;
        return hash;
    }
    static bool Equal(WStringView a, WStringView b) { return a == b; }
};

// Traits of a key that is a number; request ids count up, so their low half spreads well.
struct CNumberKeyTraits {
    static uint32_t Hash(ULONGLONG key) { return static_cast<uint32_t>(key); }
    static bool Equal(ULONGLONG a, ULONGLONG b) { return a == b; }
};

template <class Key, class Value, class Traits>
class CBinMap {
public:
    static constexpr size_t kFirstBins = 17;
    static constexpr size_t kNodesPerBlock = 10;

    CBinMap() : m_bins(kFirstBins, nullptr) {}
    ~CBinMap() { Clear(); }
    CBinMap(const CBinMap&) = delete;
    CBinMap& operator=(const CBinMap&) = delete;

    size_t Count() const { return m_count; }
    size_t BinCount() const { return m_bins.size(); }

    // The entry's value, valid until the entry is removed; null when there is none.
    template <class LookupKey>
    Value* Find(const LookupKey& key) {
        Node** link = LinkTo(key);
        return *link ? &(*link)->value : nullptr;
    }

    // Enters the value under the key; an existing entry keeps its place and gets the new value.
    // Throws HRESULT E_OUTOFMEMORY, the map then is as it was.
    void Set(const Key& key, Value value) {
        if (Value* existing = Find(key)) {
            *existing = std::move(value);
            return;
        }
        Node* node = TakeNode(key, std::move(value));
        Push(m_bins, node);
        ++m_count;
        if (m_count * 4 > m_bins.size() * 9) Rehash();  // above 2.25 entries per bin
    }

    // Takes the entry out; false when there was none. `value` receives what the entry held.
    template <class LookupKey>
    bool Remove(const LookupKey& key, Value* value = nullptr) {
        Node** link = LinkTo(key);
        Node* node = *link;
        if (!node) return false;
        if (value) *value = std::move(node->value);
        *link = node->next;
        GiveNode(node);
        ShrinkIfSparse();
        return true;
    }

    // Visits every entry in walking order: visit(const Key&, Value&).
    template <class Visit>
    void ForEach(Visit visit) {
        ForEachWhile([&](const Key& key, Value& value) {
            visit(key, value);
            return true;
        });
    }
    // The same until visit returns false.
    template <class Visit>
    void ForEachWhile(Visit visit) {
        for (Node* node : m_bins) {
            for (; node; node = node->next)
                if (!visit(std::as_const(node->key), node->value)) return;
        }
    }

    // Takes out every entry for which take(const Key&, Value&) is true. No entry moves during the
    // walk.
    template <class Take>
    void RemoveIf(Take take) {
        for (Node*& bin : m_bins) {
            for (Node** link = &bin; *link;) {
                Node* node = *link;
                if (!take(std::as_const(node->key), node->value)) {
                    link = &node->next;
                    continue;
                }
                *link = node->next;
                GiveNode(node);
            }
        }
        ShrinkIfSparse();
    }

    void Clear() {
        RemoveIf([](const Key&, Value&) { return true; });
    }

private:
    struct Node {
        Node* next;
        uint32_t hash;
        Key key;
        Value value;
    };
    union Slot {
        Slot() : free(nullptr) {}
        ~Slot() {}
        Slot* free;
        Node node;
    };
    using Bins = std::vector<Node*>;

    template <class LookupKey>
    Node** LinkTo(const LookupKey& key) {
        const uint32_t hash = Traits::Hash(key);
        Node** link = &m_bins[hash % m_bins.size()];
        while (*link && !((*link)->hash == hash && Traits::Equal((*link)->key, key)))
            link = &(*link)->next;
        return link;
    }

    static void Push(Bins& bins, Node* node) {
        Node*& bin = bins[node->hash % bins.size()];
        node->next = bin;
        bin = node;
    }

    Node* TakeNode(const Key& key, Value value) try {
        if (!m_freeSlots) {
            m_blocks.push_back(std::make_unique<Slot[]>(kNodesPerBlock));
            for (size_t i = 0; i < kNodesPerBlock; ++i)
                FreeSlot(&m_blocks.back()[i]);
        }
        Slot* slot = m_freeSlots;
        Slot* rest = slot->free;
        Node* node = nullptr;
        try {
            node = new (&slot->node) Node{nullptr, Traits::Hash(key), key, std::move(value)};
        } catch (...) {
            slot->free = rest;
            throw;
        }
        m_freeSlots = rest;
        return node;
    } catch (const std::bad_alloc&) {
        throw static_cast<HRESULT>(E_OUTOFMEMORY);
    }

    void GiveNode(Node* node) {
        node->~Node();
        FreeSlot(reinterpret_cast<Slot*>(node));
        --m_count;
    }

    void FreeSlot(Slot* slot) {
        slot->free = m_freeSlots;
        m_freeSlots = slot;
    }

    void ShrinkIfSparse() {
        if (m_count * 4 < m_bins.size() && m_bins.size() > kFirstBins) Rehash();  // below 0.25
    }

    // Aims at 0.75 entries per bin with a prime number of bins. Without memory the old bins stay:
    // slower, not wrong.
    void Rehash() {
        const size_t wanted = PrimeFrom(std::max(kFirstBins, (m_count * 4 + 2) / 3));
        if (wanted == m_bins.size()) return;
        Bins bins;
        try {
            bins.assign(wanted, nullptr);
        } catch (const std::bad_alloc&) {
            return;
        }
        for (Node* node : m_bins) {
            while (node) {
                Node* next = node->next;
                Push(bins, node);
                node = next;
            }
        }
        m_bins.swap(bins);
    }

    static size_t PrimeFrom(size_t number) {
        const auto isPrime = [](size_t n) {
            for (size_t d = 2; d * d <= n; ++d)
                if (n % d == 0) return false;
            return true;
        };
        while (!isPrime(number))
            ++number;
        return number;
    }

    Bins m_bins;
    size_t m_count = 0;
    Slot* m_freeSlots = nullptr;
    std::vector<std::unique_ptr<Slot[]>> m_blocks;
};
