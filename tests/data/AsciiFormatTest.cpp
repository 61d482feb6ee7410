#include "Elements.h"

#include <zel/Bound.h>
#include <zel/FloatingPoint.h>
#include <zel/Line.h>
#include <zel/Matrix.h>
#include <zel/Name.h>
#include <zel/Object.h>
#include <zel/Plane.h>
#include <zel/Quat.h>
#include <zel/Range.h>
#include <zelCore/zelCore.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/CommaLocale.h>
#include <support/LogCapture.h>
#include <support/PointLocale.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <numbers>
#include <random>
#include <string>
#include <utility>
#include <vector>

using testing::HasSubstr;
using zelTest::fromText;
using zelTest::toText;

namespace {

template <typename... Arguments>
std::string printed(const char* format, Arguments... arguments) {
    const zelTest::PointLocale point;
    std::string text(8192, '\0');
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const int length = std::snprintf(text.data(), text.size(), format, arguments...);
#pragma GCC diagnostic pop
    text.resize(static_cast<size_t>(length));
    return text;
}

double numberOf(const std::string& text) {
    const zelTest::PointLocale point;
    return std::strtod(text.c_str(), nullptr);
}

/// Ordinary, extreme and special values, and random ones of all magnitudes.
std::vector<double> manyReals() {
    using Limits = std::numeric_limits<double>;
    std::vector<double> values{0.0,
                               -0.0,
                               1.0,
                               -1.0,
                               0.5,
                               1.0 / 3,
                               123456.0,
                               1234567.0,
                               1e5,
                               1e6,
                               1e-4,
                               1e-5,
                               1e15,
                               1e300,
                               -1e300,
                               1e-300,
                               2.5,
                               0.0000005,
                               0.00000049999,
                               9.9999995,
                               999999.5,
                               Limits::max(),
                               Limits::lowest(),
                               Limits::min(),
                               Limits::denorm_min(),
                               Limits::infinity(),
                               -Limits::infinity(),
                               Limits::quiet_NaN(),
                               -Limits::quiet_NaN()};
    std::mt19937_64 random(7);
    for (int i = 0; i < 2000; ++i) {
        const zel::uint64 bits = random();
        double value = 0;
        std::memcpy(&value, &bits, sizeof(value));
        values.push_back(value);
        values.push_back(std::uniform_real_distribution<double>(-1000, 1000)(random));
    }
    return values;
}

} // namespace

TEST(AsciiFormatTest, WritesBooleans) {
    EXPECT_EQ(toText("Bool:8bit", true), "true");
    EXPECT_EQ(toText("Bool:8bit", false), "false");
}

TEST(AsciiFormatTest, ReadsExactlyTheTwoWordsAsBooleans) {
    EXPECT_TRUE(fromText<bool>("Bool:8bit", "true"));
    EXPECT_FALSE(fromText<bool>("Bool:8bit", "false"));
}

TEST(AsciiFormatDeathTest, AnyOtherWordAsABooleanAborts) {
    EXPECT_DEATH(fromText<bool>("Bool:8bit", "True"),
                 "Unknown boolean value 'True', TODO case insensitive\\?");
    EXPECT_DEATH(fromText<bool>("Bool:8bit", ""), "Unknown boolean value '', TODO case insensitive\\?");
    EXPECT_DEATH(fromText<bool>("Bool:8bit", "true "),
                 "Unknown boolean value 'true ', TODO case insensitive\\?");
}

TEST(AsciiFormatTest, WritesIntegersAsSigned64BitNumbers) {
    EXPECT_EQ(toText("Int:8bit", zel::int8{-128}), "-128");
    EXPECT_EQ(toText("Int:16bit", zel::int16{-32768}), "-32768");
    EXPECT_EQ(toText("Int:32bit", zel::int32{2147483647}), "2147483647");
    EXPECT_EQ(toText("Int:64bit", std::numeric_limits<zel::int64>::min()), "-9223372036854775808");
    EXPECT_EQ(toText("UInt:8bit", zel::uint8{255}), "255");
    EXPECT_EQ(toText("UInt:16bit", zel::uint16{65535}), "65535");
    EXPECT_EQ(toText("UInt:32bit", zel::uint32{4294967295U}), "4294967295");
    EXPECT_EQ(toText("UInt:64bit", ~zel::uint64{0}), "-1");
}

TEST(AsciiFormatTest, InvalidIndexIsAllBitsSetAtTheWidthOfTheElement) {
    EXPECT_EQ(fromText<zel::uint8>("UInt:8bit", "InvalidIndex"), 255U);
    EXPECT_EQ(fromText<zel::uint16>("UInt:16bit", "InvalidIndex"), 65535U);
    EXPECT_EQ(fromText<zel::uint32>("UInt:32bit", "InvalidIndex"), 4294967295U);
    EXPECT_EQ(fromText<zel::uint64>("UInt:64bit", "InvalidIndex"), ~zel::uint64{0});
    EXPECT_EQ(fromText<zel::int8>("Int:8bit", "InvalidIndex"), -1);
    EXPECT_EQ(fromText<zel::int64>("Int:64bit", "InvalidIndex"), -1);
    EXPECT_EQ(fromText<zel::uint32>("UInt:32bit", "invalidIndex"), 0U);
}

TEST(AsciiFormatTest, ReadsIntegersAsStrtollAndCutsThemToTheWidth) {
    EXPECT_EQ(fromText<zel::int32>("Int:32bit", "-17"), -17);
    EXPECT_EQ(fromText<zel::int32>("Int:32bit", "+17"), 17);
    EXPECT_EQ(fromText<zel::int32>("Int:32bit", "\t 17"), 17);
    EXPECT_EQ(fromText<zel::int32>("Int:32bit", "4294967297"), 1);
    EXPECT_EQ(fromText<zel::uint8>("UInt:8bit", "257"), 1U);
    EXPECT_EQ(fromText<zel::uint8>("UInt:8bit", "-1"), 255U);
    EXPECT_EQ(fromText<zel::int64>("Int:64bit", "99999999999999999999"),
              std::numeric_limits<zel::int64>::max());
    EXPECT_EQ(fromText<zel::int64>("Int:64bit", "-99999999999999999999"),
              std::numeric_limits<zel::int64>::min());
    EXPECT_EQ(fromText<zel::uint64>("UInt:64bit", "18446744073709551615"), 9223372036854775807U);
    EXPECT_EQ(fromText<zel::int32>("Int:32bit", "0x10"), 0);
}

TEST(AsciiFormatTest, NothingChecksTheEndOfANumber) {
    EXPECT_EQ(fromText<zel::int32>("Int:32bit", "12abc"), 12);
    EXPECT_EQ(fromText<zel::int32>("Int:32bit", "1.9"), 1);
    EXPECT_EQ(fromText<zel::int32>("Int:32bit", "abc"), 0);
    EXPECT_EQ(fromText<zel::int32>("Int:32bit", ""), 0);
    EXPECT_EQ(fromText<zel::int32>("Int:32bit", "-"), 0);
    EXPECT_EQ(fromText<double>("Real:64bit", "1.5abc"), 1.5);
    EXPECT_EQ(fromText<double>("Real:64bit", ""), 0.0);
    EXPECT_EQ(fromText<double>("Real:64bit", "1e"), 1.0);
    EXPECT_EQ(fromText<double>("Real:64bit", "1e+"), 1.0);
    EXPECT_EQ(fromText<double>("Real:64bit",
                               std::string("1\0"
                                           "5",
                                           3)),
              1.0);
}

TEST(AsciiFormatTest, WritesRealsWithSixSignificantDigits) {
    EXPECT_EQ(toText("Real:64bit", 0.1), "0.1");
    EXPECT_EQ(toText("Real:32bit", 0.1F), "0.1");
    EXPECT_EQ(toText("Real:64bit", 1234567.0), "1.23457e+06");
    for (const double value : manyReals()) {
        EXPECT_EQ(toText("Real:64bit", value), printed("%g", value));
        const float narrow = static_cast<float>(value);
        EXPECT_EQ(toText("Real:32bit", narrow), printed("%g", static_cast<double>(narrow)));
    }
}

TEST(AsciiFormatTest, KnowsTwoWordsForReals) {
    EXPECT_EQ(fromText<double>("Real:64bit", "PI"), std::numbers::pi);
    EXPECT_EQ(fromText<float>("Real:32bit", "PI"), std::numbers::pi_v<float>);
    EXPECT_EQ(fromText<double>("Real:64bit", "INFINITY"), std::numeric_limits<double>::infinity());
    EXPECT_EQ(fromText<float>("Real:32bit", "INFINITY"), std::numeric_limits<float>::infinity());
    EXPECT_EQ(fromText<double>("Real:64bit", "pi"), 0.0);
}

TEST(AsciiFormatTest, ReadsRealsAsStrtod) {
    const std::vector<std::string> texts{"1",
                                         "-1",
                                         "+1",
                                         " 1",
                                         "\n1",
                                         "0x1p4",
                                         "-0x1p4",
                                         "0X1.8",
                                         "1.",
                                         ".5",
                                         "-.5",
                                         "1e5",
                                         "1e400",
                                         "-1e400",
                                         "1e-400",
                                         "4.9e-324",
                                         "2.2250738585072011e-308",
                                         "inf",
                                         "-inf",
                                         "INF",
                                         "infinity",
                                         "nan",
                                         "NAN",
                                         "-nan",
                                         "nan(12)",
                                         "1,5",
                                         "1e5x",
                                         "--1",
                                         "0.1",
                                         "00012",
                                         "1_000",
                                         "9007199254740993",
                                         "0x",
                                         "0xg",
                                         "179769313486231570814527423731704356798070e267",
                                         std::string(1000, '9'),
                                         "0." + std::string(1000, '0') + "1"};
    for (const std::string& text : texts) {
        const double expected = numberOf(text);
        const double value = fromText<double>("Real:64bit", text);
        EXPECT_EQ(std::memcmp(&value, &expected, sizeof(value)), 0)
            << text << " gives " << value << ", not " << expected;
    }
}

TEST(AsciiFormatTest, OctaveReadsWhatItsFormatShows) {
    const auto octave = [](const char* format, auto value) {
        zelTest::Elements text("Real:Octave", 1);
        zelData::transform(text.data(), text.format(), &value, zelData::getFormat(format), 1);
        return std::string(*text.as<zel::String>());
    };
    EXPECT_EQ(octave("Real:64bit", 0.1), "0.1");
    EXPECT_EQ(octave("Real:64bit", 1.0 / 3), "0.3333333333333333");
    EXPECT_EQ(octave("Real:32bit", 0.1F), "0.1");
    EXPECT_EQ(octave("Real:64bit", std::numeric_limits<double>::infinity()), "Inf");
    EXPECT_EQ(octave("Real:32bit", -std::numeric_limits<float>::infinity()), "-Inf");
    EXPECT_EQ(octave("Real:64bit", std::numeric_limits<double>::quiet_NaN()), "NaN");
    for (const double value : manyReals()) {
        if (std::isfinite(value)) {
            EXPECT_EQ(numberOf(octave("Real:64bit", value)), value);
        }
    }
}

TEST(AsciiFormatTest, NumbersThatThreadsOfTheSystemTakeForZeroAreShownAsTheyAre) {
    const auto text = [](const char* target, const char* source, auto value) {
        zelTest::Elements shown(target, 1);
        const zel::uint32 state = zel::DenormalizationGuard::enable();
        zelData::transform(shown.data(), shown.format(), &value, zelData::getFormat(source), 1);
        zel::DenormalizationGuard::disable(state);
        return std::string(*shown.as<zel::String>());
    };
    constexpr double Least = std::numeric_limits<double>::denorm_min();
    constexpr float LeastFloat = std::numeric_limits<float>::denorm_min();
    EXPECT_EQ(text("Real:Octave", "Real:64bit", Least), "5e-324");
    EXPECT_EQ(text("Real:Octave", "Real:32bit", -LeastFloat), "-1e-45");
    EXPECT_EQ(text("Real:ascii", "Real:64bit", Least), "4.94066e-324");
}

TEST(AsciiFormatTest, WritesRealVectorsWithSixDigitsBehindThePoint) {
    EXPECT_EQ(toText("Vec2:32bit", zel::Vec2T<float>(1, -2.5F)), "1.000000, -2.500000");
    EXPECT_EQ(toText("Vec3:64bit", zel::Vec3d(1, 2, 3)), "1.000000, 2.000000, 3.000000");
    EXPECT_EQ(toText("Vec4:64bit", zel::Vec4d(1, 2, 3, 4)), "1.000000, 2.000000, 3.000000, 4.000000");
    EXPECT_EQ(toText("Quat:64bit", zel::Quatd(1, 2, 3, 4)), "1.000000, 2.000000, 3.000000, 4.000000");
    for (const double value : manyReals())
        EXPECT_EQ(toText("Vec2:64bit", zel::Vec2d(value, -value)), printed("%f, %f", value, -value));
}

TEST(AsciiFormatTest, WritesIntegerVectors) {
    EXPECT_EQ(toText("Vec2i:8bit", zel::Vec2T<zel::int8>(-1, 2)), "-1, 2");
    EXPECT_EQ(toText("Vec3i:64bit", zel::Vec3T<zel::int64>(1, 2, -3)), "1, 2, -3");
    EXPECT_EQ(toText("Vec4u:16bit", zel::Vec4T<zel::uint16>(1, 2, 3, 65535)), "1, 2, 3, 65535");
    EXPECT_EQ(toText("Vec2u:64bit", zel::Vec2T<zel::uint64>(1, ~zel::uint64{0})), "1, -1");
}

TEST(AsciiFormatTest, WritesMatricesRowByRow) {
    const zel::Matrix3x3d m3(1, 2, 3, 4, 5, 6, 7, 8, 9);
    const std::string rows3 = "1.000000, 2.000000, 3.000000,     4.000000, 5.000000, 6.000000,     "
                              "7.000000, 8.000000, 9.000000";
    EXPECT_EQ(toText("Matrix3x3:64bit", m3), rows3);
    EXPECT_EQ(toText("Matrix3x3:32bit", zel::Matrix3x3f(m3)), rows3);
    EXPECT_EQ(toText("SPDMatrix3x3:default", zel::SPDMatrix3x3(1, 2, 3, 4, 5, 6)),
              "1.000000, 2.000000, 3.000000,     2.000000, 4.000000, 5.000000,     "
              "3.000000, 5.000000, 6.000000");
    const zel::Matrix4x4d m4({1, 2, 3, 4}, {5, 6, 7, 8}, {9, 10, 11, 12}, {13, 14, 15, 16});
    EXPECT_EQ(toText("Matrix4x4:64bit", m4),
              "1.000000, 2.000000, 3.000000, 4.000000,    5.000000, 6.000000, 7.000000, 8.000000,    "
              "9.000000, 10.000000, 11.000000, 12.000000,    13.000000, 14.000000, 15.000000, 16.000000,");
    EXPECT_EQ(toText("AffineMatrix4x4:64bit", zel::AffineMatrix4x4T<double>(m4)),
              "1.000000, 2.000000, 3.000000, 4.000000,    5.000000, 6.000000, 7.000000, 8.000000,    "
              "9.000000, 10.000000, 11.000000, 12.000000,    0.000000, 0.000000, 0.000000, 1.000000,");
}

TEST(AsciiFormatTest, SixteenOfTheLargestNumbersFit) {
    zel::Matrix4x4d matrix;
    std::fill_n(matrix.data(), 16, -DBL_MAX);
    const std::string text = toText("Matrix4x4:64bit", matrix);
    EXPECT_EQ(text.size(), 16U * 317 + 12 * 2 + 4 + 3 * 4);
    EXPECT_EQ(fromText<zel::Matrix4x4d>("Matrix4x4:64bit", text), matrix);
}

TEST(AsciiFormatTest, WritesBoundsOfAllKindsAsReals) {
    EXPECT_EQ(toText("Bound1:64bit", zel::BoundT<double>(1, 2)), "1.000000:2.000000");
    EXPECT_EQ(toText("Bound1i:32bit", zel::BoundT<zel::int32>(-1, 2)), "-1.000000:2.000000");
    EXPECT_EQ(toText("Bound1u:64bit", zel::BoundT<zel::uint64>(1, 2)), "1.000000:2.000000");
    EXPECT_EQ(toText("Bound2:32bit", zel::BoundT<zel::Vec2f>({1, 2}, {3, 4})),
              "1.000000,2.000000:3.000000,4.000000");
    EXPECT_EQ(toText("Bound3u:32bit", zel::BoundT<zel::Vec3T<zel::uint32>>({1, 2, 3}, {4, 5, 6})),
              "1.000000,2.000000,3.000000:4.000000,5.000000,6.000000");
    EXPECT_EQ(toText("Bound3:64bit", zel::BoundT<zel::Vec3d>({1, 2, 3}, {4, 5, 6})),
              "1.000000,2.000000,3.000000:4.000000,5.000000,6.000000");
}

TEST(AsciiFormatTest, BoundsReadWhatTheyWrite) {
    EXPECT_EQ(fromText<zel::BoundT<zel::int64>>("Bound1i:64bit", "-1.000000:2.000000"),
              zel::BoundT<zel::int64>(-1, 2));
    using Bound = zel::BoundT<zel::Vec3d>;
    const Bound bound({1, 2, 3}, {4, 5, 6});
    EXPECT_EQ(fromText<Bound>("Bound3:64bit", toText("Bound3:64bit", bound)), bound);
    EXPECT_EQ(fromText<Bound>("Bound3:64bit", "1"), Bound(zel::Vec3d(1, 1, 1)));
    EXPECT_EQ(fromText<Bound>("Bound3:64bit", toText("Bound3:64bit", Bound())), Bound()); // empty
}

TEST(AsciiFormatTest, LinesPlanesAndIndexRanges) {
    const zel::LineT<double> line({1, 2, 3}, {4, 5, -6});
    EXPECT_EQ(toText("Line:64bit", line), "1.000000, 2.000000, 3.000000 -> 4.000000, 5.000000, -6.000000");
    EXPECT_EQ(fromText<zel::LineT<double>>("Line:64bit", toText("Line:64bit", line)), line);
    const zel::LineT<double> backwards({1, 2, 3}, {-4, 5, 6});
    EXPECT_EQ(fromText<zel::LineT<double>>("Line:64bit", toText("Line:64bit", backwards)), backwards);
    const zel::PlaneT<float> plane({0, 0, 1}, 2.5F);
    EXPECT_EQ(toText("Plane:32bit", plane), "0.000000, 0.000000, 1.000000, 2.500000");
    EXPECT_EQ(fromText<zel::PlaneT<float>>("Plane:32bit", toText("Plane:32bit", plane)), plane);
    EXPECT_EQ(toText("IndexRange:32bit", zel::IndexRangeT<zel::uint32>(3, 7)), "3:7");
    EXPECT_EQ(toText("IndexRange:64bit", zel::IndexRange(3, 7)), "3:7");
    EXPECT_EQ(fromText<zel::IndexRange>("IndexRange:64bit", "3:7"), zel::IndexRange(3, 7));
}

TEST(AsciiFormatTest, IndexRangesKeepTheirEndsAtTheirWidth) {
    const zel::IndexRangeT<zel::uint32> narrow(1, ~zel::uint32{0});
    EXPECT_EQ(toText("IndexRange:32bit", narrow), "1:-1");
    EXPECT_EQ(fromText<zel::IndexRangeT<zel::uint32>>("IndexRange:32bit", "1:-1"), narrow);
    const zel::IndexRange wide(1, zel::uint64{1} << 40U);
    EXPECT_EQ(fromText<zel::IndexRange>("IndexRange:64bit", toText("IndexRange:64bit", wide)), wide);
}

TEST(AsciiFormatTest, OneNumberFillsAVectorAndLeavesThePaddingZero) {
    const auto v = fromText<zel::Vec3d>("Vec3:64bit", "1");
    EXPECT_EQ(v, zel::Vec3d(1, 1, 1));
    EXPECT_EQ(v.data()[3], 0.0);
    EXPECT_EQ(fromText<zel::Vec4T<zel::int8>>("Vec4i:8bit", " 7 "), zel::Vec4T<zel::int8>(7));
}

TEST(AsciiFormatTest, BlanksAreRemovedAndAnySingleSeparatorIsAccepted) {
    const auto v = fromText<zel::Vec3d>("Vec3:64bit", "1 , 2,3");
    EXPECT_EQ(v, zel::Vec3d(1, 2, 3));
    EXPECT_EQ(v.data()[3], 0.0);
    EXPECT_EQ(fromText<zel::Vec3d>("Vec3:64bit", "1:2;3"), zel::Vec3d(1, 2, 3));
    EXPECT_EQ(fromText<zel::Vec2d>("Vec2:64bit", "1 2,3"), zel::Vec2d(12, 3));
    EXPECT_EQ(fromText<zel::Vec3T<zel::int32>>("Vec3i:32bit", "-1/-2/-3"),
              zel::Vec3T<zel::int32>(-1, -2, -3));
}

TEST(AsciiFormatTest, ATextThatEndsEarlyLeavesTheRestZero) {
    EXPECT_EQ(fromText<zel::Vec3d>("Vec3:64bit", ""), zel::Vec3d(0, 0, 0));
    EXPECT_EQ(fromText<zel::Vec3d>("Vec3:64bit", "   "), zel::Vec3d(0, 0, 0));
    EXPECT_EQ(fromText<zel::Vec3d>("Vec3:64bit", "1,"), zel::Vec3d(1, 0, 0));
    EXPECT_EQ(fromText<zel::Vec3d>("Vec3:64bit", "1,2"), zel::Vec3d(1, 2, 0));
    EXPECT_EQ(fromText<zel::Vec3d>("Vec3:64bit", "1,2,"), zel::Vec3d(1, 2, 0));
    EXPECT_EQ(fromText<zel::Vec3d>("Vec3:64bit", "1,2,3,4"), zel::Vec3d(1, 2, 3));
    EXPECT_EQ(fromText<zel::Vec3d>("Vec3:64bit", "1,,3"), zel::Vec3d(1, 0, 3));
    EXPECT_EQ(fromText<zel::Vec3d>("Vec3:64bit", "x"), zel::Vec3d(0, 0, 0));
}

TEST(AsciiFormatTest, LongTextsAndSpecialNumbersAreRead) {
    const std::string many(1000, ' ');
    EXPECT_EQ(fromText<zel::Vec3d>("Vec3:64bit", "1" + many + "," + many + "2" + many + ",3"),
              zel::Vec3d(1, 2, 3));
    const std::string digits(5000, '1');
    const auto v = fromText<zel::Vec3d>("Vec3:64bit", digits + ", nan, -inf");
    EXPECT_EQ(v.x(), std::numeric_limits<double>::infinity());
    EXPECT_TRUE(std::isnan(v.y()));
    EXPECT_EQ(v.z(), -std::numeric_limits<double>::infinity());
    EXPECT_EQ(
        toText("Vec2:32bit",
               zel::Vec2f(std::numeric_limits<float>::infinity(), -std::numeric_limits<float>::quiet_NaN())),
        "inf, -nan");
}

TEST(AsciiFormatTest, MatricesKeepTheirFormWhateverTheTextSays) {
    const auto affine = fromText<zel::AffineMatrix4x4T<double>>("AffineMatrix4x4:64bit", "2");
    EXPECT_EQ(affine(0, 3), 2.0);
    EXPECT_EQ(affine(3, 0), 0.0);
    EXPECT_EQ(affine(3, 3), 1.0);
    const auto spd = fromText<zel::SPDMatrix3x3>("SPDMatrix3x3:default", "1,2,3,4,5,6,7,8,9");
    EXPECT_EQ(spd(0, 1), 3.0);
    EXPECT_EQ(spd(1, 0), 3.0);
}

TEST(AsciiFormatTest, NamesStringsAndPointers) {
    EXPECT_EQ(toText("Name:default", zel::Name("a name")), "a name");
    EXPECT_EQ(fromText<zel::Name>("Name:default", "a name"), zel::Name("a name"));
    const zel::Name name("other");
    zelTest::Elements string("String:default", 1);
    zelData::transform(string.data(), string.format(), &name, zelData::getFormat("Name:default"), 1);
    EXPECT_EQ(*string.as<zel::String>(), "other");
    EXPECT_EQ(toText("String:default", zel::String("a \"text\"")), "a \"text\"");
    EXPECT_EQ(fromText<zel::String>("String:default", ""), "");

    int place = 0;
    void* const pointer = &place;
    EXPECT_EQ(toText("Pointer:default", pointer), printed("%p", pointer));
    EXPECT_EQ(fromText<void*>("Pointer:default", printed("%p", pointer)), pointer);
    void* const null = nullptr;
    EXPECT_EQ(fromText<void*>("Pointer:default", toText("Pointer:default", null)), nullptr);
    EXPECT_EQ(fromText<void*>("Pointer:default", "nullptr"), nullptr);
}

TEST(AsciiFormatTest, NoTextGivesAPointerToAnObject) {
    zelCore::init();
    {
        zelTest::LogCapture log;
        zel::Object object("object");
        zel::Object* const pointer = &object;
        const std::string text = toText("ObjectPointer:64bit", pointer);
        EXPECT_EQ(text, printed("%p", static_cast<void*>(pointer)));
        EXPECT_EQ(fromText<zel::Object*>("ObjectPointer:64bit", "nullptr"), nullptr);
        EXPECT_EQ(log.text(), "");
        EXPECT_EQ(fromText<zel::Object*>("ObjectPointer:64bit", text), nullptr);
        EXPECT_THAT(log.text(), HasSubstr("ObjectPointer: '" + text + "' can not be read back as an object"));
    }
    zelCore::shutdown();
}

namespace {

class AsciiLocaleTest : public testing::Test {
private:
    zelTest::CommaLocale m_locale;
};

} // namespace

TEST_F(AsciiLocaleTest, RealsReadAndWriteWithAPoint) {
    for (const auto& [text, value] : std::vector<std::pair<const char*, double>>{{"1.5", 1.5},
                                                                                 {"-1.5", -1.5},
                                                                                 {"+1.5", 1.5},
                                                                                 {".5", 0.5},
                                                                                 {"-.5", -0.5},
                                                                                 {" 1.5", 1.5},
                                                                                 {"\n-1.5e1x", -15},
                                                                                 {"0x1.8p1", 3},
                                                                                 {"-0x.8", -0.5},
                                                                                 {"1.5,5", 1.5},
                                                                                 {"+1,5", 1},
                                                                                 {"1.5e400", HUGE_VAL},
                                                                                 {"-1.5e400", -HUGE_VAL},
                                                                                 {"1.5e-400", 0}}) {
        EXPECT_EQ(fromText<double>("Real:64bit", text), value) << text;
        EXPECT_EQ(fromText<zel::Vec3d>("Vec3:64bit", text).x(), value) << text;
    }
    EXPECT_EQ(fromText<zel::Vec3d>("Vec3:64bit", "+.5, +1.5, .25"), zel::Vec3d(0.5, 1.5, 0.25));
    EXPECT_EQ(toText("Real:64bit", 1.5), "1.5");
    EXPECT_EQ(toText("Vec2:64bit", zel::Vec2d(0.5, -1.5)), "0.500000, -1.500000");
}
