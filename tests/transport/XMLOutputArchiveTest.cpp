#include "XMLArchiveFixture.h"

#include <zel/FloatingPoint.h>

#include <support/CommaLocale.h>
#include <tinyxml.h>

#include <limits>

using testing::HasSubstr;
using zelStream::Archive;
using zelStream::XMLOutputArchive;
using zelTest::archiveErrorOf;

namespace {

class XMLOutputArchiveTest : public zelTest::XMLArchiveFixture {};

TEST_F(XMLOutputArchiveTest, WritesEachTypeInItsForm) {
    using Int64 = std::numeric_limits<zel::int64>;
    using UInt64 = std::numeric_limits<zel::uint64>;
    EXPECT_EQ(textOf(zel::int8{-128}, zel::uint8{255}, zel::int16{-32768}, zel::uint16{65535}),
              "<V>-128 255 -32768 65535</V>");
    EXPECT_EQ(textOf(Int64::min(), UInt64::max()), "<V>-9223372036854775808 18446744073709551615</V>");
    EXPECT_EQ(textOf(true, false, 'a', '#', '<', char{0}, ' ', char{127}, char{-1}),
              "<V>true false a # &lt; #0 #32 #127 #255</V>");
    EXPECT_EQ(textOf(1.5, -0.0, 0.1F, 1e-300),
              "<V>1.5000000000000000E+00 -0.0000000000000000E+00 "
              "1.00000001E-01 1.0000000000000000E-300</V>");
}

TEST_F(XMLOutputArchiveTest, WritesValuesThatAreNoNumbers) {
    const double infinity = std::numeric_limits<double>::infinity();
    EXPECT_EQ(textOf(infinity, -infinity, std::numeric_limits<float>::quiet_NaN()), "<V>INF -INF NAN</V>");
}

TEST_F(XMLOutputArchiveTest, WritesDenormalsThoughTheThreadTakesThemForZero) {
    const double small = std::numeric_limits<double>::denorm_min();
    const zel::uint32 state = zel::DenormalizationGuard::enable();
    EXPECT_EQ(textOf(small, -std::numeric_limits<float>::denorm_min(), zelTest::largestDenormal<double>()),
              "<V>4.9406564584124654E-324 -1.40129846E-45 2.2250738585072009E-308</V>");
    EXPECT_EQ(textOf(zel::Vec3d(small, 0, -0.0)),
              "<V>4.9406564584124654E-324 0.0000000000000000 -0.0000000000000000</V>");
    EXPECT_EQ(zel::DenormalizationGuard::enable() & zel::DenormalizationGuard::Mask,
              zel::DenormalizationGuard::Mask);
    zel::DenormalizationGuard::disable(state);
}

TEST_F(XMLOutputArchiveTest, WritesAVec3InFixedFormWhereThatReadsBack) {
    EXPECT_EQ(textOf(zel::Vec3d(1.5, -2, 1e-20)),
              "<V>1.5000000000000000 -2.0000000000000000 9.9999999999999995E-21</V>");
    EXPECT_EQ(textOf(zel::Vec2f(1, 2)), "<V>1.00000000E+00 2.00000000E+00</V>");
}

TEST_F(XMLOutputArchiveTest, WritesNumbersWithAPointInALocaleWithCommas) {
    const zelTest::CommaLocale comma;
    EXPECT_EQ(textOf(1.5), "<V>1.5000000000000000E+00</V>");
    expectReadsBack(1.5);
}

TEST_F(XMLOutputArchiveTest, WritesAStringAsOneToken) {
    EXPECT_EQ(textOf("a b", "", "tab\tline\nback\\return\r"),
              "<V>a\\sb \\e tab\\tline\\nback\\\\return\\r</V>");
    EXPECT_EQ(textOf(std::string("\0\x01\x7f", 3), "\xff\xc3", "\xc3\xa4", "\xef\xbb\xbf"),
              "<V>\\x00\\x01\\x7F \\xFF\\xC3 \xc3\xa4 \\xEF\\xBB\\xBF</V>");
    EXPECT_EQ(textOf("]]>", "&#x41;<\"'"), "<V>]]&gt; &amp;#x41;&lt;&quot;&apos;</V>");
}

TEST_F(XMLOutputArchiveTest, WritesAttributesWithBlanksAndTheEmptyTextAsTheyAre) {
    EXPECT_EQ(elementOf([](XMLOutputArchive& archive) {
                  archive.addAttribute("text", "a b\n\"");
                  archive.addAttribute("none", "");
                  archive.addAttribute("zero", char{0});
                  archive.addAttribute("less", '<');
              }),
              "<V text=\"a b\\n&quot;\" none=\"\" zero=\"#0\" less=\"&lt;\" />");
}

TEST_F(XMLOutputArchiveTest, WritesBlocksInBase64) {
    EXPECT_EQ(elementOf([](XMLOutputArchive& archive) {
                  archive.write("ab", 2);
                  archive.write("abc", 3);
                  archive.write("abcd", 4);
                  archive.write("", 0);
              }),
              "<V>YWI= YWJj YWJjZA== -</V>");
}

TEST_F(XMLOutputArchiveTest, WritesAVectorAsSizesTypeAndComponents) {
    EXPECT_EQ(textOf(zel::Vector<zel::uint16>{1, 65535}), "<V>2 2 2 8 1 65535</V>");
    EXPECT_EQ(textOf(zel::Vector<zel::Vec3f>{zel::Vec3f(1, 2, 3)}),
              "<V>1 16 4 4 1.00000000 2.00000000 3.00000000</V>");
}

TEST_F(XMLOutputArchiveTest, KeepsTheTextOfASectionTogetherAndAheadOfItsChildren) {
    EXPECT_EQ(elementOf([](XMLOutputArchive& archive) {
                  archive.write(1);
                  archive.beginSection("Inner");
                  archive.write(2);
                  archive.endSection("Inner");
                  archive.write(3);
                  archive.addAttribute("late", 4);
              }),
              "<V late=\"4\">\n        1 3\n        <Inner>2</Inner>\n    </V>");
}

TEST_F(XMLOutputArchiveTest, AddsAStringAsItIsWithMarksAsEntities) {
    EXPECT_EQ(
        elementOf([](XMLOutputArchive& archive) {
            archive.addString("");
            archive.addString("1 \\e");
            archive.addString("<a>");
            for (const char* lost : {"\x01", "\xff", "a \xef\xbb\xbf", "a \xef\xbf\xbe", "a \xef\xbf\xbf"})
                EXPECT_EQ(archiveErrorOf([&] { archive.addString(lost); }),
                          "Current scope: 'Archive/V'. XML can not hold the text as it is");
        }),
        "<V>1 \\e &lt;a&gt;</V>");
}

TEST_F(XMLOutputArchiveTest, LaysOutADocumentAsTinyXmlPrintsIt) {
    const std::string text = xmlOf([](XMLOutputArchive& archive) {
        fleet::Vehicle first("one <&> two");
        first.leader = &first;
        first.spare = new fleet::Wheel(2);
        archive.write(&first);
        archive.write(static_cast<const fleet::Vehicle*>(nullptr));
        archive.write(zel::Vec3d(1, 2, 3));
    });
    TiXmlDocument document;
    document.Parse(text.c_str(), nullptr, TIXML_ENCODING_UTF8);
    ASSERT_FALSE(document.Error()) << document.ErrorDesc();
    TiXmlPrinter printer;
    document.Accept(&printer);
    EXPECT_EQ(printer.Str(), text);
}

TEST_F(XMLOutputArchiveTest, WritesTheHeaderAsAttributesWithoutByteOrder) {
    const std::string text = xmlOf([](XMLOutputArchive&) {});
    EXPECT_THAT(text,
                testing::StartsWith("<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<Archive>\n    <Version "
                                    "magic=\"263053008\" appName=\"test\" generation=\""));
    EXPECT_THAT(text, HasSubstr("<BuildInfo buildDate=\""));
    EXPECT_THAT(text, HasSubstr("<Modifications size=\"1\">904156fd</Modifications>"));
}

TEST_F(XMLOutputArchiveTest, EnclosesEachObjectInASection) {
    EXPECT_EQ(elementOf([](XMLOutputArchive& archive) {
                  archive.write(static_cast<const fleet::Wheel*>(nullptr));
              }),
              "<V>\n        <Object tag=\"1\" storageMode=\"16\" referenceID=\"#0\" />\n    </V>");
    fleet::Wheel wheel(1);
    wheel.setUuid(zelTest::uuidOf(1));
    const std::string uuid = "01010101-0101-0101-0101-010101010101";
    EXPECT_EQ(
        elementOf([&wheel](XMLOutputArchive& archive) {
            archive.write(&wheel);
            archive.write(&wheel);
        }),
        "<V>\n        <Object tag=\"1\" storageMode=\"4\" referenceID=\"1\" uuid=\"" + uuid +
            "\" serializationEnabled=\"true\">\n            1.0000000000000000E+00\n            "
            "<TypeHeader tag=\"2\" storageMode=\"4\" referenceID=\"1\" className=\"fleet::Wheel\" />\n       "
            " "
            "</Object>\n        <Object tag=\"1\" storageMode=\"8\" referenceID=\"1\">\n            "
            "<TypeHeader tag=\"2\" storageMode=\"8\" referenceID=\"1\" />\n        </Object>\n    </V>");
}

TEST_F(XMLOutputArchiveTest, RefusesASecondAttributeOfAName) {
    elementOf([](XMLOutputArchive& archive) {
        archive.addAttribute("size", 1);
        archive.addAttribute("text", " size=\"2");
        archive.addAttribute("ize", 1);
        EXPECT_EQ(archiveErrorOf([&] { archive.addAttribute("size", 2); }),
                  "Current scope: 'Archive/V'. The section has an attribute 'size' already");
    });
}

TEST_F(XMLOutputArchiveTest, TakesAnAttributeWhoseNameEndsTheValueOfAnother) {
    EXPECT_EQ(elementOf([](XMLOutputArchive& archive) {
                  archive.addAttribute("text", " size=");
                  archive.addAttribute("size", 1);
              }),
              "<V text=\" size=\" size=\"1\" />");
}

TEST_F(XMLOutputArchiveTest, RefusesMoreAttributesThanAReaderTakes) {
    const std::string text = xmlOf([](XMLOutputArchive& archive) {
        for (std::size_t i = 0; i < XMLOutputArchive::MaximumAttributes; ++i)
            archive.addAttribute(("a" + std::to_string(i)).c_str(), 1);
        EXPECT_EQ(archiveErrorOf([&] { archive.addAttribute("more", 1); }),
                  "Current scope: 'Archive'. The section has more than 1000 attributes");
    });
    zelTest::OpenedXml archive(text);
    int last = 0;
    archive->getAttribute("a999", last);
    EXPECT_EQ(last, 1);
}

TEST_F(XMLOutputArchiveTest, RefusesNamesThatNoElementCanHave) {
    EXPECT_EQ(archiveErrorOf([] { XMLOutputArchive::validateVariable(nullptr); }),
              "A section or an attribute needs a name");
    for (const char* name : {"", "a b", "1a", "-a", "a<", "a\"", ":a", "a\n", "\xff", "a=", "\xc2\xa0"})
        EXPECT_EQ(archiveErrorOf([name] { XMLOutputArchive::validateVariable(name); }),
                  "'" + std::string(name) + "' can not be the name of an element or an attribute");
    for (const char* name : {"a", "_", "a-b.c:d1", "\xc3\xa4", "\xe4\xb8\xad"})
        XMLOutputArchive::validateVariable(name);
    elementOf([](XMLOutputArchive& archive) {
        EXPECT_EQ(archiveErrorOf([&] { archive.beginSection("a b"); }),
                  "'a b' can not be the name of an element or an attribute");
        EXPECT_EQ(archiveErrorOf([&] { archive.addAttribute("a b", 1); }),
                  "'a b' can not be the name of an element or an attribute");
    });
}

TEST_F(XMLOutputArchiveTest, ThrowsBothNamesWhereASectionEndsUnderAnother) {
    elementOf([](XMLOutputArchive& archive) {
        archive.beginSection("Inner");
        EXPECT_EQ(
            archiveErrorOf([&] { archive.endSection("Other"); }),
            "Current scope: 'Archive/V/Inner'. Call to endSection(\"Other\") does not match previous call to "
            "beginSection(\"Inner\") at path: 'Archive/V/Inner'");
        archive.endSection("Inner");
    });
}

TEST_F(XMLOutputArchiveTest, RefusesToWriteWhileClosed) {
    XMLOutputArchive archive;
    const std::string text = "Output archive closed. Writing not possible.";
    EXPECT_EQ(archiveErrorOf([&] { archive.write(1); }), text);
    EXPECT_EQ(archiveErrorOf([&] { archive.write("a"); }), text);
    EXPECT_EQ(archiveErrorOf([&] { archive.write("a", 1); }), text);
    EXPECT_EQ(archiveErrorOf([&] { archive.write(zel::Uuid()); }), text);
    EXPECT_EQ(archiveErrorOf([&] { archive.write(zel::Vector<float>()); }), text);
    EXPECT_EQ(archiveErrorOf([&] { archive.beginSection("a"); }), text);
    EXPECT_EQ(archiveErrorOf([&] { archive.addString("a"); }), text);
    EXPECT_EQ(archiveErrorOf([&] { archive.flush(); }), text);
}

TEST_F(XMLOutputArchiveTest, PrintsOnceWhenItIsClosed) {
    std::ostringstream stream;
    XMLOutputArchive archive;
    archive.open(stream);
    archive.write(1);
    archive.flush();
    EXPECT_EQ(stream.str(), "");
    archive.close();
    const std::string text = stream.str();
    EXPECT_THAT(text, HasSubstr("</Archive>"));
    archive.close();
    EXPECT_EQ(stream.str(), text);
    archive.open(stream);
    archive.close();
    EXPECT_THAT(stream.str().substr(text.size()), testing::StartsWith("<?xml"));
}

TEST_F(XMLOutputArchiveTest, PrintsNothingAfterAFailureAndThrowsOnClose) {
    std::ostringstream stream;
    XMLOutputArchive archive;
    archive.open(stream);
    archive.beginSection("Left");
    EXPECT_THAT(archiveErrorOf([&] { archive.close(); }), HasSubstr("does not match previous call"));
    EXPECT_EQ(stream.str(), "");
    EXPECT_FALSE(archive.isOpen());
}

TEST_F(XMLOutputArchiveTest, ThrowsOnCloseWhenTheStreamTakesNothing) {
    std::ostringstream stream;
    XMLOutputArchive archive;
    archive.open(stream);
    stream.setstate(std::ios::badbit);
    EXPECT_EQ(archiveErrorOf([&] { archive.close(); }), "The output stream does not take the archive");
}

TEST_F(XMLOutputArchiveTest, ClosesWhenItIsDestroyedAndWarnsOfAFailure) {
    std::ostringstream stream;
    {
        XMLOutputArchive archive;
        archive.open(stream);
    }
    EXPECT_THAT(stream.str(), HasSubstr("</Archive>"));
    const zelTest::LogCapture log;
    {
        XMLOutputArchive archive;
        archive.open(stream);
        stream.setstate(std::ios::badbit);
    }
    EXPECT_THAT(log.text(),
                HasSubstr("An archive was not completed: The output stream does not take the archive"));
}

TEST_F(XMLOutputArchiveTest, RefusesElementsNestedTooDeep) {
    std::ostringstream stream;
    XMLOutputArchive archive;
    archive.open(stream);
    std::string error = "none";
    for (std::size_t i = 1; i < XMLOutputArchive::MaximumDepth; ++i)
        archive.beginSection("a");
    error = archiveErrorOf([&] { archive.beginSection("a"); });
    EXPECT_THAT(error, testing::EndsWith("Elements are nested more than 10000 deep"));
    EXPECT_EQ(archiveErrorOf([&] { archive.close(); }), error);
    EXPECT_EQ(stream.str(), "");
}

TEST_F(XMLOutputArchiveTest, TakesOneOutermostSection) {
    std::ostringstream stream;
    XMLOutputArchive archive;
    archive.open(stream);
    archive.endSection("Archive");
    EXPECT_EQ(archiveErrorOf([&] { archive.write(1); }), "No section is open");
    EXPECT_EQ(archiveErrorOf([&] { archive.beginSection("Archive"); }),
              "A document has one outermost section");
    EXPECT_THAT(archiveErrorOf([&] { archive.close(); }), HasSubstr("without a call to beginSection"));
}

TEST_F(XMLOutputArchiveTest, LeavesASectionThatAnExceptionLeft) {
    EXPECT_EQ(elementOf([](XMLOutputArchive& archive) {
                  try {
                      const Archive::ScopedSection section(archive, "Inner");
                      archive.beginSection("Innermost");
                      throw std::runtime_error("out");
                  } catch (const std::runtime_error&) {
                      archive.write(1);
                  }
              }),
              "<V>\n        1\n        <Inner>\n            <Innermost />\n        </Inner>\n    </V>");
}

} // namespace
