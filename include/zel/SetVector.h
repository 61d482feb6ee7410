#pragma once

#include <zel/LinearProbingHashTable.h>
#include <zel/Vector.h>

namespace zel {

/// Keys in insertion order, found by hash; each key once. push_back may move the keys and invalidates pointers.
/// @threads external lock
template <typename Key, typename Hash = HashFn<Key>>
class SetVector {
public:
    /// Appends the key unless an equal one is there.
    /// @return the stored key
    Key* push_back(const Key& key) {
        const auto position = m_table.find(key);
        if (position != m_table.end())
            return &(m_keys[position->value] = key);
        m_table.insert(key, m_keys.size());
        return &m_keys.emplace_back(key);
    }

    [[nodiscard]] bool contains(const Key& key) const { return m_table.contains(key); }
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
