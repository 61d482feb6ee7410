#include "ArchiveFixture.h"

#include <concepts>

using fleet::Wheel;
using testing::HasSubstr;
using zelStream::Archive;
using zelStream::ArchiveException;
using zelStream::InputArchive;
using zelStream::OutputArchive;
using zelStream::Serializable;
using zelTest::archiveErrorOf;
using zelTest::Opened;

// Sections and messages, which both ends of an archive share.

namespace {

template <typename T>
concept ArchiveWritable = requires(OutputArchive& archive, T value) {
    archive.write(value);
};

// A pointer would be a truth value otherwise.
static_assert(!ArchiveWritable<int*> && !ArchiveWritable<const double*> && !ArchiveWritable<void*>);
static_assert(!ArchiveWritable<std::nullptr_t> || !ArchiveWritable<int*>);
static_assert(ArchiveWritable<Wheel*> && ArchiveWritable<const Wheel*> && ArchiveWritable<const char*>);
static_assert(ArchiveWritable<bool> && ArchiveWritable<std::string> && ArchiveWritable<zel::String>);
static_assert(std::derived_from<ArchiveException, std::exception>);
static_assert(Archive::ByReference == 1 && Archive::ByValue == 2 && Archive::NewObject == 4 &&
              Archive::KnownObject == 8 && Archive::NullObject == 16 && Archive::Magic == 0x0FADDED0);

class ArchiveTest : public zelTest::ArchiveFixture {
protected:
    void SetUp() override {
        ArchiveFixture::SetUp();
        m_archive.open(m_stream);
    }
    std::string errorOfNext() {
        return archiveErrorOf([&] { m_archive.write(1); });
    }
    std::ostringstream m_stream;
    OutputArchive m_archive;
};

TEST_F(ArchiveTest, AnExceptionKeepsItsText) {
    const ArchiveException exception("no fuel");
    EXPECT_STREQ(exception.what(), "no fuel");
    const ArchiveException copy(exception);
    EXPECT_STREQ(copy.what(), "no fuel");
}

TEST_F(ArchiveTest, IsBinary) {
    EXPECT_TRUE(m_archive.isBinary());
    EXPECT_TRUE(InputArchive().isBinary());
}

TEST_F(ArchiveTest, MessagesTellTheOpenSections) {
    EXPECT_EQ(m_archive.getErrorMessage("No fuel"), "Current scope: 'Archive'. No fuel");
    m_archive.beginSection("Depot");
    m_archive.beginSection("Tank");
    EXPECT_EQ(m_archive.getSectionStackString(), "Archive/Depot/Tank");
    EXPECT_EQ(m_archive.getErrorMessage("No fuel"), "Current scope: 'Archive/Depot/Tank'. No fuel");
    m_archive.endSection("Tank");
    EXPECT_EQ(m_archive.getSectionStackString(), "Archive/Depot");
}

TEST_F(ArchiveTest, AMessageShortensALongRowOfSectionsInItsMiddle) {
    std::string sections = "Archive";
    const auto begin = [&](const std::string& name) {
        m_archive.beginSection(name.c_str());
        sections += "/" + name;
    };
    begin(std::string(392, 'a'));
    EXPECT_EQ(m_archive.getErrorMessage("No fuel"), "Current scope: '" + sections + "'. No fuel");
    begin("b");
    EXPECT_EQ(m_archive.getErrorMessage("No fuel"),
              "Current scope: 'Archive/.../b'. No fuel"); // the long name is left out whole
    for (int i = 0; i < 1000; ++i)
        begin("Object");
    begin("TypeHeader");
    EXPECT_EQ(m_archive.getErrorMessage("No fuel"), [] {
        std::string text = "Current scope: 'Archive/.../Object";
        for (int i = 1; i < 27; ++i)
            text += "/Object";
        return text + "/TypeHeader'. No fuel";
    }());
    EXPECT_EQ(m_archive.getSectionStackString(), sections);
}

TEST_F(ArchiveTest, AMessageShortensANameThatIsLongByItself) {
    const std::string name(100000, 'a');
    m_archive.beginSection(name.c_str());
    EXPECT_EQ(m_archive.getErrorMessage("No fuel"),
              "Current scope: 'Archive/.../" + std::string(200, 'a') + "'. No fuel");
}

TEST_F(ArchiveTest, AMessageWithoutSectionsIsTheTextAlone) {
    EXPECT_EQ(OutputArchive().getErrorMessage("No fuel"), "No fuel");
    EXPECT_EQ(InputArchive().getErrorMessage("No fuel"), "No fuel");
    EXPECT_EQ(InputArchive().getSectionStackString(), "");
}

TEST_F(ArchiveTest, ASectionHasToEndUnderItsName) {
    m_archive.beginSection("Depot");
    constexpr const char* Text =
        "Current scope: 'Archive/Depot'. Call to endSection(\"Tank\") does not match previous call to "
        "beginSection(\"Depot\") at path: 'Archive/Depot'";
    EXPECT_EQ(archiveErrorOf([&] { m_archive.endSection("Tank"); }), Text);
    EXPECT_EQ(m_archive.getSectionStackString(), "Archive/Depot");
}

TEST_F(ArchiveTest, TheReaderComparesTheNamesOfSectionsToo) {
    Opened archive(start());
    archive->beginSection("Depot");
    EXPECT_EQ(archiveErrorOf([&] { archive->endSection("Tank"); }),
              "Current scope: 'Archive/Depot'. Call to endSection(\"Tank\") does not match previous call to "
              "beginSection(\"Depot\") at path: 'Archive/Depot'");
    archive->endSection("Depot");
    EXPECT_EQ(archive->getSectionStackString(), "Archive");
}

TEST_F(ArchiveTest, ASectionHasAName) {
    EXPECT_NE(archiveErrorOf([&] { m_archive.beginSection(nullptr); }), "no exception");
    EXPECT_NE(archiveErrorOf([&] { m_archive.endSection(nullptr); }), "no exception");
    EXPECT_EQ(m_archive.getSectionStackString(), "Archive");
}

TEST_F(ArchiveTest, NothingEndsWhereNothingBegan) {
    InputArchive closed;
    EXPECT_NE(archiveErrorOf([&] { closed.endSection("Depot"); }), "no exception");
}

TEST_F(ArchiveTest, AScopedSectionEndsItself) {
    {
        const Archive::ScopedSection outer(m_archive, "Depot");
        const Archive::ScopedSection inner(m_archive, "Tank");
        EXPECT_EQ(m_archive.getSectionStackString(), "Archive/Depot/Tank");
    }
    EXPECT_EQ(m_archive.getSectionStackString(), "Archive");
    EXPECT_FALSE(m_archive.hasFailed());
}

TEST_F(ArchiveTest, AScopedSectionGoesBackToItsDepthWhereAnExceptionLeavesIt) {
    try {
        const Archive::ScopedSection section(m_archive, "Depot");
        m_archive.beginSection("Tank");
        throw 1;
    } catch (int) {
        EXPECT_EQ(m_archive.getSectionStackString(), "Archive");
    }
    EXPECT_FALSE(m_archive.hasFailed());
    EXPECT_EQ(errorOfNext(), "no exception");
}

TEST_F(ArchiveTest, ASectionThatIsLeftOpenWithinAScopedOneFailsTheNextOperation) {
    {
        const Archive::ScopedSection section(m_archive, "Depot");
        m_archive.beginSection("Tank");
    }
    EXPECT_EQ(m_archive.getSectionStackString(), "Archive");
    EXPECT_TRUE(m_archive.hasFailed());
    const std::string error = errorOfNext();
    EXPECT_THAT(error,
                HasSubstr("endSection(\"Depot\") does not match previous call to beginSection(\"Tank\")"));
    EXPECT_THAT(error, HasSubstr("at path: 'Archive/Depot/Tank'"));
    EXPECT_EQ(archiveErrorOf([&] { m_archive.close(); }), error);
}

TEST_F(ArchiveTest, AScopedSectionThatWasEndedByHandFailsTheNextOperation) {
    m_archive.beginSection("Depot");
    {
        const Archive::ScopedSection section(m_archive, "Tank");
        m_archive.endSection("Tank");
    }
    EXPECT_EQ(m_archive.getSectionStackString(), "Archive/Depot");
    EXPECT_EQ(errorOfNext(),
              "Current scope: 'Archive/Depot'. Call to endSection(\"Tank\") does not match previous call to "
              "beginSection(\"Depot\") at path: 'Archive/Depot'");
}

TEST_F(ArchiveTest, AScopedSectionWhosePlaceAnotherTookFailsTheNextOperation) {
    {
        const Archive::ScopedSection section(m_archive, "Tank");
        m_archive.endSection("Tank");
        m_archive.beginSection("Hall");
    }
    EXPECT_EQ(m_archive.getSectionStackString(), "Archive");
    EXPECT_EQ(errorOfNext(),
              "Current scope: 'Archive/Hall'. Call to endSection(\"Tank\") does not match previous call to "
              "beginSection(\"Hall\") at path: 'Archive/Hall'");
}

TEST_F(ArchiveTest, AScopedSectionWithoutANameThrowsAndLeavesNothing) {
    EXPECT_NE(archiveErrorOf([&] { const Archive::ScopedSection section(m_archive, nullptr); }),
              "no exception");
    EXPECT_EQ(m_archive.getSectionStackString(), "Archive");
}

TEST_F(ArchiveTest, AScopedSectionWithinAnotherExceptionStillNotesWhatWasLeftOpen) {
    struct Closing {
        OutputArchive& archive;
        ~Closing() {
            const Archive::ScopedSection section(archive, "Depot");
            archive.beginSection("Tank");
        }
    };
    try {
        const Closing closing{m_archive};
        throw 1;
    } catch (int) {
        EXPECT_TRUE(m_archive.hasFailed());
    }
    EXPECT_THAT(errorOfNext(), HasSubstr("beginSection(\"Tank\")"));
}

} // namespace
