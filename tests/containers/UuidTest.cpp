#include <zel/Uuid.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

namespace {

const std::string Zero = "00000000-0000-0000-0000-000000000000";

TEST(UuidTest, IsZeroByDefault) {
    const zel::Uuid uuid;
    EXPECT_TRUE(std::all_of(uuid.data(), uuid.data() + 16, [](auto byte) { return byte == 0; }));
    EXPECT_EQ(uuid.str(), Zero);
}

TEST(UuidTest, StrWritesTheBytesInOrderWithDashesAfterTheBytesThreeFiveSevenAndNine) {
    zel::Uuid uuid;
    for (size_t i = 0; i < 16; ++i)
        uuid.data()[i] = static_cast<zel::uint8>(0x11 * i);
    EXPECT_EQ(uuid.str(), "00112233-4455-6677-8899-aabbccddeeff");
    EXPECT_EQ(uuid.str().size(), 36U);
}

TEST(UuidTest, StreamsItsText) {
    std::ostringstream stream;
    stream << zel::Uuid("00112233-4455-6677-8899-aabbccddeeff");
    EXPECT_EQ(stream.str(), "00112233-4455-6677-8899-aabbccddeeff");
}

TEST(UuidTest, ParsesWhatStrWrites) {
    const zel::Uuid uuid = zel::Uuid::generateFromString("there and back");
    EXPECT_EQ(zel::Uuid(uuid.str()), uuid);
}

TEST(UuidTest, UpperCaseDigitsParseAndStrIsAlwaysLowerCase) {
    EXPECT_EQ(zel::Uuid("00112233-4455-6677-8899-AABBCCDDEEFF").str(),
              "00112233-4455-6677-8899-aabbccddeeff");
}

TEST(UuidTest, ABadLastDigitLeavesZero) {
    EXPECT_EQ(zel::Uuid("00000000-0000-0000-0000-00000000000g"), zel::Uuid());
    EXPECT_EQ(zel::Uuid("11111111-1111-1111-1111-11111111111g"), zel::Uuid());
}

TEST(UuidTest, MissingOrMisplacedDashesLeaveZero) {
    EXPECT_EQ(zel::Uuid("11111111111111111111111111111111"), zel::Uuid());
    EXPECT_EQ(zel::Uuid("1111111-11111-1111-1111-111111111111"), zel::Uuid());
    EXPECT_EQ(zel::Uuid("11111111-1111-1111-1111-1111-11111111"), zel::Uuid());
}

TEST(UuidTest, AnEmptyOrShortTextLeavesZero) {
    EXPECT_EQ(zel::Uuid(""), zel::Uuid());
    EXPECT_EQ(zel::Uuid("11111111-1111-1111-1111-1111111111"), zel::Uuid());
    EXPECT_EQ(zel::Uuid("11111111-1111-1111-1111-11111111111"), zel::Uuid());
}

TEST(UuidTest, AZeroCharacterIsNoDigit) {
    std::string text = "11111111-1111-1111-1111-111111111111";
    text[10] = '\0';
    EXPECT_EQ(zel::Uuid(text), zel::Uuid());
}

TEST(UuidTest, BlanksBetweenCharactersAreSteppedOver) {
    EXPECT_EQ(zel::Uuid("  0 0112233 -\t4455-6677-8899-AABBCCDDEE F\nF").str(),
              "00112233-4455-6677-8899-aabbccddeeff");
}

TEST(UuidTest, TextBehindTheLastDigitIsNotRead) {
    std::istringstream stream("00112233-4455-6677-8899-aabbccddeeff!rest");
    zel::Uuid uuid;
    stream >> uuid;
    std::string rest;
    stream >> rest;
    EXPECT_EQ(uuid.str(), "00112233-4455-6677-8899-aabbccddeeff");
    EXPECT_EQ(rest, "!rest");
}

TEST(UuidTest, AFaultSetsTheFailbitAndLeavesTheTargetAlone) {
    std::istringstream stream("0011223x");
    zel::Uuid uuid = zel::Uuid::generateFromString("kept");
    const zel::Uuid before = uuid;
    stream >> uuid;
    EXPECT_TRUE(stream.fail());
    EXPECT_EQ(uuid, before);
}

TEST(UuidTest, OrdersByTheBytes) {
    zel::Uuid a;
    zel::Uuid b;
    a.data()[15] = 0xFF;
    b.data()[0] = 1;
    EXPECT_LT(a, b);
    EXPECT_NE(a, b);
}

/// The two draws and the bits, written down a second time.
zel::Uuid expectedFrom(std::mt19937& generator) {
    std::uniform_int_distribution<zel::uint64> whole;
    const zel::uint64 halves[2] = {whole(generator), whole(generator)};
    zel::Uuid uuid;
    for (size_t i = 0; i < 16; ++i)
        uuid.data()[i] = static_cast<zel::uint8>(halves[i / 8] >> (i % 8 * 8));
    uuid.data()[1] = static_cast<zel::uint8>((uuid.data()[1] & 0x0F) | 0x40);
    uuid.data()[15] = static_cast<zel::uint8>((uuid.data()[15] & 0x3F) | 0x80);
    return uuid;
}

TEST(UuidTest, GenerateFromStringSeedsWithTheSignExtendedBytes) {
    const std::string text = "z\xC3\xA9l"; // two bytes above 0x7F
    std::vector<zel::uint32> words = {'z', 0xFFFFFFC3U, 0xFFFFFFA9U, 'l'};
    std::seed_seq seed(words.begin(), words.end());
    std::mt19937 generator(seed);
    EXPECT_EQ(zel::Uuid::generateFromString(text), expectedFrom(generator));
}

TEST(UuidTest, GenerateFromStringGivesTheSameValueOnEveryMachine) {
    EXPECT_EQ(zel::Uuid::generateFromString("zelCore").str(), "b94f65d4-a9cb-f2cc-0f5c-f37dadec6aaa");
    EXPECT_EQ(zel::Uuid::generateFromString("").str(), "744719f3-d96a-38ab-e6d1-8c14e7c1ca89");
    EXPECT_EQ(zel::Uuid::generateFromString("z\xC3\xA9").str(), "9a4c18f0-35c3-49f9-6fe9-8573becba0bb");
}

TEST(UuidTest, DifferentTextsGiveDifferentValues) {
    EXPECT_NE(zel::Uuid::generateFromString("a"), zel::Uuid::generateFromString("b"));
}

TEST(UuidGeneratorTest, DrawsTwoHalvesFromTheGivenGenerator) {
    std::mt19937 ours(42);
    std::mt19937 reference(42);
    zel::UuidGenerator generator;
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(generator.generate(ours), expectedFrom(reference));
}

TEST(UuidGeneratorTest, SetsVersionAndVariantInTheBytesOneAndFifteen) {
    zel::UuidGenerator generator;
    for (int i = 0; i < 1000; ++i) {
        const zel::Uuid uuid = generator.generate();
        EXPECT_EQ(uuid.data()[1] & 0xF0, 0x40);
        EXPECT_EQ(uuid.data()[15] & 0xC0, 0x80);
    }
}

TEST(UuidGeneratorTest, ValuesOfTwoThreadsDiffer) {
    std::vector<zel::Uuid> perThread[2];
    const auto draw = [](std::vector<zel::Uuid>& values) {
        zel::UuidGenerator generator;
        for (int i = 0; i < 1000; ++i)
            values.push_back(generator.generate());
    };
    std::thread other(draw, std::ref(perThread[1]));
    draw(perThread[0]);
    other.join();
    std::set<zel::Uuid> all(perThread[0].begin(), perThread[0].end());
    all.insert(perThread[1].begin(), perThread[1].end());
    EXPECT_EQ(all.size(), 2000U);
}

} // namespace
