#include <zel/String.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/PointLocale.h>

#include <cstdarg>
#include <sstream>
#include <string>

namespace {

using zel::String;

/// Hides the format from the compiler, which would refuse to build what the test is about.
std::string formatUnchecked(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string text = zel::detail::formatText(format, arguments);
    va_end(arguments);
    return text;
}

TEST(StringTest, FormatsByTheRulesOfC) {
    const zelTest::PointLocale point; // which are those of the locale
    EXPECT_EQ(String::format("%s has %d bodies, %.2f %%", "belt", 1024, 12.345),
              "belt has 1024 bodies, 12.35 %");
    EXPECT_EQ(String::format("plain"), "plain");
    EXPECT_EQ(String::format("%s", ""), "");
}

TEST(StringTest, FormatsTextsOfAnyLength) {
    const std::string longText(100'000, 'x');
    EXPECT_EQ(String::format("<%s>", longText.c_str()), "<" + longText + ">");
}

TEST(StringTest, FormatKeepsZeroCharacters) {
    EXPECT_EQ(String::format("a%cb", '\0'), String("a\0b", 3));
}

TEST(StringTest, ConvertsFromAndToTheStandardString) {
    const std::string standard = "text";
    String string = standard;
    string += "s";
    const std::string& back = string;
    EXPECT_EQ(back, "texts");
    string = "other";
    string = std::string("another");
    std::ostringstream stream;
    stream << string + " one";
    EXPECT_EQ(stream.str(), "another one");
}

TEST(StringDeathTest, AFailedPrintIsFatal) {
    // A width beyond the range of int makes the C library give up.
    EXPECT_DEATH(formatUnchecked("%99999999999d", 1),
                 testing::HasSubstr("zelVerify failed: `ret >= 0', Could not allocate memory for formatted "
                                    "string: '%99999999999d'\n"));
}

} // namespace
