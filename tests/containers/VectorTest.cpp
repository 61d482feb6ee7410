#include "Counted.h"

#include <zel/Vector.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using test::Counted;
using testing::ElementsAre;
using zel::Vector;
using zel::VectorPOD;

/// Memory that knows which arena it came from, as allocators with a state do.
class ArenaAllocator {
public:
    explicit ArenaAllocator(int arena = 0) : m_arena(arena) {}
    [[nodiscard]] void* allocateBytes(size_t size, size_t alignment) {
        ++s_blocks[static_cast<size_t>(m_arena)];
        return zel::ByteAllocator::standaloneAllocateBytes(size, alignment);
    }
    void deallocateBytes(void* pointer, size_t) {
        if (pointer == nullptr)
            return;
        --s_blocks[static_cast<size_t>(m_arena)];
        zel::ByteAllocator::standaloneDeallocateTypes(pointer);
    }
    [[nodiscard]] int arena() const { return m_arena; }

    static inline int s_blocks[3] = {0, 0, 0};

private:
    int m_arena;
};

std::vector<size_t> capacitiesOfPushBack(size_t count) {
    VectorPOD<int> v;
    std::vector<size_t> capacities;
    for (size_t i = 0; i < count; ++i) {
        v.push_back(0);
        if (capacities.empty() || capacities.back() != v.capacity())
            capacities.push_back(v.capacity());
    }
    return capacities;
}

TEST(VectorTest, IsEmptyWithoutStorageAtFirst) {
    const Vector<int> v;
    EXPECT_EQ(v.size(), 0U);
    EXPECT_EQ(v.capacity(), 0U);
    EXPECT_TRUE(v.empty());
    EXPECT_EQ(v.begin(), v.end());
}

TEST(VectorTest, TheFirstPushBackGivesCapacityFourAndTheFifthEight) {
    Vector<int> v;
    v.push_back(1);
    EXPECT_EQ(v.capacity(), 4U);
    for (int i = 0; i < 3; ++i)
        v.push_back(i);
    EXPECT_EQ(v.capacity(), 4U);
    v.push_back(5);
    EXPECT_EQ(v.capacity(), 8U);
}

TEST(VectorTest, PushBackDoubles) {
    EXPECT_THAT(capacitiesOfPushBack(1000), ElementsAre(4, 8, 16, 32, 64, 128, 256, 512, 1024));
}

TEST(VectorTest, PushBackDoublesTheSizeAndNotTheCapacity) {
    Vector<int> v;
    v.resize(5);
    EXPECT_EQ(v.capacity(), 5U);
    v.push_back(0);
    EXPECT_EQ(v.capacity(), 10U);
}

TEST(VectorTest, GrowthIsComputedInSinglePrecision) {
    VectorPOD<char> v;
    v.resize(16'777'217); // the first integer that a float cannot hold
    EXPECT_EQ(v.capacity(), 16'777'217U);
    v.push_back('x');
    EXPECT_EQ(v.capacity(), 33'554'432U);
}

TEST(VectorTest, ResizeAllocatesExactlyAndAtLeastFour) {
    Vector<int> v;
    v.resize(2);
    EXPECT_EQ(v.capacity(), 4U);
    v.resize(5);
    EXPECT_EQ(v.capacity(), 5U);
    v.resize(7, 3);
    EXPECT_EQ(v.capacity(), 7U);
    EXPECT_THAT(v, ElementsAre(0, 0, 0, 0, 0, 3, 3));
}

TEST(VectorTest, ResizeWithinTheCapacityKeepsTheStorage) {
    Vector<int> v;
    v.reserve(8);
    const int* data = v.data();
    v.resize(8, 1);
    EXPECT_EQ(v.data(), data);
    v.resize(2);
    EXPECT_EQ(v.capacity(), 8U);
    EXPECT_EQ(v.data(), data);
}

TEST(VectorTest, ResizeDownToAQuarterKeepsTheCapacity) {
    Vector<int> v;
    v.resize(800);
    v.resize(200);
    EXPECT_EQ(v.capacity(), 800U);
    EXPECT_EQ(v.size(), 200U);
}

TEST(VectorTest, ResizeDownBelowAQuarterGivesStorageBack) {
    Vector<std::string> v;
    v.resize(800, "kept");
    v.resize(199);
    EXPECT_EQ(v.capacity(), 199U);
    EXPECT_EQ(v.size(), 199U);
    EXPECT_EQ(v[198], "kept");
}

TEST(VectorTest, ResizeDownKeepsRoomForFour) {
    Vector<int> v;
    v.resize(100, 7);
    v.resize(1);
    EXPECT_EQ(v.capacity(), 4U);
    EXPECT_THAT(v, ElementsAre(7));
    v.resize(0);
    EXPECT_EQ(v.capacity(), 4U);
}

TEST(VectorTest, ResizeToTheOwnSizeGivesIdleStorageBack) {
    Vector<int> v;
    v.reserve(100);
    v.push_back(1);
    v.resize(1);
    EXPECT_EQ(v.capacity(), 4U);
}

TEST(VectorTest, ReserveOnlyGrows) {
    Vector<int> v;
    v.reserve(0);
    EXPECT_EQ(v.capacity(), 0U);
    v.reserve(1);
    EXPECT_EQ(v.capacity(), 4U);
    v.reserve(9);
    EXPECT_EQ(v.capacity(), 9U);
    v.reserve(5);
    EXPECT_EQ(v.capacity(), 9U);
}

TEST(VectorTest, ClearKeepsTheStorage) {
    Vector<int> v;
    v.resize(100);
    v.clear();
    EXPECT_EQ(v.capacity(), 100U);
    EXPECT_TRUE(v.empty());
}

// The averaged clear.

TEST(VectorTest, TheFirstAveragedClearTakesTheUseAsItsEstimate) {
    Vector<int> v;
    v.reserve(1024);
    for (int i = 0; i < 100; ++i)
        v.push_back(i);
    ASSERT_EQ(v.capacity(), 1024U);
    v.averagedClear();
    EXPECT_NEAR(v.usageEstimate(), 100, 1e-4);
    EXPECT_EQ(v.size(), 0U);
    EXPECT_EQ(v.capacity(), static_cast<size_t>(v.usageEstimate()));
    EXPECT_NEAR(static_cast<double>(v.capacity()), 100, 1);
}

TEST(VectorTest, AveragedClearOnAnEmptyArrayDoesNothing) {
    Vector<int> v;
    v.resize(1000);
    v.averagedClear();
    const float estimate = v.usageEstimate();
    for (int i = 0; i < 1000; ++i)
        v.averagedClear();
    EXPECT_EQ(v.usageEstimate(), estimate);
    EXPECT_EQ(v.capacity(), 1000U);
}

TEST(VectorTest, TheEstimateFallsByAFifthOfTheUseAndRisesAtOnce) {
    Vector<int> v;
    float expected = 0;
    for (const size_t used : {1000U, 10U, 10U, 500U, 1U, 2000U, 3U}) {
        v.resize(used);
        const auto s = static_cast<float>(used);
        expected = static_cast<float>(static_cast<double>(0.8F * std::max(s, expected)) +
                                      static_cast<double>(s) * 0.19999998807907104);
        v.averagedClear();
        EXPECT_EQ(v.usageEstimate(), expected);
    }
}

TEST(VectorTest, AveragedClearGivesStorageBackOnceTheEstimateFallsBelowAQuarter) {
    Vector<int> v;
    v.resize(1000);
    v.averagedClear();
    int steps = 0;
    while (v.capacity() == 1000) {
        v.push_back(1);
        v.averagedClear();
        ++steps;
        ASSERT_LT(steps, 100);
    }
    // 1000 * 0.8^n is below a quarter of the capacity from n = 7 on.
    EXPECT_EQ(steps, 7);
    EXPECT_EQ(v.capacity(), static_cast<size_t>(v.usageEstimate()));
}

TEST(VectorTest, AveragedClearKeepsRoomForFour) {
    Vector<int> v;
    v.reserve(100);
    v.push_back(1);
    v.averagedClear();
    EXPECT_EQ(v.capacity(), 4U);
}

TEST(VectorTest, AveragedClearDestroysTheElements) {
    Counted::reset();
    Vector<Counted> v;
    v.resize(10);
    v.averagedClear();
    EXPECT_EQ(Counted::alive, 0);
}

// Copies and moves.

TEST(VectorTest, CopyAssignmentAdoptsTheCapacityOfTheSource) {
    Vector<int> source;
    source.reserve(64);
    source.push_back(1);
    source.push_back(2);
    Vector<int> target;
    target.resize(1000);
    target = source;
    EXPECT_EQ(target.capacity(), 64U);
    EXPECT_THAT(target, ElementsAre(1, 2));
}

TEST(VectorTest, CopyAssignmentFromAnEmptyArrayLeavesRoomForFour) {
    Vector<int> target;
    target.resize(1000);
    const Vector<int> source;
    target = source;
    EXPECT_EQ(target.capacity(), 4U);
    EXPECT_TRUE(target.empty());
}

TEST(VectorTest, CopyAssignmentToItselfChangesNothing) {
    Vector<std::string> v{"a", "b"};
    const std::string* data = v.data();
    const Vector<std::string>& same = v;
    v = same;
    EXPECT_THAT(v, ElementsAre("a", "b"));
    EXPECT_EQ(v.data(), data);
}

TEST(VectorTest, CopyAssignmentDestroysTheOldElementsFirst) {
    Counted::reset();
    Vector<Counted> target;
    target.resize(3);
    Vector<Counted> source;
    source.resize(2);
    Counted::throwAfter = 0;
    EXPECT_THROW(target = source, std::runtime_error);
    EXPECT_EQ(target.size(), 0U);
    EXPECT_EQ(Counted::alive, 2);
}

TEST(VectorTest, CopyAssignmentAdoptsTheAllocatorAndReturnsTheOldStorageToItsOwn) {
    {
        Vector<int, ArenaAllocator> target(ArenaAllocator(1));
        Vector<int, ArenaAllocator> source(ArenaAllocator(2));
        target.resize(10);
        source.resize(10);
        EXPECT_EQ(ArenaAllocator::s_blocks[1], 1);
        target = source;
        EXPECT_EQ(target.allocator().arena(), 2);
        EXPECT_EQ(ArenaAllocator::s_blocks[1], 0);
        EXPECT_EQ(ArenaAllocator::s_blocks[2], 2);
    }
    EXPECT_EQ(ArenaAllocator::s_blocks[2], 0);
}

TEST(VectorTest, CopyConstructionCopiesTheElements) {
    const Vector<std::string> source{"a", "b", "c", "d", "e"};
    const Vector<std::string> copy(source);
    EXPECT_EQ(copy, source);
    EXPECT_NE(copy.data(), source.data());
    EXPECT_EQ(Vector<int>(Vector<int>()).capacity(), 0U);
}

TEST(VectorTest, MovesTakeTheStorage) {
    Vector<std::string> source{"a", "b"};
    const std::string* data = source.data();
    Vector<std::string> moved(std::move(source));
    EXPECT_EQ(moved.data(), data);
    EXPECT_TRUE(source.empty()); // NOLINT(bugprone-use-after-move): a moved-from array is empty
    EXPECT_EQ(source.capacity(), 0U);
    Vector<std::string> target{"x"};
    target = std::move(moved);
    EXPECT_EQ(target.data(), data);
    EXPECT_THAT(target, ElementsAre("a", "b"));
}

TEST(VectorTest, HoldsElementsThatCanOnlyMove) {
    Vector<std::unique_ptr<int>> v;
    for (int i = 0; i < 100; ++i)
        v.push_back(std::make_unique<int>(i));
    v.erase(v.begin());
    EXPECT_EQ(*v[0], 1);
    EXPECT_EQ(*v.back(), 99);
}

// Elements of the array itself as arguments.

TEST(VectorTest, PushBackOfAnOwnElementAtTheMomentOfGrowth) {
    Vector<std::string> v;
    for (int i = 0; i < 4; ++i)
        v.push_back("a text too long for the small string optimisation " + std::to_string(i));
    ASSERT_EQ(v.size(), v.capacity());
    v.push_back(v[0]);
    EXPECT_EQ(v[4], v[0]);
    EXPECT_EQ(v[4], "a text too long for the small string optimisation 0");
}

TEST(VectorTest, ResizeWithAnOwnElement) {
    Vector<std::string> v{"a text too long for the small string optimisation"};
    v.resize(50, v[0]);
    EXPECT_EQ(v[49], v[0]);
    EXPECT_EQ(v[49], "a text too long for the small string optimisation");
}

TEST(VectorTest, InsertOfAnOwnElement) {
    Vector<std::string> v{"a", "b", "c", "d"};
    v.insert(v.begin(), v[3]);
    EXPECT_THAT(v, ElementsAre("d", "a", "b", "c", "d"));
}

// Insertion, removal and search.

TEST(VectorTest, InsertMovesTheLaterElementsUp) {
    Vector<int> v{1, 2, 4};
    int* place = v.insert(v.begin() + 2, 3);
    EXPECT_EQ(place, v.begin() + 2);
    EXPECT_THAT(v, ElementsAre(1, 2, 3, 4));
    v.insert(v.end(), 5);
    EXPECT_THAT(v, ElementsAre(1, 2, 3, 4, 5));
}

TEST(VectorTest, EraseMovesTheLaterElementsDown) {
    Vector<std::string> v{"a", "b", "c", "d", "e"};
    std::string* next = v.erase(v.begin() + 1);
    EXPECT_EQ(*next, "c");
    EXPECT_THAT(v, ElementsAre("a", "c", "d", "e"));
    next = v.erase(v.begin() + 2, v.end());
    EXPECT_EQ(next, v.end());
    EXPECT_THAT(v, ElementsAre("a", "c"));
    v.erase(v.begin(), v.begin());
    EXPECT_EQ(v.size(), 2U);
}

TEST(VectorTest, PopBackTakesTheLastOne) {
    Vector<int> v{1, 2, 3};
    v.pop_back();
    EXPECT_EQ(v.front(), 1);
    EXPECT_EQ(v.back(), 2);
}

TEST(VectorTest, FindGivesTheFirstEqualElementOrTheEnd) {
    Vector<int> v{1, 2, 3, 2};
    EXPECT_EQ(v.find(2), v.begin() + 1);
    EXPECT_EQ(v.find(9), v.end());
    EXPECT_TRUE(v.contains(3));
    EXPECT_TRUE(v.findAndErase(2));
    EXPECT_THAT(v, ElementsAre(1, 3, 2));
    EXPECT_FALSE(v.findAndErase(9));
}

// Constructors and destructors.

TEST(VectorTest, EveryConstructionIsMatchedByADestruction) {
    Counted::reset();
    {
        Vector<Counted> v;
        for (int i = 0; i < 100; ++i)
            v.push_back(Counted(i));
        v.erase(v.begin() + 10, v.begin() + 20);
        v.insert(v.begin() + 5, Counted(1));
        v.resize(10);
        Vector<Counted> copy(v);
        copy = v;
        EXPECT_EQ(Counted::alive, 20);
    }
    EXPECT_EQ(Counted::alive, 0);
    EXPECT_EQ(Counted::constructed, Counted::destroyed);
}

TEST(VectorTest, ReserveConstructsNothing) {
    Counted::reset();
    Vector<Counted> v;
    v.reserve(100);
    EXPECT_EQ(Counted::constructed, 0);
    v.emplace_back(1);
    EXPECT_EQ(Counted::constructed, 1);
}

TEST(VectorTest, DestroysInAscendingOrder) {
    static std::vector<int> order;
    struct Noting {
        int id;
        explicit Noting(int i) : id(i) {}
        Noting(const Noting&) = default;
        Noting& operator=(const Noting&) = default;
        ~Noting() { order.push_back(id); }
    };
    {
        Vector<Noting> v;
        v.reserve(3);
        for (int i = 0; i < 3; ++i)
            v.emplace_back(i);
        order.clear();
    }
    EXPECT_THAT(order, ElementsAre(0, 1, 2));
}

TEST(VectorTest, ElementsKeepTheirOwnAlignment) {
    struct alignas(64) Line {
        char bytes[64];
    };
    Vector<Line> v;
    for (int i = 0; i < 10; ++i) {
        v.emplace_back();
        EXPECT_EQ(reinterpret_cast<zel::uint64>(v.data()) % 64, 0U);
    }
}

// Exceptions.

TEST(VectorTest, APushBackThatThrowsWhileGrowingLeavesTheArrayAsItWas) {
    for (int throwAfter = 0; throwAfter < 5; ++throwAfter) {
        Counted::reset();
        {
            Vector<Counted> v;
            for (int i = 0; i < 4; ++i)
                v.emplace_back(i);
            const Counted five(5);
            Counted::throwAfter = throwAfter;
            EXPECT_THROW(v.push_back(five), std::runtime_error);
            EXPECT_EQ(v.size(), 4U);
            EXPECT_EQ(v.capacity(), 4U);
            for (int i = 0; i < 4; ++i)
                EXPECT_EQ(v[static_cast<size_t>(i)].value, i);
        }
        EXPECT_EQ(Counted::alive, 0);
    }
}

TEST(VectorTest, AResizeThatThrowsKeepsTheOldElements) {
    Counted::reset();
    {
        Vector<Counted> v;
        v.resize(3, Counted(7));
        Counted::throwAfter = 5;
        EXPECT_THROW(v.resize(10), std::runtime_error);
        EXPECT_EQ(v.size(), 3U);
        EXPECT_EQ(v[2].value, 7);
    }
    EXPECT_EQ(Counted::alive, 0);
}

TEST(VectorTest, AConstructorThatThrowsLeaksNothing) {
    Counted::reset();
    {
        Vector<Counted> source;
        source.resize(5);
        Counted::throwAfter = 3;
        EXPECT_THROW(Vector<Counted> copy(source), std::runtime_error);
        Counted::throwAfter = 3;
        EXPECT_THROW(Vector<Counted> sized(5), std::runtime_error);
    }
    EXPECT_EQ(Counted::alive, 0);
}

// VectorPOD.

struct Pod {
    static inline int constructed = 0;
    Pod() { ++constructed; }
    explicit Pod(int v) : value(v) { ++constructed; }
    int value = 0;
};
static_assert(std::is_trivially_copyable_v<Pod>);

TEST(VectorPODTest, ConstructsNothingBeyondWhatIsAskedFor) {
    VectorPOD<Pod> v;
    v.reserve(100);
    EXPECT_EQ(Pod::constructed, 0);
    v.emplace_back(1);
    EXPECT_EQ(Pod::constructed, 1);
    for (int i = 0; i < 3; ++i)
        v.push_back(v[0]);
    const VectorPOD<Pod> copy(v);
    v.reserve(1000);
    v = copy;
    EXPECT_EQ(Pod::constructed, 1);
    EXPECT_EQ(v.size(), 4U);
    EXPECT_EQ(v[3].value, 1);
}

TEST(VectorPODTest, ResizeFillsWithZeroOrTheGivenValue) {
    VectorPOD<int> v;
    v.resize(3);
    v.resize(5, 9);
    EXPECT_THAT(v, ElementsAre(0, 0, 0, 9, 9));
}

TEST(VectorPODTest, PushBackOfAnOwnElementAtTheMomentOfGrowth) {
    VectorPOD<int> v{11, 22, 33, 44};
    v.push_back(v[1]);
    EXPECT_THAT(v, ElementsAre(11, 22, 33, 44, 22));
}

TEST(VectorPODTest, ErasesAndInserts) {
    VectorPOD<int> v{1, 2, 3, 4, 5};
    v.erase(v.begin() + 1, v.begin() + 3);
    v.insert(v.begin(), 0);
    EXPECT_THAT(v, ElementsAre(0, 1, 4, 5));
    v.erase(v.begin(), v.end());
    EXPECT_TRUE(v.empty());
}

TEST(VectorDeathTest, ASizeWhoseBytesDoNotFitIsFatal) {
    VectorPOD<double> v;
    volatile size_t huge = size_t{1} << 62;
    EXPECT_DEATH(v.reserve(huge),
                 testing::HasSubstr("zelVerify failed: `buf', ByteAllocator: malloc could not allocate "
                                    "18446744073709551615 bytes!\n"));
}

// Against the standard's array.

template <typename Array, typename MakeElement>
void compareWithStandardVector(MakeElement make) {
    using T = typename Array::value_type;
    std::mt19937 random(20240531);
    Array ours;
    std::vector<T> theirs;
    const auto position = [&random](size_t size) { return size == 0 ? 0 : random() % size; };
    for (int step = 0; step < 20'000; ++step) {
        const T value = make(random());
        switch (random() % 10) {
        case 0:
        case 1:
        case 2:
            ours.push_back(value);
            theirs.push_back(value);
            break;
        case 3: {
            const size_t at = position(theirs.size() + 1);
            ours.insert(ours.begin() + at, value);
            theirs.insert(theirs.begin() + static_cast<std::ptrdiff_t>(at), value);
            break;
        }
        case 4: {
            const size_t first = position(theirs.size() + 1);
            const size_t last = first + position(std::min(theirs.size() - first, size_t{3}) + 1);
            ours.erase(ours.begin() + first, ours.begin() + last);
            theirs.erase(theirs.begin() + static_cast<std::ptrdiff_t>(first),
                         theirs.begin() + static_cast<std::ptrdiff_t>(last));
            break;
        }
        case 5:
            if (!theirs.empty()) {
                ours.pop_back();
                theirs.pop_back();
            }
            break;
        case 6: {
            const size_t size = random() % 60;
            ours.resize(size, value);
            theirs.resize(size, value);
            break;
        }
        case 7: {
            const Array copy(ours);
            ours = copy;
            break;
        }
        case 8:
            EXPECT_EQ(ours.contains(value), std::find(theirs.begin(), theirs.end(), value) != theirs.end());
            ours.reserve(random() % 100);
            break;
        default:
            if (random() % 50 == 0) {
                ours.averagedClear();
                theirs.clear();
            }
        }
        ASSERT_TRUE(std::equal(ours.begin(), ours.end(), theirs.begin(), theirs.end())) << "step " << step;
        ASSERT_GE(ours.capacity(), ours.size());
        ASSERT_TRUE(ours.capacity() == 0 || ours.capacity() >= 4);
    }
}

TEST(VectorTest, BehavesLikeTheStandardVector) {
    compareWithStandardVector<Vector<std::string>>(
        [](zel::uint64 value) { return std::to_string(value % 100) + std::string(value % 40, 'x'); });
}

TEST(VectorPODTest, BehavesLikeTheStandardVector) {
    compareWithStandardVector<VectorPOD<zel::uint64>>([](zel::uint64 value) { return value % 100; });
}

} // namespace
