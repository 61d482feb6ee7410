#include "support/FirstLife.h"
#include "support/TempDirectory.h"

#include <zelCore/zelCore.h>
#include <zelIO/Environment.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

using testing::Contains;
using testing::HasSubstr;
using zelIO::Environment;
using zelIO::FilePathContainer;
using zelTest::TempDirectory;

namespace {

/// The environment is read when the service is made: after the test has set its variables.
struct EnvironmentTest : testing::Test {
    void SetUp() override {
        for (const char* name : {"ZEL_FILE_PATH", "ZEL_PLUGIN_PATH", "ZEL_COMPONENT_DEV_PATH"})
            unsetenv(name);
    }
    static const FilePathContainer::StringList& list(Environment::Type type) {
        return Environment::instance()->getFilePath(type).getFilePathList();
    }
    TempDirectory directory;
};

} // namespace

TEST_F(EnvironmentTest, IsAServiceOfPriority10000) {
    EXPECT_EQ(Environment::instance()->getPriority(), 10000);
    EXPECT_THAT(Environment::instance()->getClassName(), HasSubstr("zelIO::Environment::getClassName"));
    EXPECT_EQ(Environment::ResourcePath, 0);
    EXPECT_EQ(Environment::PluginPath, 1);
    EXPECT_EQ(Environment::ComponentDevelopmentPath, 2);
}

TEST_F(EnvironmentTest, TheVariablesFillTheirContainersBehindTheSourceTree) {
    setenv("ZEL_FILE_PATH", "f1:f2", 1);
    setenv("ZEL_PLUGIN_PATH", "p", 1);
    setenv("ZEL_COMPONENT_DEV_PATH", "c", 1);
    const auto& files = list(Environment::ResourcePath);
    ASSERT_GE(files.size(), 2U);
    EXPECT_EQ(files[files.size() - 2], "f1");
    EXPECT_EQ(files[files.size() - 1], "f2");
    EXPECT_EQ(list(Environment::PluginPath).back(), "p");
    EXPECT_EQ(list(Environment::ComponentDevelopmentPath).back(), "c");
}

TEST_F(EnvironmentTest, TheSourceTreeComesFirstWhereItIsADirectory) {
    // The tests run beside the source tree, so it is there.
    const std::string root = std::filesystem::path(ZEL_TEST_SOURCES).parent_path();
    ASSERT_FALSE(list(Environment::ResourcePath).empty());
    EXPECT_EQ(list(Environment::ResourcePath).front(), root);
    const bool components = std::filesystem::is_directory(root + "/Components/zel");
    for (const auto type : {Environment::PluginPath, Environment::ComponentDevelopmentPath})
        EXPECT_EQ(list(type).contains(root + "/Components/zel"), components);
    EXPECT_EQ(list(Environment::ResourcePath).contains(root + "/data"),
              std::filesystem::is_directory(root + "/data"));
}

TEST_F(EnvironmentTest, AFileInTwoDirectoriesIsFoundInTheFirst) {
    directory.write("one/zelTest.dat");
    directory.write("two/zelTest.dat");
    setenv("ZEL_FILE_PATH", (directory.path("one") + ":" + directory.path("two")).c_str(), 1);
    EXPECT_EQ(Environment::instance()->getFilePath(Environment::ResourcePath).find("zelTest.dat"),
              directory.path("one/zelTest.dat"));
}

TEST_F(EnvironmentTest, ComponentsAreFoundDirectlyOrBelowComponents) {
    directory.write("direct/test.zelComponent");
    directory.write("root/Components/zel/below/test.zelComponent");
    directory.write("root/Components/zel/direct/test.zelComponent");
    setenv("ZEL_PLUGIN_PATH", (directory.path("root") + ":" + directory.path()).c_str(), 1);
    const Environment* const environment = Environment::instance();
    EXPECT_EQ(environment->findComponent("below/test.zelComponent"),
              directory.path("root/Components/zel/below/test.zelComponent"));
    // A direct match anywhere goes before one below "Components/zel".
    EXPECT_EQ(environment->findComponent("direct/test.zelComponent"),
              directory.path("direct/test.zelComponent"));
    EXPECT_EQ(environment->findComponent("missing.zelComponent"), "");
}

TEST_F(EnvironmentTest, ThereIsNoRegistry) {
    const auto before = list(Environment::ResourcePath);
    Environment::instance()->setupFromRegistry();
    EXPECT_EQ(list(Environment::ResourcePath), before);
}

TEST_F(EnvironmentTest, IsMadeAnewAfterShutdown) {
    ZEL_FIRST_LIFE_ONLY();
    zelCore::init();
    Environment::instance()->getFilePath(Environment::ResourcePath).pushbackPath("mine");
    EXPECT_THAT(list(Environment::ResourcePath), Contains("mine"));
    zelCore::shutdown();
    EXPECT_THAT(list(Environment::ResourcePath), testing::Not(Contains("mine")));
}
