#include <zel/Random.h>

#include <gtest/gtest.h>

#include <thread>

namespace {

TEST(RandomTest, StartsWithTheStandardDefaultSeed) {
    std::thread fresh([] {
        std::mt19937 reference(5489);
        for (int i = 0; i < 100; ++i)
            EXPECT_EQ(zel::getRandGenerator()(), reference());
    });
    fresh.join();
}

TEST(RandomTest, EachThreadStartsTheSameSequence) {
    zel::getRandGenerator().discard(7);
    std::mt19937::result_type first = 0;
    std::thread other([&first] { first = zel::getRandGenerator()(); });
    other.join();
    EXPECT_EQ(first, std::mt19937()());
}

} // namespace
