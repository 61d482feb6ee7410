// The order of many children that come and go, and which of them a component calls when its children change.
#include "support/Stress.h"

#include <zel/Component.h>
#include <zel/ref_ptr.h>
#include <zelData/ValueT.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;
using zel::Component;
using zel::Object;
using zel::ref_ptr;

namespace {

std::vector<Object*> childrenOf(const Component& component) {
    zel::Vector<Object*> objects;
    component.getObjects(objects);
    return {objects.begin(), objects.end()};
}

/// What the model of the children is held against, in every way in which they can be seen.
void expectChildren(const Component& component, const std::vector<Object*>& expected) {
    ASSERT_EQ(component.getNumObjects(), expected.size());
    ASSERT_EQ(childrenOf(component), expected);
    for (size_t i = 0; i < expected.size(); ++i)
        ASSERT_EQ(component.getObject(i), expected[i]) << i;
}

/// Notes each of its rebinds.
class Noting : public Object {
public:
    Noting(const zel::Name& name, std::vector<Object*>& calls) : Object(name), m_calls(calls) {}
    void rebind() override {
        m_calls.push_back(this);
        if (action)
            std::exchange(action, nullptr)();
    }
    std::function<void()> action;

private:
    std::vector<Object*>& m_calls;
};

/// The same of a class that says when it has something to do.
class OnDemand : public Noting {
public:
    OnDemand(const zel::Name& name, std::vector<Object*>& calls) : Noting(name, calls) {
        rebindsOnDemand(typeid(OnDemand));
    }
    void demand() { demandRebind(); }
};

class Overriding : public OnDemand {
    using OnDemand::OnDemand;
};

struct ComponentOrderTest : testing::Test {
    std::vector<Object*> calls; // also of the end of the component
    ref_ptr<Component> top{new Component("top")};
};
using ComponentDemandTest = ComponentOrderTest;

} // namespace

TEST_F(ComponentOrderTest, StaysThatOfInsertionHoweverManyLeave) {
    const unsigned seed = zelTest::stressSeed();
    std::mt19937 random(seed);
    std::vector<Object*> expected;
    for (int round = 0; round < 60 / static_cast<int>(zelTest::StressDivisor) + 2 && !HasFatalFailure();
         ++round) {
        // More and more come or go in a row, at the back, at the front, or anywhere.
        const bool grows = expected.empty() || random() % 2 == 0;
        const size_t place = random() % 3;
        for (size_t n = random() % 700; n-- > 0;) {
            if (grows) {
                expected.push_back(new Object(random() % 2 == 0 ? "a" : ""));
                top->addObject(expected.back());
            } else if (!expected.empty()) {
                const size_t index = place == 0   ? 0
                                     : place == 1 ? expected.size() - 1
                                                  : random() % expected.size();
                ASSERT_EQ(top->getObject(index), expected[index]);
                ASSERT_TRUE(top->removeObject(expected[index]));
                expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(index));
            }
            if (!expected.empty()) {
                const size_t index = random() % expected.size();
                ASSERT_EQ(top->getObject(index), expected[index]);
            }
        }
        expectChildren(*top, expected);
    }
}

TEST_F(ComponentOrderTest, HasTheFirstOfANameAheadOfTheOthersAfterManyHaveLeft) {
    std::vector<Object*> expected;
    for (int i = 0; i < 1000; ++i)
        top->addObject(new Object("o"));
    for (int i = 0; i < 990; ++i)
        top->removeObject("o", 3);
    EXPECT_EQ(top->getNumObjects("o"), 10U);
    for (size_t i = 0; i < 10; ++i)
        EXPECT_EQ(top->findObject("o", nullptr, i), top->getObject(i));
}

TEST_F(ComponentOrderTest, IsKeptWhileAPassOfRebindsTakesMostOut) {
    std::vector<Object*> expected;
    for (int i = 0; i < 200; ++i)
        top->addObject(new Noting("o", calls));
    expected = childrenOf(*top);
    auto* first = dynamic_cast<Noting*>(expected[0]);
    auto* hundredth = dynamic_cast<Noting*>(expected[100]);
    // Those ahead of the one that is called, and those behind it.
    hundredth->action = [&] {
        for (size_t i = 0; i < 190; ++i)
            if (i != 100)
                top->removeObject(expected[i]);
    };
    first->action = [&] { calls.clear(); };
    top->rebind();
    std::vector<Object*> left{expected[100]};
    left.insert(left.end(), expected.begin() + 190, expected.end());
    expectChildren(*top, left);
    top->addObject(new Object("p"));
    left.push_back(top->findObject("p"));
    top->removeObject(left[1]);
    left.erase(left.begin() + 1);
    expectChildren(*top, left);
}

TEST_F(ComponentDemandTest, EachObjectOfAnUnknownClassIsCalledInTheOrderOfTheChildren) {
    auto* a = new Noting("a", calls);
    auto* b = new Overriding("b", calls);
    top->addObject(a);
    top->addObject(new Object("quiet"));
    top->addObject(b);
    calls.clear();
    top->addObject(new Object("c"));
    EXPECT_THAT(calls, ElementsAre(a, b));
}

TEST_F(ComponentDemandTest, ObjectThatDemandsNothingIsCalledAsItEntersAndLeavesAlone) {
    const ref_ptr<OnDemand> object(new OnDemand("a", calls));
    top->addObject(object.get());
    EXPECT_THAT(calls, ElementsAre(object.get()));
    calls.clear();
    top->addObject(new Object("b"));
    top->rebind();
    EXPECT_THAT(calls, IsEmpty());
    top->removeObject(object.get());
    EXPECT_THAT(calls, ElementsAre(object.get()));
}

TEST_F(ComponentDemandTest, DemandReachesTheComponentsAbove) {
    auto* inner = new Component("inner");
    auto* object = new OnDemand("a", calls);
    top->addObject(inner);
    inner->addObject(object);
    calls.clear();
    top->rebind();
    EXPECT_THAT(calls, IsEmpty());
    object->demand();
    top->rebind();
    EXPECT_THAT(calls, ElementsAre(object));
    // Also with a subtree that enters as a whole, and after the demand has left and come back.
    const ref_ptr<Component> other(new Component("other"));
    const ref_ptr<Component> kept(inner);
    top->removeObject(inner);
    const ref_ptr<Object> keptObject(object);
    inner->removeObject(object);
    other->addObject(inner);
    calls.clear();
    other->rebind();
    EXPECT_THAT(calls, IsEmpty());
    inner->addObject(object);
    calls.clear();
    other->rebind();
    EXPECT_THAT(calls, ElementsAre(object));
}

TEST_F(ComponentDemandTest, PassCallsWhatDemandsInTheOrderOfTheChildrenWheneverTheDemandCame) {
    const unsigned seed = zelTest::stressSeed();
    std::mt19937 random(seed);
    struct Entry {
        Noting* object;
        bool demands;
    };
    std::vector<Entry> expected;
    for (int i = 0; i < 6000 / static_cast<int>(zelTest::StressDivisor) && !HasFailure(); ++i) {
        const size_t index = expected.empty() ? 0 : random() % expected.size();
        switch (random() % (expected.size() > 100 ? 10 : 7)) {
        case 0:
        case 1:
            expected.push_back({new OnDemand("o", calls), false});
            top->addObject(expected.back().object);
            break;
        case 2:
            expected.push_back({new Noting("n", calls), true});
            top->addObject(expected.back().object);
            break;
        case 3:
            if (auto* object = expected.empty() ? nullptr : dynamic_cast<OnDemand*>(expected[index].object)) {
                object->demand();
                expected[index].demands = true;
            }
            break;
        case 4:
        case 7:
        case 8:
        case 9:
            if (expected.empty())
                break;
            top->removeObject(expected[index].object);
            expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(index));
            break;
        default:
            break;
        }
        std::vector<Object*> called;
        for (const Entry& entry : expected)
            if (entry.demands)
                called.push_back(entry.object);
        calls.clear();
        top->rebind();
        ASSERT_EQ(calls, called) << "step " << i << ", seed " << seed;
    }
}

TEST_F(ComponentDemandTest, ObjectThatDemandsWhileAPassIsUnderWayIsCalledInIt) {
    auto* a = new Noting("a", calls);
    auto* b = new OnDemand("b", calls);
    auto* c = new Noting("c", calls);
    for (Object* object : {static_cast<Object*>(a), static_cast<Object*>(b), static_cast<Object*>(c)})
        top->addObject(object);
    calls.clear();
    a->action = [&] { b->demand(); };
    top->rebind();
    EXPECT_THAT(calls, ElementsAre(a, b, c));
}

TEST_F(ComponentDemandTest, ValueThatIsBoundToAPathLaterFindsWhatComesAfterIt) {
    auto* inner = new Component("inner");
    const ref_ptr<zelData::ValueT<double>> value(new zelData::ValueT<double>("v", 1));
    const ref_ptr<zelData::ValueT<double>> target(new zelData::ValueT<double>("target", 2));
    top->addObject(inner);
    inner->addObject(value.get());
    value->bind(zel::Path("target"));
    EXPECT_EQ(value->getBinding(), nullptr);
    top->addObject(target.get());
    EXPECT_EQ(value->getBinding(), target.get());
}
