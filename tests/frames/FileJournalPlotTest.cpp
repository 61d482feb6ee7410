#include "JournalFixture.h"

#include <zelNet/StructuredMessage.h>

#include <json/value.h>
#include <support/CommaStreams.h>

#include <filesystem>

// Plots, and how they share the end of the file with frames.

using zel::ref_ptr;
using zel::uint64;
using zelData::BinaryData;
using zelData::FileJournal;
using zelNet::StructuredMessage;
using zelTest::whatOf;

namespace {

class FileJournalPlotTest : public zelTest::JournalFixture {
protected:
    static ref_ptr<StructuredMessage> plot(const std::string& name, int id, const std::string& data = "") {
        Json::Value header(Json::objectValue);
        header["name"] = name;
        header["id"] = id;
        const ref_ptr<BinaryData> bytes(data.empty() ? nullptr : BinaryData::copy(data.data(), data.size()));
        return ref_ptr<StructuredMessage>(new StructuredMessage("", header, bytes.get()));
    }
    void save(const std::string& name, int id, const std::string& data = "") {
        session->savePlot(plot(name, id, data).get());
    }
    void expectPlot(const std::string& name, int id, const std::string& data = "") {
        const ref_ptr<StructuredMessage> found(session->getPlot(name));
        ASSERT_TRUE(found) << name;
        EXPECT_EQ(std::as_const(*found).getHeader(), std::as_const(*plot(name, id)).getHeader());
        const BinaryData* segment = found->getBinarySegment();
        EXPECT_EQ(segment == nullptr
                      ? std::string()
                      : std::string(reinterpret_cast<const char*>(segment->getData()), segment->getSize()),
                  data);
        EXPECT_EQ(segment == nullptr, data.empty());
    }
    /// Of the only plot, in the header of the file.
    void putAttribute(const std::string& name, const std::string& value) const {
        const std::string all = headerText();
        const auto begin = all.find(" " + name + "=\"") + 1;
        replaceInHeader(all.substr(begin, all.find('"', begin + name.size() + 2) + 1 - begin),
                        name + "=\"" + value + "\"");
    }
    std::vector<std::string> names() const {
        zel::Vector<zel::String> list;
        session->getPlotList(list);
        return {list.begin(), list.end()};
    }
    using Names = std::vector<std::string>;
};
using FileJournalPlotDeathTest = FileJournalPlotTest;

TEST_F(FileJournalPlotTest, PlotsComeBack) {
    record(2);
    const uint64 end = bytes().size();
    save("first", 2, std::string("\0\1\2", 3));
    save("a 'second' <one>", 1);
    const std::string text = "{\n   \"id\" : 2,\n   \"name\" : \"first\"\n}\n";
    EXPECT_EQ(bytes().substr(end, text.size() + 3), text + std::string("\0\1\2", 3));
    const std::string element = "<Plot name=\"first\" offset=\"" + std::to_string(end) + "\" headerSize=\"" +
                                std::to_string(text.size()) + "\" dataSize=\"3\" />";
    EXPECT_NE(bytes().find(element), std::string::npos);
    const zelTest::LogCapture log;
    open();
    EXPECT_EQ(log.text(), ""); // the frames end ahead of them
    EXPECT_EQ(session->getNumFrames(), 2U);
    EXPECT_EQ(names(), (Names{"first", "a 'second' <one>"}));
    expectPlot("first", 2, std::string("\0\1\2", 3));
    expectPlot("a 'second' <one>", 1);
    EXPECT_EQ(session->getPlot("third"), nullptr);
    zel::Vector<ref_ptr<StructuredMessage>> all;
    session->getAllPlots(all);
    ASSERT_EQ(all.size(), 2U);
    EXPECT_EQ(std::as_const(*all[0]).getHeader()["id"], 1);
    EXPECT_EQ(std::as_const(*all[1]).getHeader()["id"], 2);
}

TEST_F(FileJournalPlotTest, PlotsComeBackWhateverTheStreamsOfTheProgramTakeForAPoint) {
    record(1);
    const ref_ptr<StructuredMessage> message = plot("p", 1);
    message->getHeader()["scale"] = 12345.5;
    session->savePlot(message.get());
    const zelTest::CommaStreams comma;
    const ref_ptr<StructuredMessage> found(session->getPlot("p"));
    ASSERT_TRUE(found);
    EXPECT_EQ(found->getHeader()["scale"].asDouble(), 12345.5);
}

TEST_F(FileJournalPlotTest, APlotTakesThePlaceOfOneOfItsName) {
    record(1);
    save("p", 1, "old");
    const auto size = bytes().size();
    save("p", 2, "new");
    EXPECT_GT(bytes().size(), size); // the bytes stay
    open();
    EXPECT_EQ(names(), (Names{"p"}));
    expectPlot("p", 2, "new");
    EXPECT_TRUE(session->removePlot("p"));
    EXPECT_FALSE(session->removePlot("p"));
    EXPECT_EQ(session->getPlot("p"), nullptr);
    session->writeHeader();
    open();
    EXPECT_EQ(names(), Names());
}

TEST_F(FileJournalPlotDeathTest, APlotHasAName) {
    record(1);
    Json::Value header(Json::objectValue);
    header["id"] = 5;
    const ref_ptr<StructuredMessage> message(new StructuredMessage("", header, nullptr));
    EXPECT_DEATH(session->savePlot(message.get()),
                 "\"id\" : 5(.|\n)*zelVerify failed: `ePlot.hasMember\\(\"name\"\\)'");
}

TEST_F(FileJournalPlotTest, APlotThatDoesNotFitIntoTheHeaderIsRefused) {
    record(1);
    save("p", 1);
    const std::string before = bytes();
    EXPECT_NE(whatOf([&] { save(std::string(10240, 'n'), 2); }).find("does not fit into the session header"),
              std::string::npos);
    EXPECT_TRUE(bytes() == before);
    EXPECT_EQ(names(), (Names{"p"}));
}

TEST_F(FileJournalPlotTest, APlotThatCannotBeWrittenLeavesNothing) {
    record(1);
    save("p", 1, "old");
    const std::string before = bytes();
    {
        const zelTest::FileSizeLimit limit(before.size() + 10);
        EXPECT_EQ(whatOf([&] { save("p", 2, "new"); }), "Could not write plot data to '" + path() + "'.");
        EXPECT_EQ(whatOf([&] { save("q", 2, "new"); }), "Could not write plot data to '" + path() + "'.");
    }
    EXPECT_TRUE(bytes() == before);
    expectPlot("p", 1, "old");
    EXPECT_EQ(names(), (Names{"p"}));
    std::filesystem::remove(path());
    EXPECT_EQ(whatOf([&] { save("p", 2, "new"); }), "Could not write plot data to '" + path() + "'.");
}

TEST_F(FileJournalPlotTest, PlotsThatLieElsewhereAreTold) {
    record(1);
    save("p", 1, "data");
    const std::string whole = bytes();
    putBytes(whole.substr(0, whole.size() - 1));
    const std::string text = "Could not read plot data from '" + path() + "'.";
    EXPECT_EQ(whatOf([&] { (void)session->getPlot("p"); }), text);
    // Sizes that have no sum, and places that no file has.
    for (const char* attribute : {"offset", "headerSize", "dataSize"})
        for (const char* number : {"18446744073709551615", "18446744073709551600", "9223372036854775807"}) {
            putBytes(whole);
            putAttribute(attribute, number);
            open();
            EXPECT_EQ(whatOf([&] { (void)session->getPlot("p"); }), text) << attribute << number;
        }
}

TEST_F(FileJournalPlotTest, PlotsWhoseTextIsNoJsonAreNone) {
    record(1);
    const uint64 place = bytes().size();
    save("p", 1);
    const std::string whole = bytes();
    for (const std::string& text :
         {std::string("{\"id\": 1, \"name\": "), std::string("[1]"), std::string(2000, '[')}) {
        putBytes(whole.substr(0, place) + text);
        putAttribute("headerSize", std::to_string(text.size()));
        open();
        EXPECT_EQ(session->getPlot("p"), nullptr) << text.substr(0, 20);
        zel::Vector<ref_ptr<StructuredMessage>> all;
        session->getAllPlots(all);
        EXPECT_EQ(all.size(), 0U);
    }
}

TEST_F(FileJournalPlotTest, PlotElementsMustTellTheirPlace) {
    record(2);
    save("p", 1);
    std::string content = bytes();
    content.replace(content.find("offset=\""), 7, "offsat=");
    putBytes(content);
    EXPECT_NE(whatOf([&] { open(); }).find("XML error: Could not locate attribute 'offset'"),
              std::string::npos);
    open(FileJournal::Tolerant);
    EXPECT_EQ(session->getNumFrames(), 2U);
    EXPECT_EQ(names(), Names());
}

// Frames and plots

TEST_F(FileJournalPlotTest, FramesAreWrittenOverPlotsThatAreSavedAgainBehindThem) {
    record(2);
    save("p", 1, "data of p");
    save("q", 2);
    open();
    const uint64 head = session->getFrameHead();
    beginWriting();
    write(2, 2);
    EXPECT_EQ(session->getFrameInfo(2)->headerOffset, head);
    // A crash here loses them, and no frame.
    const std::string crashed = bytes();
    EXPECT_EQ(crashed.find("<Plot "), std::string::npos);
    expectPlot("p", 1, "data of p");
    write(3, 3, false);
    writer->endOfStream();
    open();
    EXPECT_EQ(names(), (Names{"p", "q"}));
    expectPlot("p", 1, "data of p");
    expectPlot("q", 2);
    EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}, {2, 2}, {3, 3}}));
    putBytes(crashed);
    open();
    EXPECT_EQ(names(), Names());
    EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}, {2, 2}}));
}

TEST_F(FileJournalPlotTest, PlotsMayBeSavedBetweenFrames) {
    make();
    beginWriting();
    write(0, 0);
    save("p", 1, "data of p");
    // An open session ends where its plots begin.
    const std::string crashed = bytes();
    write(1, 1, false); // whose names are known still
    expectPlot("p", 1, "data of p");
    save("p", 3, "newer");
    write(2, 2, false);
    save("q", 2, "data of q");
    writer->endOfStream();
    open();
    EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}, {2, 2}}));
    expectPlot("p", 3, "newer");
    expectPlot("q", 2, "data of q");
    putBytes(crashed);
    open();
    EXPECT_EQ(contents(), (Contents{{0, 0}}));
    EXPECT_EQ(session->getFrameHead(), session->getFrameInfo(0)->dataOffset + 8);
    expectPlot("p", 1, "data of p");
}

TEST_F(FileJournalPlotTest, APlotAheadOfTheSceneIsNoEndOfTheFrames) {
    make(nullptr);
    save("p", 1, "data");
    std::stringstream scene("scene");
    session->packSceneData(scene);
    beginWriting();
    write(0, 0);
    write(1, 1);
    open();
    EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}}));
    expectPlot("p", 1, "data");
}

TEST_F(FileJournalPlotTest, APlotThatCannotBeReadIsLostWithAWarning) {
    record(1);
    save("p", 1, "data");
    std::string content = bytes();
    content.pop_back();
    putBytes(content);
    open();
    beginWriting();
    const zelTest::LogCapture log;
    write(1, 1);
    EXPECT_NE(log.text().find("Journal '" + path() + "': the plot 'p' is lost"), std::string::npos);
    writer->endOfStream();
    EXPECT_EQ(names(), Names());
    EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}}));
}

TEST_F(FileJournalPlotTest, TruncatingDropsThePlotsAlsoWhereItDropsNoFrame) {
    for (const uint64 index : {1U, 2U, 7U}) {
        record(3);
        save("p", 1);
        save("q", 2);
        const auto size = bytes().size();
        const zelTest::LogCapture log;
        EXPECT_EQ(session->truncate(index), index != 7);
        EXPECT_EQ(log.texts().front(), "Removing 2 plots from journal " + path() + "\n");
        EXPECT_EQ(names(), Names());
        EXPECT_EQ(bytes().size(), size); // the bytes stay
        std::filesystem::remove(path());
    }
}

} // namespace
