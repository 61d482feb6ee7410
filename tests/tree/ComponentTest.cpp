#include <zel/Component.h>
#include <zel/ComponentVisitor.h>
#include <zel/Device.h>
#include <zel/Model.h>
#include <zel/observer_ptr.h>

#include <json/value.h>

#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

using zel::Component;
using zel::Name;
using zel::Object;
using zel::Path;
using zel::ref_ptr;

namespace {

/// A device without buffers.
struct SomeDevice : zel::Device {
    SomeDevice() : Device("d", Type::Cpu, "CPU", ByteOrder::LittleEndian) {}
    zelData::Buffer* createBuffer(const zelData::Format*) override { return nullptr; }
    ref_ptr<zel::SyncTag> sendData(const void*, zelData::Buffer*, size_t, size_t, bool) override {
        return nullptr;
    }
    ref_ptr<zel::SyncTag> receiveData(void*, zelData::Buffer*, size_t, size_t, bool) override {
        return nullptr;
    }
};

/// Keeps a line about each call of rebind, and may add an object at the first one.
struct Rebinding : Object {
    Rebinding(const Name& name, std::vector<std::string>& log) : Object(name), m_log(log) {}
    void rebind() override {
        m_log.push_back(getName().str());
        if (action) {
            const auto once = std::exchange(action, nullptr);
            once();
        }
    }
    std::function<void()> action;

private:
    std::vector<std::string>& m_log;
};

} // namespace

TEST(ComponentTest, FindsNothingWhenEmpty) {
    const ref_ptr<Component> component(new Component("c"));
    EXPECT_EQ(component->findObject("x"), nullptr);
    EXPECT_EQ(component->getNumObjects("x"), 0U);
    EXPECT_EQ(component->getNumObjects(), 0U);
    EXPECT_FALSE(component->removeObject("x", 0));
}

TEST(ComponentTest, ChainsObjectsOfOneNameInOrder) {
    const ref_ptr<Component> component(new Component("c"));
    auto* first = new Object("x");
    auto* second = new Object("x");
    component->addObject(first);
    component->addObject(second);
    EXPECT_EQ(component->findObject("x", nullptr, 1), second);
    EXPECT_EQ(first->getNextSibling(), second);
    EXPECT_EQ(component->getNumObjects("x"), 2U);

    EXPECT_TRUE(component->removeObject(first));
    EXPECT_EQ(component->findObject("x"), second);
    EXPECT_EQ(component->findObject("x", nullptr, 1), nullptr);
}

TEST(ComponentTest, ChainsEmptyNames) {
    const ref_ptr<Component> component(new Component("c"));
    component->addObject(new Object);
    component->addObject(new Object);
    EXPECT_EQ(component->getNumObjects(Name()), 2U);
}

TEST(ComponentTest, UnlinksTheMiddleAndTheEndOfAChain) {
    const ref_ptr<Component> component(new Component("c"));
    std::vector<Object*> objects;
    for (int i = 0; i < 3; ++i)
        component->addObject(objects.emplace_back(new Object("x")));
    const ref_ptr<Object> middle(objects[1]);
    component->removeObject(middle.get());
    EXPECT_EQ(objects[0]->getNextSibling(), objects[2]);
    EXPECT_EQ(middle->getNextSibling(), nullptr);
    component->removeObject(objects[2]);
    EXPECT_EQ(objects[0]->getNextSibling(), nullptr);
    component->addObject(middle.get());
    EXPECT_EQ(component->findObject("x", nullptr, 1), middle.get());
}

TEST(ComponentTest, AssignsTheContextOnlyIfAsked) {
    const ref_ptr<Component> component(new Component("c"));
    auto* with = new Object("with");
    auto* without = new Object("without");
    component->addObject(with);
    component->addObject(without, false);
    EXPECT_EQ(with->getContext(), component.get());
    EXPECT_EQ(without->getContext(), nullptr);
}

TEST(ComponentTest, OwnsItsChildren) {
    const ref_ptr<Object> kept(new Object("kept"));
    zel::observer_ptr<Object> watched;
    {
        const ref_ptr<Component> component(new Component("c"));
        auto* child = new Object("child");
        watched = child;
        component->addObject(child);
        component->addObject(kept.get());
        EXPECT_EQ(kept->referenceCount(), 2);
    }
    EXPECT_EQ(watched.get(), nullptr);
    EXPECT_EQ(kept->getContext(), nullptr);
    EXPECT_EQ(kept->referenceCount(), 1);
}

TEST(ComponentTest, RemovingWhatIsNoChildDoesNothing) {
    const ref_ptr<Component> component(new Component("c"));
    const ref_ptr<Object> stranger(new Object("x"));
    EXPECT_FALSE(component->removeObject(stranger.get()));
}

TEST(ComponentTest, FiresEventsHereAndAboveWithTheDirectParent) {
    std::vector<std::string> events; // outlives the tree, whose end is an event as well
    const ref_ptr<Component> top(new Component("top"));
    auto* inner = new Component("inner");
    top->addObject(inner);
    const auto note = [&events](const char* where, Component* parent, Object* object) {
        std::ostringstream line;
        line << where << ' ' << parent->getName() << ' ' << object->getName();
        events.push_back(line.str());
    };
    inner->addObjectEvent.connect([&](Component* p, Object* o) { note("inner add", p, o); });
    top->addObjectEvent.connect([&](Component* p, Object* o) { note("top add", p, o); });
    top->removeObjectEvent.connect([&](Component* p, Object* o) { note("top remove", p, o); });
    auto* object = new Object("o");
    inner->addObject(object);
    inner->removeObject(object);
    EXPECT_EQ(events,
              (std::vector<std::string>{"inner add inner o", "top add inner o", "top remove inner o"}));
}

TEST(ComponentTest, RebindsTheObjectAndItselfWhenAdding) {
    std::vector<std::string> log;
    const ref_ptr<Component> component(new Component("c"));
    component->addObject(new Rebinding("a", log));
    EXPECT_EQ(log, (std::vector<std::string>{"a", "a"}));
    log.clear();
    Object::setEnableRebind(false);
    component->addObject(new Rebinding("b", log));
    Object::setEnableRebind(true);
    EXPECT_TRUE(log.empty());
    const ref_ptr<Object> removed(component->findObject("b"));
    component->removeObject(removed.get());
    EXPECT_EQ(log, std::vector<std::string>{"b"});
}

TEST(ComponentTest, RebindThatAddsAnObjectRestartsThePassInsteadOfNesting) {
    std::vector<std::string> log;
    const ref_ptr<Component> component(new Component("c"));
    Object::setEnableRebind(false);
    component->addObject(new Rebinding("a", log));
    auto* adding = new Rebinding("b", log);
    component->addObject(adding);
    Object::setEnableRebind(true);
    adding->action = [&] { component->addObject(new Rebinding("c", log)); };
    component->rebind();
    // a and b, the new object by itself, and then the whole pass anew.
    EXPECT_EQ(log, (std::vector<std::string>{"a", "b", "c", "a", "b", "c"}));
}

TEST(ComponentTest, FindObjectTestsTheModel) {
    const ref_ptr<Component> component(new Component("c"));
    auto* plain = new Object("x");
    auto* nested = new Component("x", Component::ClassModel());
    component->addObject(plain);
    component->addObject(nested);
    EXPECT_EQ(component->findObject("x", Component::ClassModel()), nested);
    EXPECT_EQ(component->findObject("x", Object::ClassModel()), nested);
    zel::Vector<Object*> objects;
    component->getObjects(objects, Object::ClassModel());
    EXPECT_EQ(objects, zel::Vector<Object*>({nested}));
    objects.clear();
    component->getObjects(objects);
    EXPECT_EQ(objects.size(), 2U);
}

TEST(ComponentTest, ResolvesPaths) {
    const ref_ptr<Component> top(new Component("top", Component::ClassModel()));
    auto* a = new Component("a", Component::ClassModel());
    auto* b = new Object("b", Object::ClassModel());
    top->addObject(a);
    a->addObject(b);
    EXPECT_EQ(top->getResource("a.b"), b);
    EXPECT_EQ(top->getResource("top.a.b"), b);
    EXPECT_EQ(top->getResource("top"), top.get());
    EXPECT_EQ(top->getResource(Path()), top.get());
    EXPECT_EQ(top->getResource(Path(), Component::ClassModel()), top.get());
    EXPECT_EQ(top->getResource("a.b", Component::ClassModel()), nullptr);
    EXPECT_EQ(top->getResource("a.x"), nullptr);
    EXPECT_EQ(top->getResource("a.b.c"), nullptr);
}

TEST(ComponentTest, ResolvesThePrintedFormOfAName) {
    const ref_ptr<Component> top(new Component("top"));
    auto* a = new Component("a", new zel::Model("M", Name("impl")));
    auto* b = new Object("b");
    top->addObject(a);
    a->addObject(b);
    EXPECT_EQ(a->fullName(), "a:impl");
    EXPECT_EQ(top->getResource(Path(b->fullPath(top.get()))), b);
    EXPECT_EQ(top->getResource("a : impl.b"), b);
}

TEST(ComponentTest, ResolvesThePrintedFormOfAnImplementationWithDots) {
    const ref_ptr<Component> top(new Component("top", new zel::Model("T", Name("lab.Top"))));
    auto* other = new Component("a");
    auto* a = new Component("a", new zel::Model("M", Name("test.deep.Special")));
    auto* b = new Object("b", new zel::Model("B", Name("x.y")));
    top->addObject(other);
    top->addObject(a);
    a->addObject(b);
    EXPECT_EQ(b->fullPath(top.get()), "a:test.deep.Special.b:x.y");
    EXPECT_EQ(top->getResource(Path(b->fullPath(top.get()))), b);
    EXPECT_EQ(top->getResource(Path(b->fullPath())), b);
    EXPECT_EQ(top->getResource(Path(a->fullName())), a);
    EXPECT_EQ(top->getResource(Path(top->fullName())), top.get());
    EXPECT_EQ(top->getResource("a : test.deep.Special .b"), b);
    EXPECT_EQ(top->getResource("a:test.deep.Special.none"), nullptr);
    EXPECT_EQ(top->getResource("a:test.deep.SpecialNot"), nullptr);
}

TEST(ComponentTest, AutoScopedLookUpFindsTheNearestDefinition) {
    const ref_ptr<Component> top(new Component("top"));
    auto* inner = new Component("inner");
    auto* far = new Object("x");
    auto* near = new Object("x");
    auto* from = new Object("from");
    top->addObject(far);
    top->addObject(inner);
    inner->addObject(from);
    EXPECT_EQ(from->getAutoScopedResource("x"), far);
    inner->addObject(near);
    EXPECT_EQ(from->getAutoScopedResource("x"), near);
    EXPECT_EQ(near->getAutoScopedResource("x"), far);
    EXPECT_EQ(from->getAutoScopedResource("top"), top.get());
    EXPECT_EQ(from->getAutoScopedResource(Path()), nullptr);
    EXPECT_EQ(top->getAutoScopedResource("x"), nullptr);
}

TEST(ComponentTest, TraverseByCallbackVisitsItselfAndByVisitorDoesNot) {
    const ref_ptr<Component> top(new Component("top"));
    auto* inner = new Component("inner");
    top->addObject(inner);
    inner->addObject(new Object("leaf"));
    std::string names;
    const zel::Callback1<Object*> note([&names](Object* object) { names += object->getName().str() + " "; });
    top->traverse(note);
    EXPECT_EQ(names, "top inner leaf ");
    names.clear();
    zel::CallbackComponentVisitor visitor(note);
    top->traverse(&visitor);
    EXPECT_EQ(names, "inner leaf ");
}

TEST(ComponentTest, PlainVisitorDescendsAndDoesNothing) {
    struct Counter : zel::ComponentVisitor {
        using ComponentVisitor::visit;
        void visit(Object*) override { ++leaves; }
        int leaves = 0;
    } counter;
    const ref_ptr<Component> top(new Component("top"));
    auto* inner = new Component("inner");
    top->addObject(inner);
    inner->addObject(new Object("leaf"));
    top->addObject(new Object("leaf"));
    top->traverse(&counter);
    EXPECT_EQ(counter.leaves, 2);
}

TEST(ComponentTest, PrintsItsSubtree) {
    const ref_ptr<Component> top(new Component("top"));
    auto* inner = new Component("inner");
    top->addObject(inner);
    inner->addObject(new Object("leaf"));
    std::ostringstream stream;
    top->printSubtree(stream, 0);
    EXPECT_EQ(stream.str(), "|-top\n| |-inner\n| | |-leaf\n");
}

TEST(ComponentTest, DescribesItsChildrenAsJson) {
    const ref_ptr<Component> top(new Component("top", Component::ClassModel()));
    top->addObject(new Object("leaf"));
    Json::Value json;
    top->buildNavigationTree(json);
    EXPECT_EQ(json["model"].asString(), "zel:Component");
    ASSERT_EQ(json["objects"].size(), 1U);
    EXPECT_EQ(json["objects"][0]["name"].asString(), "leaf");
}

TEST(ComponentTest, CompletesNamesWhateverTheCase) {
    const ref_ptr<Component> top(new Component("top"));
    top->addObject(new Object("Alpha"));
    top->addObject(new Object("alps"));
    top->addObject(new Object("beta"));
    zel::Vector<zel::String> list;
    top->autoComplete("AL", list);
    EXPECT_EQ(list, (zel::Vector<zel::String>{"Alpha", "alps"}));
}

TEST(ComponentTest, HoldsItsDevice) {
    const ref_ptr<zel::Device> device(new SomeDevice);
    {
        const ref_ptr<Component> component(new Component("c", nullptr, device.get()));
        EXPECT_EQ(component->getDevice(), device.get());
        EXPECT_EQ(device->referenceCount(), 2);
    }
    EXPECT_EQ(device->referenceCount(), 1);
    EXPECT_EQ(device->getTypeName(), "CPU");
    device->setByteOrder(zel::Device::ByteOrder::BigEndian);
    EXPECT_EQ(device->getByteOrder(), zel::Device::ByteOrder::BigEndian);
}

TEST(ComponentDeathTest, RefusesNullItselfAndASecondPlace) {
    const ref_ptr<Component> top(new Component("top"));
    auto* inner = new Component("inner");
    top->addObject(inner);
    EXPECT_DEATH(top->addObject(nullptr), "zelVerify failed: `object'");
    EXPECT_DEATH(inner->addObject(top.get()), "a component can not be added below itself");
    EXPECT_DEATH(top->addObject(inner), "object is already part of a component");
}

TEST(ComponentTest, AgreesWithAPlainModelUnderRandomChanges) {
    std::mt19937 random(20261121);
    const ref_ptr<Component> component(new Component("c"));
    std::vector<Object*> reference;
    Object::setEnableRebind(false);
    for (int step = 0; step < 20000; ++step) {
        const std::string name = "n" + std::to_string(random() % 5);
        if (reference.empty() || random() % 100 < 55) {
            auto* object = new Object(name);
            component->addObject(object);
            reference.push_back(object);
        } else {
            const size_t index = random() % reference.size();
            EXPECT_TRUE(component->removeObject(reference[index]));
            reference.erase(reference.begin() + static_cast<std::ptrdiff_t>(index));
        }
        if (step % 100 != 0)
            continue;
        ASSERT_EQ(component->getNumObjects(), reference.size());
        std::map<std::string, size_t> seen;
        for (size_t i = 0; i < reference.size(); ++i) {
            ASSERT_EQ(component->getObject(i), reference[i]);
            const Name& key = reference[i]->getName();
            ASSERT_EQ(component->findObject(key, nullptr, seen[key.str()]++), reference[i]);
        }
        for (const auto& [key, count] : seen)
            ASSERT_EQ(component->getNumObjects(key), count);
    }
    component->removeAllObjects();
    Object::setEnableRebind(true);
    EXPECT_EQ(component->getNumObjects(), 0U);
}
