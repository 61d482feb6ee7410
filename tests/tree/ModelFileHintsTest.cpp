// What a user reads who has made a slip in a model file: where it is, and what would be right.
#include "support/LogCapture.h"
#include "support/ModelFiles.h"

#include <zel/ArrayParameter.h>
#include <zel/Component.h>
#include <zel/ComponentManager.h>
#include <zel/ScalarParameter.h>
#include <zel/SerialTask.h>
#include <zel/TaskPlugin.h>
#include <zel/Thread.h>
#include <zel/ref_ptr.h>
#include <zelData/Type.h>

#include <algorithm>
#include <string>

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using zel::Component;
using zel::Device;
using zel::Name;
using zel::ref_ptr;
using zel::Task;
using zelData::getFormat;

namespace {

/// Takes a number, a buffer, and a number that need not be given.
class Scale final : public zel::SerialTask {
public:
    Scale(const Name& name, Device* device) : SerialTask(name, device) {
        addParameter(new zel::ScalarParameter("factor", getFormat("Real:64bit")));
        addParameter(new zel::ArrayParameter("numbers", getFormat("Real:64bit"), zelData::AccessMode::READ));
        auto* offset = new zel::ScalarParameter("offset", getFormat("Real:64bit"));
        offset->setRequired(false);
        addParameter(offset);
    }
};

/// For a class of the program's.
class OwnPlugin : public zel::AbstractComponentPlugin {
public:
    OwnPlugin() : AbstractComponentPlugin("Lab.Own") {}
    Component* create(const Name& name, Device* device) override {
        return new Component(name, Component::ClassModel(), device);
    }
    zel::String getDescription() const override { return "for tests"; }
};

class ModelFileHintsTest : public zelTest::ModelFiles {
protected:
    void SetUp() override {
        ModelFiles::SetUp();
        zel::setNumThreads(1);
    }
    /// Loads a model of the elements, whose first one is on row 2.
    ref_ptr<Component> load(const std::string& content) {
        file = directory.write("Components/Lab/Frame.zelComponent",
                               "<Component name='Frame'>\n" + content + "</Component>");
        ref_ptr<Component> frame(Component::load("Lab.Frame", nullptr));
        if (frame)
            frame->rebind();
        return frame;
    }
    /// Loads a model with a task of the class above, which is given the elements, and lets it run.
    void runScale(const std::string& elements) {
        static zel::TaskPlugin plugin("Lab.Scale", Device::Type::Cpu);
        static const zel::TaskPluginImplementationT<Scale> scale(plugin, "Scale");
        const ref_ptr<Component> frame(load("<Value name='two' type='Real' value='2'/>"
                                            "<Value name='text' type='String' value='2'/>"
                                            "<Buffer name='data' type='Real' numElements='3'/>\n"
                                            "<Task name='scale' source='Lab.Scale'>" +
                                            elements + "</Task>"));
        static_cast<Task*>(frame->findObject("scale"))->execute();
    }
    [[nodiscard]] std::string place(int row) const {
        return "(file '" + file + "', row " + std::to_string(row) + ")";
    }

    zelTest::LogCapture log{zel::Notify::Warning};
    std::string file;
};

TEST_F(ModelFileHintsTest, AttributesThatNothingReadsAreToldWithFileRowAndThoseThatThereAre) {
    load("<Clock name='a'/>\n<Clock name='b' freqency='10'/>");
    EXPECT_EQ(log.text(),
              "In file '" + file +
                  "', row 3: nothing reads the attribute 'freqency' of 'Clock' (did you mean 'frequency'?). "
                  "It has: name frequency time timeModulation synchronize enable depends dispatch "
                  "trigger resolve bindContext wait instance\n");
}

TEST_F(ModelFileHintsTest, AttributesOfNestedElementsAndOfEntitiesAreLookedAt) {
    directory.write("Components/Lab/Atom.zelEntity",
                    "<Entity.Model name='Atom'>\n"
                    "<Attribute.Scalar name='x' type='Real' vlaue='1'/></Entity.Model>");
    load("<Component name='inner'><Entity.Storage name='atoms' entity='Lab.Atom' "
         "numElemnts='2'/></Component>");
    EXPECT_THAT(log.text(),
                AllOf(HasSubstr("row 2: nothing reads the attribute 'vlaue' of 'Attribute.Scalar'"),
                      HasSubstr("row 2: nothing reads the attribute 'numElemnts' of 'Entity.Storage'")));
}

TEST_F(ModelFileHintsTest, AttributesAreToldOnce) {
    load("<Object name='a' color='red'/>");
    const std::string text = log.text();
    EXPECT_THAT(text, HasSubstr("'color'"));
    const ref_ptr<Component> again(Component::load("Lab.Frame", nullptr));
    EXPECT_EQ(log.text(), text);
}

TEST_F(ModelFileHintsTest, AttributesOfXmlAndOfTheProgramAreLeftAlone) {
    const OwnPlugin plugin;
    directory.write("Components/Lab/Base.zelComponent",
                    "<Component name='Base' implementation='Lab.Own' own='1'/>");
    load("<Component name='a' source='Lab.Base' xmlns:lab='urn:lab' lab:note='x' own='1'/>"
         "<Object name='b' lab:note='x'/>");
    EXPECT_THAT(log.text(), IsEmpty());
}

TEST_F(ModelFileHintsTest, MissingModelTellsWhereItWasLookedFor) {
    zelIO::Environment::instance()
        ->getFilePath(zelIO::Environment::PluginPath)
        .pushfrontPath(directory / "none");
    EXPECT_EQ(Component::load("Lab.Missing", nullptr), nullptr);
    EXPECT_THAT(log.text(),
                AllOf(HasSubstr("Unable to find plugin for resource: 'Lab.Missing'\n"),
                      HasSubstr("Looked for 'Lab/Missing.zelComponent', also below 'Components/zel' and "
                                "'Components', in the directories of ZEL_PLUGIN_PATH and ZEL_FILE_PATH:\n"),
                      HasSubstr("\n  " + (directory / "none") + " (no such directory)\n"),
                      HasSubstr("\n  " + directory.path() + "\n")));
}

TEST_F(ModelFileHintsTest, FileWithAnotherModelIsNamed) {
    const std::string other =
        directory.write("Components/Lab/Frame.zelComponent", "<Component name='Frane'/>");
    EXPECT_EQ(Component::load("Lab.Frame", nullptr), nullptr);
    EXPECT_THAT(log.text(),
                HasSubstr("The file '" + other + "' gives no component 'Frame' (did you mean 'Frane'?)\n"));
}

TEST_F(ModelFileHintsTest, MissingImplementationTellsThePlaceAndWhereItWasLookedForOnce) {
    const ref_ptr<Component> frame(load("\n<Task name='a' source='Skale'/>"));
    auto* const task = static_cast<Task*>(frame->findObject("a"));
    task->execute();
    task->execute();
    const std::string hint =
        "The task 'Frame.a' " + place(3) +
        " has no implementation 'Skale'\nLooked for 'libSkale.so', 'Skale.zelKernel' and "
        "'Skale.zelTask', in the namespace 'Lab' first, also below 'Components/zel' and "
        "'Components', in the directories of ZEL_PLUGIN_PATH and ZEL_FILE_PATH:\n  " +
        directory.path();
    const auto& texts = log.texts();
    EXPECT_EQ(std::count_if(texts.begin(),
                            texts.end(),
                            [&hint](const std::string& text) { return text.rfind(hint, 0) == 0; }),
              1)
        << log.text();
}

TEST_F(ModelFileHintsTest, MisfitTellsWhatTheImplementationTakes) {
    runScale("<Value instance='fctor' bind='two'/><Value instance='offset' bind='text'/>"
             "<Buffer instance='numbers' bind='dta'/>");
    const std::string real = getFormat("Real:64bit")->getName().c_str();
    const std::string text = getFormat("String")->getName().c_str();
    EXPECT_THAT(log.texts().back(),
                "The task 'Frame.scale' " + place(3) +
                    " has no implementation 'Lab.Scale'\n"
                    "The implementation 'Scale' takes:\n"
                    "  'factor' (SCALAR) of type Real, format " +
                    real +
                    ": is not given\n"
                    "  'numbers' (Array) of type Real, format " +
                    real +
                    ": is given the path 'dta', where nothing is (did you mean 'data'?)\n"
                    "  'offset' (SCALAR) of type Real, format " +
                    real + ": is given Frame.text, 'offset' (SCALAR) of type String, format " + text +
                    "\n"
                    "  and no 'fctor', which is given (did you mean 'factor'?)\n");
}

TEST_F(ModelFileHintsTest, ParameterWithoutAnythingIsTold) {
    runScale("<Value instance='factor'/>");
    EXPECT_THAT(log.text(), HasSubstr("'factor' (SCALAR) of type Real, format 64bit: is given nothing\n"));
}

TEST_F(ModelFileHintsTest, RequiredNumberThatIsNotGivenIsToldAndTheTaskRuns) {
    runScale("<Buffer instance='numbers' bind='data'/>");
    EXPECT_EQ(
        log.text(),
        "The task 'Frame.scale' " + place(3) +
            " gives nothing to the required parameter 'factor' (SCALAR) of type Real, format 64bit, which "
            "keeps what the implementation 'Lab.Scale' has set it to\n");
}

TEST_F(ModelFileHintsTest, CompleteTaskIsSilent) {
    runScale("<Value instance='factor' bind='two'/><Buffer instance='numbers' bind='data'/>");
    EXPECT_THAT(log.text(), IsEmpty());
}

TEST_F(ModelFileHintsTest, LibraryThatIsNoneIsNamedWithThePlace) {
    const std::string library = directory.write("Components/libLab.Broken.so", "no library");
    const ref_ptr<Component> frame(load("<Task name='a' source='Broken'/>"));
    static_cast<Task*>(frame->findObject("a"))->execute();
    EXPECT_THAT(
        log.text(),
        AllOf(HasSubstr("Could not load plugin 'Lab.Broken': " + library + ": "),
              HasSubstr("The task 'Frame.a' " + place(2) + " has no implementation 'Broken'\nThe library '" +
                        library + "' can not be loaded\n")));
}

TEST_F(ModelFileHintsTest, DescriptionThatDoesNotFitIsNamed) {
    const std::string description =
        directory.write("Components/Lab/Described.zelTask", "<Task name='Other' implementation='Other'/>");
    const ref_ptr<Component> frame(load("<Task name='a' source='Described'/>"));
    static_cast<Task*>(frame->findObject("a"))->execute();
    EXPECT_THAT(log.text(),
                HasSubstr("\nThe file '" + description + "' holds no task 'Described' that fits\n"));
}

TEST_F(ModelFileHintsTest, PathsOfATaskThatLeadNowhereAreNotes) {
    const zelTest::LogCapture notes(zel::Notify::Info);
    const ref_ptr<Component> frame(load("<Task name='a' source='Nix' trigger='clok' depends='b' dispatch='c' "
                                        "bindContext='d'/><Clock name='clock'/>"));
    for (const char* path :
         {"'clok' of its trigger", "'b' of its dependency", "'c' of its dispatch", "'d' of its bindContext"})
        EXPECT_THAT(notes.text(),
                    HasSubstr(std::string("Task 'Frame.a': there is nothing yet under the path ") + path));
    EXPECT_THAT(log.text(), Not(HasSubstr("nothing yet")));
}

} // namespace
