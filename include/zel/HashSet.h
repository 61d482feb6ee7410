#pragma once

#include <zel/ByteAllocator.h>
#include <zel/Export.h>
#include <zel/HashFn.h>

#include <cstddef>
#include <iterator>
#include <memory>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

namespace zel {

/// The first value from |n| | 1 upward in steps of two that no integer from 2 to its square root divides.
/// nextPrime(1) is 1.
[[nodiscard]] ZEL_CORE_API int nextPrime(int n);
/// The same for the sizes of tables.
[[nodiscard]] ZEL_CORE_API uint64 nextPrime(uint64 n);

/// The states of a slot in both kinds of hash table.
enum class SlotState : uint8 { Empty = 0, Deleted = 1, Filled = 2 };

namespace detail {
/// Remainders by a fixed divisor without a division (D. Lemire, O. Kaser, N. Kurz, "Faster remainder by
/// direct computation", Software: Practice and Experience 49, 2019), for 32-bit dividends and divisors.
class FastModulo {
public:
    FastModulo() = default;
    explicit FastModulo(uint64 divisor) noexcept
        : m_divisor(divisor), m_magic(divisor < 2 || divisor > 0xFFFFFFFFU ? 0 : ~uint64{0} / divisor + 1) {}

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
/// order, which follows HashFn. Insertion may rebuild the table and invalidates positions and references;
/// erase keeps those of the other keys. Nothing shrinks the table, and deleted slots stay until the next
/// rebuild.
/// @threads external lock
template <typename Key, typename Hash = HashFn<Key>, typename Allocator = ByteAllocator>
class HashSetImplementation {
    /// A key lives in a filled slot alone.
    struct PlainSlot {
        PlainSlot() noexcept {} // NOLINT(modernize-use-equals-default): the union would delete it
        ~PlainSlot() {}         // NOLINT(modernize-use-equals-default): as above
        union {
            Key key;
        };
        SlotState state = SlotState::Empty;
    };
    /// The key's hash lies in what would be padding behind the state: it saves the look at keys that differ,
    /// and a rebuild need not hash again.
    struct HashedSlot {
        HashedSlot() noexcept {} // NOLINT(modernize-use-equals-default): as above
        ~HashedSlot() {}         // NOLINT(modernize-use-equals-default): as above
        union {
            Key key;
        };
        SlotState state = SlotState::Empty;
        uint32 hash = 0;
    };
    static constexpr bool KeepsHash = sizeof(HashedSlot) == sizeof(PlainSlot);
    using Slot = std::conditional_t<KeepsHash, HashedSlot, PlainSlot>;

public:
    /// No key lies at a probe number of this or above.
    static constexpr uint64 ProbeLimit = 11;
    /// A table with fewer than one key in so many slots does not grow for want of a place.
    static constexpr uint64 SparseLoad = 64;

    /// A position in the table: a slot index. Dereferencing gives the key of a filled slot.
    class const_iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = Key;
        using difference_type = std::ptrdiff_t;
        using pointer = const Key*;
        using reference = const Key&;

        const_iterator() = default;
        [[nodiscard]] const Key& operator*() const { return m_set->m_table[m_index].key; }
        [[nodiscard]] const Key* operator->() const { return &**this; }
        const_iterator& operator++() {
            m_index = m_set->nextFilled(m_index + 1);
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
        const_iterator(const HashSetImplementation* set, uint64 index) : m_set(set), m_index(index) {}
        const HashSetImplementation* m_set = nullptr;
        uint64 m_index = 0;
    };
    using iterator = const_iterator;

    HashSetImplementation() = default;
    HashSetImplementation(const HashSetImplementation& other) : HashSetImplementation() { copy(other); }
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
            HashSetImplementation taken(std::move(other));
            swap(taken);
        }
        return *this;
    }
    ~HashSetImplementation() {
        destroyKeys();
        Allocator().deallocateBytes(m_table, slotBytes(m_capacity));
    }

    void swap(HashSetImplementation& other) noexcept {
        std::swap(m_size, other.m_size);
        std::swap(m_capacity, other.m_capacity);
        std::swap(m_table, other.m_table);
        std::swap(m_maxProbeLength, other.m_maxProbeLength);
        std::swap(m_modulo, other.m_modulo);
        std::swap(m_growthSize, other.m_growthSize);
    }

    [[nodiscard]] uint64 size() const noexcept { return m_size; }
    [[nodiscard]] bool empty() const noexcept { return m_size == 0; }
    /// The number of slots; 0 for a table that was never inserted into.
    [[nodiscard]] uint64 capacity() const noexcept { return m_capacity; }
    /// The largest probe number at which a key has been placed since the last rebuild.
    [[nodiscard]] uint16 maxProbeLength() const noexcept { return m_maxProbeLength; }

    [[nodiscard]] const_iterator begin() const { return {this, nextFilled(0)}; }
    [[nodiscard]] const_iterator end() const { return {this, m_capacity}; }

    /// Inserts the key, or overwrites the equal key that is there already.
    /// @return the key's position
    /// @throws std::runtime_error if too many keys have the same or neighbouring hashes, so that no table of
    /// a sensible
    ///     size could part them; the set stays as it is
    const_iterator insert(Key key) {
        const uint32 hash = Hash()(key);
        return insertHashed(std::move(key), hash);
    }

    /// As insert, for a caller that has the key's hash at hand.
    const_iterator insertHashed(Key&& key, uint32 hash) { return insertInto<true>(std::move(key), hash); }

    [[nodiscard]] const_iterator find(const Key& key) const {
        return m_size == 0 ? end() : findHashed(key, Hash()(key));
    }
    template <typename Equal>
    requires detail::TransparentHash<Hash>
    [[nodiscard]] const_iterator find(const Equal& key) const {
        return m_size == 0 ? end() : findHashed(key, Hash()(key));
    }

    /// As find, for a caller that has the key's hash at hand.
    template <typename Equal>
    [[nodiscard]] const_iterator findHashed(const Equal& key, uint32 hash) const {
        if (m_size == 0)
            return end();
        const uint64 home = m_modulo(hash);
        for (uint64 p = 0; p <= m_maxProbeLength; ++p) {
            const uint64 index = probe(home, p);
            const Slot& slot = m_table[index];
            if (slot.state == SlotState::Filled) {
                if (matches(slot, key, hash))
                    return {this, index};
            } else if (slot.state == SlotState::Empty) {
                break;
            }
        }
        return end();
    }

    [[nodiscard]] bool contains(const Key& key) const { return find(key) != end(); }
    template <typename Equal>
    requires detail::TransparentHash<Hash>
    [[nodiscard]] bool contains(const Equal& key) const { return find(key) != end(); }

    /// @return whether the key was there
    bool erase(const Key& key) { return eraseFound(find(key)); }
    template <typename Equal>
    requires(detail::TransparentHash<Hash> &&
             !std::is_same_v<Equal, const_iterator>) bool erase(const Equal& key) {
        return eraseFound(find(key));
    }

    void erase(const_iterator position) {
        Slot& slot = m_table[position.m_index];
        slot.state = SlotState::Deleted;
        --m_size;
        std::destroy_at(&slot.key);
    }

    /// Removes all keys and keeps the slots.
    void clear() {
        destroyKeys();
        for (uint64 i = 0; i < m_capacity; ++i)
            m_table[i].state = SlotState::Empty;
        m_size = 0;
        m_maxProbeLength = 0;
    }

    /// Moves all keys to a fresh table of nextPrime(capacity or 1) slots; deleted slots vanish.
    /// @throws std::runtime_error, as insert, and for more slots than memory can be addressed
    [[gnu::noinline]] void rebuild(uint64 capacity) {
        if (capacity > MaxCapacity)
            throw std::runtime_error("HashSet: memory has no room for " + std::to_string(capacity) +
                                     " slots");
        if constexpr (std::is_trivially_copyable_v<Key>)
            if (copyTo(capacity))
                return;
        // No key is moved before it is certain that there is a place for all.
        verifyPlaces(nextPrime(capacity == 0 ? uint64{1} : capacity));
        moveTo(capacity);
    }

private:
    static constexpr uint64 NoSlot = ~uint64{0};
    /// Slots for 47 bits of addresses.
    static constexpr uint64 MaxCapacity = (uint64{1} << 47) / sizeof(Slot);
    /// How many slots ahead a rebuild fetches the places of the keys.
    static constexpr uint64 PrefetchDistance = 32;

    [[nodiscard]] static uint32 hashOf(const Slot& slot) {
        if constexpr (KeepsHash)
            return slot.hash;
        else
            return Hash()(slot.key);
    }

    template <typename Equal>
    [[nodiscard]] static bool matches(const Slot& slot, const Equal& key, [[maybe_unused]] uint32 hash) {
        if constexpr (KeepsHash)
            return slot.hash == hash && Hash::equal(slot.key, key);
        else
            return Hash::equal(slot.key, key);
    }

    /// Starts to load the slot where a key of another table is going to lie.
    void prefetch(const Slot& other) const {
        if (other.state != SlotState::Filled)
            return;
        const Slot* slot = m_table + m_modulo(hashOf(other));
        __builtin_prefetch(&slot->key, 1);
        __builtin_prefetch(&slot->state, 1);
    }

    [[nodiscard]] static constexpr size_t slotBytes(uint64 capacity) noexcept {
        return detail::byteCount(capacity, sizeof(Slot));
    }

    bool eraseFound(const_iterator position) {
        if (position == end())
            return false;
        erase(position);
        return true;
    }

    [[nodiscard]] uint64 nextFilled(uint64 index) const noexcept {
        while (index < m_capacity && m_table[index].state != SlotState::Filled)
            ++index;
        return index;
    }

    /// (p * p + hash) modulo capacity, from the hash modulo capacity.
    [[nodiscard]] static uint64 probe(uint64 home, uint64 p, uint64 capacity) noexcept {
        uint64 index = home + p * p;
        if (index >= capacity) [[unlikely]] {
            index -= capacity;
            if (index >= capacity)
                index %= capacity;
        }
        return index;
    }
    [[nodiscard]] uint64 probe(uint64 home, uint64 p) const noexcept { return probe(home, p, m_capacity); }

    const_iterator place(uint64 index, uint64 p, Key&& key, [[maybe_unused]] uint32 hash) {
        Slot& slot = m_table[index];
        std::construct_at(&slot.key, std::move(key));
        slot.state = SlotState::Filled;
        if constexpr (KeepsHash)
            slot.hash = hash;
        if (m_maxProbeLength < p)
            m_maxProbeLength = static_cast<uint16>(p);
        ++m_size;
        return {this, index};
    }

    [[nodiscard]] uint64 grownCapacity() const {
        const auto doubled = static_cast<uint64>(2.0F * static_cast<float>(m_capacity + 1));
        return doubled == 0 ? 1 : doubled;
    }

    /// @tparam Refuses  whether to throw rather than to grow a table that is nearly empty
    template <bool Refuses>
    const_iterator insertInto(Key&& key, uint32 hash) {
        for (;;) {
            if (m_size >= m_growthSize) [[unlikely]] {
                if constexpr (Refuses)
                    rebuild(grownCapacity());
                else
                    moveTo(grownCapacity());
            }
            uint64 deleted = NoSlot;
            uint64 deletedProbe = 0;
            const uint64 home = m_modulo(hash);
            for (uint64 p = 0; p < ProbeLimit; ++p) {
                const uint64 index = probe(home, p);
                Slot& slot = m_table[index];
                if (slot.state == SlotState::Empty)
                    return place(index, p, std::move(key), hash);
                if (slot.state == SlotState::Filled) {
                    if (matches(slot, key, hash)) {
                        slot.key = std::move(key);
                        return {this, index};
                    }
                } else if (deleted == NoSlot) {
                    deleted = index;
                    deletedProbe = p;
                }
                // No equal key can lie beyond the longest probe.
                if (deleted != NoSlot && p >= m_maxProbeLength)
                    return place(deleted, deletedProbe, std::move(key), hash);
            }
            const auto doubled = static_cast<uint64>(2.0 * static_cast<double>(m_capacity));
            if constexpr (Refuses) {
                verifyNotSameHash(hash);
                verifyNotSparse(m_capacity);
                rebuild(doubled);
            } else {
                moveTo(doubled);
            }
        }
    }

    /// As moveTo, unless the keys need more than the capacity: all then stays as it is.
    /// @return whether they had places
    [[nodiscard]] bool copyTo(uint64 capacity) {
        HashSetImplementation fresh;
        fresh.allocate(nextPrime(capacity == 0 ? uint64{1} : capacity));
        if (m_size != 0 && m_size - 1 >= fresh.m_growthSize)
            return false;
        for (uint64 i = 0; i < m_capacity; ++i) {
            if (i + PrefetchDistance < m_capacity)
                fresh.prefetch(m_table[i + PrefetchDistance]);
            if (m_table[i].state != SlotState::Filled)
                continue;
            const uint32 hash = hashOf(m_table[i]);
            const uint64 home = fresh.m_modulo(hash);
            uint64 p = 0;
            while (p < ProbeLimit && fresh.m_table[fresh.probe(home, p)].state == SlotState::Filled)
                ++p;
            if (p == ProbeLimit)
                return false;
            fresh.place(fresh.probe(home, p), p, Key(m_table[i].key), hash);
        }
        swap(fresh);
        return true;
    }

    /// Moves the keys into a table of their own of the capacity, or of more if they need more.
    [[gnu::noinline]] void moveTo(uint64 capacity) {
        HashSetImplementation fresh;
        fresh.allocate(nextPrime(capacity == 0 ? uint64{1} : capacity));
        for (uint64 i = 0; i < m_capacity; ++i) {
            if (i + PrefetchDistance < m_capacity)
                fresh.prefetch(m_table[i + PrefetchDistance]);
            Slot& slot = m_table[i];
            if (slot.state != SlotState::Filled)
                continue;
            fresh.template insertInto<false>(std::move(slot.key), hashOf(slot));
            if constexpr (std::is_nothrow_move_constructible_v<Key>) { // nothing can ask for the old key back
                slot.state = SlotState::Deleted;
                --m_size;
                std::destroy_at(&slot.key);
            }
        }
        swap(fresh);
    }

    /// Verifies that the capacity, or one of its doubles, has a place for each key.
    void verifyPlaces(uint64 capacity) const {
        while (!hasPlaces(capacity)) {
            verifyNotSparse(capacity);
            capacity = nextPrime(2 * capacity);
        }
    }

    /// Whether an empty table of the capacity takes all keys in their present order.
    [[nodiscard]] bool hasPlaces(uint64 capacity) const {
        if (m_size == 0)
            return true;
        const detail::FastModulo modulo(capacity);
        std::vector<bool> filled(capacity);
        for (uint64 i = 0; i < m_capacity; ++i) {
            if (m_table[i].state != SlotState::Filled)
                continue;
            const uint64 home = modulo(hashOf(m_table[i]));
            uint64 p = 0;
            while (p < ProbeLimit && filled[probe(home, p, capacity)])
                ++p;
            if (p == ProbeLimit)
                return false;
            filled[probe(home, p, capacity)] = true;
        }
        return true;
    }

    /// Keys of one hash have the same places in a table of any size: to grow would not help.
    void verifyNotSameHash(uint32 hash) const {
        if (m_capacity <= (ProbeLimit - 1) * (ProbeLimit - 1))
            return; // the places may coincide
        const uint64 home = m_modulo(hash);
        for (uint64 p = 0; p < ProbeLimit; ++p)
            if (hashOf(m_table[probe(home, p)]) != hash)
                return;
        throw std::runtime_error("HashSet: more than " + std::to_string(ProbeLimit) +
                                 " keys have the same hash, and no table has a place for the next");
    }

    /// Where hashes are spread, a table this empty has a place for any key. Where they are not, as those of
    /// texts made for the purpose, it would grow until memory runs out.
    void verifyNotSparse(uint64 capacity) const {
        if (m_size < capacity / SparseLoad)
            throw std::runtime_error(
                "HashSet: no place for a key among " + std::to_string(m_size) + " in " +
                std::to_string(capacity) +
                " slots, since the hashes of too many are the same or next to each other");
    }

    void allocate(uint64 capacity) {
        m_table = static_cast<Slot*>(
            Allocator().allocateBytes(slotBytes(capacity), alignof(Slot) > 16 ? alignof(Slot) : 16));
        std::uninitialized_default_construct_n(m_table, capacity);
        m_capacity = capacity;
        m_modulo = detail::FastModulo(capacity);
        m_growthSize = static_cast<uint64>(static_cast<double>(static_cast<float>(capacity)) * 0.8);
    }

    void destroyKeys() noexcept {
        if (std::is_trivially_destructible_v<Key> || m_size == 0)
            return;
        for (uint64 i = nextFilled(0); i < m_capacity; i = nextFilled(i + 1))
            std::destroy_at(&m_table[i].key);
    }

    void copy(const HashSetImplementation& other) {
        if (other.m_capacity == 0)
            return;
        allocate(other.m_capacity);
        for (uint64 i = 0; i < m_capacity; ++i) {
            const Slot& from = other.m_table[i];
            Slot& to = m_table[i];
            if (from.state == SlotState::Filled) {
                std::construct_at(&to.key, from.key);
                ++m_size; // one by one: the destructor clears up behind a copy that throws
            }
            to.state = from.state;
            if constexpr (KeepsHash)
                to.hash = from.hash;
        }
        m_maxProbeLength = other.m_maxProbeLength;
    }

    uint64 m_size = 0;
    uint64 m_capacity = 0;
    Slot* m_table = nullptr;
    uint16 m_maxProbeLength = 0;
    // Both follow from the capacity.
    detail::FastModulo m_modulo;
    uint64 m_growthSize = 0; // an insertion that finds this many keys grows the table first
};

template <typename Key, typename Hash = HashFn<Key>, typename Allocator = ByteAllocator>
class HashSet : public HashSetImplementation<Key, Hash, Allocator> {};

} // namespace zel
