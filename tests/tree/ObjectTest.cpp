#include <zel/Component.h>
#include <zel/Model.h>
#include <zel/Object.h>
#include <zel/ref_ptr.h>

#include <json/value.h>

#include <stdexcept>
#include <string>
#include <vector>

using zel::Component;
using zel::Name;
using zel::Object;
using zel::Path;
using zel::ref_ptr;

TEST(ObjectTest, TakesAscendingIds) {
    const ref_ptr<Object> a(new Object);
    const ref_ptr<Object> b(new Object);
    EXPECT_EQ(b->getId(), a->getId() + 1);
    a->setId(7);
    EXPECT_EQ(a->getId(), 7U);
}

TEST(ObjectTest, IsRenamedWithoutAContext) {
    const ref_ptr<Object> object(new Object("before"));
    object->setName("after");
    EXPECT_EQ(object->getName(), Name("after"));
}

TEST(ObjectDeathTest, RefusesANewNameInATree) {
    const ref_ptr<Component> parent(new Component("parent"));
    parent->addObject(new Object("child"));
    EXPECT_DEATH(
        parent->getObject(0)->setName("other"),
        "zelVerify failed: `!m_context', parent.child: TODO Support renaming objects after they have "
        "been added to a context\\.\\.\\.");
}

TEST(ObjectTest, CountsItsModelUnlessItIsItsOwn) {
    const ref_ptr<zel::Model> model(new zel::Model("M", static_cast<zel::Model*>(nullptr)));
    const int before = model->referenceCount();
    {
        const ref_ptr<Object> object(new Object("o", model.get()));
        EXPECT_EQ(model->referenceCount(), before + 1);
        object->setModel(object->getModel());
        EXPECT_EQ(model->referenceCount(), before + 1);
    }
    EXPECT_EQ(model->referenceCount(), before);
    model->setModel(model.get());
    EXPECT_EQ(model->referenceCount(), before);
    model->setModel(nullptr);
    EXPECT_EQ(model->referenceCount(), before);
}

TEST(ObjectTest, FullNameCarriesTheImplementation) {
    const ref_ptr<Object> plain(new Object("o"));
    EXPECT_EQ(plain->fullName(), "o");
    const ref_ptr<Object> object(new Object("o", new zel::Model("M", Name("impl"))));
    EXPECT_EQ(object->fullName(), "o:impl");
    EXPECT_EQ(object->fullPath(), "o:impl");
    EXPECT_EQ(object->getPath(), Path("o"));
}

TEST(ObjectTest, PathOfAnAnonymousObjectShowsAPlaceholder) {
    const ref_ptr<Component> parent(new Component("parent"));
    parent->addObject(new Object);
    EXPECT_EQ(parent->getObject(0)->getPath(), Path("parent.[anonymous]"));
}

TEST(ObjectTest, PathStopsAtTheGivenObjectAndAtTheRoot) {
    const ref_ptr<Component> root(new Component("Root"));
    auto* a = new Component("a");
    auto* b = new Object("b");
    root->addObject(a);
    a->addObject(b);
    EXPECT_EQ(a->getPath(), Path("a"));
    EXPECT_EQ(b->getPath(), Path("a.b"));
    EXPECT_EQ(b->getPath(a), Path("b"));
    EXPECT_EQ(b->getRootContext(), root.get());
    EXPECT_TRUE(b->hasParent(root.get()));
    EXPECT_FALSE(a->hasParent(b));
    EXPECT_TRUE(root->getPath().empty());
}

TEST(ObjectTest, GeneratesNames) {
    EXPECT_EQ(Object::generateName("@Alpha.Beta"), "alpha_Beta");
    EXPECT_EQ(Object::generateName("xy"), "y");
    EXPECT_EQ(Object::generateName("x"), "");
    EXPECT_THROW((void)Object::generateName(""), std::out_of_range);
}

namespace {

struct Listener : Object::EventListener {
    void destroyCallback(Object* object) override {
        names.push_back(object->getName().str());
        if (leave)
            object->removeListener(other);
    }
    std::vector<std::string> names;
    Object::EventListener* other = nullptr;
    bool leave = false;
};

} // namespace

TEST(ObjectTest, TellsListenersOfItsEndWhileItIsWhole) {
    Listener listener;
    {
        const ref_ptr<Object> object(new Object("o"));
        EXPECT_FALSE(object->hasListener(&listener));
        object->addListener(&listener);
        object->addListener(&listener);
        EXPECT_TRUE(object->hasListener(&listener));
    }
    EXPECT_EQ(listener.names, std::vector<std::string>{"o"});
}

TEST(ObjectTest, ListenersMayLeaveDuringTheDestroyEvent) {
    Listener first;
    Listener second;
    {
        const ref_ptr<Object> object(new Object("o"));
        object->addListener(&first);
        object->addListener(&second);
        first.leave = true;
        first.other = &second;
    }
    EXPECT_EQ(first.names.size(), 1U);
    EXPECT_TRUE(second.names.empty());
}

TEST(ObjectTest, CallsListenersInTheOrderInWhichTheyCame) {
    struct Noting : Object::EventListener {
        void destroyCallback(Object*) override { order->push_back(this); }
        std::vector<const Noting*>* order = nullptr;
    };
    std::vector<const Noting*> order;
    std::vector<Noting> listeners(100);
    std::vector<const Noting*> expected;
    {
        const ref_ptr<Object> object(new Object("o"));
        for (size_t i = listeners.size(); i-- > 0;) { // against that of the addresses
            listeners[i].order = &order;
            object->addListener(&listeners[i]);
        }
        for (size_t i = listeners.size(); i-- > 0;)
            if (i % 3 != 0)
                expected.push_back(&listeners[i]);
        for (size_t i = 0; i < listeners.size(); i += 3)
            object->removeListener(&listeners[i]);
        object->addListener(&listeners[30]); // comes anew
        expected.push_back(&listeners[30]);
        object->addListener(&listeners[98]); // is there already
    }
    EXPECT_EQ(order, expected);
}

TEST(ObjectTest, EmptyPathIsTheObjectIfItsModelFits) {
    const ref_ptr<Object> object(new Object("o", Object::ClassModel()));
    EXPECT_EQ(object->getResource(Path()), object.get());
    EXPECT_EQ(object->getResource(Path(), Component::ClassModel()), nullptr);
    EXPECT_EQ(object->getResource(Path("x")), nullptr);
    EXPECT_EQ(Object::getResource(nullptr, Path(), nullptr), nullptr);
}

TEST(ObjectTest, DescribesItselfAsJson) {
    const ref_ptr<Object> object(new Object("o", Object::ClassModel()));
    Json::Value json;
    object->buildNavigationTree(json);
    EXPECT_EQ(json["name"].asString(), "o");
    EXPECT_EQ(json["model"].asString(), "zel:Object");
}

TEST(ObjectDeathTest, TrackingOfObjectsIsDisabled) {
    EXPECT_DEATH(Object::getActiveObjects(), "zelAbort: ZEL_TRACK_OBJECTS is disabled");
}

TEST(ObjectTest, RebindSwitchBelongsToTheThread) {
    EXPECT_TRUE(Object::getEnableRebind());
    Object::setEnableRebind(false);
    EXPECT_FALSE(Object::getEnableRebind());
    Object::setEnableRebind(true);
}
