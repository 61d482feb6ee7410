#include "RunFixture.h"

#include <zelCore/Version.h>
#include <zelData/JournalCheck.h>

#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>
#include <support/LogCapture.h>
#include <support/WhatOf.h>

#include <algorithm>

using testing::ElementsAre;
using testing::IsEmpty;
using zel::ref_ptr;
using zel::uint64;
using zelData::Recorder;
using zelTest::LogCapture;
using zelTest::whatOf;

namespace {

class RecorderTest : public zelTest::RunFixture {
protected:
    [[nodiscard]] std::vector<uint64> recorded() {
        open();
        return indicesInTable();
    }
    [[nodiscard]] Json::Value scene() {
        open();
        std::stringstream text;
        EXPECT_TRUE(session->unpackSceneData(text));
        Json::Value value;
        text >> value;
        return value;
    }
};

TEST_F(RecorderTest, FrameZeroIsTheInitialStateAndEachTickAddsOne) {
    recordRun(3);
    EXPECT_THAT(recorded(), ElementsAre(0, 1, 2, 3));
    EXPECT_EQ(session->getLastFrameIndex(), 3U); // closed
    EXPECT_EQ(session->getTimeStep(), run->clock->getTimeStep());
    beginReading();
    EXPECT_EQ(contentOf(read(0)->findObject("position")), 1.0);
    EXPECT_EQ(contentOf(read(3)->findObject("position")), run->position->get());
    EXPECT_EQ(read(3)->getTimeStamp(), run->clock->getTime());
    EXPECT_EQ(recorder->getNumFrames(), 4U);
    EXPECT_EQ(recorder->getNumKeyFrames(), 1U);
    EXPECT_EQ(recorder->getNumJournals(), 1U);
    EXPECT_GT(recorder->getNumBytes(), 0U);
    EXPECT_GT(recorder->getCaptureSeconds(), 0.0);
    EXPECT_EQ(recorder->getMessage(), "");
    EXPECT_FALSE(recorder->isRecording());
}

TEST_F(RecorderTest, ChecksumsAreThoseOfTheJournalThatIsThere) {
    for (const bool flag : {true, false}) {
        prepare();
        recorder->setReplace(true);
        recorder->setChecksums(flag);
        start();
        run->tick(3);
        recorder->stop();
        const zelData::JournalReport report = zelData::verifyJournal(path());
        EXPECT_TRUE(report.isWhole());
        EXPECT_EQ(report.numFrames, 4U);
        EXPECT_EQ(report.totals.numSums, flag ? 4U : 0U);
    }
}

TEST_F(RecorderTest, OneLineRecordsWhatLiesBelowAComponent) {
    run = makeRun();
    {
        const zelTest::StreamCapture quiet(std::cout);
        const ref_ptr<Recorder> line = Recorder::record(run->clock.get(), path(), run->root.get());
        run->tick(2);
    } // ends with its object
    EXPECT_THAT(recorded(), ElementsAre(0, 1, 2));
    EXPECT_EQ(session->getLastFrameIndex(), 2U);
}

TEST_F(RecorderTest, NothingIsRecordedBehindTheStop) {
    recordRun(2);
    run->tick(2);
    EXPECT_THAT(recorded(), ElementsAre(0, 1, 2));
    recorder->stop(); // once more
}

TEST_F(RecorderTest, StridesTakeTheMultiples) {
    prepare();
    run->tick(1);
    recorder->setStride(3);
    start();
    run->tick(9);
    recorder->stop();
    EXPECT_THAT(recorded(), ElementsAre(3, 6, 9));
    EXPECT_EQ(session->getFrameStride(), 3U);
}

TEST_F(RecorderTest, KeyFramesComeInTheirInterval) {
    prepare();
    recorder->setKeyFrameInterval(4);
    start();
    run->tick(5);
    recorder->stop();
    open();
    std::vector<uint64> keyFrames;
    for (const auto& info : session->getFrameTable())
        if (info.meta.isKeyFrame != 0)
            keyFrames.push_back(info.index);
    EXPECT_THAT(keyFrames, ElementsAre(0, 4));
    EXPECT_EQ(recorder->getNumKeyFrames(), 2U);
}

TEST_F(RecorderTest, TimeWindowsIncludeBothEndsAndCloseTheJournal) {
    prepare();
    recorder->setTimeWindow(0.3, 0.6); // 0.1 three times is more than 0.3
    start();
    EXPECT_EQ(recorder->getNumFrames(), 0U);
    run->tick(7);
    EXPECT_FALSE(recorder->isRecording());
    EXPECT_EQ(recorder->getMessage(), "");
    run->tick(2);
    EXPECT_THAT(recorded(), ElementsAre(3, 4, 5, 6));
    EXPECT_EQ(session->getLastFrameIndex(), 6U);
}

TEST_F(RecorderTest, AConditionIsAskedForEachFrame) {
    prepare();
    recorder->setCondition(zel::Path("condition"));
    run->condition->set(false);
    start();
    run->tick(2);
    run->condition->set(true);
    run->tick(2);
    run->condition->set(false);
    run->tick(2);
    run->condition->set(true);
    run->tick(1);
    recorder->stop();
    EXPECT_THAT(recorded(), ElementsAre(3, 4, 7));
    beginReading();
    EXPECT_TRUE(reader->jumpToFrame(7)); // what has changed in the gap is told, too
    EXPECT_EQ(contentOf(read()->findObject("position")), run->position->get());
}

TEST_F(RecorderTest, BindingsSayWhatIsTaken) {
    prepare();
    recorder->addDataBinding(zel::Path("position"), zel::Path("shown.x"), false);
    start();
    run->tick(1);
    recorder->stop();
    open();
    beginReading();
    const ref_ptr<zelData::Frame> frame = read(0);
    EXPECT_EQ(contentOf(frame->getResource(zel::Path("shown.x"))), 1.0);
    EXPECT_EQ(frame->findObject("planets"), nullptr);
    // Generators are no matter of choice: nobody goes on without them.
    EXPECT_NE(frame->getBuffer(zel::Path("random.state")), nullptr);
}

TEST_F(RecorderTest, BudgetsDropNoFrame) {
    prepare();
    recorder->setBudget(1);
    start();
    run->tick(50);
    recorder->stop();
    EXPECT_EQ(recorded().size(), 51U);
    EXPECT_EQ(recorder->getNumFrames(), 51U);
    EXPECT_GE(recorder->getWaitedSeconds(), 0.0);
}

TEST_F(RecorderTest, SyncedFramesAreAllThere) {
    prepare();
    recorder->setSync(true);
    start();
    run->tick(3);
    recorder->stop();
    EXPECT_EQ(recorder->getMessage(), "");
    EXPECT_THAT(recorded(), ElementsAre(0, 1, 2, 3));
}

TEST_F(RecorderTest, CaptureEventsComeAheadOfEachCapture) {
    prepare();
    int calls = 0;
    recorder->captureEvent.connect([&](Recorder*) { run->position->set(1000.0 + ++calls); });
    start();
    run->tick(1);
    recorder->stop();
    open();
    beginReading();
    EXPECT_EQ(contentOf(read(0)->findObject("position")), 1001.0);
    EXPECT_EQ(contentOf(read(1)->findObject("position")), 1002.0);
}

TEST_F(RecorderTest, OmissionsAreListedAtTheStart) {
    prepare();
    const auto dotted = ref_ptr<zelData::Value>(new zelData::ValueT<double>("a.b", 1));
    run->root->addObject(dotted.get());
    const LogCapture log(zel::Notify::Warning);
    start();
    EXPECT_THAT(recorder->getOmissions(), ElementsAre("'a.b' is not recorded: its name holds a '.'"));
    run->tick(3);
    EXPECT_EQ(
        std::count(log.texts().begin(), log.texts().end(), "'a.b' is not recorded: its name holds a '.'\n"),
        1);
}

TEST_F(RecorderTest, ScenesHoldWhatMakesTheRunRepeatable) {
    recordRun(1);
    const Json::Value value = scene();
    EXPECT_EQ(value["library"]["version"].asString(), zelCore::zelGetVersion(true));
    EXPECT_EQ(value["library"]["build"].asString(), zelCore::zelGetBuildType());
    EXPECT_NE(value["commandLine"][0].asString().find("framesTests"), std::string::npos);
    EXPECT_EQ(value["seeds"]["random"].asUInt64(), 7U);
    EXPECT_TRUE(value["plugins"].isArray());
    EXPECT_TRUE(value["models"].isArray());
}

TEST_F(RecorderTest, SessionsTellDateAndComputationTime) {
    recordRun(3);
    open();
    EXPECT_GT(session->getComputationTime(), 0.0);
    EXPECT_NE(headerText().find("<computationTime>"), std::string::npos) << headerText();
}

TEST_F(RecorderTest, WhatLacksIsTold) {
    recorder = new Recorder("r");
    EXPECT_EQ(whatOf([this] { recorder->start(); }), "r: A recorder needs a clock.");
    run = makeRun();
    recorder->setClock(run->clock.get());
    EXPECT_EQ(whatOf([this] { recorder->start(); }), "r: A recorder needs the name of a journal.");
    recorder->setJournal(path());
    recorder->setRoot(run->root.get());
    for (const char* condition : {"lacking", "position", "planets"}) {
        recorder->setCondition(zel::Path(condition));
        EXPECT_EQ(whatOf([this] { recorder->start(); }),
                  std::string("r: The condition '") + condition + "' is no value of the type Bool.");
        EXPECT_FALSE(recorder->isRecording());
    }
    EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(RecorderTest, MisuseEndsTheProcess) {
    prepare();
    start();
    EXPECT_DEATH(recorder->setStride(0), "zelVerify failed: `stride > 0'");
    EXPECT_DEATH(recorder->setClock(run->slave.get()), "Recorder: The clock of a recording can not change");
}

TEST_F(RecorderTest, RecordersEndWithTheTreeThatTheyStandIn) {
    run = makeRun();
    recorder = new Recorder("inside");
    recorder->setClock(run->clock.get());
    recorder->setJournal(path());
    run->root->addObject(recorder.get()); // which is the root without another one
    start();
    run->tick(2);
    run->root->removeObject(recorder.get());
    EXPECT_FALSE(recorder->isRecording());
    EXPECT_THAT(recorded(), ElementsAre(0, 1, 2));
    EXPECT_EQ(session->getLastFrameIndex(), 2U);

    std::filesystem::remove(path());
    run->root->addObject(recorder.get());
    start();
    run->tick(1);
    const zel::observer_ptr<zel::Component> root(run->root.get());
    recorder = nullptr;
    run = nullptr;
    EXPECT_FALSE(root); // nobody keeps it
    EXPECT_THAT(recorded(), ElementsAre(2, 3));
    EXPECT_EQ(session->getLastFrameIndex(), 3U);
}

TEST_F(RecorderTest, ClocksAndRootsMayGo) {
    prepare();
    start();
    run->tick(1);
    run = nullptr; // the recorder keeps the root
    recorder->stop();
    EXPECT_THAT(recorded(), ElementsAre(0, 1));
    EXPECT_EQ(session->getLastFrameIndex(), 1U);
}

TEST_F(RecorderTest, CallbacksOfTheClockMayLetGoOfTheRecorder) {
    prepare();
    start();
    run->clock->postTick.connect([this](zel::Clock*) { recorder = nullptr; });
    run->tick(3);
    EXPECT_THAT(recorded(), ElementsAre(0, 1));
    EXPECT_EQ(session->getLastFrameIndex(), 1U);
}

} // namespace
