#include "ArchiveFixture.h"

#include <zel/Date.h>
#include <zel/HashSet.h>
#include <zelCore/Version.h>

#include <algorithm>
#include <regex>

using testing::ElementsAre;
using zelStream::Archive;
using zelStream::OutputArchive;
using zelTest::ArchiveBytes;
using zelTest::archiveErrorOf;
using zelTest::ArchiveHead;

namespace {

class OutputArchiveHeaderTest : public zelTest::ArchiveFixture {
protected:
    /// What this library tells of itself, with the date of its build.
    static ArchiveHead headOfLibrary() {
        ArchiveHead head;
        head.appName = "lander";
        head.revision = "";
        head.buildDate = zelCore::zelGetBuildDate(false);
        head.buildTime = zelCore::zelGetBuildTime();
        head.date = zelCore::zelGetBuildDate(true) + "T" + zelCore::zelGetBuildTime();
        for (auto& flag : head.flags)
            flag.isSet = std::string(flag.name) == "VIREO_USE_PADDING";
#ifdef __SSE2__
        head.flags[1].isSet = true;
#endif
#ifdef __SSE3__
        head.flags[3].isSet = true;
#endif
        head.modifications = known();
        return head;
    }
    /// The changes that this process knows, sorted; other tests may have added some.
    static std::vector<std::string> known() {
        zel::HashSet<zel::String> all;
        OutputArchive::addModifications(all);
        std::vector<std::string> sorted(all.begin(), all.end());
        std::sort(sorted.begin(), sorted.end());
        return sorted;
    }
    static std::string headerOf(OutputArchive& archive) {
        std::ostringstream stream;
        archive.open(stream, "lander");
        archive.close();
        return stream.str();
    }
};

TEST_F(OutputArchiveHeaderTest, TellsTheWriterFieldByField) {
    for (const bool isLittleEndian : {true, false}) {
        ArchiveHead head = headOfLibrary();
        head.isLittleEndian = isLittleEndian;
        OutputArchive archive;
        archive.setUseCurrentDate(false);
        archive.setLittleEndian(isLittleEndian);
        EXPECT_EQ(testing::PrintToString(headerOf(archive)),
                  testing::PrintToString(ArchiveBytes(head).bytes()));
    }
}

TEST_F(OutputArchiveHeaderTest, BeginsWithTheMagicBehindByteOrderAndSizes) {
    OutputArchive archive;
    archive.setLittleEndian(true);
    EXPECT_EQ(headerOf(archive).substr(0, 10), "\x01\x08\x08\x04\x08\x04\xD0\xDE\xAD\x0F");
    archive.setLittleEndian(false);
    EXPECT_EQ(headerOf(archive).substr(0, 10), std::string("\0\x08\x08\x04\x08\x04\x0F\xAD\xDE\xD0", 10));
}

TEST_F(OutputArchiveHeaderTest, TellsTheTimeOfWriting) {
    OutputArchive archive;
    EXPECT_TRUE(archive.getUseCurrentDate());
    zelTest::Opened read(headerOf(archive));
    EXPECT_TRUE(std::regex_match(std::string(read->getArchiveDate()),
                                 std::regex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}")))
        << read->getArchiveDate();
}

TEST_F(OutputArchiveHeaderTest, TwoArchivesWithTheDateOfTheBuildAreEqual) {
    OutputArchive archive;
    archive.setUseCurrentDate(false);
    EXPECT_FALSE(archive.getUseCurrentDate());
    EXPECT_EQ(headerOf(archive), headerOf(archive));
    zelTest::Opened read(headerOf(archive));
    EXPECT_EQ(read->getArchiveDate(), zelCore::zelGetBuildDate(true) + "T" + zelCore::zelGetBuildTime());
}

TEST_F(OutputArchiveHeaderTest, NamesTheModificationsSorted) {
    OutputArchive archive;
    archive.setUseCurrentDate(false);
    archive.addModification("ffff0000");
    archive.addModification("00000001");
    archive.addModification("ffff0000");
    ArchiveHead head = headOfLibrary();
    head.modifications.insert(head.modifications.end(), {"00000001", "ffff0000"});
    std::sort(head.modifications.begin(), head.modifications.end());
    head.isLittleEndian = archive.isLittleEndian();
    EXPECT_EQ(testing::PrintToString(headerOf(archive)), testing::PrintToString(ArchiveBytes(head).bytes()));
    EXPECT_TRUE(archive.hasModification("ffff0000"));
    EXPECT_TRUE(archive.hasModification("904156fd"));
    EXPECT_FALSE(archive.hasModification("12345678"));
}

TEST_F(OutputArchiveHeaderTest, WhatIsRegisteredIsWrittenAndKnown) {
    Archive::registerModification("0badcafe");
    Archive::registerModification("0badcafe");
    OutputArchive archive;
    const zelTest::LogCapture log(zel::Notify::Warning);
    zelTest::Opened read(headerOf(archive));
    EXPECT_TRUE(read->hasModification("0badcafe"));
    EXPECT_EQ(log.text(), "");
    EXPECT_THAT(known(), ElementsAre("0badcafe", "904156fd"));
    EXPECT_THAT(read->getModifications(), ElementsAre("0badcafe", "904156fd"));
}

TEST_F(OutputArchiveHeaderTest, ModificationsAreEightLowerCaseHexadecimalDigits) {
    OutputArchive archive;
    const auto before = known();
    for (const char* text : {"", "904156f", "904156fda", "904156FD", "904156fg", " 04156fd"}) {
        EXPECT_NE(archiveErrorOf([&] { Archive::registerModification(text); }), "no exception") << text;
        EXPECT_NE(archiveErrorOf([&] { archive.addModification(text); }), "no exception") << text;
    }
    EXPECT_EQ(known(), before);
}

TEST_F(OutputArchiveHeaderTest, IsReadBack) {
    OutputArchive archive;
    zelTest::Opened read(headerOf(archive));
    EXPECT_EQ(read->getVersion(), ZEL_GET_VERSION());
    EXPECT_EQ(read->getSerializationVersion(), 90U);
    EXPECT_EQ(read->getAppName(), "lander");
    EXPECT_TRUE(read->getEndianMatch());
    EXPECT_TRUE(read->isAtEnd());
}

} // namespace
