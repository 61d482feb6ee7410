#include <zel/BatchAllocator.h>
#include <zel/MemoryPool.h>

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <set>
#include <stdexcept>
#include <vector>

using zel::BatchAllocator;
using zel::MemoryPool;

namespace {

size_t sizeOf(const BatchAllocator::Chunk* chunk) {
    return static_cast<size_t>(chunk->end - chunk->begin);
}

size_t numChunks(const BatchAllocator& allocator) {
    size_t count = 0;
    for (const auto* chunk = allocator.getNewestChunk(); chunk != nullptr; chunk = chunk->older)
        ++count;
    return count;
}

bool isAligned(const void* pointer, size_t alignment) {
    return reinterpret_cast<zel::uint64>(pointer) % alignment == 0;
}

/// Counts who lives, and is destroyed through its base.
struct Base {
    explicit Base(int n) : number(n) {
        if (n < 0)
            throw std::invalid_argument("negative");
        living.insert(this);
    }
    Base(const Base&) = delete;
    Base& operator=(const Base&) = delete;
    virtual ~Base() { living.erase(this); }
    int number;
    static inline std::set<Base*> living;
};
struct Element : Base {
    using Base::Base;
    ~Element() override { ++numDestroyed; }
    static inline int numDestroyed = 0;
};

} // namespace

TEST(BatchAllocatorTest, HandsOutAlignedPlaces) {
    BatchAllocator allocator("a", 1000);
    EXPECT_TRUE(isAligned(allocator.getNewestChunk()->begin, BatchAllocator::ChunkAlignment));
    EXPECT_EQ(sizeOf(allocator.getNewestChunk()), 1000U);
    auto* first = static_cast<char*>(allocator.allocate(3, 1));
    auto* second = static_cast<char*>(allocator.allocate(8, 8));
    auto* third = static_cast<char*>(allocator.allocate(1, 128));
    EXPECT_EQ(second, first + 8);
    EXPECT_EQ(third, first + 128);
    EXPECT_EQ(numChunks(allocator), 1U);
}

TEST(BatchAllocatorTest, EachChunkIsHalfAsLargeAgain) {
    BatchAllocator allocator("a", 101);
    EXPECT_EQ(allocator.getChunkSize(), 151U);
    std::memset(allocator.allocate(100, 1), 1, 100);
    std::memset(allocator.allocate(100, 1), 2, 100);
    EXPECT_EQ(numChunks(allocator), 2U);
    EXPECT_EQ(sizeOf(allocator.getNewestChunk()), 151U);
    EXPECT_EQ(allocator.getChunkSize(), 226U);
    std::memset(allocator.allocate(1000, 1), 3, 1000);
    EXPECT_EQ(sizeOf(allocator.getNewestChunk()), 1000U);
    EXPECT_EQ(allocator.getChunkSize(), 1500U);
    allocator.createChunk(10);
    EXPECT_EQ(allocator.getChunkSize(), 15U);
    EXPECT_EQ(numChunks(allocator), 4U);
}

TEST(BatchAllocatorTest, FitsInOneChunkTheNextTime) {
    BatchAllocator allocator("a", 100);
    for (int i = 0; i < 10; ++i)
        static_cast<void>(allocator.allocate(90, 1));
    EXPECT_GT(numChunks(allocator), 1U);
    allocator.clear();
    EXPECT_EQ(numChunks(allocator), 1U);
    EXPECT_EQ(sizeOf(allocator.getNewestChunk()), 900U);
}

TEST(BatchAllocatorTest, ClearMakesAChunkOfSixtyFourBytesAtLeast) {
    BatchAllocator allocator("a", 1000);
    static_cast<void>(allocator.allocate(63, 1));
    allocator.clear();
    EXPECT_EQ(sizeOf(allocator.getNewestChunk()), 64U);
    EXPECT_EQ(allocator.getChunkSize(), 96U);
}

TEST(BatchAllocatorTest, WorksAfterAllChunksWereDeleted) {
    BatchAllocator allocator("a", 100);
    allocator.deleteAllChunks();
    EXPECT_EQ(allocator.getNewestChunk(), nullptr);
    EXPECT_NE(allocator.allocate(10, 8), nullptr);
    EXPECT_EQ(sizeOf(allocator.getNewestChunk()), 150U);
    allocator.deleteAllChunks();
    allocator.clear();
    EXPECT_EQ(sizeOf(allocator.getNewestChunk()), 64U);
}

TEST(BatchAllocatorTest, CopiesHaveChunksOfTheirOwn) {
    BatchAllocator allocator("a", 100);
    static_cast<void>(allocator.allocate(90, 1));
    BatchAllocator copy(allocator);
    EXPECT_NE(copy.getNewestChunk(), allocator.getNewestChunk());
    EXPECT_EQ(sizeOf(copy.getNewestChunk()), 150U);
    BatchAllocator other("b", 7);
    other = copy;
    EXPECT_EQ(sizeOf(other.getNewestChunk()), 225U);
    EXPECT_EQ(numChunks(other), 1U);
}

TEST(BatchAllocatorTest, TheSizeOfTheNextChunkStaysInRange) {
    BatchAllocator allocator("a", 3000000000U); // never touched
    EXPECT_EQ(allocator.getChunkSize(), 4294967295U);
}

TEST(MemoryPoolTest, UsesFreedPlacesAgain) {
    MemoryPool<Element> pool("p", 1000);
    Element* a = pool.allocate(1);
    Element* b = pool.allocate(2);
    EXPECT_EQ(pool.size(), 2U);
    EXPECT_EQ(b->number, 2);
    pool.deallocate(a);
    pool.deallocateVirtual(b);
    pool.deallocate(nullptr);
    EXPECT_EQ(pool.size(), 0U);
    EXPECT_TRUE(Base::living.empty());
    EXPECT_EQ(pool.allocate(3), b);
    EXPECT_EQ(pool.allocate(4), a);
    EXPECT_EQ(pool.size(), 2U);
}

TEST(MemoryPoolTest, ClearDestroysEachLivingElementOnce) {
    Element::numDestroyed = 0;
    {
        MemoryPool<Element> pool("p", 100);
        std::vector<Element*> elements;
        for (int i = 0; i < 100; ++i)
            elements.push_back(pool.allocate(i));
        for (size_t i = 0; i < 100; i += 3)
            pool.deallocate(elements[i]);
        EXPECT_EQ(Element::numDestroyed, 34);
        pool.clear();
        EXPECT_EQ(Element::numDestroyed, 100);
        EXPECT_EQ(pool.size(), 0U);
        static_cast<void>(pool.allocate(1));
        EXPECT_EQ(pool.size(), 1U);
    }
    EXPECT_EQ(Element::numDestroyed, 101);
    EXPECT_TRUE(Base::living.empty());
}

TEST(MemoryPoolTest, ADestructorMayGiveAnotherElementBackWhileAllAreCleared) {
    struct Owner {
        explicit Owner(MemoryPool<Owner>& owners, int& count) : pool(owners), destroyed(count) {}
        ~Owner() {
            ++destroyed;
            pool.deallocate(owned);
        }
        MemoryPool<Owner>& pool;
        int& destroyed;
        Owner* owned = nullptr;
    };
    int destroyed = 0;
    MemoryPool<Owner> pool("p", 256);
    for (const bool olderOwns : {true, false}) {
        for (int i = 0; i < 50; ++i) {
            Owner* const older = pool.allocate(pool, destroyed);
            Owner* const newer = pool.allocate(pool, destroyed);
            (olderOwns ? older : newer)->owned = olderOwns ? newer : older;
        }
        pool.clear();
    }
    EXPECT_EQ(destroyed, 200);
    EXPECT_EQ(pool.size(), 0U);
}

#ifndef NDEBUG
TEST(MemoryPoolDeathTest, AnElementThatIsGivenBackTwiceIsFatal) {
    MemoryPool<int> pool("p", 256);
    int* const element = pool.allocate(1);
    pool.deallocate(element);
    EXPECT_DEATH(pool.deallocate(element), "MemoryPool: the element 0x[0-9a-f]+ was given back twice");
}
#endif

TEST(MemoryPoolTest, AThrowingConstructorLeavesThePlaceFree) {
    MemoryPool<Element> pool("p", 1000);
    EXPECT_THROW(static_cast<void>(pool.allocate(-1)), std::invalid_argument);
    EXPECT_EQ(pool.size(), 0U);
    static_cast<void>(pool.allocate(1));
    EXPECT_EQ(pool.size(), 1U);
}

TEST(MemoryPoolTest, HoldsSmallAndAlignedElements) {
    MemoryPool<char> small("s", 64);
    std::set<char*> places;
    for (int i = 0; i < 100; ++i)
        places.insert(small.allocate('x'));
    EXPECT_EQ(places.size(), 100U);
    for (char* place : places)
        small.deallocate(place);
    struct alignas(64) Wide {
        char bytes[3];
    };
    MemoryPool<Wide> wide("w", 100);
    for (int i = 0; i < 10; ++i)
        EXPECT_TRUE(isAligned(wide.allocate(), 64));
}

TEST(MemoryPoolTest, RandomUseKeepsElementsApart) {
    std::mt19937 random(5);
    MemoryPool<Element> pool("p", 64);
    std::vector<Element*> elements;
    for (int step = 0; step < 20000; ++step) {
        if (elements.empty() || random() % 5 < 3) {
            elements.push_back(pool.allocate(step));
        } else {
            const size_t index = random() % elements.size();
            ASSERT_TRUE(Base::living.contains(elements[index]));
            pool.deallocate(elements[index]);
            elements[index] = elements.back();
            elements.pop_back();
        }
        ASSERT_EQ(pool.size(), elements.size());
    }
    EXPECT_EQ(Base::living.size(), elements.size());
    if (random() % 2 == 0)
        pool.clear();
}
