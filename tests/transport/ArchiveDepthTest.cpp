#include "ArchiveFixture.h"

#include <support/SmallStack.h>
#include <support/Stress.h>

#include <regex>

using fleet::Barge;
using fleet::Wagon;
using testing::HasSubstr;
using zel::ref_ptr;
using zelStream::InputArchive;
using zelStream::OutputArchive;
using zelTest::ArchiveBytes;
using zelTest::archiveErrorOf;
using zelTest::Listening;
using zelTest::uuidOf;

// Rows of objects that are longer than a stack is deep.

namespace {

constexpr std::size_t Million = 1'000'000;

class ArchiveDepthTest : public zelTest::ArchiveFixture {
protected:
    void SetUp() override {
        ArchiveFixture::SetUp();
        zelStream::Serializable::setEnableUuidGeneration(false); // which would take most of the time
    }
    void TearDown() override {
        zelStream::Serializable::setEnableUuidGeneration(true);
        ArchiveFixture::TearDown();
    }
    template <typename Link>
    static std::vector<ref_ptr<Link>> makeRow(std::size_t length, bool isRing) {
        std::vector<ref_ptr<Link>> row(length);
        for (auto& link : row)
            link = new Link;
        for (std::size_t i = 0; i + 1 < length; ++i)
            row[i]->next = row[i + 1].get();
        if (isRing)
            row.back()->next = row.front().get();
        return row;
    }
    template <typename Link>
    static std::string store(const std::vector<ref_ptr<Link>>& row, bool isLittleEndian = true) {
        return archiveOf([&](OutputArchive& archive) { archive.write(row.front().get()); }, isLittleEndian);
    }
    /// How many links there are until the first one comes again, or none.
    template <typename Link>
    static std::size_t countLinks(const Link* first, bool& isRing) {
        std::size_t count = 1;
        const Link* link = first;
        for (; link->next != nullptr && link->next != first; link = link->next)
            ++count;
        isRing = link->next == first;
        return count;
    }
    template <typename Link>
    static void expectRow(const std::string& bytes, std::size_t length, bool isRing) {
        zelTest::Opened archive(bytes);
        Link* first = nullptr;
        archive->read(first);
        ASSERT_NE(first, nullptr);
        bool isClosed = false;
        EXPECT_EQ(countLinks(first, isClosed), length);
        EXPECT_EQ(isClosed, isRing);
        EXPECT_TRUE(archive->isAtEnd());
        EXPECT_EQ(archive->getNumObjectsRead(), length);
    }
    /// The depth that the text of an exception tells.
    static std::size_t depthOf(const std::string& error) {
        std::smatch match;
        EXPECT_LT(error.size(), 1024U);
        const std::size_t at = error.rfind("Objects are nested too deep");
        EXPECT_NE(at, std::string::npos) << error.substr(0, 200);
        if (at == std::string::npos)
            return 0;
        const std::string text = error.substr(at);
        EXPECT_TRUE(std::regex_search(text, match, std::regex("[0-9]+"))) << text;
        return match.empty() ? 0 : std::stoul(match[0]);
    }
    /// The bytes of a row, of which each link holds the next one.
    static std::string nestedBytes(std::size_t length) {
        ArchiveBytes head = start().newObject(1, 1, "fleet::Wagon").base(uuidOf(1));
        ArchiveBytes second;
        second.newObject(2, 1).base(uuidOf(1));
        std::string bytes = head.bytes();
        for (std::size_t i = 1; i < length; ++i) {
            // As ArchiveBytes does, which would take too long for its listing.
            std::string next = second.bytes();
            for (std::size_t byte = 0; byte < 4; ++byte)
                next[next.size() - 18 - 4 + byte] = static_cast<char>((i + 1) >> (8 * byte));
            bytes += next;
        }
        return bytes + ArchiveBytes().null().bytes();
    }
};

TEST_F(ArchiveDepthTest, ShortRowsNeedNothingOfTheKind) {
    for (const bool isRing : {false, true})
        for (const bool isLittleEndian : {false, true}) {
            expectRow<Wagon>(store(makeRow<Wagon>(1000, isRing), isLittleEndian), 1000, isRing);
            expectRow<Barge>(store(makeRow<Barge>(1000, isRing), isLittleEndian), 1000, isRing);
            expectRow<Barge>(store(makeRow<Barge>(1, isRing), isLittleEndian), 1, isRing);
        }
}

TEST_F(ArchiveDepthTest, AMillionNestedObjectsAreRefusedWhereTheyAreStored) {
    for (const bool isRing : {false, true}) {
        const auto row = makeRow<Wagon>(Million, isRing);
        std::ostringstream stream;
        OutputArchive archive;
        archive.open(stream);
        std::string error;
        zelTest::onSmallStack([&] { error = archiveErrorOf([&] { archive.write(row.front().get()); }); });
        const std::size_t depth = depthOf(error);
        EXPECT_GE(depth, 1000U);
        EXPECT_LT(depth, Million);
        EXPECT_EQ(archive.getSectionStackString(), "Archive");
        EXPECT_TRUE(archive.hasFailed());
        EXPECT_THAT(archiveErrorOf([&] { archive.close(); }), HasSubstr("Objects are nested too deep"));
    }
}

TEST_F(ArchiveDepthTest, AMillionNestedObjectsAreRefusedWhereTheyAreRestored) {
    const std::string bytes = nestedBytes(Million);
    zelTest::Opened archive(bytes);
    std::string error;
    zelTest::onSmallStack([&] { error = archiveErrorOf([&] { (void)archive->readObjectByRef(); }); });
    const std::size_t depth = depthOf(error);
    EXPECT_GE(depth, 1000U);
    EXPECT_LT(depth, Million);
    EXPECT_EQ(archive->getSectionStackString(), "Archive");
}

TEST_F(ArchiveDepthTest, WhatWasStoredNestedIsRestoredNested) {
    // As deep as this test's bytes go: the reader needs no more stack than the writer had.
    expectRow<Wagon>(nestedBytes(1000), 1000, false);
    EXPECT_EQ(nestedBytes(3).substr(start().size()),
              ArchiveBytes()
                  .newObject(1, 1, "fleet::Wagon")
                  .base(uuidOf(1))
                  .newObject(2, 1)
                  .base(uuidOf(1))
                  .newObject(3, 1)
                  .base(uuidOf(1))
                  .null()
                  .bytes());
}

TEST_F(ArchiveDepthTest, AMillionObjectsThatArePutOffAreStoredAndRestored) {
    for (const bool isRing : {false, true})
        for (const bool isLittleEndian : {false, true}) {
            const auto row = makeRow<Barge>(Million, isRing);
            expectRow<Barge>(store(row, isLittleEndian), Million, isRing);
        }
}

} // namespace
