#pragma once

#include <zel/Component.h>
#include <zel/Export.h>
#include <zel/HashFn.h>
#include <zel/Integers.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelData/Buffer.h>
#include <zelData/BufferProxyAllocator.h>
#include <zelData/ValueT.h>

#include <algorithm>
#include <type_traits>

namespace zel {

/// A hash table that tasks and journals see: its buckets lie in a buffer, "buckets", as opaque structs; the
/// values "numFilled" and "maxProbeLength" tell how many are in use and how far a search must go.
///
///     bucket = key, value, state (32 bits: 0 empty, 1 in use, 2 deleted)     aligned as in a C++ struct
/// @threads as Component
class ZEL_CORE_API AbstractHashTableComponent : public Component {
public:
    static constexpr uint32 Empty = 0;
    static constexpr uint32 Filled = 1;
    static constexpr uint32 Deleted = 2;

    /// @param bucketSize  in bytes
    AbstractHashTableComponent(const Name& name, uint64 bucketSize, Device* device = nullptr);

    [[nodiscard]] uint64 getNumFilled() const { return m_numFilled->get(); }
    [[nodiscard]] uint64 getMaxProbeLength() const { return m_maxProbeLength->get(); }
    [[nodiscard]] zelData::Buffer* getBuckets() const noexcept { return m_buckets.get(); }

    [[nodiscard]] static Model* ClassModel();
    /// Makes a table from an element of the tag "Parameter.HashTable".
    /// @return a new table without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static AbstractHashTableComponent* load(TiXmlElement* element, Device* device);

protected:
    ref_ptr<zelData::ValueT<uint64>> m_numFilled;
    ref_ptr<zelData::ValueT<uint64>> m_maxProbeLength;
    ref_ptr<zelData::Buffer> m_buckets;
};

/// The table with keys and values of given classes. Linear probing over a power of two of buckets, at most
/// two thirds of which have been used. What is changed shows in the values and the buffer after commit().
template <typename Key, typename Value, typename Hash = HashFn<Key>>
class HashTableComponent : public AbstractHashTableComponent {
    static_assert(std::is_trivially_copyable_v<Key> && std::is_trivially_copyable_v<Value>);

public:
    struct Bucket {
        Key key;
        Value value;
        uint32 state;
    };

    explicit HashTableComponent(const Name& name, Device* device = nullptr)
        : AbstractHashTableComponent(name, sizeof(Bucket), device) {
        m_table.allocator().setBuffer(m_buckets.get());
    }

    [[nodiscard]] size_t size() const noexcept { return m_size; }
    [[nodiscard]] bool empty() const noexcept { return m_size == 0; }

    /// Inserts the pair, or gives the key that is there already the new value.
    void insert(const Key& key, const Value& value) {
        if (Value* present = find(key)) {
            *present = value;
            return;
        }
        if (3 * (m_used + 1) > 2 * m_table.size())
            rebuild();
        place({key, value, Filled});
        ++m_size;
    }

    /// @return the key's value, until the next insertion; null without one
    [[nodiscard]] Value* find(const Key& key) {
        Bucket* bucket = findBucket(key);
        return bucket == nullptr ? nullptr : &bucket->value;
    }
    [[nodiscard]] bool contains(const Key& key) { return findBucket(key) != nullptr; }

    /// @return whether the key was there
    bool erase(const Key& key) {
        Bucket* bucket = findBucket(key);
        if (bucket == nullptr)
            return false;
        bucket->state = Deleted;
        --m_size;
        return true;
    }

    /// Removes all pairs and keeps the buckets.
    void clear() {
        for (Bucket& bucket : m_table)
            bucket.state = Empty;
        m_size = m_used = m_longestProbe = 0;
    }

    /// Announces what has changed.
    void commit() {
        m_table.allocator().commit();
        m_numFilled->set(m_size);
        m_maxProbeLength->set(m_longestProbe);
    }

private:
    static constexpr size_t MinimumBuckets = 8;

    [[nodiscard]] Bucket* findBucket(const Key& key) {
        if (m_size == 0)
            return nullptr;
        const size_t mask = m_table.size() - 1;
        const size_t hash = Hash()(key);
        for (size_t i = 0; i <= m_longestProbe; ++i) {
            Bucket& bucket = m_table[(hash + i) & mask];
            if (bucket.state == Empty)
                return nullptr;
            if (bucket.state == Filled && Hash::equal(bucket.key, key))
                return &bucket;
        }
        return nullptr;
    }

    /// Puts a pair whose key is not there into the first bucket that was never used.
    void place(const Bucket& pair) {
        const size_t mask = m_table.size() - 1;
        const size_t hash = Hash()(pair.key);
        size_t i = 0;
        while (m_table[(hash + i) & mask].state != Empty)
            ++i;
        m_table[(hash + i) & mask] = pair;
        m_longestProbe = std::max(m_longestProbe, i);
        ++m_used;
    }

    /// Doubles the buckets if they are half full, and clears away the deleted ones.
    void rebuild() {
        Vector<Bucket> pairs;
        for (const Bucket& bucket : m_table)
            if (bucket.state == Filled)
                pairs.push_back(bucket);
        if (2 * (m_size + 1) > m_table.size())
            m_table.resize(std::max(MinimumBuckets, 2 * m_table.size()));
        for (Bucket& bucket : m_table)
            bucket.state = Empty;
        m_used = m_longestProbe = 0;
        for (const Bucket& pair : pairs)
            place(pair);
    }

    VectorPOD<Bucket, zelData::BufferProxyAllocator> m_table;
    size_t m_size = 0;
    size_t m_used = 0; // with the deleted ones
    size_t m_longestProbe = 0;
};

extern template class ZEL_CORE_API HashTableComponent<int, int, HashFn<int>>;

} // namespace zel
