#include "support/FirstLife.h"
#include "support/LogCapture.h"
#include "support/StreamCapture.h"

#include <zel/Log.h>
#include <zel/Notify.h>
#include <zel/Thread.h>
#include <zelCore/zelCore.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using zelTest::LogCapture;
using zelTest::StreamCapture;
using namespace zel;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

struct NotifyTest : testing::Test {
    void SetUp() override {
        zelCore::init();
        notify = Notify::instance();
    }
    void TearDown() override { zelCore::shutdown(); }
    Notify* notify = nullptr;
};

/// The what-text of the error that the message throws, or "no error".
template <typename Function>
std::string thrownBy(Function function) {
    try {
        function();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "no error";
}

struct NotifyLevelCase {
    Notify::NotifyLevel level;
    int value;
    const char* word;
};
constexpr NotifyLevelCase Levels[] = {{Notify::Debug, 1, "Debug"},
                                      {Notify::Info, 2, "Info"},
                                      {Notify::Warning, 4, "Warning"},
                                      {Notify::Error, 8, "Error"}};

} // namespace

TEST_F(NotifyTest, LevelsAreBitsWithNames) {
    for (const NotifyLevelCase& c : Levels) {
        EXPECT_EQ(c.level, c.value);
        EXPECT_EQ(notify->setDebugStrings(c.level, "f", 1, "g"), "");
        EXPECT_EQ(Notify::getThreadData().levelName, c.word);
        EXPECT_EQ(notify->getOutputMode(), c.level);
    }
}

TEST_F(NotifyTest, TheTagsHaveTheirValuesAndKnowTheirNotify) {
    EXPECT_EQ(notify->end().value(), 16);
    EXPECT_EQ(notify->clearString().value(), 32);
    EXPECT_EQ(notify->logOnly().value(), 128);
    EXPECT_EQ(notify->push(15).value(), 15);
    EXPECT_EQ(notify->end().notify(), notify);
    EXPECT_EQ(notify->push(1).notify(), notify);
}

TEST_F(NotifyTest, IsAServiceOfPriority10001) {
    EXPECT_EQ(notify->getPriority(), 10001);
    EXPECT_THAT(notify->getClassName(), HasSubstr("zel::Notify::getClassName"));
    EXPECT_EQ(&notify->outStream(), &std::cerr);
    const Notify& constant = *notify;
    EXPECT_EQ(&constant.logStream(), &notify->logStream());
}

TEST(NotifyThreadDataTest, HasItsDefaults) {
    const ref_ptr<Notify::ThreadData> data(new Notify::ThreadData);
    EXPECT_EQ(data->outputMode, Notify::Warning);
    EXPECT_EQ(data->levelName, "");
    EXPECT_EQ(data->line, 0);
    EXPECT_EQ(data->file, "");
    EXPECT_EQ(data->function, "");
    EXPECT_EQ(data->stream.str(), "");
    EXPECT_EQ(data->notifyLevel, Notify::Info);
    ASSERT_EQ(data->printSelections.size(), 8U);
    for (const auto& stack : data->printSelections) {
        ASSERT_EQ(stack.size(), 1U);
        EXPECT_EQ(stack[0], Notify::PrintSelection());
    }
}

TEST_F(NotifyTest, SetDebugStringsStoresALineBelowOneAsMinusOne) {
    notify->setDebugStrings(Notify::Info, "file.cpp", 0, "function");
    EXPECT_EQ(Notify::getThreadData().line, -1);
    notify->setDebugStrings(Notify::Info, "file.cpp", -7, "function");
    EXPECT_EQ(Notify::getThreadData().line, -1);
    notify->setDebugStrings(Notify::Info, "file.cpp", 1, "function");
    EXPECT_EQ(Notify::getThreadData().line, 1);
    EXPECT_EQ(Notify::getThreadData().file, "file.cpp");
    EXPECT_EQ(Notify::getThreadData().function, "function");
}

TEST_F(NotifyTest, TheSelectionMaskHasTheBitOfTheLevelValue) {
    Notify::PrintSelection selection;
    EXPECT_EQ(selection.getMask(), (1U << 1) | (1U << 2) | (1U << 4) | (1U << 8));
    for (const NotifyLevelCase& c : Levels)
        EXPECT_TRUE(selection.isSet(c.level));
    EXPECT_FALSE(selection.isSet(0));
    selection.setMask(Notify::Info, false);
    EXPECT_FALSE(selection.isSet(Notify::Info));
    selection.setMask(33, true); // the number is taken modulo 32
    EXPECT_TRUE(selection.isSet(1));
    selection.clear();
    EXPECT_TRUE(selection.isNoneSet());

    const Notify::PrintSelection some(Notify::Debug | Notify::Error);
    EXPECT_EQ(some.getMask(), (1U << 1) | (1U << 8));
    EXPECT_TRUE(Notify::PrintSelection(0).isNoneSet());
    EXPECT_TRUE(Notify::PrintSelection(16).isNoneSet());
}

TEST_F(NotifyTest, PopRefusesToRemoveTheLastSelection) {
    EXPECT_FALSE(notify->popPrintSelection());
    for (const NotifyLevelCase& c : Levels)
        EXPECT_FALSE(notify->popPrintSelection(c.level));
}

TEST_F(NotifyTest, EachLevelHasItsOwnStackOfSelections) {
    notify->pushPrintSelection(Notify::PrintSelection(1), Notify::Debug);
    notify->pushPrintSelection(Notify::PrintSelection(8), Notify::Error);
    EXPECT_TRUE(notify->getPrintSelection(Notify::Error).isSet(Notify::Error));
    EXPECT_FALSE(notify->getPrintSelection(Notify::Error).isSet(Notify::Debug));
    EXPECT_EQ(notify->getPrintSelection(Notify::Info), Notify::PrintSelection());
    // Level 0 shares the stack of level 1.
    EXPECT_EQ(notify->getPrintSelection(static_cast<Notify::NotifyLevel>(0)), Notify::PrintSelection(1));
    EXPECT_TRUE(notify->popPrintSelection(Notify::Error));
    EXPECT_FALSE(notify->popPrintSelection(Notify::Error));
    EXPECT_TRUE(notify->popPrintSelection(Notify::Debug));
}

TEST_F(NotifyTest, WithoutALevelTheThreadsOutputModeIsMeant) {
    notify->setOutputMode(Notify::Info);
    notify->pushPrintSelection(Notify::PrintSelection(2));
    EXPECT_EQ(notify->getPrintSelection(), Notify::PrintSelection(2));
    notify->setOutputMode(Notify::Warning);
    EXPECT_EQ(notify->getPrintSelection(), Notify::PrintSelection());
    EXPECT_TRUE(notify->popPrintSelection(Notify::Info));
}

TEST_F(NotifyTest, SelectionsAreStoredAndPoppedButFilterNothing) {
    LogCapture log;
    notify->getThreadStringStream() << notify->setDebugStrings(Notify::Info, "", -1, "") << notify->push(0)
                                    << "seen";
    EXPECT_TRUE(notify->getPrintSelection(Notify::Info).isNoneSet());
    *notify << notify->end();
    EXPECT_THAT(log.texts(), ElementsAre("seen"));
    EXPECT_EQ(notify->getPrintSelection(Notify::Info), Notify::PrintSelection());
}

TEST_F(NotifyTest, AMessageReachesEveryDestinationOfItsLevel) {
    std::ostringstream fromDebug;
    std::ostringstream fromError;
    notify->addStream(&fromDebug, Notify::Debug);
    notify->addStream(&fromError, Notify::Error);
    LogCapture all(Notify::Debug);
    LogCapture warnings(Notify::Warning);
    const StreamCapture output(std::cerr);
    notify->setNotifyLevel(Notify::Info);

    notify->debug("d");
    notify->info("i");
    notify->warning("w");

    EXPECT_EQ(output.text(), "iw");
    EXPECT_EQ(fromDebug.str(), "diw");
    EXPECT_EQ(fromError.str(), "");
    EXPECT_THAT(all.texts(), ElementsAre("d", "i", "w"));
    EXPECT_THAT(all.levels(), ElementsAre(1, 2, 4));
    EXPECT_THAT(warnings.texts(), ElementsAre("w"));
    notify->removeStream(&fromDebug);
    notify->removeStream(&fromError);
    notify->info("after");
    EXPECT_EQ(fromDebug.str(), "diw");
}

TEST_F(NotifyTest, AddingAgainReplacesTheLevel) {
    std::ostringstream stream;
    notify->addStream(&stream, Notify::Debug);
    notify->addStream(&stream, Notify::Warning);
    notify->debug("d");
    EXPECT_EQ(stream.str(), "");
    notify->setNotifyLevel(&stream, Notify::Debug);
    notify->debug("d");
    EXPECT_EQ(stream.str(), "d");
    notify->removeStream(&stream);
    notify->setNotifyLevel(&stream, Notify::Debug); // no longer there, and stays away
    notify->debug("d");
    EXPECT_EQ(stream.str(), "d");
}

TEST_F(NotifyTest, CallbacksAreOwnedWhileRegisteredAndHaveALevel) {
    struct Counting : NotifyCallback {
        void message(const std::string&, int) override { ++count; }
        int count = 0;
    };
    const ref_ptr<Counting> callback(new Counting);
    notify->addCallback(callback.get(), Notify::Debug);
    EXPECT_EQ(callback->referenceCount(), 2);
    notify->debug("d");
    notify->setNotifyLevel(callback.get(), Notify::Warning);
    notify->debug("d");
    EXPECT_EQ(callback->count, 1);
    notify->addCallback(callback.get(), Notify::Debug);
    EXPECT_EQ(callback->referenceCount(), 2);
    notify->debug("d");
    EXPECT_EQ(callback->count, 2);
    notify->removeCallback(callback.get());
    EXPECT_EQ(callback->referenceCount(), 1);
    notify->debug("d");
    EXPECT_EQ(callback->count, 2);
}

TEST_F(NotifyTest, AnErrorThrowsItsTextAndSkipsTheOutputStream) {
    std::ostringstream stream;
    notify->addStream(&stream, Notify::Error);
    LogCapture log(Notify::Error);
    const StreamCapture output(std::cerr);
    EXPECT_EQ(thrownBy([this] { notify->error("x"); }), "x");
    EXPECT_EQ(output.text(), "");
    EXPECT_EQ(stream.str(), "x");
    EXPECT_THAT(log.texts(), ElementsAre("x"));
    EXPECT_THAT(log.levels(), ElementsAre(8));
    notify->removeStream(&stream);
}

TEST_F(NotifyTest, AfterACaughtErrorTheNextMessageBeginsWithItsText) {
    LogCapture log;
    const StreamCapture output(std::cerr);
    notify->getThreadStringStream() << notify->setDebugStrings(Notify::Error, "", -1, "") << notify->push(1)
                                    << "first ";
    EXPECT_THROW(*notify << notify->end(), std::runtime_error);
    EXPECT_EQ(notify->str(), "first ");
    // The selection stays as well.
    EXPECT_EQ(notify->getPrintSelection(Notify::Error), Notify::PrintSelection(1));
    notify->warning("second");
    EXPECT_THAT(log.texts(), ElementsAre("first ", "first second"));
    EXPECT_EQ(output.text(), "first second");
    EXPECT_EQ(notify->str(), "");
    EXPECT_TRUE(notify->popPrintSelection(Notify::Error));
}

TEST_F(NotifyTest, BreakOnErrorThrowsJustTheSame) {
    const StreamCapture output(std::cerr);
    notify->setThrowOnError(false);
    notify->setBreakOnError(true);
    EXPECT_FALSE(notify->getThrowOnError());
    EXPECT_TRUE(notify->getBreakOnError());
    EXPECT_EQ(thrownBy([this] { notify->error("x"); }), "x");
    EXPECT_EQ(output.text(), "");
}

TEST_F(NotifyTest, WithBothSwitchesOffAnErrorPrintsAndReturns) {
    LogCapture log;
    const StreamCapture output(std::cerr);
    notify->setThrowOnError(false);
    notify->setBreakOnError(false);
    notify->error("x");
    EXPECT_EQ(output.text(), "x");
    EXPECT_THAT(log.texts(), ElementsAre("x"));
    EXPECT_EQ(notify->str(), "");
}

TEST_F(NotifyTest, AMessageForTheLogOnlyReachesNobodyElse) {
    LogCapture log;
    std::ostringstream stream;
    notify->addStream(&stream, Notify::Debug);
    const StreamCapture output(std::cerr);
    notify->getThreadStringStream() << notify->setDebugStrings(Notify::Warning, "", -1, "")
                                    << notify->logOnly() << "secret";
    EXPECT_TRUE(notify->getToLogOnly());
    *notify << notify->end();
    EXPECT_FALSE(notify->getToLogOnly());
    EXPECT_EQ(output.text(), "");
    EXPECT_EQ(stream.str(), "");
    EXPECT_THAT(log.texts(), IsEmpty());
    notify->warning("open");
    EXPECT_THAT(log.texts(), ElementsAre("open"));
    notify->removeStream(&stream);
}

TEST_F(NotifyTest, AThreadsThresholdConcernsTheOutputStreamAlone) {
    LogCapture log;
    const StreamCapture output(std::cerr);
    notify->setNotifyLevel(Notify::Error);
    EXPECT_EQ(notify->getNotifyLevel(), Notify::Error);
    notify->warning("w");
    EXPECT_EQ(output.text(), "");
    EXPECT_THAT(log.texts(), ElementsAre("w"));
}

TEST_F(NotifyTest, TheStreamOfTheThreadCanBeReadSetAndCleared) {
    notify->str("abc");
    EXPECT_EQ(notify->str(), "abc");
    *notify << notify->clearString();
    EXPECT_EQ(notify->str(), "");
    notify->getThreadStringStream() << "x" << notify->clearString() << "y";
    EXPECT_EQ(notify->str(), "y");
    notify->getThreadStringStream().setstate(std::ios_base::failbit);
    notify->clear();
    EXPECT_TRUE(notify->getThreadStringStream().good());
    notify->str("");
    notify->setf(std::ios_base::boolalpha);
    notify->getThreadStringStream() << true;
    EXPECT_EQ(notify->str(), "true");
    *notify << std::endl;
    EXPECT_EQ(notify->str(), "true\n");
    *notify << notify->clearString();
}

TEST_F(NotifyTest, AFlushClearsTheErrorStateOfTheThreadsStream) {
    notify->getThreadStringStream().setstate(std::ios_base::failbit);
    *notify << notify->end();
    EXPECT_TRUE(notify->getThreadStringStream().good());
}

TEST_F(NotifyTest, TheLongFormsNoteThePlace) {
    notify->setThrowOnError(false);
    const StreamCapture output(std::cerr);
    notify->debug("a.cpp", 10, "f", "");
    EXPECT_EQ(Notify::getThreadData().file, "a.cpp");
    EXPECT_EQ(Notify::getThreadData().line, 10);
    EXPECT_EQ(Notify::getThreadData().function, "f");
    EXPECT_EQ(Notify::getThreadData().levelName, "Debug");
    notify->info("b.cpp", 11, "g", "i");
    EXPECT_EQ(Notify::getThreadData().levelName, "Info");
    notify->warning("c.cpp", 12, "h", "w");
    EXPECT_EQ(Notify::getThreadData().levelName, "Warning");
    notify->error("d.cpp", 13, "i", "e");
    EXPECT_EQ(Notify::getThreadData().levelName, "Error");
    EXPECT_EQ(Notify::getThreadData().line, 13);
    notify->info("short");
    EXPECT_EQ(Notify::getThreadData().file, "");
    EXPECT_EQ(Notify::getThreadData().line, -1);
}

TEST_F(NotifyTest, AnExceptionFromACallbackFreesTheLock) {
    struct Throwing : NotifyCallback {
        void message(const std::string&, int) override { throw std::logic_error("callback"); }
    };
    const ref_ptr<Throwing> callback(new Throwing);
    notify->addCallback(callback.get(), Notify::Debug);
    EXPECT_THROW(notify->debug("d"), std::logic_error);
    notify->removeCallback(callback.get());
    LogCapture log;
    notify->debug("e"); // would wait forever for a lock that is held
    EXPECT_THAT(log.texts(), ElementsAre("de"));
}

TEST_F(NotifyTest, TheStatementsStreamTheirTextAndEndTheLine) {
    LogCapture log;
    const StreamCapture output(std::cerr);
    const std::string text = "value ";
    ZEL_LOG_DEBUG(text << 1);
    ZEL_LOG_INFO(text << std::setw(3) << 2);
    ZEL_LOG_WARNING("pair " << std::pair<int, int>(3, 4).second);
    EXPECT_EQ(thrownBy([] { ZEL_LOG_ERROR("bad"); }), "bad\n");
    EXPECT_THAT(log.texts(), ElementsAre("value 1\n", "value   2\n", "pair 4\n", "bad\n"));
    EXPECT_THAT(log.levels(), ElementsAre(1, 2, 4, 8));
    EXPECT_EQ(Notify::getThreadData().line, -1);
}

TEST_F(NotifyTest, MacrosAreSingleStatements) {
    LogCapture log;
    if (log.texts().empty())
        ZEL_LOG_DEBUG("then");
    else
        ZEL_LOG_DEBUG("else");
    EXPECT_THAT(log.texts(), ElementsAre("then\n"));
}

TEST_F(NotifyTest, IsMadeAnewAfterShutdown) {
    ZEL_FIRST_LIFE_ONLY();
    notify->setThrowOnError(false);
    zelCore::shutdown();
    zelCore::init();
    EXPECT_TRUE(Notify::instance()->getThrowOnError());
}

TEST_F(NotifyTest, UnregisteredThreadsShareOneState) {
    const Notify::ThreadData* const own = &Notify::getThreadData();
    EXPECT_EQ(own, Thread::getCurrentThread()->getNotifyData());
    const Notify::ThreadData* shared = nullptr;
    std::thread([&shared] { shared = &Notify::getThreadData(); }).join();
    const Notify::ThreadData* again = nullptr;
    std::thread([&again] { again = &Notify::getThreadData(); }).join();
    EXPECT_NE(own, shared);
    EXPECT_EQ(shared, again);
}

TEST(NotifyStressTest, MessagesOfManyThreadsStayWhole) {
    zelCore::init();
    constexpr int Threads = 4;
    constexpr int Messages = 500;
    {
        const LogCapture log;
        const StreamCapture quiet(std::cerr);
        std::vector<std::thread> threads;
        for (int t = 0; t < Threads; ++t)
            threads.emplace_back([t] {
                Thread::registerAsZelThread();
                for (int i = 0; i < Messages; ++i)
                    ZEL_LOG_INFO("thread " << t << " message " << i);
                Thread::unregisterAsZelThread();
            });
        for (std::thread& thread : threads)
            thread.join();

        ASSERT_EQ(log.texts().size(), static_cast<size_t>(Threads * Messages));
        int next[Threads] = {};
        for (const std::string& text : log.texts()) {
            const int t = text.at(7) - '0';
            ASSERT_TRUE(t >= 0 && t < Threads);
            EXPECT_EQ(text, "thread " + std::to_string(t) + " message " + std::to_string(next[t]++) + "\n");
        }
        EXPECT_EQ(quiet.text().size(), log.text().size());
    }
    zelCore::shutdown();
}

TEST_F(NotifyTest, ATextThatLogsItselfKeepsItsLevelAndItsText) {
    const LogCapture log;
    const auto reason = [] {
        ZEL_LOG_DEBUG("looked");
        return "it is locked";
    };
    EXPECT_EQ(thrownBy([&] { ZEL_LOG_ERROR("cannot open: " << reason()); }), "cannot open: it is locked\n");
    EXPECT_THAT(log.texts(), ElementsAre("looked\n", "cannot open: it is locked\n"));
    EXPECT_THAT(log.levels(), ElementsAre(Notify::Debug, Notify::Error));
}

TEST_F(NotifyTest, AFormatEndsWithItsMessage) {
    const LogCapture log;
    ZEL_LOG_DEBUG(std::hex << std::setfill('_') << 255);
    ZEL_LOG_DEBUG(std::setw(4) << 255);
    notify->getThreadStringStream() << std::hex << 255 << notify->end();
    notify->getThreadStringStream() << 255 << notify->end();
    EXPECT_THAT(log.texts(), ElementsAre("ff\n", " 255\n", "ff", "255"));
}

TEST_F(NotifyTest, ATextThatThrowsLeavesNothingForTheNextMessage) {
    const LogCapture log;
    const auto fail = []() -> int { throw std::runtime_error("no number"); };
    EXPECT_EQ(thrownBy([&] { ZEL_LOG_DEBUG("the number is " << fail()); }), "no number");
    ZEL_LOG_DEBUG("next");
    EXPECT_THAT(log.texts(), ElementsAre("next\n"));
}
