#include <zel/ByteAllocator.h>
#include <zelData/SpareBlocks.h>

#include <gtest/gtest.h>

using zel::ByteAllocator;
using zelData::SpareBlocks;

namespace {

void* block(size_t size) {
    return ByteAllocator::standaloneAllocateBytes(size);
}

} // namespace

TEST(SpareBlocksTest, GivesBackWhatIsOfTheSizeAndNothingElse) {
    SpareBlocks spares;
    EXPECT_EQ(spares.take(32), nullptr);
    void* const small = block(32);
    void* const large = block(64);
    spares.give(small, 32);
    spares.give(large, 64);
    EXPECT_EQ(spares.take(48), nullptr);
    EXPECT_EQ(spares.take(64), large);
    EXPECT_EQ(spares.take(64), nullptr);
    EXPECT_EQ(spares.take(32), small);
    EXPECT_EQ(spares.size(), 0U);
    spares.give(small, 32); // which goes with it
    ByteAllocator::standaloneDeallocateTypes(large);
}

TEST(SpareBlocksTest, NothingIsNoBlock) {
    SpareBlocks spares;
    spares.give(nullptr, 32);
    EXPECT_EQ(spares.size(), 0U);
}

TEST(SpareBlocksTest, TrimReleasesWhatIsNotInUse) {
    SpareBlocks spares;
    spares.give(block(32), 32);
    spares.give(block(64), 64);
    spares.trim(); // both have been given since the last time
    EXPECT_EQ(spares.size(), 2U);
    spares.give(spares.take(64), 64);
    spares.trim();
    EXPECT_EQ(spares.size(), 1U);
    EXPECT_EQ(spares.take(32), nullptr);
    spares.trim();
    EXPECT_EQ(spares.size(), 0U);
}
