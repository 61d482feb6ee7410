#include <zelData/AccessMode.h>

#include <gtest/gtest.h>

namespace AccessMode = zelData::AccessMode;

TEST(AccessModeTest, GoesFromNumberToTextAndBack) {
    for (const auto& [mode, text] : {std::pair{1U, "READ"}, {2U, "WRITE"}, {3U, "READ_WRITE"}}) {
        EXPECT_STREQ(zelData::getAccessModeString(mode), text);
        EXPECT_EQ(zelData::getAccessMode(text), mode);
    }
    EXPECT_EQ(AccessMode::READ | AccessMode::WRITE, AccessMode::READ_WRITE);
}

TEST(AccessModeDeathTest, RefusesUnknownNumbers) {
    EXPECT_DEATH(static_cast<void>(zelData::getAccessModeString(0)), "zelAbort: Unknown mode 0");
    EXPECT_DEATH(static_cast<void>(zelData::getAccessModeString(4)), "zelAbort: Unknown mode 4");
}

TEST(AccessModeDeathTest, RefusesTextsThatDiffer) {
    EXPECT_DEATH(static_cast<void>(zelData::getAccessMode("read")), "zelAbort: Unknown mode 'read'");
    EXPECT_DEATH(static_cast<void>(zelData::getAccessMode(" READ")), "zelAbort: Unknown mode ' READ'");
    EXPECT_DEATH(static_cast<void>(zelData::getAccessMode("")), "zelAbort: Unknown mode ''");
}
