// What docs/model-files.md says of files that go wrong, line by line, as far as ModelFileSlipsTest,
// ModelFileHintsTest and XmlDocumentTest do not.
#include "support/LogCapture.h"
#include "support/ModelFiles.h"

#include <zel/Clock.h>
#include <zel/Component.h>
#include <zel/SerialTask.h>
#include <zel/TaskPlugin.h>
#include <zel/ref_ptr.h>

#include <exception>
#include <stdexcept>
#include <string>

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;
using zel::Component;
using zel::Device;
using zel::Name;
using zel::ref_ptr;

namespace {

class ModelFileFailureTest : public zelTest::ModelFiles {
protected:
    std::string write(const std::string& content) {
        return directory.write("Components/Lab/Frame.zelComponent", content);
    }
    static ref_ptr<Component> load() { return ref_ptr<Component>(Component::load("Lab.Frame", nullptr)); }

    /// The exception of the outermost element, and the reason in it; the same twice if nothing is nested.
    struct Failure {
        std::string outer = "no exception";
        std::string inner = "no exception";
    };
    static Failure failure() {
        Failure failure;
        try {
            load();
        } catch (const std::runtime_error& outer) {
            failure = {outer.what(), outer.what()};
            try {
                std::rethrow_if_nested(outer);
            } catch (const std::exception& inner) {
                failure.inner = inner.what();
            }
        }
        return failure;
    }

    zelTest::LogCapture log{zel::Notify::Warning};
};

/// A task that a plug-in gives.
class Idle final : public zel::SerialTask {
public:
    Idle(const Name& name, Device* device) : SerialTask(name, device) {}
    void run() override {}
};

} // namespace

TEST_F(ModelFileFailureTest, ErrorsOfTheContentHoldRowFileAndElementAndLeaveNoTrace) {
    directory.write("Components/Lab/Twice.zelEntity",
                    "<Entity.Model name='Twice'>\n<Attribute.Scalar name='x' type='Real'/>\n"
                    "<Attribute.Scalar name='x' type='Real'/></Entity.Model>");
    struct Case {
        const char* element;
        const char* message;
        const char* printed;
    };
    for (const auto& [element, message, printed] :
         {Case{"<Nonsense x='1'/>", "Unknown tag 'Nonsense'", "<Nonsense x=\"1\" />"},
          Case{"<Component/>", "Must specify a name for the component!", "<Component />"},
          Case{"<Value/>", "Value does not have a name!", "<Value />"},
          Case{"<Clock name='c' frequency='2,5'/>",
               "Unable to parse attribute frequency",
               "<Clock name=\"c\" frequency=\"2,5\" />"},
          Case{"<Value name='v' value='1'/>", "'1' of the attribute 'value' needs a type", "value=\"1\""},
          Case{"<Value name='v' type='Bool' value='1'/>",
               "is no Bool: it is 'true' or 'false'",
               "value=\"1\""},
          Case{"<Value name='v' type='Rael'/>", "No type named 'Rael'", "type=\"Rael\""},
          Case{"<Entity.Storage entity='Lab.None'/>",
               "Unable to load entity 'Lab.None': looked for 'Lab/None.zelEntity'",
               "entity=\"Lab.None\""},
          Case{"<Component source='None'/>",
               "Unable to locate source component 'None': looked for 'None.zelComponent'",
               "source=\"None\""},
          Case{"<Component source='Frame'/>",
               "Load loop detected for component 'Frame'",
               "source=\"Frame\""}}) {
        const std::string file =
            write(std::string("<Component name='Frame'>\n\n") + element + "\n</Component>");
        const Failure thrown = failure();
        EXPECT_THAT(thrown.outer,
                    AllOf(StartsWith("[src/"),
                          HasSubstr(". Error at row 3\nFile: " + file + "\n"),
                          HasSubstr(printed)));
        EXPECT_THAT(thrown.inner,
                    AllOf(HasSubstr("] XML error: "),
                          HasSubstr(message),
                          HasSubstr(". Error at row 3\nFile: " + file + "\n" + std::string(78, '=') + "\n"),
                          HasSubstr(printed)));
        write("<Component name='Frame'><Object name='mended'/></Component>");
        const ref_ptr<Component> mended = load();
        ASSERT_TRUE(mended) << element;
        EXPECT_NE(mended->findObject("mended"), nullptr) << element;
    }
}

TEST_F(ModelFileFailureTest, TwoModelsOfOneNameAreAnErrorUntilTheFileIsMended) {
    const std::string file = write("<Component name='Frame'/>\n<Component name='Frame'/>");
    EXPECT_THAT(failure().outer,
                AllOf(HasSubstr("XML error: A model 'Frame' exists already in namespace 'Lab': see file '" +
                                file + "', row 1. Error at row 2\nFile: " + file),
                      HasSubstr("<Component name=\"Frame\" />")));
    write("<Component name='Frame'/>");
    EXPECT_TRUE(load());
}

TEST_F(ModelFileFailureTest, FilesThatCanNotBeReadAreWarnedOfWithTheReason) {
    const auto expect = [this](const std::string& content, const std::string& reason) {
        const std::string file = write(content);
        const size_t before = log.texts().size();
        EXPECT_FALSE(load());
        ASSERT_EQ(log.texts().size(), before + 3) << log.text();
        EXPECT_EQ(log.texts()[before],
                  "Could not open model file '" + file + "', error on row " + reason + "\n");
        EXPECT_EQ(log.texts()[before + 1], "Unable to find plugin for resource: 'Lab.Frame'\n");
        EXPECT_EQ(log.texts()[before + 2], "The file '" + file + "' gives no component 'Frame'\n");
    };
    expect("<Component name='Frame'>\n<Object name='\xff'/></Component>",
           "2: the byte 0xFF is not UTF-8; the text must be saved as UTF-8");
    expect("<Component name='Frame'/>\nand more", "2: there is text outside of any element: 'and more'");
    expect("<Component name='Frame'>\n</Componet>",
           "2: '</Componet>' stands where the element 'Component' of row 1 is still open");
    std::string deep = "<Component name='Frame'>";
    for (int i = 0; i < 512; ++i)
        deep += "\n<Component name='a'>";
    expect(deep, "513: elements are nested more than 512 deep");
}

TEST_F(ModelFileFailureTest, MissingFileAndFolderAreWarnedOf) {
    EXPECT_EQ(Component::loadFile(directory / "Components/Lab/None.zelComponent", nullptr), nullptr);
    EXPECT_EQ(log.texts().front(),
              "Could not open model file '" + (directory / "Components/Lab/None.zelComponent") +
                  "', error on row 0: No such file or directory\n");
    directory.write("Components/Lab/Folder.zelComponent/x", "");
    EXPECT_EQ(Component::loadFile(directory / "Components/Lab/Folder.zelComponent", nullptr), nullptr);
    EXPECT_THAT(log.text(), HasSubstr("Folder.zelComponent', error on row 0: Is a directory\n"));
}

TEST_F(ModelFileFailureTest, MissingImplementationIsToldWithThePlaceOfTheModel) {
    const std::string file = write("\n<Component name='Frame' implementation='Lab.Klass'/>");
    EXPECT_FALSE(load());
    EXPECT_THAT(log.texts().back(),
                StartsWith("In file '" + file +
                           "', row 2: the implementation 'Lab.Klass' is not found: looked for the library "
                           "'Lab/libKlass.so' and for 'Lab/Klass.zelComponent', also below"));
    directory.write("Lab/libKlass.so", "no library");
    EXPECT_FALSE(load());
    EXPECT_THAT(log.texts().back(), HasSubstr("can not be loaded, or gives no such class\n"));
}

TEST_F(ModelFileFailureTest, PathsOfATaskThatHasBeenFoundAreToldWithTheRow) {
    static zel::TaskPlugin plugin("Lab.Idle", Device::Type::Cpu);
    static const zel::TaskPluginImplementationT<Idle> idle(plugin, "Idle");
    const std::string file = write("<Component name='Frame'>\n<Clock name='clock'/>\n"
                                   "<Task name='a' source='Idle' trigger='clock'/>\n"
                                   "<Task name='b' source='Idle' trigger='clokc'/></Component>");
    const ref_ptr<Component> frame = load();
    frame->rebind();
    ASSERT_NE(dynamic_cast<Idle*>(frame->findObject("b")), nullptr);
    dynamic_cast<zel::Clock*>(frame->findObject("clock"))->tick();
    EXPECT_EQ(
        log.text(),
        "In file '" + file +
            "', row 4: the path 'clokc' of the attribute 'trigger' of 'Frame.b' leads nowhere (did you mean "
            "'clock'?)\n");
}

TEST_F(ModelFileFailureTest, ImplementationsAndFunctionsNearToAWrongPathAreOffered) {
    directory.write("Components/libLab.Grow.so", "");
    directory.write("Components/Lab/Shrink.zelTask", "<Task name='Shrink'/>");
    const std::string file = write("<Component name='Frame'><Value name='x' type='Real' value='1'/>\n"
                                   "<Value name='f' type='Real' value='Lab.Gorw(@x)'/>\n"
                                   "<Task name='t' source='Shirnk'/></Component>");
    const ref_ptr<Component> frame = load();
    frame->rebind();
    EXPECT_THAT(
        log.text(),
        AllOf(HasSubstr("The task 'Frame.UnresolvedTask(Lab.Gorw(@x))' (file '" + file +
                        "', row 2) has no implementation 'Lab.Gorw' (did you mean 'Lab.Grow'?)\nLooked for"),
              HasSubstr("has no implementation 'Shirnk' (did you mean 'Shrink'?)\nLooked for")));
}

TEST_F(ModelFileFailureTest, EntitiesNearToAWrongPathAreOffered) {
    const std::string file = directory.write("Components/Lab/Atom.zelEntity", "<Entity.Model name='Aton'/>");
    write("<Component name='Frame'><Entity.Storage entity='Lab.Atmo'/></Component>");
    EXPECT_THAT(failure().inner,
                HasSubstr("Unable to load entity 'Lab.Atmo': looked for 'Lab/Atmo.zelEntity' (did you mean "
                          "'Lab.Atom'?), also below"));
    write("<Component name='Frame'><Entity.Storage entity='Atom'/></Component>");
    EXPECT_THAT(failure().inner,
                HasSubstr("Unable to load entity 'Atom': the file '" + file +
                          "' gives no such entity, or can not be read"));
}
