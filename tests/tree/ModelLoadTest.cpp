// How model files are found and loaded, and what is left of a load that fails.
#include "support/LogCapture.h"
#include "support/ModelFiles.h"
#include "support/WhatOf.h"

#include <zel/Component.h>
#include <zel/ComponentManager.h>
#include <zel/Model.h>
#include <zel/Namespace.h>
#include <zel/XmlLoader.h>
#include <zel/ref_ptr.h>
#include <zelIO/Environment.h>
#include <zelIO/FilePathContainer.h>

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <tinyxml.h>

#include <filesystem>
#include <memory>
#include <string>

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using zel::Component;
using zel::Model;
using zel::Object;
using zel::Path;
using zel::ref_ptr;
using zelIO::Environment;
using zelTest::LogCapture;
namespace fs = std::filesystem;

namespace {

class ModelLoadTest : public zelTest::ModelFiles {
protected:
    std::string write(const std::string& name, const std::string& content) {
        return directory.write("Components/zel/" + name + ".zelComponent", content);
    }
    void link(const std::string& target, const std::string& name) {
        fs::create_symlink(target, directory / ("Components/zel/" + name));
    }
    ref_ptr<Component> load(const std::string& path) { return Component::load(Path(path), nullptr); }
    std::string failure(const std::string& path) {
        return zelTest::whatOf([&] { load(path); });
    }
    LogCapture log{zel::Notify::Warning};
};
using ModelLoadMaliciousTest = ModelLoadTest;

} // namespace

TEST_F(ModelLoadMaliciousTest, ImplementationThatIsItsOwnModelIsAnXmlError) {
    const std::string file = write("Self", "\n<Component name='Self' implementation='Self'/>");
    EXPECT_THAT(failure("Self"),
                AllOf(HasSubstr("XML error: Load loop detected for component 'Self'"),
                      HasSubstr("Error at row 2\nFile: " + file)));
}

TEST_F(ModelLoadMaliciousTest, ImplementationsInACircleAreAnXmlError) {
    write("A", "<Component name='A' implementation='B'/>");
    write("B", "<Component name='B' implementation='A'/>");
    EXPECT_THAT(failure("A"), HasSubstr("Load loop detected for component 'A'"));
    EXPECT_THAT(failure("B"), HasSubstr("Load loop detected for component 'B'"));
}

TEST_F(ModelLoadMaliciousTest, ImplementationThatHoldsItsModelIsAnXmlError) {
    write("A", "<Component name='A' implementation='B'/>");
    write("B", "<Component name='B'><Component name='a' source='A'/></Component>");
    failure("A");
    EXPECT_THAT(log.text(), HasSubstr("Load loop detected for component 'A'"));
}

TEST_F(ModelLoadTest, ImplementationMayBeAnotherModelFile) {
    write("Base", "<Component name='Base'><Object name='b'/></Component>");
    write("Made", "<Component name='Made' implementation='Base'><Object name='m'/></Component>");
    const ref_ptr<Component> made = load("Made");
    ASSERT_TRUE(made);
    EXPECT_NE(made->findObject("b"), nullptr);
    EXPECT_NE(made->findObject("m"), nullptr);
    EXPECT_EQ(made->getModel(), Model::getModel("Made"));
}

TEST_F(ModelLoadTest, FailedFileLeavesNoTrace) {
    write("deep/Half", "<Component name='Half'/>\n<Component name='Other'/>\n<Component/>");
    const std::string first = failure("deep.Half");
    EXPECT_THAT(first, HasSubstr("Must specify a name for the component!. Error at row 3"));
    EXPECT_EQ(failure("deep.Half"), first);
    EXPECT_EQ(Model::getNamespace("deep"), nullptr);
    write("deep/Half", "<Component name='Half'/>\n<Component name='Other'/>");
    EXPECT_TRUE(load("deep.Half"));
    EXPECT_NE(Model::getModel("deep.Other"), nullptr);
}

TEST_F(ModelLoadTest, FailedFileTakesTheSourcesItHasLoadedWithIt) {
    write("Base", "<Component name='Base'/>");
    write("Half", "<Component name='Half' source='Base'/><Component/>");
    failure("Half");
    write("Base", "<Component name='Base'><Object name='mended'/></Component>");
    write("Half", "<Component name='Half' source='Base'/>");
    const ref_ptr<Component> half = load("Half");
    ASSERT_TRUE(half);
    EXPECT_NE(half->findObject("mended"), nullptr);
}

TEST_F(ModelLoadTest, FailedFileLeavesModelsThatWereThere) {
    write("Base", "<Component name='Base'/>");
    const Model* base = Model::getModel("Base");
    write("Half", "<Component name='Half' source='Base'/><Component/>");
    failure("Half");
    EXPECT_EQ(Model::getModel("Base"), base);
}

TEST_F(ModelLoadTest, FailedContentLeavesNoTrace) {
    write("Bad", "<Component name='Bad'><Nonsense/></Component>");
    const std::string first = failure("Bad");
    EXPECT_EQ(failure("Bad"), first);
    write("Bad", "<Component name='Bad'/><Component name='More'/>");
    EXPECT_TRUE(load("Bad"));
    EXPECT_NE(Model::getModel("Bad.More"), nullptr);
}

TEST_F(ModelLoadTest, FileWithoutTheModelIsReadAgain) {
    write("Late", "<Component name='Early'/>");
    EXPECT_FALSE(load("Late"));
    write("Late", "<Component name='Early'/><Component name='Late'/>");
    EXPECT_TRUE(load("Late"));
}

TEST_F(ModelLoadTest, FailedFileIsToldOfUnknownAttributesAgain) {
    write("Half", "<Component name='Half'><Object name='a' color='red'/></Component><Component/>");
    failure("Half");
    const LogCapture second(zel::Notify::Warning);
    failure("Half");
    EXPECT_THAT(second.text(), HasSubstr("nothing reads the attribute 'color'"));
}

TEST_F(ModelLoadTest, LinkedFileLivesInTheNamespaceOfItsPlace) {
    write("A/Part", "<Component name='Part'><Object name='ofA'/></Component>");
    write("A/Whole", "<Component name='Whole'><Component name='part' source='Part'/></Component>");
    write("B/Part", "<Component name='Part'><Object name='ofB'/></Component>");
    link("../A/Whole.zelComponent", "B/Whole.zelComponent");
    const ref_ptr<Component> whole = load("B.Whole");
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->getModel()->fullName(), "B:Whole");
    EXPECT_NE(whole->getResource("part.ofB"), nullptr);
    const ref_ptr<Component> other = load("A.Whole");
    EXPECT_NE(other->getResource("part.ofA"), nullptr);
}

TEST_F(ModelLoadTest, LinkedFolderIsANamespace) {
    directory.write("elsewhere/Part.zelComponent", "<Component name='Part'><Object name='o'/></Component>");
    directory.write("elsewhere/Whole.zelComponent",
                    "<Component name='Whole'><Component name='part' source='Part'/></Component>");
    fs::create_directories(directory / "Components/zel");
    link(directory / "elsewhere", "Linked");
    const ref_ptr<Component> whole = load("Linked.Whole");
    ASSERT_TRUE(whole);
    EXPECT_EQ(whole->getModel()->fullName(), "Linked:Whole");
    EXPECT_NE(whole->getResource("part.o"), nullptr);
}

TEST_F(ModelLoadTest, FileIsOneModelHoweverItIsNamed) {
    const std::string file = write("y/Thing", "<Component name='Thing'/>");
    fs::create_directories(directory / "Components/zel/x");
    const ref_ptr<Component> first(Component::loadFile(file, nullptr));
    const ref_ptr<Component> second(
        Component::loadFile(directory / "Components/zel/x/.././/y/Thing.zelComponent", nullptr));
    ASSERT_TRUE(first && second);
    EXPECT_EQ(first->getModel(), second->getModel());
    EXPECT_EQ(second->getModel()->getPath(), Path("y.Thing"));
    EXPECT_EQ(load("y.Thing")->getModel(), first->getModel());
}

TEST_F(ModelLoadTest, FileOfASearchDirectoryWithoutComponentsHasItsPath) {
    const std::string file =
        directory.write("Robots/Arm.zelComponent",
                        "<Component name='Arm'><Component name='left' source='Hand'/></Component>");
    directory.write("Robots/Hand.zelComponent", "<Component name='Hand'><Object name='thumb'/></Component>");
    const ref_ptr<Component> arm = load("Robots.Arm");
    ASSERT_TRUE(arm);
    EXPECT_EQ(arm->getModel()->fullName(), "Robots:Arm");
    EXPECT_NE(arm->getResource("left.thumb"), nullptr);
    EXPECT_EQ(Model::getPath(file), Path("Robots.Arm"));
}

TEST_F(ModelLoadTest, ModelOfAnotherFileOfThatPathIsToldOf) {
    const std::string first = write("Thing", "<Component name='Thing'/>");
    const std::string second =
        directory.write("other/Components/Thing.zelComponent", "<Component name='Thing'/>");
    EXPECT_TRUE(load("Thing"));
    EXPECT_THAT(
        zelTest::whatOf([&] { static_cast<void>(Component::loadFile(second, nullptr)); }),
        AllOf(HasSubstr("A model 'Thing' exists already in namespace '': see file '" + first + "', row 1"),
              HasSubstr("File: " + second)));
}

TEST_F(ModelLoadTest, RemainderOfAPathNamesAModelOfThatFile) {
    write("A/B", "<Component name='B'/><Component name='Inner'/>");
    write("A/C", "<Component name='C'/>");
    EXPECT_NE(Model::getModel("A.B.Inner"), nullptr);
    EXPECT_EQ(Model::getModel("A.B.C"), nullptr);
    EXPECT_NE(Model::getModel("A.C"), nullptr);
    EXPECT_EQ(Model::getModel("A.B.C"), nullptr) << "of another file";
    EXPECT_EQ(Model::getModel("A.B.Nonsense.Inner"), nullptr);
}

TEST_F(ModelLoadMaliciousTest, PathsWithSlashesOfEitherKindAndEmptyPartsAreNoFiles) {
    directory.write("Secret.zelComponent", "<Component name='Secret'/>");
    write("A/B", "<Component name='B'/>");
    for (const char* path : {"A\\..\\..\\..\\Secret", "A..B", ".A.B", "A.B."})
        EXPECT_EQ(Model::getModel(Path(path).base(), Path(path).back()), nullptr) << path;
}

TEST_F(ModelLoadTest, LoadFunctionWithoutAnObjectIsAnXmlError) {
    static const zel::XmlLoaderRegistrator nothing(
        "Nothing", [](TiXmlElement*, zel::Device*) -> Object* { return nullptr; });
    const std::string file = write("Bad", "<Component name='Bad'>\n<Nothing/></Component>");
    EXPECT_THAT(failure("Bad"), HasSubstr("Error at row 2\nFile: " + file));
    EXPECT_THAT(log.text(), HasSubstr("The load function of the tag 'Nothing' has made no object"));
}

TEST_F(ModelLoadMaliciousTest, PipeIsNoModelFile) {
    fs::create_directories(directory / "Components/zel");
    ASSERT_EQ(mkfifo((directory / "Components/zel/Pipe.zelComponent").c_str(), 0600), 0);
    EXPECT_FALSE(load("Pipe"));
    EXPECT_THAT(log.text(), HasSubstr("error on row 0: it is not a regular file"));
}

TEST_F(ModelLoadTest, ElementTellsItsPlace) {
    const std::string file = write("Robots/Arm", "<Component name='Arm'/>");
    const auto document = Object::openDocument(file);
    TiXmlElement* element = document->RootElement();
    EXPECT_EQ(Model::getPath(element, Environment::PluginPath), Path("Robots"));
    EXPECT_EQ(Model::getPath(element, "Leg", Environment::PluginPath), Path("Robots.Leg"));
    EXPECT_EQ(Model::getFileSystemRoot(element, Environment::PluginPath), directory.path());
}

TEST_F(ModelLoadTest, PlaceInASearchDirectoryIsThatOfTheType) {
    const std::string file = directory.write("data/Robots/Arm.zelComponent", "<Component name='Arm'/>");
    auto& resources = Environment::instance()->getFilePath(Environment::ResourcePath);
    resources.pushfrontPath(directory / "data");
    const auto document = Object::openDocument(file);
    EXPECT_EQ(Model::getPath(document->RootElement(), Environment::ResourcePath), Path("Robots"));
    EXPECT_EQ(Model::getFileSystemRoot(document->RootElement(), Environment::ResourcePath),
              directory / "data");
    EXPECT_EQ(Model::getPath(document->RootElement(), Environment::PluginPath), Path("data.Robots"));
}

TEST_F(ModelLoadTest, DocumentFromElsewhereHasNoPlace) {
    const zelTest::TempDirectory elsewhere;
    const std::string file = elsewhere.write("Arm.zelComponent", "<Component name='Arm'/>");
    const auto document = Object::openDocument(file);
    EXPECT_TRUE(Model::getPath(document->RootElement()).empty());
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(Model::getFileSystemRoot(document->RootElement(), Environment::PluginPath), "");
    EXPECT_EQ(log.text(), "Could not locate component root directory for file \"" + file + "\"\n");
}

TEST_F(ModelLoadTest, FilesBesideTheDocumentComeFirst) {
    const std::string near =
        directory.write("near/Components/zel/Part.zelComponent", "<Component name='Part'/>");
    const std::string far = write("Part", "<Component name='Part'/>");
    const std::string file =
        directory.write("near/Components/zel/Whole.zelComponent", "<Component name='Whole'/>");
    const auto document = Object::openDocument(file);
    zel::String result;
    Path remainder;
    EXPECT_TRUE(Model::getDiskPath(
        "Part.x", result, remainder, document->RootElement(), Environment::PluginPath, "zelComponent"));
    EXPECT_EQ(result, near);
    EXPECT_EQ(remainder, Path("x"));
    EXPECT_TRUE(Model::getDiskPath("Part", result, remainder, "zelComponent"));
    EXPECT_EQ(result, far);
}

TEST_F(ModelLoadTest, FileOutsideOfTheSearchPathsFindsItsNeighbours) {
    const zelTest::TempDirectory elsewhere;
    elsewhere.write("Components/zel/Robots/Hand.zelComponent", "<Component name='Hand'/>");
    const std::string file =
        elsewhere.write("Components/zel/Robots/Arm.zelComponent", "<Component name='Arm' source='Hand'/>");
    const ref_ptr<Component> arm(Component::loadFile(file, nullptr));
    ASSERT_TRUE(arm);
    EXPECT_TRUE(arm->getModel()->is(Model::getModel("Robots.Hand")));
}

TEST_F(ModelLoadTest, NestedElementHasTheModelOfItsSource) {
    write("Wheel", "<Component name='Wheel'/>");
    const std::string file = write(
        "Car",
        "<Component name='Car'><Component name='left' source='Wheel'/><Component name='b'/></Component>");
    const ref_ptr<Component> car = load("Car");
    const auto document = Object::openDocument(file);
    TiXmlElement* left = document->RootElement()->FirstChildElement();
    EXPECT_EQ(Model::getModel(document->RootElement()), car->getModel());
    EXPECT_EQ(Model::getModel(left), Model::getModel("Wheel"));
    EXPECT_EQ(car->getResource("left")->getModel(), Model::getModel(left));
    EXPECT_EQ(Model::getModel(left->NextSiblingElement()), Component::ClassModel());
}

TEST_F(ModelLoadTest, SystemRootWithBadContentIsAnError) {
    const std::string file =
        directory.write("Root.zelComponent", "<Component name='Root'>\n<Nonsense/></Component>");
    EXPECT_EQ(zelTest::whatOf([] { static_cast<void>(zel::root()); }),
              "Error initializing system root from path: '" + file + "'\n");
    EXPECT_THAT(log.text(), HasSubstr("Unknown tag 'Nonsense'. Error at row 2\nFile: " + file));
}
