// Recorders and their journals: series, going on, what is there already, and what can not be written.
#include "RunFixture.h"

#include <zelData/Replay.h>

#include <support/LogCapture.h>
#include <support/WhatOf.h>

#include <cstdio>
#include <string>

using testing::ElementsAre;
using testing::IsEmpty;
using zel::ref_ptr;
using zel::uint64;
using zelData::FileJournal;
using zelData::Recorder;
using zelData::Replay;
using zelTest::FileSizeLimit;
using zelTest::LogCapture;
using zelTest::StreamCapture;
using zelTest::whatOf;

namespace {

class RecorderJournalTest : public zelTest::RunFixture {
protected:
    [[nodiscard]] std::vector<uint64> indicesIn(const std::string& name) const {
        const ref_ptr<FileJournal> file(new FileJournal(directory.path(name)));
        std::vector<uint64> all;
        for (const auto& info : FileJournal::downcastSession(file->getSessions().front())->getFrameTable())
            all.push_back(info.index);
        return all;
    }
    [[nodiscard]] bool exists(const std::string& name) const {
        return std::filesystem::exists(directory.path(name));
    }
    void tick(int n) const {
        const StreamCapture quiet(std::cout);
        run->tick(n);
    }
    /// Goes on in the journal from a frame of it, in a run of its own.
    void resumeFrom(uint64 frame) {
        run = makeRun();
        ASSERT_TRUE(ref_ptr<Replay>(new Replay(path(), run->root.get()))->applyFrame(frame));
        recorder = new Recorder;
        recorder->setClock(run->clock.get());
        recorder->setRoot(run->root.get());
        recorder->setJournal(path());
        recorder->setResume(true);
        start();
    }
    [[nodiscard]] bool isKeyFrame(uint64 index) {
        open();
        return session->getFrameHeader(index).isKeyFrame;
    }
};

TEST_F(RecorderJournalTest, SeriesAreNamedByNumber) {
    EXPECT_EQ(Recorder::journalOf("run.journal", 0), "run.journal");
    EXPECT_EQ(Recorder::journalOf("run.journal", 1), "run-1.journal");
    EXPECT_EQ(Recorder::journalOf("a.b/run", 2), "a.b/run-2");
    EXPECT_EQ(Recorder::journalOf("a.b/.run", 3), "a.b/.run-3");
    EXPECT_EQ(Recorder::journalOf("a/run.1.journal", 12), "a/run.1-12.journal");
}

TEST_F(RecorderJournalTest, JournalsFollowEachOtherByTime) {
    prepare();
    recorder->setMaxJournalTime(0.3);
    start();
    tick(7);
    recorder->stop();
    EXPECT_EQ(recorder->getNumJournals(), 3U);
    EXPECT_EQ(recorder->getPresentJournal(), directory.path("run-2.journal"));
    EXPECT_THAT(indicesIn("run.journal"), ElementsAre(0, 1, 2));
    EXPECT_THAT(indicesIn("run-1.journal"), ElementsAre(3, 4, 5));
    EXPECT_THAT(indicesIn("run-2.journal"), ElementsAre(6, 7));
    EXPECT_FALSE(exists("run-3.journal"));
    // Each stands by itself.
    const auto fresh = makeRun();
    const ref_ptr<Replay> replay(new Replay(directory.path("run-2.journal"), fresh->root.get()));
    EXPECT_TRUE(replay->applyFrame(7));
    EXPECT_EQ(fresh->hash(), run->hash());
}

TEST_F(RecorderJournalTest, JournalsFollowEachOtherByBytes) {
    prepare();
    recorder->setMaxJournalBytes(1);
    start();
    tick(2);
    recorder->stop();
    for (const uint64 n : {0U, 1U, 2U})
        EXPECT_THAT(indicesIn(Recorder::journalOf("run.journal", n)), ElementsAre(n));
    EXPECT_EQ(recorder->getNumKeyFrames(), 3U);
}

TEST_F(RecorderJournalTest, JournalsThatAreThereAreRefused) {
    recordRun(2);
    const std::string before = bytes();
    EXPECT_EQ(whatOf([this] { recorder->start(); }), "Journal '" + path() + "' already contains a session!");
    EXPECT_FALSE(recorder->isRecording());
    EXPECT_TRUE(bytes() == before);
    // Also where they would come in the way later.
    std::filesystem::rename(path(), directory.path("run-1.journal"));
    recorder->setMaxJournalBytes(1000000);
    EXPECT_EQ(whatOf([this] { recorder->start(); }),
              "Journal '" + directory.path("run-1.journal") + "' already contains a session!");
    EXPECT_FALSE(exists("run.journal"));
}

TEST_F(RecorderJournalTest, ReplacingRemovesTheWholeSeries) {
    prepare();
    recorder->setMaxJournalBytes(1);
    start();
    tick(3);
    recorder->setReplace(true);
    recorder->setMaxJournalTime(1000);
    recorder->setMaxJournalBytes(0);
    start();
    tick(1);
    recorder->stop();
    EXPECT_THAT(indicesIn("run.journal"), ElementsAre(3, 4));
    EXPECT_FALSE(exists("run-1.journal"));
    EXPECT_FALSE(exists("run-2.journal"));
}

TEST_F(RecorderJournalTest, FilesThatAreNoJournalsStay) {
    prepare();
    putBytes("a letter to my aunt, which is no journal at all");
    recorder->setReplace(true);
    EXPECT_NE(whatOf([this] { recorder->start(); }), "no exception");
    EXPECT_EQ(bytes(), "a letter to my aunt, which is no journal at all");
}

TEST_F(RecorderJournalTest, ResumingGoesOnBehindTheLastFrame) {
    recordRun(5);
    const uint64 at5 = run->hash();
    run->tick(3);
    const uint64 at8 = run->hash();
    resumeFrom(5);
    EXPECT_EQ(run->hash(), at5);
    tick(3);
    EXPECT_EQ(run->hash(), at8);
    recorder->stop();
    EXPECT_THAT(indicesIn("run.journal"), ElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8));
    EXPECT_TRUE(isKeyFrame(5)); // where it has begun anew
    EXPECT_EQ(session->getLastFrameIndex(), 8U);
    const auto fresh = makeRun();
    const ref_ptr<Replay> replay(new Replay(path(), fresh->root.get()));
    EXPECT_TRUE(replay->applyFrame(8));
    EXPECT_EQ(fresh->hash(), at8);
}

TEST_F(RecorderJournalTest, ResumingInBetweenRecordsAnewFromThere) {
    recordRun(9);
    const uint64 at9 = run->hash();
    resumeFrom(4);
    tick(2);
    recorder->stop();
    EXPECT_THAT(indicesIn("run.journal"), ElementsAre(0, 1, 2, 3, 4, 5, 6));
    run->tick(3);
    EXPECT_EQ(run->hash(), at9);
}

TEST_F(RecorderJournalTest, ResumingTakesAJournalThatWasCutOff) {
    recordRun(6);
    const std::string whole = bytes();
    open();
    const uint64 cut = session->getFrameInfo(5)->headerOffset + 60;
    putBytes(whole.substr(0, cut));
    resumeFrom(4);
    tick(1);
    recorder->stop();
    EXPECT_THAT(indicesIn("run.journal"), ElementsAre(0, 1, 2, 3, 4, 5));
}

TEST_F(RecorderJournalTest, ResumingWithoutAJournalBeginsOne) {
    prepare();
    recorder->setResume(true);
    start();
    tick(1);
    recorder->stop();
    EXPECT_THAT(indicesIn("run.journal"), ElementsAre(0, 1));
}

TEST_F(RecorderJournalTest, ResumingAddsToTheComputationTime) {
    recordRun(3);
    open();
    session->setComputationTime(1000);
    session->writeHeader();
    resumeFrom(3);
    tick(1);
    recorder->stop();
    open();
    EXPECT_GT(session->getComputationTime(), 1000.0);
    EXPECT_LT(session->getComputationTime(), 2000.0);
}

TEST_F(RecorderJournalTest, ResumingGoesOnWithTheLastOfASeries) {
    prepare();
    recorder->setMaxJournalTime(0.2);
    start();
    tick(3);
    recorder->stop();
    EXPECT_THAT(indicesIn("run-1.journal"), ElementsAre(2, 3));
    recorder->setResume(true);
    start();
    tick(2);
    recorder->stop();
    EXPECT_THAT(indicesIn("run.journal"), ElementsAre(0, 1));
    EXPECT_THAT(indicesIn("run-1.journal"), ElementsAre(2, 3, 4));
    EXPECT_THAT(indicesIn("run-2.journal"), ElementsAre(5));
}

TEST_F(RecorderJournalTest, ResumingWhereItCanNotIsTold) {
    prepare();
    run->tick(4);
    start();
    tick(2);
    recorder->stop();
    const std::string before = bytes();
    recorder->setResume(true);
    recorder->setStride(2);
    EXPECT_EQ(whatOf([this] { recorder->start(); }),
              "Journal '" + path() + "' holds each 1. frame, and not each 2.");
    recorder->setStride(1);
    run->clock->reset();
    EXPECT_EQ(whatOf([this] { recorder->start(); }),
              "Journal '" + path() + "' begins with frame 4: it can not go on from frame 0.");
    EXPECT_FALSE(recorder->isRecording());
    EXPECT_TRUE(bytes() == before);
}

TEST_F(RecorderJournalTest, FullDisksEndTheRecordingWhileThereIsRoomToClose) {
    prepare();
    uint64 available = 1000000;
    zel::String asked;
    recorder->setMinFreeBytes(1000);
    recorder->setFreeSpace([&](const zel::String& file) {
        asked = file;
        return available;
    });
    start();
    tick(2);
    available = 999;
    const LogCapture log(zel::Notify::Warning);
    tick(1);
    EXPECT_EQ(asked, path());
    EXPECT_FALSE(recorder->isRecording());
    ASSERT_EQ(log.texts().size(), 1U);
    EXPECT_EQ(log.texts()[0], recorder->getMessage() + "\n");
    const std::string start =
        "The recording to '" + path() + "' has ended behind frame 2: the disk has 999 bytes left, and ";
    EXPECT_EQ(recorder->getMessage().substr(0, start.size()), start);
    EXPECT_TRUE(recorder->getMessage().ends_with(" are needed."));
    tick(2); // the run goes on
    EXPECT_EQ(log.texts().size(), 1U);
    EXPECT_THAT(indicesIn("run.journal"), ElementsAre(0, 1, 2));
    open();
    EXPECT_EQ(session->getLastFrameIndex(), 2U);
}

TEST_F(RecorderJournalTest, WhatCanNotBeWrittenIsToldOnceAndTheRunGoesOn) {
    prepare();
    recorder->setBudget(1); // so that the writer has failed when the next frame is due
    start();
    tick(2);
    std::filesystem::remove(path());
    const LogCapture log(zel::Notify::Warning);
    tick(20);
    EXPECT_FALSE(recorder->isRecording());
    EXPECT_EQ(run->clock->getFrame(), 22U);
    unsigned long long last = 0;
    ASSERT_EQ(std::sscanf(recorder->getMessage().c_str() + ("The recording to '" + path()).size(),
                          "' has ended behind frame %llu",
                          &last),
              1)
        << recorder->getMessage();
    EXPECT_EQ(recorder->getMessage(),
              "The recording to '" + path() + "' has ended behind frame " + std::to_string(last) +
                  ": FileFrameWriter: Could not write frame " + std::to_string(last + 1) + " to journal '" +
                  path() + "'. No such file or directory");
    EXPECT_EQ(std::count(log.texts().begin(), log.texts().end(), recorder->getMessage() + "\n"), 1);
}

TEST_F(RecorderJournalTest, FilesThatMayNotGrowKeepTheirFrames) {
    prepare();
    recorder->setBudget(1);
    start();
    tick(2);
    {
        const FileSizeLimit limit(std::filesystem::file_size(path()) + 10);
        tick(20);
    }
    EXPECT_FALSE(recorder->isRecording());
    EXPECT_NE(recorder->getMessage().find("File too large"), std::string::npos) << recorder->getMessage();
    EXPECT_GE(readAll(), 1U);
}

TEST_F(RecorderJournalTest, FoldersThatLackAreTold) {
    prepare();
    recorder->setJournal(directory.path("lacking/run.journal"));
    EXPECT_NE(whatOf([this] { start(); }), "no exception");
    EXPECT_FALSE(recorder->isRecording());
    tick(1);
}

} // namespace
