#include "support/LogCapture.h"
#include "support/StreamCapture.h"
#include "support/TempDirectory.h"

#include <zelIO/Environment.h>
#include <zelIO/ResourceManager.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using zelIO::Environment;
using zelIO::ResourceManager;
using zelTest::LogCapture;
using zelTest::StreamCapture;
using zelTest::TempDirectory;

namespace {

struct ResourceManagerTest : testing::Test {
    void SetUp() override {
        Environment* const environment = Environment::instance();
        environment->getFilePath(Environment::PluginPath).setFilePath(directory.path("plugins"));
        environment->getFilePath(Environment::ResourcePath).setFilePath(directory.path("resources"));
    }
    TempDirectory directory;
    ResourceManager* manager = ResourceManager::instance();
    StreamCapture quiet{std::cerr};
    LogCapture log{zel::Notify::Info};
};

} // namespace

TEST_F(ResourceManagerTest, IsAServiceOfTheDefaultPriority) {
    EXPECT_EQ(manager->getPriority(), 1073741824);
    EXPECT_THAT(manager->getClassName(), HasSubstr("zelIO::ResourceManager::getClassName"));
}

TEST_F(ResourceManagerTest, PointsBecomeSeparators) {
    directory.write("plugins/a/b/c.zelTask");
    EXPECT_EQ(manager->getFileSystemPath("a.b.c", ".zelTask"), directory.path("plugins/a/b/c.zelTask"));
    EXPECT_EQ(manager->getFileSystemPath("a.b", ""), directory.path("plugins/a/b"));
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(ResourceManagerTest, ThePluginPathGoesBeforeTheResourcePath) {
    directory.write("plugins/a/both.x");
    directory.write("resources/a/both.x");
    directory.write("resources/a/one.x");
    EXPECT_EQ(manager->getFileSystemPath("a.both", ".x"), directory.path("plugins/a/both.x"));
    EXPECT_EQ(manager->getFileSystemPath("a.one", ".x"), directory.path("resources/a/one.x"));
}

TEST_F(ResourceManagerTest, WhatIsNotFoundIsToldAndEmpty) {
    EXPECT_EQ(manager->getFileSystemPath("a.b.c", ".zelTask"), "");
    EXPECT_EQ(manager->getPluginFileSystemPath("x.y"), "");
    EXPECT_THAT(log.texts(),
                ElementsAre("Unable to find plugin for resource: 'a.b.c'\n",
                            "Unable to find plugin for resource: 'x.y'\n"));
    EXPECT_THAT(log.levels(), ElementsAre(zel::Notify::Warning, zel::Notify::Warning));
}

TEST_F(ResourceManagerTest, PluginsHaveAPrefixAndASuffixOnTheLastPart) {
    directory.write("plugins/a/b/libName.so");
    directory.write("plugins/libAlone.so");
    EXPECT_EQ(manager->getPluginFileSystemPath("a.b.Name"), directory.path("plugins/a/b/libName.so"));
    EXPECT_EQ(manager->getPluginFileSystemPath("Alone"), directory.path("plugins/libAlone.so"));
}

TEST_F(ResourceManagerTest, AWrongSeparatorIsToldOnceAndStillFound) {
    directory.write("plugins/a/b.x");
    EXPECT_EQ(manager->getFileSystemPath("a/b", ".x"), directory.path("plugins/a/b.x"));
    EXPECT_EQ(manager->getFileSystemPath("a/b", ".x"), directory.path("plugins/a/b.x"));
    EXPECT_EQ(manager->getPluginFileSystemPath("a/c"), "");
    EXPECT_THAT(
        log.texts(),
        ElementsAre("Wrong separator '/' should be '.'\n", "Unable to find plugin for resource: 'a/c'\n"));
}
