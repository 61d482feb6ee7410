// Where an unresolved task stands, and what takes its place there.
#include "support/LogCapture.h"
#include "support/ModelFiles.h"

#include <zel/Clock.h>
#include <zel/Component.h>
#include <zel/SerialTask.h>
#include <zel/TaskPlugin.h>
#include <zel/UnresolvedTask.h>
#include <zel/ref_ptr.h>

#include <stdexcept>
#include <string>

using testing::HasSubstr;
using zel::Clock;
using zel::Component;
using zel::Device;
using zel::Name;
using zel::ref_ptr;
using zel::Task;

namespace {

int s_numSteps = 0;

class Step final : public zel::SerialTask {
public:
    Step(const Name& name, Device* device) : SerialTask(name, device) {}
    void run() override { ++s_numSteps; }
};

class UnresolvedTaskPlaceTest : public zelTest::ModelFiles {
protected:
    void SetUp() override {
        ModelFiles::SetUp();
        s_numSteps = 0;
        top = new Component("top");
    }
    void TearDown() override {
        top = nullptr;
        ModelFiles::TearDown();
    }
    /// Loads the model of a file.
    Component* load(const std::string& name, const std::string& content) {
        directory.write("Components/zel/" + name + ".zelComponent", content);
        return Component::load(zel::Path(name), nullptr);
    }

    zel::TaskPlugin plugin{"Tested.Step", Device::Type::Cpu};
    zel::TaskPluginImplementationT<Step> step{plugin, "Step"};
    ref_ptr<Component> top;
};

} // namespace

TEST_F(UnresolvedTaskPlaceTest, TheImplementationRunsInTheFramesThatTheTaskWasPartOf) {
    const ref_ptr<Component> world(load("World",
                                        "<Component name='World'><Clock name='clock' frequency='10'/>"
                                        "<Task name='step' source='Tested.Step'/></Component>"));
    auto* const clock = dynamic_cast<Clock*>(world->findObject("clock"));
    auto* const task = dynamic_cast<zel::UnresolvedTask*>(world->findObject("step"));
    ASSERT_NE(task, nullptr);
    clock->addFrameTask(task);
    top->addObject(world.get());
    ASSERT_NE(dynamic_cast<Step*>(world->findObject("step")), nullptr);
    clock->stepTo(0.5);
    EXPECT_EQ(s_numSteps, 5);
    zel::UnresolvedTask::deleteAllConfiguredProxies();
    clock->stepTo(1);
    EXPECT_EQ(s_numSteps, 10);
}

TEST_F(UnresolvedTaskPlaceTest, AModelThatContainsItselfBelowATaskIsRefused) {
    const zelTest::LogCapture log;
    const ref_ptr<Component> loop(load("Loop",
                                       "<Component name='Loop'>\n<Task name='s' source='Tested.Step'>\n"
                                       "<Component name='again' source='Loop'/></Task></Component>"));
    ASSERT_TRUE(loop);
    top->addObject(loop.get());
    EXPECT_THAT(log.text(), HasSubstr("Load loop detected for component 'Loop'"));
    EXPECT_THAT(log.text(), HasSubstr("Error at row 3"));
}

TEST_F(UnresolvedTaskPlaceTest, ModelsThatContainEachOtherBelowTasksAreRefused) {
    directory.write("Components/zel/B.zelComponent",
                    "<Component name='B'><Task name='s' source='Tested.Step'>"
                    "<Component name='a' source='A'/></Task></Component>");
    const zelTest::LogCapture log;
    const ref_ptr<Component> first(load("A",
                                        "<Component name='A'><Task name='s' source='Tested.Step'>"
                                        "<Component name='b' source='B'/></Task></Component>"));
    top->addObject(first.get());
    EXPECT_THAT(log.text(), HasSubstr("Load loop detected for component 'A'"));
}

TEST_F(UnresolvedTaskPlaceTest, AModelBelowATaskMayContainAnotherOneTwice) {
    directory.write("Components/zel/Leaf.zelComponent", "<Component name='Leaf'/>");
    const zelTest::LogCapture log(zel::Notify::Warning);
    const ref_ptr<Component> model(load("M",
                                        "<Component name='M'><Task name='s' source='Tested.Step'>"
                                        "<Component name='a' source='Leaf'/>"
                                        "<Component name='b' source='Leaf'/></Task></Component>"));
    top->addObject(model.get());
    EXPECT_EQ(log.text(), "");
    auto* const task = dynamic_cast<Step*>(model->findObject("s"));
    ASSERT_NE(task, nullptr);
    EXPECT_NE(task->findObject("a"), nullptr);
    EXPECT_NE(task->findObject("b"), nullptr);
}

TEST_F(UnresolvedTaskPlaceTest, AGroupWithAPathThatLeadsToNoValueGoesWithAWarning) {
    ref_ptr<Component> model(
        load("G",
             "<Component name='G'><TaskGroup name='frame'><TaskGroup name='step' enable='step'/>"
             "</TaskGroup></Component>"));
    EXPECT_THROW(top->addObject(model.get()), std::runtime_error);
    EXPECT_THROW(top->removeAllObjects(), std::runtime_error);
    const zelTest::LogCapture log(zel::Notify::Warning);
    model = nullptr;
    EXPECT_THAT(log.text(), HasSubstr("was destroyed: "));
}
