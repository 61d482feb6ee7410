#include "support/LogCapture.h"
#include "support/TempDirectory.h"

#include <zelIO/FilePathContainer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

using testing::ElementsAre;
using testing::IsEmpty;
using zelIO::FilePathContainer;
using zelTest::LogCapture;
using zelTest::TempDirectory;
using StringList = FilePathContainer::StringList;

namespace {

StringList split(const std::string& text) {
    StringList list;
    FilePathContainer::convertStringToList(text, list);
    return list;
}

struct FilePathContainerTest : testing::Test {
    TempDirectory directory;
};

} // namespace

TEST_F(FilePathContainerTest, ATextIsSplitAtItsSeparators) {
    EXPECT_THAT(split("a:b c:/d"), ElementsAre("a", "b c", "/d"));
    EXPECT_THAT(split("a"), ElementsAre("a"));
    EXPECT_THAT(split(""), IsEmpty());
    EXPECT_THAT(split("::a::b:"), ElementsAre("a", "b"));
    StringList list{"before"};
    FilePathContainer::convertStringToList("a;b", list, ';');
    EXPECT_THAT(list, ElementsAre("before", "a", "b"));
}

TEST_F(FilePathContainerTest, TheListCanBeSetAndChanged) {
    FilePathContainer container(StringList{"a", "b"});
    EXPECT_THAT(container.getFilePathList(), ElementsAre("a", "b"));
    container.pushbackPath("c");
    container.pushfrontPath("z");
    container.addFilePath("d:a");
    EXPECT_THAT(container.getFilePathList(), ElementsAre("z", "a", "b", "c", "d", "a"));
    container.removeDuplicates();
    EXPECT_THAT(container.getFilePathList(), ElementsAre("z", "a", "b", "c", "d"));
    EXPECT_TRUE(container.removeFilePath("a"));
    EXPECT_FALSE(container.removeFilePath("a"));
    EXPECT_THAT(container.getFilePathList(), ElementsAre("z", "b", "c", "d"));
    container.setFilePath("x:y");
    EXPECT_THAT(container.getFilePathList(), ElementsAre("x", "y"));
    container.setFilePathList(StringList{"only"});
    EXPECT_THAT(container.getFilePathList(), ElementsAre("only"));
    container.clear();
    EXPECT_THAT(container.getFilePathList(), IsEmpty());
    EXPECT_THAT(FilePathContainer().getFilePathList(), IsEmpty());
}

TEST_F(FilePathContainerTest, RemovingTakesAllEqualEntries) {
    FilePathContainer container(StringList{"a", "b", "a"});
    EXPECT_TRUE(container.removeFilePath("a"));
    EXPECT_THAT(container.getFilePathList(), ElementsAre("b"));
}

TEST_F(FilePathContainerTest, AFileInTwoDirectoriesIsFoundInTheFirst) {
    directory.write("one/both");
    directory.write("two/both");
    directory.write("two/second");
    const FilePathContainer container(StringList{directory.path("one"), directory.path("two")});
    EXPECT_EQ(container.find("both"), directory.path("one/both"));
    EXPECT_EQ(container.find("second"), directory.path("two/second"));
    EXPECT_EQ(container.find("missing"), "");
    EXPECT_EQ(container.find(""), "");
    EXPECT_EQ(FilePathContainer().find("both"), "");
}

TEST_F(FilePathContainerTest, AnAbsoluteNameIsFirstTriedAsItStands) {
    directory.write("one/deep/file");
    const FilePathContainer container(StringList{directory.path("one")});
    EXPECT_EQ(container.find(directory.path("one/deep/file")), directory.path("one/deep/file"));
    EXPECT_EQ(container.find("/deep/file"), directory.path("one/deep/file")); // only joined
}

TEST_F(FilePathContainerTest, FindTellsTheOutcomeAtLevelDebug) {
    directory.write("file");
    const FilePathContainer container(StringList{directory.path()});
    const LogCapture log;
    EXPECT_NE(container.find("file"), "");
    EXPECT_EQ(container.find("missing"), "");
    EXPECT_THAT(log.texts(),
                ElementsAre("Found " + directory.path("file") + "!\n", "No matching file found: missing\n"));
    EXPECT_THAT(log.levels(), ElementsAre(zel::Notify::Debug, zel::Notify::Debug));
}

TEST_F(FilePathContainerTest, AVariableAddsItsDirectories) {
    setenv("ZEL_TEST_PATH", (directory.path() + ":/nonexistent").c_str(), 1);
    FilePathContainer container(StringList{"before"});
    const LogCapture log;
    container.setFromEnvironmentVariable("ZEL_TEST_PATH", false);
    EXPECT_THAT(container.getFilePathList(), ElementsAre("before", directory.path(), "/nonexistent"));
    EXPECT_THAT(container.getEnvironmentPathList(), ElementsAre(directory.path(), "/nonexistent"));
    EXPECT_THAT(log.texts(),
                ElementsAre("Env: ZEL_TEST_PATH\n",
                            "  " + directory.path() + " ok\n",
                            "  /nonexistent non-readable\n"));
}

TEST_F(FilePathContainerTest, AVariableMayReplaceTheList) {
    FilePathContainer container(StringList{"before"});
    unsetenv("ZEL_TEST_PATH");
    container.setFromEnvironmentVariable("ZEL_TEST_PATH", true);
    EXPECT_THAT(container.getFilePathList(), ElementsAre("before")); // not set: nothing happens
    setenv("ZEL_TEST_PATH", "a", 1);
    container.setFromEnvironmentVariable("ZEL_TEST_PATH", true);
    EXPECT_THAT(container.getFilePathList(), ElementsAre("a"));
    setenv("ZEL_TEST_PATH", "", 1);
    container.setFromEnvironmentVariable("ZEL_TEST_PATH", false);
    EXPECT_THAT(container.getFilePathList(), ElementsAre("a"));
    EXPECT_THAT(container.getEnvironmentPathList(), IsEmpty());
}
