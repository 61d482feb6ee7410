#include "XMLArchiveFixture.h"

#include <zelCore/Version.h>

#include <support/CommaLocale.h>
#include <support/Golden.h>
#include <tinyxml.h>

#include <bit>
#include <cmath>
#include <limits>

using zel::ref_ptr;
using zelStream::XMLInputArchive;
using zelStream::XMLOutputArchive;
using zelTest::archiveErrorOf;
using zelTest::documentOf;
using zelTest::OpenedXml;

namespace {

class XMLInputArchiveTest : public zelTest::XMLArchiveFixture {
protected:
    template <typename T>
    static void expectLimitsReadBack() {
        using Limits = std::numeric_limits<T>;
        for (const T value : {Limits::min(), Limits::lowest(), Limits::max(), T{0}, T{1}, static_cast<T>(-1)})
            expectReadsBack(value);
    }
    template <typename T>
    static void expectRealsReadBack() {
        using Limits = std::numeric_limits<T>;
        expectLimitsReadBack<T>();
        for (const T value : {Limits::infinity(),
                              -Limits::infinity(),
                              Limits::denorm_min(),
                              -Limits::denorm_min(),
                              zelTest::largestDenormal<T>(),
                              std::nextafter(T{1}, T{2}),
                              T{1} / 3,
                              Limits::epsilon()}) {
            expectReadsBack(value);
            expectReadsBack(zel::Vec3T<T>(value, -value, value));
        }
    }
    template <typename T>
    static void expectReadsBack(const T& value) {
        XMLArchiveFixture::expectReadsBack(value);
    }
    template <typename T>
    static void expectReadsBack(const zel::Vec3T<T>& value) {
        const std::string text = xmlOf([&value](XMLOutputArchive& archive) { archive.write(value); });
        zel::Vec3T<T> read;
        OpenedXml(text)->read(read);
        for (int i = 0; i < 3; ++i)
            EXPECT_TRUE(zelTest::isSame(read.data()[i], value.data()[i])) << text;
    }
};

TEST_F(XMLInputArchiveTest, ReadsEachTypeBackAtItsLimits) {
    expectLimitsReadBack<zel::int8>();
    expectLimitsReadBack<zel::uint8>();
    expectLimitsReadBack<zel::int16>();
    expectLimitsReadBack<zel::uint16>();
    expectLimitsReadBack<zel::int32>();
    expectLimitsReadBack<zel::uint32>();
    expectLimitsReadBack<zel::int64>();
    expectLimitsReadBack<zel::uint64>();
    expectRealsReadBack<float>();
    expectRealsReadBack<double>();
    expectReadsBack(true);
    expectReadsBack(false);
}

TEST_F(XMLInputArchiveTest, ReadsEachCharacterBack) {
    for (int code = -128; code < 128; ++code)
        expectReadsBack(static_cast<char>(code));
}

TEST_F(XMLInputArchiveTest, KeepsTheSignOfZeroAndWhatIsNoNumber) {
    const std::string text = xmlOf([](XMLOutputArchive& archive) {
        archive.write(-0.0);
        archive.write(zel::Vec3d(-0.0, std::nan(""), 0));
        archive.addAttribute("nan", std::nanf(""));
    });
    OpenedXml archive(text);
    double zero = 1;
    zel::Vec3d vector;
    float none = 0;
    archive->read(zero);
    archive->read(vector);
    archive->getAttribute("nan", none);
    EXPECT_TRUE(zero == 0 && std::signbit(zero));
    EXPECT_TRUE(vector[0] == 0 && std::signbit(vector[0]));
    EXPECT_TRUE(std::isnan(vector[1]));
    EXPECT_TRUE(std::isnan(none));
}

TEST_F(XMLInputArchiveTest, ReadsEachStringBack) {
    std::string bytes;
    for (int code = 0; code < 256; ++code)
        bytes += static_cast<char>(code);
    for (const std::string& text : {std::string(),
                                    std::string(" "),
                                    std::string("  a  b  "),
                                    bytes,
                                    std::string("]]>"),
                                    std::string("\\e"),
                                    std::string("\\"),
                                    std::string("&amp;&#x41;&#65;"),
                                    std::string("<![CDATA[x]]>"),
                                    std::string("\xc3\xa4\xe2\x82\xac"),
                                    std::string("\xef\xbb\xbf"),
                                    std::string("\xed\xa0\x80"),
                                    std::string("\r\n\t"),
                                    std::string(100'000, 'x')})
        expectReadsBack(text);
}

TEST_F(XMLInputArchiveTest, ReadsNamesUuidsBlocksAndVectorsBack) {
    expectReadsBack(zel::Name("a name"));
    expectReadsBack(zelTest::uuidOf(7));
    expectReadsBack(zel::Uuid());
    for (std::size_t n = 0; n < 20; ++n) {
        std::string block;
        for (std::size_t i = 0; i < n; ++i)
            block += static_cast<char>(255 - 13 * i);
        const std::string text = xmlOf([&block](XMLOutputArchive& archive) {
            archive.write(block.data(), block.size());
            archive.write(1);
        });
        OpenedXml archive(text);
        std::string read(n, 'x');
        int end = 0;
        archive->read(read.data(), n);
        archive->read(end);
        EXPECT_EQ(read, block);
        EXPECT_EQ(end, 1);
    }
}

TEST_F(XMLInputArchiveTest, ReadsQuaternionsAndMatricesBackRowByRow) {
    zel::Quatd turn;
    zel::Matrix3x3f small;
    zel::Matrix4x4d large;
    for (std::size_t i = 0; i < 16; ++i) {
        large.data()[i] = 0.1 * static_cast<double>(i);
        small.data()[i % 9] = static_cast<float>(i);
        turn.data()[i % 4] = -static_cast<double>(i);
    }
    const std::string text = xmlOf([&](XMLOutputArchive& archive) {
        archive.write(turn);
        archive.write(small);
        archive.write(large);
    });
    OpenedXml archive(text);
    zel::Quatd turnRead;
    zel::Matrix3x3f smallRead;
    archive->read(turnRead);
    archive->read(smallRead);
    for (std::size_t row = 0; row < 4; ++row)
        for (std::size_t column = 0; column < 4; ++column) {
            double read = 0;
            archive->read(read);
            EXPECT_EQ(read, large(row, column));
        }
    EXPECT_TRUE(archive->isAtEnd());
    EXPECT_TRUE(std::equal(turn.data(), turn.data() + 4, turnRead.data()));
    EXPECT_TRUE(std::equal(small.data(), small.data() + 9, smallRead.data()));
}

template <typename T>
zel::Vector<T> throughXml(const std::string& text) {
    zel::Vector<T> values{T{}, T{}};
    OpenedXml(text)->read(values);
    return values;
}

TEST_F(XMLInputArchiveTest, ReadsVectorsBackAlsoInTheOtherWidth) {
    const auto textOfVector = [](const auto& values) {
        return xmlOf([&values](XMLOutputArchive& archive) { archive.write(values); });
    };
    EXPECT_EQ(throughXml<zel::uint16>(textOfVector(zel::Vector<zel::uint16>{0, 65535})),
              (zel::Vector<zel::uint16>{0, 65535}));
    EXPECT_EQ(throughXml<double>(textOfVector(zel::Vector<float>{0.1F, -2})),
              (zel::Vector<double>{0.1F, -2}));
    EXPECT_EQ(throughXml<float>(textOfVector(zel::Vector<double>{0.1, 1e300})),
              (zel::Vector<float>{0.1F, std::numeric_limits<float>::infinity()}));
    EXPECT_TRUE(throughXml<double>(textOfVector(zel::Vector<double>())).empty());
    const auto places = throughXml<zel::Vec3d>(textOfVector(zel::Vector<zel::Vec3f>{{1, 2, 3}, {4, 5, 6}}));
    ASSERT_EQ(places.size(), 2U);
    EXPECT_EQ(places[1][2], 6);
    EXPECT_EQ(places[1].data()[3], 0);
}

TEST_F(XMLInputArchiveTest, ReadsTheHeader) {
    std::ostringstream stream;
    XMLOutputArchive output;
    output.addModification("deadbeef");
    output.open(stream, "an \"app\"");
    output.close();
    OpenedXml archive(stream.str());
    EXPECT_EQ(archive->getAppName(), "an \"app\"");
    EXPECT_EQ(archive->getVersion(), ZEL_GET_VERSION());
    EXPECT_TRUE(archive->getEndianMatch());
    EXPECT_FALSE(archive->isBinary());
    EXPECT_EQ(archive->getBuildFlags().size(), 7U);
    EXPECT_TRUE(archive->hasModification("904156fd"));
    EXPECT_TRUE(archive->hasModification("deadbeef"));
    EXPECT_EQ(archive->getNumBytesRead(), stream.str().size());
}

TEST_F(XMLInputArchiveTest, RestoresAGraphWithSharedObjectsAndCycles) {
    const std::string text = xmlOf([](XMLOutputArchive& archive) {
        fleet::Vehicle first("first one");
        fleet::Vehicle second("");
        first.leader = &second;
        second.leader = &first;
        first.spare = second.spare = new fleet::Wheel(2.5);
        first.motor.drives = first.spare;
        first.motor.power = -3;
        archive.write(&first);
        archive.write(&second);
    });
    OpenedXml archive(text);
    ref_ptr<fleet::Vehicle> first;
    ref_ptr<fleet::Vehicle> second;
    archive->read(first);
    archive->read(second);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->name, "first one");
    EXPECT_EQ(second->name, "");
    EXPECT_EQ(first->leader, second.get());
    EXPECT_EQ(second->leader, first.get());
    EXPECT_EQ(first->spare, second->spare);
    EXPECT_EQ(first->motor.drives, first->spare);
    EXPECT_EQ(first->motor.power, -3);
    EXPECT_EQ(first->spare->radius, 2.5);
    EXPECT_TRUE(archive->isAtEnd());
}

TEST_F(XMLInputArchiveTest, ReadsSectionsOfOneNameInTheirOrder) {
    const std::string text = xmlOf([](XMLOutputArchive& archive) {
        for (const int i : {1, 2}) {
            archive.beginSection("S");
            archive.write(i);
            archive.endSection("S");
        }
    });
    OpenedXml archive(text);
    for (const int i : {1, 2}) {
        int read = 0;
        archive->beginSection("S");
        archive->read(read);
        EXPECT_TRUE(archive->isAtEnd());
        archive->endSection("S");
        EXPECT_EQ(read, i);
    }
    EXPECT_EQ(archiveErrorOf([&] { archive->beginSection("S"); }),
              "Current scope: 'Archive'. Unable to find section 'S'");
}

TEST_F(XMLInputArchiveTest, StandsWhereItStoodBehindASearchThatFailed) {
    OpenedXml archive(documentOf("<A>1</A><B>2</B>"));
    EXPECT_EQ(archiveErrorOf([&] { archive->beginSection("C"); }),
              "Current scope: 'Archive'. Unable to find section 'C'");
    archive->beginSection("A");
    EXPECT_EQ(archiveErrorOf([&] { archive->beginSection("B"); }),
              "Current scope: 'Archive/A'. Unable to find section 'B'");
    EXPECT_EQ(archiveErrorOf([&] { archive->endSection("B"); }),
              "Current scope: 'Archive/A'. Call to endSection(\"B\") does not match previous call to "
              "beginSection(\"A\") at path: 'Archive/A'");
    archive->endSection("A");
    archive->beginSection("B");
    archive->endSection("B");
    EXPECT_EQ(archiveErrorOf([&] { archive->beginSection("A"); }),
              "Current scope: 'Archive'. Unable to find section 'A'");
}

TEST_F(XMLInputArchiveTest, SaysThatTheStackIsEmptyAheadOfTheRoot) {
    EXPECT_EQ(archiveErrorOf([] { OpenedXml("<Other/>"); }), "Unable to find section 'Archive': stack empty");
}

TEST_F(XMLInputArchiveTest, FindsElementsAndTellsTheirPath) {
    OpenedXml archive(documentOf("<A n='1'/><A n='2'/>"));
    EXPECT_STREQ(archive->getElement("A")->Attribute("n"), "1");
    TiXmlElement* const second = archive->getElement("A");
    EXPECT_STREQ(second->Attribute("n"), "2");
    EXPECT_EQ(XMLInputArchive::getXMLPath(second), "Archive/A");
    EXPECT_EQ(XMLInputArchive::getXMLPath(nullptr), "");
    EXPECT_EQ(archiveErrorOf([&] { archive->getElement("A"); }),
              "Current scope: 'Archive'. Unable to find element 'A'");
    EXPECT_EQ(archiveErrorOf([&] { archive->getElement(nullptr); }),
              "Current scope: 'Archive'. Unable to find element ''");
}

TEST_F(XMLInputArchiveTest, ReadsADocumentThatWasEditedByHand) {
    const std::string text =
        documentOf("<!-- ahead -->\n\t 1\r\n  <S\n b = '2'\n a=\"x y\" /> <?tool 9?>\n\n2"
                   "<!-- 8 -->3 <![CDATA[4 5]]> <T> &#x36;\t&lt; </T>7");
    OpenedXml archive(text);
    const auto readsAs = [&archive](int value) {
        int read = 0;
        archive->read(read);
        EXPECT_EQ(read, value);
    };
    readsAs(1);
    readsAs(2);
    readsAs(3);
    readsAs(4);
    readsAs(5);
    archive->beginSection("S");
    std::string a;
    int b = 0;
    archive->getAttribute("a", a);
    archive->getAttribute("b", b);
    archive->getAttribute("a", a);
    EXPECT_EQ(a, "x y");
    EXPECT_EQ(b, 2);
    archive->endSection("S");
    archive->beginSection("T");
    readsAs(6);
    std::string less;
    archive->read(less);
    EXPECT_EQ(less, "<");
    archive->endSection("T");
    EXPECT_FALSE(archive->isAtEnd());
    readsAs(7);
    EXPECT_TRUE(archive->isAtEnd());
}

TEST_F(XMLInputArchiveTest, TakesBothFormsOfRealsAndOfVectors) {
    OpenedXml archive(documentOf("15 1.5 1.5e0 -INF 1 2E0 3.5"));
    for (const double expected : {15.0, 1.5, 1.5, -std::numeric_limits<double>::infinity()}) {
        double read = 0;
        archive->read(read);
        EXPECT_EQ(read, expected);
    }
    zel::Vec3f vector;
    archive->read(vector);
    EXPECT_EQ(vector, zel::Vec3f(1, 2, 3.5F));
}

TEST_F(XMLInputArchiveTest, ReadsNumbersWithAPointInALocaleWithCommas) {
    const zelTest::CommaLocale comma;
    OpenedXml archive(documentOf("1.5"));
    double read = 0;
    archive->read(read);
    EXPECT_EQ(read, 1.5);
}

TEST_F(XMLInputArchiveTest, ReadsAnEmptyCharAttributeAsZero) {
    OpenedXml archive(documentOf("<S c='' b=' '/>"));
    archive->beginSection("S");
    char c = 'x';
    archive->getAttribute("c", c);
    EXPECT_EQ(c, 0);
    archive->getAttribute("b", c);
    EXPECT_EQ(c, ' ');
}

TEST_F(XMLInputArchiveTest, CanBeOpenedAgain) {
    XMLInputArchive archive;
    for (const int value : {1, 2}) {
        std::istringstream stream(documentOf(std::to_string(value)));
        archive.open(stream);
        int read = 0;
        archive.read(read);
        EXPECT_EQ(read, value);
        archive.close();
        EXPECT_EQ(archiveErrorOf([&] { archive.read(read); }), "Archive not opened");
    }
}

TEST_F(XMLInputArchiveTest, RefusesToReadWhileClosed) {
    XMLInputArchive archive;
    const std::string text = "Archive not opened";
    int number = 0;
    std::string string;
    zel::Vector<float> vector;
    std::istringstream stream;
    EXPECT_EQ(archiveErrorOf([&] { archive.read(number); }), text);
    EXPECT_EQ(archiveErrorOf([&] { archive.getAttribute("c", string[0]); }), text);
    EXPECT_EQ(archiveErrorOf([&] { archive.read(string); }), text);
    EXPECT_EQ(archiveErrorOf([&] { archive.read(&number, 1); }), text);
    EXPECT_EQ(archiveErrorOf([&] { archive.read(vector); }), text);
    EXPECT_EQ(archiveErrorOf([&] { archive.beginSection("a"); }), text);
    EXPECT_EQ(archiveErrorOf([&] { archive.getElement("a"); }), text);
    EXPECT_EQ(archiveErrorOf([&] { archive.isAtEnd(); }), text);
    EXPECT_EQ(archiveErrorOf([&] { archive.init(stream); }), text);
}

TEST_F(XMLInputArchiveTest, ReadsTheGoldenArchive) {
    std::ifstream file(std::string(ZEL_TEST_SOURCES) + "/golden/archives/2.38.0.0.80.xml");
    ASSERT_TRUE(file.good());
    XMLInputArchive archive;
    archive.open(file);
    EXPECT_EQ(archive.getAppName(), "golden");
    EXPECT_EQ(archive.getSerializationVersion(), 80);
    EXPECT_EQ(archive.getRevision(), "r1");
    ref_ptr<fleet::Vehicle> first;
    archive.read(first);
    EXPECT_EQ(first->name, "first one");
    EXPECT_EQ(first->leader, first.get());
    EXPECT_EQ(first->spare->radius, 0.5);
    EXPECT_EQ(first->motor.power, -7);
    EXPECT_EQ(first->motor.drives, first->spare);
    zel::Vec3d place;
    archive.read(place);
    EXPECT_EQ(place, zel::Vec3d(1, -2, 0.25));
    std::string text;
    archive.read(text);
    EXPECT_EQ(text, "a b\n");
    EXPECT_TRUE(archive.isAtEnd());
}

} // namespace
