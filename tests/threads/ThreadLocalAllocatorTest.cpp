#include <zel/Referenced.h>
#include <zel/String.h>
#include <zel/Thread.h>
#include <zel/ThreadLocalAllocator.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <cstdint>
#include <memory>
#include <string>

namespace {

class ThreadLocalAllocatorTest : public testing::Test {
protected:
    void SetUp() override { zelCore::init(); }
    void TearDown() override { zelCore::shutdown(); }
};

template <typename T>
using LocalVector = zel::Vector<T, zel::ThreadLocalAllocator>;

} // namespace

TEST_F(ThreadLocalAllocatorTest, BlocksLieBehindEachOtherInStepsOf32) {
    zel::ThreadLocalAllocator allocator;
    static_cast<void>(allocator.allocateBytes(4096)); // room for what follows
    auto* first = static_cast<char*>(allocator.allocateBytes(1));
    auto* second = static_cast<char*>(allocator.allocateBytes(33));
    auto* third = static_cast<char*>(allocator.allocateBytes(1));
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(first) % 32, 0U);
    EXPECT_EQ(third - second, 64);
    static_cast<void>(second);
}

TEST_F(ThreadLocalAllocatorTest, OnlyTheLastBlockIsGivenBack) {
    zel::ThreadLocalAllocator allocator;
    void* warm = allocator.allocateBytes(4096);
    allocator.deallocateBytes(warm, 4096);
    void* first = allocator.allocateBytes(32);
    void* second = allocator.allocateBytes(32);
    allocator.deallocateBytes(first, 32);
    void* third = allocator.allocateBytes(32);
    EXPECT_EQ(third, static_cast<char*>(second) + 32);
    allocator.deallocateBytes(third, 32);
    EXPECT_EQ(allocator.allocateBytes(32), third);
    allocator.deallocateBytes(nullptr, 32);
}

TEST_F(ThreadLocalAllocatorTest, ArraysFollowWhenTheMemoryMoves) {
    LocalVector<int> first;
    LocalVector<int> second;
    for (int i = 0; i < 10000; ++i) {
        first.push_back(i);
        second.push_back(-i);
    }
    for (size_t i = 0; i < 10000; ++i) {
        ASSERT_EQ(first[i], static_cast<int>(i));
        ASSERT_EQ(second[i], -static_cast<int>(i));
    }
}

TEST_F(ThreadLocalAllocatorTest, LastArrayToGoFreesTheMemoryForReuse) {
    const void* place = nullptr;
    { LocalVector<int> warm(1000, 1); }
    for (int round = 0; round < 3; ++round) {
        LocalVector<int> values(100, round);
        if (place == nullptr)
            place = values.data();
        EXPECT_EQ(values.data(), place);
        EXPECT_EQ(values[99], round);
    }
}

namespace {

/// An element that counts how many of it there are, and does not mind where it lies.
class Counted {
public:
    explicit Counted(int number) : m_number(new int(number)) { ++s_count; }
    Counted(const Counted& other) : Counted(other.get()) {}
    Counted& operator=(const Counted& other) {
        *m_number = other.get();
        return *this;
    }
    ~Counted() {
        delete m_number;
        --s_count;
    }
    [[nodiscard]] int get() const { return *m_number; }

    static int s_count;

private:
    int* m_number;
};
int Counted::s_count = 0;

} // namespace

template <>
inline constexpr bool zel::MovesByBytes<Counted> = true;

TEST_F(ThreadLocalAllocatorTest, HoldsElementsWithDestructors) {
    {
        LocalVector<Counted> elements;
        LocalVector<std::unique_ptr<int>> pointers;
        for (int i = 0; i < 1000; ++i) {
            elements.push_back(Counted(i));
            pointers.push_back(std::make_unique<int>(i));
        }
        const LocalVector<Counted> copy(elements);
        elements = copy;
        for (int i = 0; i < 1000; ++i) {
            ASSERT_EQ(elements[static_cast<size_t>(i)].get(), i);
            ASSERT_EQ(copy[static_cast<size_t>(i)].get(), i);
            ASSERT_EQ(*pointers[static_cast<size_t>(i)], i);
        }
        EXPECT_EQ(Counted::s_count, 2000);
    }
    EXPECT_EQ(Counted::s_count, 0);
}

TEST_F(ThreadLocalAllocatorTest, ElementsThatPointIntoThemselvesAreRefused) {
    // What the static assertion of setContainer asks.
    EXPECT_FALSE(zel::MovesByBytes<std::string>);
    EXPECT_FALSE(zel::MovesByBytes<zel::String>);
    EXPECT_FALSE(zel::MovesByBytes<LocalVector<int>>);
    EXPECT_TRUE(zel::MovesByBytes<zel::uint64>);
    EXPECT_TRUE(zel::MovesByBytes<zel::ref_ptr<zel::Referenced>>);
}

TEST(ThreadLocalAllocatorDeathTest, NeedsAThreadOfTheSystem) {
    zel::ThreadLocalAllocator allocator;
    EXPECT_DEATH(static_cast<void>(allocator.allocateBytes(1)), "zelVerify failed: `thread != nullptr'");
}
