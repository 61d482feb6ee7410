#include "ArchiveFixture.h"

#include <zel/Notify.h>
#include <zelCore/Version.h>

using testing::HasSubstr;
using zelStream::InputArchive;
using zelTest::ArchiveBytes;
using zelTest::archiveErrorOf;
using zelTest::ArchiveHead;
using zelTest::LogCapture;
using zelTest::Opened;

namespace {

constexpr const char* BadMagic = "Current scope: 'Archive/Version'. Invalid archive format (bad magic)";

class InputArchiveHeaderTest : public zelTest::ArchiveFixture {
protected:
    static std::string openErrorOf(const std::string& bytes) {
        return archiveErrorOf([&] { const Opened archive(bytes); });
    }
    /// The warnings of opening an archive, and that it can be read on.
    static std::vector<std::string> warningsOf(const std::string& header) {
        const LogCapture log(zel::Notify::Warning);
        Opened archive(header + ArchiveBytes().scalar(zel::uint8{42}).bytes());
        zel::uint8 value = 0;
        archive->read(value);
        EXPECT_EQ(value, 42);
        for (const int level : log.levels())
            EXPECT_EQ(level, zel::Notify::Warning);
        return log.texts();
    }
    static std::vector<std::string> warningsOf(const ArchiveHead& head) {
        return warningsOf(ArchiveBytes(head).bytes());
    }
    /// Compares all that the reader tells of an archive with what its header tells by the rules of its
    /// version.
    static void expectHead(const ArchiveHead& head) {
        SCOPED_TRACE(testing::Message() << "version " << testing::PrintToString(head.version) << ", form "
                                        << head.serialization << (head.isLittleEndian ? "" : ", big-endian"));
        Opened archive(ArchiveBytes(head).scalar(zel::int32{-42}));
        const auto& [generation, major, minor, patch] = head.version;
        EXPECT_EQ(archive->getVersion(), ZEL_CALC_VERSION(generation, major, minor, patch));
        EXPECT_EQ(archive->getGenerationVersion(), generation);
        EXPECT_EQ(archive->getMajorVersion(), major);
        EXPECT_EQ(archive->getMinorVersion(), minor);
        EXPECT_EQ(archive->getPatchVersion(), patch);
        EXPECT_EQ(archive->getEndianMatch(),
                  head.isLittleEndian == (std::endian::native == std::endian::little));
        EXPECT_EQ(archive->getAppName(), head.appName);
        EXPECT_EQ(archive->getRevision(),
                  head.isBelow(5, 8, 0)    ? ""
                  : head.isBelow(17, 0, 0) ? "1234"
                                           : head.revision);
        const bool hasBuildInfo = !head.isBelow(0, 4, 0);
        EXPECT_EQ(archive->getBuildDate(), hasBuildInfo ? head.buildDate : "");
        EXPECT_EQ(archive->getBuildTime(), hasBuildInfo ? head.buildTime : "");
        std::vector<std::string> flags;
        for (const auto& flag : head.flags)
            if (hasBuildInfo && (!flag.isOld || head.isBelow(38, 0, 0)))
                flags.push_back(flag.name + std::string(flag.isSet ? " on" : " off"));
        std::vector<std::string> readFlags;
        for (const auto& flag : archive->getBuildFlags())
            readFlags.push_back(flag.name + (flag.isSet ? " on" : " off"));
        EXPECT_EQ(readFlags, flags);
        const int form = head.isBelow(5, 7, 0) ? 0 : head.serialization;
        EXPECT_EQ(archive->getSerializationVersion(), form);
        EXPECT_EQ(archive->getArchiveDate(), form > 80 ? head.date : "");
        EXPECT_EQ(archive->hasModification("904156fd"), form >= 86);
        EXPECT_EQ(archive->getModifications().size(), form >= 86 ? head.modifications.size() : 0);
        EXPECT_EQ(archive->getSectionStackString(), "Archive");
        zel::int32 value = 0;
        archive->read(value);
        EXPECT_EQ(value, -42);
        EXPECT_TRUE(archive->isAtEnd());
    }
};

TEST_F(InputArchiveHeaderTest, EachVersionIsReadInItsOrder) {
    using Version = std::array<zel::uint8, 4>;
    for (const Version& version : {Version{0, 0, 0, 0},
                                   Version{1, 255, 255, 255},
                                   Version{2, 0, 3, 255},
                                   Version{2, 0, 4, 0},
                                   Version{2, 5, 6, 255},
                                   Version{2, 5, 7, 0},
                                   Version{2, 5, 7, 255},
                                   Version{2, 5, 8, 0},
                                   Version{2, 16, 255, 255},
                                   Version{2, 17, 0, 0},
                                   Version{2, 37, 255, 255},
                                   Version{2, 38, 0, 0},
                                   Version{2, 40, 0, 0}})
        for (const zel::uint16 form :
             std::initializer_list<zel::uint16>{0, 2, 3, 25, 26, 27, 28, 80, 81, 85, 86, 90})
            for (const bool isLittleEndian : {true, false}) {
                ArchiveHead head;
                head.version = version;
                head.serialization = form;
                head.isLittleEndian = isLittleEndian;
                expectHead(head);
            }
}

TEST_F(InputArchiveHeaderTest, TheOldRevisionMayBeNegative) {
    ArchiveHead head;
    head.version = {2, 16, 0, 0};
    head.oldRevision = 0xFFFFFFFF;
    EXPECT_EQ(Opened(ArchiveBytes(head))->getRevision(), "-1");
}

TEST_F(InputArchiveHeaderTest, AFileWithAWrongMagicIsNoArchive) {
    std::string bytes = start().bytes();
    for (std::size_t i = 6; i < 10; ++i) {
        std::string wrong = bytes;
        wrong[i] = static_cast<char>(wrong[i] ^ 1);
        EXPECT_EQ(openErrorOf(wrong), BadMagic);
    }
    EXPECT_EQ(openErrorOf("<?xml version=\"1.0\"?>"), BadMagic);
    EXPECT_EQ(openErrorOf(std::string(10, '\0')), BadMagic);
}

TEST_F(InputArchiveHeaderTest, AFileOfAnotherKindIsNotToldToHaveOtherSizes) {
    const LogCapture log(zel::Notify::Warning);
    EXPECT_EQ(openErrorOf("0123456789abcdef"), BadMagic);
    EXPECT_EQ(log.text(), "");
}

TEST_F(InputArchiveHeaderTest, AMagicInTheOtherByteOrderIsWrong) {
    std::string bytes = start(true).bytes();
    bytes[0] = 0;
    EXPECT_EQ(openErrorOf(bytes), BadMagic);
}

TEST_F(InputArchiveHeaderTest, EachByteOrderButOneIsBigEndian) {
    for (const int byte : {0, 2, 255}) {
        std::string bytes = start(false).bytes();
        bytes[0] = static_cast<char>(byte);
        EXPECT_EQ(Opened(bytes)->getEndianMatch(), std::endian::native == std::endian::big) << byte;
    }
}

TEST_F(InputArchiveHeaderTest, AFileThatEndsAheadOfTheMagicIsToldAsTooShort) {
    const std::string bytes = start().bytes();
    EXPECT_EQ(openErrorOf(""),
              "Current scope: 'Archive'. Error occurred while reading 1 bytes from the input stream. Total "
              "number of bytes read: 0");
    EXPECT_EQ(openErrorOf(bytes.substr(0, 3)),
              "Current scope: 'Archive'. Error occurred while reading 5 bytes from the input stream. Total "
              "number of bytes read: 3");
    EXPECT_EQ(openErrorOf(bytes.substr(0, 9)),
              "Current scope: 'Archive/Version'. Error occurred while reading 4 bytes from the input stream. "
              "Total number of bytes read: 9");
}

TEST_F(InputArchiveHeaderTest, EachCutHeaderIsToldWithItsSection) {
    const std::string bytes = start().bytes();
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        const std::string error = openErrorOf(bytes.substr(0, size));
        EXPECT_THAT(error, testing::StartsWith("Current scope: 'Archive")) << size;
        EXPECT_THAT(error, HasSubstr("Error occurred while reading ")) << size;
        EXPECT_THAT(error, HasSubstr("Total number of bytes read: ")) << size;
    }
}

TEST_F(InputArchiveHeaderTest, OtherSizesOfTypesAreToldOnceAndReadingGoesOn) {
    std::string bytes = start().bytes();
    bytes[1] = 4;
    bytes[2] = 4;
    const auto warnings = warningsOf(bytes);
    ASSERT_EQ(warnings.size(), 1U);
    EXPECT_THAT(warnings[0], HasSubstr("long 4, pointer 4, int 4, double 8, float 4"));
    EXPECT_THAT(warnings[0], HasSubstr("long 8, pointer 8, int 4, double 8, float 4"));
    EXPECT_TRUE(warningsOf(start().bytes()).empty());
}

TEST_F(InputArchiveHeaderTest, AnArchiveOfANewerLibraryIsReadWithAWarning) {
    ArchiveHead head;
    head.version = {2, 41, 3, 4};
    auto warnings = warningsOf(head);
    ASSERT_EQ(warnings.size(), 1U);
    EXPECT_THAT(warnings[0],
                HasSubstr("ZEL version: 2.40.0.0 is less than archive version: 2.41.3.4. This can lead to "
                          "restore problems."));
    head.version = {255, 0, 0, 0};
    EXPECT_EQ(warningsOf(head).size(), 1U);
    head.version = {2, 39, 255, 255};
    EXPECT_TRUE(warningsOf(head).empty());
}

TEST_F(InputArchiveHeaderTest, ANewerSerializationVersionIsReadWithAWarning) {
    ArchiveHead head;
    head.serialization = 91;
    const auto warnings = warningsOf(head);
    ASSERT_EQ(warnings.size(), 1U);
    EXPECT_THAT(
        warnings[0],
        HasSubstr("ZEL serialization version: 90 is less than archive serialization version: 91. This "
                  "can lead to restore problems."));
    head.version = {3, 0, 0, 0};
    EXPECT_EQ(warningsOf(head).size(), 2U);
}

TEST_F(InputArchiveHeaderTest, AModificationThatIsNotKnownIsToldAndKept) {
    ArchiveHead head;
    head.modifications = {"12345678", "904156fd", "zzz"};
    const auto warnings = warningsOf(head);
    ASSERT_EQ(warnings.size(), 2U);
    EXPECT_THAT(warnings[0],
                HasSubstr("The archive contains a modification hash-string that is not recognized by ZEL "
                          "Core: (12345678). This can lead to restore problems."));
    EXPECT_THAT(warnings[1], HasSubstr("(zzz)"));
    Opened archive{ArchiveBytes(head)};
    EXPECT_TRUE(archive->hasModification("12345678"));
    EXPECT_TRUE(archive->hasModification("904156fd"));
    EXPECT_FALSE(archive->hasModification("87654321"));
    EXPECT_THAT(archive->getModifications(), testing::ElementsAre("12345678", "904156fd", "zzz"));
}

TEST_F(InputArchiveHeaderTest, AnArchiveWithoutModificationsHasNone) {
    ArchiveHead head;
    head.modifications.clear();
    EXPECT_FALSE(Opened(ArchiveBytes(head))->hasModification("904156fd"));
}

TEST_F(InputArchiveHeaderTest, MoreModificationsThanThereAreBytesAreToldAsTooShort) {
    ArchiveHead head;
    head.modifications.clear();
    std::string bytes = ArchiveBytes(head).bytes();
    bytes.replace(bytes.size() - 8, 8, 8, '\xFF'); // their number
    EXPECT_THAT(openErrorOf(bytes + ArchiveBytes().text("904156fd").bytes()),
                testing::StartsWith("Current scope: 'Archive/Modifications'. Error occurred while reading 4 "
                                    "bytes from the input stream"));
}

TEST_F(InputArchiveHeaderTest, NothingOfTheLastArchiveIsLeft) {
    ArchiveHead old;
    old.version = {2, 0, 0, 0};
    old.appName = "";
    std::istringstream first(start().bytes());
    std::istringstream second(ArchiveBytes(old).bytes());
    InputArchive archive;
    archive.open(first);
    archive.close();
    archive.open(second);
    EXPECT_EQ(archive.getSerializationVersion(), 0);
    EXPECT_EQ(archive.getRevision(), "");
    EXPECT_EQ(archive.getAppName(), "");
    EXPECT_EQ(archive.getBuildDate(), "");
    EXPECT_EQ(archive.getBuildTime(), "");
    EXPECT_EQ(archive.getArchiveDate(), "");
    EXPECT_TRUE(archive.getBuildFlags().empty());
    EXPECT_TRUE(archive.getModifications().empty());
    EXPECT_EQ(archive.getNumBytesRead(), 18U); // byte order, sizes, magic, the empty name, version
}

} // namespace
