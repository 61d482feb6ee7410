#include <zel/Verify.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/Stress.h>
#include <sys/resource.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

using testing::HasSubstr;

namespace {

/// The whole line as it stands on the standard error stream, ended.
std::string at(int line, const std::string& text) {
    return "[tests/ground/VerifyTest.cpp:" + std::to_string(line) + "] " + text + "\n";
}

} // namespace

TEST(VerifyTest, ATrueExpressionDoesNothingAndIsEvaluatedOnce) {
    int evaluations = 0;
    zelVerify(++evaluations == 1);
    zelVerifyN(++evaluations == 2, "unused %d", evaluations);
    zelVerifyAs(++evaluations == 3, "given");
    zelVerifyNAs(++evaluations == 4, "given", "unused");
    EXPECT_EQ(evaluations, 4);
}

TEST(VerifyTest, BuildErrorStringFormatsBothTextsWithAllArguments) {
    EXPECT_EQ(zel::buildErrorString("[%s:%u] ", "%d %s", "f", 3U, 5, "x"), "[f:3] 5 x");
    EXPECT_EQ(zel::buildErrorString("plain", ""), "plain");
    const std::string longText(100000, 'x');
    EXPECT_EQ(zel::buildErrorString("%s", "%s", longText.c_str(), "y"), longText + "y");
}

TEST(VerifyDeathTest, ZelVerifyNamesTheExpressionAsItIsWritten) {
    EXPECT_DEATH(zelVerify(1 == 2), HasSubstr(at(__LINE__, "zelVerify failed: `1 == 2'")));
    const void* const pointer = nullptr;
    EXPECT_DEATH(zelVerify(pointer != NULL), HasSubstr(at(__LINE__, "zelVerify failed: `pointer != NULL'")));
}

TEST(VerifyDeathTest, ZelVerifyNAddsAFormattedMessage) {
    EXPECT_DEATH(zelVerifyN(false, "got %d of %s", 3, "100%"),
                 HasSubstr(at(__LINE__ - 1, "zelVerify failed: `false', got 3 of 100%")));
}

TEST(VerifyDeathTest, TheTextOfTheExpressionCanBeGiven) {
    EXPECT_DEATH(zelVerifyAs(false, "given text"), HasSubstr(at(__LINE__, "zelVerify failed: `given text'")));
    EXPECT_DEATH(zelVerifyNAs(false, "given text", "number %u", 7U),
                 HasSubstr(at(__LINE__ - 1, "zelVerify failed: `given text', number 7")));
}

TEST(VerifyDeathTest, ZelAbortWithAndWithoutAMessage) {
    EXPECT_DEATH(zelAbort(), HasSubstr(at(__LINE__, "zelAbort")));
    EXPECT_DEATH(zelAbort("value %d", 9), HasSubstr(at(__LINE__, "zelAbort: value 9")));
}

TEST(VerifyDeathTest, EndsByTheAbortSignal) {
    EXPECT_EXIT(zelVerify(false), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(zel::abort(), testing::KilledBySignal(SIGABRT), "");
    EXPECT_EXIT(zel::abortWith("a line"), testing::KilledBySignal(SIGABRT), "a line\n");
}

#if !defined(ZEL_TEST_UNDER_ASAN) && !defined(ZEL_TEST_UNDER_TSAN) // they need address space themselves
namespace {

/// Takes all memory, down to small blocks.
void exhaustMemory() {
    const rlimit limit{size_t{200} << 20U, size_t{200} << 20U};
    ASSERT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
    for (size_t size = size_t{1} << 20U; size >= 16; size /= 2)
        while (void* block = std::malloc(size))
            std::memset(block, 1, size);
}

} // namespace

TEST(VerifyDeathTest, PrintsItsTextWhereThereIsNoMemory) {
    EXPECT_EXIT(
        {
            exhaustMemory();
            zelVerifyN(false, "%s of %d", "out", 7);
        },
        testing::KilledBySignal(SIGABRT),
        HasSubstr("zelVerify failed: `false', out of 7\n"));
    EXPECT_EXIT(
        {
            exhaustMemory();
            zelAbort("nothing left");
        },
        testing::KilledBySignal(SIGABRT),
        HasSubstr("zelAbort: nothing left\n"));
}
#endif

TEST(VerifyDeathTest, ATextThatIsTooLongIsCut) {
    const std::string text(100000, 'x');
    EXPECT_EXIT(zelAbort("%s", text.c_str()), testing::KilledBySignal(SIGABRT), "x\n$");
}
