#include <zel/HashFn.h>
#include <zel/Name.h>
#include <zel/String.h>

#include <gtest/gtest.h>

namespace {

using zel::HashFn;

/// The known values were computed by an independent program.
TEST(HashFnTest, KnownValuesOf32BitIntegers) {
    EXPECT_EQ(HashFn<zel::uint32>()(0), 0xCAA3CAA3U);
    EXPECT_EQ(HashFn<zel::uint32>()(1), 0x12D60BF6U);
    EXPECT_EQ(HashFn<zel::int32>()(42), 0x7796CCB4U);
    EXPECT_EQ(HashFn<zel::uint32>()(0xFFFFFFFFU), 0xBD55FC18U);
    EXPECT_EQ(HashFn<zel::int32>()(-1), 0xBD55FC18U);
    EXPECT_EQ(HashFn<zel::int32>()(-7), 0x5D703DD6U);
}

TEST(HashFnTest, KnownValuesOf64BitIntegers) {
    EXPECT_EQ(HashFn<zel::uint64>()(0), 0x2AEAA2ABU);
    EXPECT_EQ(HashFn<zel::uint64>()(1), 0x15515FBCU);
    EXPECT_EQ(HashFn<zel::int64>()(42), 0x7F576BFBU);
    EXPECT_EQ(HashFn<zel::uint64>()(~zel::uint64{0}), 0x1FBBF8EAU);
    EXPECT_EQ(HashFn<zel::uint64>()(zel::uint64{1} << 40), 0x69E3BB4FU);
    EXPECT_EQ(HashFn<zel::int64>()(-7), 0x9B539AFFU);
}

TEST(HashFnTest, PointersHashLike64BitIntegers) {
    const int target = 0;
    EXPECT_EQ(HashFn<const int*>()(&target), HashFn<zel::uint64>()(reinterpret_cast<zel::uint64>(&target)));
    EXPECT_EQ(HashFn<void*>()(nullptr), HashFn<zel::uint64>()(0));
}

TEST(HashFnTest, EnumerationsHashLikeTheirIntegers) {
    enum class Small : zel::uint8 { A = 42 };
    enum class Large : zel::uint64 { A = 42 };
    EXPECT_EQ(HashFn<Small>()(Small::A), HashFn<zel::uint32>()(42));
    EXPECT_EQ(HashFn<Large>()(Large::A), HashFn<zel::uint64>()(42));
}

TEST(HashFnTest, KnownValuesOfTexts) {
    EXPECT_EQ(HashFn<const char*>()(""), 0U);
    EXPECT_EQ(HashFn<const char*>()("a"), 0x61U);
    EXPECT_EQ(HashFn<const char*>()("ab"), 0xE67U);
    EXPECT_EQ(HashFn<const char*>()("position"), 0xC133DF7DU);
    EXPECT_EQ(HashFn<const char*>()("a rather longer text"), 0xDC656A53U);
}

TEST(HashFnTest, CharactersAreSignExtended) {
    EXPECT_EQ(HashFn<const char*>()("\xC3\xA9"), 0xFFFFF6D8U);
    EXPECT_EQ(HashFn<const char*>()("z\xC3\xA9lz\xFF\x80"
                                    "end"),
              0x2658279EU);
}

TEST(HashFnTest, StringsHashLikeTheirTexts) {
    EXPECT_EQ(HashFn<zel::String>()(zel::String("position")), 0xC133DF7DU);
    EXPECT_NE(HashFn<zel::String>()(zel::String("a\0b", 3)), HashFn<zel::String>()(zel::String("a")));
}

TEST(HashFnTest, TextsCompareByTheirCharacters) {
    const char first[] = "same";
    const char second[] = "same";
    EXPECT_TRUE(HashFn<const char*>::equal(first, second));
    EXPECT_FALSE(HashFn<const char*>::equal(first, "other"));
}

TEST(HashFnTest, NamesHashByTheAddressOfTheirText) {
    const zel::Name name("position");
    EXPECT_EQ(HashFn<zel::Name>()(name), HashFn<const void*>()(name.c_str()));
}

} // namespace
