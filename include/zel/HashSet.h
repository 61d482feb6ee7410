#pragma once

#include <zel/ByteAllocator.h>
#include <zel/Export.h>
#include <zel/HashFn.h>

#include <cstddef>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <new>
#include <utility>

namespace zel {

/// The first value from |n| | 1 upward in steps of two that no integer from 2 to its square root divides.
/// nextPrime(1) is 1.
[[nodiscard]] ZEL_CORE_API int nextPrime(int n);
/// The same for the sizes of tables.
[[nodiscard]] ZEL_CORE_API uint64 nextPrime(uint64 n);

/// The states of a slot in both kinds of hash table.
enum class SlotState : uint8 { Empty = 0, Deleted = 1, Filled = 2 };

namespace detail {
/// Remainders by a fixed divisor without a division (D. Lemire, O. Kaser, N. Kurz, "Faster remainder by direct
/// computation", Software: Practice and Experience 49, 2019), for 32-bit dividends and divisors.
class FastModulo {
public:
    FastModulo() = default;
    explicit FastModulo(uint64 divisor) noexcept
        : m_divisor(divisor)
        , m_magic(divisor < 2 || divisor > 0xFFFFFFFFU ? 0 : ~uint64{0} / divisor + 1) {}

    [[nodiscard]] uint64 operator()(uint32 value) const noexcept {
        if (m_magic == 0) [[unlikely]]
            return m_divisor < 2 ? 0 : value;
        __extension__ using uint128 = unsigned __int128;
        return static_cast<uint64>((static_cast<uint128>(m_magic * value) * m_divisor) >> 64);
    }

private:
    uint64 m_divisor = 0;
    uint64 m_magic = 0;
};
} // namespace detail

/// A hash set of prime size with quadratic probing: a look-up visits at most 11 slots. Iteration goes by slot
/// order, which follows HashFn. Insertion may rebuild the table and invalidates positions; erase keeps them.
/// @threads external lock
template <typename Key, typename Hash = HashFn<Key>, typename Allocator = ByteAllocator>
class HashSetImplementation {
    struct Slot {
        Key key;
        SlotState state;
    };

public:
    /// No key lies at a probe number of this or above.
    static constexpr uint64 ProbeLimit = 11;

    /// A position in the table: a slot index. Dereferencing gives the key of a filled slot.
    class const_iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = Key;
        using difference_type = std::ptrdiff_t;
        using pointer = const Key*;
        using reference = const Key&;

        const_iterator() = default;
        [[nodiscard]] const Key& operator*() const { return m_slots[m_index].key; }
        [[nodiscard]] const Key* operator->() const { return &m_slots[m_index].key; }
        const_iterator& operator++() {
            ++m_index;
            skip();
            return *this;
        }
        const_iterator operator++(int) {
            const_iterator old = *this;
            ++*this;
            return old;
        }
        [[nodiscard]] uint64 index() const noexcept { return m_index; }
        friend bool operator==(const const_iterator& a, const const_iterator& b) {
            return a.m_index == b.m_index;
        }

    private:
        friend class HashSetImplementation;
        const_iterator(const Slot* slots, uint64 index, uint64 capacity)
            : m_slots(slots)
            , m_index(index)
            , m_capacity(capacity) {}
        void skip() {
            while (m_index < m_capacity && m_slots[m_index].state != SlotState::Filled)
                ++m_index;
        }
        const Slot* m_slots = nullptr;
        uint64 m_index = 0;
        uint64 m_capacity = 0;
    };
    using iterator = const_iterator;

    HashSetImplementation() = default;
    HashSetImplementation(const HashSetImplementation& other) { copy(other); }
    HashSetImplementation(HashSetImplementation&& other) noexcept { swap(other); }
    HashSetImplementation& operator=(const HashSetImplementation& other) {
        if (this != &other) {
            HashSetImplementation fresh(other);
            swap(fresh);
        }
        return *this;
    }
    HashSetImplementation& operator=(HashSetImplementation&& other) noexcept {
        if (this != &other) {
            release();
            swap(other);
        }
        return *this;
    }
    ~HashSetImplementation() { release(); }

    void swap(HashSetImplementation& other) noexcept {
        std::swap(m_size, other.m_size);
        std::swap(m_capacity, other.m_capacity);
        std::swap(m_table, other.m_table);
        std::swap(m_maxProbeLength, other.m_maxProbeLength);
        std::swap(m_modulo, other.m_modulo);
    }

    [[nodiscard]] uint64 size() const noexcept { return m_size; }
    [[nodiscard]] bool empty() const noexcept { return m_size == 0; }
    /// The number of slots; 0 for a table that was never inserted into.
    [[nodiscard]] uint64 capacity() const noexcept { return m_capacity; }
    /// The largest probe number at which a key has been placed since the last rebuild.
    [[nodiscard]] uint16 maxProbeLength() const noexcept { return m_maxProbeLength; }

    [[nodiscard]] const_iterator begin() const {
        const_iterator position(m_table, 0, m_capacity);
        position.skip();
        return position;
    }
    [[nodiscard]] const_iterator end() const { return at(m_capacity); }

    /// Inserts the key, or overwrites the equal key that is there already.
    /// @return the key's position
    const_iterator insert(Key key) {
        const uint32 hash = Hash()(key);
        for (;;) {
            growIfFull();
            uint64 deleted = m_capacity;
            uint64 deletedProbe = 0;
            const uint64 home = m_modulo(hash);
            for (uint64 p = 0; p < ProbeLimit; ++p) {
                const uint64 index = probe(home, p);
                Slot& slot = m_table[index];
                if (slot.state == SlotState::Empty)
                    return place(slot, index, p, std::move(key));
                if (slot.state == SlotState::Filled) {
                    if (Hash::equal(slot.key, key)) {
                        slot.key = std::move(key);
                        return at(index);
                    }
                } else if (deleted == m_capacity) {
                    deleted = index;
                    deletedProbe = p;
                }
                // No equal key can lie beyond the longest probe.
                if (deleted != m_capacity && p >= m_maxProbeLength)
                    return place(m_table[deleted], deleted, deletedProbe, std::move(key));
            }
            rebuild(static_cast<uint64>(2.0 * static_cast<double>(m_capacity)));
        }
    }

    template <typename Equal>
    [[nodiscard]] const_iterator find(const Equal& key) const {
        if (m_size == 0)
            return end();
        const uint64 home = m_modulo(Hash()(key));
        for (uint64 p = 0; p <= m_maxProbeLength; ++p) {
            const uint64 index = probe(home, p);
            const Slot& slot = m_table[index];
            if (slot.state == SlotState::Filled) {
                if (Hash::equal(slot.key, key))
                    return at(index);
            } else if (slot.state == SlotState::Empty) {
                break;
            }
        }
        return end();
    }

    template <typename Equal>
    [[nodiscard]] bool contains(const Equal& key) const {
        return find(key) != end();
    }

    /// @return whether the key was there
    template <typename Equal>
        requires(!std::is_same_v<Equal, const_iterator>)
    bool erase(const Equal& key) {
        const const_iterator position = find(key);
        if (position == end())
            return false;
        erase(position);
        return true;
    }

    void erase(const_iterator position) {
        Slot& slot = m_table[position.m_index];
        slot.state = SlotState::Deleted;
        slot.key = Key();
        --m_size;
    }

    /// Removes all keys and keeps the slots.
    void clear() {
        for (uint64 i = 0; i < m_capacity; ++i) {
            if (m_table[i].state == SlotState::Filled)
                m_table[i].key = Key();
            m_table[i].state = SlotState::Empty;
        }
        m_size = 0;
        m_maxProbeLength = 0;
    }

    /// Moves all keys to a fresh table of nextPrime(capacity or 1) slots; deleted slots vanish.
    void rebuild(uint64 capacity) {
        HashSetImplementation old;
        swap(old);
        allocate(nextPrime(capacity == 0 ? uint64{1} : capacity));
        for (uint64 i = 0; i < old.m_capacity; ++i)
            if (old.m_table[i].state == SlotState::Filled)
                insert(std::move(old.m_table[i].key));
    }

private:
    [[nodiscard]] const_iterator at(uint64 index) const { return {m_table, index, m_capacity}; }

    /// (p * p + hash) modulo capacity, from the hash modulo capacity.
    [[nodiscard]] uint64 probe(uint64 home, uint64 p) const noexcept {
        uint64 index = home + p * p;
        if (index >= m_capacity) {
            index -= m_capacity;
            if (index >= m_capacity) [[unlikely]]
                index %= m_capacity;
        }
        return index;
    }

    const_iterator place(Slot& slot, uint64 index, uint64 p, Key&& key) {
        slot.key = std::move(key);
        slot.state = SlotState::Filled;
        if (m_maxProbeLength < p)
            m_maxProbeLength = static_cast<uint16>(p);
        ++m_size;
        return at(index);
    }

    void growIfFull() {
        const auto threshold = static_cast<uint64>(static_cast<double>(static_cast<float>(m_capacity)) * 0.8);
        if (m_size < threshold)
            return;
        const auto doubled = static_cast<uint64>(2.0F * static_cast<float>(m_capacity + 1));
        rebuild(doubled == 0 ? 1 : doubled);
    }

    void allocate(uint64 capacity) {
        m_table = static_cast<Slot*>(
            Allocator().allocateBytes(detail::byteCount(capacity, sizeof(Slot)), slotAlignment()));
        m_capacity = capacity;
        m_modulo = detail::FastModulo(capacity);
        for (uint64 i = 0; i < capacity; ++i)
            ::new (static_cast<void*>(m_table + i)) Slot{Key(), SlotState::Empty};
    }

    void release() noexcept {
        if (m_table == nullptr)
            return;
        std::destroy_n(m_table, m_capacity);
        Allocator().deallocateBytes(m_table, detail::byteCount(m_capacity, sizeof(Slot)));
        m_table = nullptr;
        m_size = m_capacity = 0;
        m_maxProbeLength = 0;
    }

    void copy(const HashSetImplementation& other) {
        if (other.m_capacity == 0)
            return;
        allocate(other.m_capacity);
        for (uint64 i = 0; i < m_capacity; ++i)
            m_table[i] = other.m_table[i];
        m_size = other.m_size;
        m_maxProbeLength = other.m_maxProbeLength;
    }

    static constexpr size_t slotAlignment() { return alignof(Slot) > 16 ? alignof(Slot) : 16; }

    uint64 m_size = 0;
    uint64 m_capacity = 0;
    Slot* m_table = nullptr;
    uint16 m_maxProbeLength = 0;
    detail::FastModulo m_modulo;
};

template <typename Key, typename Hash = HashFn<Key>, typename Allocator = ByteAllocator>
class HashSet : public HashSetImplementation<Key, Hash, Allocator> {};

} // namespace zel
