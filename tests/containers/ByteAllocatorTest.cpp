#include <zel/ByteAllocator.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <vector>

namespace {

using testing::HasSubstr;
using zel::ByteAllocator;

std::vector<int> bytesOf(const void* block, size_t size) {
    const auto* bytes = static_cast<const unsigned char*>(block);
    return {bytes, bytes + size};
}

TEST(ByteAllocatorTest, SizeZeroGivesNull) {
    EXPECT_EQ(ByteAllocator().allocateBytes(0, 16), nullptr);
    EXPECT_EQ(ByteAllocator::standaloneAllocateBytes(0, 16), nullptr);
}

TEST(ByteAllocatorTest, NullIsReleasedWithoutEffect) {
    ByteAllocator().deallocateBytes(nullptr, 100);
    ByteAllocator::standaloneDeallocateTypes(nullptr);
}

TEST(ByteAllocatorTest, BlocksAreAlignedAndWhollyWritable) {
    ByteAllocator allocator;
    for (const size_t alignment : {8U, 16U, 64U, 4096U})
        for (size_t size = 1; size < 70; ++size) {
            void* block = allocator.allocateBytes(size, alignment);
            EXPECT_EQ(reinterpret_cast<zel::uint64>(block) % alignment, 0U);
            std::memset(block, 0x5A, size);
            allocator.deallocateBytes(block, size);
        }
}

TEST(ByteAllocatorTest, AlignsTo16ByDefault) {
    void* block = ByteAllocator::standaloneAllocateBytes(3);
    EXPECT_EQ(reinterpret_cast<zel::uint64>(block) % 16, 0U);
    ByteAllocator::standaloneDeallocateTypes(block);
}

TEST(ByteAllocatorTest, TheAllocationsAddressLiesInTheEightBytesBeforeTheBlock) {
    void* block = ByteAllocator::standaloneAllocateBytes(100, 16);
    zel::uint64 stored = 0;
    std::memcpy(&stored, static_cast<char*>(block) - 8, sizeof(stored));
    EXPECT_EQ(reinterpret_cast<zel::uint64>(block), (stored + 16 + 7) & ~zel::uint64{15});
    ByteAllocator::standaloneDeallocateTypes(block);
}

TEST(ByteAllocatorTest, MemoryIsNotFilledByDefault) {
    EXPECT_FALSE(ByteAllocator::initMemoryFlag);
    EXPECT_EQ(ByteAllocator::allocatedMemoryPattern, 0xDEADBEEFU);
    EXPECT_EQ(ByteAllocator::deallocatedMemoryPattern, 0x55555555U);
}

TEST(ByteAllocatorTest, FreshMemoryIsFilledWithThePatternAndItsLowBytesAtTheTail) {
    ByteAllocator::initMemoryFlag = true;
    for (size_t size = 4; size < 8; ++size) {
        void* block = ByteAllocator::standaloneAllocateBytes(size, 16);
        std::vector<int> expected = {0xEF, 0xBE, 0xAD, 0xDE, 0xEF, 0xBE, 0xAD};
        expected.resize(size);
        EXPECT_EQ(bytesOf(block, size), expected);
        ByteAllocator::standaloneDeallocateTypes(block);
    }
}

TEST(ByteAllocatorTest, ThePatternsCanBeChosen) {
    ByteAllocator::initMemoryFlag = true;
    ByteAllocator::allocatedMemoryPattern = 0x04030201;
    void* block = ByteAllocator::standaloneAllocateBytes(6, 16);
    EXPECT_EQ(bytesOf(block, 6), (std::vector<int>{1, 2, 3, 4, 1, 2}));
    ByteAllocator::standaloneDeallocateTypes(block);
}

/// Looks at a block after its release: the block lies in memory of the test's own, with a null ahead of
/// it where the allocation's address would be.
TEST(ByteAllocatorTest, MemoryIsFilledBeforeItsRelease) {
    ByteAllocator::initMemoryFlag = true;
    alignas(16) unsigned char memory[64];
    std::memset(memory, 0, sizeof(memory));
    void* none = nullptr; // free() ignores it
    std::memcpy(memory + 8, &none, sizeof(none));
    ByteAllocator().deallocateBytes(memory + 16, 7);
    EXPECT_EQ(bytesOf(memory + 16, 8), (std::vector<int>{0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0x55, 0}));
}

TEST(ByteAllocatorTest, ABlockKeepsItsBytesAndItsAlignmentInAnotherSize) {
    std::vector<uint32_t> content(5'000'000);
    std::iota(content.begin(), content.end(), 1U);
    for (const size_t alignment : {size_t{8}, size_t{64}, size_t{4096}}) {
        SCOPED_TRACE(alignment);
        void* block = nullptr;
        size_t old = 0;
        for (const size_t size : {1U, 100U, 99U, 5000U, 200'000U, 6'000'000U, 20'000'000U, 300'000U, 7U}) {
            block = ByteAllocator::tryReallocateBytes(block, old, size, alignment);
            ASSERT_NE(block, nullptr);
            EXPECT_EQ(reinterpret_cast<zel::uint64>(block) % alignment, 0U);
            ASSERT_EQ(std::memcmp(block, content.data(), std::min(old, size)), 0);
            std::memcpy(block, content.data(), size);
            old = size;
        }
        ByteAllocator::standaloneDeallocateTypes(block);
    }
}

TEST(ByteAllocatorTest, ABlockStaysWhereThereIsNoMemoryForAnotherSize) {
    void* const block = ByteAllocator::tryAllocateBytes(3, 16);
    std::memcpy(block, "abc", 3);
    volatile size_t huge = ~size_t{0};
    EXPECT_EQ(ByteAllocator::tryReallocateBytes(block, 3, huge, 16), nullptr);
    huge = size_t{1} << 60;
    EXPECT_EQ(ByteAllocator::tryReallocateBytes(block, 3, huge, 16), nullptr);
    ByteAllocator::triesUntilFailure = 0;
    EXPECT_EQ(ByteAllocator::tryReallocateBytes(block, 3, 100, 16), nullptr);
    EXPECT_EQ(std::memcmp(block, "abc", 3), 0);
    ByteAllocator::initMemoryFlag = true;
    ByteAllocator::allocatedMemoryPattern = 0xDEADBEEF;
    auto* const filled = static_cast<unsigned char*>(ByteAllocator::tryReallocateBytes(block, 3, 8, 16));
    EXPECT_EQ(bytesOf(filled, 8), (std::vector<int>{'a', 'b', 'c', 0xDE, 0xEF, 0xBE, 0xAD, 0xDE}));
    ByteAllocator::standaloneDeallocateTypes(filled);
}

TEST(ByteAllocatorDeathTest, AFailedMallocIsFatal) {
    volatile size_t huge = size_t{1} << 60; // more than an address space holds
    EXPECT_DEATH(static_cast<void>(ByteAllocator::standaloneAllocateBytes(huge, 16)),
                 HasSubstr("zelVerify failed: `buf', ByteAllocator: malloc could not allocate "
                           "1152921504606846976 bytes!\n"));
}

TEST(ByteAllocatorDeathTest, ASizeThatOverflowsWithItsAlignmentIsFatal) {
    volatile size_t huge = ~size_t{0};
    EXPECT_DEATH(static_cast<void>(ByteAllocator().allocateBytes(huge, 16)),
                 HasSubstr("zelVerify failed: `buf', ByteAllocator: malloc could not allocate "
                           "18446744073709551615 bytes!\n"));
}

} // namespace
