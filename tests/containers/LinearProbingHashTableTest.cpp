#include "Counted.h"

#include <zel/HashTable.h>
#include <zel/String.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <new>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using test::Counted;
using testing::ElementsAre;
using zel::LinearProbingHashTable;
using zel::uint32;
using zel::uint64;

/// The hash is the key, so that a test can say where a key goes.
struct PlainKey {
    uint32 operator()(uint64 key) const { return static_cast<uint32>(key); }
    uint32 operator()(const Counted& key) const { return static_cast<uint32>(key.value); }
    template <typename T>
    static bool equal(const T& a, const T& b) {
        return a == b;
    }
};
using PlainTable = LinearProbingHashTable<uint64, int, PlainKey>;

/// Gives null for every request from the given one on.
struct FailingAllocator {
    static inline int requestsUntilNull = -1;
    static inline int blocks = 0;
    [[nodiscard]] void* allocateBytes(size_t size, size_t alignment) {
        if (requestsUntilNull == 0)
            return nullptr;
        --requestsUntilNull;
        ++blocks;
        return zel::ByteAllocator::standaloneAllocateBytes(size, alignment);
    }
    void deallocateBytes(void* pointer, size_t) {
        if (pointer == nullptr)
            return;
        --blocks;
        zel::ByteAllocator::standaloneDeallocateTypes(pointer);
    }
};

template <typename Table>
std::vector<uint64> tableKeys(const Table& table) {
    std::vector<uint64> keys;
    for (const auto& entry : table)
        keys.push_back(entry.key);
    return keys;
}

TEST(LinearProbingHashTableTest, HasNoSlotsAtFirst) {
    const LinearProbingHashTable<int, int> table;
    EXPECT_EQ(table.capacity(), 0U);
    EXPECT_EQ(table.maxProbeLength(), -1);
    EXPECT_FALSE(table.contains(1));
    EXPECT_EQ(table.begin(), table.end());
}

TEST(LinearProbingHashTableTest, TheFirstKeyGivesFourSlotsAndTheThirdEight) {
    LinearProbingHashTable<int, int> table;
    table.insert(1, 10);
    EXPECT_EQ(table.capacity(), 4U);
    table.insert(2, 20);
    EXPECT_EQ(table.capacity(), 4U);
    table.insert(3, 30);
    EXPECT_EQ(table.capacity(), 8U);
    EXPECT_EQ(table.find(1)->value, 10);
    EXPECT_EQ(table.find(3)->value, 30);
}

TEST(LinearProbingHashTableTest, GrowsSoThatTwoThirdsAreNeverExceeded) {
    LinearProbingHashTable<uint64, int> table;
    for (uint64 key = 0; key < 5000; ++key) {
        const uint64 needed = key + ((key + 1) >> 1) + 2;
        uint64 expected = 4;
        while (expected < needed)
            expected *= 2;
        table.insert(key, 0);
        ASSERT_EQ(table.capacity(), expected) << key;
        ASSERT_LE(3 * table.size(), 2 * table.capacity());
    }
}

TEST(LinearProbingHashTableTest, InsertingAnEqualKeyKeepsItsSlotAndKeyAndReplacesTheValue) {
    struct Tagged {
        int key;
        int tag;
    };
    struct ByKey {
        uint32 operator()(const Tagged& tagged) const { return static_cast<uint32>(tagged.key); }
        static bool equal(const Tagged& a, const Tagged& b) { return a.key == b.key; }
    };
    LinearProbingHashTable<Tagged, int, ByKey> table;
    const uint64 slot = table.insert({5, 1}, 10).index();
    EXPECT_EQ(table.insert({5, 2}, 20).index(), slot);
    EXPECT_EQ(table.size(), 1U);
    EXPECT_EQ(table.begin()->key.tag, 1);
    EXPECT_EQ(table.begin()->value, 20);
}

TEST(LinearProbingHashTableTest, TryingToInsertAnEqualKeyLeavesItsValueAndTellsIt) {
    LinearProbingHashTable<int, int> table;
    const auto [first, isNew] = table.tryInsert(5, 10);
    EXPECT_TRUE(isNew);
    EXPECT_EQ(first->value, 10);
    const auto [second, isNewAgain] = table.tryInsert(5, 20);
    EXPECT_FALSE(isNewAgain);
    EXPECT_EQ(second.index(), first.index());
    EXPECT_EQ(second->value, 10);
    EXPECT_EQ(table.size(), 1U);
}

TEST(LinearProbingHashTableTest, ProbesOneByOneAndAroundTheEnd) {
    PlainTable table;
    table.clearResize(5);
    ASSERT_EQ(table.capacity(), 8U);
    EXPECT_EQ(table.insert(6, 0).index(), 6U);
    EXPECT_EQ(table.insert(14, 0).index(), 7U);
    EXPECT_EQ(table.insert(22, 0).index(), 0U);
    EXPECT_EQ(table.maxProbeLength(), 2);
}

TEST(LinearProbingHashTableTest, TheFirstKeyOfAnEmptyTableSetsTheLongestProbe) {
    PlainTable table;
    table.insert(2, 0);
    EXPECT_EQ(table.maxProbeLength(), 0);
}

TEST(LinearProbingHashTableTest, AnEmptySlotBeatsADeletedOneAheadOfIt) {
    PlainTable table;
    table.clearResize(20);
    ASSERT_EQ(table.capacity(), 32U);
    table.insert(3, 0);
    table.insert(35, 0); // slot 4
    table.insert(67, 0); // slot 5: the longest probe is 2
    table.insert(10, 0);
    table.erase(10);
    EXPECT_EQ(table.insert(42, 0).index(), 11U); // past the deleted slot 10 to the empty one behind it
}

TEST(LinearProbingHashTableTest, ADeletedSlotIsReusedWhenTheLongestProbeEndsWithoutAnEmptyOne) {
    PlainTable table;
    table.clearResize(20);
    for (const uint64 key : {3U, 35U, 67U, 4U})
        table.insert(key, 0); // slots 3, 4, 5, 6
    EXPECT_EQ(table.maxProbeLength(), 2);
    table.erase(35);
    EXPECT_EQ(table.insert(99, 0).index(), 4U);
    EXPECT_EQ(table.maxProbeLength(), 2);
}

TEST(LinearProbingHashTableTest, BeyondTheLongestProbeTheNextFreeSlotIsTaken) {
    PlainTable table;
    table.clearResize(20);
    for (const uint64 key : {3U, 4U, 5U})
        table.insert(key, 0); // the longest probe is 0
    table.erase(5);
    EXPECT_EQ(table.insert(35, 0).index(), 5U); // deleted is as good as empty here
    EXPECT_EQ(table.maxProbeLength(), 2);
    EXPECT_TRUE(table.contains(35));
}

TEST(LinearProbingHashTableTest, ErasingLeavesADeletedSlotThatSearchesStepOver) {
    PlainTable table;
    table.clearResize(20);
    for (const uint64 key : {3U, 35U, 67U})
        table.insert(key, static_cast<int>(key));
    EXPECT_TRUE(table.erase(35));
    EXPECT_FALSE(table.erase(35));
    EXPECT_EQ(table.find(67)->value, 67);
    EXPECT_FALSE(table.contains(35));
    EXPECT_EQ(table.size(), 2U);
}

TEST(LinearProbingHashTableTest, DeletedSlotsDoNotCountInTheLoad) {
    PlainTable table;
    for (uint64 key = 0; key < 1000; ++key) {
        table.insert(key, 0);
        table.erase(key);
    }
    EXPECT_EQ(table.capacity(), 4U);
}

TEST(LinearProbingHashTableTest, ClearKeepsTheSlotsAndForgetsTheLongestProbe) {
    LinearProbingHashTable<int, int> table;
    for (int key = 0; key < 100; ++key)
        table.insert(key, key);
    const uint64 capacity = table.capacity();
    table.clear();
    EXPECT_EQ(table.size(), 0U);
    EXPECT_EQ(table.capacity(), capacity);
    EXPECT_EQ(table.maxProbeLength(), -1);
    EXPECT_FALSE(table.contains(5));
    EXPECT_EQ(table.begin(), table.end());
}

TEST(LinearProbingHashTableTest, ClearResizeThrowsAllAwayAndMakesRoom) {
    LinearProbingHashTable<int, int> table;
    table.insert(1, 1);
    for (const uint64 n : {0U, 1U, 2U, 3U, 10U, 100U, 1000U}) {
        table.clearResize(n);
        uint64 expected = 4;
        while (expected < n + (n >> 1) + 1)
            expected *= 2;
        EXPECT_EQ(table.capacity(), expected);
        EXPECT_EQ(table.maxProbeLength(), -1);
        EXPECT_TRUE(table.empty());
    }
}

TEST(LinearProbingHashTableTest, ClearResizeRefusesMoreThanThereCanBe) {
    LinearProbingHashTable<int, int> table;
    volatile uint64 all = ~uint64{0};
    EXPECT_THROW(table.clearResize(all), std::bad_alloc);
    EXPECT_THROW(table.clearResize(all >> 1), std::bad_alloc);
    EXPECT_EQ(table.capacity(), 0U);
    table.insert(1, 2);
    EXPECT_EQ(table.find(1)->value, 2);
}

TEST(LinearProbingHashTableTest, IteratesInSlotOrder) {
    PlainTable table;
    table.clearResize(8);
    for (const uint64 key : {9U, 2U, 5U, 0U})
        table.insert(key, 0);
    EXPECT_THAT(tableKeys(table), ElementsAre(0, 2, 5, 9));
    EXPECT_EQ(table.end().index(), table.capacity());
    EXPECT_EQ(table.find(7), table.end());
}

TEST(LinearProbingHashTableTest, ValuesAreWrittenThroughPositions) {
    LinearProbingHashTable<zel::String, int> table;
    table.insert("a", 1);
    table.find("a")->value = 7;
    for (auto& entry : table)
        ++entry.value;
    const auto& constant = table;
    EXPECT_EQ(constant.find("a")->value, 8);
}

TEST(LinearProbingHashTableTest, PairsLiveInFilledSlotsAlone) {
    Counted::reset();
    {
        LinearProbingHashTable<Counted, Counted, PlainKey> table;
        for (int i = 0; i < 50; ++i)
            table.insert(Counted(i), Counted(i));
        EXPECT_EQ(Counted::alive, 100);
        for (int i = 0; i < 20; ++i)
            table.erase(Counted(i));
        EXPECT_EQ(Counted::alive, 60);
        const LinearProbingHashTable<Counted, Counted, PlainKey> copy(table);
        EXPECT_EQ(Counted::alive, 120);
        table.clear();
        EXPECT_EQ(Counted::alive, 60);
    }
    EXPECT_EQ(Counted::alive, 0);
    EXPECT_EQ(Counted::constructed, Counted::destroyed);
}

TEST(LinearProbingHashTableTest, ACopyThatThrowsLeaksNothing) {
    Counted::reset();
    {
        LinearProbingHashTable<Counted, int, PlainKey> table;
        for (int i = 0; i < 20; ++i)
            table.insert(Counted(i), i);
        Counted::throwAfter = 10;
        EXPECT_THROW((LinearProbingHashTable<Counted, int, PlainKey>(table)), std::runtime_error);
        EXPECT_EQ(Counted::alive, 20);
    }
    EXPECT_EQ(Counted::alive, 0);
}

TEST(LinearProbingHashTableTest, ANullFromTheAllocatorIsBadAllocAndLosesNothing) {
    using Table = LinearProbingHashTable<int, int, zel::HashFn<int>, FailingAllocator>;
    for (const int served : {0, 1}) {
        FailingAllocator::requestsUntilNull = -1;
        Table table;
        table.insert(1, 10);
        table.insert(2, 20);
        const int blocks = FailingAllocator::blocks;
        FailingAllocator::requestsUntilNull = served; // the states fail, or the entries behind them
        EXPECT_THROW(table.insert(3, 30), std::bad_alloc);
        EXPECT_EQ(FailingAllocator::blocks, blocks);
        EXPECT_EQ(table.size(), 2U);
        EXPECT_EQ(table.find(2)->value, 20);
    }
    EXPECT_EQ(FailingAllocator::blocks, 0);
}

TEST(LinearProbingHashTableTest, CopiesSlotBySlotAndMovesAsAWhole) {
    PlainTable table;
    for (const uint64 key : {3U, 35U, 67U})
        table.insert(key, static_cast<int>(key));
    table.erase(3);
    PlainTable copy(table);
    EXPECT_EQ(tableKeys(copy), tableKeys(table));
    EXPECT_EQ(copy.maxProbeLength(), table.maxProbeLength());
    PlainTable moved(std::move(table));
    EXPECT_EQ(table.capacity(), 0U); // NOLINT(bugprone-use-after-move): a moved-from table is empty
    EXPECT_EQ(moved.find(67)->value, 67);
    copy.insert(1, 1);
    moved = copy;
    EXPECT_EQ(moved.size(), 3U);
    moved = std::move(copy);
    EXPECT_EQ(moved.size(), 3U);
    copy.insert(5, 5); // NOLINT(bugprone-use-after-move): and can be used again
    EXPECT_EQ(copy.size(), 1U);
}

TEST(LinearProbingHashTableTest, HashTableIsItsShortName) {
    static_assert(std::is_same_v<zel::HashTable<int, int>, LinearProbingHashTable<int, int>>);
    zel::HashTable<zel::String, int> table;
    table.insert("one", 1);
    EXPECT_TRUE(table.contains(std::string("one")));
}

/// The table's rules once more, written for reading and not for speed.
class TableModel {
public:
    [[nodiscard]] size_t capacity() const { return m_slots.size(); }
    [[nodiscard]] long longestProbe() const { return m_longest; }

    template <typename Hash>
    void insert(uint64 key, int value, Hash hash) {
        const size_t needed = m_size + ((m_size + 1) >> 1) + 2;
        if (capacity() < needed) {
            size_t slots = 4;
            while (slots < needed)
                slots *= 2;
            std::vector<Slot> old(slots);
            old.swap(m_slots);
            m_size = 0;
            m_longest = -1;
            for (const Slot& slot : old)
                if (slot.state == 2)
                    put(slot.key, slot.value, hash(slot.key));
        }
        put(key, value, hash(key));
    }

    template <typename Hash>
    void erase(uint64 key, Hash hash) {
        for (long i = 0; i <= m_longest && at(hash(key), i).state != 0; ++i) {
            Slot& slot = at(hash(key), i);
            if (slot.state == 2 && slot.key == key) {
                slot.state = 1;
                --m_size;
                return;
            }
        }
    }

    [[nodiscard]] std::vector<uint64> keys() const {
        std::vector<uint64> result;
        for (const Slot& slot : m_slots)
            if (slot.state == 2)
                result.push_back(slot.key);
        return result;
    }

private:
    struct Slot {
        uint64 key = 0;
        int value = 0;
        int state = 0;
    };

    Slot& at(uint32 hash, long i) { return m_slots[(static_cast<uint32>(i) + hash) & (m_slots.size() - 1)]; }

    void put(uint64 key, int value, uint32 hash) {
        long i = 0;
        long deleted = -1;
        for (; i <= m_longest; ++i) {
            Slot& slot = at(hash, i);
            if (slot.state == 2 && slot.key == key) {
                slot.value = value;
                return;
            }
            if (slot.state == 0)
                break;
            if (slot.state == 1 && deleted < 0)
                deleted = i;
        }
        if (i > m_longest) {
            if (deleted >= 0) {
                i = deleted;
            } else {
                while (at(hash, i).state == 2)
                    ++i;
                m_longest = i;
            }
        }
        at(hash, i) = {key, value, 2};
        ++m_size;
    }

    std::vector<Slot> m_slots;
    size_t m_size = 0;
    long m_longest = -1;
};

template <typename Hash>
void compareWithModel(uint64 keyMask, int steps) {
    std::mt19937_64 random(11);
    LinearProbingHashTable<uint64, int, Hash> table;
    TableModel model;
    std::map<uint64, int> content;
    for (int step = 0; step < steps; ++step) {
        const uint64 key = random() & keyMask;
        if (random() % 10 < (step / 2000 % 2 == 0 ? 7U : 3U)) {
            if (random() % 2 == 0) {
                EXPECT_EQ(table.insert(key, step)->value, step);
                content[key] = step;
            } else {
                EXPECT_EQ(table.tryInsert(key, step).second, content.emplace(key, step).second);
            }
            model.insert(key, content[key], Hash());
        } else {
            EXPECT_EQ(table.erase(key), content.erase(key) == 1);
            model.erase(key, Hash());
        }
        ASSERT_EQ(table.size(), content.size());
        ASSERT_EQ(table.capacity(), model.capacity()) << "step " << step;
        ASSERT_EQ(table.maxProbeLength(), model.longestProbe()) << "step " << step;
        const auto found = table.find(key);
        ASSERT_EQ(found != table.end(), content.count(key) == 1);
        if (step % 97 == 0) {
            ASSERT_EQ(tableKeys(table), model.keys()) << "step " << step;
            std::map<uint64, int> iterated;
            for (const auto& entry : table)
                iterated[entry.key] = entry.value;
            ASSERT_EQ(iterated, content);
        }
    }
}

TEST(LinearProbingHashTableTest, FollowsItsRulesSlotBySlot) {
    compareWithModel<zel::HashFn<uint64>>(0x3FF, 30'000);
    compareWithModel<PlainKey>(0x1FFF, 30'000);
}

TEST(LinearProbingHashTableTest, FollowsItsRulesUnderCollisions) {
    struct Few {
        uint32 operator()(uint64 key) const { return static_cast<uint32>(key % 7) * 0x20000000U; }
        static bool equal(uint64 a, uint64 b) { return a == b; }
    };
    compareWithModel<Few>(0xFF, 20'000);
}

TEST(LinearProbingHashTableTest, BehavesLikeTheStandardMapOfStrings) {
    std::mt19937 random(3);
    LinearProbingHashTable<zel::String, std::string> ours;
    std::unordered_map<std::string, std::string> theirs;
    for (int step = 0; step < 20'000; ++step) {
        const std::string key = std::string(random() % 30, 'k') + std::to_string(random() % 300);
        if (random() % 3 != 0) {
            const std::string value = std::to_string(step);
            ours.insert(key, value);
            theirs[key] = value;
        } else {
            EXPECT_EQ(ours.erase(key), theirs.erase(key) == 1);
        }
        ASSERT_EQ(ours.size(), theirs.size());
        const auto found = theirs.find(key);
        ASSERT_EQ(ours.contains(key), found != theirs.end());
        if (found != theirs.end()) {
            ASSERT_EQ(ours.find(key)->value, found->second);
        }
    }
}

} // namespace
