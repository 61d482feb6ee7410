#include "support/FirstLife.h"
#include "support/StreamCapture.h"

#include <zel/Log.h>
#include <zel/Notify.h>
#include <zel/SerialTask.h>
#include <zel/Singleton.h>
#include <zel/SingletonManager.h>
#include <zel/Thread.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

using zelTest::StreamCapture;
using namespace zel;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

// Never destroyed: services that a test leaves behind end after the test's statics.
std::vector<std::string>& s_log = *new std::vector<std::string>;

/// Notes its end, and does something of the test's when it is shut down.
struct LoggedService : Singleton {
    LoggedService(std::string name, int priority, std::function<void()> action = {})
        : Singleton(priority), m_name(std::move(name)), m_action(std::move(action)) {}
    ~LoggedService() override { s_log.push_back("~" + m_name); }
    void shutdown() override {
        s_log.push_back(m_name);
        if (m_action)
            m_action();
    }
    [[nodiscard]] std::string getClassName() const override { return m_name; }

private:
    std::string m_name;
    std::function<void()> m_action;
};

SingletonManager& manager() {
    return *SingletonManager::instance();
}

struct SingletonManagerTest : testing::Test {
    void SetUp() override { s_log.clear(); }
};

} // namespace

TEST_F(SingletonManagerTest, TheInstanceHasOneOwner) {
    EXPECT_EQ(manager().referenceCount(), 1);
    EXPECT_EQ(SingletonManager::instance(), SingletonManager::instance());
}

TEST_F(SingletonManagerTest, DestroysByDescendingPriority) {
    ZEL_FIRST_LIFE_ONLY();
    new LoggedService("b", 20000);
    new LoggedService("d", 5);
    new LoggedService("a", 30000);
    new LoggedService("c", 9000);
    manager().shutdown();
    EXPECT_THAT(s_log, ElementsAre("a", "~a", "b", "~b", "c", "~c", "d", "~d"));
}

TEST_F(SingletonManagerTest, Priority10000GoesBefore9999WhateverCameFirst) {
    ZEL_FIRST_LIFE_ONLY();
    new LoggedService("lower", 9999);
    new LoggedService("upper", 10000);
    manager().shutdown();
    EXPECT_THAT(s_log, ElementsAre("upper", "~upper", "lower", "~lower"));
}

TEST_F(SingletonManagerTest, UnregisteringFromTheUpperListDeletes) {
    ZEL_FIRST_LIFE_ONLY();
    auto* service = new LoggedService("a", 10000);
    EXPECT_TRUE(manager().unregisterSingleton(service));
    EXPECT_THAT(s_log, ElementsAre("~a")); // deleted and not shut down
    EXPECT_FALSE(manager().unregisterSingleton(service));
}

TEST_F(SingletonManagerTest, UnregisteringFromTheLowerListOnlyForgets) {
    auto* service = new LoggedService("a", 9999);
    EXPECT_FALSE(manager().unregisterSingleton(service));
    EXPECT_TRUE(s_log.empty());
    manager().shutdown();
    EXPECT_TRUE(s_log.empty());
    delete service;
}

TEST_F(SingletonManagerTest, UnregisteringAnUnknownServiceIsFalse) {
    auto* service = new LoggedService("a", 9999);
    EXPECT_FALSE(manager().unregisterSingleton(service));
    EXPECT_FALSE(manager().unregisterSingleton(service));
    EXPECT_FALSE(manager().unregisterSingleton(nullptr));
    delete service;
}

TEST_F(SingletonManagerTest, AServiceMadeDuringShutdownComesAfterTheUpperList) {
    ZEL_FIRST_LIFE_ONLY();
    new LoggedService("first", 30000, [] { new LoggedService("late", 40000); });
    new LoggedService("second", 20000);
    manager().shutdown();
    // The first is visited twice, as the lists moved under its shutdown, and shut down once.
    EXPECT_THAT(s_log, ElementsAre("first", "~first", "second", "~second", "late", "~late"));
}

TEST_F(SingletonManagerTest, UnregisteringDuringShutdownLeavesTheListsWhole) {
    ZEL_FIRST_LIFE_ONLY();
    auto* victim = new LoggedService("victim", 20000);
    new LoggedService("killer", 30000, [victim] { manager().unregisterSingleton(victim); });
    new LoggedService("last", 10000);
    manager().shutdown();
    EXPECT_THAT(s_log, ElementsAre("killer", "~victim", "~killer", "last", "~last"));
}

TEST_F(SingletonManagerTest, AServiceMayUnregisterItselfWhenItIsShutDown) {
    ZEL_FIRST_LIFE_ONLY();
    LoggedService* lower = nullptr;
    LoggedService* upper = nullptr;
    upper = new LoggedService(
        "upper", 20000, [&] { manager().unregisterSingleton(std::exchange(upper, nullptr)); });
    lower = new LoggedService("lower", 9995, [&] { manager().unregisterSingleton(lower); });
    new LoggedService("last", 9990);
    manager().shutdown();
    // One of the lower list is forgotten, and its maker's to destroy.
    EXPECT_THAT(s_log, ElementsAre("upper", "~upper", "lower", "last", "~last"));
    delete lower;
}

TEST_F(SingletonManagerTest, AServiceIsShutDownOnceAlsoFromItsOwnShutdown) {
    ZEL_FIRST_LIFE_ONLY();
    LoggedService* service = nullptr;
    service = new LoggedService("a", 20000, [&] { service->_shutdown(); });
    manager().shutdown();
    EXPECT_THAT(s_log, ElementsAre("a", "~a"));
}

namespace {
std::vector<LoggedService*> s_bred;
/// Makes a successor each time it is shut down.
void breed() {
    const int generation = static_cast<int>(s_bred.size()) + 1;
    s_bred.push_back(new LoggedService("hydra" + std::to_string(generation), generation, breed));
}
} // namespace

TEST_F(SingletonManagerTest, TheLowerListIsGivenUpAfter200Passes) {
    ZEL_FIRST_LIFE_ONLY();
    breed();
    manager().shutdown();
    // The first pass goes to the service of the CPU device, which is there from the start. The newest of the
    // others has the highest priority, so each further pass shuts another one down and destroys none.
    EXPECT_EQ(s_log.size(), 199U);
    EXPECT_EQ(s_log.back(), "hydra199");
    EXPECT_EQ(s_bred.size(), 200U);
    const StreamCapture capture(std::cerr);
    manager().print();
    EXPECT_EQ(capture.text(), ""); // nobody owns the rest any more
    for (const LoggedService* service : s_bred)
        delete service;
}

TEST_F(SingletonManagerTest, StaysShutDown) {
    manager().shutdown();
    auto* late = new LoggedService("late", 20000);
    manager().shutdown();
    EXPECT_TRUE(s_log.empty());
    EXPECT_FALSE(manager().unregisterSingleton(late)); // of the lower list, whatever its priority
    delete late;
}

TEST_F(SingletonManagerTest, PrintsTheUpperAndThenTheLowerList) {
    ZEL_FIRST_LIFE_ONLY();
    auto* b = new LoggedService("b", 20000);
    auto* a = new LoggedService("a", 10000);
    new LoggedService("c", 7);
    new LoggedService("d", 8);
    {
        const StreamCapture capture(std::cerr);
        manager().print();
        EXPECT_THAT(capture.text(), HasSubstr("10000 : 'a'\n20000 : 'b'\n"));
        EXPECT_THAT(capture.text(), HasSubstr("7 : 'c'\n8 : 'd'\n"));
        EXPECT_LT(capture.text().find("'b'"), capture.text().find("'c'"));
    }
    EXPECT_TRUE(manager().unregisterSingleton(a));
    EXPECT_TRUE(manager().unregisterSingleton(b));
}

TEST_F(SingletonManagerTest, AMessageAfterNotifyIsGoneGetsAFreshNotify) {
    ZEL_FIRST_LIFE_ONLY();
    zelCore::init();
    const Notify* fresh = nullptr;
    new LoggedService("late", 100, [&fresh] {
        const StreamCapture quiet(std::cerr);
        ZEL_LOG_WARNING("after the end");
        fresh = Notify::instance();
    });
    zelCore::shutdown();
    EXPECT_THAT(s_log, ElementsAre("late", "~late"));
    ASSERT_NE(fresh, nullptr);
    // The fresh one was registered into the lower list and shut down with it.
    const StreamCapture capture(std::cerr);
    manager().print();
    EXPECT_EQ(capture.text(), "");
}

TEST(SingletonManagerStressTest, ServicesRegisterFromManyThreads) {
    ZEL_FIRST_LIFE_ONLY();
    s_log.clear();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 100; ++i)
                new LoggedService("s", 10000 + 4 * i + t);
        });
    for (std::thread& thread : threads)
        thread.join();
    manager().shutdown();
    EXPECT_EQ(s_log.size(), 800U);
}

TEST(SingletonManagerDeathTest, HasNoInstanceAfterItsDestruction) {
    ZEL_FIRST_LIFE_ONLY();
    EXPECT_EXIT(
        {
            s_log.clear();
            new LoggedService("a", 20000);
            SingletonManager::instance()->unreference(); // as its only owner does at exit
            const bool late = SingletonManager::instance() == nullptr;
            const LoggedService service("unregistered", 20000);
            ZEL_LOG_WARNING("even now a message arrives");
            _exit(late && s_log.size() == 2 ? 0 : 1);
        },
        testing::ExitedWithCode(0),
        "even now a message arrives");
}

TEST(SingletonManagerDeathTest, AfterAForcedShutdownNoServiceIsShutDownUpToTheEndOfTheProcess) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    // What a forced shutdown leaves behind is no leak of the child's, which is started anew with this.
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
    EXPECT_EXIT(
        {
            zelCore::init();
            static const LoggedService* const upper = new LoggedService("upper", 20000, [] { _exit(1); });
            static const LoggedService* const lower = new LoggedService("lower", 5, [] { _exit(2); });
            const ref_ptr<SerialTask> task(new SerialTask("ends the library", [] {
                zelCore::shutdown(); // forced, as this task is active
                manager().shutdown();
                const bool both = upper != nullptr && lower != nullptr;
                std::exit(forcedShutdown() && both ? 0 : 3); // the manager's destructor asks once more
            }));
            task->execute();
        },
        testing::ExitedWithCode(0),
        "");
}

TEST_F(SingletonManagerTest, AServiceThatThrowsDoesNotKeepTheOthersFromTheirShutdown) {
    ZEL_FIRST_LIFE_ONLY();
    new LoggedService("upper", 20001);
    new LoggedService("thrower", 20000, [] { throw std::runtime_error("disk full"); });
    new LoggedService("second", 19999, [] { throw std::runtime_error("and again"); });
    new LoggedService("lower", 50);
    zelCore::init();
    const StreamCapture errors(std::cerr);
    zelCore::shutdown();
    EXPECT_THAT(
        s_log, ElementsAre("upper", "~upper", "thrower", "~thrower", "second", "~second", "lower", "~lower"));
    EXPECT_EQ(errors.text(), "zelCore: shutdown goes on after an exception in thrower: disk full\n");
}
