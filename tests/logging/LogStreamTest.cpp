#include "support/StreamCapture.h"
#include "support/TempDirectory.h"

#include <zel/LogStream.h>
#include <zelCore/zelCore.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

using zelTest::StreamCapture;
using zelTest::TempDirectory;
using namespace zel;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

std::vector<std::string> s_order;

/// Notes each finished line.
struct RecordingStream : LogStream {
    void message(const char* text, unsigned int length) override {
        lines.emplace_back(text, length);
        s_order.emplace_back("message");
    }
    std::vector<std::string> lines;
};

/// A stream buffer that notes when it is written to.
struct NotingBuffer : std::streambuf {
    explicit NotingBuffer(const char* bufferName) : name(bufferName) {}
    std::streamsize xsputn(const char*, std::streamsize n) override {
        s_order.emplace_back(name);
        return n;
    }
    const char* name;
};

std::string s_callbackText;
void noteCallback(const char* text, unsigned int length) {
    s_callbackText.assign(text, length);
    s_order.emplace_back("callback");
}

} // namespace

TEST(LogStreamTest, HasItsDefaults) {
    LogStream stream;
    EXPECT_EQ(stream.getCallback(), nullptr);
    EXPECT_EQ(stream.getOutputMode(), 0);
    EXPECT_FALSE(stream.haveOpenFile());
    EXPECT_EQ(stream.getFilename(), "");
    EXPECT_EQ(stream.getDateFormat(), "%X");
    EXPECT_FALSE(stream.getEnableDate());
    EXPECT_TRUE(stream.getEnableThreadId());
    EXPECT_EQ(stream.write("x", 1), 0);
}

TEST(LogStreamTest, OutputModesAreBits) {
    LogStream stream;
    stream.setOutputMode(LogStream::Cerr);
    stream.appendOutputMode(LogStream::File);
    EXPECT_EQ(stream.getOutputMode(), 5);
    EXPECT_TRUE(stream.isActive(LogStream::Cerr));
    EXPECT_TRUE(stream.isActive(LogStream::File));
    EXPECT_FALSE(stream.isActive(LogStream::Cout));
    EXPECT_EQ(LogStream::Cout, 2);
    EXPECT_EQ(LogStream::Callback, 8);
    stream.clearOutputMode();
    EXPECT_EQ(stream.getOutputMode(), 0);
}

TEST(LogStreamTest, EachFlushFinishesALine) {
    RecordingStream stream;
    stream << "a" << 1 << std::endl << "b" << std::flush;
    stream.put('c');
    stream.flush();
    EXPECT_THAT(stream.lines, ElementsAre("a1\n", "b", "c"));
    EXPECT_TRUE(stream.good());
}

TEST(LogStreamTest, AFlushWithoutTextFinishesNoLine) {
    RecordingStream stream;
    stream << std::flush << std::flush;
    EXPECT_TRUE(stream.lines.empty());
    stream << std::endl; // an empty line is one
    EXPECT_THAT(stream.lines, ElementsAre("\n"));
}

TEST(LogStreamTest, BeforeInitThereIsNoThreadInFront) {
    RecordingStream stream;
    stream.setEnableDate(true);
    stream << "text" << std::flush;
    EXPECT_THAT(stream.lines.at(0), MatchesRegex("[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}text"));
}

TEST(LogStreamTest, DateAndThreadStandInFrontInThisOrder) {
    zelCore::init();
    RecordingStream stream;
    const std::string self = std::to_string(pthread_self());
    stream << "text" << std::endl;
    EXPECT_THAT(stream.lines.at(0), MatchesRegex(" \\(thread: " + self + ", .*\\):  text\n"));
    stream.setEnableDate(true);
    stream << "text" << std::endl;
    EXPECT_THAT(
        stream.lines.at(1),
        MatchesRegex("[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} \\(thread: " + self + ", .*\\):  text\n"));
    stream.setEnableThreadId(false);
    stream << "text" << std::endl;
    EXPECT_THAT(stream.lines.at(2), MatchesRegex("[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}text\n"));
    stream.setEnableDate(false);
    stream << "text" << std::endl;
    EXPECT_EQ(stream.lines.at(3), "text\n");
    zelCore::shutdown();
}

TEST(LogStreamTest, AllDestinationsGetTheLineInTheirOrder) {
    s_order.clear();
    const TempDirectory directory;
    RecordingStream stream;
    ASSERT_TRUE(stream.open(directory.path("log")));
    stream.setOutputMode(15);
    stream.setCallback(noteCallback);
    EXPECT_EQ(stream.getCallback(), noteCallback);
    NotingBuffer cerrBuffer("cerr");
    NotingBuffer coutBuffer("cout");
    std::streambuf* const oldCerr = std::cerr.rdbuf(&cerrBuffer);
    std::streambuf* const oldCout = std::cout.rdbuf(&coutBuffer);
    stream << "text" << std::endl;
    std::cerr.rdbuf(oldCerr);
    std::cout.rdbuf(oldCout);
    EXPECT_THAT(s_order, ElementsAre("message", "cerr", "callback", "cout"));
    EXPECT_EQ(s_callbackText, "text\n");
    EXPECT_EQ(directory.read("log"), "text\n"); // last, and already written out
}

TEST(LogStreamTest, WithoutItsBitADestinationGetsNothing) {
    const TempDirectory directory;
    LogStream stream;
    ASSERT_TRUE(stream.open(directory.path("log")));
    s_callbackText.clear();
    stream.setCallback(noteCallback);
    const StreamCapture errors(std::cerr);
    const StreamCapture output(std::cout);
    stream << "text" << std::endl;
    EXPECT_EQ(errors.text() + output.text() + s_callbackText + directory.read("log"), "");
    stream.setOutputMode(LogStream::Callback | LogStream::File);
    stream.setCallback(nullptr); // the bit without a callback does nothing
    stream << "text" << std::endl;
    EXPECT_EQ(directory.read("log"), "text\n");
}

TEST(LogStreamTest, OpenMakesTheDirectoryAndReplacesAnOldFile) {
    const TempDirectory directory;
    const std::string name = directory.path("new/deep/log");
    LogStream stream;
    stream.setOutputMode(LogStream::File);
    ASSERT_TRUE(stream.open(name));
    EXPECT_TRUE(stream.haveOpenFile());
    EXPECT_EQ(stream.getFilename(), name);
    stream << "old" << std::endl;
    ASSERT_TRUE(stream.open(name));
    EXPECT_EQ(directory.read("new/deep/log"), "");
    EXPECT_EQ(stream.write("abc", 3), 3);
    EXPECT_EQ(directory.read("new/deep/log"), "abc");
    stream.close();
    stream.close();
    EXPECT_FALSE(stream.haveOpenFile());
    EXPECT_EQ(stream.write("abc", 3), 0);
}

TEST(LogStreamTest, AFileThatCannotBeOpenedSetsTheFailbit) {
    const TempDirectory directory;
    LogStream stream;
    EXPECT_FALSE(stream.open(directory.path())); // a directory
    EXPECT_TRUE(stream.fail());
    EXPECT_FALSE(stream.haveOpenFile());
    ASSERT_TRUE(stream.open(directory.path("log")));
    EXPECT_TRUE(stream.good());
}

TEST(LogStreamTest, ADirectoryThatCannotBeMadeFailsWithoutTheFailbit) {
    const TempDirectory directory;
    directory.write("file");
    const StreamCapture quiet(std::cerr);
    LogStream stream;
    EXPECT_FALSE(stream.open(directory.path("file/below/log")));
    EXPECT_FALSE(stream.fail());
    EXPECT_EQ(stream.getFilename(), "");
}

TEST(LogStreamTest, AFullDiskIsNoticed) {
    LogStream stream;
    ASSERT_TRUE(stream.open("/dev/full"));
    stream.setOutputMode(LogStream::File);
    EXPECT_EQ(stream.write("abc", 3), 0);
    stream << "text" << std::endl;
    EXPECT_TRUE(stream.bad());
}

TEST(LogStreamTest, TheTimeStringHasTheLocalTime) {
    setenv("TZ", "UTC+0", 1);
    EXPECT_THAT(LogStream::getTimeString("%X", true), MatchesRegex("[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}"));
    EXPECT_THAT(LogStream::getTimeString("unused", true), MatchesRegex("[0-9:]{8}\\.[0-9]{3}"));
    EXPECT_EQ(LogStream::getTimeString("%%x %Z", false), "%x UTC");
    EXPECT_EQ(LogStream::getTimeString("", false), "");
    LogStream stream;
    stream.setDateFormat("%Y");
    EXPECT_THAT(LogStream::getTimeString(stream.getDateFormat(), false), MatchesRegex("2[0-9]{3}"));
}

TEST(LogStreamTest, AnUnfinishedLineIsWrittenWhenTheStreamIsClosedOrEnds) {
    const TempDirectory directory;
    {
        LogStream stream;
        stream.appendOutputMode(LogStream::File);
        ASSERT_TRUE(stream.open(directory.path("closed")));
        stream << "unfinished";
        stream.close();
        ASSERT_TRUE(stream.open(directory.path("ended")));
        stream << "unfinished too";
    }
    EXPECT_EQ(directory.read("closed"), "unfinished");
    EXPECT_EQ(directory.read("ended"), "unfinished too");
}

TEST(LogStreamTest, AFileMayBeGoneOnWith) {
    const TempDirectory directory;
    LogStream stream;
    stream.appendOutputMode(LogStream::File);
    ASSERT_TRUE(stream.open(directory.path("file")));
    stream << "one" << std::endl;
    ASSERT_TRUE(stream.open(directory.path("file"), true));
    stream << "two" << std::endl;
    stream.close();
    EXPECT_EQ(directory.read("file"), "one\ntwo\n");
}

TEST(LogStreamTest, ATimeMayBeLongOrEmpty) {
    EXPECT_EQ(LogStream::getTimeString("", false), "");
    EXPECT_EQ(LogStream::getTimeString(std::string(1000, 'x'), false), std::string(1000, 'x'));
    EXPECT_THAT(LogStream::getTimeString("%Y", false), MatchesRegex("[0-9]{4}"));
}
