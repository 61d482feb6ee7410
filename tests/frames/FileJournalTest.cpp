#include "JournalFixture.h"

#include <zelCore/Version.h>
#include <zelIO/FileSystem.h>

#include <support/PointLocale.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>

// Journals and their session, without frames.

using zel::ref_ptr;
using zel::uint64;
using zelData::FileJournal;
using zelData::Frame;
using zelTest::StreamCapture;
using zelTest::whatOf;

namespace {

using FileJournalTest = zelTest::JournalFixture;
using FileJournalDeathTest = FileJournalTest;

TEST_F(FileJournalTest, AFreshJournalIsAHeaderWithoutASession) {
    journal = new FileJournal(path());
    EXPECT_EQ(journal->getName(), "run");
    EXPECT_EQ(journal->getPath(), path());
    EXPECT_EQ(journal->getNumSessions(), 0U);
    const std::string content = bytes();
    ASSERT_EQ(content.size(), 34U);
    EXPECT_EQ(content.substr(0, 10), "ZelJournal");
    EXPECT_EQ(at<uint64>(content, 10), ZEL_GET_VERSION());
    EXPECT_EQ(at<uint64>(content, 18), uint64{zel::InvalidIndex});
    EXPECT_EQ(at<uint64>(content, 26), 0U);
}

TEST_F(FileJournalTest, ThePathIsMadeAbsoluteWithoutASeparatorAtItsEnd) {
    const auto here = zelIO::FileSystem::getCurrentWorkingDirectory();
    ASSERT_TRUE(zelIO::FileSystem::setCurrentWorkingDirectory(directory.path()));
    const ref_ptr<FileJournal> relative(new FileJournal("a.b.journal/"));
    ASSERT_TRUE(zelIO::FileSystem::setCurrentWorkingDirectory(here));
    EXPECT_EQ(relative->getName(), "a.b");
    EXPECT_TRUE(std::filesystem::exists(directory.path("a.b.journal")));
    EXPECT_EQ(zelIO::FileSystem::getFileWithExtension(relative->getPath()), "a.b.journal");
}

TEST_F(FileJournalTest, AJournalWithoutASessionOpensWithAWarning) {
    journal = new FileJournal(path());
    const zelTest::LogCapture log;
    for (const auto mode : {FileJournal::Strict, FileJournal::Tolerant}) {
        open(mode);
        EXPECT_EQ(journal->getNumSessions(), 0U);
    }
    EXPECT_EQ(log.text(),
              "No session header in journal " + path() + "!\nNo session header in journal " + path() + "!\n");
    EXPECT_EQ(log.levels().front(), zel::Notify::Warning);
}

TEST_F(FileJournalTest, ANewSessionReservesTheBlockOfItsHeader) {
    make(nullptr);
    const std::string content = bytes();
    ASSERT_EQ(content.size(), FirstFrame);
    EXPECT_EQ(at<uint64>(content, 18), 34U);
    const auto size = at<uint64>(content, 26);
    const std::string text = content.substr(34, size);
    EXPECT_EQ(text.substr(0, 9), "<Session>");
    EXPECT_EQ(content.substr(34 + size), std::string(10240 - size, '\0'));
    EXPECT_NE(text.find("<headerFormat>BINARY</headerFormat>"), std::string::npos);
    EXPECT_NE(text.find("<endFrame>18446744073709551615</endFrame>"), std::string::npos);
    EXPECT_NE(text.find("<sceneDataOffset>18446744073709551615</sceneDataOffset>"), std::string::npos);
    EXPECT_EQ(session->getFrameHead(), uint64{zel::InvalidIndex});
    EXPECT_EQ(session->getPath(), path());
    EXPECT_EQ(journal->getFileSession("run"), session.get());
    EXPECT_EQ(journal->getFileSession("walk"), nullptr);
}

TEST_F(FileJournalTest, EverythingThatTheHeaderTellsComesBack) {
    make("scene");
    session->setTimeStep(0.25);
    session->setFrameStride(3);
    session->setFirstFrameIndex(1);
    session->setFirstFrameTimeStamp(0.5);
    session->setLastFrameTimeStamp(2);
    session->setComputationTime(1.5);
    session->set64BitReal(false);
    session->setZelVersionString("9.8.7.6");
    session->setDate(zel::Date(1234567890, 123456));
    session->writeHeader();
    open();
    EXPECT_EQ(session->getName(), "run");
    EXPECT_EQ(session->getTimeStep(), 0.25);
    EXPECT_EQ(session->getFrameStride(), 3U);
    EXPECT_EQ(session->getFirstFrameIndex(), 1U);
    EXPECT_EQ(session->getLastFrameIndex(), uint64{zel::InvalidIndex});
    EXPECT_EQ(session->getFirstFrameTimeStamp(), 0.5);
    EXPECT_EQ(session->getLastFrameTimeStamp(), 2.0);
    EXPECT_EQ(session->getComputationTime(), 1.5);
    EXPECT_FALSE(session->is64BitReal());
    EXPECT_TRUE(session->is64BitArchitecture());
    EXPECT_TRUE(session->isLittleEndian());
    EXPECT_EQ(session->getZelVersionString(), "9.8.7.6");
    EXPECT_EQ(session->getZelVersionNumber(), ZEL_GET_VERSION());
    EXPECT_EQ(session->getDate(), zel::Date(1234567890, 123456));
    EXPECT_EQ(session->getHeaderFormat(), zelData::SerializedFrame::BINARY_HEADER);
    EXPECT_EQ(session->getSceneDataOffset(), FirstFrame);
    EXPECT_EQ(session->getSceneDataSize(), 5U);
    EXPECT_EQ(session->getFrameDataOffset(), FirstFrame + 5);
    EXPECT_EQ(session->getFrameHead(), FirstFrame + 5);
    // The version stays that of the writer when the header is written again.
    session->writeHeader();
    open();
    EXPECT_EQ(session->getZelVersionString(), "9.8.7.6");
}

TEST_F(FileJournalTest, NamesOfSessionsComeBackAsTheyAre) {
    for (const char* name : {" two  blanks ", "a<b>&c\"d'", "&#x41;", "na\xc3\xafve", "line\nbreak"}) {
        const StreamCapture quiet(std::cout);
        std::filesystem::remove(path());
        journal = new FileJournal(path());
        (void)journal->createNewFileSession(name);
        open();
        EXPECT_EQ(session->getName(), name);
    }
}

TEST_F(FileJournalTest, ASecondSessionIsRefusedAndTheFirstStays) {
    record(3);
    const std::string before = bytes();
    const StreamCapture output(std::cout);
    EXPECT_EQ(whatOf([&] { (void)journal->createNewSession("other"); }),
              "Journal '" + path() + "' already contains a session!");
    EXPECT_TRUE(bytes() == before);
    EXPECT_EQ(journal->getNumSessions(), 1U);
    EXPECT_EQ(output.text(), "");
}

TEST_F(FileJournalTest, ASessionThatAnotherJournalMadeMeanwhileIsNotRemoved) {
    journal = new FileJournal(path());
    const ref_ptr<FileJournal> early = journal;
    record(3);
    const std::string before = bytes();
    EXPECT_EQ(whatOf([&] { (void)early->createNewFileSession("other"); }),
              "Journal '" + path() + "' already contains a session!");
    EXPECT_TRUE(bytes() == before);
}

TEST_F(FileJournalDeathTest, ASessionOfTheSameNameIsAMistakeOfTheProgram) {
    make();
    EXPECT_DEATH((void)journal->createNewFileSession("run"),
                 "zelVerify failed: `!this->getSession\\(name\\)'");
}

TEST_F(FileJournalTest, CreatingASessionByItselfMakesTheFileAnew) {
    record(3);
    const StreamCapture output(std::cout);
    const ref_ptr<Session> other(Session::create("other", path()));
    EXPECT_EQ(output.text(), "WARNING: Removing existing journal " + path() + "\n");
    EXPECT_EQ(bytes().size(), FirstFrame);
    open();
    EXPECT_EQ(session->getName(), "other");
    EXPECT_EQ(session->getFrameTable().size(), 0U);
}

TEST_F(FileJournalTest, EachNewJournalTellsOfTheFileThatItReplaces) {
    const StreamCapture output(std::cout);
    journal = new FileJournal(path());
    (void)journal->createNewFileSession("run");
    EXPECT_EQ(output.text(), "WARNING: Removing existing journal " + path() + "\n");
}

TEST_F(FileJournalTest, ANameThatDoesNotFitIsRefusedAheadOfTheFile) {
    journal = new FileJournal(path());
    const std::string before = bytes();
    EXPECT_NE(
        whatOf([&] { (void)journal->createNewFileSession(std::string(10240, 'n')); }).find("does not fit"),
        std::string::npos);
    EXPECT_TRUE(bytes() == before);
    EXPECT_EQ(journal->getNumSessions(), 0U);
    make();
    EXPECT_NE(whatOf([&] { (void)session->rename(std::string(10240, 'n')); }).find("does not fit"),
              std::string::npos);
    EXPECT_EQ(session->getName(), "run");
    EXPECT_EQ(journal->getSession("run"), session.get());
}

TEST_F(FileJournalTest, RemovingTheSessionLeavesTheHeaderAlone) {
    record(3);
    EXPECT_TRUE(journal->removeSession(session.get()));
    EXPECT_EQ(bytes().size(), 34U);
    EXPECT_EQ(journal->getNumSessions(), 0U);
    EXPECT_EQ(session->getJournal(), nullptr);
    EXPECT_FALSE(journal->removeSession(session.get()));
    // And makes room for another.
    const StreamCapture quiet(std::cout);
    EXPECT_NE(journal->createNewFileSession("next"), nullptr);
}

TEST_F(FileJournalTest, RenamingTheSessionWritesItsHeader) {
    record(2);
    EXPECT_TRUE(session->rename("walk"));
    EXPECT_EQ(journal->getSession("walk"), session.get());
    EXPECT_EQ(journal->getSession("run"), nullptr);
    EXPECT_FALSE(session->rename("walk"));
    open();
    EXPECT_EQ(session->getName(), "walk");
    EXPECT_EQ(session->getNumFrames(), 2U);
}

TEST_F(FileJournalDeathTest, SessionsAreNeitherCopiedNorMoved) {
    make();
    const ref_ptr<FileJournal> other(new FileJournal(directory.path("other.journal")));
    EXPECT_DEATH((void)session->copyTo(other.get()), "zelAbort: .* can not be copied");
    EXPECT_DEATH((void)session->transferTo(other.get()), "zelAbort: .* can not be moved");
    EXPECT_DEATH(session->copyDiskData(other.get()), "zelAbort: .* can not be copied");
}

TEST_F(FileJournalTest, WhatIsNoJournalIsTold) {
    EXPECT_EQ(whatOf([&] { FileJournal("/nowhere/run.journal"); }),
              "Could not write journal header '/nowhere/run.journal'.");
    putBytes("");
    EXPECT_EQ(whatOf([&] { open(); }), "Failed to read journal header from '" + path() + "'.");
    putBytes("ZelJourna");
    EXPECT_EQ(whatOf([&] { open(); }), "Failed to read journal header from '" + path() + "'.");
    putBytes("ZelJournaL" + std::string(24, '\0'));
    EXPECT_EQ(whatOf([&] { open(); }), "Invalid journal header '" + path() + "'");
    putBytes("ZelJournal" + std::string(23, '\0'));
    EXPECT_EQ(whatOf([&] { open(FileJournal::Tolerant); }),
              "Failed to read journal header from '" + path() + "'.");
    std::filesystem::remove(path());
    std::filesystem::create_directory(path());
    EXPECT_EQ(whatOf([&] { open(); }), "Failed to read journal header from '" + path() + "'.");
}

TEST_F(FileJournalTest, AJournalThatMayNotBeReadIsTold) {
    make();
    ASSERT_EQ(chmod(path().c_str(), 0200), 0);
    const zelTest::WithoutPrivileges nobody(directory.path());
    EXPECT_EQ(whatOf([&] { open(); }), "Could not open journal '" + path() + "'.");
}

TEST_F(FileJournalTest, TellsJournalsFromOtherFiles) {
    const zelTest::LogCapture log(zel::Notify::Info);
    EXPECT_FALSE(FileJournal::isFileJournal(path()));
    putBytes("no journal at all");
    EXPECT_FALSE(FileJournal::isFileJournal(path()));
    EXPECT_EQ(log.text(), ""); // told to those alone who ask for all
    std::filesystem::remove(path());
    record(1);
    EXPECT_TRUE(FileJournal::isFileJournal(path()));
    std::string content = bytes();
    content[40] = '<';
    putBytes(content);
    EXPECT_FALSE(FileJournal::isFileJournal(path()));
    // Nothing else is looked at.
    std::filesystem::remove(path());
    record(1);
    content = bytes();
    content.resize(content.size() - 10);
    putBytes(content);
    EXPECT_TRUE(FileJournal::isFileJournal(path()));
}

TEST_F(FileJournalTest, PathsOfSessionsAreTakenApart) {
    zel::String journalPath;
    zel::String name;
    EXPECT_TRUE(FileJournal::parseSessionPath("/a/b.journal/Sessions/run", journalPath, name));
    EXPECT_EQ(journalPath, "/a/b.journal");
    EXPECT_EQ(name, "run");
    EXPECT_TRUE(FileJournal::parseSessionPath("/Sessions/b/Sessions/run", journalPath, name));
    EXPECT_EQ(journalPath, "/Sessions/b");
    for (const char* path : {"/a/b.journal", "/a/b/Sessions/", "/Sessions/run", "", "/a/Sessions/b/c"})
        EXPECT_FALSE(FileJournal::parseSessionPath(path, journalPath, name)) << path;
}

TEST_F(FileJournalTest, AReadOnlyJournalIsRead) {
    record(3);
    ASSERT_EQ(chmod(path().c_str(), 0444), 0);
    const zelTest::WithoutPrivileges nobody(directory.path());
    open();
    EXPECT_EQ(contents(), (std::vector<std::pair<uint64, double>>{{0, 0}, {1, 1}, {2, 2}}));
}

TEST_F(FileJournalTest, FilesOfTheJournalLieBesideIt) {
    make();
    EXPECT_EQ(journal->getCustomFilesPath(false), directory.path("run.files"));
    EXPECT_EQ(journal->getCustomFilesPath("run", false), directory.path("run.files"));
    EXPECT_FALSE(std::filesystem::exists(directory.path("run.files")));
    EXPECT_EQ(session->getCustomFilesPath(true), directory.path("run.files"));
    EXPECT_TRUE(std::filesystem::is_directory(directory.path("run.files")));
    EXPECT_EQ(session->getScenePath(false), directory.path("run.files/ExampleApplication_SceneFile.zel"));
}

// The scene

TEST_F(FileJournalTest, TheSceneIsPackedAndUnpacked) {
    make(nullptr);
    std::string scene(200'000, '\0');
    for (zel::size_t i = 0; i < scene.size(); ++i)
        scene[i] = static_cast<char>(i * 7 % 251);
    std::stringstream stream(scene);
    session->packSceneData(stream);
    EXPECT_EQ(bytes().substr(FirstFrame), scene);
    EXPECT_EQ(session->getFrameHead(), FirstFrame + scene.size());
    open();
    std::stringstream unpacked;
    EXPECT_TRUE(session->unpackSceneData(unpacked));
    EXPECT_TRUE(unpacked.str() == scene);
    EXPECT_TRUE(session->unpackSceneFile());
    EXPECT_TRUE(directory.read("run.files/ExampleApplication_SceneFile.zel") == scene);
}

TEST_F(FileJournalTest, ASessionWithoutASceneUnpacksNone) {
    make(nullptr);
    std::stringstream unpacked;
    EXPECT_FALSE(session->unpackSceneData(unpacked));
    EXPECT_FALSE(session->unpackSceneFile());
    EXPECT_EQ(unpacked.str(), "");
}

TEST_F(FileJournalTest, ASceneThatCannotBeReadIsTold) {
    make("scene");
    const std::string text = "FileJournal: Could not read frame scene data from journal '" + path() + "'.";
    std::ostringstream broken;
    broken.setstate(std::ios::badbit);
    EXPECT_EQ(whatOf([&] { (void)session->unpackSceneData(broken); }), text);
    std::string content = bytes();
    content.pop_back();
    putBytes(content);
    std::ostringstream stream;
    EXPECT_EQ(whatOf([&] { (void)session->unpackSceneData(stream); }), text);
    std::filesystem::remove(path());
    EXPECT_EQ(whatOf([&] { (void)session->unpackSceneData(stream); }), text);
    EXPECT_EQ(stream.str(), "");
    directory.write("run.files", "in the way");
    EXPECT_EQ(whatOf([&] { (void)session->unpackSceneFile(); }),
              "FileJournal: Could not open scene file '" + session->getScenePath(false) + "' for writing.");
}

TEST_F(FileJournalTest, ASceneThatCannotBeWrittenIsToldAndNothingStays) {
    make(nullptr);
    const std::string before = bytes();
    std::istringstream broken("scene");
    broken.setstate(std::ios::badbit);
    EXPECT_EQ(whatOf([&] { session->packSceneData(broken); }),
              "FileJournal: Could not write frame scene data to journal '" + path() + "'.");
    EXPECT_TRUE(bytes() == before);
    EXPECT_EQ(session->getFrameHead(), uint64{zel::InvalidIndex});
    std::istringstream good("scene");
    session->packSceneData(good);
    EXPECT_EQ(session->getFrameHead(), FirstFrame + 5);
}

TEST_F(FileJournalDeathTest, ASceneIsPackedOnceAndAheadOfTheFrames) {
    record(2, "scene");
    const std::string before = bytes();
    std::stringstream stream("another");
    EXPECT_DEATH(session->packSceneData(stream), "zelVerify failed: `m_frameDataOffset == InvalidIndex'");
    EXPECT_TRUE(bytes() == before);
}

// Extra data and the simulation header

TEST_F(FileJournalTest, ExtraDataComeBackAsTheyAre) {
    make();
    const std::vector<std::pair<std::string, std::string>> pairs{{"plain", "text"},
                                                                 {"blanks", "  two  and three   "},
                                                                 {"blank", "   "},
                                                                 {"markup", "<a b='c'>&amp;\"]]></a>"},
                                                                 {"reference", "&#x41;"},
                                                                 {"control", std::string("\x01\t\n\r\x1f")},
                                                                 {"u_8.-", "\xc3\xa4\xe2\x82\xac"},
                                                                 {"_json", "{\"a\": [1, 2]}"}};
    for (const auto& [key, value] : pairs)
        session->recordExtraData(key, value);
    session->writeHeader();
    open();
    for (const auto& [key, value] : pairs)
        EXPECT_EQ(session->retrieveExtraData(key), value) << key;
    EXPECT_EQ(session->retrieveExtraData("unknown"), "");
}

TEST_F(FileJournalTest, ExtraDataThatCannotStandInTheHeaderAreRefused) {
    make();
    session->recordExtraData("key", "value");
    for (const char* key : {"", "1st", "two words", "a='b'", "<", "a/b"})
        EXPECT_EQ(whatOf([&] { session->recordExtraData(key, "v"); }),
                  std::string("FileJournal: The key '") + key +
                      "' of extra data is no name of an XML element");
    EXPECT_EQ(whatOf([&] { session->recordExtraData("key", ""); }),
              "FileJournal: When inspecting the extra data document, expected a text node but got an empty "
              "value.'.");
    EXPECT_EQ(whatOf([&] { session->recordExtraData("key", zel::String("a\0b", 3)); }),
              "FileJournal: The extra data 'key' have a NUL byte, which is no text");
    EXPECT_EQ(whatOf([&] { session->recordExtraData("latin", "\xe4"); }),
              "FileJournal: the extra data 'latin' can not stand in the session header of journal '" +
                  path() + "': the byte 0xE4 is not UTF-8; the text must be saved as UTF-8");
    EXPECT_NE(whatOf([&] { session->recordExtraData("key", std::string(10240, 'x')); }).find("does not fit"),
              std::string::npos);
    EXPECT_NE(
        whatOf([&] { session->recordExtraData("large", std::string(10240, 'x')); }).find("does not fit"),
        std::string::npos);
    EXPECT_EQ(
        whatOf([&] { session->recordExtraData("both", "a  b]]>"); }),
        "FileJournal: The extra data 'both' have blanks in a row and ']]>' as well, which has no form in "
        "XML");
    // Nothing has changed.
    EXPECT_EQ(session->retrieveExtraData("key"), "value");
    EXPECT_EQ(session->retrieveExtraData("large"), "");
    session->writeHeader();
    open();
    EXPECT_EQ(session->retrieveExtraData("key"), "value");
}

TEST_F(FileJournalTest, TheSimulationHeaderIsWrittenByName) {
    make();
    const ref_ptr<zel::Component> header(new zel::Component("header"));
    header->addObject(real("mass", 2.5).get());
    const ref_ptr<zel::Component> below(new zel::Component("solver"));
    below->addObject(real("step", 0.5).get());
    header->addObject(below.get());
    session->setSimulationHeader(header.get());
    session->writeHeader();
    const std::string text = bytes().substr(34, at<uint64>(bytes(), 26));
    EXPECT_NE(text.find("<Simulation>\n"
                        "    <mass>2.5</mass>\n"
                        "    <solver>\n"
                        "      <step>0.5</step>\n"
                        "    </solver>\n"
                        "  </Simulation>"),
              std::string::npos)
        << text;
    // One that was loaded is kept, until there is a new one.
    open();
    session->writeHeader();
    EXPECT_EQ(bytes().substr(34, at<uint64>(bytes(), 26)), text);
    const ref_ptr<zel::Component> empty(new zel::Component("header"));
    session->setSimulationHeader(empty.get());
    session->writeHeader();
    EXPECT_EQ(bytes().find("<mass>"), std::string::npos);
}

TEST_F(FileJournalTest, ASimulationHeaderThatCannotStandThereIsRefused) {
    make();
    const ref_ptr<zel::Component> good(new zel::Component("header"));
    session->setSimulationHeader(good.get());
    const ref_ptr<zel::Component> bad(new zel::Component("header"));
    const ref_ptr<zel::Component> below(new zel::Component("below"));
    bad->addObject(below.get());
    below->addObject(real("two words", 1).get());
    EXPECT_EQ(whatOf([&] { session->setSimulationHeader(bad.get()); }),
              "FileJournal: 'two words' in the simulation header is no name of an XML element");
    const ref_ptr<zel::Component> large(new zel::Component("header"));
    for (int i = 0; i < 1000; ++i)
        large->addObject(real("value" + std::to_string(i), 1).get());
    EXPECT_NE(whatOf([&] { session->setSimulationHeader(large.get()); }).find("does not fit"),
              std::string::npos);
    EXPECT_EQ(session->getSimulationHeader(), good.get());
    session->setSimulationHeader(nullptr);
    EXPECT_EQ(session->getSimulationHeader(), nullptr);
}

TEST_F(FileJournalTest, PrintsItsSizes) {
    record(3);
    const StreamCapture output(std::cout);
    session->printFileStatistics();
    const std::string rule(78, '=');
    const auto& info = session->getFrameTable()[0];
    const zelTest::PointLocale point; // of the expected text
    const double overhead = 100.0 * static_cast<double>(info.meta.headerSize) /
                            static_cast<double>(info.meta.headerSize + info.meta.dataSize);
    EXPECT_EQ(output.text(),
              rule + "\nJournal size: " + std::to_string(bytes().size() / 1024) +
                  " KB\nNum frames: 3\nTotal frame data size: 0 KB (frame header overhead: " +
                  std::string(zel::String::format("%.1f", overhead)) + "%)\n" + rule + "\n");
}

} // namespace
