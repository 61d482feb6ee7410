#include "support/TempDirectory.h"

#include <zelIO/FileState.h>

#include <gtest/gtest.h>

#include <filesystem>

using zelIO::FileState;
using zelIO::FileStateVector;
using zelTest::TempDirectory;

namespace {

struct FileStateTest : testing::Test {
    void touch(const std::string& name, int seconds) const {
        namespace fs = std::filesystem;
        fs::last_write_time(directory.path(name), fs::file_time_type(std::chrono::seconds(seconds)));
    }
    TempDirectory directory;
};

} // namespace

TEST_F(FileStateTest, NoticesAChangeOfSize) {
    FileState state(directory.write("f", "1"));
    touch("f", 0);
    state.reset();
    EXPECT_FALSE(state.hasChanged());
    directory.write("f", "12");
    touch("f", 0);
    EXPECT_TRUE(state.hasChanged());
    EXPECT_TRUE(state.hasChanged()); // until it is reset
    state.reset();
    EXPECT_FALSE(state.hasChanged());
    EXPECT_EQ(state.getPath(), directory.path("f"));
}

TEST_F(FileStateTest, NoticesAChangeOfTime) {
    FileState state(directory.write("f", "1"));
    touch("f", 100);
    EXPECT_TRUE(state.hasChanged());
    state.reset();
    touch("f", 101);
    EXPECT_TRUE(state.hasChanged());
    touch("f", 100);
    EXPECT_FALSE(state.hasChanged());
}

TEST_F(FileStateTest, AMissingFileIsAState) {
    FileState state(directory.path("f"));
    EXPECT_FALSE(state.hasChanged());
    directory.write("f");
    EXPECT_TRUE(state.hasChanged());
    state.reset();
    std::filesystem::remove(directory.path("f"));
    EXPECT_TRUE(state.hasChanged());
}

TEST_F(FileStateTest, StatesCompareByPathAndData) {
    const FileState a(directory.write("f", "1"));
    const FileState b(directory.path("f"));
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a != b);
    directory.write("f", "12");
    EXPECT_TRUE(a != FileState(directory.path("f")));
    EXPECT_TRUE(FileState(directory.path("x")) != FileState(directory.path("y")));
}

TEST_F(FileStateTest, AVectorHasChangedWithAnyMember) {
    FileStateVector states;
    EXPECT_FALSE(states.hasChanged());
    states.push_back(FileState(directory.write("a", "1")));
    states.push_back(FileState(directory.write("b", "1")));
    EXPECT_FALSE(states.hasChanged());
    directory.write("b", "12");
    EXPECT_TRUE(states.hasChanged());
}
