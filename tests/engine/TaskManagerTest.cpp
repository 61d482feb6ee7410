#include "support/LogCapture.h"
#include "support/MemoryDevice.h"
#include "support/ModelFiles.h"
#include "support/WhatOf.h"

#include <zel/ArrayParameter.h>
#include <zel/CpuDevice.h>
#include <zel/CpuKernel.h>
#include <zel/LambdaKernel.h>
#include <zel/Model.h>
#include <zel/ParameterBinding.h>
#include <zel/ScalarParameter.h>
#include <zel/SerialTask.h>
#include <zel/TaskManager.h>
#include <zel/TaskPlugin.h>
#include <zel/UnresolvedParameter.h>
#include <zel/UnresolvedTask.h>
#include <zel/ref_ptr.h>
#include <zelData/Buffer.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>

#include <tinyxml.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using zel::Device;
using zel::Name;
using zel::Parameter;
using zel::ParameterTable;
using zel::Path;
using zel::ref_ptr;
using zel::ScalarParameter;
using zel::Task;
using zel::TaskManager;
using zel::TaskPlugin;
using zel::TaskPluginImplementationT;
using zelData::getFormat;
using zelTest::LogCapture;
using zelTest::whatOf;

namespace {

/// A task with one scalar parameter of a format.
template <typename T>
class One final : public zel::SerialTask {
public:
    One(const Name& name, Device* device) : SerialTask(name, device) {
        addParameter(
            new ScalarParameter("x", sizeof(T) == 4 ? getFormat("Real:32bit") : getFormat("Real:64bit")));
    }
};

/// A kernel without parameters.
class Plain final : public zel::LambdaKernel {
public:
    Plain(const Name& name, Device* device)
        : LambdaKernel(
              name, [](const zel::RangeJob&) {}, device) {}
};

class TaskManagerTest : public zelTest::ModelFiles {
protected:
    void SetUp() override {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        ModelFiles::SetUp();
    }

    [[nodiscard]] static ref_ptr<Task> create(const char* path,
                                              const ParameterTable& table = {},
                                              const char* name = "made",
                                              Device* device = nullptr) {
        return TaskManager::instance()->create(Path(path), device, table, Name(name));
    }
    static ParameterTable table(const char* name, const char* format, const char* expression) {
        const ref_ptr<ScalarParameter> parameter(new ScalarParameter(Name(name), getFormat(format)));
        parameter->setExpression(zel::String(expression));
        ParameterTable result;
        result.insert(zel::String(name), ref_ptr<Parameter>(parameter.get()));
        return result;
    }
    /// Puts the libraries of the tests on the plug-in path.
    static void usePlugins() {
        zelIO::Environment::instance()
            ->getFilePath(zelIO::Environment::PluginPath)
            .pushfrontPath(std::string(ZEL_TEST_PLUGIN_DIR));
    }
    void kernelFile(const std::string& text) { directory.write("Components/zel/Tested/One.zelKernel", text); }

    LogCapture log{zel::Notify::Warning};
};
using TaskManagerDeathTest = TaskManagerTest;

} // namespace

TEST_F(TaskManagerTest, PathsOfLibraries) {
    EXPECT_EQ(TaskManager::getPluginPath("Bodies.Kick"), "libBodies.Kick.so");
}

TEST_F(TaskManagerTest, DescriptionFilesAreFoundByPathAndPrefix) {
    kernelFile("<Kernel name='One'/>");
    const std::string file = TaskManager::getFileSystemPath("Tested.One", "zelKernel");
    EXPECT_THAT(file, testing::EndsWith("Components/zel/Tested/One.zelKernel"));
    EXPECT_EQ(TaskManager::getFileSystemPath("Tested.One.Inner", "zelKernel"), file);
    EXPECT_THAT(log.texts(), IsEmpty());
    EXPECT_EQ(TaskManager::getFileSystemPath("Tested.Two", "zelKernel"), "");
    EXPECT_EQ(TaskManager::getFileSystemPath("Tested/One", "zelKernel"), "");
    EXPECT_THAT(log.texts(),
                ElementsAre("Unable to find plugin for resource: 'Tested.Two'\n",
                            "Wrong separator '/' should be '.'\n"));
}

TEST_F(TaskManagerTest, FirstImplementationThatFitsIsMade) {
    TaskPlugin plugin("Tested.One", Device::Type::Cpu);
    const TaskPluginImplementationT<One<float>> narrow(plugin, "Narrow");
    const TaskPluginImplementationT<One<double>> wide(plugin, "Wide");
    EXPECT_EQ(plugin.getNumImplementations(), 2U);
    EXPECT_EQ(plugin.getDeviceType(), Device::Type::Cpu);
    EXPECT_EQ(TaskManager::pluginTable().find("Tested.One")->value, &plugin);

    EXPECT_NE(dynamic_cast<One<float>*>(create("Tested.One", table("x", "Real:32bit", "1")).get()), nullptr);
    EXPECT_NE(dynamic_cast<One<double>*>(create("Tested.One", table("x", "Real:64bit", "1")).get()), nullptr);
    EXPECT_NE(dynamic_cast<One<float>*>(create("Tested.One").get()), nullptr); // nothing asked for
    const ref_ptr<Task> task = create("Tested.One");
    EXPECT_STREQ(task->getName().c_str(), "made");
    EXPECT_EQ(task->getDevice(), zel::CpuDevice::instance());
    EXPECT_STREQ(task->getModel()->fullPath().c_str(), "Tested.One");
    EXPECT_TRUE(task->getModel()->is(Task::ClassModel()));
    const ref_ptr<Task> named(plugin.create(task->getDevice(), {}, "n", "Wide"));
    EXPECT_NE(dynamic_cast<One<double>*>(named.get()), nullptr);
    EXPECT_EQ(plugin.create(task->getDevice(), {}, "n", "Other"), nullptr);
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(TaskManagerTest, BindingsByPosition) {
    TaskPlugin plugin("Tested.One", Device::Type::Cpu);
    const TaskPluginImplementationT<One<float>> narrow(plugin, "Narrow");
    const TaskPluginImplementationT<One<double>> wide(plugin, "Wide");
    zel::Vector<zel::ParameterBinding> bindings(1);
    bindings[0].setFormat(getFormat("Real:64bit"));
    bindings[0].setMetaType(Parameter::MetaType::Scalar);
    const ref_ptr<Task> task(TaskManager::instance()->create("Tested.One", "made", bindings));
    EXPECT_NE(dynamic_cast<One<double>*>(task.get()), nullptr);
    bindings[0].setFormat(getFormat("UInt:32bit"));
    EXPECT_EQ(TaskManager::instance()->create("Tested.One", "made", bindings), nullptr);
    bindings[0].setAllowFormatPromotion(true);
    const ref_ptr<Task> promoted(TaskManager::instance()->create("Tested.One", "made", bindings));
    EXPECT_NE(promoted, nullptr);
}

TEST_F(TaskManagerTest, WithoutAFittingImplementationTheParametersAreListed) {
    TaskPlugin plugin("Tested.One", Device::Type::Cpu);
    const TaskPluginImplementationT<One<double>> wide(plugin, "Wide");
    ParameterTable bindings = table("x", "String", "text");
    for (auto& entry : table("a", "Vec3:32bit", "Vec3:32bit(1)"))
        bindings.insert(entry.key, entry.value);
    EXPECT_EQ(create("Tested.One", bindings), nullptr);
    EXPECT_THAT(
        log.texts(),
        ElementsAre(
            "Could not create implementation 'made' from plugin 'Tested.One' when given parameter list:\n"
            "  'a' (SCALAR) of type Vec3, format 32bit\n"
            "  'x' (SCALAR) of type String, format " +
            std::string(getFormat("String")->getName().c_str()) + "\n\n"));
}

TEST_F(TaskManagerTest, PluginOfAnotherDeviceIsNotMade) {
    TaskPlugin plugin("Tested.One", zelTest::MemoryDevice::DeviceType);
    const TaskPluginImplementationT<One<double>> wide(plugin, "Wide");
    EXPECT_EQ(create("Tested.One"), nullptr);
    const ref_ptr<zelTest::MemoryDevice> device(new zelTest::MemoryDevice);
    EXPECT_NE(create("Tested.One", {}, "made", device.get()), nullptr);
}

TEST_F(TaskManagerTest, SecondPluginOfAPathIsRefused) {
    TaskPlugin plugin("Tested.One", Device::Type::Cpu);
    {
        const TaskPlugin second("Tested.One", Device::Type::Cpu);
        EXPECT_THAT(log.texts(), ElementsAre("There is a plug-in for the path 'Tested.One' already\n"));
    }
    EXPECT_EQ(TaskManager::pluginTable().find("Tested.One")->value, &plugin);
}

TEST_F(TaskManagerTest, NothingOfThePathIsNullAndTold) {
    EXPECT_EQ(create("Tested.Unknown"), nullptr);
    ASSERT_EQ(log.texts().size(), 2U);
    EXPECT_THAT(
        log.texts()[0],
        StartsWith(
            "TaskManager::create(...): Could not load plugin 'Tested.Unknown': libTested.Unknown.so: "));
    EXPECT_EQ(log.texts()[1], "Unable to find plugin for resource: 'Tested.Unknown'\n");
    EXPECT_EQ(create("Tested/Unknown"), nullptr);
    EXPECT_EQ(log.texts()[2], "Wrong separator '/' should be '.'\n");
}

// Libraries

TEST_F(TaskManagerTest, LibraryIsLoadedOnceAndItsKernelRuns) {
    usePlugins();
    const ref_ptr<zelData::Buffer> buffer(new zelData::Buffer("b", getFormat("Real:64bit")));
    buffer->resize(1000);
    const ref_ptr<zel::UnresolvedParameter> array(new zel::UnresolvedParameter("array"));
    array->bind(buffer.get());
    ParameterTable bindings = table("factor", "Real:64bit", "3");
    bindings.insert("array", ref_ptr<Parameter>(array.get()));
    const ref_ptr<Task> task = create("Tested.Scale", bindings);
    ASSERT_TRUE(task);
    EXPECT_NE(dynamic_cast<zel::CpuKernel*>(task.get()), nullptr);
    for (size_t i = 0; i < 1000; ++i)
        buffer->data<double>()[i] = static_cast<double>(i);
    task->findParameter("array")->bind(buffer.get());
    const ref_ptr<zelData::Value> factor(new zelData::ValueT<double>("f", 3));
    task->findParameter("factor")->bind(factor.get());
    task->execute();
    EXPECT_EQ(dynamic_cast<zel::CpuKernel&>(*task).getNumWorkItemsValue(), buffer->getNumElementsValue());
    for (size_t i = 0; i < 1000; ++i)
        ASSERT_EQ(buffer->data<double>()[i], 3.0 * static_cast<double>(i));
    EXPECT_NE(create("Tested.Scale"), nullptr);
    EXPECT_THAT(log.texts(), IsEmpty());
}

TEST_F(TaskManagerTest, FileThatIsNoLibraryIsTold) {
    directory.write("Components/zel/libTested.Text.so", "this is no library");
    EXPECT_EQ(create("Tested.Text"), nullptr);
    EXPECT_THAT(log.texts()[0],
                StartsWith("TaskManager::create(...): Could not load plugin 'Tested.Text': "));
    EXPECT_THAT(log.texts()[0], HasSubstr("libTested.Text.so"));
}

TEST_F(TaskManagerTest, LibraryWithoutThePluginIsToldAndNotOpenedAgain) {
    usePlugins();
    EXPECT_EQ(create("Tested.Nothing"), nullptr);
    EXPECT_THAT(log.texts()[0],
                testing::MatchesRegex("TaskManager::create\\(...\\): Library '.*libTested.Nothing.so' "
                                      "holds no plug-in 'Tested.Nothing'\n"));
    EXPECT_EQ(create("Tested.Nothing"), nullptr);
}

TEST_F(TaskManagerTest, LibraryThatMissesAnotherOneIsTold) {
    // The name of the library that it needs is changed to one of the same length that is not there.
    usePlugins();
    std::ifstream file(std::string(ZEL_TEST_PLUGIN_DIR) + "/libTested.Scale.so", std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(file)), {});
    for (size_t at; (at = bytes.find("libzelCore.so.2")) != std::string::npos;)
        bytes.replace(at, 15, "libzelGone.so.2");
    directory.write("Components/zel/libTested.Lonely.so", bytes);
    EXPECT_EQ(create("Tested.Lonely"), nullptr);
    EXPECT_THAT(log.texts()[0], HasSubstr("libzelGone.so.2: cannot open shared object file"));
}

TEST_F(TaskManagerDeathTest, LibraryThatThrowsEndsTheProcessAndIsNamed) {
    EXPECT_DEATH(
        {
            usePlugins();
            static_cast<void>(create("Tested.Throwing"));
        },
        "Plug-in '.*libTested.Throwing.so' has thrown while it was loaded: out of paper");
}

// Description files

TEST_F(TaskManagerTest, DescriptionSetsTheKernel) {
    TaskPlugin plugin("Tested.One", Device::Type::Cpu);
    const TaskPluginImplementationT<Plain> plain(plugin, "Plain");
    kernelFile("<Kernel name='One' costPerElement='UInt(9)' maxJobSize='64'/>");
    const ref_ptr<Task> task = create("Tested.One");
    ASSERT_TRUE(task);
    EXPECT_EQ(dynamic_cast<zel::Kernel&>(*task).getCostPerElement(), 9U);
    EXPECT_EQ(dynamic_cast<zel::Kernel&>(*task).getMaxJobSize(), 64U);
    EXPECT_STREQ(task->getName().c_str(), "made");
    EXPECT_TRUE(task->getModel()->is(zel::Kernel::ClassModel()));
}

TEST_F(TaskManagerTest, ElementOfTheDeviceAndTheTypesCounts) {
    TaskPlugin plugin("Tested.One", Device::Type::Cpu);
    const TaskPluginImplementationT<One<float>> narrow(plugin, "Narrow");
    const TaskPluginImplementationT<One<double>> wide(plugin, "Wide");
    kernelFile(
        "<Kernel name='One' device='Memory' enable='false'/>"
        "<Kernel name='One'><Parameter.Scalar name='x' type='Real:32bit' required='false'/></Kernel>"
        "<Kernel name='One' device='CPU'><Parameter.Scalar name='x' type='Auto' bind='far.away'/></Kernel>");
    const ref_ptr<Task> first = create("Tested.One", table("x", "Real:32bit", "1"));
    ASSERT_TRUE(first);
    EXPECT_TRUE(first->isEnabled());
    EXPECT_FALSE(first->findParameter("x")->isRequired());
    EXPECT_TRUE(first->findParameter("x")->getBindPath().empty());
    const ref_ptr<Task> second = create("Tested.One", table("x", "Real:64bit", "1"));
    ASSERT_TRUE(second);
    EXPECT_TRUE(second->findParameter("x")->isRequired());
    EXPECT_EQ(second->findParameter("x")->getBindPath(), Path("far.away"));
}

TEST_F(TaskManagerTest, ParameterThatTheImplementationLacksIsRefusedWithTheRow) {
    TaskPlugin plugin("Tested.One", Device::Type::Cpu);
    const TaskPluginImplementationT<Plain> plain(plugin, "Plain");
    kernelFile("<Kernel name='One'>\n<Parameter.Scalar name='y' type='Real'/></Kernel>");
    const std::string what = whatOf([] { static_cast<void>(create("Tested.One")); });
    EXPECT_THAT(
        what,
        HasSubstr("XML error: No parameter with name 'y' in implementation 'Tested.One'. Error at row 2"));
    EXPECT_THAT(what, HasSubstr("One.zelKernel"));
}

TEST_F(TaskManagerTest, UnreadableDescriptionIsAnError) {
    kernelFile("<Kernel name='One'>\n<");
    EXPECT_THAT(whatOf([] { static_cast<void>(create("Tested.One")); }),
                testing::MatchesRegex("Unable to load document '.*One.zelKernel', error on row [0-9]+: .*"));
    zel::Notify::instance()->setThrowOnError(false);
    EXPECT_EQ(create("Tested.One"), nullptr);
    zel::Notify::instance()->setThrowOnError(true);
}

TEST_F(TaskManagerTest, KernelWithoutABinaryIsRefusedWithTheRow) {
    kernelFile("<Kernel name='One'/>");
    const std::string what = whatOf([] { static_cast<void>(create("Tested.One")); });
    EXPECT_THAT(what, HasSubstr("Caught exception"));
    EXPECT_THAT(log.text(),
                HasSubstr("Could not locate kernel binary (shared library) for kernel Tested.One"));
}

TEST_F(TaskManagerTest, LibraryOfADescribedPathIsLookedForByTheSystemToo) {
    kernelFile("<Kernel name='One'/>");
    EXPECT_FALSE(whatOf([] { static_cast<void>(create("Tested.One")); }).empty());
    ASSERT_FALSE(log.texts().empty());
    EXPECT_THAT(
        log.texts()[0],
        StartsWith("TaskManager::create(...): Could not load plugin 'Tested.One': libTested.One.so: "));
    TaskPlugin plugin("Tested.Other", Device::Type::Cpu);
    const TaskPluginImplementationT<Plain> plain(plugin, "Plain");
    directory.write("Components/zel/Tested/Alias.zelTask",
                    "<Task name='Alias' implementation='Alias' source='Tested.Other'/>");
    const LogCapture told(zel::Notify::Warning);
    const ref_ptr<Task> task = create("Tested.Alias");
    EXPECT_TRUE(task);
    EXPECT_THAT(told.texts(),
                ElementsAre(StartsWith(
                    "TaskManager::create(...): Could not load plugin 'Tested.Alias': libTested.Alias.so: ")));
}

TEST_F(TaskManagerTest, KernelMayUseTheImplementationOfAnother) {
    TaskPlugin plugin("Tested.Other", Device::Type::Cpu);
    const TaskPluginImplementationT<Plain> plain(plugin, "Plain");
    kernelFile("<Kernel name='One' dispatch='Tested.Other'/>");
    const ref_ptr<Task> task = create("Tested.One");
    EXPECT_NE(dynamic_cast<Plain*>(task.get()), nullptr);
    EXPECT_STREQ(task->getName().c_str(), "made");
}

TEST_F(TaskManagerDeathTest, KernelsThatUseEachOtherEndTheProcess) {
    EXPECT_DEATH(
        {
            kernelFile("<Kernel name='One' dispatch='Tested.One'/>");
            static_cast<void>(create("Tested.One"));
        },
        "zelVerify failed: `!loading', Load loop detected for kernel 'Tested.One'");
}

TEST_F(TaskManagerTest, KernelElementsAreCheckedByTheirLoader) {
    const auto load = [](const char* text) {
        TiXmlDocument document;
        document.Parse(text);
        return whatOf([&] { static_cast<void>(zel::Kernel::load(document.RootElement(), nullptr)); });
    };
    EXPECT_THAT(load("<Kernel/>"),
                HasSubstr("XML error: Must specify a name for the kernel!. Error at row 1"));
    EXPECT_THAT(load("<Kernel name='k' device='Toaster'/>"),
                HasSubstr("XML error: When loading 'k': Unknown device type \"Toaster\". Error at row 1"));
    EXPECT_THAT(load("<Kernel name='k'/>"),
                HasSubstr("XML error: Could not locate kernel binary (shared library) for kernel k: "
                          "looked for 'libk.so', also below 'Components/zel'"));
}

TEST_F(TaskManagerTest, KernelFilesHoldModelsOfTheirTags) {
    directory.write("Components/zel/Solvers.zelKernel",
                    "<Kernel name='Solvers'/><Kernel name='Solvers' device='CPU'/>"
                    "<Kernel.Scalar name='Norm'/><SolveKernel name='Solve'/>");
    for (const char* name : {"Solvers", "Norm", "Solve"}) {
        const zel::Model* model = zel::Model::getModel(zel::String("Solvers")) == nullptr
                                      ? nullptr
                                      : zel::Model::getModel(zel::String(name));
        ASSERT_NE(model, nullptr) << name;
        EXPECT_TRUE(model->is(zel::Kernel::ClassModel()));
    }
    directory.write("Components/zel/Nameless.zelKernel", "<Kernel/>");
    EXPECT_THAT(whatOf([] { static_cast<void>(zel::Model::getModel(zel::String("Nameless"))); }),
                HasSubstr("Must specify a name for the kernel!"));
}

TEST_F(TaskManagerTest, TaskFileStandsForAnotherPath) {
    TaskPlugin plugin("Tested.Other", Device::Type::Cpu);
    const TaskPluginImplementationT<Plain> plain(plugin, "Plain");
    directory.write("Components/zel/Tested/Alias.zelTask",
                    "<Task name='Wrong' implementation='Wrong' source='Tested.Wrong'/>"
                    "<Task name='Alias' implementation='Alias' source='Tested.Other'/>");
    const ref_ptr<Task> task = create("Tested.Alias");
    auto* proxy = dynamic_cast<zel::UnresolvedTask*>(task.get());
    ASSERT_NE(proxy, nullptr);
    EXPECT_EQ(proxy->getImplementationName(), Path("Tested.Other"));
    EXPECT_STREQ(proxy->getName().c_str(), "made");
    EXPECT_TRUE(proxy->instantiateProxy());
}

TEST_F(TaskManagerTest, OtherElementsOfAFileAreLoaded) {
    TiXmlDocument document;
    document.Parse("<Entity.Model name='Grain' device='Toaster'/>");
    EXPECT_THAT(whatOf([&] { TaskManager::loadCallback(document.RootElement()); }),
                HasSubstr("XML error: Unknown device type Toaster. Error at row 1"));
}

TEST_F(TaskManagerTest, TaskLoadReportsAFailure) {
    EXPECT_EQ(Task::load(Path("Tested.Unknown"), Name("x"), nullptr), nullptr);
    EXPECT_EQ(log.texts().back(), "Unable to load task 'x' for implementation 'Tested.Unknown'\n");
    TaskPlugin plugin("Tested.One", Device::Type::Cpu);
    const TaskPluginImplementationT<Plain> plain(plugin, "Plain");
    const ref_ptr<Task> task(Task::load("Tested.One", nullptr));
    ASSERT_TRUE(task);
    EXPECT_STREQ(task->getName().c_str(), "One");
}
