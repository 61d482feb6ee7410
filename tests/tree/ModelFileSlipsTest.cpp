// Slips in a model file that used to pass in silence, or to end the process without a place.
#include "support/LogCapture.h"
#include "support/ModelFiles.h"
#include "support/WhatOf.h"

#include <zel/Clock.h>
#include <zel/Component.h>
#include <zel/Model.h>
#include <zel/ref_ptr.h>
#include <zelData/EntityModel.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <exception>
#include <string>
#include <utility>
#include <vector>

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using zel::Component;
using zel::ref_ptr;
using zelTest::whatOf;

namespace {

class ModelFileSlipsTest : public zelTest::ModelFiles {
protected:
    /// Loads a model of the elements, the first of which is on row 2.
    ref_ptr<Component> load(const std::string& content) {
        file = directory.write("Components/Lab/Frame.zelComponent",
                               "<Component name='Frame'>\n" + content + "</Component>");
        return ref_ptr<Component>(Component::load("Lab.Frame", nullptr));
    }
    /// The innermost reason why the elements can not be loaded.
    std::string failure(const std::string& content) {
        try {
            load(content);
        } catch (const std::exception& outer) {
            try {
                std::rethrow_if_nested(outer);
            } catch (const std::exception& inner) {
                return inner.what();
            }
            return outer.what();
        }
        return "no exception";
    }
    [[nodiscard]] std::string at(int row) const {
        return "In file '" + file + "', row " + std::to_string(row) + ": ";
    }
    void TearDown() override {
        zel::Component* const root = zel::root();
        root->removeAllObjects();
        ModelFiles::TearDown();
    }

    zelTest::LogCapture log{zel::Notify::Warning};
    std::string file;
};
using ModelFileSlipsDeathTest = ModelFileSlipsTest;

} // namespace

// What nothing reads

TEST_F(ModelFileSlipsTest, ElementsInElementsThatIgnoreThemAreTold) {
    load("<Value name='a' type='Real'>\n<Value name='b' type='Real'/></Value>\n"
         "<Object name='c'>\n<description>fine</description></Object>");
    EXPECT_EQ(log.text(), at(3) + "nothing reads the element 'Value' inside of 'Value'\n");
}

TEST_F(ModelFileSlipsTest, TextsAreTold) {
    load("<description>a text</description>\n<Value name='a' type='Real'>5</Value>");
    EXPECT_EQ(log.text(), at(3) + "nothing reads the text '5' in 'Value'\n");
}

TEST_F(ModelFileSlipsTest, NamesWithADotAreTold) {
    load("<Value name='a.b' type='Real'/>");
    EXPECT_EQ(log.text(),
              at(2) + "no path finds an object of the name 'a.b': a dot in a path leads to a child\n");
}

TEST_F(ModelFileSlipsTest, AttributesBesideASourceAreTold) {
    directory.write("Components/Lab/Base.zelComponent", "<Component name='Base'/>");
    const std::string other = directory.write("Components/Lab/Derived.zelComponent",
                                              "<Component name='Derived' source='Base' nam='x'/>");
    load("<Component nme='inner' source='Lab.Base'/>");
    EXPECT_EQ(log.text(),
              at(2) + "nothing reads the attribute 'nme' of 'Component' (did you mean 'name'?). It has: name "
                      "source implementation instance\n");
    const ref_ptr<Component> derived(Component::load("Lab.Derived", nullptr));
    EXPECT_THAT(
        log.texts().back(),
        StartsWith("In file '" + other + "', row 1: nothing reads the attribute 'nam' of 'Component'"));
}

TEST_F(ModelFileSlipsTest, AttributesBesideASourceAreToldOnce) {
    directory.write("Components/Lab/Base.zelComponent", "<Component name='Base'/>");
    load("<Component nme='inner' source='Lab.Base'/>");
    const ref_ptr<Component> again(Component::load("Lab.Frame", nullptr));
    EXPECT_EQ(log.texts().size(), 1U) << log.text();
}

// Literals

TEST_F(ModelFileSlipsTest, LiteralsThatAreNotWhollyOfTheirTypeAreToldAndRead) {
    const auto expect = [this](const std::string& type, const std::string& text, const std::string& fault) {
        const size_t before = log.texts().size();
        load("<Value name='v' type='" + type + "' value='" + text + "'/>");
        ASSERT_EQ(log.texts().size(), before + 1) << type << " " << text;
        EXPECT_EQ(log.texts().back(),
                  at(2) + "'" + text + "' of the attribute 'value' is not wholly a value of type '" + type +
                      "': " + fault + "\n");
    };
    expect("Real:64bit", "2,5", "',5' stands behind the number. It is read as '2'");
    expect("Real:64bit", "12abc", "'abc' stands behind the number. It is read as '12'");
    expect("Real:64bit", "1 5", "'5' stands behind the number. It is read as '1'");
    expect("Real:64bit", "-x", "'-x' is no number. It is read as '0'");
    expect("Real:64bit", "1e400", "'1e400' is out of range. It is read as 'inf'");
    expect("Real:32bit", "1e300", "'1e300' is out of range. It is read as 'inf'");
    expect("Int:64bit", "12abc", "'abc' stands behind the number. It is read as '12'");
    expect("Int:64bit", "1.5", "'1.5' is no whole number. It is read as '1'");
    expect("Int:64bit", "0x10", "'0x10' is no whole number. It is read as '0'");
    expect("Int:8bit", "300", "'300' is out of range. It is read as '44'");
    expect("UInt:64bit", "-3", "'-3' is below 0");
    expect("UInt:8bit", "256", "'256' is out of range. It is read as '0'");
    expect("Int:64bit",
           "9223372036854775808",
           "'9223372036854775808' is out of range. It is read as '9223372036854775807'");
    expect("Vec3:64bit",
           "1 2 3",
           "between '1' and '2 3' a comma is missing, and blanks do not count. It is read as '123.000000, "
           "123.000000, 123.000000'");
    expect("Vec3:64bit",
           "1, 2",
           "there are 2 numbers in place of 3. It is read as '1.000000, 2.000000, 0.000000'");
    expect("Vec2:64bit", "1, 2, 3", "there are 3 numbers in place of 2. It is read as '1.000000, 2.000000'");
    expect("Vec2u:8bit", "1, 256", "'256' is out of range. It is read as '1, 0'");
    expect("Vec2:64bit", "1, x", "'x' is no number. It is read as '1.000000, 0.000000'");
}

TEST_F(ModelFileSlipsTest, MessageOfALongLiteralIsShort) {
    load("<Value name='v' type='Vec3' value='1 " + std::string(1000000, 'x') + "'/>");
    EXPECT_THAT(log.text(), HasSubstr("xxx...' is no number"));
    EXPECT_LT(log.text().size(), 2000U);
}

TEST_F(ModelFileSlipsTest, LiteralsOfTheirTypeAreSilent) {
    std::string elements;
    for (const auto& [type, text] :
         std::vector<std::pair<std::string, std::string>>{{"Real", "2.5"},
                                                          {"Real", "-1e-9"},
                                                          {"Real", "1.23456789e300"},
                                                          {"Real", "PI"},
                                                          {"Real", "INFINITY"},
                                                          {"Real", "-INFINITY"},
                                                          {"Real:32bit", "0.1"},
                                                          {"Real:64bit", "Real:64bit(2.5)"},
                                                          {"Int", "-9223372036854775808"},
                                                          {"Int:8bit", "-128"},
                                                          {"Int", "007"},
                                                          {"UInt", "InvalidIndex"},
                                                          {"UInt:8bit", "255"},
                                                          {"Bool", "true"},
                                                          {"Vec3", "1"},
                                                          {"Vec3", "1, 2, 3"},
                                                          {"Vec3", " 1.5,-2 , 3e2 "},
                                                          {"Vec2i", "-1, 2"},
                                                          {"Quat", "0, 0, 0, 1"},
                                                          {"Bound1", "0:1"},
                                                          {"Bound2i", "0,1:2,3"},
                                                          {"Line", "0, 0, 0 -> 1, 1, 1"},
                                                          {"Matrix3x3", "1, 0, 0,     0, 1, 0,     0, 0, 1"},
                                                          {"String", "12abc"},
                                                          {"Name", "5 and more"}})
        elements += "<Value name='v' type='" + type + "' value='" + text + "'/>\n";
    load(elements);
    EXPECT_THAT(log.text(), IsEmpty());
}

TEST_F(ModelFileSlipsTest, LiteralsOfAttributesAndParametersAreLookedAt) {
    const std::string entity =
        directory.write("Components/Lab/Atom.zelEntity",
                        "<Entity.Model name='Atom'>\n"
                        "<Attribute.Scalar name='x' type='Real' value='1,5'/>\n"
                        "<Attribute.Shared name='y' type='Real' value='2,5'/></Entity.Model>");
    load("<Entity.Storage name='atoms' entity='Lab.Atom'/>\n"
         "<Task name='t' source='Nix'><Value instance='v' type='Real' value='3,5'/></Task>");
    EXPECT_THAT(log.text(),
                AllOf(HasSubstr("In file '" + entity + "', row 2: '1,5' of"),
                      HasSubstr("In file '" + entity + "', row 3: '2,5' of"),
                      HasSubstr(at(3) + "'3,5' of")));
}

TEST_F(ModelFileSlipsTest, ArgumentsThatAreNoNumbersAreTold) {
    load("<Value name='x' type='Real' value='1'/><Value name='t' type='String' value='Math.Add(1x)'/>\n"
         "<Value name='a' type='Real' value='Math.Add(@x, Math.Mul(-2, 12abc))'/>\n"
         "<Value name='b' type='Real' value='Math.Add(Vec3(1, 2, 3), String(1x), PI, 0x10, -1e3)'/>");
    EXPECT_EQ(log.texts().front(), at(3) + "the argument '12abc' in the attribute 'value' is no number\n");
    EXPECT_EQ(log.text().rfind("is no number"), log.text().find("is no number"));
}

// Paths that lead nowhere

TEST_F(ModelFileSlipsTest, PathsThatLeadNowhereAreToldOnceAtTheFirstTick) {
    const ref_ptr<Component> frame =
        load("<Value name='two' type='Real' value='2'/>\n"
             "<Value name='a' type='Real' bind='tow'/>\n"
             "<Value name='b' type='Real' value='@part.lnog'/>\n"
             "<TaskGroup name='c' trigger='clok'/>\n"
             "<TaskGroup name='d' depends='two' trigger='clock'/>\n"
             "<Value name='e' type='Real' bind='two'/>\n"
             "<Component name='part'><Value name='long' type='Real'/></Component>"
             "<Clock name='clock'/>");
    frame->rebind();
    EXPECT_THAT(log.text(), IsEmpty());
    auto* const clock = dynamic_cast<zel::Clock*>(frame->findObject("clock"));
    clock->tick();
    EXPECT_THAT(
        log.texts(),
        ElementsAre(
            at(3) + "the path 'tow' of the attribute 'bind' of 'Frame.a' leads nowhere (did you mean "
                    "'two'?)\n",
            at(4) + "the path 'part.lnog' of the attribute 'value' of 'Frame.b' leads nowhere (did you mean "
                    "'part.long'?)\n",
            at(5) + "the path 'clok' of the attribute 'trigger' of 'Frame.c' leads nowhere "
                    "(did you mean 'clock'?)\n",
            at(6) + "the path 'two' of the attribute 'depends' of 'Frame.d' leads nowhere\n"));
    clock->tick();
    frame->rebind();
    EXPECT_EQ(log.texts().size(), 4U) << log.text();
}

TEST_F(ModelFileSlipsTest, EachAttributeThatTakesAPathIsLookedAt) {
    // A value is no task and no clock, and what is in a component is found through that alone.
    std::string elements = "<Clock name='clock'/><Value name='speed' type='Real'/>"
                           "<Component name='arm'><Value name='deep' type='Real'/></Component>\n";
    const std::vector<std::pair<std::string, std::string>> cases{
        {"<Value name='a' bind='arm/deep'/>", "'arm/deep' of the attribute 'bind' of 'Frame.a'"},
        {"<Value name='b' type='Real' value='Real(@deep)'/>", "'deep' of the attribute 'value' of 'Frame.b'"},
        {"<Pointer name='c' bind='x'/>", "'x' of the attribute 'bind' of 'Frame.c'"},
        {"<Parameter.Scalar name='d' type='Real' source='arm' bind='x'/>",
         "'arm.x' of the attribute 'bind' of 'Frame.d'"},
        {"<Parameter.Scalar name='e' type='Real' value='@x'/>", "'x' of the attribute 'value' of 'Frame.e'"},
        {"<TaskGroup name='f' enable='x'/>", "'x' of the attribute 'enable' of 'Frame.f.enable'"},
        {"<TaskGroup name='g' trigger='arm'/>", "'arm' of the attribute 'trigger' of 'Frame.g'"},
        {"<TaskGroup name='h' resolve='clock'/>", "'clock' of the attribute 'resolve' of 'Frame.h'"},
        {"<TaskGroup name='i' depends='speed'/>", "'speed' of the attribute 'depends' of 'Frame.i'"},
        {"<TaskGroup name='j' dispatch='speed'/>", "'speed' of the attribute 'dispatch' of 'Frame.j'"},
        {"<TaskGroup name='k' bindContext='x'/>", "'x' of the attribute 'bindContext' of 'Frame.k'"},
        {"<Clock name='l' synchronize='speed'/>", "'speed' of the attribute 'synchronize' of 'Frame.l'"}};
    for (const auto& [element, message] : cases)
        elements += element + "\n";
    const ref_ptr<Component> frame = load(elements);
    dynamic_cast<zel::Clock*>(frame->findObject("clock"))->tick();
    ASSERT_EQ(log.texts().size(), cases.size()) << log.text();
    for (size_t i = 0; i < cases.size(); ++i)
        EXPECT_THAT(
            log.texts()[i],
            StartsWith(at(static_cast<int>(i) + 3) + "the path " + cases[i].second + " leads nowhere"));
}

TEST_F(ModelFileSlipsTest, PathsThatLeadNowhereAreToldAtARebindInTheRoot) {
    const ref_ptr<Component> frame = load("<Value name='a' type='Real' bind='late'/>\n"
                                          "<Value name='b' type='Real' value='Math.Sin(@nothing)'/>");
    zel::root()->addObject(frame.get());
    EXPECT_THAT(log.text(), Not(HasSubstr("leads nowhere"))); // it may be added next
    zel::root()->addObject(new zelData::Value("late", zelData::getFormat("Real")));
    frame->rebind();
    EXPECT_THAT(
        log.text(),
        HasSubstr(at(3) + "the path 'nothing' of the attribute 'value' of 'Frame.b' leads nowhere\n"));
    EXPECT_THAT(log.text(), Not(HasSubstr("'late'")));
}

TEST_F(ModelFileSlipsTest, FileOfManyComponentsIsToldOnce) {
    const ref_ptr<Component> top(new Component("top"));
    top->addObject(new zel::Clock("clock", 10));
    for (int i = 0; i < 100; ++i)
        top->addObject(
            load("<Value name='a' type='Real' value='2,5'/>\n<Value name='b' bind='nothing'/>").get());
    for (int i = 0; i < 3; ++i)
        static_cast<zel::Clock*>(top->findObject("clock"))->tick();
    EXPECT_THAT(
        log.texts(),
        ElementsAre(StartsWith(at(2) + "'2,5' of the attribute 'value' is not wholly"),
                    at(3) + "the path 'nothing' of the attribute 'bind' of 'top.Frame.b' leads nowhere\n"));
}

TEST_F(ModelFileSlipsTest, PathsOfObjectsThatAreGoneAreNotTold) {
    const ref_ptr<Component> frame =
        load("<Value name='a' type='Real' bind='nothing'/><Clock name='clock'/>");
    frame->removeObject(frame->findObject("a"));
    dynamic_cast<zel::Clock*>(frame->findObject("clock"))->tick();
    EXPECT_THAT(log.text(), IsEmpty());
}

// What would end the process

TEST_F(ModelFileSlipsTest, LiteralWithoutATypeIsAnXmlError) {
    EXPECT_THAT(
        failure("<Value name='v' value='1'/>"),
        HasSubstr("XML error: '1' of the attribute 'value' needs a type, such as type=\"Real\". Error at "
                  "row 2\nFile: " +
                  file));
}

TEST_F(ModelFileSlipsTest, BooleanThatIsNeitherWordIsAnXmlError) {
    for (const char* attributes : {"value='1'", "value='Bool:8bit(1)'", "value='True' literal='true'"})
        EXPECT_THAT(
            failure("\n<Value name='v' type='Bool' " + std::string(attributes) + "/>"),
            HasSubstr(" of the attribute 'value' is no Bool: it is 'true' or 'false'. Error at row 3\n"));
}

TEST_F(ModelFileSlipsTest, UnknownAccessModeIsAnXmlError) {
    EXPECT_THAT(
        failure("<TaskGroup name='g'>\n<Parameter.Scalar name='p' type='Real' mode='read'/></TaskGroup>"),
        HasSubstr("XML error: Unknown mode 'read' (did you mean 'READ'?): it is READ, WRITE or "
                  "READ_WRITE. Error at row 3\n"));
}

TEST_F(ModelFileSlipsTest, AttributeOfTheSameNameIsAnXmlError) {
    directory.write("Components/Lab/Atom.zelEntity",
                    "<Entity.Model name='Atom'>\n<Attribute.Scalar name='x' type='Real'/>\n"
                    "<Attribute.Scalar name='x' type='Real'/></Entity.Model>");
    EXPECT_THAT(
        whatOf([] { (void)zel::Model::getModel("Lab.Atom"); }),
        HasSubstr("XML error: Atom: There is already an attribute registered with name 'x'. Error at row "
                  "3\n"));
}

TEST_F(ModelFileSlipsDeathTest, UnknownDeviceTypeEndsTheProcessWithItsPlace) {
    EXPECT_DEATH(
        load("<Device type='GPU'/>"),
        "In file '[^']*Lab/Frame.zelComponent', row 2: the device type 'GPU' is unknown, which ends the "
        "process; there is 'CPU'(.|\n)*Unknown device type 'GPU'");
}

TEST_F(ModelFileSlipsDeathTest, AttributeWithASetEndsTheProcessWithItsPlace) {
    directory.write("Components/Lab/Atom.zelEntity",
                    "<Entity.Model name='Atom'>\n<Attribute.HashSet name='x' type='Real'/></Entity.Model>");
    EXPECT_DEATH(
        (void)zel::Model::getModel("Lab.Atom"),
        "In file '[^']*Lab/Atom.zelEntity', row 2: sets as attributes are not supported, and end the "
        "process(.|\n)*TODO: We want both bucket format and element attribute");
}

// Names near to a wrong one

TEST_F(ModelFileSlipsTest, NamesNearToAWrongOneAreOffered) {
    const auto expect = [this](const std::string& element, const std::string& message) {
        EXPECT_THAT(failure(element), HasSubstr("XML error: " + message + ". Error at row "));
    };
    expect("<Valu name='v'/>", "Unknown tag 'Valu' (did you mean 'Value'?)");
    expect("<clock name='v'/>", "Unknown tag 'clock' (did you mean 'Clock'?)");
    expect("<Value name='v' type='Rael'/>", "No type named 'Rael' (did you mean 'Real'?)");
    expect("<Value name='v' type='real'/>", "No type named 'real' (did you mean 'Real'?)");
    expect("<Value name='v' type='Real:46bit'/>", "No format named 'Real:46bit' (did you mean '64bit'?)");
    expect("<Value name='speed' type='Real'/><Value instance='sped'/>",
           "Could not find instance 'sped' (did you mean 'speed'?)");
    expect("<Component name='a'><Value name='b' type='Real'/></Component><Value instance='a/b'/>",
           "Could not find instance 'a/b' (did you mean 'a.b'?)");
    expect("<Value name='v' type='Zzzzzz'/>", "No type named 'Zzzzzz'");
}

TEST_F(ModelFileSlipsTest, ModelsNearToAWrongPathAreOffered) {
    directory.write("Components/Lab/Base.zelComponent", "<Component name='Base'/>");
    const auto expect = [this](const std::string& source, const std::string& reason) {
        EXPECT_THAT(failure("<Component source='" + source + "'/>"),
                    HasSubstr("Unable to locate source component '" + source + "': " + reason));
    };
    expect("lab.base", "looked for 'lab/base.zelComponent' (did you mean 'Lab.Base'?), also below");
    expect("Bsae", "looked for 'Bsae.zelComponent' (did you mean 'Base'?), also below");
    expect("Lab/Base",
           "a path is written with '.' in place of '/' (did you mean 'Lab.Base'?). Error at row 2");
    expect(
        "Lab.Base.zelComponent",
        "a path is written without the extension '.zelComponent' (did you mean 'Lab.Base'?). Error at row 2");
}

TEST_F(ModelFileSlipsTest, ModelsOfTheSameFileNearToAWrongNameAreOffered) {
    directory.write("Components/Lab/Two.zelComponent",
                    "<Component name='First'/>\n<Component name='Two' source='Frist'/>");
    EXPECT_THAT(whatOf([] { (void)Component::load("Lab.Two", nullptr); }),
                HasSubstr("Unable to locate source component 'Frist': there is no such model (did you mean "
                          "'First'?). Error at row 2"));
}

TEST_F(ModelFileSlipsTest, SourceWhoseFileIsThereIsNotSaidToBeMissing) {
    const std::string other = directory.write("Components/Lab/Base.zelComponent", "<Component name='Bass'/>");
    EXPECT_THAT(failure("<Component source='Base'/>"),
                HasSubstr("Unable to locate source component 'Base': the file '" + other +
                          "' gives no such component"));
}

TEST_F(ModelFileSlipsTest, PathsOfTheProgramAreExplainedAsWell) {
    load("");
    EXPECT_EQ(Component::load("Lab/Frame", nullptr), nullptr);
    EXPECT_THAT(log.texts().back(),
                "A path is written with '.' in place of '/' (did you mean 'Lab.Frame'?)\n");
    EXPECT_EQ(Component::load("Lab.frame", nullptr), nullptr);
    EXPECT_THAT(log.texts().back(),
                StartsWith("Looked for 'Lab/frame.zelComponent' (did you mean 'Lab.Frame'?), also below"));
}

TEST_F(ModelFileSlipsTest, TagAtTheTopNearToAKnownOneIsOffered) {
    const std::string other = directory.write("Components/Lab/Odd.zelComponent",
                                              "<Component name='Odd'/>\n<Componet name='Even'/>");
    const ref_ptr<Component> odd(Component::load("Lab.Odd", nullptr));
    EXPECT_TRUE(odd);
    EXPECT_EQ(log.text(),
              "Found model file '" + other +
                  "' but no registered model type for tag 'Componet' (did you mean 'Component'?), row 2\n");
}

// Reasons

TEST_F(ModelFileSlipsTest, ReasonBelowManyLevelsIsToldOnceAndAtHand) {
    std::string elements;
    constexpr int levels = 400;
    for (int i = 0; i < levels; ++i)
        elements += "<Component name='a'>\n";
    elements += "<Value name='v' type='Rael'/>";
    for (int i = 0; i < levels; ++i)
        elements += "</Component>\n";
    const std::string row = std::to_string(levels + 2);
    EXPECT_THAT(
        failure(elements),
        HasSubstr("XML error: No type named 'Rael' (did you mean 'Real'?). Error at row " + row + "\n"));
    ASSERT_EQ(log.texts().size(), 1U);
    EXPECT_THAT(log.text(), HasSubstr("No type named 'Rael'"));
    EXPECT_LT(log.text().size(), 2000U);
}

TEST_F(ModelFileSlipsTest, ReasonWithoutAPlaceIsToldWithIt) {
    EXPECT_EQ(failure("<Value name='v' type='Real' value='many'/>"),
              "v: 'many' is no literal, path, explicit form or function");
    EXPECT_EQ(log.texts().back(), at(2) + "v: 'many' is no literal, path, explicit form or function\n");
}

TEST_F(ModelFileSlipsTest, BrokenFileIsToldOnce) {
    const std::string broken =
        directory.write("Components/Lab/Broken.zelComponent", "<Component name='Broken'>");
    EXPECT_EQ(Component::load("Lab.Broken", nullptr), nullptr);
    EXPECT_THAT(log.texts(),
                ElementsAre("Could not open model file '" + broken +
                                "', error on row 1: the element 'Component' is not closed\n",
                            "Unable to find plugin for resource: 'Lab.Broken'\n",
                            "The file '" + broken + "' gives no component 'Broken'\n"));
}
