#include "DamageFixture.h"

#include <zel/Notify.h>
#include <zelCore/Version.h>
#include <zelData/JournalRecovery.h>

#include <numeric>

using zel::uint64;
using zelData::cutJournal;
using zelData::PlainJournal;
using zelData::recoverJournal;
using zelData::RecoveryReport;
using zelTest::whatOf;

namespace {

class JournalRecoveryTest : public zelTest::DamageFixture {
protected:
    void SetUp() override {
        DamageFixture::SetUp();
        zel::Notify::instance()->setNotifyLevel(zel::Notify::Error);
    }
    RecoveryReport recover() {
        std::filesystem::remove(newPath());
        return recoverJournal(path(), newPath());
    }
    /// Recovers, and compares what came back with these frames.
    RecoveryReport expectRecovered(const std::vector<zel::size_t>& places) {
        RecoveryReport report = recover();
        EXPECT_TRUE(report.check.isWhole());
        EXPECT_EQ(report.frames, indicesOf(places));
        expectRecorded(newPath(), places);
        return report;
    }
    std::vector<uint64> indicesOf(const std::vector<zel::size_t>& places) const {
        std::vector<uint64> all;
        for (const zel::size_t place : places)
            all.push_back(table[place].index);
        return all;
    }
    static std::vector<zel::size_t> upTo(zel::size_t count) {
        std::vector<zel::size_t> places(count);
        std::iota(places.begin(), places.end(), zel::size_t{0});
        return places;
    }
    static std::vector<zel::size_t> without(zel::size_t count, std::initializer_list<zel::size_t> missing) {
        std::vector<zel::size_t> places = upTo(count);
        for (const zel::size_t place : missing)
            std::erase(places, place);
        return places;
    }
    void flip(uint64 offset) {
        std::string content = bytes();
        content[offset] = static_cast<char>(content[offset] ^ 0x20);
        putBytes(content);
    }
};

TEST_F(JournalRecoveryTest, AWholeJournalComesBackAsItIs) {
    recordModel(10, true, false, "a scene");
    const RecoveryReport report = expectRecovered(upTo(10));
    EXPECT_TRUE(report.hasSession);
    EXPECT_TRUE(report.faults.empty());
    EXPECT_TRUE(report.gaps.empty());
    EXPECT_TRUE(report.missingFrames.empty());
    EXPECT_TRUE(zelTest::DamageFixture::bytes() == whole);
    // All of it: the new file is the old one.
    EXPECT_TRUE(directory.read("new.journal") == whole);
}

TEST_F(JournalRecoveryTest, AJournalThatIsCutAnywhereInItsLastFramesKeepsThoseAhead) {
    for (const bool isClosed : {true, false}) {
        recordModel(7, isClosed);
        for (uint64 size = table[4].headerOffset; size < whole.size(); ++size) {
            putBytes(whole.substr(0, size));
            zel::size_t count = 4;
            while (count < 7 && endOf(count) <= size)
                ++count;
            const RecoveryReport report = recover();
            ASSERT_EQ(report.frames, indicesOf(upTo(count))) << size;
            ASSERT_TRUE(report.check.isWhole());
            expectRecorded(newPath(), upTo(count));
            const uint64 end = count == 0 ? FirstFrame : endOf(count - 1);
            if (end != size) {
                ASSERT_EQ(report.gaps.size(), 1U) << size;
                ASSERT_EQ(report.gaps[0].begin, end);
                ASSERT_EQ(report.gaps[0].end, size);
            }
        }
    }
}

TEST_F(JournalRecoveryTest, ADamagedFrameEndsItsGroup) {
    recordModel(12);
    flip(table[5].headerOffset + 48); // the end tag of its record
    const RecoveryReport report = expectRecovered(without(12, {5, 6, 7}));
    ASSERT_EQ(report.missingFrames.size(), 2U); // no record of frame 5 was found
    EXPECT_EQ(report.missingFrames[0].index, table[6].index);
    EXPECT_EQ(report.missingFrames[0].reason, "it builds on frames that are gone");
    EXPECT_EQ(report.missingFrames[1].offset, table[7].headerOffset);
    ASSERT_EQ(report.gaps.size(), 2U);
    EXPECT_EQ(report.gaps[0].begin, table[5].headerOffset);
    EXPECT_EQ(report.gaps[0].end, table[6].headerOffset);
    EXPECT_EQ(report.gaps[1].end, table[8].headerOffset);
    ASSERT_EQ(report.faults.size(), 1U);
    EXPECT_EQ(report.faults[0].text, "the file is no record of a frame");
}

TEST_F(JournalRecoveryTest, OfAnOldVersionIsWholeAllTheSame) {
    recordModel(12);
    replaceElement("versionNumber", std::to_string(ZEL_CALC_VERSION(2, 6, 0, 0)));
    flip(table[5].headerOffset + 48);
    expectRecovered(without(12, {5, 6, 7}));
}

TEST_F(JournalRecoveryTest, SizesThatLieLeadToTheNextFrame) {
    for (const uint64 field : {32U, 40U})
        for (const uint64 add : {uint64{8}, uint64{1000}, ~uint64{0} - 500}) {
            recordModel(12);
            std::string content = whole;
            const uint64 offset = table[5].headerOffset + field;
            put<uint64>(content, offset, at<uint64>(content, offset) + add);
            putBytes(content);
            const RecoveryReport report = expectRecovered(without(12, {5, 6, 7}));
            ASSERT_EQ(report.missingFrames.size(), 3U) << field << ' ' << add;
            EXPECT_EQ(report.missingFrames[0].index, table[5].index);
        }
}

TEST_F(JournalRecoveryTest, AnIndexThatLiesIsFound) {
    for (const uint64 index : {uint64{0}, uint64{1} << 40}) {
        recordModel(12);
        std::string content = whole;
        put<uint64>(content, table[5].headerOffset, index);
        putBytes(content);
        const RecoveryReport report = expectRecovered(without(12, {5, 6, 7}));
        EXPECT_EQ(report.faults.size(), 1U);
        EXPECT_EQ(report.faults[0].text,
                  "the frame has the index " + std::to_string(index) +
                      ", and its index does not stand between those of its neighbours");
    }
}

TEST_F(JournalRecoveryTest, FramesAreFoundBehindAHeaderThatIsGone) {
    recordModel(6);
    putBytes(std::string(FirstFrame, '\0') + whole.substr(FirstFrame));
    const RecoveryReport report = expectRecovered(upTo(6));
    EXPECT_FALSE(report.hasSession);
    EXPECT_EQ(report.faults[0].text, "the file does not begin as a journal");
    session = nullptr;
    journal = new FileJournal(newPath());
    session = FileJournal::downcastSession(journal->getSessions().front());
    EXPECT_EQ(session->getName().str(), "recovered");
    EXPECT_EQ(indicesInTable(), indicesOf(upTo(6)));
}

TEST_F(JournalRecoveryTest, ElementsThatWereChangedAreFoundByTheirChecksums) {
    recordModel(8, true, true);
    flip(table[2].dataOffset);
    const RecoveryReport report = expectRecovered(without(8, {2, 3}));
    EXPECT_EQ(report.faults[0].text, "the checksum of the data differs");
    std::filesystem::remove(path() + ".sums");
    EXPECT_TRUE(recover().faults.empty()); // nobody can know
}

TEST_F(JournalRecoveryTest, TheSessionsDataComeAlong) {
    recordModel(5, true, false, "a scene");
    open();
    session->recordExtraData("key", "value");
    session->recordExtraData("a", "b");
    session->setComputationTime(12.5);
    session->writeHeader();
    whole = bytes();
    (void)expectRecovered(upTo(5));
    const zel::ref_ptr<FileJournal> copy(new FileJournal(newPath()));
    auto* copied = FileJournal::downcastSession(copy->getSessions().front());
    EXPECT_EQ(copied->getName().str(), "run");
    EXPECT_EQ(copied->retrieveExtraData("key"), "value");
    zel::Vector<zel::String> keysOfData;
    copied->getExtraDataKeys(keysOfData);
    ASSERT_EQ(keysOfData.size(), 2U);
    EXPECT_EQ(keysOfData[0], "a");
    EXPECT_EQ(keysOfData[1], "key");
    EXPECT_EQ(copied->getComputationTime(), 12.5);
    EXPECT_EQ(copied->getTimeStep(), session->getTimeStep());
    std::ostringstream scene;
    EXPECT_TRUE(copied->unpackSceneData(scene));
    EXPECT_EQ(scene.str(), "a scene");
}

TEST_F(JournalRecoveryTest, AHeaderThatDoesNotFitAgainIsLeftOut) {
    recordModel(5);
    const zel::size_t room = 10240 - headerText().size() - std::string("<Huge></Huge>").size();
    replaceInHeader("</Session>", "<Huge>" + std::string(room, 'x') + "</Huge></Session>");
    whole = bytes();
    const RecoveryReport report = expectRecovered(upTo(5));
    EXPECT_FALSE(report.hasSession);
    EXPECT_NE(whatOf([&] {
                  cutJournal(path(), directory.path("cut.journal"), 0, 3);
              }).find("FileJournal: the session 'run' does not fit into the session header of journal"),
              std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(directory.path("cut.journal")));
}

TEST_F(JournalRecoveryTest, WhatCannotBeRecoveredLeavesNothingBehind) {
    putBytes(std::string(50000, 'x'));
    EXPECT_EQ(whatOf([&] { (void)recover(); }), "No frame of '" + path() + "' can be read.");
    EXPECT_FALSE(std::filesystem::exists(newPath()));
    recordModel(2);
    directory.write("new.journal", "mine");
    EXPECT_EQ(whatOf([&] { recoverJournal(path(), newPath()); }),
              "There is a file '" + newPath() + "' already.");
    EXPECT_EQ(directory.read("new.journal"), "mine");
}

TEST_F(JournalRecoveryTest, ACutBeginsWithAKeyFrame) {
    recordModel(12);
    for (const auto& [first, last] :
         std::vector<std::pair<zel::size_t, zel::size_t>>{{0, 11}, {5, 9}, {4, 4}, {7, 11}}) {
        std::filesystem::remove(newPath());
        EXPECT_EQ(cutJournal(path(), newPath(), table[first].index, table[last].index), last - first + 1);
        const zel::ref_ptr<FileJournal> copy(new FileJournal(newPath()));
        auto* copied = FileJournal::downcastSession(copy->getSessions().front());
        const zel::ref_ptr<FileFrameReader> frames(new FileFrameReader(copied));
        ASSERT_EQ(copied->getFrameTable().size(), last - first + 1);
        EXPECT_EQ(copied->getFrameTable()[0].meta.isKeyFrame, 1);
        EXPECT_TRUE(zelData::verifyJournal(newPath()).isWhole());
        for (zel::size_t i = first; i <= last; ++i) {
            frames->jumpToFrame(table[i].index);
            expectState(zel::ref_ptr<zelData::Frame>(frames->readFrame()).get(), between(0, i), "cut");
        }
    }
    std::filesystem::remove(newPath());
    EXPECT_EQ(whatOf([&] { cutJournal(path(), newPath(), 1000, 2000); }),
              "'" + path() + "' has no frame from 1000 to 2000.");
    EXPECT_FALSE(std::filesystem::exists(newPath()));
}

} // namespace
