#include "Counted.h"

#include <zel/HashSet.h>
#include <zel/String.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

namespace {

using test::Counted;
using testing::ElementsAre;
using testing::UnorderedElementsAre;
using zel::HashSet;
using zel::uint32;
using zel::uint64;

/// The hash is the key, so that a test can say where a key goes.
struct Plain {
    uint32 operator()(uint64 key) const { return static_cast<uint32>(key); }
    uint32 operator()(const Counted& key) const { return static_cast<uint32>(key.value); }
    template <typename T>
    static bool equal(const T& a, const T& b) {
        return a == b;
    }
};

/// The hash is what lies above the low 32 bits: keys with the same high half collide at every capacity.
struct HighHalf {
    uint32 operator()(uint64 key) const { return static_cast<uint32>(key >> 32); }
    static bool equal(uint64 a, uint64 b) { return a == b; }
};

template <typename Set>
auto keysOf(const Set& set) {
    return std::vector(set.begin(), set.end());
}

template <typename Set>
std::vector<uint64> slotsOf(const Set& set) {
    std::vector<uint64> slots;
    for (auto position = set.begin(); position != set.end(); ++position)
        slots.push_back(position.index());
    return slots;
}

TEST(NextPrimeTest, WalksUpwardInStepsOfTwo) {
    EXPECT_EQ(zel::nextPrime(1), 1);
    EXPECT_EQ(zel::nextPrime(2), 3);
    EXPECT_EQ(zel::nextPrime(3), 3);
    EXPECT_EQ(zel::nextPrime(8), 11);
    EXPECT_EQ(zel::nextPrime(9), 11);
    EXPECT_EQ(zel::nextPrime(24), 29);
    EXPECT_EQ(zel::nextPrime(25), 29);
    EXPECT_EQ(zel::nextPrime(121), 127);
    EXPECT_EQ(zel::nextPrime(1'000'000), 1'000'003);
}

TEST(NextPrimeTest, TakesTheAbsoluteValue) {
    EXPECT_EQ(zel::nextPrime(0), 1);
    EXPECT_EQ(zel::nextPrime(-8), 11);
    EXPECT_EQ(zel::nextPrime(-1), 1);
}

TEST(NextPrimeTest, TakesSizesBeyond32Bits) {
    EXPECT_EQ(zel::nextPrime(uint64{1} << 32), 4'294'967'311U);
}

TEST(HashSetTest, HasNoSlotsAtFirst) {
    const HashSet<int> set;
    EXPECT_EQ(set.capacity(), 0U);
    EXPECT_EQ(set.size(), 0U);
    EXPECT_TRUE(set.empty());
    EXPECT_FALSE(set.contains(1));
    EXPECT_EQ(set.begin(), set.end());
}

TEST(HashSetTest, TheFirstKeyGivesThreeSlotsAndTheThirdEleven) {
    HashSet<int> set;
    set.insert(1);
    EXPECT_EQ(set.capacity(), 3U);
    set.insert(2);
    EXPECT_EQ(set.capacity(), 3U);
    set.insert(3);
    EXPECT_EQ(set.capacity(), 11U);
    EXPECT_THAT(keysOf(set), UnorderedElementsAre(1, 2, 3));
}

TEST(HashSetTest, TheCheckForGrowthComesBeforeTheSearch) {
    HashSet<int> set;
    set.insert(1);
    set.insert(2);
    set.insert(2); // already there, and grows the table all the same
    EXPECT_EQ(set.capacity(), 11U);
    EXPECT_EQ(set.size(), 2U);
}

TEST(HashSetTest, GrowsAtFourFifthsToTheNextPrimeOfTwiceTheCapacityPlusOne) {
    HashSet<uint64, Plain> set;
    std::vector<std::pair<uint64, uint64>> growths; // size before the insertion, capacity behind it
    for (uint64 key = 0; key < 500; ++key) {
        const uint64 before = set.capacity();
        set.insert(key);
        if (set.capacity() != before)
            growths.emplace_back(key, set.capacity());
    }
    using Growth = std::pair<uint64, uint64>;
    EXPECT_THAT(growths,
                ElementsAre(Growth(0, 3),
                            Growth(2, 11),
                            Growth(8, 29),
                            Growth(23, 61),
                            Growth(48, 127),
                            Growth(101, 257),
                            Growth(205, 521),
                            Growth(416, 1049)));
}

TEST(HashSetTest, ProbesBySquares) {
    HashSet<uint64, Plain> set;
    set.rebuild(101);
    ASSERT_EQ(set.capacity(), 101U);
    for (uint64 i = 0; i < 5; ++i)
        EXPECT_EQ(set.insert(7 + 101 * i).index(), 7 + i * i);
    EXPECT_EQ(set.maxProbeLength(), 4U);
    EXPECT_EQ(set.insert(100).index(), 100U);
    EXPECT_EQ(set.insert(201).index(), 0U); // (100 + 1) mod 101
}

TEST(HashSetTest, InsertingAnEqualKeyOverwritesTheKey) {
    struct Tagged {
        int key;
        int tag;
    };
    struct ByKey {
        uint32 operator()(const Tagged& tagged) const { return static_cast<uint32>(tagged.key); }
        static bool equal(const Tagged& a, const Tagged& b) { return a.key == b.key; }
    };
    HashSet<Tagged, ByKey> set;
    const uint64 slot = set.insert({5, 1}).index();
    EXPECT_EQ(set.insert({5, 2}).index(), slot);
    EXPECT_EQ(set.size(), 1U);
    EXPECT_EQ(set.begin()->tag, 2);
}

TEST(HashSetTest, AfterElevenProbesTheTableIsRebuiltToTwiceItsCapacity) {
    HashSet<uint64, Plain> set;
    set.rebuild(101);
    for (uint64 i = 0; i < 11; ++i)
        set.insert(7 + 101 * i);
    EXPECT_EQ(set.capacity(), 101U);
    EXPECT_EQ(set.maxProbeLength(), 10U);
    set.insert(7 + 101 * 11);
    EXPECT_EQ(set.capacity(), 211U); // nextPrime(202), where the other rule would say nextPrime(204)
    EXPECT_EQ(set.size(), 12U);
    for (uint64 i = 0; i < 12; ++i)
        EXPECT_TRUE(set.contains(7 + 101 * i));
}

TEST(HashSetTest, NoKeyLiesBeyondTheEleventhSlot) {
    HashSet<uint64> set;
    std::mt19937_64 random(1);
    for (int i = 0; i < 100'000; ++i) {
        set.insert(random());
        ASSERT_LE(set.maxProbeLength(), 10U);
    }
}

TEST(HashSetTest, ErasingLeavesADeletedSlotThatSearchesStepOver) {
    HashSet<uint64, Plain> set;
    set.rebuild(101);
    for (uint64 i = 0; i < 3; ++i)
        set.insert(7 + 101 * i);
    EXPECT_TRUE(set.erase(108));
    EXPECT_FALSE(set.erase(108));
    EXPECT_EQ(set.size(), 2U);
    EXPECT_FALSE(set.contains(108));
    EXPECT_TRUE(set.contains(209));
}

TEST(HashSetTest, ADeletedSlotIsReusedOnceTheLongestProbeIsReached) {
    HashSet<uint64, Plain> set;
    set.rebuild(101);
    for (uint64 i = 0; i < 3; ++i)
        set.insert(7 + 101 * i);
    set.erase(108); // probe 1
    EXPECT_EQ(set.insert(7 + 101 * 9).index(), 8U);
    EXPECT_EQ(set.maxProbeLength(), 2U);
}

TEST(HashSetTest, AnEqualKeyBehindADeletedSlotIsFoundFirst) {
    HashSet<uint64, Plain> set;
    set.rebuild(101);
    for (uint64 i = 0; i < 3; ++i)
        set.insert(7 + 101 * i);
    set.erase(7);
    EXPECT_EQ(set.insert(209).index(), 11U); // stays at probe 2
    EXPECT_EQ(set.size(), 2U);
}

TEST(HashSetTest, AnEmptySlotBeatsADeletedOneAheadOfIt) {
    HashSet<uint64, Plain> set;
    set.rebuild(101);
    set.insert(7);
    set.insert(108);
    set.insert(20);
    set.insert(121);
    set.insert(222); // the longest probe is 2
    set.erase(7);
    set.erase(108);
    EXPECT_EQ(set.insert(7 + 101 * 5).index(), 11U); // the empty slot at probe 2, past two deleted ones
}

TEST(HashSetTest, ADeletedSlotBeyondTheLongestProbeRaisesIt) {
    HashSet<uint64, Plain> set;
    set.rebuild(101);
    set.insert(8); // fills slot 8 at probe 0
    set.insert(7);
    set.erase(8);
    EXPECT_EQ(set.maxProbeLength(), 0U);
    EXPECT_EQ(set.insert(108).index(), 8U); // probe 1 of 7
    EXPECT_EQ(set.maxProbeLength(), 1U);
    EXPECT_TRUE(set.contains(108));
}

TEST(HashSetTest, DeletedSlotsNeverTriggerARebuild) {
    HashSet<uint64, Plain> set;
    set.rebuild(101);
    for (uint64 key = 0; key < 10'000; ++key) {
        set.insert(key);
        set.erase(key);
    }
    EXPECT_EQ(set.capacity(), 101U);
    EXPECT_TRUE(set.empty());
}

TEST(HashSetTest, ARebuildDropsDeletedSlotsAndResetsTheLongestProbe) {
    HashSet<uint64, Plain> set;
    set.rebuild(101);
    for (uint64 i = 0; i < 3; ++i)
        set.insert(7 + 101 * i);
    set.erase(7);
    set.erase(108);
    set.rebuild(101);
    EXPECT_EQ(set.maxProbeLength(), 0U);
    EXPECT_EQ(set.find(209).index(), 7U);
}

TEST(HashSetTest, ARebuildReinsertsInAscendingSlotOrder) {
    HashSet<uint64, Plain> set;
    set.rebuild(11);
    set.insert(10); // slot 10
    set.insert(3);  // slot 3
    set.insert(21); // slot 0: (10 + 1) mod 11
    set.rebuild(7);
    // 21 (slot 0) comes first and takes 0, 3 takes 3, and 10 finds 3 taken and goes to 4.
    EXPECT_EQ(set.find(21).index(), 0U);
    EXPECT_EQ(set.find(3).index(), 3U);
    EXPECT_EQ(set.find(10).index(), 4U);
}

TEST(HashSetTest, ARebuildToZeroOrTooFewSlotsGrowsWhileItReinserts) {
    HashSet<uint64, Plain> set;
    set.rebuild(0);
    EXPECT_EQ(set.capacity(), 1U);
    set.insert(1); // at one slot, no key at all is already four fifths
    EXPECT_EQ(set.capacity(), 5U);
    for (uint64 key = 0; key < 50; ++key)
        set.insert(key);
    set.rebuild(0);
    EXPECT_EQ(set.size(), 50U);
    for (uint64 key = 0; key < 50; ++key)
        EXPECT_TRUE(set.contains(key));
}

TEST(HashSetTest, ClearKeepsTheSlots) {
    HashSet<int> set;
    for (int key = 0; key < 100; ++key)
        set.insert(key);
    const uint64 capacity = set.capacity();
    set.clear();
    EXPECT_EQ(set.size(), 0U);
    EXPECT_EQ(set.capacity(), capacity);
    EXPECT_EQ(set.maxProbeLength(), 0U);
    EXPECT_EQ(set.begin(), set.end());
    EXPECT_FALSE(set.contains(5));
}

TEST(HashSetTest, IteratesInSlotOrder) {
    HashSet<uint64, Plain> set;
    set.rebuild(11);
    for (const uint64 key : {9U, 2U, 5U, 0U})
        set.insert(key);
    EXPECT_THAT(keysOf(set), ElementsAre(0, 2, 5, 9));
    EXPECT_THAT(slotsOf(set), ElementsAre(0, 2, 5, 9));
    EXPECT_EQ(set.find(5).index(), 5U);
    EXPECT_EQ(set.find(6), set.end());
}

TEST(HashSetTest, KeysLiveInFilledSlotsAlone) {
    Counted::reset();
    {
        HashSet<Counted, Plain> set;
        for (int i = 0; i < 50; ++i)
            set.insert(Counted(i));
        EXPECT_EQ(Counted::alive, 50);
        for (int i = 0; i < 20; ++i)
            set.erase(Counted(i));
        EXPECT_EQ(Counted::alive, 30);
        const HashSet<Counted, Plain> copy(set);
        EXPECT_EQ(Counted::alive, 60);
        set.clear();
        EXPECT_EQ(Counted::alive, 30);
    }
    EXPECT_EQ(Counted::alive, 0);
    EXPECT_EQ(Counted::constructed, Counted::destroyed);
}

TEST(HashSetTest, ACopyThatThrowsLeaksNothing) {
    Counted::reset();
    {
        HashSet<Counted, Plain> set;
        for (int i = 0; i < 20; ++i)
            set.insert(Counted(i));
        Counted::throwAfter = 10;
        EXPECT_THROW((HashSet<Counted, Plain>(set)), std::runtime_error);
        EXPECT_EQ(Counted::alive, 20);
    }
    EXPECT_EQ(Counted::alive, 0);
}

TEST(HashSetTest, ARebuildThatThrowsKeepsTheKeys) {
    Counted::reset();
    HashSet<Counted, Plain> set;
    for (int i = 0; i < 20; ++i)
        set.insert(Counted(i));
    Counted::throwAfter = 15;
    EXPECT_THROW(set.rebuild(1000), std::runtime_error);
    EXPECT_EQ(set.size(), 20U);
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(set.contains(Counted(i)));
}

TEST(HashSetTest, RefusesATwelfthKeyOfTheSameHash) {
    struct SameHash {
        zel::uint32 operator()(int) const noexcept { return 7; }
        static bool equal(int a, int b) noexcept { return a == b; }
    };
    zel::HashSetImplementation<int, SameHash> set;
    for (int key = 0; key < 11; ++key)
        set.insert(key);
    try {
        set.insert(11);
        FAIL() << "found a place";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(),
                     "HashSet: more than 11 keys have the same hash, and no table has a place for the next");
    }
    EXPECT_EQ(set.size(), 11U);
    EXPECT_LT(set.capacity(), 1000U) << "to grow does not help";
    for (int key = 0; key < 11; ++key)
        EXPECT_TRUE(set.contains(key));
}

TEST(HashSetTest, RefusesMoreSlotsThanMemoryHas) {
    zel::HashSet<int> set;
    set.insert(1);
    for (const zel::uint64 capacity : {~zel::uint64{0}, zel::uint64{1} << 60}) {
        try {
            set.rebuild(capacity);
            FAIL() << "rebuilt";
        } catch (const std::runtime_error& error) {
            EXPECT_EQ(error.what(), "HashSet: memory has no room for " + std::to_string(capacity) + " slots");
        }
    }
    EXPECT_TRUE(set.contains(1));
}

TEST(HashSetTest, ThereIsNoPrimeBehindTheLargestOf64Bits) {
    EXPECT_THROW(static_cast<void>(zel::nextPrime(18446744073709551558U)), std::runtime_error);
}

TEST(HashSetTest, RefusesKeysThatCrowdAFewHashes) {
    struct Crowded {
        zel::uint32 operator()(int key) const noexcept { return static_cast<zel::uint32>(key) % 1000; }
        static bool equal(int a, int b) noexcept { return a == b; }
    };
    zel::HashSetImplementation<int, Crowded> set;
    int number = 0;
    EXPECT_THROW(
        {
            for (;; ++number)
                set.insert(number);
        },
        std::runtime_error);
    EXPECT_EQ(number, 1000); // hashes in a row leave no place between them
    EXPECT_LT(set.capacity(), 64U * 1000 * 4);
    for (int key = 0; key < number; ++key)
        EXPECT_TRUE(set.contains(key));
}

TEST(HashSetTest, KeysOfAFewHashesOutliveEachRebuild) {
    // Up to eleven keys of one hash fit, if nothing else is near. A rebuild meets such a group while the new
    // table is still nearly empty.
    struct Grouped {
        zel::uint32 operator()(zel::uint64 key) const noexcept {
            return static_cast<zel::uint32>(key / 11) * 2654435761U;
        }
        static bool equal(zel::uint64 a, zel::uint64 b) noexcept { return a == b; }
    };
    zel::HashSetImplementation<zel::uint64, Grouped> set;
    for (zel::uint64 key = 0; key < 11 * 300; ++key) {
        set.insert(key);
        ASSERT_EQ(set.size(), key + 1);
    }
    for (const zel::uint64 capacity : {1U, 100'000U, 7U})
        set.rebuild(capacity);
    EXPECT_EQ(set.size(), 11U * 300);
    for (zel::uint64 key = 0; key < 11 * 300; ++key)
        EXPECT_TRUE(set.contains(key)) << key;
}

TEST(HashSetTest, CopiesSlotBySlotAndMovesAsAWhole) {
    HashSet<uint64, Plain> set;
    set.rebuild(101);
    for (uint64 i = 0; i < 3; ++i)
        set.insert(7 + 101 * i);
    set.erase(7);
    HashSet<uint64, Plain> copy(set);
    EXPECT_EQ(slotsOf(copy), slotsOf(set));
    EXPECT_EQ(copy.maxProbeLength(), 2U);
    EXPECT_TRUE(copy.contains(209));
    HashSet<uint64, Plain> moved(std::move(set));
    EXPECT_EQ(set.capacity(), 0U); // NOLINT(bugprone-use-after-move): a moved-from set is empty
    EXPECT_EQ(moved.size(), 2U);
    copy.insert(1);
    moved = copy;
    EXPECT_EQ(moved.size(), 3U);
    moved = std::move(copy);
    EXPECT_EQ(moved.size(), 3U);
    EXPECT_FALSE(copy.contains(1)); // NOLINT(bugprone-use-after-move): and can be used again
}

TEST(HashSetTest, HoldsKeysThatCanOnlyMove) {
    struct ByTarget {
        using is_transparent = void;
        uint32 operator()(const std::unique_ptr<int>& key) const { return static_cast<uint32>(*key); }
        uint32 operator()(int key) const { return static_cast<uint32>(key); }
        static bool equal(const std::unique_ptr<int>& a, const std::unique_ptr<int>& b) { return *a == *b; }
        static bool equal(const std::unique_ptr<int>& a, int b) { return *a == b; }
    };
    HashSet<std::unique_ptr<int>, ByTarget> set;
    for (int i = 0; i < 100; ++i)
        set.insert(std::make_unique<int>(i));
    EXPECT_TRUE(set.contains(57));
    EXPECT_TRUE(set.erase(57));
    EXPECT_FALSE(set.contains(57));
}

TEST(HashSetTest, FindsStringsByOtherTexts) {
    HashSet<zel::String> set;
    set.insert("position");
    EXPECT_TRUE(set.contains("position"));
    EXPECT_TRUE(set.contains(std::string("position")));
    EXPECT_FALSE(set.contains("velocity"));
}

/// The table's rules once more, written for reading and not for speed.
class SetModel {
public:
    [[nodiscard]] size_t capacity() const { return m_slots.size(); }
    [[nodiscard]] size_t size() const { return m_size; }
    [[nodiscard]] size_t longestProbe() const { return m_longest; }

    template <typename Hash>
    void insert(uint64 key, Hash hash) {
        const uint64 h = hash(key);
        for (;;) {
            if (m_size >= static_cast<size_t>(static_cast<double>(static_cast<float>(capacity())) * 0.8)) {
                const auto wanted = static_cast<size_t>(static_cast<float>(capacity() + 1) * 2.0F);
                rebuild(wanted == 0 ? 1 : wanted, hash);
            }
            int deletedProbe = -1;
            for (int p = 0; p < 11; ++p) {
                Slot& slot = at(h, p);
                if (slot.state == 0)
                    return put(h, p, key);
                if (slot.state == 2 && slot.key == key)
                    return;
                if (slot.state == 1 && deletedProbe < 0)
                    deletedProbe = p;
                if (deletedProbe >= 0 && p >= static_cast<int>(m_longest))
                    return put(h, deletedProbe, key);
            }
            rebuild(static_cast<size_t>(2.0 * static_cast<double>(capacity())), hash);
        }
    }

    template <typename Hash>
    void erase(uint64 key, Hash hash) {
        if (m_slots.empty())
            return;
        for (int p = 0; p <= static_cast<int>(m_longest); ++p) {
            Slot& slot = at(hash(key), p);
            if (slot.state == 0)
                return;
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
        int state = 0;
    };

    Slot& at(uint64 hash, int p) { return m_slots[(static_cast<uint64>(p * p) + hash) % m_slots.size()]; }

    void put(uint64 hash, int p, uint64 key) {
        at(hash, p) = {key, 2};
        m_longest = std::max(m_longest, static_cast<size_t>(p));
        ++m_size;
    }

    template <typename Hash>
    void rebuild(size_t wanted, Hash hash) {
        std::vector<Slot> old(zel::nextPrime(uint64{wanted}));
        old.swap(m_slots);
        m_size = m_longest = 0;
        for (const Slot& slot : old)
            if (slot.state == 2)
                insert(slot.key, hash);
    }

    std::vector<Slot> m_slots;
    size_t m_size = 0;
    size_t m_longest = 0;
};

template <typename Hash>
void compareWithModel(uint64 keyMask, int steps) {
    std::mt19937_64 random(7);
    HashSet<uint64, Hash> set;
    SetModel model;
    std::set<uint64> content;
    for (int step = 0; step < steps; ++step) {
        const uint64 key = random() & keyMask;
        // Phases of growth and of shrinking.
        if (random() % 10 < (step / 2000 % 2 == 0 ? 7U : 3U)) {
            EXPECT_EQ(*set.insert(key), key);
            model.insert(key, Hash());
            content.insert(key);
        } else {
            EXPECT_EQ(set.erase(key), content.erase(key) == 1);
            model.erase(key, Hash());
        }
        ASSERT_EQ(set.size(), content.size());
        ASSERT_EQ(set.capacity(), model.capacity()) << "step " << step;
        ASSERT_EQ(set.maxProbeLength(), model.longestProbe()) << "step " << step;
        ASSERT_EQ(set.contains(key), content.count(key) == 1);
        if (step % 97 == 0) {
            ASSERT_EQ(keysOf(set), model.keys()) << "step " << step;
            ASSERT_EQ(std::set<uint64>(set.begin(), set.end()), content);
        }
    }
}

TEST(HashSetTest, FollowsItsRulesSlotBySlot) {
    compareWithModel<zel::HashFn<uint64>>(0x3FF, 30'000);
    compareWithModel<Plain>(0x1FFF, 30'000);
}

TEST(HashSetTest, FollowsItsRulesUnderCollisions) {
    struct Few {
        uint32 operator()(uint64 key) const { return static_cast<uint32>(key % 61) * 1'000'003U; }
        static bool equal(uint64 a, uint64 b) { return a == b; }
    };
    compareWithModel<Few>(0xFF, 20'000);
}

TEST(HashSetTest, BehavesLikeTheStandardSetOfStrings) {
    std::mt19937 random(3);
    HashSet<zel::String> ours;
    std::unordered_set<std::string> theirs;
    for (int step = 0; step < 20'000; ++step) {
        const std::string key = std::string(random() % 30, 'k') + std::to_string(random() % 300);
        if (random() % 3 != 0) {
            ours.insert(key);
            theirs.insert(key);
        } else {
            EXPECT_EQ(ours.erase(key), theirs.erase(key) == 1);
        }
        ASSERT_EQ(ours.size(), theirs.size());
        ASSERT_EQ(ours.contains(key), theirs.count(key) == 1);
    }
    EXPECT_EQ(std::unordered_set<std::string>(ours.begin(), ours.end()), theirs);
}

} // namespace
