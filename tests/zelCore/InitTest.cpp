#include <zelCore/zelCore.h>

#include <gtest/gtest.h>

TEST(InitTest, IsShutDownBeforeTheFirstInitAndAfterShutdown) {
    EXPECT_TRUE(zelCore::isShutdown());
    zelCore::init();
    EXPECT_FALSE(zelCore::isShutdown());
    zelCore::shutdown();
    EXPECT_TRUE(zelCore::isShutdown());
}
