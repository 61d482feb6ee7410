#include "support/FirstLife.h"

#include <zel/Singleton.h>
#include <zel/SingletonManager.h>

#include <gtest/gtest.h>

using namespace zel;

namespace {

struct PlainService : Singleton {
    explicit PlainService(int priority) : Singleton(priority) {}
    PlainService() = default;
    void shutdown() override { ++shutdowns; }
    [[nodiscard]] std::string getClassName() const override { return __PRETTY_FUNCTION__; }
    int shutdowns = 0;
};

} // namespace

TEST(SingletonTest, IsShutDownOnceOnly) {
    ZEL_FIRST_LIFE_ONLY();
    auto* service = new PlainService(20000);
    service->_shutdown();
    service->_shutdown();
    EXPECT_EQ(service->shutdowns, 1);
    EXPECT_TRUE(SingletonManager::instance()->unregisterSingleton(service));
}

TEST(SingletonTest, KnowsItsPriority) {
    ZEL_FIRST_LIFE_ONLY();
    auto* wish = new PlainService(20000);
    auto* none = new PlainService;
    EXPECT_EQ(wish->getPriority(), 20000);
    EXPECT_EQ(none->getPriority(), 1073741824);
    EXPECT_NE(none->getClassName().find("Service"), std::string::npos);
    EXPECT_TRUE(SingletonManager::instance()->unregisterSingleton(wish));
    EXPECT_TRUE(SingletonManager::instance()->unregisterSingleton(none));
}
