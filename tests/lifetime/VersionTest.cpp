#include <zelCore/Version.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace zelCore;
using testing::MatchesRegex;

TEST(VersionTest, VersionsCompareAsIntegers) {
    EXPECT_LT(ZEL_CALC_VERSION(2, 6, 1, 0), ZEL_CALC_VERSION(2, 6, 3, 0));
    EXPECT_LT(ZEL_CALC_VERSION(2, 6, 255, 255), ZEL_CALC_VERSION(2, 7, 0, 0));
    EXPECT_LT(ZEL_CALC_VERSION(2, 255, 255, 255), ZEL_CALC_VERSION(3, 0, 0, 0));
    EXPECT_EQ(ZEL_CALC_VERSION(2, 40, 0, 0), ZEL_GET_VERSION());
    EXPECT_GT(ZEL_CALC_VERSION(255, 0, 0, 0), ZEL_CALC_VERSION(2, 0, 0, 0));
}

TEST(VersionTest, TheLibraryKnowsItself) {
    EXPECT_STREQ(zelGetCompanyName(), "Norvane");
    EXPECT_STREQ(zelGetLibraryName(), "ZEL Library 64Bit");
    EXPECT_EQ(zelGetVersion(true), "2.40.0.0");
    EXPECT_EQ(zelGetVersion(false), "2.40");
    EXPECT_EQ(zelGetVersionNumber(), ZEL_GET_VERSION());
    EXPECT_EQ(zelGetSerializationVersion(), 90);
    EXPECT_STRNE(zelGetBuildType(), "");
    EXPECT_NE(zelGetCppBuildFlags(), nullptr);
}

TEST(VersionTest, TheBuildDateHasTwoForms) {
    EXPECT_THAT(zelGetBuildDate(false), MatchesRegex("[A-Z][a-z]{2} [ 0-9][0-9] [0-9]{4}"));
    EXPECT_THAT(zelGetBuildDate(true), MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2}"));
    EXPECT_EQ(zelGetBuildDate(true).substr(0, 4), zelGetBuildDate(false).substr(7));
    EXPECT_THAT(zelGetBuildTime(), MatchesRegex("[0-9]{2}:[0-9]{2}:[0-9]{2}"));
}
