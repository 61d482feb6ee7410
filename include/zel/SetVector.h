#pragma once

#include <zel/InvalidIndex.h>
#include <zel/LinearProbingHashTable.h>
#include <zel/Vector.h>

namespace zel {

/// Keys in insertion order, found by hash; each key once. push_back may move the keys and invalidates
/// pointers to them.
/// @threads external lock
template <typename Key, typename Hash = HashFn<Key>>
class SetVector {
public:
    /// Appends the key unless an equal one is there, which is then left as it is.
    /// @return the stored key
    const Key* push_back(const Key& key) {
        const uint64 index = indexOf(key);
        if (index != InvalidIndex)
            return &m_keys[index];
        const Key& stored = m_keys.emplace_back(key);
        try {
            m_table.insert(stored, m_keys.size() - 1);
        } catch (...) {
            m_keys.pop_back();
            throw;
        }
        return &stored;
    }

    [[nodiscard]] bool contains(const Key& key) const { return m_table.contains(key); }
    /// The key's position in the order of insertion, or InvalidIndex.
    [[nodiscard]] uint64 indexOf(const Key& key) const {
        const auto position = m_table.find(key);
        return position == m_table.end() ? uint64{InvalidIndex} : position->value;
    }

    [[nodiscard]] const Key& operator[](size_t position) const { return m_keys[position]; }
    [[nodiscard]] size_t size() const noexcept { return m_keys.size(); }
    [[nodiscard]] bool empty() const noexcept { return m_keys.empty(); }
    [[nodiscard]] const Key* begin() const { return m_keys.begin(); }
    [[nodiscard]] const Key* end() const { return m_keys.end(); }

    void clear() {
        m_keys.clear();
        m_table.clear();
    }

private:
    Vector<Key> m_keys;
    LinearProbingHashTable<Key, uint64, Hash> m_table;
};

} // namespace zel
