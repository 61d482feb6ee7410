#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/RandomGenerator.h>

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

using zel::ref_ptr;
using zel::uint64;
using zelData::RandomGenerator;

namespace {

class RandomGeneratorTest : public testing::Test {
protected:
    void SetUp() override {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        zelCore::init();
    }
    void TearDown() override { zelCore::shutdown(); }

    static zelData::Buffer* stateOf(const RandomGenerator& generator) {
        return dynamic_cast<zelData::Buffer*>(generator.findObject("state"));
    }
};

TEST_F(RandomGeneratorTest, DrawsWhatTheStandardGeneratorDraws) {
    for (const uint64 seed : {uint64{5489}, uint64{0}, uint64{42}, ~uint64{0}}) {
        const ref_ptr<RandomGenerator> generator(new RandomGenerator("random", seed));
        std::mt19937_64 standard(seed);
        for (int i = 0; i < 2000; ++i)
            ASSERT_EQ((*generator)(), standard()) << "seed " << seed << " draw " << i;
    }
    // The standard tells this one number.
    const ref_ptr<RandomGenerator> generator(new RandomGenerator("random"));
    for (int i = 0; i < 9999; ++i)
        (void)(*generator)();
    EXPECT_EQ((*generator)(), 9981545732273789042U);
}

TEST_F(RandomGeneratorTest, ServesDistributions) {
    const ref_ptr<RandomGenerator> generator(new RandomGenerator("random", 3));
    std::mt19937_64 standard(3);
    EXPECT_EQ(std::uniform_int_distribution<int>(0, 99)(*generator),
              std::uniform_int_distribution<int>(0, 99)(standard));
}

TEST_F(RandomGeneratorTest, GoesOnFromAStateThatIsPutBack) {
    const ref_ptr<RandomGenerator> first(new RandomGenerator("random", 1));
    for (int i = 0; i < 500; ++i)
        (void)(*first)();
    const ref_ptr<RandomGenerator> second(new RandomGenerator("random", 2));
    std::memcpy(stateOf(*second)->getPtr(), stateOf(*first)->getPtr(), 313 * sizeof(uint64));
    for (int i = 0; i < 500; ++i)
        ASSERT_EQ((*first)(), (*second)());
}

TEST_F(RandomGeneratorTest, BeginsAnewWithItsSeed) {
    const ref_ptr<RandomGenerator> generator(new RandomGenerator("random", 8));
    const uint64 first = (*generator)();
    (void)(*generator)();
    generator->setSeed(8);
    EXPECT_EQ((*generator)(), first);
    generator->setSeed(9);
    EXPECT_EQ(generator->getSeed(), 9U);
    EXPECT_EQ((*generator)(), std::mt19937_64(9)());
}

TEST_F(RandomGeneratorTest, AStateOfAnotherSizeEndsTheProcess) {
    const ref_ptr<RandomGenerator> generator(new RandomGenerator("random"));
    stateOf(*generator)->resize(3);
    EXPECT_DEATH((void)(*generator)(), "random: The state of a generator has 313 elements");
}

} // namespace
