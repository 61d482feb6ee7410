#include "JournalFixture.h"

#include <zelCore/Version.h>
#include <zelNet/StructuredMessage.h>

#include <json/value.h>
#include <support/Golden.h>

#include <cstdlib>
#include <ctime>

// A journal that stays as it is, for files are read for years. tests/golden/journal.py makes it by hand.

using zel::ref_ptr;
using zel::uint64;
using zelData::BinaryData;
using zelData::Frame;
using zelNet::StructuredMessage;

namespace {

class FileJournalGoldenTest : public zelTest::JournalFixture {
protected:
    void SetUp() override {
        // The header tells the date in the local time as well.
        setenv("TZ", "UTC", 1); // NOLINT: no other thread runs
        tzset();
        JournalFixture::SetUp();
    }
    template <typename Node>
    static ref_ptr<Node> withId(ref_ptr<Node> node, zel::uint32 id) {
        node->setId(id);
        return node;
    }
};

TEST_F(FileJournalGoldenTest, AJournalIsWrittenAsTold) {
    const zelTest::StreamCapture quiet(std::cout);
    journal = new zelData::FileJournal(path());
    session = journal->createNewFileSession("golden");
    session->setDate(zel::Date(1234567890, 125));
    session->setZelVersionString("2.40.0.0");
    session->setZelVersionNumber(36175872);
    session->setComputationTime(0.25);
    session->recordExtraData("author", "me");
    std::istringstream scene("scene");
    session->packSceneData(scene);
    beginWriting();
    const ref_ptr<Frame> key(new Frame(3, 1.5, 0.5));
    key->setId(7);
    key->setKeyFrame(true);
    key->addValue(withId(real("t", 2), 10).get(), "t");
    writer->writeFrame(key.get());
    const ref_ptr<Frame> increment(new Frame(4, 2, 0.5));
    increment->setId(8);
    increment->addValue(withId(real("t", 3), 10).get(), "t");
    increment->addBuffer(withId(makeBuffer<zel::uint8>("b", "UInt:8bit", {5}), 11).get(), "b");
    writer->writeFrame(increment.get());
    writer->endOfStream();
    Json::Value header(Json::objectValue);
    header["name"] = "p";
    header["id"] = 1;
    const ref_ptr<BinaryData> data(BinaryData::copy("xyz", 3));
    session->savePlot(ref_ptr<StructuredMessage>(new StructuredMessage("", header, data.get())).get());

    std::string expected = zelTest::readListing("journal.hex");
    put<uint64>(expected, 10, ZEL_GET_VERSION()); // of the library that writes
    EXPECT_TRUE(bytes() == expected);
    EXPECT_EQ(headerText(), expected.substr(34, at<uint64>(expected, 26)));
    EXPECT_EQ(bytes().size(), expected.size());
}

TEST_F(FileJournalGoldenTest, AJournalIsReadAsTold) {
    putBytes(zelTest::readListing("journal.hex"));
    open();
    EXPECT_EQ(session->getName(), "golden");
    EXPECT_EQ(session->getDate(), zel::Date(1234567890, 125));
    EXPECT_EQ(session->getZelVersionString(), "2.40.0.0");
    EXPECT_EQ(session->getZelVersionNumber(), 36175872U);
    EXPECT_EQ(session->getTimeStep(), 0.5);
    EXPECT_EQ(session->getNumFrames(), 2U);
    EXPECT_EQ(session->getFirstFrameIndex(), 3U);
    EXPECT_EQ(session->getLastFrameIndex(), 4U);
    EXPECT_EQ(session->getFirstFrameTimeStamp(), 1.5);
    EXPECT_EQ(session->getLastFrameTimeStamp(), 2.0);
    EXPECT_EQ(session->getComputationTime(), 0.25);
    EXPECT_EQ(session->retrieveExtraData("author"), "me");
    std::stringstream scene;
    EXPECT_TRUE(session->unpackSceneData(scene));
    EXPECT_EQ(scene.str(), "scene");
    const ref_ptr<StructuredMessage> plot(session->getPlot("p"));
    ASSERT_TRUE(plot);
    EXPECT_EQ(std::as_const(*plot).getHeader()["id"], 1);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(plot->getBinarySegment()->getData()), 3), "xyz");
    beginReading();
    const auto key = read();
    EXPECT_EQ(key->getIndex(), 3U);
    EXPECT_EQ(key->getTimeStamp(), 1.5);
    EXPECT_EQ(key->getId(), 7U);
    EXPECT_TRUE(key->isKeyFrame());
    EXPECT_EQ(contentOf(key->findObject("t")), 2.0);
    EXPECT_EQ(key->findObject("t")->getId(), 10U);
    reader->advanceToNextFrame();
    const auto increment = read();
    EXPECT_EQ(increment->getIndex(), 4U);
    EXPECT_FALSE(increment->isKeyFrame());
    EXPECT_EQ(contentOf(increment->findObject("t")), 3.0);
    EXPECT_EQ(zelTest::elementsOf<zel::uint8>(increment->getBuffer("b")), (std::vector<zel::uint8>{5}));
}

} // namespace
