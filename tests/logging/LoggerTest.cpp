#include "support/FirstLife.h"
#include "support/StreamCapture.h"
#include "support/TempDirectory.h"

#include <zel/Job.h>
#include <zel/Log.h>
#include <zel/Logger.h>
#include <zel/Notify.h>
#include <zel/SystemInformation.h>
#include <zel/Thread.h>
#include <zel/WaitJob.h>
#include <zelCore/Version.h>
#include <zelCore/zelCore.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

using zelTest::StreamCapture;
using zelTest::TempDirectory;
using namespace zel;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

const char* const TimeText = "[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}";

/// The environment is read when the logger is made, which each test does after it has set its variables.
struct LoggerTest : testing::Test {
    void SetUp() override {
        for (const char* name : {"ZEL_LOG_ENABLE",
                                 "ZEL_LOG_FILE",
                                 "ZEL_LOG_OVERWRITE",
                                 "ZEL_LOG_LEVEL",
                                 "ZEL_OUTPUT_LEVEL",
                                 "ZEL_THROW_ON_ERROR",
                                 "ZEL_BREAK_ON_ERROR"})
            unsetenv(name);
        std::filesystem::current_path(directory.path());
    }
    void TearDown() override {
        zelCore::shutdown();
        std::filesystem::current_path("/");
    }

    void init(const std::vector<std::pair<const char*, const char*>>& variables) {
        for (const auto& [name, value] : variables)
            setenv(name, value, 1);
        zelCore::init();
        notify = Notify::instance();
    }
    [[nodiscard]] bool exists(const std::string& name) const {
        return std::filesystem::exists(directory.path(name));
    }
    [[nodiscard]] static Notify::NotifyLevel outputLevel() { return Notify::instance()->getNotifyLevel(); }

    /// The least level that reaches the log file.
    [[nodiscard]] int logLevel() {
        notify->setThrowOnError(false);
        const StreamCapture quiet(std::cerr);
        const std::string before = directory.read("zel-0001.log");
        notify->debug("D\n");
        notify->info("I\n");
        notify->warning("W\n");
        notify->error("E\n");
        const std::string added = directory.read("zel-0001.log").substr(before.size());
        int level = 16;
        for (const char c : {'E', 'W', 'I', 'D'})
            level = added.find(std::string("):  ") + c) != std::string::npos ? level / 2 : level;
        return level;
    }

    TempDirectory directory;
    Notify* notify = nullptr;
};

} // namespace

TEST_F(LoggerTest, IsAServiceOfPriority10002) {
    init({});
    EXPECT_EQ(Logger::instance()->getPriority(), 10002);
    EXPECT_THAT(Logger::instance()->getClassName(), HasSubstr("zel::Logger::getClassName"));
}

TEST_F(LoggerTest, ByDefaultThereIsNoLogAndErrorsThrow) {
    init({});
    EXPECT_FALSE(notify->logStream().haveOpenFile());
    EXPECT_TRUE(notify->getThrowOnError());
    EXPECT_FALSE(notify->getBreakOnError());
    EXPECT_EQ(outputLevel(), Notify::Warning);
    EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

TEST_F(LoggerTest, ErrorsAreSwitchedByTheEnvironmentWithoutLogging) {
    init({{"ZEL_THROW_ON_ERROR", "0"}, {"ZEL_BREAK_ON_ERROR", "1"}});
    EXPECT_FALSE(notify->getThrowOnError());
    EXPECT_TRUE(notify->getBreakOnError());
}

TEST_F(LoggerTest, TextThatIsNoNumberCountsAsZero) {
    init({{"ZEL_THROW_ON_ERROR", "yes"},
          {"ZEL_BREAK_ON_ERROR", ""},
          {"ZEL_LOG_ENABLE", "on"},
          {"ZEL_OUTPUT_LEVEL", "loud"}});
    EXPECT_FALSE(notify->getThrowOnError());
    EXPECT_FALSE(notify->getBreakOnError());
    EXPECT_FALSE(notify->logStream().haveOpenFile());
    EXPECT_EQ(outputLevel(), Notify::Debug);
}

TEST_F(LoggerTest, NumbersAreDecimalAndMayHaveATail) {
    init({{"ZEL_OUTPUT_LEVEL", " 3x"}, {"ZEL_BREAK_ON_ERROR", "0x1"}, {"ZEL_THROW_ON_ERROR", "-1"}});
    EXPECT_EQ(outputLevel(), Notify::Error);
    EXPECT_FALSE(notify->getBreakOnError());
    EXPECT_TRUE(notify->getThrowOnError());
}

namespace {
struct LevelCase {
    const char* text;
    int level;
};
void PrintTo(const LevelCase& c, std::ostream* stream) {
    *stream << c.text;
}
struct OutputLevelTest : LoggerTest, testing::WithParamInterface<LevelCase> {};
struct LogLevelTest : LoggerTest, testing::WithParamInterface<LevelCase> {};
} // namespace

TEST_P(OutputLevelTest, IsAnExponentAndAboveErrorFallsBackToWarning) {
    init({{"ZEL_OUTPUT_LEVEL", GetParam().text}});
    EXPECT_EQ(outputLevel(), GetParam().level);
}
INSTANTIATE_TEST_SUITE_P(LoggerTest,
                         OutputLevelTest,
                         testing::Values(LevelCase{"0", 1},
                                         LevelCase{"1", 2},
                                         LevelCase{"2", 4},
                                         LevelCase{"3", 8},
                                         LevelCase{"4", 4},
                                         LevelCase{"9", 4},
                                         LevelCase{"31", 4},
                                         LevelCase{"32", 1},
                                         LevelCase{"-1", 4},
                                         LevelCase{"99999999999999999999", 4}));

TEST_P(LogLevelTest, IsAnExponentAndAboveErrorIsIgnored) {
    init({{"ZEL_LOG_ENABLE", "1"}, {"ZEL_LOG_LEVEL", GetParam().text}});
    EXPECT_EQ(logLevel(), GetParam().level);
}
INSTANTIATE_TEST_SUITE_P(LoggerTest,
                         LogLevelTest,
                         testing::Values(LevelCase{"0", 1},
                                         LevelCase{"1", 2},
                                         LevelCase{"2", 4},
                                         LevelCase{"3", 8},
                                         LevelCase{"4", 1},
                                         LevelCase{"9", 1},
                                         LevelCase{"33", 2},
                                         LevelCase{"nonsense", 1}));

TEST_F(LoggerTest, TheLogLevelNeedsTheLog) {
    init({{"ZEL_LOG_LEVEL", "3"}});
    ASSERT_TRUE(Logger::instance()->openLogfile("zel.log", false, false));
    EXPECT_EQ(logLevel(), Notify::Debug);
}

TEST_F(LoggerTest, TwoRunsGetTwoNumbersAndThePlainNameIsNeverUsed) {
    ZEL_FIRST_LIFE_ONLY();
    init({{"ZEL_LOG_ENABLE", "1"}});
    EXPECT_EQ(Logger::instance()->getLogFilename(), directory.path("zel-0001.log"));
    zelCore::shutdown();
    init({});
    EXPECT_EQ(Logger::instance()->getLogFilename(), directory.path("zel-0002.log"));
    EXPECT_TRUE(exists("zel-0001.log"));
    EXPECT_TRUE(exists("zel-0002.log"));
    EXPECT_FALSE(exists("zel.log"));
}

TEST_F(LoggerTest, AGapInTheNumbersIsFilled) {
    directory.write("zel-0001.log");
    directory.write("zel-0003.log");
    init({{"ZEL_LOG_ENABLE", "1"}});
    EXPECT_TRUE(exists("zel-0002.log"));
}

TEST_F(LoggerTest, WhenAllNumbersAreTakenTheLastIsOverwritten) {
    for (int i = 1; i <= 9999; ++i) {
        std::string number = std::to_string(i);
        number.insert(0, 4 - number.size(), '0');
        directory.write("zel-" + number + ".log", "old");
    }
    init({{"ZEL_LOG_ENABLE", "1"}});
    EXPECT_EQ(Logger::instance()->getLogFilename(), directory.path("zel-9999.log"));
    EXPECT_EQ(directory.read("zel-9998.log"), "old");
    EXPECT_THAT(directory.read("zel-9999.log"), HasSubstr("*** Log file created@"));
}

TEST_F(LoggerTest, OverwritingUsesThePlainName) {
    directory.write("zel.log", "old");
    init({{"ZEL_LOG_ENABLE", "1"}, {"ZEL_LOG_OVERWRITE", "1"}});
    EXPECT_EQ(Logger::instance()->getLogFilename(), directory.path("zel.log"));
    EXPECT_THAT(directory.read("zel.log"), HasSubstr("*** Log file created@"));
    EXPECT_THAT(directory.read("zel.log"), testing::Not(StartsWith("old")));
}

TEST_F(LoggerTest, QuoteMarksAroundTheNameAreStripped) {
    init({{"ZEL_LOG_ENABLE", "1"}, {"ZEL_LOG_OVERWRITE", "1"}, {"ZEL_LOG_FILE", "\"my log.txt\""}});
    EXPECT_TRUE(exists("my log.txt"));
}

TEST_F(LoggerTest, ALoneQuoteMarkIsStrippedToo) {
    init({{"ZEL_LOG_ENABLE", "1"}, {"ZEL_LOG_OVERWRITE", "1"}, {"ZEL_LOG_FILE", "log.txt\""}});
    EXPECT_TRUE(exists("log.txt"));
}

TEST_F(LoggerTest, ANameInADirectoryThatIsMissingMakesIt) {
    init({{"ZEL_LOG_ENABLE", "1"}, {"ZEL_LOG_FILE", "logs/today/run.txt"}});
    EXPECT_TRUE(exists("logs/today/run-0001.txt"));
}

TEST_F(LoggerTest, AnEmptyNameOpensNothingAndSaysNothing) {
    const StreamCapture errors(std::cerr);
    init({{"ZEL_LOG_ENABLE", "1"}, {"ZEL_LOG_FILE", ""}});
    EXPECT_FALSE(notify->logStream().haveOpenFile());
    EXPECT_EQ(errors.text(), "");
    EXPECT_TRUE(std::filesystem::is_empty(directory.path()));
}

TEST_F(LoggerTest, ALogThatCannotBeOpenedIsReportedAndTheRunGoesOn) {
    std::filesystem::create_directory(directory.path("taken"));
    {
        const StreamCapture errors(std::cerr);
        init({{"ZEL_LOG_ENABLE", "1"}, {"ZEL_LOG_OVERWRITE", "1"}, {"ZEL_LOG_FILE", "taken"}});
        EXPECT_EQ(errors.text(), "Logger: *** Unable to open log file: taken ***\n");
    }
    EXPECT_FALSE(notify->logStream().haveOpenFile());
    const StreamCapture errors(std::cerr);
    ZEL_LOG_WARNING("still here");
    EXPECT_EQ(errors.text(), "still here\n");
}

TEST_F(LoggerTest, ADirectoryThatCannotBeMadeIsReportedToo) {
    directory.write("file");
    const StreamCapture errors(std::cerr);
    init({{"ZEL_LOG_ENABLE", "1"}, {"ZEL_LOG_FILE", "file/below/zel.log"}});
    EXPECT_THAT(errors.text(), HasSubstr("Logger: *** Unable to open log file: file/below/zel.log ***\n"));
    EXPECT_FALSE(notify->logStream().haveOpenFile());
}

TEST_F(LoggerTest, AnOpenLogStaysUnlessClosingIsAskedFor) {
    init({});
    EXPECT_TRUE(Logger::instance()->openLogfile("a.txt", true, false));
    EXPECT_FALSE(Logger::instance()->openLogfile("b.txt", true, false));
    EXPECT_FALSE(exists("b.txt"));
    EXPECT_EQ(Logger::instance()->getLogFilename(), directory.path("a.txt"));
    EXPECT_TRUE(Logger::instance()->openLogfile("b.txt", true, true));
    EXPECT_EQ(Logger::instance()->getLogFilename(), directory.path("b.txt"));
}

TEST_F(LoggerTest, TheHeaderTellsTimeVersionBuildAndHardware) {
    init({});
    ASSERT_TRUE(Logger::instance()->openLogfile("a.txt", true, false));
    const std::string text = directory.read("a.txt");
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    ASSERT_GE(lines.size(), 6U);
    const std::string front = std::string(TimeText) + " \\(thread: [0-9]+, .*\\):  ";
    EXPECT_THAT(lines[0], MatchesRegex(front + "\\*\\*\\* Log file created@" + TimeText + "\\*\\*\\*"));
    EXPECT_THAT(lines[1],
                testing::EndsWith("):  Company: Norvane Component: ZEL Library 64Bit Version: 2.40.0.0"
                                  " Build date: " +
                                  zelCore::zelGetBuildDate(false) +
                                  " Build time: " + zelCore::zelGetBuildTime()));
    EXPECT_THAT(lines[2],
                testing::EndsWith(std::string("):  Build type: ") + zelCore::zelGetBuildType() +
                                  " Build flags: " + zelCore::zelGetCppBuildFlags()));
    EXPECT_THAT(lines[3], MatchesRegex(front));
    EXPECT_THAT(lines[4], MatchesRegex(front + "Hardware information:"));
    EXPECT_THAT(
        text,
        testing::EndsWith("Hardware information:\n" + SystemInformation::getHardwareSpecification() + "\n"));
}

TEST_F(LoggerTest, ALogLineHasTimeThreadAndText) {
    init({{"ZEL_LOG_ENABLE", "1"}});
    const std::string before = directory.read("zel-0001.log");
    ZEL_LOG_DEBUG("text");
    ZEL_LOG_DEBUG("more");
    const std::string front = std::string(TimeText) + " \\(thread: [0-9]+, [0-9a-z]+\\):  ";
    EXPECT_THAT(directory.read("zel-0001.log").substr(before.size()),
                MatchesRegex(front + "text\n" + front + "more\n"));
}

TEST_F(LoggerTest, TheLineOfAWorkerHasItsId) {
    init({{"ZEL_LOG_ENABLE", "1"}});
    Thread worker(3);
    ASSERT_TRUE(worker.start());
    std::string handle;
    Job job(Callback([&handle] {
        handle = std::to_string(pthread_self());
        ZEL_LOG_DEBUG("text");
    }));
    WaitJob wait(&job);
    Thread::getCurrentThread()->pushTargetJob(&worker, &job, true);
    wait.wait();
    EXPECT_THAT(
        directory.read("zel-0001.log"),
        testing::ContainsRegex("\n" + std::string(TimeText) + " \\(thread: " + handle + ", 3\\):  text\n"));
}

TEST_F(LoggerTest, TheOutputLevelConcernsTheThreadThatMakesTheLogger) {
    init({{"ZEL_OUTPUT_LEVEL", "3"}});
    EXPECT_EQ(outputLevel(), Notify::Error);
    std::thread([] {
        Thread::registerAsZelThread();
        EXPECT_EQ(outputLevel(), Notify::Info);
        Thread::unregisterAsZelThread();
    }).join();
}

TEST_F(LoggerTest, AMessageForTheLogOnlyIsInTheLog) {
    init({{"ZEL_LOG_ENABLE", "1"}});
    const StreamCapture errors(std::cerr);
    notify->getThreadStringStream() << notify->setDebugStrings(Notify::Warning, "", -1, "")
                                    << notify->logOnly() << "secret" << std::endl
                                    << notify->end();
    EXPECT_THAT(directory.read("zel-0001.log"), testing::EndsWith("):  secret\n"));
    EXPECT_EQ(errors.text(), "");
}

TEST_F(LoggerTest, AnErrorThatThrowsIsInTheLog) {
    init({{"ZEL_LOG_ENABLE", "1"}});
    EXPECT_THROW(ZEL_LOG_ERROR("bad"), std::runtime_error);
    EXPECT_THAT(directory.read("zel-0001.log"), testing::EndsWith("):  bad\n"));
}

TEST_F(LoggerTest, ShutdownClosesTheLogWithALastLine) {
    ZEL_FIRST_LIFE_ONLY();
    init({{"ZEL_LOG_ENABLE", "1"}});
    zelCore::shutdown();
    // The library is shut down by then, so the thread is not named.
    EXPECT_THAT(directory.read("zel-0001.log"),
                testing::ContainsRegex(std::string("\n") + TimeText + "Closing log\n$"));
}

TEST_F(LoggerTest, AFullDiskIsToldOnceAndTheRunGoesOn) {
    init({});
    const StreamCapture errors(std::cerr);
    ASSERT_TRUE(Logger::instance()->openLogfile("/dev/full", true, false));
    ZEL_LOG_DEBUG("one");
    ZEL_LOG_DEBUG("two");
    EXPECT_EQ(errors.text(), "Notify: could not write to the log file /dev/full\n");
}

TEST_F(LoggerTest, SetLogNotifyLevelConcernsTheLogFile) {
    init({{"ZEL_LOG_ENABLE", "1"}});
    Logger::instance()->setLogNotifyLevel(Notify::Warning);
    EXPECT_EQ(logLevel(), Notify::Warning);
}

TEST_F(LoggerTest, AWorkingDirectoryThatIsGoneIsReportedAndTheRunGoesOn) {
    std::filesystem::create_directory(directory.path("gone"));
    std::filesystem::current_path(directory.path("gone"));
    std::filesystem::remove(directory.path("gone"));
    {
        const StreamCapture errors(std::cerr);
        init({{"ZEL_LOG_ENABLE", "1"}, {"ZEL_LOG_FILE", "run.log"}});
        EXPECT_THAT(errors.text(), testing::EndsWith("Logger: *** Unable to open log file: run.log ***\n"));
    }
    EXPECT_FALSE(notify->logStream().haveOpenFile());
    EXPECT_EQ(outputLevel(), Notify::Warning) << "the rest of the environment is read all the same";
}

TEST_F(LoggerTest, ASecondLifeGoesOnInTheLogThatTheFirstHasWritten) {
    init({{"ZEL_LOG_ENABLE", "1"}, {"ZEL_LOG_OVERWRITE", "1"}, {"ZEL_LOG_FILE", "run.log"}});
    ZEL_LOG_DEBUG("first life");
    zelCore::shutdown();
    zelCore::init();
    ZEL_LOG_DEBUG("second life");
    EXPECT_THAT(directory.read("run.log"), testing::ContainsRegex("first life\n(.|\n)*second life\n"));
}

namespace {

/// Says something when the logger is gone.
struct LateService : Singleton {
    explicit LateService(std::string* seen) : Singleton(50), m_seen(seen) {}
    void shutdown() override {
        ZEL_LOG_DEBUG("late");
        *m_seen = Notify::instance()->getThrowOnError() ? "throws" : "prints";
        *m_seen += Notify::instance()->getNotifyLevel() == Notify::Error ? ", errors" : ", more";
    }
    [[nodiscard]] std::string getClassName() const override { return "LateService"; }

private:
    std::string* m_seen;
};

} // namespace

TEST_F(LoggerTest, AMessageBehindTheLoggersEndGoesToTheSameLogWithTheProgramsSettings) {
    ZEL_FIRST_LIFE_ONLY();
    init({{"ZEL_LOG_ENABLE", "1"}, {"ZEL_LOG_OVERWRITE", "1"}, {"ZEL_LOG_FILE", "run.log"}});
    std::string seen;
    new LateService(&seen);
    notify->setThrowOnError(false);
    notify->setNotifyLevel(Notify::Error);
    ZEL_LOG_DEBUG("in time");
    zelCore::shutdown();
    EXPECT_EQ(seen, "prints, errors");
    EXPECT_THAT(directory.read("run.log"), testing::ContainsRegex("in time\n(.|\n)*late\n"));
}

TEST_F(LoggerTest, ANumberedLogIsGoneOnWithAsWell) {
    ZEL_FIRST_LIFE_ONLY();
    init({{"ZEL_LOG_ENABLE", "1"}});
    std::string seen;
    new LateService(&seen);
    zelCore::shutdown();
    EXPECT_THAT(directory.read("zel-0001.log"), HasSubstr("late\n"));
    EXPECT_FALSE(exists("zel-0002.log"));
}

TEST_F(LoggerTest, ASessionThatFollowsALateMessageReadsTheEnvironment) {
    ZEL_FIRST_LIFE_ONLY();
    init({});
    std::string seen;
    new LateService(&seen);
    zelCore::shutdown();
    init({{"ZEL_THROW_ON_ERROR", "0"}, {"ZEL_OUTPUT_LEVEL", "3"}});
    EXPECT_FALSE(notify->getThrowOnError());
    EXPECT_EQ(outputLevel(), Notify::Error);
}

TEST_F(LoggerTest, AMessageAheadOfInitDoesNotCostTheMainThreadItsLevel) {
    setenv("ZEL_OUTPUT_LEVEL", "3", 1);
    ZEL_LOG_DEBUG("early");
    init({});
    EXPECT_EQ(outputLevel(), Notify::Error);
}
