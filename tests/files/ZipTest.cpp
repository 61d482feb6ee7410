#include "support/LogCapture.h"
#include "support/StreamCapture.h"
#include "support/TempDirectory.h"

#include <zelIO/FileSystem.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

using testing::ElementsAre;
using zel::String;
using zel::Vector;
using zelTest::LogCapture;
using zelTest::StreamCapture;
using zelTest::TempDirectory;
namespace fs = std::filesystem;

namespace {

/// A stand-in for a tool: writes its arguments, one a line, and exits as it is told.
void writeTool(const TempDirectory& directory, const std::string& name, int status) {
    directory.write("bin/" + name,
                    "#!/bin/sh\nprintf '%s\\n' \"" + name + "\" \"$@\" > '" + directory.path("arguments") +
                        "'\nexit " + std::to_string(status) + "\n");
    fs::permissions(directory.path("bin/" + name), fs::perms::owner_all);
}

struct ZipTest : testing::Test {
    TempDirectory directory;
    StreamCapture quiet{std::cerr};
    LogCapture log{zel::Notify::Info};
};

/// With stand-ins for the tools.
struct ZipToolTest : ZipTest {
    void SetUp() override {
        writeTool(directory, "minizip", 0);
        writeTool(directory, "miniunzip", 0);
        setenv("PATH", (directory.path("bin") + ":/usr/bin:/bin").c_str(), 1);
    }
};

} // namespace

TEST_F(ZipTest, WhatIsPackedCanBeUnpacked) {
    ASSERT_EQ(std::system("command -v minizip miniunzip >/dev/null"), 0) << "script/bootstrap installs them";
    const std::string content(100'000, 'x');
    directory.write("in/a file.txt", content);
    directory.write("in/b.bin", std::string("\0\1\2", 3));
    fs::create_directory(directory.path("out"));
    fs::current_path(directory.path("in"));
    const String archive = directory.path("archive.zip");
    EXPECT_TRUE(zelIO::packZipFile(archive, {"a file.txt", "b.bin"}, 9));
    EXPECT_LT(fs::file_size(archive.c_str()), 10'000U);
    EXPECT_TRUE(zelIO::packZipFile(archive, {"a file.txt", "b.bin"}, 9)); // overwrites
    EXPECT_TRUE(zelIO::unpackZipFile(archive, directory.path("out")));
    fs::current_path("/");
    EXPECT_EQ(directory.read("out/a file.txt"), content);
    EXPECT_EQ(directory.read("out/b.bin"), std::string("\0\1\2", 3));
}

TEST_F(ZipTest, UnpackingNoArchiveFails) {
    ASSERT_EQ(std::system("command -v miniunzip >/dev/null"), 0) << "script/bootstrap installs it";
    directory.write("no.zip", "this is no archive");
    EXPECT_FALSE(zelIO::unpackZipFile(directory.path("no.zip"), directory.path()));
    EXPECT_FALSE(zelIO::unpackZipFile(directory.path("missing.zip"), directory.path()));
}

TEST_F(ZipToolTest, PackingPassesLevelOverwriteArchiveAndFiles) {
    EXPECT_TRUE(zelIO::packZipFile("x y.zip", {"a", "$(touch b)", "c\\d", "-p"}, 6));
    EXPECT_EQ(directory.read("arguments"), "minizip\n-6\n-o\nx y.zip\na\n$(touch b)\nc/d\n./-p\n");
    EXPECT_TRUE(zelIO::packZipFile("x.zip", {}, 0));
    EXPECT_EQ(directory.read("arguments"), "minizip\n-0\n-o\nx.zip\n");
}

TEST_F(ZipToolTest, UnpackingPassesSixArguments) {
    EXPECT_TRUE(zelIO::unpackZipFile("x.zip", "some dir"));
    EXPECT_EQ(directory.read("arguments"), "miniunzip\n-x\n-o\nx.zip\n-d\nsome dir\n");
}

TEST_F(ZipToolTest, TheResultIsWhetherTheToolExitedWithZero) {
    writeTool(directory, "minizip", 1);
    writeTool(directory, "miniunzip", 3);
    EXPECT_FALSE(zelIO::packZipFile("x.zip", {"a"}, 1));
    EXPECT_FALSE(zelIO::unpackZipFile("x.zip", "."));
    EXPECT_THAT(log.texts(),
                ElementsAre("'minizip' failed on 'x.zip': exit status 1\n",
                            "'miniunzip' failed on 'x.zip': exit status 3\n"));
}

TEST_F(ZipToolTest, AToolThatIsKilledHasFailed) {
    directory.write("bin/minizip", "#!/bin/sh\nkill -9 $$\n");
    EXPECT_FALSE(zelIO::packZipFile("x.zip", {"a"}, 1));
    EXPECT_THAT(log.texts(), ElementsAre("'minizip' failed on 'x.zip': signal 9\n"));
}

TEST_F(ZipTest, AMissingToolIsTold) {
    setenv("PATH", directory.path().c_str(), 1);
    EXPECT_FALSE(zelIO::packZipFile("x.zip", {"a"}, 1));
    EXPECT_FALSE(zelIO::unpackZipFile("x.zip", "."));
    EXPECT_THAT(log.texts(),
                ElementsAre("Could not run 'minizip': No such file or directory\n",
                            "Could not run 'miniunzip': No such file or directory\n"));
}
