// What the callbacks of a component may do to it and to its children.
#include "support/LogCapture.h"

#include <zel/Component.h>
#include <zel/observer_ptr.h>
#include <zel/ref_ptr.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using zel::Component;
using zel::Name;
using zel::Object;
using zel::ref_ptr;

namespace {

/// Acts at its next rebind.
struct Acting : Object {
    using Object::Object;
    void rebind() override {
        ++numCalls;
        if (action)
            std::exchange(action, nullptr)();
    }
    std::function<void()> action;
    int numCalls = 0;
};

[[noreturn]] void fail() {
    throw std::runtime_error("no");
}

struct ComponentCallbackTest : testing::Test {
    ref_ptr<Component> top{new Component("top")};
    Component* inner = new Component("inner");
    std::vector<std::string> news; // of what the top hears

    void SetUp() override {
        top->addObject(inner);
        top->addObjectEvent.connect(
            [this](Component*, Object* o) { news.push_back("+" + o->getName().str()); });
        top->removeObjectEvent.connect(
            [this](Component*, Object* o) { news.push_back("-" + o->getName().str()); });
    }
    void TearDown() override { top = nullptr; } // ahead of the news
};
using ComponentCallbackDeathTest = ComponentCallbackTest;

} // namespace

TEST_F(ComponentCallbackTest, ObjectThatAnAddCallbackRemovesIsLeftAlone) {
    inner->addObjectEvent.connect([](Component* parent, Object* object) { parent->removeObject(object); });
    auto* object = new Acting("o");
    const zel::observer_ptr<Object> watched(object);
    inner->addObject(object);
    EXPECT_EQ(watched.get(), nullptr);
    EXPECT_EQ(inner->getNumObjects(), 0U);
    EXPECT_THAT(news, ElementsAre("-o")) << "the top would take it for a child";
}

TEST_F(ComponentCallbackTest, ObjectThatAnAddCallbackRemovesIsReboundOnceAsItLeaves) {
    inner->addObjectEvent.connect([](Component* parent, Object* object) { parent->removeObject(object); });
    const ref_ptr<Acting> object(new Acting("o"));
    inner->addObject(object.get());
    EXPECT_EQ(object->numCalls, 1);
    EXPECT_EQ(object->getContext(), nullptr);
}

TEST_F(ComponentCallbackTest, ObjectThatARemoveCallbackTakesInAgainStays) {
    auto* object = new Object("o");
    inner->addObject(object);
    news.clear();
    inner->removeObjectEvent.connect([](Component* parent, Object* o) { parent->addObject(o); });
    EXPECT_TRUE(inner->removeObject(object));
    EXPECT_EQ(inner->findObject("o"), object);
    EXPECT_EQ(object->getContext(), inner);
    EXPECT_THAT(news, ElementsAre("+o"));
}

TEST_F(ComponentCallbackTest, ObjectThatARemoveCallbackMovesKeepsItsNewContext) {
    auto* object = new Object("o");
    inner->addObject(object);
    const ref_ptr<Component> other(new Component("other"));
    inner->removeObjectEvent.connect([&](Component*, Object* o) { other->addObject(o); });
    inner->removeObject(object);
    EXPECT_EQ(object->getContext(), other.get());
    EXPECT_EQ(other->findObject("o"), object);
}

TEST_F(ComponentCallbackTest, ComponentMayBeDestroyedByItsAddCallback) {
    const zel::observer_ptr<Object> watched(inner);
    inner->addObjectEvent.connect([this](Component*, Object*) { top->removeObject(inner); });
    inner->addObject(new Object("o"));
    EXPECT_EQ(watched.get(), nullptr);
}

TEST_F(ComponentCallbackTest, ComponentMayBeDestroyedByItsRemoveCallback) {
    const zel::observer_ptr<Object> watched(inner);
    inner->addObject(new Object("a"));
    inner->addObject(new Object("b"));
    inner->removeObjectEvent.connect([this](Component*, Object*) { top->removeObject(inner); });
    inner->removeAllObjects();
    EXPECT_EQ(watched.get(), nullptr);
}

TEST_F(ComponentCallbackTest, ComponentMayBeDestroyedByTheRebindOfAChild) {
    const zel::observer_ptr<Object> watched(inner);
    auto* object = new Acting("o");
    inner->addObject(object);
    object->action = [this] { top->removeObject(inner); };
    inner->rebind();
    EXPECT_EQ(watched.get(), nullptr);
}

TEST_F(ComponentCallbackTest, ComponentMayBeDestroyedWhileItIsTraversed) {
    const zel::observer_ptr<Object> watched(inner);
    inner->addObject(new Object("o"));
    inner->traverse([this](Object*) { top->removeObject(inner); });
    EXPECT_EQ(watched.get(), nullptr);
}

TEST_F(ComponentCallbackTest, ComponentsAboveMayBeDestroyedByACallback) {
    auto* leaf = new Component("leaf");
    inner->addObject(leaf);
    const ref_ptr<Component> kept(leaf);
    inner->addObjectEvent.connect([this](Component*, Object*) { top = nullptr; });
    leaf->addObject(new Object("o"));
    EXPECT_EQ(leaf->getContext(), nullptr);
    EXPECT_EQ(leaf->getNumObjects(), 1U);
}

TEST_F(ComponentCallbackTest, EachComponentIsToldOnceWhereACallbackTurnsTheTreeUpsideDown) {
    int numCalls = 0;
    inner->addObjectEvent.connect([&](Component* parent, Object*) { numCalls += parent == inner ? 1 : 0; });
    const ref_ptr<Component> kept(inner);
    top->addObjectEvent.connect([this](Component* parent, Object*) {
        if (parent != inner)
            return;
        top->removeObject(inner);
        inner->addObject(top.get());
    });
    inner->addObject(new Object("o"));
    EXPECT_EQ(numCalls, 2) << "of the object and of the top";
    inner->removeAllObjects();
}

TEST_F(ComponentCallbackTest, ComponentThatIsBeingMadeIsNotDestroyedByItsOwnChildren) {
    struct Made : Component {
        Made() {
            addObject(new Acting("a"));
            removeObject("a", 0);
        }
    };
    const ref_ptr<Component> made(new Made);
    EXPECT_EQ(made->referenceCount(), 1);
}

TEST_F(ComponentCallbackTest, RebindThatRemovesItsObjectSkipsNoOther) {
    auto* a = new Acting("a");
    auto* b = new Acting("b");
    inner->addObject(a);
    inner->addObject(b);
    a->numCalls = b->numCalls = 0;
    a->action = [this, a] { inner->removeObject(a); };
    inner->rebind();
    EXPECT_EQ(b->numCalls, 1);
}

TEST_F(ComponentCallbackTest, AllObjectsLeaveWhereOneRebindAndOneCallbackThrow) {
    const ref_ptr<Acting> a(new Acting("a"));
    const ref_ptr<Object> b(new Object("b"));
    const ref_ptr<Object> c(new Object("c"));
    for (Object* object : {static_cast<Object*>(a.get()), b.get(), c.get()})
        inner->addObject(object);
    a->action = [] { fail(); };
    inner->removeObjectEvent.connect([](Component*, Object* object) {
        if (object->getName() == Name("b"))
            throw std::logic_error("first");
    });
    EXPECT_THROW(inner->removeAllObjects(), std::logic_error);
    EXPECT_EQ(inner->getNumObjects(), 0U);
    for (const Object* object : {static_cast<Object*>(a.get()), b.get(), c.get()})
        EXPECT_EQ(object->getContext(), nullptr);
}

TEST_F(ComponentCallbackTest, ThrowingRemoveCallbackLeavesNoContext) {
    const ref_ptr<Object> object(new Object("o"));
    inner->addObject(object.get());
    inner->removeObjectEvent.connect([](Component*, Object*) { fail(); });
    EXPECT_THROW(inner->removeObject(object.get()), std::runtime_error);
    EXPECT_EQ(object->getContext(), nullptr);
    EXPECT_EQ(inner->getNumObjects(), 0U);
}

TEST_F(ComponentCallbackTest, ComponentsAboveAreToldWhereACallbackBelowThrows) {
    const auto connection = inner->addObjectEvent.connect([](Component*, Object*) { fail(); });
    inner->removeObjectEvent.connect([](Component*, Object*) { fail(); });
    auto* object = new Object("o");
    EXPECT_THROW(inner->addObject(object), std::runtime_error);
    inner->addObjectEvent.disconnect(connection);
    EXPECT_THROW(inner->removeObject(object), std::runtime_error);
    EXPECT_THAT(news, ElementsAre("+o", "-o"));
}

TEST_F(ComponentCallbackTest, ThrowingCallbackOfADyingComponentIsAWarning) {
    const ref_ptr<Object> object(new Object("o"));
    inner->addObject(object.get());
    inner->removeObjectEvent.connect([](Component*, Object*) { fail(); });
    const zelTest::LogCapture log(zel::Notify::Warning);
    top->removeObject(inner);
    EXPECT_EQ(object->getContext(), nullptr);
    EXPECT_EQ(log.text(), "While 'inner' was destroyed: no\n");
}

TEST_F(ComponentCallbackTest, WhatEntersADyingComponentLosesItsContext) {
    const ref_ptr<Object> late(new Object("late"));
    inner->addObject(new Object("o"));
    inner->removeObjectEvent.connect([&](Component* parent, Object*) { parent->addObject(late.get()); });
    top->removeObject(inner);
    EXPECT_EQ(late->getContext(), nullptr);
    EXPECT_EQ(late->referenceCount(), 1);
    top->addObject(late.get());
    EXPECT_EQ(late->getContext(), top.get());
}

TEST_F(ComponentCallbackTest, RenamedChildWithoutContextIsFoundAndRemoved) {
    const ref_ptr<Object> object(new Object("old"));
    inner->addObject(object.get(), false);
    inner->addObject(new Object("new"));
    object->setName("new");
    EXPECT_EQ(inner->findObject("old"), nullptr);
    EXPECT_EQ(inner->findObject("new", nullptr, 1), object.get());
    EXPECT_TRUE(inner->removeObject(object.get()));
    EXPECT_EQ(inner->getNumObjects("new"), 1U);
}

TEST_F(ComponentCallbackDeathTest, OnlyAndLastChildrenAreRefusedByAnotherComponent) {
    auto* only = new Object("only");
    auto* first = new Object("twice");
    auto* last = new Object("twice");
    for (Object* object : {only, first, last})
        inner->addObject(object);
    const ref_ptr<Component> other(new Component("other"));
    for (Object* object : {only, first, last})
        EXPECT_DEATH(other->addObject(object), "object is already part of a component");
}

TEST_F(ComponentCallbackDeathTest, ContextsFormNoCircleWhileAComponentLeaves) {
    const ref_ptr<Component> other(new Component("other"));
    auto* leaving = new Component("leaving");
    inner->addObject(leaving);
    const ref_ptr<Component> kept(inner);
    top->removeObject(inner);
    const auto leave = [&] {
        inner->removeObjectEvent.connect([&](Component*, Object*) {
            other->addObject(leaving, false);
            leaving->addObject(inner);
        });
        inner->removeObject(leaving);
    };
    EXPECT_DEATH(leave(), "inner: a component can not be added below itself");
}

TEST_F(ComponentCallbackDeathTest, ComponentWithoutContextIsNotAddedBelowItself) {
    auto* a = new Component("a");
    auto* b = new Component("b");
    top->addObject(a, false);
    a->addObject(b, false);
    EXPECT_DEATH(b->addObject(a), "a component can not be added below itself");
}
