#include "support/LogCapture.h"
#include "support/StreamCapture.h"
#include "support/TempDirectory.h"

#include <zel/Notify.h>
#include <zelIO/FileSystem.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using zel::String;
using zel::Vector;
using zelIO::FileSystem;
using zelTest::LogCapture;
using zelTest::StreamCapture;
using zelTest::TempDirectory;
namespace fs = std::filesystem;

namespace {
bool s_mkstempFails = false;
} // namespace

// Stands in front of the C library's function, for the library under test as well.
extern "C" __attribute__((visibility("default"))) int mkstemp(char* pattern) {
    if (!s_mkstempFails)
        return mkostemp(pattern, 0);
    errno = EMFILE;
    return -1;
}

namespace {

struct FileSystemTest : testing::Test {
    [[nodiscard]] std::vector<std::string> warnings() const {
        for (const int level : log.levels())
            EXPECT_EQ(level, zel::Notify::Warning);
        return log.texts();
    }
    static void setTime(const std::string& path, time_t seconds) {
        const utimbuf times{seconds, seconds};
        ASSERT_EQ(utime(path.c_str(), &times), 0);
    }
    [[nodiscard]] std::vector<std::string> scanned(const std::string& path) const {
        std::vector<std::string> entries;
        FileSystem::scan(path, [&](const String& entry) { entries.push_back(entry); });
        return entries;
    }

    const TempDirectory directory;
    const StreamCapture quiet{std::cerr};
    const LogCapture log{zel::Notify::Info};
};

template <typename Function>
std::string thrownBy(Function function) {
    try {
        function();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "no error";
}

} // namespace

TEST_F(FileSystemTest, TheConstantsAreThoseOfThePlatform) {
    EXPECT_STREQ(FileSystem::PATH_SEPARATOR, "/");
    EXPECT_STREQ(FileSystem::UNIX_PATH_SEPARATOR, "/");
    EXPECT_STREQ(FileSystem::WINDOWS_PATH_SEPARATOR, "\\");
    EXPECT_STREQ(FileSystem::DLL_SUFFIX, ".so");
    EXPECT_EQ(FileSystem::getSystemTmpDirectory(), "/tmp");
}

TEST_F(FileSystemTest, SeparatorsAreConverted) {
    EXPECT_EQ(FileSystem::convertWindowsFilePathToUnix("a\\b/c"), "a/b/c");
    EXPECT_EQ(FileSystem::convertUnixFilePathToWindows("a\\b/c"), "a\\b\\c");
    EXPECT_EQ(FileSystem::convertToNativeFilePath("a\\b"), "a/b");
    EXPECT_EQ(FileSystem::convertToColladaFilePath("a\\b/c"), "a/b/c");
}

TEST_F(FileSystemTest, QueriesTellFilesDirectoriesAndLinks) {
    const std::string file = directory.write("file", "12345");
    fs::create_symlink(file, directory.path("link"));
    fs::create_symlink(directory.path("gone"), directory.path("dangling"));
    EXPECT_TRUE(FileSystem::exists(file));
    EXPECT_FALSE(FileSystem::isDir(file));
    EXPECT_FALSE(FileSystem::isLink(file));
    EXPECT_TRUE(FileSystem::isDir(directory.path()));
    EXPECT_TRUE(FileSystem::isLink(directory.path("link")));
    EXPECT_TRUE(FileSystem::exists(directory.path("link")));
    EXPECT_TRUE(FileSystem::isLink(directory.path("dangling")));
    EXPECT_FALSE(FileSystem::exists(directory.path("dangling")));
    EXPECT_FALSE(FileSystem::exists(directory.path("gone")));
    EXPECT_FALSE(FileSystem::isDir(directory.path("gone")));
    EXPECT_FALSE(FileSystem::isLink(directory.path("gone")));
    EXPECT_TRUE(FileSystem::readable(file));
    EXPECT_TRUE(FileSystem::writeable(file));
    EXPECT_FALSE(FileSystem::readable(directory.path("gone")));
    EXPECT_FALSE(FileSystem::writeable(directory.path("gone")));
    EXPECT_EQ(FileSystem::size(file), 5U);
    struct stat data {};
    EXPECT_TRUE(FileSystem::stat(file, data));
    EXPECT_EQ(data.st_size, 5);
    EXPECT_FALSE(FileSystem::stat(directory.path("gone"), data));
    EXPECT_THAT(warnings(), IsEmpty());
}

TEST_F(FileSystemTest, GivenPathsMayHaveWindowsSeparators) {
    const std::string file = directory.write("sub/file", "12345");
    const String windows = FileSystem::convertUnixFilePathToWindows(file);
    EXPECT_TRUE(FileSystem::exists(windows));
    EXPECT_TRUE(FileSystem::isAbsolute(windows));
    EXPECT_EQ(FileSystem::readFile(windows), "12345");
    EXPECT_EQ(FileSystem::getPath("a\\b\\c.txt"), "a/b");
    EXPECT_EQ(FileSystem::getFileWithExtension("a\\b\\c.txt"), "c.txt");
    EXPECT_TRUE(FileSystem::mkdir(directory.path() + "\\x\\y", true));
    EXPECT_TRUE(fs::is_directory(directory.path("x/y")));
}

TEST_F(FileSystemTest, TheSizeOfAMissingFileThrows) {
    const std::string expected = "Could not get the size of '/nonexistent': No such file or directory";
    EXPECT_EQ(thrownBy([] { (void)FileSystem::size("/nonexistent"); }), expected);
    EXPECT_THAT(warnings(), ElementsAre(expected + "\n"));
}

TEST_F(FileSystemTest, CompareDateIsTheSecondMinusTheFirst) {
    const std::string a = directory.write("a");
    const std::string b = directory.write("b");
    setTime(a, 1000);
    setTime(b, 1010);
    EXPECT_EQ(FileSystem::compareDate(a, b), 10);
    EXPECT_EQ(FileSystem::compareDate(b, a), -10); // b is the newer
    EXPECT_EQ(FileSystem::compareDate(a, a), 0);
    const std::string missing = directory.path("missing");
    EXPECT_EQ(FileSystem::compareDate(missing, b), 1);
    EXPECT_EQ(FileSystem::compareDate(a, missing), -1);
    EXPECT_EQ(FileSystem::compareDate(missing, missing), 0);
    setTime(b, 5'000'000'000);
    EXPECT_EQ(FileSystem::compareDate(a, b), 4'999'999'000);
}

TEST_F(FileSystemTest, NamesAreTakenApart) {
    EXPECT_EQ(FileSystem::getPath("/a/b/c.txt"), "/a/b");
    EXPECT_EQ(FileSystem::getPath("c.txt"), "");
    EXPECT_EQ(FileSystem::getPath("/c.txt"), "");
    EXPECT_EQ(FileSystem::getPath("a/"), "a");
    EXPECT_EQ(FileSystem::getFileExtension("archive.tar.gz"), "gz");
    EXPECT_EQ(FileSystem::getFileExtension("noext"), "");
    EXPECT_EQ(FileSystem::getFileExtension("dir.d/noext"), "");
    EXPECT_EQ(FileSystem::getFileExtension("point."), "");
    EXPECT_EQ(FileSystem::getFileWithoutExtension("/a/archive.tar.gz"), "archive.tar");
    EXPECT_EQ(FileSystem::getFileWithoutExtension("dir.d/noext"), "noext");
    EXPECT_EQ(FileSystem::getFileWithoutExtension(".hidden"), "");
    EXPECT_EQ(FileSystem::getFileWithExtension("/a/b.txt"), "b.txt");
    EXPECT_EQ(FileSystem::getFileWithExtension("b.txt"), "b.txt");
    EXPECT_EQ(FileSystem::getFileWithExtension("a/"), "");
}

TEST_F(FileSystemTest, AbsolutePathsBeginAtTheWorkingDirectory) {
    ASSERT_TRUE(FileSystem::setCurrentWorkingDirectory(directory.path()));
    EXPECT_EQ(FileSystem::getCurrentWorkingDirectory(), directory.path());
    EXPECT_EQ(FileSystem::getAbsolutePath("a/../b"), directory.path() + "/a/../b");
    EXPECT_EQ(FileSystem::getAbsolutePath("/a/b"), "/a/b");
    EXPECT_EQ(FileSystem::getDirectory("a/b.txt"), directory.path("a"));
    EXPECT_EQ(FileSystem::getDirectory("b.txt"), directory.path());
    EXPECT_FALSE(FileSystem::isAbsolute("a/b"));
    EXPECT_FALSE(FileSystem::isAbsolute(""));
    ASSERT_TRUE(FileSystem::setCurrentWorkingDirectory("/"));
    EXPECT_EQ(FileSystem::getAbsolutePath("a"), "/a");
    EXPECT_FALSE(FileSystem::setCurrentWorkingDirectory("/nonexistent"));
    EXPECT_THAT(warnings(),
                ElementsAre("Could not change the working directory to '/nonexistent': "
                            "No such file or directory\n"));
}

TEST_F(FileSystemTest, AMissingWorkingDirectoryThrows) {
    ASSERT_TRUE(FileSystem::mkdir(directory.path("gone"), false));
    ASSERT_TRUE(FileSystem::setCurrentWorkingDirectory(directory.path("gone")));
    fs::remove(directory.path("gone"));
    EXPECT_EQ(thrownBy([] { (void)FileSystem::getCurrentWorkingDirectory(); }),
              "Could not get the working directory: No such file or directory");
    ASSERT_TRUE(FileSystem::setCurrentWorkingDirectory("/"));
}

TEST_F(FileSystemTest, CombinePathJoinsAndCleansMissingPathsByTheirText) {
    EXPECT_EQ(FileSystem::combinePath("a", ""), "a");
    EXPECT_EQ(FileSystem::combinePath("", "a"), "a");
    EXPECT_EQ(FileSystem::combinePath("a", "b"), "a/b");
    EXPECT_EQ(FileSystem::combinePath("x/y", "../z"), "x/z");
    EXPECT_EQ(FileSystem::combinePath("x//y/", "/./z/"), "x/y/z");
    EXPECT_EQ(FileSystem::combinePath("x\\y", "..\\z"), "x/z");
    EXPECT_EQ(FileSystem::combinePath("../../a", "../b"), "../../b");
    EXPECT_EQ(FileSystem::combinePath("a/nonexistent", "../../../b"), "../b");
    EXPECT_EQ(FileSystem::combinePath("/nonexistent/a", "../../b"), "/b");
    EXPECT_EQ(FileSystem::combinePath("nonexistent", ".."), ".");
    EXPECT_EQ(FileSystem::combinePath("a", "..."), "a/...");
}

TEST_F(FileSystemTest, CombinePathGivesTheRealPathOfWhatExists) {
    directory.write("real/file");
    fs::create_directory_symlink(directory.path("real"), directory.path("link"));
    EXPECT_EQ(FileSystem::combinePath(directory.path("link"), "file"), directory.path("real/file"));
    EXPECT_EQ(FileSystem::combinePath(directory.path("real/../link"), "./file"), directory.path("real/file"));
    ASSERT_TRUE(FileSystem::setCurrentWorkingDirectory(directory.path()));
    EXPECT_EQ(FileSystem::combinePath("real", ""), directory.path("real"));
}

TEST(FileSystemDeathTest, CombiningTwoEmptyPathsIsFatal) {
    EXPECT_DEATH((void)FileSystem::combinePath("", ""), HasSubstr("zelVerify failed: `!path.empty()'"));
}

TEST_F(FileSystemTest, RenameMovesOrTellsWhyNot) {
    directory.write("a", "content");
    EXPECT_TRUE(FileSystem::rename(directory.path("a"), directory.path("b")));
    EXPECT_EQ(directory.read("b"), "content");
    EXPECT_FALSE(FileSystem::rename("/nonexistent/a", "/nonexistent/b"));
    EXPECT_THAT(warnings(),
                ElementsAre("Could not rename '/nonexistent/a' to '/nonexistent/b': "
                            "No such file or directory\n"));
}

TEST_F(FileSystemTest, MkdirMakesOneDirectoryOrAllThatAreMissing) {
    umask(0);
    EXPECT_TRUE(FileSystem::mkdir(directory.path("one"), false));
    struct stat data {};
    ASSERT_TRUE(FileSystem::stat(directory.path("one"), data));
    EXPECT_EQ(data.st_mode & 07777U, 0755U);
    EXPECT_FALSE(FileSystem::mkdir(directory.path("a/b/c"), false));
    EXPECT_TRUE(FileSystem::mkdir(directory.path("a/b/c/"), true));
    EXPECT_TRUE(fs::is_directory(directory.path("a/b/c")));
    EXPECT_TRUE(FileSystem::mkdir(directory.path("a/b/c"), true)); // is there
    EXPECT_FALSE(FileSystem::mkdir(directory.path("a"), false));
    ASSERT_TRUE(FileSystem::setCurrentWorkingDirectory(directory.path()));
    EXPECT_TRUE(FileSystem::mkdir("relative/path", true));
    EXPECT_TRUE(fs::is_directory(directory.path("relative/path")));
    EXPECT_THAT(warnings(),
                ElementsAre("Could not create directory '" + directory.path("a/b/c") +
                                "': No such file or directory\n",
                            "Could not create directory '" + directory.path("a") + "': File exists\n"));
}

TEST_F(FileSystemTest, MkdirDoesNotTakeAFileForADirectory) {
    directory.write("file");
    EXPECT_FALSE(FileSystem::mkdir(directory.path("file"), true));
    EXPECT_FALSE(FileSystem::mkdir(directory.path("file/below"), true));
    EXPECT_EQ(warnings().size(), 2U);
}

TEST_F(FileSystemTest, ScanPassesOverDotsAndVersionControl) {
    directory.write("b");
    directory.write("a");
    directory.write(".hidden");
    directory.write(".svn/entries");
    directory.write("sub/below");
    EXPECT_THAT(
        scanned(directory.path()),
        ElementsAre(
            directory.path(".hidden"), directory.path("a"), directory.path("b"), directory.path("sub")));
    EXPECT_THAT(scanned(directory.path() + "/"), testing::Contains(directory.path("a")));
}

TEST_F(FileSystemTest, ScanOfNoDirectoryIsTold) {
    EXPECT_FALSE(FileSystem::scan("/nonexistent", [](const String&) { FAIL(); }));
    EXPECT_THAT(warnings(), ElementsAre("FileSystem: Could not scan directory \"/nonexistent\".\n"));
}

TEST_F(FileSystemTest, TheDirectoryMayChangeDuringTheScan) {
    for (int i = 0; i < 100; ++i)
        directory.write("f" + std::to_string(i));
    int calls = 0;
    EXPECT_TRUE(FileSystem::scan(directory.path(), [&calls](const String& entry) {
        ++calls;
        EXPECT_TRUE(FileSystem::remove(entry, false));
    }));
    EXPECT_EQ(calls, 100);
    EXPECT_TRUE(fs::is_empty(directory.path()));
}

TEST_F(FileSystemTest, FilesInDirectoryLeavesDirectoriesOut) {
    directory.write("a");
    directory.write("sub/b");
    directory.write("sub/deep/c");
    directory.write("sub/.svn/d");
    fs::create_directory_symlink(directory.path(), directory.path("sub/loop"));
    Vector<String> flat;
    EXPECT_TRUE(FileSystem::getFilesInDirectory(flat, directory.path(), false));
    EXPECT_THAT(flat, ElementsAre(directory.path("a")));
    Vector<String> all{"before"};
    EXPECT_TRUE(FileSystem::getFilesInDirectory(all, directory.path(), true));
    EXPECT_THAT(
        all,
        ElementsAre("before", directory.path("a"), directory.path("sub/b"), directory.path("sub/deep/c")));
    EXPECT_FALSE(FileSystem::getFilesInDirectory(all, "/nonexistent", true));
}

TEST_F(FileSystemTest, CopyOfAFileKeepsContentAndMode) {
    std::string content(200'000, 'x');
    content[70'000] = '\0';
    directory.write("a", content);
    fs::permissions(directory.path("a"), fs::perms::owner_all);
    directory.write("b", "an old and longer file" + content);
    EXPECT_TRUE(FileSystem::copy(directory.path("a"), directory.path("b")));
    EXPECT_EQ(directory.read("b"), content);
    EXPECT_EQ(fs::status(directory.path("b")).permissions(), fs::perms::owner_all);
    directory.write("empty");
    EXPECT_TRUE(FileSystem::copy(directory.path("empty"), directory.path("b")));
    EXPECT_EQ(directory.read("b"), "");
}

TEST_F(FileSystemTest, CopyThatFailsTellsWhy) {
    directory.write("a", "content");
    fs::create_symlink(directory.path("a"), directory.path("same"));
    EXPECT_FALSE(FileSystem::copy("/nonexistent", directory.path("b")));
    EXPECT_FALSE(FileSystem::copy(directory.path("a"), "/nonexistent/b"));
    EXPECT_FALSE(FileSystem::copy(directory.path("a"), directory.path("same")));
    EXPECT_EQ(directory.read("a"), "content"); // not cut to nothing
    EXPECT_THAT(
        warnings(),
        ElementsAre(
            "Could not copy '/nonexistent' to '" + directory.path("b") + "': No such file or directory\n",
            "Could not copy '" + directory.path("a") + "' to '/nonexistent/b': No such file or directory\n",
            "Could not copy '" + directory.path("a") + "' to '" + directory.path("same") +
                "': they are the same file\n"));
}

TEST_F(FileSystemTest, CopyNoticesAFullDisk) {
    directory.write("a", std::string(200'000, 'x'));
    EXPECT_FALSE(FileSystem::copy(directory.path("a"), "/dev/full"));
    directory.write("small", "x"); // fits into the buffer: known at the end only
    EXPECT_FALSE(FileSystem::copy(directory.path("small"), "/dev/full"));
    EXPECT_THAT(warnings(), testing::Each(HasSubstr("No space left on device")));
    EXPECT_GE(warnings().size(), 2U);
}

TEST_F(FileSystemTest, CopyOfADirectoryTakesItsContent) {
    directory.write("from/a", "A");
    directory.write("from/sub/b", "B");
    directory.write("from/.svn/entries", "");
    fs::create_directory_symlink("sub", directory.path("from/link"));
    EXPECT_TRUE(FileSystem::copy(directory.path("from"), directory.path("to")));
    EXPECT_EQ(directory.read("to/a"), "A");
    EXPECT_EQ(directory.read("to/sub/b"), "B");
    EXPECT_FALSE(fs::exists(directory.path("to/.svn")));
    EXPECT_EQ(fs::read_symlink(directory.path("to/link")), "sub");
    // Into an existing directory it adds, also where a link stands already.
    directory.write("from/c", "C");
    fs::remove(directory.path("to/link"));
    EXPECT_TRUE(FileSystem::copy(directory.path("from"), directory.path("to")));
    EXPECT_EQ(directory.read("to/c"), "C");
}

TEST_F(FileSystemTest, ADirectoryIsNotCopiedIntoItself) {
    directory.write("from/a");
    EXPECT_FALSE(FileSystem::copy(directory.path("from"), directory.path("from/below")));
    EXPECT_FALSE(FileSystem::copy(directory.path("from"), directory.path("from")));
    EXPECT_TRUE(FileSystem::copy(directory.path("from"), directory.path("from2")));
    EXPECT_FALSE(fs::exists(directory.path("from/below")));
    EXPECT_THAT(warnings().at(0), testing::EndsWith("': the target lies within the directory\n"));
}

TEST_F(FileSystemTest, RemoveTakesFilesLinksAndDirectories) {
    directory.write("file");
    directory.write("keep/file");
    directory.write("full/sub/file");
    directory.write("full/.svn/entries");
    fs::create_directory(directory.path("empty"));
    fs::create_directory_symlink(directory.path("keep"), directory.path("full/link"));
    EXPECT_TRUE(FileSystem::remove(directory.path("file"), false));
    EXPECT_TRUE(FileSystem::remove(directory.path("empty"), false));
    EXPECT_TRUE(FileSystem::remove(directory.path("full"), true));
    EXPECT_FALSE(fs::exists(directory.path("full")));
    EXPECT_TRUE(fs::exists(directory.path("keep/file"))); // behind a link
    EXPECT_THAT(warnings(), IsEmpty());
}

TEST_F(FileSystemTest, RemoveTakesALinkAlsoWithASeparatorBehindIt) {
    directory.write("keep/file");
    for (const char* behind : {"/", "//", "\\", "/\\/"})
        for (const bool recursive : {false, true}) {
            fs::create_directory_symlink(directory.path("keep"), directory.path("link"));
            EXPECT_TRUE(FileSystem::remove(directory.path("link") + behind, recursive));
            EXPECT_FALSE(fs::is_symlink(directory.path("link")));
        }
    EXPECT_TRUE(fs::exists(directory.path("keep/file")));
    EXPECT_FALSE(FileSystem::remove(directory.path("keep/file/"), false)); // no directory
    EXPECT_TRUE(FileSystem::remove(directory.path("keep/"), true));
    EXPECT_FALSE(fs::exists(directory.path("keep")));
}

TEST_F(FileSystemTest, RemoveThatFailsTellsWhy) {
    directory.write("full/file");
    EXPECT_FALSE(FileSystem::remove("/nonexistent", true));
    EXPECT_FALSE(FileSystem::remove(directory.path("full"), false));
    EXPECT_TRUE(fs::exists(directory.path("full/file")));
    EXPECT_THAT(warnings(),
                ElementsAre("Could not remove file '/nonexistent': No such file or directory\n",
                            "Could not remove empty directory '" + directory.path("full") +
                                "': Directory not empty\n"));
}

TEST_F(FileSystemTest, TemporaryFilesAreNewAndStay) {
    const String a = FileSystem::getTmpFilename();
    const String b = FileSystem::getTmpFilename();
    EXPECT_NE(a, b);
    EXPECT_THAT(a, MatchesRegex("/tmp/temp\\.[A-Za-z0-9]{6}"));
    EXPECT_EQ(FileSystem::size(a), 0U);
    EXPECT_TRUE(FileSystem::remove(a, false));
    EXPECT_TRUE(FileSystem::remove(b, false));
}

TEST_F(FileSystemTest, ATemporaryFileThatCannotBeMadeThrows) {
    s_mkstempFails = true;
    EXPECT_EQ(thrownBy([] { (void)FileSystem::getTmpFilename(); }), "mktemp failed");
    EXPECT_THAT(warnings().at(0),
                MatchesRegex("Unable to generate temporary file path '/tmp/temp\\.XXXXXX'\n"));
}

TEST_F(FileSystemTest, TemporaryDirectoriesHaveThePrefix) {
    const String made = FileSystem::mkTmpDirectory(directory.path(), "run");
    EXPECT_THAT(made, MatchesRegex(directory.path() + "/run[A-Za-z0-9]{6}"));
    EXPECT_TRUE(fs::is_directory(made.c_str()));
    ASSERT_TRUE(FileSystem::setCurrentWorkingDirectory(directory.path()));
    EXPECT_TRUE(FileSystem::mkTmpDirectory(".", "x").starts_with(directory.path() + "/./x"));
    const String system = FileSystem::mkTmpDirectory("zelTest");
    EXPECT_THAT(system, MatchesRegex("/tmp/zelTest[A-Za-z0-9]{6}"));
    EXPECT_TRUE(FileSystem::remove(system, false));
}

TEST_F(FileSystemTest, ATemporaryDirectoryThatCannotBeMadeThrows) {
    EXPECT_EQ(thrownBy([] { (void)FileSystem::mkTmpDirectory("/nonexistent", "run"); }), "mkdtemp failed");
    EXPECT_THAT(warnings().at(0),
                MatchesRegex("Unable to create temporary directory '/nonexistent/run[A-Za-z0-9]{6}'\n"));
}

TEST_F(FileSystemTest, OpenAndCloseFile) {
    std::FILE* const file = FileSystem::openFile(directory.path("f").c_str(), "w");
    ASSERT_NE(file, nullptr);
    EXPECT_GT(std::fputs("text", file), 0);
    EXPECT_TRUE(FileSystem::closeFile(file));
    EXPECT_EQ(directory.read("f"), "text");
    EXPECT_EQ(FileSystem::openFile("/nonexistent", "r"), nullptr);
    EXPECT_THAT(warnings(), IsEmpty());
    EXPECT_EQ(thrownBy([] { FileSystem::closeFile(nullptr); }), "Invalid nullptr file stream");
}

TEST_F(FileSystemTest, ClosingNoticesAFullDisk) {
    std::FILE* const file = FileSystem::openFile("/dev/full", "w");
    ASSERT_NE(file, nullptr);
    EXPECT_GT(std::fputs("text", file), 0);
    EXPECT_FALSE(FileSystem::closeFile(file));
    EXPECT_THAT(warnings(), ElementsAre("Could not close file: No space left on device\n"));
}

TEST_F(FileSystemTest, ReadFileGivesTheWholeFile) {
    const std::string content("a\0b\r\nc", 6);
    directory.write("f", content);
    directory.write("empty");
    EXPECT_EQ(FileSystem::readFile(directory.path("f")), content);
    EXPECT_EQ(FileSystem::readFile(directory.path("empty")), "");
}

TEST_F(FileSystemTest, ReadFileThatFailsThrowsWhatItLogs) {
    const std::string missing = "IO-error while reading '/nonexistent': No such file or directory";
    EXPECT_EQ(thrownBy([] { (void)FileSystem::readFile("/nonexistent"); }), missing);
    const std::string notAFile = "IO-error while reading '/tmp': Is a directory";
    EXPECT_EQ(thrownBy([] { (void)FileSystem::readFile("/tmp"); }), notAFile);
    EXPECT_THAT(warnings(), ElementsAre(missing + "\n", notAFile + "\n"));
}

TEST_F(FileSystemTest, TheFreeReadFileReadsThroughAStream) {
    const std::string content("a\0b\r\nc", 6);
    directory.write("f", content);
    directory.write("empty");
    String contents = "old";
    zelIO::readFile(contents, directory.path("f"));
    EXPECT_EQ(contents, content);
    zelIO::readFile(contents, directory.path("empty"));
    EXPECT_EQ(contents, "");
}

TEST_F(FileSystemTest, TheFreeReadFileThrowsAndLeavesTheText) {
    String contents = "old";
    const std::string expected = "Could not open file'/nonexistent'";
    EXPECT_EQ(thrownBy([&contents] { zelIO::readFile(contents, "/nonexistent"); }), expected);
    EXPECT_EQ(thrownBy([&contents] { zelIO::readFile(contents, "/tmp"); }), "Could not open file'/tmp'");
    EXPECT_EQ(contents, "old");
    EXPECT_THAT(warnings(), ElementsAre(expected + "\n", "Could not open file'/tmp'\n"));
}

TEST_F(FileSystemTest, EnvironmentVariablesAreOverwritten) {
    EXPECT_TRUE(zelIO::setEnvironmentVariable("ZEL_TEST_VARIABLE", "1"));
    EXPECT_TRUE(zelIO::setEnvironmentVariable("ZEL_TEST_VARIABLE", "2"));
    EXPECT_STREQ(std::getenv("ZEL_TEST_VARIABLE"), "2");
    EXPECT_FALSE(zelIO::setEnvironmentVariable("A=B", "1"));
    EXPECT_FALSE(zelIO::setEnvironmentVariable("", "1"));
    EXPECT_FALSE(zelIO::setEnvironmentVariable(nullptr, "1"));
    EXPECT_THAT(warnings().at(0), "Could not set environment variable 'A=B'\n");
}
