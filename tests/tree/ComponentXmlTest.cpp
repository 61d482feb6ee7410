#include <zel/Component.h>
#include <zel/ComponentManager.h>
#include <zel/Model.h>
#include <zel/XmlLoader.h>
#include <zelCore/zelCore.h>
#include <zelIO/Environment.h>
#include <zelIO/FilePathContainer.h>

#include <support/LogCapture.h>
#include <support/ModelFiles.h>
#include <support/TempDirectory.h>
#include <support/WhatOf.h>
#include <tinyxml.h>

#include <string>

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;
using zel::Component;
using zel::Name;
using zel::Object;
using zel::Path;
using zel::ref_ptr;
using zelTest::LogCapture;
using zelTest::TempDirectory;

namespace {

class ComponentXmlTest : public zelTest::ModelFiles {
protected:
    std::string write(const std::string& name, const std::string& content) {
        return directory.write("Components/zel/" + name, content);
    }
    ref_ptr<Component> load(const std::string& path) { return Component::load(Path(path), nullptr); }
    std::string failure(const std::string& path) {
        const std::string what = zelTest::whatOf([&] { load(path); });
        EXPECT_TRUE(Object::getEnableRebind());
        return what;
    }
};
using ComponentXmlMaliciousTest = ComponentXmlTest;
using ComponentManagerTest = ComponentXmlTest;

} // namespace

TEST_F(ComponentXmlTest, LoadsATree) {
    write("Sky.zelComponent",
          "<Component name='Sky'>\n"
          "  <description>All there is.</description>\n"
          "  <Component name='Sun'><Object name='Spot'/></Component>\n"
          "  <Object name='Moon'/>\n"
          "</Component>");
    const ref_ptr<Component> sky = load("Sky");
    ASSERT_TRUE(sky);
    EXPECT_EQ(sky->getName(), Name("Sky"));
    EXPECT_EQ(sky->getModel()->fullName(), "Sky");
    EXPECT_EQ(sky->getNumObjects(), 2U);
    EXPECT_NE(sky->getResource("Sun.Spot"), nullptr);
    EXPECT_EQ(sky->getResource("Sun")->getModel(), Component::ClassModel());
    EXPECT_EQ(sky->getResource("Sun.Spot")->getPath(), Path("Sky.Sun.Spot"));
    EXPECT_EQ(sky->referenceCount(), 1);
}

TEST_F(ComponentXmlTest, TakesANameOfTheCallersChoice) {
    write("Sky.zelComponent", "<Component name='Sky'/>");
    const ref_ptr<Component> sky(Component::load(Path("Sky"), Name("Heaven"), nullptr));
    EXPECT_EQ(sky->getName(), Name("Heaven"));
}

TEST_F(ComponentXmlTest, LoadsAFileByItsName) {
    const std::string file =
        write("deep/Sky.zelComponent", "<Component name='Sky'><Object name='Moon'/></Component>");
    const ref_ptr<Component> sky(Component::loadFile(file, nullptr));
    ASSERT_TRUE(sky);
    EXPECT_EQ(sky->getModel()->fullName(), "deep:Sky");
    EXPECT_NE(sky->findObject("Moon"), nullptr);
}

TEST_F(ComponentXmlTest, BuildsTheChildrenOfTheSourceFirst) {
    write("Base.zelComponent", "<Component name='Base'><Object name='one'/></Component>");
    write("Derived.zelComponent", "<Component name='Derived' source='Base'><Object name='two'/></Component>");
    const ref_ptr<Component> derived = load("Derived");
    ASSERT_EQ(derived->getNumObjects(), 2U);
    EXPECT_EQ(derived->getObject(0)->getName(), Name("one"));
    EXPECT_EQ(derived->getObject(1)->getName(), Name("two"));
    EXPECT_TRUE(derived->getModel()->is(zel::Model::getModel("Base")));
}

TEST_F(ComponentXmlTest, ChildWithASourceIsBuiltAsTheSource) {
    write("parts/Wheel.zelComponent", "<Component name='Wheel'><Object name='tyre'/></Component>");
    write("parts/Car.zelComponent",
          "<Component name='Car'><Component name='left' source='Wheel'><Object name='cap'/></Component>"
          "<Component source='parts.Wheel'/></Component>");
    const ref_ptr<Component> car = load("parts.Car");
    EXPECT_NE(car->getResource("left.tyre"), nullptr);
    EXPECT_NE(car->getResource("left.cap"), nullptr);
    EXPECT_EQ(car->getResource("left")->getModel()->fullName(), "parts:Wheel");
    EXPECT_NE(car->getResource("Wheel.tyre"), nullptr);
}

TEST_F(ComponentXmlTest, InstanceConfiguresWhatIsThere) {
    write("Base.zelComponent", "<Component name='Base'><Component name='inner'/></Component>");
    write("Derived.zelComponent",
          "<Component name='Derived' source='Base'><Component instance='inner'><Object "
          "name='more'/></Component>"
          "</Component>");
    const ref_ptr<Component> derived = load("Derived");
    EXPECT_EQ(derived->getNumObjects(), 1U);
    EXPECT_NE(derived->getResource("inner.more"), nullptr);
}

TEST_F(ComponentXmlTest, MissingInstanceIsAnXmlError) {
    write("Bad.zelComponent", "<Component name='Bad'>\n<Component instance='no.such'/></Component>");
    EXPECT_THAT(failure("Bad"), HasSubstr("XML error: Could not find instance 'no.such'. Error at row 2"));
}

TEST_F(ComponentXmlTest, NoRebindRunsWhileADocumentIsHalfLoaded) {
    struct Watching : Object {
        void rebind() override { ++count; }
        int count = 0;
    };
    static int loaded = 0;
    static const zel::XmlLoaderRegistrator watching("Watching", [](TiXmlElement*, zel::Device*) -> Object* {
        ++loaded;
        return new Watching;
    });
    write("Sky.zelComponent", "<Component name='Sky'><Watching/><Watching/></Component>");
    const ref_ptr<Component> sky = load("Sky");
    EXPECT_EQ(loaded, 2);
    EXPECT_EQ(static_cast<Watching*>(sky->getObject(0))->count, 0);
    const ref_ptr<Component> top(new Component("top"));
    top->addObject(sky.get());
    EXPECT_GE(static_cast<Watching*>(sky->getObject(0))->count, 1);
}

TEST_F(ComponentXmlTest, NamelessComponentIsAnXmlErrorAtEachLevel) {
    const std::string file =
        write("Bad.zelComponent", "<Component name='Bad'>\n  <Component/>\n</Component>");
    const LogCapture log;
    const std::string what = failure("Bad");
    EXPECT_THAT(what, StartsWith("[src/tree/Object.cpp:"));
    EXPECT_THAT(what, HasSubstr("XML error: Caught exception. Error at row 2\nFile: " + file));
    EXPECT_THAT(log.text(), HasSubstr("XML error: Must specify a name for the component!. Error at row 2"));
}

TEST_F(ComponentXmlTest, MissingSourceIsAnXmlError) {
    write("Bad.zelComponent", "<Component name='Bad' source='No.Such'/>");
    EXPECT_THAT(failure("Bad"),
                AllOf(HasSubstr("XML error: Unable to locate source component 'No.Such': looked for "
                                "'No/Such.zelComponent', also below 'Components/zel' and 'Components'"),
                      HasSubstr("\n  " + directory.path() + "\n"),
                      HasSubstr(". Error at row 1")));
}

TEST_F(ComponentXmlTest, ReasonOfAMissingSourceIsTold) {
    const auto expect = [this](const std::string& content, const std::string& reason) {
        write("Bad.zelComponent", content);
        EXPECT_THAT(failure("Bad"),
                    HasSubstr("Unable to locate source component " + reason + ". Error at row "));
    };
    expect("<Component name='Bad' source='Bad'/>", "'Bad': that is the component itself");
    expect("<Component name='Bad' source='Late'/>\n<Component name='Late'/>",
           "'Late': it stands in row 2 of this file; a source stands ahead of what derives from it");
    expect("<Component name='Bad' source='lab/Base'/>",
           "'lab/Base': a path is written with '.' in place of '/'");
    expect("<Component name='Bad' source='Base.zelComponent'/>",
           "'Base.zelComponent': a path is written without the extension '.zelComponent'");
    const std::string file =
        write("Plugged.zelComponent", "<Component name='Plugged' implementation='No.Plug'/>");
    const LogCapture log;
    write("Bad.zelComponent", "<Component name='Bad'><Component source='Plugged'/></Component>");
    failure("Bad");
    EXPECT_THAT(
        log.text(),
        HasSubstr("Unable to locate source component 'Plugged': its implementation 'No.Plug' is not found"));
}

TEST_F(ComponentXmlTest, ModelThatLeftItsFileIsAnXmlError) {
    write("Sky.zelComponent", "<Component name='Sky'/>");
    zel::Model* model = zel::Model::getModel("Sky");
    ASSERT_NE(model, nullptr);
    const std::string file = write("Sky.zelComponent", "<Component name='Other'/>");
    EXPECT_THAT(failure("Sky"), HasSubstr("XML error: Could not find matching model Sky in file " + file));
}

TEST_F(ComponentXmlTest, UnknownTagIsAnXmlErrorWithFileAndRow) {
    const std::string file = write("Bad.zelComponent", "<Component name='Bad'>\n\n<Nonsense/></Component>");
    EXPECT_THAT(failure("Bad"),
                HasSubstr("XML error: Unknown tag 'Nonsense'. Error at row 3\nFile: " + file));
}

TEST_F(ComponentXmlTest, UnknownModelGivesNull) {
    const LogCapture log;
    EXPECT_EQ(load("No.Such").get(), nullptr);
    EXPECT_THAT(log.text(), HasSubstr("Unable to find plugin for resource: 'No.Such'"));
}

TEST_F(ComponentXmlTest, MissingFileAndDirectoryGiveNull) {
    const LogCapture log;
    EXPECT_EQ(Component::loadFile(directory / "Components/zel/None.zelComponent", nullptr), nullptr);
    EXPECT_THAT(log.text(), HasSubstr("error on row 0: No such file or directory"));
    directory.write("Components/zel/Folder.zelComponent/x", "");
    EXPECT_EQ(Component::loadFile(directory / "Components/zel/Folder.zelComponent", nullptr), nullptr);
    EXPECT_THAT(log.text(), HasSubstr("error on row 0: Is a directory"));
}

TEST_F(ComponentXmlMaliciousTest, DeepNestingIsRefusedBeforeTheParser) {
    std::string text = "<Component name='Deep'>";
    for (int i = 0; i < 100000; ++i)
        text += "\n<Component name='a' x='/>'>";
    const std::string file = write("Deep.zelComponent", text);
    const LogCapture log;
    EXPECT_EQ(load("Deep").get(), nullptr);
    EXPECT_THAT(log.text(),
                HasSubstr("Could not open model file '" + file +
                          "', error on row 513: elements are nested more than 512 deep"));
}

TEST_F(ComponentXmlMaliciousTest, ClosingTagsInCommentsDoNotHideNesting) {
    std::string text = "<Component name='Deep'>";
    for (int i = 0; i < 2000; ++i)
        text += "<a><!-- </a> --><![CDATA[</a>]]>";
    write("Deep.zelComponent", text);
    const LogCapture log;
    EXPECT_EQ(load("Deep").get(), nullptr);
    EXPECT_THAT(log.text(), HasSubstr("elements are nested more than 512 deep"));
}

TEST_F(ComponentXmlTest, FiveHundredLevelsLoad) {
    std::string text = "<Component name='Deep'>";
    for (int i = 0; i < 500; ++i)
        text += "<Component name='a'>";
    for (int i = 0; i < 500; ++i)
        text += "</Component>";
    write("Deep.zelComponent", text + "</Component>");
    const ref_ptr<Component> deep = load("Deep");
    ASSERT_TRUE(deep);
    const Object* object = deep.get();
    int levels = 0;
    while (auto* child = dynamic_cast<const Component*>(object)->findObject("a")) {
        object = child;
        ++levels;
    }
    EXPECT_EQ(levels, 500);
}

TEST_F(ComponentXmlMaliciousTest, HugeFileIsRefused) {
    write("Huge.zelComponent", "<Component name='Huge'>" + std::string(100U << 20, ' ') + "</Component>");
    const LogCapture log;
    EXPECT_EQ(load("Huge").get(), nullptr);
    EXPECT_THAT(log.text(), HasSubstr("the file is larger than 67108864 bytes"));
}

TEST_F(ComponentXmlMaliciousTest, ManyObjectsOfOneNameLoadInLinearTime) {
    std::string text = "<Component name='Many'>";
    for (int i = 0; i < 200000; ++i)
        text += "<Object name='a'/>";
    write("Many.zelComponent", text + "</Component>");
    const ref_ptr<Component> many = load("Many");
    EXPECT_EQ(many->getNumObjects("a"), 200000U);
}

TEST_F(ComponentXmlMaliciousTest, DoctypeWithoutAnElementIsRefused) {
    const std::string file = write("Dtd.zelComponent", "<!DOCTYPE a [ <!ENTITY b 'c'> ]>");
    const LogCapture log;
    EXPECT_EQ(load("Dtd").get(), nullptr);
    EXPECT_THAT(log.text(), HasSubstr("Could not open model file '" + file + "', error on row "));
}

TEST_F(ComponentXmlMaliciousTest, EmptyAndBinaryFilesAreRefused) {
    const LogCapture log;
    for (const std::string& content :
         {std::string(), std::string("\0\0\0", 3), std::string("\xff\xfe<a"), std::string("text")}) {
        write("Odd.zelComponent", content);
        EXPECT_EQ(load("Odd").get(), nullptr);
    }
    EXPECT_THAT(log.text(), HasSubstr("Odd.zelComponent', error on row"));
}

TEST_F(ComponentXmlMaliciousTest, ComponentThatContainsItselfIsAnXmlError) {
    write("Loop.zelComponent", "<Component name='Loop'><Component name='again' source='Loop'/></Component>");
    const LogCapture log;
    EXPECT_THAT(failure("Loop"), HasSubstr("XML error: Caught exception"));
    EXPECT_THAT(log.text(), HasSubstr("Load loop detected for component 'Loop'"));
}

TEST_F(ComponentXmlMaliciousTest, ComponentsThatContainEachOtherAreAnXmlError) {
    write("A.zelComponent", "<Component name='A'><Component name='b' source='B'/></Component>");
    write("B.zelComponent", "<Component name='B'><Component name='a' source='A'/></Component>");
    const LogCapture log;
    EXPECT_THAT(failure("A"), HasSubstr("XML error: Caught exception"));
    EXPECT_THAT(log.text(), HasSubstr("Load loop detected for component 'A'"));
}

TEST_F(ComponentManagerTest, MakesComponentsFromModelFiles) {
    write("a/B.zelComponent", "<Component name='B'><Object name='o'/></Component>");
    const ref_ptr<Component> component(zel::ComponentManager::instance()->create("a.B", "b", nullptr));
    ASSERT_TRUE(component);
    EXPECT_EQ(component->getName(), Name("b"));
    EXPECT_NE(component->findObject("o"), nullptr);
    EXPECT_EQ(zel::ComponentManager::getFileSystemPath("a.B"), directory / "Components/zel/a/B.zelComponent");
}

TEST_F(ComponentManagerTest, RefusesTheWrongSeparatorAndUnknownResources) {
    const LogCapture log;
    EXPECT_EQ(zel::ComponentManager::instance()->create("a/b", "b", nullptr), nullptr);
    EXPECT_THAT(log.text(), HasSubstr("Wrong separator '/' should be '.'"));
    EXPECT_EQ(zel::ComponentManager::instance()->create("a.none", "b", nullptr), nullptr);
    EXPECT_THAT(log.text(), HasSubstr("Unable to find plugin for resource: 'a.none'"));
}

namespace {

struct Special : Component {
    using Component::Component;
};

struct SpecialPlugin : zel::AbstractComponentPlugin {
    SpecialPlugin() : AbstractComponentPlugin("test.Special") {}
    Component* create(const Name& name, zel::Device* device) override {
        return new Special(name, Component::ClassModel(), device);
    }
    zel::String getDescription() const override { return "for tests"; }
};

} // namespace

TEST_F(ComponentManagerTest, ImplementationOfAModelSelectsTheClass) {
    const SpecialPlugin plugin;
    write("Fancy.zelComponent",
          "<Component name='Fancy' implementation='test.Special'><Object name='o'/></Component>");
    const ref_ptr<Component> component = load("Fancy");
    ASSERT_TRUE(component);
    EXPECT_NE(dynamic_cast<Special*>(component.get()), nullptr);
    EXPECT_EQ(component->getModel()->getName(), Name("Fancy"));
    EXPECT_NE(component->findObject("o"), nullptr);
    EXPECT_EQ(plugin.getDescription(), "for tests");
}

TEST_F(ComponentManagerTest, ForgetsAPluginThatLeaves) {
    {
        const SpecialPlugin plugin;
        EXPECT_EQ(zel::ComponentManager::findPlugin("test.Special"), &plugin);
        const ref_ptr<Component> made(
            zel::ComponentManager::instance()->create("test.Special", "s", nullptr));
        EXPECT_EQ(made->getName(), Name("s"));
    }
    EXPECT_EQ(zel::ComponentManager::findPlugin("test.Special"), nullptr);
}

TEST_F(ComponentManagerTest, KeepsAPluginOfTheProgramInTheNextLifeOfTheLibrary) {
    const SpecialPlugin plugin;
    zelCore::shutdown();
    SetUp();
    write("Fancy.zelComponent", "<Component name='Fancy' implementation='test.Special'/>");
    EXPECT_NE(dynamic_cast<Special*>(load("Fancy").get()), nullptr);
}

TEST_F(ComponentManagerTest, RefusesASecondPluginOfAPath) {
    const SpecialPlugin plugin;
    {
        const LogCapture log;
        const SpecialPlugin second;
        EXPECT_EQ(log.text(), "There is a plug-in for the path 'test.Special' already\n");
        EXPECT_EQ(zel::ComponentManager::findPlugin("test.Special"), &plugin);
    }
    EXPECT_EQ(zel::ComponentManager::findPlugin("test.Special"), &plugin);
}

TEST_F(ComponentXmlTest, SystemRootIsLoadedOnceAndEndsWithTheLibrary) {
    Component* root = zel::root();
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(root->getName(), Name("Root"));
    EXPECT_EQ(zel::root(), root);
    root->addObject(new Object("child"));
    EXPECT_EQ(root->findObject("child")->getPath(), Path("child"));
    zelCore::shutdown();
    zelCore::init();
    EXPECT_EQ(zel::root()->findObject("child"), nullptr);
}

TEST_F(ComponentXmlTest, MissingSystemRootIsAnError) {
    for (const auto type : {zelIO::Environment::PluginPath, zelIO::Environment::ResourcePath})
        zelIO::Environment::instance()->getFilePath(type).clear();
    try {
        (void)zel::root();
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Unable to load system root using path: 'Root.zelComponent'\n");
    }
}

TEST_F(ComponentXmlTest, BrokenSystemRootIsAnError) {
    const std::string file = directory.write("Root.zelComponent", "<broken");
    try {
        (void)zel::root();
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(error.what(), "Error initializing system root from path: '" + file + "'\n");
    }
}
