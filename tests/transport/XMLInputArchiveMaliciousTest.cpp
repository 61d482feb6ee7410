#include "XMLArchiveFixture.h"

#include <support/SmallStack.h>

#include <sstream>
#include <utility>
#include <vector>

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;
using zel::ref_ptr;
using zelStream::XMLInputArchive;
using zelStream::XMLOutputArchive;
using zelTest::archiveErrorOf;
using zelTest::documentOf;
using zelTest::OpenedXml;

namespace {

class XMLInputArchiveMaliciousTest : public zelTest::XMLArchiveFixture {
protected:
    /// What opening the text gives.
    static std::string errorOf(const std::string& text) {
        return archiveErrorOf([&text] { const OpenedXml archive(text); });
    }
    /// What reading a value gives, out of the text of an element "V"; the value is left alone.
    template <typename T>
    static std::string plainErrorOf(const std::string& text) {
        OpenedXml archive(documentOf("<V>" + text + "</V>"));
        archive->beginSection("V");
        T value{};
        const std::string error = archiveErrorOf([&] { archive->read(value); });
        EXPECT_EQ(value, T{});
        return error;
    }
    /// The same of the attribute "a".
    template <typename T>
    static std::string attributeErrorOf(const std::string& text) {
        OpenedXml archive(documentOf("<V " + text + "/>"));
        archive->beginSection("V");
        T value{};
        const std::string error = archiveErrorOf([&] { archive->getAttribute("a", value); });
        EXPECT_EQ(value, T{});
        return error;
    }
    static std::string nested(std::size_t depth) {
        std::string text;
        for (std::size_t i = 0; i < depth; ++i)
            text += "<a>";
        for (std::size_t i = 0; i < depth; ++i)
            text += "</a>";
        return text;
    }
};

const std::string Scope = "Current scope: 'Archive/V'. ";
const std::string Parsing = "Error while parsing XML stream: ";

TEST_F(XMLInputArchiveMaliciousTest, AStreamThatThrowsAtItsEndIsReadLikeAnyOther) {
    for (const auto mask : {std::ios::eofbit, std::ios::failbit, std::ios::badbit}) {
        std::istringstream stream(documentOf("<V>7</V>"));
        stream.exceptions(mask);
        XMLInputArchive archive;
        archive.open(stream);
        archive.beginSection("V");
        int value = 0;
        archive.read(value);
        EXPECT_EQ(value, 7);
        std::istringstream empty;
        empty.exceptions(mask);
        XMLInputArchive other;
        EXPECT_EQ(archiveErrorOf([&] { other.open(empty); }), "No document available while parsing");
    }
}

TEST_F(XMLInputArchiveMaliciousTest, RefusesNumbersWithTailsAndOutOfRange) {
    for (const char* text :
         {"1x", "1.5", "+1", "0x1", "1,", "2147483648", "-2147483649", "-", "1e3", "&#x661;"})
        EXPECT_EQ(plainErrorOf<zel::int32>(text),
                  Scope + "Error while reading a signed int in path: Archive/V");
    for (const char* text : {"1x", "-1", "4294967296", "18446744073709551616"})
        EXPECT_EQ(plainErrorOf<zel::uint32>(text),
                  Scope + "Error while reading an unsigned int in path: Archive/V");
    EXPECT_EQ(plainErrorOf<zel::int8>("128"), Scope + "Error while reading a signed int in path: Archive/V");
    EXPECT_EQ(plainErrorOf<zel::uint8>("256"),
              Scope + "Error while reading an unsigned int in path: Archive/V");
    for (const char* text :
         {"1.5x", "1,5", "inf", "nan", "-NAN", "+1", ".5", "1e999", "1e-999", "0x1p3", "INFINITY"}) {
        EXPECT_EQ(plainErrorOf<double>(text), Scope + "Error reading a real value ");
        EXPECT_EQ(attributeErrorOf<double>("a='" + std::string(text) + "'"),
                  Scope + "Error while reading a double value in path: Archive/V/@a");
    }
    EXPECT_EQ(plainErrorOf<float>("1e39"), Scope + "Error reading a real value ");
    EXPECT_EQ(plainErrorOf<zel::Vec3d>("1 2 3x"),
              Scope + "Error while reading a Vec3 int in path: Archive/V");
    EXPECT_EQ(plainErrorOf<zel::Vec3d>("1 2"), Scope + "No data available for reading");
}

TEST_F(XMLInputArchiveMaliciousTest, RefusesAttributesThatAreMissingOrNoValues) {
    EXPECT_EQ(attributeErrorOf<int>(""), Scope + "Error while reading a signed int in path: Archive/V/@a");
    EXPECT_EQ(attributeErrorOf<int>("a=''"),
              Scope + "Error while reading a signed int in path: Archive/V/@a");
    EXPECT_EQ(attributeErrorOf<int>("a=' 1'"),
              Scope + "Error while reading a signed int in path: Archive/V/@a");
    EXPECT_EQ(attributeErrorOf<unsigned>(""),
              Scope + "Error while reading an unsigned int in path: Archive/V/@a");
    EXPECT_EQ(attributeErrorOf<double>(""),
              Scope + "Error while reading a double value in path: Archive/V/@a");
    EXPECT_EQ(attributeErrorOf<bool>(""), Scope + "Error while reading a bool value in path: Archive/V/@a");
    EXPECT_EQ(attributeErrorOf<bool>("a='1'"), Scope + "Invalid boolean value '1'");
    EXPECT_EQ(attributeErrorOf<char>(""), Scope + "Unable to find char attribute 'a'");
    EXPECT_EQ(attributeErrorOf<char>("a='ab'"),
              Scope + "Error while reading a char value in path: Archive/V/@a");
    EXPECT_EQ(attributeErrorOf<std::string>(""),
              Scope + "Error while reading a string value in path: Archive/V/@a");
    EXPECT_EQ(attributeErrorOf<zel::Uuid>(""),
              Scope + "Error while reading an uuid value in path: Archive/V/@a");
}

TEST_F(XMLInputArchiveMaliciousTest, RefusesTokensThatAreNoValues) {
    EXPECT_EQ(plainErrorOf<bool>("True"),
              Scope + "Invalid value for bool: 'True' while reading a bool value in path: Archive/V");
    for (const char* text : {"ab", "#256", "#-1", "x#"})
        EXPECT_EQ(plainErrorOf<char>(text), Scope + "Error while reading a char value in path: Archive/V");
    for (const char* text : {"\\", "a\\q", "\\x", "\\x1", "\\x1g", "\\e\\e", "a\\e"})
        EXPECT_EQ(plainErrorOf<std::string>(text),
                  Scope + "Error while reading a string value in path: Archive/V");
    for (const char* text : {"01010101-0101-0101-0101-01010101010",
                             "01010101-0101-0101-0101-0101010101011",
                             "0101010A-0101-0101-0101-010101010101",
                             "01010101010101010101010101010101",
                             "0"})
        EXPECT_EQ(plainErrorOf<zel::Uuid>(text),
                  Scope + "Error while reading an uuid value in path: Archive/V");
}

TEST_F(XMLInputArchiveMaliciousTest, SaysThatNoDataIsLeft) {
    EXPECT_EQ(plainErrorOf<int>(""), Scope + "No data available for reading");
    EXPECT_EQ(plainErrorOf<bool>(" <a>1</a> "), Scope + "No data available for reading");
    EXPECT_EQ(plainErrorOf<std::string>("<!-- a -->"), Scope + "No data available for reading");
    EXPECT_EQ(plainErrorOf<zel::Uuid>(""), Scope + "No data available for reading");
}

TEST_F(XMLInputArchiveMaliciousTest, RefusesBlocksThatAreNotWhollyBase64OfTheirLength) {
    for (const char* text : {"YWI", "YWI=x", "YWJj", "YW==", "YWJ=", "Y-I=", "====", "-", "YWI=YWI="}) {
        OpenedXml archive(documentOf(text));
        char block[2] = {'x', 'y'};
        EXPECT_EQ(archiveErrorOf([&] { archive->read(block, 2); }),
                  "Current scope: 'Archive'. Error while reading a block of bytes in path: Archive")
            << text;
        EXPECT_EQ(std::string(block, 2), "xy");
    }
}

TEST_F(XMLInputArchiveMaliciousTest, RefusesVectorsThatTheDocumentCanNotHold) {
    const auto errorOfVector = [](const std::string& text, auto values) {
        OpenedXml archive(documentOf(text));
        return archiveErrorOf([&] { archive->read(values); });
    };
    EXPECT_THAT(errorOfVector("18446744073709551615 8 8 1", zel::Vector<double>()),
                HasSubstr("Error occurred while reading 18446744073709551615 bytes from the input stream"));
    EXPECT_THAT(errorOfVector("1000 8 8 1 1", zel::Vector<double>()),
                HasSubstr("Error occurred while reading 8000 bytes from the input stream"));
    EXPECT_THAT(errorOfVector("2 8 8 1 1", zel::Vector<double>()),
                HasSubstr("No data available for reading"));
    EXPECT_THAT(errorOfVector("1 8 8 9 1", zel::Vector<double>()),
                HasSubstr("elements of the unknown type 9"));
    EXPECT_THAT(errorOfVector("1 16 8 3 1 2", zel::Vector<double>()),
                HasSubstr("can not be read as one of double"));
    EXPECT_THAT(errorOfVector("1 4 8 1 1", zel::Vector<double>()), HasSubstr("has elements of 4 bytes"));
    EXPECT_THAT(errorOfVector("-1 8 8 1 1", zel::Vector<double>()),
                HasSubstr("Error while reading an unsigned int"));
}

TEST_F(XMLInputArchiveMaliciousTest, SaysThatThereIsNoDocument) {
    EXPECT_EQ(errorOf(""), "No document available while parsing");
    std::istringstream bad(documentOf(""));
    bad.setstate(std::ios::badbit);
    XMLInputArchive archive;
    EXPECT_EQ(archiveErrorOf([&] { archive.open(bad); }), "No document available while parsing");
    EXPECT_FALSE(archive.isOpen());
}

TEST_F(XMLInputArchiveMaliciousTest, RefusesWhatIsNoDocument) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"text", "there is text outside of any element: 'text' (row 1)"},
        {" \n ", "there is no element in the file (row 1)"},
        {"<Archive>", "the element 'Archive' is not closed (row 1)"},
        {"<Archive>\n</Other>",
         "'</Other>' stands where the element 'Archive' of row 1 is still open (row 2)"},
        {"<Archive/>tail", "there is text outside of any element: 'tail' (row 1)"},
        {"<Archive/>\n<Archive/>", "there is a second element beside the first: 'Archive' (row 2)"},
        {"<Archive a='1' a='2'/>",
         "the attribute 'a' stands twice in the element 'Archive' of row 1 (row 1)"},
        {"<Archive a=1/>",
         "the value of the attribute 'a' of the element 'Archive' of row 1 has no quotes (row 1)"},
        {"<!DOCTYPE a [<!ENTITY b 'c'>]><Archive/>",
         "there is a document type, which has no place here (row 1)"},
        {"<Archive>\xff</Archive>", "the byte 0xFF is not UTF-8; the text must be saved as UTF-8 (row 1)"},
        {std::string("<Archive>\0</Archive>", 20), "there is a NUL byte, which is no text (row 1)"}};
    for (const auto& [text, reason] : cases)
        EXPECT_EQ(errorOf(text), Parsing + reason) << text;
}

TEST_F(XMLInputArchiveMaliciousTest, RefusesEntitiesThatXmlDoesNotHave) {
    const std::string reason =
        "'&' begins no entity here that is known; in a text it is written '&amp;' (row 1)";
    for (const char* text : {"&nbsp;",
                             "& ",
                             "&",
                             "&amp",
                             "&#;",
                             "&#x;",
                             "&#0;",
                             "&#xD800;",
                             "&#x110000;",
                             "&#-1;",
                             "&#1x;",
                             "&#99999999999;",
                             "&#x0000000000041;"}) {
        EXPECT_EQ(errorOf("<Archive>" + std::string(text) + "</Archive>"), Parsing + reason) << text;
        EXPECT_EQ(errorOf("<Archive a='" + std::string(text) + "'/>"), Parsing + reason) << text;
    }
}

TEST_F(XMLInputArchiveMaliciousTest, RefusesManyAttributes) {
    std::string text = "<Archive";
    for (int i = 0; i < 100'000; ++i)
        text += " a" + std::to_string(i) + "='1'";
    EXPECT_EQ(errorOf(text + "/>"),
              Parsing + "the element 'Archive' of row 1 has more than 1000 attributes (row 1)");
}

TEST_F(XMLInputArchiveMaliciousTest, RefusesElementsNestedTooDeep) {
    EXPECT_EQ(errorOf(nested(100'000)), Parsing + "elements are nested more than 10000 deep (row 1)");
    EXPECT_EQ(errorOf(nested(10'001)), Parsing + "elements are nested more than 10000 deep (row 1)");
}

TEST_F(XMLInputArchiveMaliciousTest, TakesElementsNestedAsDeepAsItWritesThem) {
    EXPECT_EQ(errorOf(nested(10'000)), "Unable to find section 'Archive': stack empty");
    const std::string text = xmlOf([](XMLOutputArchive& archive) {
        for (int i = 1; i < 10'000; ++i)
            archive.beginSection("a");
        for (int i = 1; i < 10'000; ++i)
            archive.endSection("a");
    });
    OpenedXml archive(text);
    for (int i = 1; i < 10'000; ++i)
        archive->beginSection("a");
    EXPECT_EQ(archiveErrorOf([&] { archive->beginSection("a"); }).substr(0, 23), "Current scope: 'Archive");
}

TEST_F(XMLInputArchiveMaliciousTest, ThrowsOnAThreadWithASmallStack) {
    std::string error;
    zelTest::onSmallStack([&] { error = errorOf(nested(9'000)); });
    EXPECT_THAT(
        error, MatchesRegex(Parsing + "elements are nested more than [1-8][0-9][0-9][0-9] deep \\(row 1\\)"));
}

/// Says that it is longer than an archive may be.
class HugeBuffer : public std::streambuf {
protected:
    pos_type seekoff(off_type offset, std::ios::seekdir from, std::ios::openmode) override {
        if (from != std::ios::cur)
            m_position = offset + (from == std::ios::end ? (off_type{1} << 30) + 1 : 0);
        return m_position;
    }
    pos_type seekpos(pos_type position, std::ios::openmode) override { return m_position = position; }
    int_type underflow() override {
        ADD_FAILURE() << "it is read";
        return traits_type::eof();
    }

private:
    off_type m_position = 0;
};

TEST_F(XMLInputArchiveMaliciousTest, RefusesADocumentThatIsTooLargeAheadOfReadingIt) {
    HugeBuffer buffer;
    std::istream stream(&buffer);
    XMLInputArchive archive;
    EXPECT_EQ(archiveErrorOf([&] { archive.open(stream); }),
              Parsing + "the document is larger than 1073741824 bytes");
}

TEST_F(XMLInputArchiveMaliciousTest, RefusesHeadersWithSectionsThatAreMissingOrMisplaced) {
    EXPECT_EQ(errorOf("<Archive/>"), "Current scope: 'Archive'. Unable to find section 'Version'");
    EXPECT_EQ(errorOf("<Archive><Version/></Archive>"),
              "Current scope: 'Archive/Version'. Error while reading an unsigned int in path: "
              "Archive/Version/@magic");
    EXPECT_EQ(errorOf("<Archive><Version magic='1'/></Archive>"),
              "Current scope: 'Archive/Version'. Invalid archive format (bad magic)");
    std::string text = documentOf("");
    text.replace(text.find("<BuildInfo"), 10, "<BuildOther");
    EXPECT_EQ(errorOf(text), "Current scope: 'Archive/Version'. Unable to find section 'BuildInfo'");
}

TEST_F(XMLInputArchiveMaliciousTest, TakesTheFirstOfDoubledSections) {
    OpenedXml archive(documentOf("<Version/>"));
    EXPECT_EQ(archive->getAppName(), "hand");
}

TEST_F(XMLInputArchiveMaliciousTest, RefusesObjectsWithBadHeaders) {
    const std::string header =
        "<TypeHeader tag='2' storageMode='4' referenceID='1' className='fleet::Wheel'/>";
    const std::vector<std::pair<std::string, std::string>> cases{
        {"<Object tag='2'/>", "Archive/Object'. Invalid archive format (bad class tag)"},
        {"<Object tag='1' storageMode='5'/>", "Archive/Object'. Invalid storage mode read: 5"},
        {"<Object tag='1' storageMode='4'/>", "Archive/Object'. Unable to find section 'TypeHeader'"},
        {"<Object tag='1' storageMode='4'><TypeHeader tag='3'/></Object>",
         "Archive/Object/TypeHeader'. Invalid archive format (bad class tag)"},
        {"<Object tag='1' storageMode='4' referenceID='0'>" + header + "</Object>",
         "Archive/Object'. Bad object id 0"},
        {"<Object tag='1' storageMode='8' referenceID='3'>" + header + "</Object>",
         "Archive/Object'. Bad object id 3"},
        {"<Object tag='1' storageMode='16'/>",
         "Archive/Object'. Unable to find char attribute 'referenceID'"}};
    for (const auto& [text, reason] : cases) {
        OpenedXml archive(documentOf(text));
        ref_ptr<fleet::Wheel> wheel;
        EXPECT_EQ(archiveErrorOf([&] { archive->read(wheel); }), "Current scope: '" + reason) << text;
    }
}

TEST_F(XMLInputArchiveMaliciousTest, NeverDiesOfADocumentThatIsCut) {
    const std::string text = xmlOf([](XMLOutputArchive& archive) {
        fleet::Vehicle vehicle("cut & dried");
        vehicle.spare = new fleet::Wheel(1);
        archive.write(&vehicle);
    });
    const std::size_t end = text.find_last_of('>');
    for (std::size_t n = 0; n < end; ++n)
        EXPECT_NE(errorOf(text.substr(0, n)), "no exception") << n;
}

TEST_F(XMLInputArchiveMaliciousTest, NeverDiesOfADocumentWithAByteFlipped) {
    const std::string text = xmlOf([](XMLOutputArchive& archive) {
        fleet::Vehicle vehicle("flipped");
        vehicle.spare = new fleet::Wheel(1);
        archive.write(&vehicle);
    });
    int numRead = 0;
    for (std::size_t i = 0; i < text.size(); ++i)
        for (const int flip : {1, 4, 32, 128}) {
            std::string damaged = text;
            damaged[i] = static_cast<char>(damaged[i] ^ flip);
            const std::string error = archiveErrorOf([&damaged] {
                OpenedXml archive(damaged);
                ref_ptr<fleet::Vehicle> vehicle;
                archive->read(vehicle);
            });
            numRead += error == "no exception" ? 1 : 0;
        }
    // What says nothing of the objects may change.
    EXPECT_GT(numRead, 0);
    EXPECT_LT(numRead, static_cast<int>(4 * text.size()));
}

} // namespace
