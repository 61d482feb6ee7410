#include "support/FirstLife.h"
#include "support/StreamCapture.h"
#include "support/TempDirectory.h"

#include <zel/Log.h>
#include <zel/Notify.h>
#include <zel/Thread.h>
#include <zel/Timer.h>
#include <zelCore/zelCore.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>

using zelTest::StreamCapture;
using zelTest::TempDirectory;
using namespace zel;
using testing::HasSubstr;

namespace {

size_t count(const std::string& text, const std::string& part) {
    size_t number = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++number;
    return number;
}

} // namespace

TEST(InitTest, IsShutDownBeforeTheFirstInitAndAfterShutdown) {
    EXPECT_TRUE(zelCore::isShutdown());
    zelCore::init();
    EXPECT_FALSE(zelCore::isShutdown());
    zelCore::shutdown();
    EXPECT_TRUE(zelCore::isShutdown());
}

TEST(InitTest, ASecondInitDoesNothingAndOneShutdownEndsTheLibrary) {
    setenv("ZEL_OUTPUT_LEVEL", "0", 1);
    const StreamCapture output(std::cerr);
    zelCore::init();
    const uint64 tick = getStartTick();
    const Thread* const mainThread = Thread::getCurrentThread();
    ASSERT_NE(mainThread, nullptr);
    zelCore::init();
    EXPECT_EQ(Thread::getCurrentThread(), mainThread);
    EXPECT_EQ(getNumThreads(), 1U);
    EXPECT_EQ(getStartTick(), tick);
    EXPECT_EQ(output.text(), "zelCore Initialized.\n");
    zelCore::shutdown();
    EXPECT_TRUE(zelCore::isShutdown());
    zelCore::shutdown();
    EXPECT_TRUE(zelCore::isShutdown());
}

TEST(InitTest, ShutdownWithoutInitDoesNothing) {
    zelCore::shutdown();
    EXPECT_TRUE(zelCore::isShutdown());
}

TEST(InitTest, TheFirstMessageIsOfLevelDebugAndLeavesNoSelection) {
    const StreamCapture output(std::cerr);
    zelCore::init();
    EXPECT_EQ(output.text(), ""); // below the default output level
    EXPECT_EQ(Notify::instance()->getOutputMode(), Notify::Debug);
    EXPECT_FALSE(Notify::instance()->popPrintSelection(Notify::Debug));
    zelCore::shutdown();
}

TEST(InitTest, InitStoresTheStartTick) {
    if (!zelTest::isSecondLife()) {
        EXPECT_EQ(getStartTick(), 0U);
    }
    const uint64 before = Timer::now();
    zelCore::init();
    EXPECT_GE(getStartTick(), before);
    EXPECT_LE(getStartTick(), Timer::now());
    zelCore::shutdown();
}

TEST(InitTest, ResetStartTickGivesTheLowHalf) {
    const uint64 before = Timer::now();
    const uint32 low = resetStartTick();
    EXPECT_GE(getStartTick(), before);
    EXPECT_EQ(low, static_cast<uint32>(getStartTick()));
}

TEST(InitTest, TheLibraryCanBeStartedAgain) {
    ZEL_FIRST_LIFE_ONLY();
    const TempDirectory directory;
    setenv("ZEL_LOG_ENABLE", "1", 1);
    setenv("ZEL_LOG_FILE", directory.path("run.txt").c_str(), 1);
    zelCore::init();
    zelCore::shutdown();
    zelCore::init();
    EXPECT_FALSE(zelCore::isShutdown());
    ZEL_LOG_DEBUG("second life");
    zelCore::shutdown();
    EXPECT_EQ(count(directory.read("run-0001.txt"), "zelCore Initialized.\n"), 1U);
    EXPECT_EQ(count(directory.read("run-0001.txt"), "Closing log\n"), 1U);
    EXPECT_THAT(directory.read("run-0002.txt"), HasSubstr("second life"));
    // The services of the second life live to the end of the process.
    EXPECT_EQ(count(directory.read("run-0002.txt"), "Closing log\n"), 0U);
}

TEST(InitTest, ManyCyclesRun) {
    for (int i = 0; i < 20; ++i) {
        zelCore::init();
        EXPECT_FALSE(zelCore::isShutdown());
        zelCore::shutdown();
    }
    EXPECT_TRUE(zelCore::isShutdown());
}
