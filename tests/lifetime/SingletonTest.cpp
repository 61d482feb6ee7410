#include <zel/Singleton.h>
#include <zel/SingletonManager.h>

#include <gtest/gtest.h>

using namespace zel;

namespace {

struct Service : Singleton {
    explicit Service(int priority) : Singleton(priority) {}
    Service() = default;
    void shutdown() override { ++shutdowns; }
    [[nodiscard]] std::string getClassName() const override { return __PRETTY_FUNCTION__; }
    int shutdowns = 0;
};

} // namespace

TEST(SingletonTest, IsShutDownOnceOnly) {
    auto* service = new Service(20000);
    service->_shutdown();
    service->_shutdown();
    EXPECT_EQ(service->shutdowns, 1);
    EXPECT_TRUE(SingletonManager::instance()->unregisterSingleton(service));
}

TEST(SingletonTest, KnowsItsPriority) {
    auto* wish = new Service(20000);
    auto* none = new Service;
    EXPECT_EQ(wish->getPriority(), 20000);
    EXPECT_EQ(none->getPriority(), 1073741824);
    EXPECT_NE(none->getClassName().find("Service"), std::string::npos);
    EXPECT_TRUE(SingletonManager::instance()->unregisterSingleton(wish));
    EXPECT_TRUE(SingletonManager::instance()->unregisterSingleton(none));
}
