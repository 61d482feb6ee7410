#include <zel/Component.h>
#include <zel/Device.h>
#include <zel/Model.h>
#include <zel/Namespace.h>
#include <zelCore/zelCore.h>
#include <zelIO/Environment.h>
#include <zelIO/FilePathContainer.h>

#include <json/value.h>
#include <support/FirstLife.h>
#include <support/LogCapture.h>
#include <support/ModelFiles.h>
#include <support/TempDirectory.h>
#include <support/WhatOf.h>
#include <tinyxml.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

using testing::HasSubstr;
using zel::Component;
using zel::Model;
using zel::Name;
using zel::Object;
using zel::Path;
using zel::ref_ptr;
using zelTest::LogCapture;
using zelTest::TempDirectory;

namespace {

class ModelTest : public zelTest::ModelFiles {
protected:
};
using ModelDeathTest = ModelTest;
using ModelMaliciousTest = ModelTest;

Model* noModel() {
    return nullptr;
}

} // namespace

TEST_F(ModelTest, IsItself) {
    EXPECT_TRUE(Component::ClassModel()->is(Component::ClassModel()));
    EXPECT_FALSE(Component::ClassModel()->hasSource(Component::ClassModel()));
    EXPECT_FALSE(Component::ClassModel()->is(nullptr));
}

TEST_F(ModelTest, CoreClassesInheritAndDescribeThemselves) {
    EXPECT_TRUE(Model::ClassModel()->is(Component::ClassModel()));
    EXPECT_TRUE(Component::ClassModel()->hasSource(Object::ClassModel()));
    EXPECT_FALSE(Object::ClassModel()->is(Component::ClassModel()));
    EXPECT_EQ(Model::ClassModel()->getModel(), Model::ClassModel());
    EXPECT_EQ(Object::ClassModel()->getModel(), Model::ClassModel());
    EXPECT_EQ(Model::root()->getModel(), zel::Namespace::ClassModel());
    EXPECT_EQ(Model::root()->getName(), Name("Root"));
    EXPECT_TRUE(zel::Device::ClassModel()->is(Component::ClassModel()));
}

TEST_F(ModelTest, PrintsItsNames) {
    EXPECT_EQ(Component::ClassModel()->fullName(), "zel:Component");
    EXPECT_EQ(Component::ClassModel()->fullPath(), "zel.Component");
    EXPECT_EQ(Model::ClassModel()->fullInheritancePath(), "Model -> Component -> Object");
    Json::Value json;
    Component::ClassModel()->buildNavigationTree(json);
    EXPECT_EQ(json["source"].asString(), "zel:Object");
    EXPECT_EQ(json["sourcePath"].asString(), "");
}

TEST_F(ModelTest, ClassModelsAreFoundByTheirPath) {
    EXPECT_EQ(Model::getModel("zel.Component"), Component::ClassModel());
    EXPECT_EQ(Model::getModel("zel:Component"), Component::ClassModel());
    EXPECT_EQ(Model::getModel(Path("zel"), "Component"), Component::ClassModel());
    EXPECT_EQ(Model::getModel(Path("zel"), "Component", Object::ClassModel()), Component::ClassModel());
    EXPECT_EQ(Model::getModel(Path("zel"), "Object", Component::ClassModel()), nullptr);
    EXPECT_EQ(Model::getModel("no.such.model"), nullptr);
    EXPECT_EQ(Model::getModel(""), nullptr);
}

TEST_F(ModelTest, BuiltinModelIsMadeOnceUnderRacingThreads) {
    static std::atomic<Model*> slot{nullptr};
    std::vector<std::thread> threads;
    std::vector<Model*> models(8);
    for (size_t i = 0; i < models.size(); ++i)
        threads.emplace_back([&models, i] {
            models[i] = Model::createBuiltinModel("test.Racing", Component::ClassModel(), slot);
        });
    for (std::thread& thread : threads)
        thread.join();
    for (Model* model : models)
        EXPECT_EQ(model, slot.load());
    EXPECT_EQ(Model::getNamespace(Path("test"))->getNumObjects("Racing"), 1U);
}

TEST_F(ModelTest, ImplementedModelIsKnownByItsImplementation) {
    static std::atomic<Model*> slot{nullptr};
    const Model* model = Model::createImplementedModel("test.Made", slot);
    EXPECT_EQ(model->getImplementationName(), Name("Made"));
    EXPECT_EQ(model->getSource(), nullptr);
}

TEST_F(ModelTest, CreatesMissingNamespaces) {
    EXPECT_EQ(Model::getNamespace(Path("one.two")), nullptr);
    const Model* model = Model::createModel(Path("one.two"), "Three", noModel());
    EXPECT_EQ(model->fullPath(), "one.two.Three");
    EXPECT_EQ(model->getContext(), Model::getNamespace(Path("one.two")));
    EXPECT_EQ(Model::getOrCreateNamespace(Path("one.two")), Model::getNamespace(Path("one.two")));
}

TEST_F(ModelTest, NamespaceCompletesAUniqueMatchToItsPath) {
    Model::createModel(Path("complete"), "Alpha", noModel());
    Model::createModel(Path("complete"), "Beta", noModel());
    Model::createModel(Path("complete"), "Below", noModel());
    zel::Vector<zel::String> list;
    Model::getNamespace(Path("complete"))->autoComplete("al", list);
    EXPECT_EQ(list, (zel::Vector<zel::String>{"complete.Alpha"}));
    list.clear();
    Model::getNamespace(Path("complete"))->autoComplete("BE", list);
    EXPECT_EQ(list, (zel::Vector<zel::String>{"Beta", "Below"}));
}

TEST_F(ModelTest, EndsWithTheLibraryAndComesAnew) {
    ZEL_FIRST_LIFE_ONLY();
    static std::atomic<Model*> slot{nullptr};
    bool cleaned = false;
    Model::createBuiltinModel("test.Ending", noModel(), slot)->setShutdownCleanup([&cleaned] {
        cleaned = true;
    });
    const ref_ptr<Object> survivor(new Object("o", Object::ClassModel()));
    zelCore::shutdown();
    EXPECT_TRUE(cleaned);
    EXPECT_EQ(slot.load(), nullptr);
    EXPECT_EQ(survivor->getModel()->getName(), Name("Object"));
    zelCore::init();
    EXPECT_EQ(Component::ClassModel()->fullName(), "zel:Component");
    EXPECT_NE(survivor->getModel(), Object::ClassModel());
}

TEST_F(ModelDeathTest, RefusesToInheritFromItself) {
    const ref_ptr<Model> base(new Model("Base", noModel()));
    const ref_ptr<Model> derived(new Model("Derived", base.get()));
    EXPECT_DEATH(base->setSource(derived.get()), "Base: a model can not inherit from itself");
}

TEST(ModelStaticDeathTest, TableOfBuiltinModelsIsGoneAtTheEndOfTheProcess) {
    EXPECT_DEATH(
        {
            // Runs after the table's destructor, since it is registered before the table exists.
            std::atexit([] {
                static std::atomic<Model*> slot{nullptr};
                Model::createBuiltinModel("test.Late", nullptr, slot);
            });
            std::exit(Component::ClassModel() == nullptr ? 1 : 0);
        },
        "getReverseBuiltinModelTable called but the table is already destroyed\\.");
}

TEST_F(ModelTest, PathOfAFileBeginsBelowTheComponentsDirectory) {
    EXPECT_EQ(Model::getPath("/x/Components/zel/A/B.zelComponent"), Path("A.B"));
    EXPECT_EQ(Model::getPath("/x/Components/solar/B.zelComponent"), Path("solar.B"));
}

TEST_F(ModelTest, FileWithoutExtensionOrComponentsDirectoryHasNoPath) {
    const LogCapture log;
    EXPECT_TRUE(Model::getPath("/x/Components/zel/NoExtension").empty());
    EXPECT_THAT(log.text(),
                HasSubstr("Could not locate file extension for file \"/x/Components/zel/NoExtension\""));
    EXPECT_TRUE(Model::getPath("/x/zel/A.zelComponent").empty());
    EXPECT_THAT(log.text(),
                HasSubstr("Could not locate component root directory for file \"/x/zel/A.zelComponent\""));
}

TEST_F(ModelTest, FileSystemRootLiesAboveTheComponents) {
    TiXmlDocument document("/x/Components/zel/A/B.zelComponent");
    document.Parse("<Component name='B'/>");
    EXPECT_EQ(Model::getFileSystemRoot(document.RootElement()), "/x");
    EXPECT_EQ(Model::getPath(document.RootElement()), Path("A"));
    EXPECT_EQ(Model::getPath(document.RootElement(), "C"), Path("A.C"));
    EXPECT_EQ(Model::getNamespace(document.RootElement()), nullptr);
    const LogCapture log;
    TiXmlDocument elsewhere("/x/B.zelComponent");
    elsewhere.Parse("<Component name='B'/>");
    EXPECT_EQ(Model::getFileSystemRoot(elsewhere.RootElement()), "");
    EXPECT_THAT(log.text(),
                HasSubstr("Could not locate component root directory for file \"/x/B.zelComponent\""));
}

TEST_F(ModelTest, IsLoadedFromTheSearchPaths) {
    directory.write("Components/zel/Stars/Sun.zelComponent", "<Component name='Sun'/>");
    Model* model = Model::getModel("Stars.Sun");
    ASSERT_NE(model, nullptr);
    EXPECT_EQ(model->fullName(), "Stars:Sun");
    EXPECT_EQ(model->getSource(), Component::ClassModel());
    EXPECT_EQ(model->getSourcePath(), directory / "Components/zel/Stars/Sun.zelComponent");
    EXPECT_EQ(Model::getModel("Stars.Sun"), model) << "loading the same path twice returns the same model";
}

TEST_F(ModelTest, FileMayHoldSeveralModels) {
    directory.write("Components/zel/Stars/Sun.zelComponent",
                    "<Component name='Sun' implementation='impl'/><Component name='Dwarf' source='Sun'/>");
    const Model* dwarf = Model::getModel("Stars.Sun.Dwarf");
    ASSERT_NE(dwarf, nullptr);
    EXPECT_EQ(dwarf->fullInheritancePath(), "Dwarf -> Sun -> Component -> Object");
    EXPECT_EQ(Model::getModel("Stars.Sun")->getImplementationName(), Name("impl"));
    EXPECT_EQ(Model::getModel("Stars.Sun.Dwarf"), dwarf);
}

TEST_F(ModelTest, UnknownTagStillYieldsTheOtherModels) {
    const std::string file =
        directory.write("Components/zel/Mixed.zelComponent", "<Nonsense/><Component name='Mixed'/>");
    const LogCapture log;
    EXPECT_NE(Model::getModel("Mixed"), nullptr);
    EXPECT_THAT(log.text(),
                HasSubstr("Found model file '" + file + "' but no registered model type for tag 'Nonsense'"));
}

TEST_F(ModelTest, SyntaxErrorIsAWarningWithFileAndRow) {
    const std::string file =
        directory.write("Components/zel/Broken.zelComponent", "<Component name='Broken'>\n<a>\n");
    const LogCapture log;
    EXPECT_EQ(Model::getModel("Broken"), nullptr);
    EXPECT_THAT(log.text(), HasSubstr("Could not open model file '" + file + "', error on row "));
    // The file is looked at again, so that it can be mended while the program runs.
    directory.write("Components/zel/Broken.zelComponent", "<Component name='Broken'/>");
    EXPECT_NE(Model::getModel("Broken"), nullptr);
}

TEST_F(ModelTest, ModelWithoutANameIsAnXmlError) {
    const std::string file = directory.write("Components/zel/Nameless.zelComponent", "\n<Component/>");
    try {
        (void)Model::getModel("Nameless");
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(),
                    HasSubstr("] XML error: Must specify a name for the component!. Error at row 2\n"));
        EXPECT_THAT(error.what(),
                    HasSubstr("File: " + file + "\n" + std::string(78, '=') + "\n<Component />\n"));
    }
}

TEST_F(ModelTest, DuplicateNameIsAnXmlErrorThatNamesTheOtherPlace) {
    const std::string file = directory.write("Components/zel/Twice.zelComponent",
                                             "<Component name='Twice'/>\n<Component name='Twice'/>");
    EXPECT_THAT(zelTest::whatOf([] { (void)Model::getModel("Twice"); }),
                HasSubstr("A model 'Twice' exists already in namespace '': see file '" + file +
                          "', row 1. Error at row 2"));
}

TEST_F(ModelMaliciousTest, SourcesThatTurnInCirclesAreXmlErrors) {
    directory.write("Components/zel/Self.zelComponent", "<Component name='Self' source='Self'/>");
    EXPECT_THROW((void)Model::getModel("Self"), std::runtime_error);
    directory.write("Components/zel/Ping.zelComponent", "<Component name='Ping' source='Pong'/>");
    directory.write("Components/zel/Pong.zelComponent", "<Component name='Pong' source='Ping'/>");
    try {
        (void)Model::getModel("Ping");
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), HasSubstr("Unable to locate source component 'Ping'"));
    }
}

TEST_F(ModelMaliciousTest, PathsDoNotLeaveTheSearchDirectories) {
    directory.write("Secret.zelComponent", "<Component name='Secret'/>");
    EXPECT_EQ(Model::getModel(Path(), "../../Secret"), nullptr);
    EXPECT_EQ(Model::getModel("/etc/passwd"), nullptr);
    EXPECT_EQ(Model::getModel("......"), nullptr);
}

TEST_F(ModelTest, SplitsNamesOfBothForms) {
    Path path;
    Name name;
    Model::parsePathString("a.b.C", path, name);
    EXPECT_EQ(path, Path("a.b"));
    EXPECT_EQ(name, Name("C"));
    Model::parsePathString("a:b:C", path, name);
    EXPECT_EQ(path, Path("a.b"));
    Model::parsePathString("C", path, name);
    EXPECT_TRUE(path.empty());
    EXPECT_EQ(name, Name("C"));
}

TEST_F(ModelTest, DiskPathIsTheLongestPrefixThatIsAFile) {
    const std::string file = directory.write("Components/zel/A/B.zelComponent", "<Component name='B'/>");
    zel::String result;
    Path remainder;
    EXPECT_TRUE(Model::getDiskPath("A.B.C.D", result, remainder, "zelComponent"));
    EXPECT_EQ(result, file);
    EXPECT_EQ(remainder, Path("C.D"));
    EXPECT_FALSE(Model::getDiskPath("A.X", result, remainder, "zelComponent"));
    EXPECT_FALSE(Model::getDiskPath("A.B", result, remainder, "zelEntity"));
}

TEST_F(ModelDeathTest, RefusesASecondLoaderOfATag) {
    struct Second : Model::Loader {
        Second() : Loader("Component", "zelComponent") {}
        Model* load(TiXmlElement*, const Path&) override { return nullptr; }
    };
    EXPECT_DEATH(Second(), "A model loader for tag 'Component' is already registered!");
}

TEST_F(ModelTest, LoaderServesItsAliases) {
    struct Special : Model::Loader {
        Special() : Loader("Special", "zelSpecial") { addAlias("Extra"); }
        Model* load(TiXmlElement* element, const Path&) override {
            return new Model(element->ValueStr(), noModel());
        }
    };
    static Special special;
    EXPECT_STREQ(special.getName(), "Special");
    EXPECT_STREQ(special.getFileExtension(), "zelSpecial");
    directory.write("Components/zel/Special.zelSpecial", "<Special/><Extra/>");
    EXPECT_NE(Model::getModel("Special"), nullptr);
    EXPECT_NE(Model::getModel("Extra"), nullptr);
}

TEST_F(ModelTest, TypeSystemMutexIsOne) {
    EXPECT_EQ(&zel::getTypeSystemMutex(), &zelData::detail::getTypeSystemMutex());
}
