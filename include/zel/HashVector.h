#pragma once

#include <zel/InvalidIndex.h>
#include <zel/LinearProbingHashTable.h>
#include <zel/Vector.h>

#include <utility>

namespace zel {

/// Pairs in insertion order, found by key. Gives a table whose iteration order is stable from run to run.
/// push_back may move the pairs and invalidates pointers to them.
/// @threads external lock
template <typename Key, typename Value, typename Hash = HashFn<Key>>
class HashVector {
public:
    struct Pair {
        Key key;
        Value value;
    };

    /// Appends the pair, or gives the equal key that is there already the new value in its place.
    Pair* push_back(const Key& key, Value value) {
        if (Pair* found = find(key)) {
            found->value = std::move(value);
            return found;
        }
        Pair& pair = m_pairs.emplace_back(Pair{key, std::move(value)});
        try {
            m_table.insert(pair.key, m_pairs.size() - 1);
        } catch (...) {
            m_pairs.pop_back();
            throw;
        }
        return &pair;
    }

    /// @return null if there is no such key
    [[nodiscard]] Pair* find(const Key& key) {
        const uint64 index = indexOf(key);
        return index == InvalidIndex ? nullptr : &m_pairs[index];
    }
    [[nodiscard]] const Pair* find(const Key& key) const {
        const uint64 index = indexOf(key);
        return index == InvalidIndex ? nullptr : &m_pairs[index];
    }
    [[nodiscard]] bool contains(const Key& key) const { return m_table.contains(key); }
    /// The pair's position in the order of insertion, or InvalidIndex.
    [[nodiscard]] uint64 indexOf(const Key& key) const {
        const auto position = m_table.find(key);
        return position == m_table.end() ? uint64{InvalidIndex} : position->value;
    }

    [[nodiscard]] Pair& operator[](size_t position) { return m_pairs[position]; }
    [[nodiscard]] const Pair& operator[](size_t position) const { return m_pairs[position]; }
    [[nodiscard]] size_t size() const noexcept { return m_pairs.size(); }
    [[nodiscard]] bool empty() const noexcept { return m_pairs.empty(); }
    [[nodiscard]] Pair* begin() { return m_pairs.begin(); }
    [[nodiscard]] Pair* end() { return m_pairs.end(); }
    [[nodiscard]] const Pair* begin() const { return m_pairs.begin(); }
    [[nodiscard]] const Pair* end() const { return m_pairs.end(); }

    void clear() {
        m_pairs.clear();
        m_table.clear();
    }

private:
    Vector<Pair> m_pairs;
    LinearProbingHashTable<Key, uint64, Hash> m_table;
};

} // namespace zel
