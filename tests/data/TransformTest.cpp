#include "Elements.h"

#include <zel/Vec.h>
#include <zelData/FormatT.h>
#include <zelData/Swap.h>
#include <zelData/Transform.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <vector>

using zelData::convertNumber;

namespace {

template <typename T>
using Limits = std::numeric_limits<T>;

using Words = std::vector<zel::uint32>;

} // namespace

TEST(TransformTest, RealsLoseTheirFractionAsIntegers) {
    EXPECT_EQ(convertNumber<zel::int32>(2.9), 2);
    EXPECT_EQ(convertNumber<zel::int32>(-2.9), -2);
    EXPECT_EQ(convertNumber<zel::uint32>(-0.9), 0U);
    EXPECT_EQ(convertNumber<zel::uint64>(-0.9F), 0U);
    EXPECT_EQ(convertNumber<zel::int64>(-9007199254740993.0), -9007199254740992);
}

TEST(TransformTest, RealsOutsideTheRangeBecomeItsNearestEnd) {
    EXPECT_EQ(convertNumber<zel::int8>(1000.0), 127);
    EXPECT_EQ(convertNumber<zel::int8>(-1000.0F), -128);
    EXPECT_EQ(convertNumber<zel::uint8>(-1.0), 0U);
    EXPECT_EQ(convertNumber<zel::int32>(2147483647.5), 2147483647);
    EXPECT_EQ(convertNumber<zel::int32>(2147483648.0F), 2147483647);
    EXPECT_EQ(convertNumber<zel::uint32>(4294967296.0), 4294967295U);
    EXPECT_EQ(convertNumber<zel::int64>(9223372036854775808.0), Limits<zel::int64>::max());
    EXPECT_EQ(convertNumber<zel::int64>(-1e30F), Limits<zel::int64>::min());
    EXPECT_EQ(convertNumber<zel::uint64>(18446744073709551616.0), Limits<zel::uint64>::max());
    EXPECT_EQ(convertNumber<zel::uint64>(18446744073709549568.0), 18446744073709549568U);
    EXPECT_EQ(convertNumber<zel::uint64>(-1e300), 0U);
    EXPECT_EQ(convertNumber<zel::int64>(Limits<double>::infinity()), Limits<zel::int64>::max());
}

TEST(TransformTest, NaNBecomesZero) {
    EXPECT_EQ(convertNumber<zel::int8>(Limits<float>::quiet_NaN()), 0);
    EXPECT_EQ(convertNumber<zel::int32>(Limits<double>::quiet_NaN()), 0);
    EXPECT_EQ(convertNumber<zel::uint32>(Limits<double>::quiet_NaN()), 0U);
    EXPECT_EQ(convertNumber<zel::int64>(Limits<double>::quiet_NaN()), 0);
    EXPECT_EQ(convertNumber<zel::uint64>(-Limits<float>::quiet_NaN()), 0U);
}

TEST(TransformTest, IntegersAreCutToTheWidth) {
    EXPECT_EQ(convertNumber<zel::int8>(zel::int64{200}), -56);
    EXPECT_EQ(convertNumber<zel::uint16>(zel::int64{-1}), 65535U);
    EXPECT_EQ(convertNumber<zel::int64>(~zel::uint64{0}), -1);
}

TEST(TransformTest, LargeDoublesBecomeInfiniteFloats) {
    EXPECT_EQ(convertNumber<float>(1e300), Limits<float>::infinity());
    EXPECT_EQ(convertNumber<float>(-1e300), -Limits<float>::infinity());
}

TEST(TransformTest, EverythingButZeroIsTrue) {
    EXPECT_TRUE(convertNumber<bool>(256));
    EXPECT_TRUE(convertNumber<bool>(-1L));
    EXPECT_FALSE(convertNumber<bool>(0U));
    EXPECT_EQ(convertNumber<zel::uint64>(true), 1U);
}

TEST(TransformTest, ConvertsRunsOfElements) {
    const std::array<double, 3> source{1.5, -2.5, 1e40};
    std::array<float, 3> target{};
    zelData::transform(
        target.data(), zelData::getFormat("Real:32bit"), source.data(), zelData::getFormat("Real:64bit"), 3);
    EXPECT_THAT(target, testing::ElementsAre(1.5F, -2.5F, Limits<float>::infinity()));
}

TEST(TransformTest, AScalarFillsTheComponentsOfAVectorAndThePaddingIsZero) {
    const std::array<zel::int32, 2> source{-3, 4};
    std::array<zel::Vec3d, 2> target{zel::Vec3d(9, 9, 9), zel::Vec3d(9, 9, 9)};
    target[1].data()[3] = 9;
    zelData::transform(
        target.data(), zelData::getFormat("Vec3:64bit"), source.data(), zelData::getFormat("Int:32bit"), 2);
    EXPECT_EQ(target[0], zel::Vec3d(-3, -3, -3));
    EXPECT_EQ(target[1], zel::Vec3d(4, 4, 4));
    EXPECT_EQ(target[1].data()[3], 0.0);
    zel::Vec3T<zel::uint32> integers;
    const double big = 1e20;
    zelData::transform(
        &integers, zelData::getFormat("Vec3u:32bit"), &big, zelData::getFormat("Real:64bit"), 1);
    EXPECT_EQ(integers, zel::Vec3T<zel::uint32>(Limits<zel::uint32>::max()));
}

TEST(TransformTest, TheFunctionsOfEachShapeAgreeWithTheRegisteredOnes) {
    const zel::Vec3d source(1, 2, 3);
    zel::Vec3f viaShape;
    zel::Vec3f viaFormat;
    zelData::Transform3To3Function<float, double>(&viaShape, &source, 1);
    zelData::transform(
        &viaFormat, zelData::getFormat("Vec3:32bit"), &source, zelData::getFormat("Vec3:64bit"), 1);
    EXPECT_EQ(viaShape, viaFormat);
    const zel::Vec2T<zel::int64> pair(-1, 300);
    zel::Vec2T<zel::int8> cut;
    zelData::Transform2To2Function<zel::int8, zel::int64>(&cut, &pair, 1);
    EXPECT_EQ(cut, zel::Vec2T<zel::int8>(-1, 44));
    const zel::Vec4d four(1, 2, 3, 4);
    zel::Vec4f narrow;
    zelData::Transform4To4Function<float, double>(&narrow, &four, 1);
    EXPECT_EQ(narrow, zel::Vec4f(1, 2, 3, 4));
    const float scalar = 2.5F;
    zel::Vec2d two;
    zel::Vec3d three;
    zel::Vec4d all;
    zelData::Transform1To2Function<double, float>(&two, &scalar, 1);
    zelData::Transform1To3Function<double, float>(&three, &scalar, 1);
    zelData::Transform1To4Function<double, float>(&all, &scalar, 1);
    EXPECT_EQ(two, zel::Vec2d(2.5, 2.5));
    EXPECT_EQ(three, zel::Vec3d(2.5, 2.5, 2.5));
    EXPECT_EQ(all, zel::Vec4d(2.5, 2.5, 2.5, 2.5));
}

TEST(TransformTest, ZeroElementsAreNotLookedAt) {
    zelData::transform(
        nullptr, zelData::getFormat("Real:32bit"), nullptr, zelData::getFormat("Real:64bit"), 0);
    zelData::transform(
        nullptr, zelData::getFormat("Bool:8bit"), nullptr, zelData::getFormat("Uuid:default"), 0);
    EXPECT_EQ(zelData::getTransformer(zelData::getFormat("Bool:8bit"), zelData::getFormat("Uuid:default")),
              nullptr);
}

TEST(TransformDeathTest, APairWithoutATransformerIsNamed) {
    char element[32] = {};
    EXPECT_DEATH(
        zelData::transform(
            element, zelData::getFormat("Bool:8bit"), element, zelData::getFormat("Uuid:default"), 1),
        "zelVerify failed: `function != nullptr', No transformer from 'Uuid:default' to 'Bool:8bit'");
}

TEST(TransformDeathTest, APairIsRegisteredOnce) {
    EXPECT_DEATH(zelData::registerTransformer(&zelData::GenericTransformFunction<float, double>,
                                              zelData::getFormat("Real:32bit"),
                                              zelData::getFormat("Real:64bit")),
                 "zelVerify failed: `!sourceFormat_->m_transformerTable.contains\\(targetFormat_\\)', "
                 "Transformers can only be registered once! 'Real:32bit' ==> 'Real:64bit'\\)");
}

TEST(TransformTest, TheWayFromAFormatToItselfMayBeReplaced) {
    const zel::ref_ptr<zelData::Format> format(new zelData::FormatT<double>("mine"));
    const zelData::TransformFunction other = &zelData::GenericTransformFunction<double, double>;
    EXPECT_EQ(zelData::getTransformer(format.get(), format.get()), &zelData::GenericCopyFunction<double>);
    zelData::registerTransformer(other, format.get(), format.get());
    EXPECT_EQ(zelData::getTransformer(format.get(), format.get()), other);
}

TEST(SwapTest, ReversesEachWordOfEachElement) {
    const zel::uint64 word = 0x0102030405060708U;
    zel::uint64 swapped = 0;
    zelData::Swap64Function(&swapped, &word, 1);
    EXPECT_EQ(swapped, 0x0807060504030201U);
    const std::array<zel::uint16, 3> words16{0x0102, 0x0304, 0xFFFE};
    std::array<zel::uint16, 3> swapped16{};
    zelData::Swap16Function(swapped16.data(), words16.data(), 3);
    EXPECT_THAT(swapped16, testing::ElementsAre(0x0201, 0x0403, 0xFEFF));
    const std::array<zel::uint8, 2> bytes{1, 2};
    std::array<zel::uint8, 2> copied{};
    zelData::Swap8Function(copied.data(), bytes.data(), 2);
    EXPECT_EQ(copied, bytes);
    const zel::uint32 word32 = 0x01020304;
    zel::uint32 swapped32 = 0;
    zelData::Swap32Function(&swapped32, &word32, 1);
    EXPECT_EQ(swapped32, 0x04030201U);
}

TEST(SwapTest, EachCountOfWordsIsAsLongAsItsName) {
    const std::array<std::pair<zelData::TransformFunction, size_t>, 10> functions{{
        {zelData::Swap2x32Function, 2},
        {zelData::Swap3x32Function, 3},
        {zelData::Swap4x32Function, 4},
        {zelData::Swap6x32Function, 6},
        {zelData::Swap8x32Function, 8},
        {zelData::Swap2x64Function, 4},
        {zelData::Swap3x64Function, 6},
        {zelData::Swap4x64Function, 8},
        {zelData::Swap6x64Function, 12},
        {zelData::Swap8x64Function, 16},
    }};
    for (const auto& [function, words] : functions) {
        Words source(2 * words + 1, 0x01020304);
        Words target(2 * words + 1, 7);
        function(target.data(), source.data(), 2);
        EXPECT_EQ(target.back(), 7U);
        target.pop_back();
        EXPECT_EQ(target, Words(2 * words, 0x04030201));
    }
}

TEST(SwapTest, WorksInPlace) {
    Words words(1001, 0x01020304);
    zelData::Swap32Function(words.data(), words.data(), words.size());
    EXPECT_EQ(words, Words(1001, 0x04030201));
}
