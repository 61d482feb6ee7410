#include <zel/VerifyThrow.h>
#include <zelCore/zelCore.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/LogCapture.h>
#include <support/StreamCapture.h>
#include <support/WhatOf.h>

#include <string>

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
using zelTest::whatOf;

namespace {

class VerifyThrowTest : public testing::Test {
protected:
    void SetUp() override { zelCore::init(); }
    void TearDown() override { zelCore::shutdown(); }
};

std::string placeOf(int line) {
    return "[tests/logging/VerifyThrowTest.cpp:" + std::to_string(line) + "] ";
}

TEST_F(VerifyThrowTest, WhatIsTruePassesAndIsEvaluatedOnce) {
    int count = 0;
    zelVerifyThrow(++count == 1);
    zelVerifyThrowN(++count == 2, "never seen %d", 1);
    EXPECT_EQ(count, 2);
}

TEST_F(VerifyThrowTest, WhatIsFalseThrowsItsText) {
    const zelTest::StreamCapture errors(std::cerr);
    const int line = __LINE__;
    const std::string plain = whatOf([] { zelVerifyThrow(1 == 2); });
    const std::string renamed = whatOf([] { zelVerifyThrowAs(false, "a && b"); });
    const std::string more = whatOf([] { zelVerifyThrowN(false, "%d of %s", 3, "100%"); });
    EXPECT_EQ(plain, placeOf(line + 1) + "zelVerify failed: `1 == 2'");
    EXPECT_EQ(renamed, placeOf(line + 2) + "zelVerify failed: `a && b'");
    EXPECT_EQ(more, placeOf(line + 3) + "zelVerify failed: `false', 3 of 100%");
}

TEST_F(VerifyThrowTest, PrintsTextAndCallStackBetweenTwoRules) {
    const zelTest::StreamCapture errors(std::cerr);
    const zelTest::LogCapture log(zel::Notify::Warning);
    const std::string text = whatOf([] { zelVerifyThrow(false); });
    const std::string rule = std::string(78, '=') + "\n";
    EXPECT_THAT(errors.text(), StartsWith(rule + text + "\n  "));
    EXPECT_THAT(errors.text(), HasSubstr("loggingTests"));
    EXPECT_THAT(errors.text(), HasSubstr("\n" + rule));
    EXPECT_THAT(log.text(), HasSubstr(text));
}

} // namespace
