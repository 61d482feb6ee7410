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

void end(PlainService* service) {
    // The manager deletes those of its upper list, which it has in the first life alone.
    const bool isDeleted = SingletonManager::instance()->unregisterSingleton(service);
    EXPECT_EQ(isDeleted, !zelTest::isSecondLife());
    if (!isDeleted)
        delete service;
}

} // namespace

TEST(SingletonTest, IsShutDownOnceOnly) {
    auto* service = new PlainService(20000);
    service->_shutdown();
    service->_shutdown();
    EXPECT_EQ(service->shutdowns, 1);
    end(service);
}

TEST(SingletonTest, KnowsItsPriority) {
    auto* wish = new PlainService(20000);
    auto* none = new PlainService;
    EXPECT_EQ(wish->getPriority(), 20000);
    EXPECT_EQ(none->getPriority(), 1073741824);
    EXPECT_NE(none->getClassName().find("Service"), std::string::npos);
    end(wish);
    end(none);
}
