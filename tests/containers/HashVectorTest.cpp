#include "Counted.h"

#include <zel/HashVector.h>
#include <zel/String.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

using test::Counted;
using testing::ElementsAre;
using zel::HashVector;

struct ByValue {
    zel::uint32 operator()(const Counted& key) const { return static_cast<zel::uint32>(key.value); }
    static bool equal(const Counted& a, const Counted& b) { return a == b; }
};

template <typename Table>
std::vector<std::string> namesIn(const Table& table) {
    std::vector<std::string> keys;
    for (const auto& pair : table)
        keys.push_back(pair.key);
    return keys;
}

TEST(HashVectorTest, KeepsTheOrderOfInsertion) {
    HashVector<zel::String, int> table;
    for (const char* key : {"mass", "position", "velocity", "age"})
        table.push_back(key, 0);
    EXPECT_THAT(namesIn(table), ElementsAre("mass", "position", "velocity", "age"));
    EXPECT_EQ(table[1].key, "position");
    EXPECT_EQ(table.indexOf("velocity"), 2U);
    EXPECT_EQ(table.size(), 4U);
}

TEST(HashVectorTest, PushBackReturnsThePair) {
    HashVector<zel::String, int> table;
    auto* pair = table.push_back("mass", 7);
    EXPECT_EQ(pair, &table[0]);
    EXPECT_EQ(pair->key, "mass");
    EXPECT_EQ(pair->value, 7);
}

TEST(HashVectorTest, AKnownKeyGetsTheNewValueInItsPlace) {
    HashVector<zel::String, int> table;
    table.push_back("mass", 1);
    table.push_back("position", 2);
    auto* pair = table.push_back("mass", 3);
    EXPECT_EQ(pair, &table[0]);
    EXPECT_EQ(table[0].value, 3);
    EXPECT_EQ(table.size(), 2U);
}

TEST(HashVectorTest, FindGivesThePairOrNull) {
    HashVector<zel::String, int> table;
    table.push_back("mass", 1);
    ASSERT_NE(table.find("mass"), nullptr);
    table.find("mass")->value = 5;
    const auto& constant = table;
    EXPECT_EQ(constant.find("mass")->value, 5);
    EXPECT_EQ(constant.find("age"), nullptr);
    EXPECT_EQ(table.indexOf("age"), zel::InvalidIndex);
    EXPECT_TRUE(table.contains("mass"));
}

TEST(HashVectorTest, TakesAKeyOfItsOwn) {
    HashVector<zel::String, zel::String> table;
    table.push_back("a text too long for the small string optimisation", "old");
    table.push_back(table[0].key, "new");
    EXPECT_EQ(table.size(), 1U);
    EXPECT_EQ(table[0].value, "new");
}

TEST(HashVectorTest, ClearForgetsAll) {
    HashVector<zel::String, int> table;
    table.push_back("mass", 1);
    table.clear();
    EXPECT_TRUE(table.empty());
    EXPECT_EQ(table.find("mass"), nullptr);
    table.push_back("age", 2);
    EXPECT_EQ(table.indexOf("age"), 0U);
}

TEST(HashVectorTest, APushBackThatThrowsLeavesArrayAndTableInStep) {
    for (int throwAfter = 0; throwAfter < 30; ++throwAfter) {
        Counted::reset();
        {
            HashVector<Counted, int, ByValue> table;
            for (int i = 0; i < 8; ++i)
                table.push_back(Counted(i), i);
            const Counted key(8);
            Counted::throwAfter = throwAfter;
            bool thrown = false;
            try {
                table.push_back(key, 8);
            } catch (const std::runtime_error&) {
                thrown = true;
            }
            Counted::throwAfter = -1;
            EXPECT_EQ(table.size(), thrown ? 8U : 9U);
            for (int i = 0; i < static_cast<int>(table.size()); ++i)
                EXPECT_EQ(table.find(Counted(i))->value, i);
            EXPECT_EQ(table.contains(key), !thrown);
        }
        EXPECT_EQ(Counted::alive, 0);
    }
}

TEST(HashVectorTest, FindsEveryPairOfMany) {
    std::mt19937 random(5);
    HashVector<zel::uint32, zel::uint32> table;
    std::vector<zel::uint32> order;
    for (int i = 0; i < 5000; ++i) {
        const auto key = static_cast<zel::uint32>(random() % 2000);
        if (!table.contains(key))
            order.push_back(key);
        table.push_back(key, static_cast<zel::uint32>(i));
    }
    ASSERT_EQ(table.size(), order.size());
    for (size_t i = 0; i < order.size(); ++i) {
        EXPECT_EQ(table[i].key, order[i]);
        EXPECT_EQ(table.indexOf(order[i]), i);
    }
}

} // namespace
