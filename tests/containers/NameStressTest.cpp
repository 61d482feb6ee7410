#include <zel/Name.h>

#include <gtest/gtest.h>
#include <support/Stress.h>

#include <array>
#include <string>
#include <vector>

namespace {

using zel::Name;

/// Few enough that each text dies and is renewed all the time, on several threads at once.
constexpr std::array<const char*, 5> Texts = {"mass", "position", "velocity", "age", "a text of some length"};

/// Interns a text, holds some for a while, and lets go of the others.
void internAndRelease(std::mt19937& random, size_t operations) {
    std::array<Name, 3> held;
    for (size_t i = 0; i < operations; ++i) {
        const size_t which = random() % Texts.size();
        const Name name(Texts[which]);
        ASSERT_STREQ(name.c_str(), Texts[which]);
        ASSERT_EQ(name, Name(Texts[which]));
        if (random() % 4 == 0)
            held[random() % held.size()] = random() % 2 == 0 ? name : Name();
    }
}

class NameStressTest : public testing::TestWithParam<size_t> {};

TEST_P(NameStressTest, ThreadsInternAndReleaseTheSameTexts) {
    const size_t numThreads = GetParam();
    // Ten million on eight threads: each turn interns twice.
    const size_t operations = (numThreads == 8 ? 10'000'000 : 1'000'000) / zelTest::StressDivisor;
    zelTest::onThreads(numThreads, zelTest::stressSeed(), [&](size_t, std::mt19937& random) {
        internAndRelease(random, operations / 2 / numThreads);
    });
    for (const char* text : Texts) {
        const Name name(text);
        EXPECT_EQ(name.useCount(), 1U) << text;
        EXPECT_STREQ(name.c_str(), text);
    }
}

/// One text alone, never held: it reaches zero as often as it can.
TEST_P(NameStressTest, ThreadsRaceForTheLastReferenceOfOneText) {
    const size_t numThreads = GetParam();
    const size_t operations = 1'000'000 / zelTest::StressDivisor;
    zelTest::onThreads(numThreads, zelTest::stressSeed(), [&](size_t, std::mt19937&) {
        for (size_t i = 0; i < operations / numThreads; ++i) {
            const Name name("contended");
            ASSERT_STREQ(name.c_str(), "contended");
        }
    });
    EXPECT_EQ(Name("contended").useCount(), 1U);
}

TEST_P(NameStressTest, ThreadsCopyAndDropOneName) {
    const size_t numThreads = GetParam();
    const size_t operations = 1'000'000 / zelTest::StressDivisor;
    const Name shared("shared");
    zelTest::onThreads(numThreads, zelTest::stressSeed(), [&](size_t, std::mt19937& random) {
        std::vector<Name> copies;
        for (size_t i = 0; i < operations / numThreads; ++i) {
            if (random() % 2 == 0)
                copies.push_back(shared);
            else if (!copies.empty())
                copies.pop_back();
        }
    });
    EXPECT_EQ(shared.useCount(), 1U);
}

INSTANTIATE_TEST_SUITE_P(Threads,
                         NameStressTest,
                         testing::Values(1, 2, 8),
                         testing::PrintToStringParamName());

} // namespace
