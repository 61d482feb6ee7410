#include <zel/Component.h>
#include <zel/Exception.h>
#include <zel/XmlLoader.h>

#include <support/LogCapture.h>
#include <support/WhatOf.h>
#include <tinyxml.h>

#include <limits>
#include <stdexcept>
#include <string>

using testing::HasSubstr;
using testing::StartsWith;
using zel::Object;
using zel::parseAttribute;
using zel::ref_ptr;

using zelTest::whatOf;

namespace {

struct Document {
    explicit Document(const std::string& text) : xml("test.xml") { xml.Parse(text.c_str()); }
    TiXmlElement* root() { return xml.RootElement(); }
    TiXmlDocument xml;
};

} // namespace

TEST(XmlLoaderTest, ErrorTextCarriesSourceRowFileAndElement) {
    Document document("\n\n<A x='1'/>");
    const std::string rule(78, '=');
    EXPECT_EQ(zel::xmlErrorText("src.cpp", 12, document.root(), "Bad thing"),
              "[src.cpp:12] XML error: Bad thing. Error at row 3\nFile: test.xml\n" + rule +
                  "\n<A x=\"1\" />\n" + rule);
}

TEST(XmlLoaderTest, ErrorTextOfALongElementIsCut) {
    std::string text = "<A>";
    for (int i = 0; i < 10000; ++i)
        text += "<B/>";
    Document document(text + "</A>");
    const std::string error = zel::xmlErrorText("src.cpp", 1, document.root(), "Bad thing");
    EXPECT_LT(error.size(), 5000U);
    EXPECT_THAT(error, HasSubstr(" ...\n="));
}

TEST(XmlLoaderTest, ParsesAttributesOfEachType) {
    Document document("<A b='true' c='0' n='name' s='a text' i='4294967295' l='18446744073709551615' "
                      "d='-1.5e3' x='InvalidIndex'/>");
    EXPECT_TRUE(parseAttribute<bool>(document.root(), "b"));
    EXPECT_FALSE(parseAttribute<bool>(document.root(), "c"));
    EXPECT_EQ(parseAttribute<zel::Name>(document.root(), "n"), zel::Name("name"));
    EXPECT_EQ(parseAttribute<zel::String>(document.root(), "s"), "a text");
    EXPECT_EQ(parseAttribute<zel::uint32>(document.root(), "i"), 4294967295U);
    EXPECT_EQ(parseAttribute<zel::uint64>(document.root(), "l"), std::numeric_limits<zel::uint64>::max());
    EXPECT_EQ(parseAttribute<double>(document.root(), "d"), -1500.0);
    EXPECT_EQ(parseAttribute<zel::uint32>(document.root(), "x"), std::numeric_limits<zel::uint32>::max());
}

TEST(XmlLoaderTest, MissingBooleanThrowsWithTheRow) {
    Document document("\n<A/>");
    const std::string what = whatOf([&] { (void)parseAttribute<bool>(document.root(), "enable"); });
    EXPECT_THAT(what, StartsWith("[src/tree/XmlLoader.cpp:"));
    EXPECT_THAT(
        what,
        HasSubstr("] XML error: Could not locate attribute 'enable'. Error at row 2\nFile: test.xml\n"));
}

TEST(XmlLoaderTest, TextThatIsNoValueDoesNotParse) {
    Document document("<A a='1.5xyz' b='' c='-1' d='4294967296' e='True' f='1e999' g=' 1' h='0x10' "
                      "i='99999999999999999999'/>");
    for (const char* name : {"a", "b", "c", "d", "g", "h", "i"})
        EXPECT_THAT(
            whatOf([&] { (void)parseAttribute<zel::uint32>(document.root(), name); }),
            HasSubstr(std::string("] XML error: Unable to parse attribute ") + name + ". Error at row 1"));
    for (const char* name : {"a", "b", "f", "g"})
        EXPECT_THAT(whatOf([&] { (void)parseAttribute<double>(document.root(), name); }),
                    HasSubstr("Unable to parse attribute "));
    EXPECT_THAT(whatOf([&] { (void)parseAttribute<bool>(document.root(), "e"); }),
                HasSubstr("Unable to parse attribute e"));
}

TEST(XmlLoaderDeathTest, RegisteredTagTwiceAborts) {
    EXPECT_DEATH(
        zel::XmlLoaderRegistrator("Component",
                                  [](TiXmlElement*, zel::Device*) -> Object* { return nullptr; }),
        "zelVerify failed: `!s_xmlLoaders\\(\\)\\.contains\\(name\\)', An xml loader for tag 'Component' is "
        "already registered!");
}

TEST(XmlLoaderTest, KnowsItsTags) {
    EXPECT_TRUE(zel::XmlLoaderRegistrator::hasLoadFunction("Component"));
    EXPECT_FALSE(zel::XmlLoaderRegistrator::hasLoadFunction("Nonsense"));
    EXPECT_FALSE(zel::XmlLoaderRegistrator::getLoadFunction("Nonsense"));
}

TEST(XmlLoaderTest, LoadsAPlainObjectWithoutAModel) {
    Document document("<Object name='o'/>");
    const ref_ptr<Object> object(Object::load(document.root(), nullptr));
    EXPECT_EQ(object->getName(), zel::Name("o"));
    EXPECT_EQ(object->getModel(), nullptr);
}

TEST(XmlLoaderTest, UnknownTagIsAnXmlError) {
    Document document("<Nonsense/>");
    EXPECT_THAT(whatOf([&] { (void)Object::load(document.root(), nullptr); }),
                HasSubstr("] XML error: Unknown tag 'Nonsense'. Error at row 1"));
    EXPECT_TRUE(Object::getEnableRebind());
}

TEST(XmlLoaderTest, FailureOfALoadFunctionIsLoggedAndNested) {
    static const zel::XmlLoaderRegistrator failing("Failing", [](TiXmlElement*, zel::Device*) -> Object* {
        EXPECT_FALSE(Object::getEnableRebind());
        throw std::runtime_error("the inner reason");
    });
    Document document("\n<Failing/>");
    const zelTest::LogCapture log;
    try {
        (void)Object::load(document.root(), nullptr);
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), HasSubstr("] XML error: Caught exception. Error at row 2"));
        EXPECT_THAT(whatOf([&] { std::rethrow_if_nested(error); }), "the inner reason");
    }
    EXPECT_THAT(log.text(), HasSubstr("the inner reason"));
    EXPECT_TRUE(Object::getEnableRebind());
}

TEST(XmlLoaderTest, OnlyTheOutermostLoadSwitchesRebindingOn) {
    static const zel::XmlLoaderRegistrator nesting(
        "Nesting", [](TiXmlElement* element, zel::Device* device) -> Object* {
            const ref_ptr<Object> inner(Object::load(element->FirstChildElement(), device));
            EXPECT_FALSE(Object::getEnableRebind());
            return new Object("outer");
        });
    Document document("<Nesting><Object name='inner'/></Nesting>");
    const ref_ptr<Object> object(Object::load(document.root(), nullptr));
    EXPECT_TRUE(Object::getEnableRebind());
}
