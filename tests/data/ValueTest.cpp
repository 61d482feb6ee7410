#include <zel/Component.h>
#include <zel/Model.h>
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelData/Value.h>
#include <zelData/ValueT.h>

#include <json/value.h>
#include <support/LogCapture.h>
#include <support/WhatOf.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using zel::Component;
using zel::Object;
using zel::Path;
using zel::ref_ptr;
using zelData::Format;
using zelData::getFormat;
using zelData::getType;
using zelData::Val;
using zelData::Value;
using zelData::ValueT;
using zelTest::LogCapture;

using zelTest::whatOf;

namespace {

using Real = ValueT<double>;

ref_ptr<Real> real(const char* name, double content = 0) {
    return new Real(name, content);
}

double asDouble(Value& value) {
    return *static_cast<double*>(value.getData());
}

/// Writes down what it is told.
class Recorder : public Value::EventListener {
public:
    using Value::EventListener::EventListener;
    void destroyCallback(Value* value) override { log.push_back("destroy " + value->getName().str()); }
    void updateCallback(Value* value) override {
        log.push_back("update " + value->getName().str());
        if (action)
            action(value);
    }
    void bindCallback(Value* value, Value* newBinding, Value* oldBinding) override {
        log.push_back("bind " + value->getName().str() + " " + name(newBinding) + " " + name(oldBinding));
    }
    std::vector<std::string> log;
    std::function<void(Value*)> action;

private:
    static std::string name(const Value* value) { return value == nullptr ? "null" : value->getName().str(); }
};

} // namespace

// Formats and content

TEST(ValueTest, TakesTheDefaultFormatOfAType) {
    const ref_ptr<Value> value(new Value("v", getType("Real")));
    EXPECT_EQ(value->getFormat(), getFormat("Real:64bit"));
    EXPECT_EQ(value->getType(), getType("Real"));
    EXPECT_EQ(asDouble(*value), 0.0);
    EXPECT_EQ(ref_ptr<Value>(new Value(getType("Bool")))->getFormat(), getFormat("Bool:8bit"));
    EXPECT_EQ(ref_ptr<Value>(new Value(getFormat("Int:16bit")))->getName(), zel::Name());
}

TEST(ValueTest, BeginsWithoutContentWhereThereIsNoFormat) {
    const ref_ptr<Value> value(new Value("v", static_cast<const Format*>(nullptr)));
    EXPECT_EQ(value->getFormat(), nullptr);
    EXPECT_EQ(value->getType(), nullptr);
    EXPECT_EQ(value->getData(), nullptr);
    value->setFormat(nullptr);
    EXPECT_EQ(value->getFormat(), nullptr);
}

TEST(ValueTest, TypedValuesReadAndWriteTheirElement) {
    const ref_ptr<Real> value = real("v", 2.5);
    EXPECT_EQ(value->get(), 2.5);
    value->set(-1);
    EXPECT_EQ(value->get(), -1.0);
    EXPECT_EQ(ref_ptr<ValueT<unsigned long>>(new ValueT<unsigned long>("n"))->getFormat(),
              getFormat("UInt:64bit"));
    EXPECT_EQ(ref_ptr<ValueT<zel::String>>(new ValueT<zel::String>("s", "text"))->get(), "text");
}

TEST(ValueTest, ConvertsWhenSetFromAnotherFormat) {
    const ref_ptr<Value> narrow(new Value("n", getFormat("Real:32bit")));
    narrow->set(real("r", 1.5).get());
    EXPECT_EQ(*static_cast<float*>(narrow->getData()), 1.5F);
    const ref_ptr<Value> same(new Value("s", getFormat("Real:64bit")));
    Value::copy(same.get(), narrow.get());
    EXPECT_EQ(asDouble(*same), 1.5);
}

TEST(ValueTest, TakesTheFormatOfWhatItIsSetFrom) {
    const ref_ptr<Value> value(new Value("v", static_cast<const Format*>(nullptr)));
    value->set(real("r", 4).get());
    EXPECT_EQ(value->getFormat(), getFormat("Real:64bit"));
    EXPECT_EQ(asDouble(*value), 4.0);
}

TEST(ValueTest, SetsElementsThatDoNotFitOnTheStack) {
    const ref_ptr<Value> from(new Value("a", getFormat("String:ascii")));
    *static_cast<zel::String*>(from->getData()) = std::string(1000, 'x');
    const ref_ptr<Value> to(new Value("b", getFormat("String:default")));
    to->set(from.get());
    EXPECT_EQ(to->toString(), std::string(1000, 'x'));
}

TEST(ValueTest, GoesBackToTheDefaultValue) {
    const ref_ptr<Real> value = real("v", 5);
    value->setDefaultValue();
    EXPECT_EQ(value->get(), 0.0);
}

TEST(ValueTest, IsCompatibleWithTheSameTypeAndWithNone) {
    const ref_ptr<Value> none(new Value("n", static_cast<const Format*>(nullptr)));
    const ref_ptr<Value> narrow(new Value("a", getFormat("Real:32bit")));
    const ref_ptr<Value> integer(new Value("i", getType("Int")));
    EXPECT_TRUE(none->isTypeCompatible(integer.get()));
    EXPECT_TRUE(integer->isTypeCompatible(none.get()));
    EXPECT_TRUE(narrow->isTypeCompatible(real("r").get()));
    EXPECT_FALSE(narrow->isTypeCompatible(integer.get()));
}

TEST(ValueTest, ClonesNameFormatAndContent) {
    const ref_ptr<ValueT<zel::String>> value(new ValueT<zel::String>("s", "text"));
    const ref_ptr<Value> clone(value->clone());
    EXPECT_EQ(clone->getName(), zel::Name("s"));
    EXPECT_EQ(clone->getFormat(), value->getFormat());
    EXPECT_EQ(clone->toString(), "text");
    EXPECT_NE(clone->getData(), value->getData());
    EXPECT_EQ(ref_ptr<Value>(ref_ptr<Value>(new Value("n", static_cast<const Format*>(nullptr)))->clone())
                  ->getFormat(),
              nullptr);
}

// Bindings

TEST(ValueTest, ReadsTheElementOfABindingOfTheSameFormat) {
    const ref_ptr<Real> root = real("root", 1);
    const ref_ptr<Real> value = real("v", 2);
    int updates = 0;
    value->updateEvent.connect([&](Value*) { ++updates; });
    value->bind(root.get());
    EXPECT_EQ(value->getData(), root->getData());
    EXPECT_EQ(value->getBinding(), root.get());
    EXPECT_THAT(root->getDependents(), ElementsAre(value.get()));
    EXPECT_EQ(updates, 1);
    root->set(7);
    EXPECT_EQ(value->get(), 7.0);
    EXPECT_EQ(updates, 2);
    EXPECT_EQ(root->referenceCount(), 2);
    EXPECT_EQ(value->referenceCount(), 1);
}

TEST(ValueTest, ConvertsTheContentOfABindingOfAnotherFormat) {
    const ref_ptr<Real> root = real("root", 1.25);
    const ref_ptr<Value> text(new Value("t", getFormat("Real:ascii")));
    text->bind(root.get());
    EXPECT_NE(text->getData(), root->getData());
    EXPECT_EQ(text->toString(), "1.25");
    root->set(3);
    EXPECT_EQ(text->toString(), "3");
    text->unbind(true);
    EXPECT_EQ(text->toString(), "3"); // an element of its own stays
}

TEST(ValueTest, TellsTheWholeChain) {
    const ref_ptr<Real> a = real("a");
    const ref_ptr<Value> b(new Value("b", getFormat("Real:32bit")));
    const ref_ptr<Real> c = real("c");
    b->bind(a.get());
    c->bind(b.get());
    std::vector<std::string> order;
    for (Value* value : {static_cast<Value*>(a.get()), b.get(), static_cast<Value*>(c.get())})
        value->updateEvent.connect([&](Value* v) { order.push_back(v->getName().str()); });
    a->set(2);
    EXPECT_THAT(order, ElementsAre("a", "b", "c"));
    EXPECT_EQ(c->get(), 2.0);
    EXPECT_EQ(c->getRootBinding(), a.get());
    EXPECT_EQ(a->getRootBinding(), a.get());
}

TEST(ValueTest, LeavesTheBindingWhenItIsSet) {
    const ref_ptr<Real> root = real("root", 1);
    const ref_ptr<Real> value = real("v");
    value->bind(root.get());
    value->set(5);
    EXPECT_EQ(value->getBinding(), nullptr);
    EXPECT_TRUE(root->getDependents().empty());
    root->set(9);
    EXPECT_EQ(value->get(), 5.0);
    EXPECT_EQ(root->referenceCount(), 1);
}

TEST(ValueTest, CanBeSetFromTheElementItShares) {
    const ref_ptr<Real> value = real("v");
    {
        const ref_ptr<Real> root = real("root", 6);
        value->bind(root.get());
    }
    value->Value::set(value->getData()); // the only owner of root lets go of it meanwhile
    EXPECT_EQ(value->get(), 6.0);
}

TEST(ValueTest, HoldsADefaultElementAfterUnbinding) {
    const ref_ptr<Real> root = real("root", 8);
    const ref_ptr<Real> value = real("v", 3);
    value->bind(root.get());
    value->unbind(false);
    EXPECT_EQ(value->get(), 0.0);
    EXPECT_NE(value->getData(), root->getData());
    value->unbind(false);
    EXPECT_EQ(value->get(), 0.0);
}

TEST(ValueTest, KeepsItsBindingAlive) {
    const ref_ptr<Real> value = real("v");
    value->bind(real("root", 4).get());
    EXPECT_EQ(value->get(), 4.0);
    EXPECT_EQ(value->getBinding()->referenceCount(), 1);
}

TEST(ValueTest, DoesNothingWhenBoundAgainToTheSame) {
    const ref_ptr<Real> root = real("root");
    const ref_ptr<Real> value = real("v");
    value->bind(root.get());
    Recorder recorder;
    value->addListener(&recorder);
    value->bind(root.get());
    EXPECT_TRUE(recorder.log.empty());
    EXPECT_EQ(root->getDependents().size(), 1U);
    value->removeListener(&recorder);
}

TEST(ValueTest, TakesTheFormatOfItsBinding) {
    const ref_ptr<Value> value(new Value("v", static_cast<const Format*>(nullptr)));
    const ref_ptr<Real> root = real("root", 2);
    value->bind(root.get());
    EXPECT_EQ(value->getFormat(), root->getFormat());
    EXPECT_EQ(value->getData(), root->getData());
}

TEST(ValueTest, AutoIsAFormatToBeTakenFromTheOtherSide) {
    const ref_ptr<Value> value(new Value("v", Format::Auto()));
    const ref_ptr<Value> below(new Value("w", Format::Auto()));
    below->bind(value.get());
    const ref_ptr<Real> root = real("root", 2);
    value->bind(root.get());
    EXPECT_EQ(value->getFormat(), root->getFormat());
    EXPECT_EQ(below->getFormat(), root->getFormat());
    EXPECT_EQ(below->getData(), root->getData());
}

TEST(ValueTest, PassesAFormatOnToThoseThatHaveNone) {
    const Format* none = nullptr;
    const ref_ptr<Value> root(new Value("root", none));
    const ref_ptr<Value> a(new Value("a", none));
    const ref_ptr<Value> b(new Value("b", none));
    const ref_ptr<Value> narrow(new Value("n", getFormat("Real:32bit")));
    a->bind(root.get());
    b->bind(a.get());
    narrow->bind(root.get());
    root->setFormat(getFormat("Real:64bit"));
    EXPECT_EQ(b->getFormat(), root->getFormat());
    EXPECT_NE(root->getData(), nullptr);
    EXPECT_EQ(a->getData(), root->getData());
    EXPECT_EQ(b->getData(), root->getData());
    EXPECT_EQ(narrow->getFormat(), getFormat("Real:32bit"));
    const double content = 1.5;
    root->set(static_cast<const void*>(&content));
    EXPECT_EQ(*static_cast<float*>(narrow->getData()), 1.5F);
}

TEST(ValueTest, ASharedElementReachesTheEndOfALongChain) {
    constexpr int length = 200000;
    const ref_ptr<Real> root = real("root");
    std::vector<ref_ptr<Real>> chain{root};
    for (int i = 1; i < length; ++i) {
        chain.push_back(real(""));
        chain.back()->bind(chain[chain.size() - 2].get());
    }
    int updates = 0;
    chain.back()->updateEvent.connect([&](Value*) { ++updates; });
    root->set(1);
    EXPECT_EQ(chain.back()->get(), 1.0);
    EXPECT_EQ(updates, 1);
    root->bind(real("top", 2).get());
    EXPECT_EQ(chain.back()->get(), 2.0);
    const ref_ptr<Real> last = chain.back();
    chain.clear(); // each one is now held by the one that follows it
    EXPECT_EQ(root->referenceCount(), 2);
}

TEST(ValueTest, HoldsOtherObjectsAsPointers) {
    const ref_ptr<Object> object(new Object("o"));
    const ref_ptr<Value> value(new Value("v", static_cast<const Format*>(nullptr)));
    EXPECT_TRUE(value->bind(object.get()));
    EXPECT_EQ(value->getFormat(), getFormat("ObjectPointer"));
    EXPECT_EQ(*static_cast<Object**>(value->getData()), object.get());
    EXPECT_TRUE(value->bind(static_cast<Object*>(nullptr)));
    EXPECT_EQ(*static_cast<Object**>(value->getData()), nullptr);
    const ref_ptr<Real> other = real("other");
    EXPECT_EQ(whatOf([&] { other->bind(object.get()); }),
              "other: A value of format 'Real:64bit' can not be bound to 'o', which is no value");
    EXPECT_TRUE(other->bind(static_cast<Object*>(real("root", 3).get())));
    EXPECT_EQ(other->get(), 3.0);
}

TEST(ValueTest, FollowsItsPath) {
    const ref_ptr<Component> top(new Component("top"));
    const ref_ptr<Real> value = real("v");
    top->addObject(value.get());
    value->bind(Path("@target"));
    EXPECT_EQ(value->getBinding(), nullptr);
    EXPECT_EQ(value->getBindPath(), Path("target"));
    const ref_ptr<Real> target = real("target", 3);
    top->addObject(target.get()); // rebinds
    EXPECT_EQ(value->getBinding(), target.get());
    value->unbind(false);
    EXPECT_EQ(value->getBindPath(), Path("target"));
    value->rebind();
    EXPECT_EQ(value->get(), 3.0);
    value->unbind(true);
    EXPECT_TRUE(value->getBindPath().empty());
    value->rebind();
    EXPECT_EQ(value->getBinding(), nullptr);
}

TEST(ValueTest, WaitsWithThePathWhileRebindingIsOff) {
    const ref_ptr<Component> top(new Component("top"));
    const ref_ptr<Real> value = real("v");
    const ref_ptr<Real> target = real("target", 3);
    top->addObject(value.get());
    top->addObject(target.get());
    Object::setEnableRebind(false);
    value->bind(Path("target"));
    EXPECT_EQ(value->getBinding(), nullptr);
    Object::setEnableRebind(true);
    value->rebind();
    EXPECT_EQ(value->getBinding(), target.get());
}

TEST(ValueTest, RefusesToFollowItself) {
    const ref_ptr<Real> a = real("a", 1);
    const ref_ptr<Real> b = real("b");
    const ref_ptr<Real> c = real("c");
    b->bind(a.get());
    c->bind(b.get());
    EXPECT_EQ(whatOf([&] { a->bind(a.get()); }), "a: Can not be bound to 'a', which depends on it");
    EXPECT_EQ(whatOf([&] { a->bind(c.get()); }), "a: Can not be bound to 'c', which depends on it");
    EXPECT_EQ(whatOf([&] { b->bind(c.get()); }), "b: Can not be bound to 'c', which depends on it");
    EXPECT_EQ(c->getRootBinding(), a.get());
    EXPECT_EQ(c->get(), 1.0);
}

TEST(ValueTest, RefusesWhatCanNotBeConverted) {
    const ref_ptr<Real> root = real("root");
    const ref_ptr<Value> uuid(new Value("id", getType("Uuid")));
    EXPECT_EQ(whatOf([&] { uuid->bind(root.get()); }),
              "id: Can not convert from format 'Real:64bit' to format 'Uuid:default'");
    EXPECT_EQ(uuid->getBinding(), nullptr);
    EXPECT_EQ(whatOf([&] { uuid->set(root.get()); }),
              "id: Can not convert from format 'Real:64bit' to format 'Uuid:default'");
    const ref_ptr<Value> none(new Value("none", static_cast<const Format*>(nullptr)));
    uuid->bind(none.get());
    EXPECT_EQ(whatOf([&] { none->setFormat(root->getFormat()); }),
              "none: Can not take the format 'Real:64bit', which can not be converted to the format "
              "'Uuid:default' of 'id'");
    EXPECT_EQ(none->getFormat(), nullptr);
    EXPECT_NE(whatOf([&] { none->bind(root.get()); }), "no exception");
    EXPECT_EQ(none->getBinding(), nullptr);
}

// Events

TEST(ValueTest, TellsListenersOfUpdatesAndBindings) {
    const ref_ptr<Real> root = real("root");
    const ref_ptr<Real> other = real("other");
    const ref_ptr<Object> owner(new Object("owner"));
    Recorder recorder(owner.get());
    EXPECT_EQ(recorder.getObject(), owner.get());
    {
        const ref_ptr<Real> value = real("v");
        value->addListener(&recorder);
        value->addListener(&recorder);
        EXPECT_TRUE(value->hasListener(&recorder));
        value->bind(root.get());
        root->set(1);
        value->bind(other.get());
        value->bind(static_cast<Value*>(nullptr));
    }
    EXPECT_THAT(recorder.log,
                ElementsAre("update v",
                            "bind v root null",
                            "update v",
                            "update v",
                            "bind v other root",
                            "bind v null other",
                            "destroy v"));
}

TEST(ValueTest, TellsObjectListenersToo) {
    struct Listener : Object::EventListener {
        void destroyCallback(Object*) override { ++count; }
        int count = 0;
    } listener;
    {
        const ref_ptr<Real> value = real("v");
        value->addListener(&listener);
        EXPECT_TRUE(value->hasListener(&listener));
    }
    EXPECT_EQ(listener.count, 1);
}

TEST(ValueTest, EventsAreRecords) {
    const ref_ptr<Real> a = real("a");
    const ref_ptr<Real> b = real("b");
    const std::unique_ptr<Object::Event> event(new Value::BindEvent(a.get(), b.get(), nullptr));
    const auto* bind = dynamic_cast<const Value::BindEvent*>(event.get());
    ASSERT_NE(bind, nullptr);
    EXPECT_EQ(bind->getValue(), a.get());
    EXPECT_EQ(bind->getNewBinding(), b.get());
    EXPECT_EQ(bind->getOldBinding(), nullptr);
    EXPECT_EQ(Value::UpdateEvent(a.get()).getValue(), a.get());
    EXPECT_EQ(Value::DestroyEvent(b.get()).getValue(), b.get());
}

TEST(ValueTest, CallbacksMayRemoveThemselves) {
    const ref_ptr<Real> value = real("v");
    std::vector<int> calls;
    zel::uint64 first = 0;
    first = value->updateEvent.connect([&](Value*) {
        calls.push_back(1);
        value->updateEvent.disconnect(first);
    });
    value->updateEvent.connect([&](Value*) { calls.push_back(2); });
    value->set(1);
    value->set(2);
    EXPECT_THAT(calls, ElementsAre(1, 2, 2));
    EXPECT_EQ(value->updateEvent.size(), 1U);
}

TEST(ValueTest, DependentsMayComeDuringAnUpdate) {
    const ref_ptr<Real> root = real("root");
    const ref_ptr<Real> value = real("v");
    value->bind(root.get());
    std::vector<ref_ptr<Real>> added;
    value->updateEvent.connect([&](Value*) {
        added.push_back(real("new"));
        added.back()->bind(root.get());
    });
    for (int i = 1; i <= 20; ++i)
        root->set(i);
    EXPECT_EQ(added.size(), 20U);
    for (const auto& each : added)
        EXPECT_EQ(each->get(), 20.0);
}

TEST(ValueTest, DependentsMayGoDuringAnUpdate) {
    const ref_ptr<Real> root = real("root");
    std::vector<ref_ptr<Real>> values;
    std::vector<std::string> updated;
    for (const char* name : {"a", "b", "c", "d"}) {
        values.push_back(real(name));
        values.back()->bind(root.get());
        values.back()->updateEvent.connect([&](Value* value) { updated.push_back(value->getName().str()); });
    }
    values[1]->updateEvent.connect([&](Value*) {
        values[0]->unbind(true);
        values[1]->unbind(true);
        values[2]->unbind(true);
    });
    root->set(1);
    EXPECT_THAT(updated, ElementsAre("a", "b", "d"));
    EXPECT_EQ(values[3]->get(), 1.0);
}

TEST(ValueTest, ManyDependentsMayGoAndComeDuringAnUpdate) {
    const ref_ptr<Real> root = real("root");
    std::vector<ref_ptr<Real>> values;
    std::vector<size_t> updated;
    for (size_t i = 0; i < 20; ++i) {
        values.push_back(real("v"));
        values[i]->bind(root.get());
        values[i]->updateEvent.connect([&updated, i](Value*) { updated.push_back(i); });
    }
    for (size_t i = 1; i < 5; ++i)
        values[i]->unbind(true); // leaves empty places
    const zel::uint64 leaving = values[7]->updateEvent.connect([&](Value*) {
        for (const size_t i : {0U, 5U, 6U, 9U, 10U, 12U, 13U, 17U, 18U})
            values[i]->unbind(true);
        values[0]->bind(root.get()); // is told at once
    });
    root->set(1);
    EXPECT_THAT(updated, ElementsAre(0, 5, 6, 7, 0, 8, 11, 14, 15, 16, 19));
    EXPECT_THAT(root->getDependents(),
                ElementsAre(values[7].get(),
                            values[8].get(),
                            values[11].get(),
                            values[14].get(),
                            values[15].get(),
                            values[16].get(),
                            values[19].get(),
                            values[0].get()));
    values[7]->updateEvent.disconnect(leaving);
    updated.clear();
    root->set(2);
    EXPECT_THAT(updated, ElementsAre(7, 8, 11, 14, 15, 16, 19, 0));
    for (const ref_ptr<Real>& value : values)
        value->unbind(true);
    EXPECT_TRUE(root->getDependents().empty());
    EXPECT_TRUE(root->isUnobserved());
}

TEST(ValueTest, CallbacksMayDestroyEverything) {
    ref_ptr<Real> root = real("root");
    ref_ptr<Real> middle = real("middle");
    ref_ptr<Real> leaf = real("leaf");
    middle->bind(root.get());
    leaf->bind(middle.get());
    leaf->updateEvent.connect([&](Value* value) {
        value->unbind(true);
        middle = nullptr;
        root = nullptr;
        leaf = nullptr;
    });
    Real* const top = root.get();
    top->set(1);
    EXPECT_FALSE(root);
    EXPECT_FALSE(leaf);
}

TEST(ValueTest, AnUpdateMaySetTheValueAgain) {
    const ref_ptr<Real> root = real("root");
    const ref_ptr<Real> value = real("v");
    value->bind(root.get());
    std::vector<double> seen;
    value->updateEvent.connect([&](Value*) {
        seen.push_back(value->get());
        if (root->get() < 3)
            root->set(root->get() + 1);
    });
    root->set(1);
    EXPECT_THAT(seen, ElementsAre(1.0, 2.0, 3.0));
}

TEST(ValueTest, ThoseThatCameToListenLateAreHeard) {
    const ref_ptr<Real> root = real("root");
    const ref_ptr<Real> middle = real("middle");
    const ref_ptr<Real> leaf = real("leaf");
    leaf->bind(middle.get());
    middle->bind(root.get());
    root->set(1);
    Recorder recorder;
    leaf->addListener(&recorder);
    root->set(2);
    leaf->removeListener(&recorder);
    root->set(3);
    EXPECT_THAT(recorder.log, ElementsAre("update leaf"));
    int calls = 0;
    leaf->updateEvent.connect([&](Value*) { ++calls; }, true);
    root->set(4);
    root->set(5);
    EXPECT_EQ(calls, 1);
    const auto id = leaf->updateEvent.connect([&](Value*) { ++calls; });
    root->set(6);
    leaf->updateEvent.find(id)->active = false;
    root->set(7);
    EXPECT_EQ(calls, 2);
    EXPECT_TRUE(leaf->updateEvent.empty());
    const ref_ptr<Value> narrow(new Value("n", getFormat("Real:32bit")));
    narrow->bind(leaf.get());
    root->set(8);
    EXPECT_EQ(*static_cast<float*>(narrow->getData()), 8.0F);
}

TEST(ValueTest, AnExceptionLeavesUpdatesUsable) {
    const ref_ptr<Real> root = real("root");
    const ref_ptr<Real> value = real("v");
    value->bind(root.get());
    bool fail = true;
    int updates = 0;
    value->updateEvent.connect([&](Value*) {
        ++updates;
        if (fail)
            throw std::runtime_error("refused");
    });
    EXPECT_EQ(whatOf([&] { root->set(1); }), "refused");
    fail = false;
    root->set(2);
    EXPECT_EQ(updates, 2);
    value->unbind(true);
    root->set(3);
    EXPECT_EQ(updates, 2);
}

TEST(ValueTest, CallbacksAndListenersAreToldWhereOneOfThemThrows) {
    struct Listener : Value::EventListener {
        void updateCallback(Value*) override {
            ++calls;
            throw std::runtime_error("listener");
        }
        int calls = 0;
    };
    const ref_ptr<Real> value = real("v");
    Listener first;
    Listener second;
    value->addListener(&first);
    value->addListener(&second);
    int updates = 0;
    value->updateEvent.connect([](Value*) { throw std::runtime_error("callback"); });
    value->updateEvent.connect([&](Value*) { ++updates; });
    EXPECT_EQ(whatOf([&] { value->set(1); }), "callback");
    EXPECT_EQ(updates, 1);
    EXPECT_EQ(first.calls + second.calls, 2);
    value->removeListener(&first);
    value->removeListener(&second);
}

TEST(ValueTest, DependentsFollowWhereACallbackOfAnotherThrows) {
    const ref_ptr<Real> root = real("root");
    const ref_ptr<Real> first = real("first");
    const ref_ptr<Real> second = real("second");
    const ref_ptr<Value> narrow(new Value("n", getFormat("Real:32bit")));
    first->bind(root.get());
    second->bind(first.get());
    narrow->bind(root.get());
    std::string updates;
    root->updateEvent.connect([](Value*) { throw std::runtime_error("root"); });
    first->updateEvent.connect([](Value*) { throw std::runtime_error("first"); });
    second->updateEvent.connect([&](Value*) { updates += 's'; });
    narrow->updateEvent.connect([&](Value*) { updates += 'n'; });
    EXPECT_EQ(whatOf([&] { root->set(8); }), "root");
    EXPECT_EQ(updates, "sn");
    EXPECT_EQ(*static_cast<float*>(narrow->getData()), 8.0F);
}

TEST(ValueTest, UpdateTellsOfAChangeInPlace) {
    const ref_ptr<Real> root = real("root");
    const ref_ptr<Value> narrow(new Value("n", getFormat("Real:32bit")));
    narrow->bind(root.get());
    *static_cast<double*>(root->getData()) = 2;
    root->update();
    EXPECT_EQ(*static_cast<float*>(narrow->getData()), 2.0F);
}

// Removal

TEST(ValueTest, ForcedRemovalStopsTheUpdate) {
    const ref_ptr<Component> top(new Component("top"));
    ref_ptr<Real> root = real("root");
    top->addObject(root.get());
    std::vector<ref_ptr<Real>> values;
    std::vector<std::string> updated;
    for (const char* name : {"a", "b", "c"}) {
        values.push_back(real(name));
        values.back()->bind(root.get());
        values.back()->updateEvent.connect([&](Value* value) { updated.push_back(value->getName().str()); });
    }
    values[1]->updateEvent.connect([&](Value*) { root->forceRemove(); });
    root->set(1);
    EXPECT_THAT(updated, ElementsAre("a", "b"));
    EXPECT_EQ(top->getNumObjects(), 0U);
    EXPECT_TRUE(root->getDependents().empty());
    EXPECT_EQ(root->get(), 1.0); // a detached object
    EXPECT_EQ(values[2]->getBinding(), nullptr);
    EXPECT_EQ(values[2]->get(), 0.0);
    root->set(2);
    EXPECT_EQ(updated.size(), 2U);
}

TEST(ValueTest, ForcedRemovalFromTheOwnCallbackMayEndTheValue) {
    const ref_ptr<Component> top(new Component("top"));
    Real* root = new Real("root");
    top->addObject(root);
    const ref_ptr<Real> value = real("v");
    value->bind(root);
    root->updateEvent.connect([](Value* self) { self->forceRemove(); });
    root->set(1);
    EXPECT_EQ(top->getNumObjects(), 0U);
    EXPECT_EQ(value->getBinding(), nullptr);
}

TEST(ValueTest, MembersLeaveBeforeTheirOwnersMemory) {
    const ref_ptr<Real> follower = real("f");
    const ref_ptr<Real> root = real("root", 3);
    const ref_ptr<Component> top(new Component("top"));
    {
        const Val<double> member("m", 2);
        auto& value = const_cast<Val<double>&>(member);
        top->addObject(&value);
        follower->bind(&value);
        EXPECT_EQ(follower->get(), 2.0);
        value.bind(root.get());
        EXPECT_EQ(follower->get(), 3.0);
    }
    EXPECT_EQ(top->getNumObjects(), 0U);
    EXPECT_TRUE(root->getDependents().empty());
    EXPECT_EQ(follower->getBinding(), nullptr);
    EXPECT_EQ(follower->get(), 0.0);
}

TEST(ValueTest, MembersOfAComponentMayBeItsChildren) {
    struct Owner : Component {
        Owner() : Component("owner") { addObject(&member); }
        Val<zel::int64> member{"m", 5};
    };
    const ref_ptr<Owner> owner(new Owner);
    owner->removeObject(&owner->member);
    EXPECT_EQ(owner->member.get(), 5);
    owner->addObject(&owner->member);
    EXPECT_EQ(owner->findObject("m"), &owner->member);
}

TEST(ValueTest, AllowsADefaultValueToBeInvalidated) {
    const ref_ptr<Real> value = real("v", 2);
    value->forceInvalidateDefaultFormatValue();
    EXPECT_EQ(value->getFormat(), nullptr);
    EXPECT_EQ(value->getData(), nullptr);
}

// Text

TEST(ValueTest, ShowsItsContentAsText) {
    const ref_ptr<Real> value = real("v", 0.5);
    EXPECT_EQ(value->toString(), "0.5");
    std::ostringstream stream;
    stream << *value;
    EXPECT_EQ(stream.str(), "0.5");
    const LogCapture log;
    value->print();
    EXPECT_THAT(log.text(), HasSubstr("v: 0.5"));
}

TEST(ValueTest, SaysThatATypeHasNoText) {
    const ref_ptr<Value> mutex(new Value("m", getType("SpinMutex")));
    const LogCapture log(zel::Notify::Warning);
    EXPECT_EQ(mutex->toString(), "");
    EXPECT_THAT(log.text(), HasSubstr("No ascii format for type 'SpinMutex'"));
    std::ostringstream stream;
    stream << *mutex;
    EXPECT_EQ(stream.str(), "'m': No ascii format'");
}

TEST(ValueTest, ShowsItselfInADumpOfTheTree) {
    const ref_ptr<Component> top(new Component("top"));
    const ref_ptr<Real> a = real("a", 0.5);
    const ref_ptr<Real> b = real("b");
    const ref_ptr<Value> c(new Value("c", getFormat("Real:32bit")));
    for (Value* value : {static_cast<Value*>(a.get()), static_cast<Value*>(b.get()), c.get()})
        top->addObject(value);
    top->addObject(new Value("d", getType("SpinMutex")));
    top->addObject(new Value("e", static_cast<const Format*>(nullptr)));
    b->bind(a.get());
    c->bind(b.get());
    std::ostringstream stream;
    top->printSubtree(stream, 0);
    EXPECT_EQ(stream.str(),
              "|-top\n"
              "| |-a type=Real:64bit, value=0.5\n"
              "| |-b type=Real:64bit, binding=top.a, value=0.5\n"
              "| |-c type=Real:32bit, binding=top.b -> top.a, value=0.5\n"
              "| |-d type=SpinMutex:default, value=<no Ascii transformer for type SpinMutex:default> \n"
              "| |-e type=\n");
}

TEST(ValueTest, AnElementFromBeforeTheBindingHasAFormatStays) {
    const auto untyped = [] { return ref_ptr<Value>(new Value(static_cast<const Format*>(nullptr))); };
    const auto follower = [](const ref_ptr<Value>& binding, const char* text) {
        ref_ptr<Value> value(new Value(static_cast<const Format*>(nullptr)));
        value->bind(binding.get());
        value->setFormat(getFormat("String"));
        *static_cast<zel::String*>(value->getData()) = text;
        return value;
    };
    const zel::String longText("a text that is too long to lie within the element itself");
    ref_ptr<Value> binding = untyped();
    const ref_ptr<Value> unbound = follower(binding, longText.c_str());
    const ref_ptr<Value> dropped = follower(binding, longText.c_str());
    unbound->unbind(true);
    EXPECT_EQ(unbound->toString(), longText);
    binding->forceRemove();
    EXPECT_EQ(dropped->toString(), longText);
    // Once the binding has the same format, there is one element.
    binding = untyped();
    const ref_ptr<Value> sharing = follower(binding, longText.c_str());
    binding->setFormat(getFormat("String"));
    EXPECT_EQ(sharing->getData(), binding->getData());
    sharing->unbind(true);
    EXPECT_EQ(sharing->toString(), "");
    // And two with another.
    binding = untyped();
    const ref_ptr<Value> converting = follower(binding, longText.c_str());
    binding->setFormat(getFormat("Name"));
    EXPECT_NE(converting->getData(), binding->getData());
    binding->setExpression("12");
    EXPECT_EQ(converting->toString(), "12");
}

TEST(ValueTest, DescribesItselfForTheNavigationTree) {
    const ref_ptr<Real> root = real("root", 0.5);
    const ref_ptr<Real> value = real("v");
    value->bind(root.get());
    Json::Value json;
    value->buildNavigationTree(json);
    EXPECT_EQ(json["name"].asString(), "v");
    EXPECT_EQ(json["type"].asString(), "Real:64bit");
    EXPECT_EQ(json["value"].asString(), "0.5");
    EXPECT_EQ(json["binding"].asString(), "root");
    EXPECT_EQ(json["model"].asString(), Value::ClassModel()->fullName());
}

// Misuse

TEST(ValueDeathTest, TypedValuesHaveTheElementOfTheirFormat) {
    EXPECT_DEATH(ValueT<int>("v"), "v: The format 'Int:64bit' does not have elements of class 'i'");
}

TEST(ValueDeathTest, AFormatIsForLife) {
    const ref_ptr<Component> top(new Component("top"));
    const ref_ptr<Real> value = real("v");
    top->addObject(value.get());
    EXPECT_DEATH(value->setFormat(getFormat("Real:32bit")),
                 "zelVerify failed: `.*', top\\.v: TODO Allow switching format\\?");
}

TEST(ValueDeathTest, AValueWithoutAFormatCanNotBeSet) {
    const ref_ptr<Value> value(new Value("v", static_cast<const Format*>(nullptr)));
    const double content = 0;
    EXPECT_DEATH(value->set(static_cast<const void*>(&content)),
                 "v: A value without a format can not be set");
    EXPECT_DEATH(value->setDefaultValue(), "v: A value without a format has no default");
    EXPECT_DEATH(real("r")->Value::set(value.get()), "r: Can not be set from 'v', which has no content");
}

TEST(ValueDeathTest, ReadingNeedsContent) {
    const ref_ptr<Real> value = real("v");
    const ref_ptr<Value> none(new Value("n", static_cast<const Format*>(nullptr)));
    value->bind(none.get());
    EXPECT_DEATH(static_cast<void>(value->get()), "v: The value has no content");
}

TEST(ValueTest, ListenersHearOfABindingWhereACallbackThrows) {
    const ref_ptr<Value> source(new Value("source", getFormat("Real:64bit")));
    const ref_ptr<Value> value(new Value("v", getFormat("Real:64bit")));
    Recorder recorder;
    value->addListener(&recorder);
    value->updateEvent.connect([](Value*) { throw std::runtime_error("callback"); });
    EXPECT_EQ(zelTest::whatOf([&] { value->bind(source.get()); }), "callback");
    EXPECT_EQ(value->getBinding(), source.get());
    EXPECT_EQ(recorder.log, (std::vector<std::string>{"update v", "bind v source null"}));
    value->removeListener(&recorder);
}
