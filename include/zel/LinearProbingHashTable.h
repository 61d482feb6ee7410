#pragma once

#include <zel/ByteAllocator.h>
#include <zel/HashFn.h>
#include <zel/HashSet.h>

#include <cstddef>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace zel {

/// A hash table of power-of-two size with linear probing, at most two thirds full. Iteration goes by slot
/// order, which follows HashFn. Insertion may rebuild the table and invalidates positions; erase keeps them.
/// @threads external lock
template <typename Key, typename Value, typename Hash = HashFn<Key>, typename Allocator = ByteAllocator>
class LinearProbingHashTableImplementation {
public:
    struct Entry {
        Key key;
        Value value;
    };

    template <bool Const>
    class Iterator {
        using Table = std::conditional_t<Const,
                                         const LinearProbingHashTableImplementation,
                                         LinearProbingHashTableImplementation>;

    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = Entry;
        using difference_type = std::ptrdiff_t;
        using pointer = std::conditional_t<Const, const Entry*, Entry*>;
        using reference = std::conditional_t<Const, const Entry&, Entry&>;

        Iterator() = default;
        operator Iterator<true>() const { return {m_table, m_index}; }
        [[nodiscard]] reference operator*() const { return m_table->m_entries[m_index]; }
        [[nodiscard]] pointer operator->() const { return m_table->m_entries + m_index; }
        Iterator& operator++() {
            m_index = m_table->nextFilled(m_index + 1);
            return *this;
        }
        Iterator operator++(int) {
            Iterator old = *this;
            ++*this;
            return old;
        }
        [[nodiscard]] uint64 index() const noexcept { return m_index; }
        friend bool operator==(const Iterator& a, const Iterator& b) { return a.m_index == b.m_index; }

    private:
        friend class LinearProbingHashTableImplementation;
        Iterator(Table* table, uint64 index) : m_table(table), m_index(index) {}
        Table* m_table = nullptr;
        uint64 m_index = 0;
    };
    using iterator = Iterator<false>;
    using const_iterator = Iterator<true>;

    LinearProbingHashTableImplementation() = default;
    LinearProbingHashTableImplementation(const LinearProbingHashTableImplementation& other)
        : LinearProbingHashTableImplementation() {
        copy(other);
    }
    LinearProbingHashTableImplementation(LinearProbingHashTableImplementation&& other) noexcept {
        swap(other);
    }
    LinearProbingHashTableImplementation& operator=(const LinearProbingHashTableImplementation& other) {
        if (this != &other) {
            LinearProbingHashTableImplementation fresh(other);
            swap(fresh);
        }
        return *this;
    }
    LinearProbingHashTableImplementation& operator=(LinearProbingHashTableImplementation&& other) noexcept {
        if (this != &other) {
            LinearProbingHashTableImplementation taken(std::move(other));
            swap(taken);
        }
        return *this;
    }
    ~LinearProbingHashTableImplementation() { release(); }

    void swap(LinearProbingHashTableImplementation& other) noexcept {
        std::swap(m_minimumCapacity, other.m_minimumCapacity);
        std::swap(m_growthFactor, other.m_growthFactor);
        std::swap(m_minimumLoad, other.m_minimumLoad);
        std::swap(m_maximumLoad, other.m_maximumLoad);
        std::swap(m_states, other.m_states);
        std::swap(m_entries, other.m_entries);
        std::swap(m_capacity, other.m_capacity);
        std::swap(m_size, other.m_size);
        std::swap(m_maxProbeLength, other.m_maxProbeLength);
        std::swap(m_mask, other.m_mask);
        std::swap(m_hashes, other.m_hashes);
    }

    [[nodiscard]] uint64 size() const noexcept { return m_size; }
    [[nodiscard]] bool empty() const noexcept { return m_size == 0; }
    /// The number of slots: 0 before the first insertion.
    [[nodiscard]] uint64 capacity() const noexcept { return m_capacity; }
    /// The largest probe number at which a pair has been placed since the last rebuild; -1 for an empty
    /// table.
    [[nodiscard]] int32 maxProbeLength() const noexcept { return m_maxProbeLength; }

    [[nodiscard]] iterator begin() { return {this, nextFilled(0)}; }
    [[nodiscard]] const_iterator begin() const { return {this, nextFilled(0)}; }
    [[nodiscard]] iterator end() { return {this, m_capacity}; }
    [[nodiscard]] const_iterator end() const { return {this, m_capacity}; }

    /// Inserts the pair, or gives the equal key that is there already the new value.
    /// @return the pair's position
    /// @throws std::bad_alloc if the allocator gives null
    iterator insert(Key key, Value value) {
        const uint64 needed = m_size + ((m_size + 1) >> 1) + 2;
        if (m_capacity < needed) [[unlikely]]
            rehash(slotsFor(needed));
        return insertWithin(std::move(key), std::move(value));
    }

    /// Inserts the pair unless an equal key is there, whose value is then left as it is.
    /// @return the position of the key, and whether the pair is new
    /// @throws std::bad_alloc if the allocator gives null
    std::pair<iterator, bool> tryInsert(Key key, Value value) {
        const uint64 oldSize = m_size;
        const uint64 needed = m_size + ((m_size + 1) >> 1) + 2;
        if (m_capacity < needed) [[unlikely]]
            rehash(slotsFor(needed));
        const iterator position = insertWithin<false>(std::move(key), std::move(value));
        return {position, m_size != oldSize};
    }

    [[nodiscard]] iterator find(const Key& key) { return {this, indexOf(key)}; }
    [[nodiscard]] const_iterator find(const Key& key) const { return {this, indexOf(key)}; }
    template <typename Equal>
    requires detail::TransparentHash<Hash>
    [[nodiscard]] iterator find(const Equal& key) { return {this, indexOf(key)}; }
    template <typename Equal>
    requires detail::TransparentHash<Hash>
    [[nodiscard]] const_iterator find(const Equal& key) const { return {this, indexOf(key)}; }

    [[nodiscard]] bool contains(const Key& key) const { return indexOf(key) != m_capacity; }
    template <typename Equal>
    requires detail::TransparentHash<Hash>
    [[nodiscard]] bool contains(const Equal& key) const { return indexOf(key) != m_capacity; }

    /// @return whether the key was there
    bool erase(const Key& key) { return eraseAt(indexOf(key)); }
    template <typename Equal>
    requires(detail::TransparentHash<Hash> && !std::is_same_v<Equal, iterator> &&
             !std::is_same_v<Equal, const_iterator>) bool erase(const Equal& key) {
        return eraseAt(indexOf(key));
    }

    void erase(const_iterator position) {
        m_states[position.m_index] = SlotState::Deleted;
        --m_size;
        std::destroy_at(m_entries + position.m_index);
    }

    /// Removes all pairs and keeps the slots.
    void clear() {
        destroyEntries();
        if (m_capacity != 0)
            std::memset(m_states, 0, m_capacity);
        m_size = 0;
        m_maxProbeLength = -1;
    }

    /// Throws all content away and makes room for n pairs.
    /// @throws std::bad_alloc if there is no room for so many; the table is then empty
    void clearResize(uint64 n) {
        release();
        uint64 needed = 0;
        if (__builtin_add_overflow(n, (n >> 1) + 1, &needed))
            throw std::bad_alloc();
        allocate(slotsFor(needed));
    }

private:
    bool eraseAt(uint64 index) {
        if (index == m_capacity)
            return false;
        erase(const_iterator(this, index));
        return true;
    }

    [[nodiscard]] uint64 slot(uint32 hash, uint64 i) const noexcept {
        return static_cast<uint32>(static_cast<uint32>(i) + hash) & m_mask;
    }

    [[nodiscard]] uint64 slotsFor(uint64 needed) const {
        uint64 capacity = m_minimumCapacity;
        while (capacity < needed)
            if (__builtin_mul_overflow(capacity, m_growthFactor, &capacity))
                throw std::bad_alloc();
        return capacity;
    }

    [[nodiscard]] uint64 nextFilled(uint64 index) const noexcept {
        while (index < m_capacity && m_states[index] != SlotState::Filled)
            ++index;
        return index;
    }

    template <typename Equal>
    [[nodiscard]] uint64 indexOf(const Equal& key) const {
        if (m_size == 0)
            return m_capacity;
        const uint32 hash = Hash()(key);
        for (int64 i = 0; i <= m_maxProbeLength; ++i) {
            const uint64 index = slot(hash, static_cast<uint64>(i));
            if (m_states[index] == SlotState::Filled) {
                if (matches(index, key, hash))
                    return index;
            } else if (m_states[index] == SlotState::Empty) {
                break;
            }
        }
        return m_capacity;
    }

    template <typename Equal>
    [[nodiscard]] bool matches(uint64 index, const Equal& key, [[maybe_unused]] uint32 hash) const {
        if constexpr (KeepsHashes)
            return m_hashes[index] == hash && Hash::equal(m_entries[index].key, key);
        else
            return Hash::equal(m_entries[index].key, key);
    }

    /// Insertion into a table that has room.
    /// @tparam Replaces  whether an equal key gets the new value
    template <bool Replaces = true>
    iterator insertWithin(Key&& key, Value&& value) {
        const uint32 hash = Hash()(key);
        int64 i = 0;
        int64 deleted = -1;
        for (; i <= m_maxProbeLength; ++i) {
            const uint64 index = slot(hash, static_cast<uint64>(i));
            if (m_states[index] == SlotState::Filled) {
                if (matches(index, key, hash)) {
                    if constexpr (Replaces)
                        m_entries[index].value = std::move(value);
                    return {this, index};
                }
            } else if (m_states[index] == SlotState::Empty) {
                // The first free slot of the chain: a deleted one ahead of it stays for a longer search.
                return place(index, std::move(key), std::move(value), hash);
            } else if (deleted < 0) {
                deleted = i;
            }
        }
        if (deleted < 0) {
            while (m_states[slot(hash, static_cast<uint64>(i))] == SlotState::Filled)
                ++i;
            m_maxProbeLength = static_cast<int32>(i);
            deleted = i;
        }
        return place(slot(hash, static_cast<uint64>(deleted)), std::move(key), std::move(value), hash);
    }

    /// Insertion of a key that is not there into a table that has room and no deleted slots.
    void insertNew(Key&& key, Value&& value, uint32 hash) {
        uint64 i = 0;
        while (m_states[slot(hash, i)] == SlotState::Filled)
            ++i;
        if (m_maxProbeLength < static_cast<int64>(i))
            m_maxProbeLength = static_cast<int32>(i);
        place(slot(hash, i), std::move(key), std::move(value), hash);
    }

    iterator place(uint64 index, Key&& key, Value&& value, [[maybe_unused]] uint32 hash) {
        ::new (static_cast<void*>(m_entries + index)) Entry{std::move(key), std::move(value)};
        m_states[index] = SlotState::Filled;
        if constexpr (KeepsHashes)
            m_hashes[index] = hash;
        ++m_size;
        return {this, index};
    }

    [[nodiscard]] uint32 hashAt(uint64 index) const {
        if constexpr (KeepsHashes)
            return m_hashes[index];
        else
            return Hash()(m_entries[index].key);
    }

    [[gnu::noinline]] void rehash(uint64 capacity) {
        LinearProbingHashTableImplementation fresh;
        fresh.copySettings(*this);
        fresh.allocate(capacity);
        for (uint64 i = nextFilled(0); i < m_capacity; i = nextFilled(i + 1))
            fresh.insertNew(std::move(m_entries[i].key), std::move(m_entries[i].value), hashAt(i));
        swap(fresh);
    }

    void copySettings(const LinearProbingHashTableImplementation& other) noexcept {
        m_minimumCapacity = other.m_minimumCapacity;
        m_growthFactor = other.m_growthFactor;
        m_minimumLoad = other.m_minimumLoad;
        m_maximumLoad = other.m_maximumLoad;
    }

    void allocate(uint64 capacity) {
        Allocator allocator;
        void* states = allocator.allocateBytes(stateBytes(capacity), 16);
        void* entries = allocator.allocateBytes(entryBytes(capacity), entryAlignment());
        if (states == nullptr || entries == nullptr) {
            allocator.deallocateBytes(states, stateBytes(capacity));
            allocator.deallocateBytes(entries, entryBytes(capacity));
            throw std::bad_alloc();
        }
        std::memset(states, 0, capacity);
        m_states = static_cast<SlotState*>(states);
        m_entries = static_cast<Entry*>(entries);
        if constexpr (KeepsHashes)
            m_hashes = reinterpret_cast<uint32*>(m_states + capacity);
        m_capacity = capacity;
        m_mask = capacity - 1;
        m_maxProbeLength = -1;
    }

    void destroyEntries() noexcept {
        if constexpr (!std::is_trivially_destructible_v<Entry>)
            for (uint64 i = nextFilled(0); i < m_capacity; i = nextFilled(i + 1))
                std::destroy_at(m_entries + i);
    }

    void release() noexcept {
        if (m_capacity == 0)
            return;
        destroyEntries();
        Allocator allocator;
        allocator.deallocateBytes(m_states, stateBytes(m_capacity));
        allocator.deallocateBytes(m_entries, entryBytes(m_capacity));
        m_states = nullptr;
        m_entries = nullptr;
        m_hashes = nullptr;
        m_capacity = m_size = m_mask = 0;
        m_maxProbeLength = -1;
    }

    void copy(const LinearProbingHashTableImplementation& other) {
        copySettings(other);
        if (other.m_capacity == 0)
            return;
        allocate(other.m_capacity);
        for (uint64 i = 0; i < m_capacity; ++i) {
            if (other.m_states[i] == SlotState::Filled)
                ::new (static_cast<void*>(m_entries + i)) Entry(other.m_entries[i]);
            m_states[i] = other.m_states[i];
            if constexpr (KeepsHashes)
                m_hashes[i] = other.m_hashes[i];
        }
        m_size = other.m_size;
        m_maxProbeLength = other.m_maxProbeLength;
    }

    static constexpr bool KeepsHashes = detail::CostlyHash<Hash>;

    static constexpr size_t stateBytes(uint64 capacity) noexcept {
        return detail::byteCount(capacity, sizeof(SlotState) + (KeepsHashes ? sizeof(uint32) : 0));
    }
    static constexpr size_t entryBytes(uint64 capacity) noexcept {
        return detail::byteCount(capacity, sizeof(Entry));
    }
    static constexpr size_t entryAlignment() { return alignof(Entry) > 16 ? alignof(Entry) : 16; }

    uint64 m_minimumCapacity = 4;
    uint64 m_growthFactor = 2;
    // Carried with the table; the growth rule does not read them.
    float m_minimumLoad = 0.25F;
    float m_maximumLoad = 0.8F;
    SlotState* m_states = nullptr;
    Entry* m_entries = nullptr;
    uint64 m_capacity = 0;
    uint64 m_size = 0;
    int32 m_maxProbeLength = -1;
    uint64 m_mask = 0;
    /// The hashes of the filled slots, in one block with the states, if hashing is costly; else null.
    uint32* m_hashes = nullptr;
};

template <typename Key, typename Value, typename Hash = HashFn<Key>, typename Allocator = ByteAllocator>
class LinearProbingHashTable : public LinearProbingHashTableImplementation<Key, Value, Hash, Allocator> {};

} // namespace zel
