#include "JournalFixture.h"

#include <zelCore/Version.h>
#include <zelNet/StructuredMessage.h>

#include <json/value.h>
#include <support/CommaLocale.h>

#include <filesystem>

// The session header in the file: what it must hold, and what becomes of one that does not.

using zel::uint64;
using zelData::FileJournal;
using zelTest::whatOf;

namespace {

class FileJournalHeaderTest : public zelTest::JournalFixture {
protected:
    /// What opening says, without the place in our sources and the element.
    std::string openingFails() {
        const std::string what = whatOf([&] { open(); });
        const auto begin = what.find("XML error: ");
        return begin == std::string::npos ? what : what.substr(begin, what.find('\n') - begin);
    }
};
using FileJournalHeaderDeathTest = FileJournalHeaderTest;

TEST_F(FileJournalHeaderTest, ElementsThatLackAreTold) {
    record(2);
    const std::string whole = bytes();
    for (const char* name :
         {"name",           "version",   "versionNumber", "is64BitReal",     "is64BitArchitecture",
          "isLittleEndian", "date",      "epoch",         "seconds",         "microSeconds",
          "headerFormat",   "timeStep",  "numFrames",     "frameStride",     "startFrame",
          "endFrame",       "startTime", "endTime",       "sceneDataOffset", "sceneDataSize",
          "frameDataOffset"}) {
        putBytes(whole);
        replaceInHeader(elementOfHeader(name), "");
        const std::string what = openingFails();
        EXPECT_EQ(what.substr(0, what.find(". Error")),
                  std::string("XML error: FileFrameReader: Could not locate element '") + name + "'");
        // The frames are there all the same.
        open(FileJournal::Tolerant);
        EXPECT_EQ(indicesInTable(), (std::vector<uint64>{0, 1})) << name;
    }
    putBytes(whole);
    replaceInHeader(elementOfHeader("computationTime"), "");
    open();
    EXPECT_EQ(session->getComputationTime(), 0.0);
}

TEST_F(FileJournalHeaderTest, ElementsThatCannotBeParsedAreTold) {
    record(2);
    const std::string whole = bytes();
    const std::vector<std::pair<const char*, std::vector<const char*>>> nonsense{
        {"versionNumber", {"", "-1", "1.5", "4294967296", "x"}},
        {"is64BitReal", {"", "yes", "True", "1"}},
        {"is64BitArchitecture", {"maybe"}},
        {"isLittleEndian", {"middle"}},
        {"seconds", {"", "now"}},
        {"microSeconds", {"1 2"}},
        {"timeStep", {"", "fast", "1,5"}},
        {"numFrames",
         {"",
          "-1",
          "18446744073709551616",
          "2 "
          "frames"}},
        {"frameStride", {"x"}},
        {"startFrame", {"x"}},
        {"endFrame", {"x"}},
        {"startTime", {"x"}},
        {"endTime", {"x"}},
        {"computationTime", {"x", ""}},
        {"sceneDataOffset", {"x"}},
        {"sceneDataSize", {"x"}},
        {"frameDataOffset", {"x", "0x10"}}};
    for (const auto& [name, texts] : nonsense)
        for (const char* nonsenseText : texts) {
            putBytes(whole);
            replaceInHeader(elementOfHeader(name),
                            std::string("<") + name + ">" + nonsenseText + "</" + name + ">");
            const std::string what = openingFails();
            EXPECT_EQ(what.substr(0, what.find(". Error")),
                      std::string("XML error: FileFrameReader: Unable to parse element ") + name)
                << nonsenseText;
            open(FileJournal::Tolerant);
            EXPECT_EQ(indicesInTable(), (std::vector<uint64>{0, 1})) << name;
        }
}

TEST_F(FileJournalHeaderTest, AFaultIsToldWithRowAndFile) {
    record(1);
    replaceElement("timeStep", "x");
    const std::string what = whatOf([&] { open(); });
    EXPECT_NE(what.find("Error at row 16\nFile: " + path() + "\n" + std::string(78, '=') +
                        "\n<timeStep>x</timeStep>"),
              std::string::npos)
        << what;
}

TEST_F(FileJournalHeaderTest, OfDoubledElementsTheFirstCounts) {
    record(2);
    replaceInHeader("<name>run</name>", "<name>run</name><name>walk</name>");
    replaceInHeader("<numFrames>2</numFrames>", "<numFrames>2</numFrames><numFrames>x</numFrames>");
    open();
    EXPECT_EQ(session->getName(), "run");
    EXPECT_EQ(session->getNumFrames(), 2U);
}

TEST_F(FileJournalHeaderTest, ATextThatIsNoDocumentIsTold) {
    record(2);
    const std::string whole = bytes();
    const std::string all = headerText();
    for (const std::string& broken : std::vector<std::string>{all.substr(0, all.size() / 2),
                                                              all + "<Session/>x",
                                                              std::string("\xff") + all,
                                                              "no markup",
                                                              all + "<",
                                                              std::string(5000, '<')}) {
        putBytes(whole);
        putHeaderText(broken);
        EXPECT_EQ(openingFails(), "Failed to read journal header from '" + path() + "'.");
        EXPECT_FALSE(FileJournal::isFileJournal(path()));
        const zelTest::LogCapture log;
        open(FileJournal::Tolerant);
        EXPECT_NE(log.text().find("the session header at offset 34 can not be read"), std::string::npos);
        EXPECT_EQ(contents(), (std::vector<std::pair<uint64, double>>{{0, 0}, {1, 1}}));
        EXPECT_EQ(session->getName(), "run"); // after the file
        EXPECT_EQ(session->getLastFrameIndex(), 1U);
        EXPECT_EQ(session->getFrameHead(), whole.size());
    }
}

TEST_F(FileJournalHeaderTest, AJournalWhoseHeaderIsLostGoesOn) {
    record(2, "a scene of any length");
    std::string content = bytes();
    content.replace(34, 10240, std::string(10240, '\0'));
    putBytes(content);
    {
        const zelTest::LogCapture log;
        open(); // an empty text is no session
        EXPECT_EQ(log.text(), "No session header in journal " + path() + "!\n");
        EXPECT_EQ(journal->getNumSessions(), 0U);
    }
    open(FileJournal::Tolerant);
    std::stringstream scene;
    EXPECT_TRUE(session->unpackSceneData(scene));
    EXPECT_EQ(scene.str(), "a scene of any length");
    beginWriting();
    write(2, 2);
    writer->endOfStream();
    open();
    EXPECT_EQ(contents(), (std::vector<std::pair<uint64, double>>{{0, 0}, {1, 1}, {2, 2}}));
}

TEST_F(FileJournalHeaderTest, ASessionWithoutFramesIsRecoveredAsOne) {
    make("scene");
    std::string content = bytes();
    content.replace(34, 20, std::string(20, 'x'));
    putBytes(content);
    open(FileJournal::Tolerant);
    EXPECT_EQ(session->getFrameTable().size(), 0U);
    EXPECT_EQ(session->getFrameHead(), uint64{zel::InvalidIndex});
}

TEST_F(FileJournalHeaderTest, PlacesThatDoNotLieInTheFileAreTold) {
    record(1);
    const std::string whole = bytes();
    for (const auto& [offset, size] : std::vector<std::pair<uint64, uint64>>{{whole.size() + 1, 0},
                                                                             {34, whole.size()},
                                                                             {34, uint64(-1)},
                                                                             {uint64(-2), 10},
                                                                             {uint64(-35), 36},
                                                                             {33, 900},
                                                                             {0, 34}}) {
        std::string content = whole;
        put<uint64>(content, 18, offset);
        put<uint64>(content, 26, size);
        putBytes(content);
        EXPECT_EQ(openingFails(), "Failed to read journal header from '" + path() + "'.") << offset;
        open(FileJournal::Tolerant);
        EXPECT_EQ(indicesInTable(), (std::vector<uint64>{0})) << offset;
        // Whoever goes on puts the header where it belongs.
        beginWriting();
        write(1, 1);
        writer->endOfStream();
        open();
        EXPECT_EQ(contents(), (std::vector<std::pair<uint64, double>>{{0, 0}, {1, 1}}));
    }
}

TEST_F(FileJournalHeaderTest, TheTextEndsAtTheFirstZeroWhateverItsLength) {
    record(2);
    const std::string whole = bytes();
    for (const uint64 size : {uint64{0}, uint64{10}, uint64{9000}}) {
        std::string content = whole;
        put<uint64>(content, 26, size); // of another header
        putBytes(content);
        open();
        EXPECT_EQ(session->getNumFrames(), 2U) << size;
    }
}

TEST_F(FileJournalHeaderTest, AHeaderMayStandElsewhere) {
    record(2);
    std::string content = bytes();
    const std::string block = content.substr(34, 10240);
    const uint64 end = content.size();
    content += block;
    content.replace(34, 10240, std::string(10240, 'x'));
    put<uint64>(content, 18, end);
    putBytes(content);
    open();
    EXPECT_EQ(session->getNumFrames(), 2U);
    session->recordExtraData("key", "value");
    session->writeHeader();
    EXPECT_EQ(bytes().substr(34, 10240), std::string(10240, 'x'));
    EXPECT_EQ(bytes().size(), content.size());
    open();
    EXPECT_EQ(session->retrieveExtraData("key"), "value");
    EXPECT_EQ(contents(), (std::vector<std::pair<uint64, double>>{{0, 0}, {1, 1}}));
}

TEST_F(FileJournalHeaderTest, UnknownElementsAreKept) {
    record(2);
    replaceInHeader("</Session>",
                    "<future a='1'><part>x</part></future><Simulation><mass>2</mass></Simulation></Session>");
    open();
    session->recordExtraData("key", "value");
    session->writeHeader();
    open();
    session->writeHeader();
    EXPECT_EQ(elementOfHeader("part"), "<part>x</part>");
    EXPECT_EQ(elementOfHeader("mass"), "<mass>2</mass>");
    EXPECT_NE(headerText().find("<future a=\"1\">"), std::string::npos);
    EXPECT_EQ(headerText().find("<future", headerText().find("<future") + 1), std::string::npos);
}

TEST_F(FileJournalHeaderTest, ReferencesToCharactersAreUtf8) {
    record(1);
    replaceElement("name", "na&#xEF;ve &#x20AC;");
    open();
    EXPECT_EQ(session->getName(), "na\xc3\xafve \xe2\x82\xac");
    session->writeHeader();
    open();
    EXPECT_EQ(session->getName(), "na\xc3\xafve \xe2\x82\xac");
}

TEST_F(FileJournalHeaderTest, ExtraDataMustBeSingleTexts) {
    record(1);
    const std::string whole = bytes();
    const auto with = [&](const std::string& data) {
        putBytes(whole);
        replaceInHeader("</Session>", "<ExtraData>" + data + "</ExtraData></Session>");
        const std::string what = openingFails();
        // Whoever tolerates that goes on without them.
        open(FileJournal::Tolerant);
        EXPECT_EQ(session->getNumFrames(), 1U);
        return what;
    };
    EXPECT_EQ(with("<key></key>"),
              "FileJournal: When inspecting the extra data document, found a key without a corresponding "
              "value: 'key'.");
    EXPECT_EQ(with("<key><a/></key>"),
              "FileJournal: When inspecting the extra data document, expected a text node but got something "
              "else. Got 'a'.");
    EXPECT_EQ(with("<key>text<a/></key>"),
              "FileJournal: When inspecting the extra data document, expected a text node but got something "
              "else. Got 'a'.");
    EXPECT_EQ(with("<key><![CDATA[]]></key>"),
              "FileJournal: When inspecting the extra data document, expected a text node but got an empty "
              "value.'.");
    EXPECT_EQ(with("<key>text</key>"), "no exception");
}

TEST_F(FileJournalHeaderTest, EachFormatOfFrameHeadersHasItsName) {
    using zelData::SerializedFrame;
    make();
    for (const auto& [format, name] : std::vector<std::pair<SerializedFrame::HeaderFormat, const char*>>{
             {SerializedFrame::XML_HEADER, "XML"},
             {SerializedFrame::JSON_HEADER, "JSON"},
             {SerializedFrame::BINARY_HEADER, "BINARY"},
             {SerializedFrame::INVALID, "INVALID"}}) {
        session->setHeaderFormat(format);
        session->writeHeader();
        EXPECT_EQ(elementOfHeader("headerFormat"), std::string("<headerFormat>") + name + "</headerFormat>");
        open();
        EXPECT_EQ(session->getHeaderFormat(), format);
    }
}

TEST_F(FileJournalHeaderDeathTest, OtherFormatsOfFrameHeadersEndTheProcess) {
    record(1);
    session->setHeaderFormat(static_cast<zelData::SerializedFrame::HeaderFormat>(7));
    EXPECT_DEATH(session->writeHeader(), "zelAbort: Unknown header format!");
    replaceInHeader("BINARY", "BRAILLE");
    EXPECT_DEATH(open(), "zelAbort: Unknown header format 'BRAILLE'");
    open(FileJournal::Tolerant);
    EXPECT_EQ(indicesInTable(), (std::vector<uint64>{0}));
}

TEST_F(FileJournalHeaderTest, TheEndOfAThirtyTwoBitWriterCountsAsOpen) {
    record(3);
    const std::string whole = bytes();
    replaceElement("endFrame", "4294967295");
    replaceElement("is64BitArchitecture", "false");
    replaceElement("numFrames", "0");
    {
        const zelTest::LogCapture log;
        open();
        EXPECT_NE(log.text().find("Trying to recover"), std::string::npos);
    }
    EXPECT_EQ(session->getNumFrames(), 3U);
    // Of any other it is a frame like all.
    putBytes(whole);
    replaceElement("endFrame", "4294967295");
    const zelTest::LogCapture log;
    open();
    EXPECT_EQ(session->getLastFrameIndex(), 4294967295U);
    EXPECT_EQ(log.text(), "");
}

TEST_F(FileJournalHeaderTest, OldHeadersDoNotTellNumberAndStride) {
    record(3);
    replaceElement("frameStride", "5");
    const std::string whole = bytes();
    const auto ofVersion = [&](zel::uint32 number) {
        putBytes(whole);
        replaceInHeader(elementOfHeader("versionNumber"),
                        "<versionNumber>" + std::to_string(number) + "</versionNumber>");
        open();
    };
    ofVersion(ZEL_CALC_VERSION(2, 6, 3, 0));
    EXPECT_EQ(session->getFrameStride(), 5U);
    EXPECT_EQ(session->getNumFrames(), 3U);
    ofVersion(ZEL_CALC_VERSION(2, 6, 2, 255));
    EXPECT_EQ(session->getFrameStride(), 1U);
    EXPECT_EQ(session->getNumFrames(), 3U);
    ofVersion(ZEL_CALC_VERSION(2, 6, 1, 0));
    EXPECT_EQ(session->getNumFrames(), 3U);
    ofVersion(ZEL_CALC_VERSION(2, 6, 0, 255));
    EXPECT_EQ(session->getNumFrames(), 3U);
    EXPECT_EQ(session->getFrameTable().size(), 3U);
}

TEST_F(FileJournalHeaderTest, ASessionOfAnOldVersionGoesOnWithAllItsFrames) {
    record(2);
    replaceElement("versionNumber", std::to_string(ZEL_CALC_VERSION(2, 6, 0, 255)));
    open();
    zelNet::StructuredMessage plot;
    Json::Value header;
    header["name"] = "p";
    plot.setHeader(header);
    session->savePlot(&plot);
    beginWriting();
    write(10, 10);
    writer->endOfStream();
    open();
    EXPECT_EQ(contents(), (Contents{{0, 0}, {1, 1}, {10, 10}}));
    EXPECT_EQ(session->getNumFrames(), 3U);
    EXPECT_EQ(session->getZelVersionNumber(), ZEL_CALC_VERSION(2, 6, 3, 0))
        << "its number of frames is told now";
}

TEST_F(FileJournalHeaderTest, TheOtherByteOrderIsRefused) {
    record(1);
    replaceElement("isLittleEndian", "false");
    for (const auto mode : {FileJournal::Strict, FileJournal::Tolerant})
        EXPECT_EQ(whatOf([&] { open(mode); }),
                  "FileJournal: Session 'run' of journal '" + path() +
                      "' was written in the other byte order");
}

TEST_F(FileJournalHeaderDeathTest, FramesNeedAPlace) {
    record(1);
    replaceElement("frameDataOffset", "18446744073709551615");
    EXPECT_DEATH(open(), "zelVerify failed: `this->getNumFrames\\(\\) == 0'");
    open(FileJournal::Tolerant);
    EXPECT_EQ(session->getFrameTable().size(), 0U);
}

// The size of the block

TEST_F(FileJournalHeaderTest, AShorterHeaderLeavesNoBytesOfTheLongerOne) {
    make();
    session->recordExtraData("key", std::string(5000, 'x'));
    session->writeHeader();
    const uint64 longer = at<uint64>(bytes(), 26);
    session->recordExtraData("key", "x");
    session->writeHeader();
    const uint64 shorter = at<uint64>(bytes(), 26);
    EXPECT_EQ(longer - shorter, 4999U);
    EXPECT_EQ(bytes().substr(34 + shorter), std::string(10240 - shorter, '\0'));
}

TEST_F(FileJournalHeaderDeathTest, AHeaderMayTakeTheWholeBlockAndNoByteMore) {
    record(1);
    session->recordExtraData("key", "x");
    session->writeHeader();
    const uint64 rest = 10240 - at<uint64>(bytes(), 26);
    session->recordExtraData("key", std::string(rest + 1, 'x'));
    EXPECT_NE(whatOf([&] {
                  session->recordExtraData("key", std::string(rest + 2, 'x'));
              }).find("it would have 10241 bytes, 10240 is the most"),
              std::string::npos);
    session->writeHeader();
    EXPECT_EQ(at<uint64>(bytes(), 26), 10240U);
    const std::string full = bytes();
    open();
    EXPECT_EQ(session->retrieveExtraData("key"), std::string(rest + 1, 'x'));
    EXPECT_EQ(contents(), (std::vector<std::pair<uint64, double>>{{0, 0}}));
    // What changes behind the back of the checks.
    session->setComputationTime(10);
    EXPECT_DEATH(
        session->writeHeader(),
        "zelVerify failed: `headerString.size\\(\\) <= MaxHeaderSize', FileJournal: Session header is "
        "too large! It is 10241 bytes, max is 10240");
    EXPECT_TRUE(bytes() == full);
}

TEST_F(FileJournalHeaderTest, NumbersHaveAPointInEveryLocale) {
    const zelTest::CommaLocale comma;
    make();
    session->setTimeStep(0.125);
    session->writeHeader();
    EXPECT_EQ(elementOfHeader("timeStep"), "<timeStep>0.125000</timeStep>");
    open();
    EXPECT_EQ(session->getTimeStep(), 0.125);
}

TEST_F(FileJournalHeaderTest, AHeaderThatCannotBeWrittenIsTold) {
    const std::string other = directory.path("other.journal");
    {
        // These words stand for the tag that could not be written.
        const zelTest::FileSizeLimit limit(0);
        EXPECT_EQ(whatOf([&] { FileJournal journalThere(other); }),
                  "Failed to read journal header from '" + other + "'.");
    }
    const zelTest::FileSizeLimit limit(20);
    EXPECT_EQ(whatOf([&] { (void)FileJournal::Session::create("run", other); }),
              "Failed to write journal header '" + other + "'.");
}

TEST_F(FileJournalHeaderTest, AFileThatIsGoneIsTold) {
    make();
    std::filesystem::remove(path());
    EXPECT_EQ(whatOf([&] { session->writeHeader(); }), "Could not open journal '" + path() + "'.");
}

} // namespace
