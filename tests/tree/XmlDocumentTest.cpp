// What is no XML document, and how it is told.
#include "support/TempDirectory.h"
#include "support/WhatOf.h"

#include <zel/Object.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tinyxml.h>

#include <string>

using testing::HasSubstr;
using namespace std::string_literals;

namespace {

struct XmlDocumentTest : testing::Test {
    /// "row: reason" for a document that is refused, "" for one that is read.
    std::string fault(const std::string& text) {
        const std::string file = directory.write("a.xml", text);
        const std::string what = zelTest::whatOf([&] { static_cast<void>(zel::Object::openDocument(file)); });
        const std::string before = "Could not open model file '" + file + "', error on row ";
        if (what == "no exception")
            return "";
        return what.compare(0, before.size(), before) == 0 ? what.substr(before.size()) : what;
    }
    zelTest::TempDirectory directory;
};
using XmlDocumentMaliciousTest = XmlDocumentTest;

} // namespace

TEST_F(XmlDocumentTest, ReadsWhatIsWellFormed) {
    EXPECT_EQ(
        fault("\xef\xbb\xbf<?xml version='1.0' encoding='UTF-8'?>\n<!-- <b> --><!DOCTYPE a>\n"
              "<a x='1' y=\"'&gt;>\" z=2><b/>text &amp; more<![CDATA[</a>]]><c ></c >\n</a>\n<d/>\n<!---->"),
        "");
    EXPECT_EQ(fault("<\xc3\xa4 name='\xe2\x82\xac\xf0\x9f\x98\x80'/>"), "");
}

TEST_F(XmlDocumentMaliciousTest, TextThatIsNotUtf8IsRefusedWithItsRow) {
    EXPECT_EQ(fault("<a>\n<b name='\xf0"), "2: the byte 0xF0 is not UTF-8; the text must be saved as UTF-8");
    for (const char* bad : {"\xe4",
                            "\xc0\xaf",
                            "\xe0\x80\xaf",
                            "\xed\xa0\x80",
                            "\xf5\x80\x80\x80",
                            "\xf4\x90\x80\x80",
                            "\x80",
                            "\xe2\x82"})
        EXPECT_THAT(fault("<a>\n\n"s + bad + "</a>"), HasSubstr("3: the byte 0x")) << bad;
}

TEST_F(XmlDocumentMaliciousTest, NulByteIsRefusedWithItsRow) {
    EXPECT_EQ(fault("<a/>\n\0<b/>"s), "2: there is a NUL byte, which is no text");
}

TEST_F(XmlDocumentTest, OtherEncodingsAndEmptyFilesAreNamed) {
    EXPECT_EQ(fault(""), "1: the file is empty");
    EXPECT_EQ(fault(" \n"), "1: there is no element in the file");
    EXPECT_EQ(fault("\xff\xfe<\0a\0"s), "1: the text is UTF-16; it must be saved as UTF-8");
    EXPECT_EQ(fault("\xfe\xff\0<\0a"s), "1: the text is UTF-16; it must be saved as UTF-8");
    EXPECT_EQ(fault("<\0a\0/\0>\0"s), "1: the text is UTF-16; it must be saved as UTF-8");
    EXPECT_EQ(fault("\x7f"
                    "ELF\x02\x01\0\0"s),
              "1: there is a NUL byte, which is no text");
}

TEST_F(XmlDocumentTest, TextOutsideOfTheElementsIsRefused) {
    EXPECT_EQ(fault("<a/>\nrest <b/>\n"), "2: there is text outside of any element: 'rest '");
    EXPECT_EQ(fault("text"), "1: there is text outside of any element: 'text'");
    EXPECT_EQ(fault("<a/><![CDATA[x]]>"), "1: there is text outside of any element: '<![CDATA['");
}

TEST_F(XmlDocumentTest, TagsThatDoNotMatchAreNamed) {
    EXPECT_EQ(fault("<a/>\n</a>\n<b/>"), "2: '</a>' closes nothing");
    EXPECT_EQ(fault("<a>\n<b>\n</a>"), "3: '</a>' stands where the element 'b' of row 2 is still open");
    EXPECT_EQ(fault("<a>\n<b>\n"), "2: the element 'b' is not closed");
    EXPECT_EQ(fault("<a></a"), "1: the closing tag '</a' has no '>'");
    EXPECT_EQ(fault("<a>1 < 2</a>"), "1: '<' begins no tag here; in a text it is written '&lt;'");
    EXPECT_EQ(fault("<a>\n<!-- <b/></a>"), "2: the comment that begins here is not closed");
}

TEST_F(XmlDocumentTest, FaultyAttributesAreNamed) {
    EXPECT_EQ(fault("<a>\n<b x='1'\ny='2' x='3'/></a>"),
              "3: the attribute 'x' stands twice in the element 'b' of row 2");
    EXPECT_EQ(fault("<a>\n<b x='1/></a>"),
              "2: the value of the attribute 'x' of the element 'b' of row 2 has no closing quote");
    EXPECT_EQ(fault("<a x='1>\n<b y='2'/></a>"),
              "2: the element 'a' of row 1 has '2' where an attribute or '>' belongs; has the value of 'x' "
              "ahead of it a "
              "closing quote?");
    EXPECT_EQ(fault("<a x>"), "1: the attribute 'x' of the element 'a' of row 1 has no value");
    EXPECT_EQ(fault("<a x=1'/>"),
              "1: the value of the attribute 'x' of the element 'a' of row 1 has no opening quote");
    EXPECT_EQ(fault("<a x='1'"),
              "1: the tag of the element 'a' of row 1 has no '>'; has the value of 'x' ahead of it a closing "
              "quote?");
}
