#include <zel/Component.h>
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelData/Value.h>
#include <zelData/ValueT.h>

#include <support/TempDirectory.h>
#include <support/WhatOf.h>
#include <tinyxml.h>

#include <memory>
#include <stdexcept>
#include <string>

using testing::HasSubstr;
using zel::Component;
using zel::Object;
using zel::Path;
using zel::ref_ptr;
using zelData::getFormat;
using zelData::Value;
using zelData::ValueT;

using zelTest::whatOf;

namespace {

class ValueXmlTest : public testing::Test {
protected:
    /// Makes a component of the elements.
    ref_ptr<Component> load(const std::string& elements) {
        m_document =
            Object::openDocument(m_directory.write("m.xml", "<Object>\n" + elements + "\n</Object>"));
        const ref_ptr<Component> component(new Component("top"));
        component->configure(m_document->RootElement());
        return component;
    }
    std::string failure(const std::string& element) {
        m_document = Object::openDocument(m_directory.write("m.xml", "\n" + element));
        return whatOf(
            [this] { const ref_ptr<Value> value(Value::load(m_document->RootElement(), nullptr)); });
    }
    static Value* value(const ref_ptr<Component>& component, const char* path) {
        return dynamic_cast<Value*>(component->getResource(Path(path)));
    }

    zelTest::TempDirectory m_directory;
    std::unique_ptr<TiXmlDocument> m_document;
};
using ValueXmlMaliciousTest = ValueXmlTest;
using ValueXmlDeathTest = ValueXmlTest;

} // namespace

TEST_F(ValueXmlTest, LoadsValues) {
    const ref_ptr<Component> top = load("<Value name='a' type='Real:32bit' value='1.5'/>\n"
                                        "<Value name='b' type='Real' bind='a'/>\n"
                                        "<Value name='c' type='Int' value='@b'/>\n"
                                        "<Value name='d' value='text'/>\n"
                                        "<Value name='e'/>");
    ASSERT_NE(value(top, "a"), nullptr);
    EXPECT_EQ(value(top, "a")->getFormat(), getFormat("Real:32bit"));
    EXPECT_EQ(value(top, "b")->toString(), "1.5");
    EXPECT_EQ(value(top, "b")->getBinding(), value(top, "a"));
    EXPECT_EQ(value(top, "c")->toString(), "1");
    EXPECT_EQ(value(top, "d")->toString(), "text");
    EXPECT_EQ(value(top, "e")->getFormat(), nullptr);
}

TEST_F(ValueXmlTest, BindsForwardOnceTheWholeDocumentStands) {
    const ref_ptr<Component> top = load("<Value name='a' type='Real' bind='b'/>\n"
                                        "<Value name='b' type='Real' value='2'/>");
    EXPECT_EQ(value(top, "a")->getBinding(), value(top, "b"));
    EXPECT_EQ(value(top, "a")->toString(), "2");
}

TEST_F(ValueXmlTest, ConfiguresAnInstanceThatIsThere) {
    const ref_ptr<Component> top(new Component("top"));
    const ref_ptr<ValueT<double>> existing(new ValueT<double>("v", 1));
    top->addObject(existing.get());
    m_document =
        Object::openDocument(m_directory.write("m.xml", "<Object><Value instance='v' value='4'/></Object>"));
    top->configure(m_document->RootElement());
    EXPECT_EQ(existing->get(), 4.0);
    EXPECT_EQ(top->getNumObjects(), 1U);
}

TEST_F(ValueXmlTest, SavesWhatLoads) {
    const ref_ptr<Value> saved(new Value("v", getFormat("Vec3")));
    saved->setExpression("1, 2, 3");
    TiXmlElement element("Object");
    saved->save(&element);
    const TiXmlElement* child = element.FirstChildElement("Value");
    ASSERT_NE(child, nullptr);
    EXPECT_STREQ(child->Attribute("name"), "v");
    EXPECT_STREQ(child->Attribute("value"), "1.000000, 2.000000, 3.000000");
    const ref_ptr<Value> mutex(new Value("m", getFormat("SpinMutex")));
    mutex->save(&element);
    EXPECT_EQ(child->NextSiblingElement()->Attribute("value"), nullptr);
}

TEST_F(ValueXmlTest, WhatIsSavedLoadsInEveryFormat) {
    const auto again = [this](const Value& saved) {
        TiXmlDocument document;
        auto* const root = new TiXmlElement("Object");
        document.LinkEndChild(root);
        saved.save(root);
        const std::string path = m_directory.path("saved.xml");
        EXPECT_TRUE(document.SaveFile(path));
        m_document = Object::openDocument(path);
        return ref_ptr<Value>(Value::load(m_document->RootElement()->FirstChildElement("Value"), nullptr));
    };
    ASSERT_NE(getFormat("Array<Real>"), nullptr);
    int numFormats = 0;
    for (const auto& type : zelData::getTypes())
        for (const auto& entry : type.value->getFormats()) {
            const zelData::Format* const format = entry.value.get();
            // Neither the markers, nor an array that was looked up by a name without its last bracket.
            if (format->getSize() == 0 || type.key.str().ends_with(']'))
                continue;
            SCOPED_TRACE(std::string(format->fullName()));
            const ref_ptr<Value> saved(new Value("v", format));
            const ref_ptr<Value> loaded = again(*saved);
            ASSERT_EQ(loaded->getFormat(), format);
            if (type.value->getFormat("ascii") == nullptr ||
                zelData::getTransformer(type.value->getFormat("ascii"), format) == nullptr)
                continue;
            EXPECT_EQ(loaded->toString(), saved->toString());
            ++numFormats;
        }
    EXPECT_GT(numFormats, 80);
    for (const char* format : {"Real:32bit", "Real:64bit", "Vec3", "Matrix4x4", "Bound2", "Quat"})
        for (const char* text : {"inf", "-inf", "nan", "-nan", "1.5", "-2"}) {
            const ref_ptr<Value> saved(new Value("v", getFormat(format)));
            const zel::String content(text);
            zelData::transform(
                saved->getData(), saved->getFormat(), &content, saved->getType()->getFormat("ascii"), 1);
            EXPECT_EQ(again(*saved)->toString(), saved->toString()) << format << ' ' << text;
        }
    for (const char* text : {"",
                             " ",
                             "@a.b",
                             " a",
                             "a ",
                             "a\nb\n",
                             "\ta",
                             "String(a)",
                             "f(a, b)",
                             "12 ",
                             "true",
                             "a  b",
                             "<a & \"b\" 'c'>",
                             "a name"}) {
        const ref_ptr<ValueT<zel::String>> string(new ValueT<zel::String>("v", text));
        EXPECT_EQ(again(*string)->toString(), text);
        const ref_ptr<ValueT<zel::Name>> name(new ValueT<zel::Name>("v", text));
        EXPECT_EQ(again(*name)->toString(), text);
    }
}

TEST_F(ValueXmlTest, ALiteralIsNoExpression) {
    const ref_ptr<Component> top = load("<Value name='a' type='String' value=' @b ' literal='true'/>\n"
                                        "<Value name='b' value='@a ' literal='1'/>\n"
                                        "<Value name='c' type='Real' value='@d' literal='false'/>\n"
                                        "<Value name='d' type='Real' value='inf' literal='true'/>");
    EXPECT_EQ(value(top, "a")->toString(), " @b ");
    EXPECT_EQ(value(top, "b")->toString(), "@a ");
    EXPECT_EQ(value(top, "c")->toString(), "inf");
    EXPECT_EQ(value(top, "d")->toString(), "inf");
    EXPECT_THAT(failure("<Value name='v' type='Uuid' value='1' literal='true'/>"),
                HasSubstr("can not be read from the text '1'"));
}

TEST_F(ValueXmlTest, SnapshotsConfigureTheInstance) {
    const ref_ptr<ValueT<zel::String>> text(new ValueT<zel::String>("v", "<a & \"b\">"));
    TiXmlElement element("Object");
    text->snapshot(&element, m_directory.path());
    TiXmlElement* child = element.FirstChildElement("Value");
    ASSERT_NE(child, nullptr);
    EXPECT_STREQ(child->Attribute("instance"), "v");
    text->set(zel::String());
    text->configure(child);
    EXPECT_EQ(text->get(), "<a & \"b\">");
}

TEST_F(ValueXmlTest, SaysWhatIsWrong) {
    EXPECT_THAT(failure("<Value name='v' fn='x'/>"), HasSubstr("XML error: TODO New function syntax..."));
    const std::string unnamed = failure("<Value type='Real'/>");
    EXPECT_THAT(unnamed, HasSubstr("XML error: Value does not have a name!. Error at row 2\nFile: "));
    EXPECT_THAT(unnamed, HasSubstr(m_directory.path("m.xml")));
    EXPECT_THAT(failure("<Value name='v' type='Rael'/>"), HasSubstr("No type named 'Rael'"));
    EXPECT_THAT(failure("<Value name='v' type='Real:1bit'/>"), HasSubstr("No format named 'Real:1bit'"));
    EXPECT_THAT(failure("<Value name='v' type='Real' value='f(1'/>"),
                HasSubstr("'f(1' is no call of a function"));
    EXPECT_EQ(failure("<Value name='v' type='Real' value=''/>"), "no exception");
}

TEST_F(ValueXmlMaliciousTest, ACircleOfBindingsIsAnError) {
    const auto circle = [this](const char* elements) { return whatOf([&] { load(elements)->rebind(); }); };
    EXPECT_THAT(circle("<Value name='a' bind='b'/><Value name='b' bind='c'/><Value name='c' bind='a'/>"),
                HasSubstr("which depends on it"));
    EXPECT_TRUE(Object::getEnableRebind());
    // A path that leads to the value itself leads nowhere.
    EXPECT_EQ(circle("<Component name='k'><Value name='a' bind='k.a'/></Component>"), "no exception");
}

TEST_F(ValueXmlMaliciousTest, ATreeWithABadBindingGoesQuietly) {
    const ref_ptr<Component> top(new Component("top"));
    m_document =
        Object::openDocument(m_directory.write("m.xml",
                                               "<Object><Component name='k'><Object name='o'/><Value "
                                               "name='v' type='Int' bind='o'/></Component></Object>"));
    EXPECT_THROW(top->configure(m_document->RootElement()), std::runtime_error);
    EXPECT_NE(top->findObject("k"), nullptr); // goes with the tree, and looks its bindings up once more
}

TEST_F(ValueXmlMaliciousTest, AChainMayBeLong) {
    std::string elements = "<Component name='k'><Value name='v0' type='Real' value='3'/>";
    for (int i = 1; i < 20000; ++i)
        elements += "<Value name='v" + std::to_string(i) + "' bind='v" + std::to_string(i - 1) + "'/>";
    const ref_ptr<Component> top = load(elements + "</Component>");
    EXPECT_EQ(value(top, "k.v19999")->toString(), "3");
}

TEST_F(ValueXmlDeathTest, ALiteralNeedsAType) {
    EXPECT_THAT(
        failure("<Value name='v' value='1'/>"),
        HasSubstr("'1' of the attribute 'value' needs a type, such as type=\"Real\". Error at row 2"));
    const ref_ptr<Value> value(new Value("v", static_cast<const zelData::Format*>(nullptr)));
    EXPECT_DEATH(
        value->setExpression("1"),
        "zelVerify failed: `m_format', v: Can not have an implicitly typed literal for an auto-typed "
        "value\\. Expression is '1'");
}
