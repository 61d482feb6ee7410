#include "support/FirstLife.h"
#include "support/StreamCapture.h"

#include <zel/InitCallback.h>
#include <zelCore/zelCore.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using namespace zel;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::vector<std::string>& calls() {
    static std::vector<std::string> s_calls;
    return s_calls;
}

void noteA() {
    calls().push_back("a");
}
void noteB() {
    calls().push_back("b");
}

std::unique_ptr<InitCallback> s_nested;
void makeNested() {
    calls().push_back("outer");
    if (s_nested == nullptr)
        s_nested = std::make_unique<InitCallback>(noteA);
}

struct InitCallbackTest : testing::Test {
    void SetUp() override { calls().clear(); }
    void TearDown() override { s_nested.reset(); }
};

int s_macroInit = 0;
int s_macroShutdown = 0;
int s_macroStatic = 0;

ZEL_INIT_CALLBACK {
    ++s_macroInit;
}
ZEL_SHUTDOWN_CALLBACK {
    ++s_macroShutdown;
}
ZEL_STATIC_INIT {
    ++s_macroStatic;
}

} // namespace

TEST_F(InitCallbackTest, TheNewestIsCalledFirst) {
    const InitCallback a(noteA);
    const InitCallback b(noteB);
    EXPECT_THAT(calls(), IsEmpty());
    InitCallback::triggerInit();
    EXPECT_THAT(calls(), ElementsAre("b", "a"));
}

TEST_F(InitCallbackTest, OneMadeAfterInitRunsAtOnceAndAtEachLaterInit) {
    zelCore::init();
    const InitCallback a(noteA);
    EXPECT_THAT(calls(), ElementsAre("a"));
    zelCore::shutdown();
    EXPECT_THAT(calls(), ElementsAre("a"));
    zelCore::init();
    EXPECT_THAT(calls(), ElementsAre("a", "a"));
    zelCore::shutdown();
}

TEST_F(InitCallbackTest, OneMadeDuringTheWalkWaitsForTheNext) {
    const InitCallback outer(makeNested);
    zelCore::init();
    EXPECT_THAT(calls(), ElementsAre("outer"));
    zelCore::shutdown();
    zelCore::init();
    EXPECT_THAT(calls(), ElementsAre("outer", "a", "outer"));
    zelCore::shutdown();
}

TEST_F(InitCallbackTest, ShutdownCallbacksRunNewestFirstAtShutdownOnly) {
    const ShutdownCallback a(noteA);
    const ShutdownCallback b(noteB);
    zelCore::init();
    EXPECT_THAT(calls(), IsEmpty());
    zelCore::shutdown();
    EXPECT_THAT(calls(), ElementsAre("b", "a"));
    zelCore::shutdown();
    EXPECT_THAT(calls(), ElementsAre("b", "a"));
    const ShutdownCallback late(noteA); // is not called at once
    EXPECT_THAT(calls(), ElementsAre("b", "a"));
}

TEST_F(InitCallbackTest, ARecordThatGoesAwayIsNotCalled) {
    const InitCallback a(noteA);
    auto b = std::make_unique<InitCallback>(noteB);
    const InitCallback c(noteA);
    b.reset();
    InitCallback::triggerInit();
    EXPECT_THAT(calls(), ElementsAre("a", "a"));
}

TEST_F(InitCallbackTest, StaticInitializerCallsAtOnce) {
    const StaticInitializer now(noteA);
    EXPECT_THAT(calls(), ElementsAre("a"));
}

namespace {
std::unique_ptr<InitCallback> s_first, s_second;
} // namespace

TEST_F(InitCallbackTest, AFunctionMayEndItsOwnRecordAndTheNext) {
    const InitCallback last(noteA);
    s_second = std::make_unique<InitCallback>(noteB);
    s_first = std::make_unique<InitCallback>([] {
        calls().push_back("first");
        s_second.reset();
        s_first.reset();
    });
    zelCore::init();
    zelCore::shutdown();
    EXPECT_THAT(calls(), ElementsAre("first", "a"));
}

TEST_F(InitCallbackTest, AShutdownFunctionThatThrowsDoesNotKeepTheOthersFromRunning) {
    const ShutdownCallback after(noteA);
    const ShutdownCallback failing([] { throw std::runtime_error("no way down"); });
    zelCore::init();
    const zelTest::StreamCapture errors(std::cerr);
    zelCore::shutdown();
    EXPECT_EQ(errors.text(),
              "zelCore: shutdown goes on after an exception in a shutdown callback: no way down\n");
    EXPECT_THAT(calls(), ElementsAre("a"));
    EXPECT_TRUE(zelCore::isShutdown());
}

TEST_F(InitCallbackTest, StaticShutdownCallsWhenItIsDestroyedAndNotAtShutdown) {
    auto record = std::make_unique<StaticShutdown>(noteA);
    zelCore::init();
    zelCore::shutdown();
    EXPECT_THAT(calls(), IsEmpty());
    record.reset();
    EXPECT_THAT(calls(), ElementsAre("a"));
}

TEST_F(InitCallbackTest, TheMacrosRegisterTheirBodies) {
    EXPECT_EQ(s_macroStatic, 1);
    const int before = zelTest::isSecondLife() ? 1 : 0;
    zelCore::init();
    EXPECT_EQ(s_macroInit, before + 1);
    EXPECT_EQ(s_macroShutdown, before);
    zelCore::shutdown();
    EXPECT_EQ(s_macroInit, before + 1);
    EXPECT_EQ(s_macroShutdown, before + 1);
    EXPECT_EQ(s_macroStatic, 1);
}

namespace {
bool s_exitTold = false;
ZEL_STATIC_SHUTDOWN {
    if (s_exitTold)
        _exit(7);
}
} // namespace

TEST(InitCallbackDeathTest, TheStaticShutdownMacroRunsAtProcessExit) {
    EXPECT_EXIT(
        {
            s_exitTold = true;
            std::exit(0);
        },
        testing::ExitedWithCode(7),
        "");
}
