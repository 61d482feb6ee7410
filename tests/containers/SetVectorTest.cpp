#include "Counted.h"

#include <zel/SetVector.h>
#include <zel/String.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace {

using test::Counted;
using testing::ElementsAre;
using zel::SetVector;

TEST(SetVectorTest, KeepsTheOrderOfInsertion) {
    SetVector<zel::String> set;
    for (const char* key : {"mass", "position", "mass", "age"})
        set.push_back(key);
    EXPECT_THAT(std::vector<std::string>(set.begin(), set.end()), ElementsAre("mass", "position", "age"));
    EXPECT_EQ(set[1], "position");
    EXPECT_EQ(set.indexOf("age"), 2U);
    EXPECT_EQ(set.indexOf("none"), zel::InvalidIndex);
}

TEST(SetVectorTest, PushBackReturnsTheStoredKey) {
    SetVector<zel::String> set;
    const zel::String* stored = set.push_back("mass");
    EXPECT_EQ(stored, set.begin());
    EXPECT_EQ(*stored, "mass");
    EXPECT_EQ(set.push_back("mass"), stored);
    EXPECT_EQ(set.size(), 1U);
}

TEST(SetVectorTest, TheFirstOfEqualKeysStays) {
    struct Tagged {
        int key;
        int tag;
    };
    struct ByKey {
        zel::uint32 operator()(const Tagged& tagged) const { return static_cast<zel::uint32>(tagged.key); }
        static bool equal(const Tagged& a, const Tagged& b) { return a.key == b.key; }
    };
    SetVector<Tagged, ByKey> set;
    set.push_back({5, 1});
    EXPECT_EQ(set.push_back({5, 2})->tag, 1);
}

TEST(SetVectorTest, ClearForgetsAll) {
    SetVector<zel::String> set;
    set.push_back("mass");
    set.clear();
    EXPECT_TRUE(set.empty());
    EXPECT_FALSE(set.contains("mass"));
}

TEST(SetVectorTest, APushBackThatThrowsLeavesArrayAndTableInStep) {
    struct ByValue {
        zel::uint32 operator()(const Counted& key) const { return static_cast<zel::uint32>(key.value); }
        static bool equal(const Counted& a, const Counted& b) { return a == b; }
    };
    for (int throwAfter = 0; throwAfter < 30; ++throwAfter) {
        Counted::reset();
        {
            SetVector<Counted, ByValue> set;
            for (int i = 0; i < 8; ++i)
                set.push_back(Counted(i));
            const Counted key(8);
            Counted::throwAfter = throwAfter;
            bool thrown = false;
            try {
                set.push_back(key);
            } catch (const std::runtime_error&) {
                thrown = true;
            }
            Counted::throwAfter = -1;
            EXPECT_EQ(set.size(), thrown ? 8U : 9U);
            EXPECT_EQ(set.contains(key), !thrown);
        }
        EXPECT_EQ(Counted::alive, 0);
    }
}

} // namespace
