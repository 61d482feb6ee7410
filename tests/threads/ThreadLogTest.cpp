#include <zel/String.h>
#include <zel/Thread.h>
#include <zel/ThreadTask.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>

#include <gmock/gmock.h>
#include <support/TempDirectory.h>
#include <unistd.h>

#include <cstdarg>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

namespace {

/// Runs in a directory of its own, since the log's name is fixed.
class ThreadLogTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(chdir(directory.path().c_str()), 0);
        zelCore::init();
    }
    void TearDown() override {
        zelCore::shutdown();
        ASSERT_EQ(chdir("/"), 0);
    }

    [[gnu::format(printf, 1, 2)]] static void log(const char* format, ...) {
        va_list arguments;
        va_start(arguments, format);
        zel::Thread::getCurrentThread()->logImplementation(format, arguments);
        va_end(arguments);
    }
    std::string content() {
        std::ostringstream text;
        text << std::ifstream(directory / "thread_log.txt").rdbuf();
        return text.str();
    }

    zelTest::TempDirectory directory;
};

} // namespace

TEST_F(ThreadLogTest, PrintsAtOnceByDefault) {
    testing::internal::CaptureStdout();
    log("value %d of %s", 3, "x");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[0] value 3 of x\n");
}

TEST_F(ThreadLogTest, TrailingNewlineIsRemovedWithAComplaint) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    log("text\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "[0] text\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ThreadLog: Removing trailing newlines from format text\n\n");
}

TEST_F(ThreadLogTest, KeptLinesAreFlushedInTheOrderOfTime) {
    zel::Thread::immediateLogging = false;
    log("first");
    std::thread([] {
        zel::Thread::registerAsZelThread();
        log("second");
        log("third");
        zel::Thread::flushLogs();
        zel::Thread::unregisterAsZelThread();
    }).join();
    EXPECT_EQ(content(), "[0] first\n[-1] second\n[-1] third\n");
}

TEST_F(ThreadLogTest, LinesOfThreadsThatHaveEndedAreKept) {
    zel::Thread::immediateLogging = false;
    std::thread([] {
        zel::Thread::registerAsZelThread();
        log("ended");
        zel::Thread::unregisterAsZelThread();
    }).join();
    log("later");
    zel::Thread::flushLogs();
    EXPECT_EQ(content(), "[-1] ended\n[0] later\n");
}

TEST_F(ThreadLogTest, LinesOfWorkersThatHaveEndedAreKept) {
    zel::Thread::immediateLogging = false;
    zel::setNumThreads(2);
    const zel::ref_ptr<zel::ThreadTask> task(new zel::ThreadTask([] { log("line"); }, 2));
    task->execute();
    zel::setNumThreads(1);
    zel::Thread::flushLogs();
    EXPECT_THAT(content(),
                testing::AllOf(testing::HasSubstr("[0] line\n"), testing::HasSubstr("[1] line\n")));
}

TEST_F(ThreadLogTest, FlushTellsHowManyMessages) {
    zel::Thread::immediateLogging = false;
    log("only");
    testing::internal::CaptureStdout();
    zelFlushThreadLogs();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Wrote 1 messages to thread_log.txt\n");
}

TEST_F(ThreadLogTest, LineThatDoesNotFitOpensAFreshChunk) {
    zel::Thread::immediateLogging = false;
    const std::string text(1000, 'a');
    constexpr int Lines = 3000; // three chunks of a mebibyte
    for (int i = 0; i < Lines; ++i)
        log("%04d %s", i, text.c_str());
    zel::Thread::flushLogs();
    std::istringstream lines(content());
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        ASSERT_EQ(line.substr(0, 8), zel::String::format("[0] %04d", count));
        ++count;
    }
    EXPECT_EQ(count, Lines);
}

TEST_F(ThreadLogTest, LineLongerThanAChunkIsCut) {
    zel::Thread::immediateLogging = false;
    const std::string text(3U << 20, 'b');
    log("%s", text.c_str());
    log("after");
    zel::Thread::flushLogs();
    const std::string written = content();
    EXPECT_EQ(written.substr(0, 6), "[0] bb");
    EXPECT_LT(written.size(), text.size());
    EXPECT_TRUE(written.ends_with("\n[0] after\n"));
}

TEST_F(ThreadLogTest, FileThatCannotBeWrittenIsTold) {
    directory.write("thread_log.txt/x", ""); // a directory in its place
    testing::internal::CaptureStderr();
    zel::Thread::flushLogs();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ThreadLog: Could not write thread_log.txt\n");
}
