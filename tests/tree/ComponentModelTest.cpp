// A tree that its own callbacks change, against a plain model of it: events and rebinds add, remove, rename
// and let go of whatever they like, and throw.
#include "support/Soak.h"

#include <zel/Component.h>
#include <zel/Notify.h>
#include <zel/ref_ptr.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

using zel::Component;
using zel::Name;
using zel::Object;
using zel::ref_ptr;

namespace {

constexpr size_t Nowhere = ~size_t{0};

class Driver;

/// What a callback throws.
struct Thrown : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class Leaf : public Object {
public:
    Leaf(const Name& name, Driver& driver, size_t id) : Object(name), m_driver(driver), m_id(id) {}
    ~Leaf() override;
    void rebind() override;

private:
    Driver& m_driver;
    size_t m_id;
};

class Branch : public Component {
public:
    Branch(const Name& name, Driver& driver, size_t id);
    ~Branch() override;
    void rebind() override;

private:
    Driver& m_driver;
    size_t m_id;
};

class Driver {
public:
    explicit Driver(unsigned seed) : m_random(seed) {
        // Components that die amid what callbacks throw warn of it.
        zel::Notify::instance()->setNotifyLevel(zel::Notify::Error);
        m_top = add(true);
        m_kept[m_top] = m_nodes[m_top].object;
    }
    ~Driver() {
        // From the leaves of the model's trees up, whatever is still kept.
        m_budget = 0;
        const auto kept = std::move(m_kept);
        m_kept.clear();
    }
    Driver(const Driver&) = delete;
    Driver& operator=(const Driver&) = delete;

    void run(size_t numOperations, size_t checkEvery) {
        for (size_t i = 0; i < numOperations && !testing::Test::HasFailure(); ++i) {
            m_budget = chance(50) ? 0 : below(8);
            try {
                act();
            } catch (const Thrown&) {
                // What has been done stands.
            }
            letGoOfMany();
            if (i % checkEvery == 0)
                check();
        }
        check();
    }

    /// A callback: does something else, and may throw.
    void callback() {
        if (m_budget == 0 || !chance(60))
            return;
        --m_budget;
        act();
        if (chance(15))
            throw Thrown("thrown by a callback");
    }

    void dies(size_t id) {
        Node& node = m_nodes[id];
        EXPECT_EQ(node.parent, Nowhere) << "a child was destroyed";
        EXPECT_EQ(m_kept.count(id), 0U) << "an object was destroyed that is kept";
        node.isDying = true;
        node.going = node.children;
    }

    /// Of the component, which may be dying.
    void hasLost(size_t id, Component* component, Object* object) {
        const size_t child = idOf(object);
        Node& node = m_nodes[child];
        if (node.leaving == id) {
            node.leaving = Nowhere; // as this driver has asked for
        } else {
            // One of a component that lets all go, which does so from the back.
            ASSERT_EQ(node.parent, id);
            std::vector<size_t>& going = m_nodes[id].going;
            while (!going.empty() && m_nodes[going.back()].parent != id)
                going.pop_back();
            ASSERT_FALSE(going.empty());
            EXPECT_EQ(going.back(), child);
            going.pop_back();
            unlink(child);
        }
        if (m_nodes[id].isDying) {
            if (m_budget != 0 && chance(20))
                addTo(component);
            return;
        }
        callback();
    }

    void hasGot(size_t id, Object* object) {
        if (m_nodes[id].isDying)
            return; // that of addTo
        EXPECT_EQ(m_nodes[idOf(object)].parent, id);
        callback();
    }

private:
    struct Node {
        Object* object = nullptr;
        Component* component = nullptr; // the same, if it is one
        std::string name;
        size_t parent = Nowhere;
        bool isAssigned = false;
        bool isDying = false;
        size_t leaving = Nowhere;  // the parent that it is being removed from
        size_t stamp = 0;          // of its entry under its name
        size_t entered = 0;        // of its entry into the parent
        bool isSwept = false;      // whether all children are being removed
        std::vector<size_t> going; // those whose turn has not come
        std::vector<size_t> children;
    };

    [[nodiscard]] size_t below(size_t n) { return m_random() % n; }
    [[nodiscard]] bool chance(unsigned percent) { return m_random() % 100 < percent; }
    [[nodiscard]] std::string someName() {
        return below(8) == 0 ? "" : std::string(1, static_cast<char>('a' + below(4)));
    }
    [[nodiscard]] size_t idOf(const Object* object) const {
        for (size_t id : m_alive)
            if (m_nodes[id].object == object && !m_nodes[id].isDying) // its address may have been given anew
                return id;
        ADD_FAILURE() << "an event about an object that is gone";
        return m_top;
    }

    /// Makes an object without owner.
    size_t add(bool isBranch) {
        const size_t id = m_nodes.size();
        Node node;
        node.name = someName();
        if (isBranch)
            node.object = node.component = new Branch(node.name, *this, id);
        else
            node.object = new Leaf(node.name, *this, id);
        m_nodes.push_back(node);
        m_alive.push_back(id);
        return id;
    }

    void forgetTheDead() {
        m_alive.erase(
            std::remove_if(m_alive.begin(), m_alive.end(), [this](size_t id) { return m_nodes[id].isDying; }),
            m_alive.end());
    }

    template <typename Fits>
    [[nodiscard]] size_t some(Fits&& fits) {
        forgetTheDead();
        for (int i = 0; i < 8; ++i) {
            const size_t id = m_alive[below(m_alive.size())];
            if (fits(m_nodes[id]))
                return id;
        }
        return Nowhere;
    }
    [[nodiscard]] size_t someBranch() {
        const size_t id = some([](const Node& node) { return node.component != nullptr; });
        return id == Nowhere ? m_top : id;
    }

    /// Whether the object is the other one, or lies below it by its owners or its contexts: one that is just
    /// leaving still has its context.
    [[nodiscard]] bool isWithin(size_t id, size_t above) const {
        const bool hasContext = m_nodes[id].object->hasParent(m_nodes[above].object);
        while (id != Nowhere && id != above)
            id = m_nodes[id].parent;
        return hasContext || id == above;
    }

    void unlink(size_t id) {
        auto& children = m_nodes[m_nodes[id].parent].children;
        children.erase(std::find(children.begin(), children.end(), id));
        m_nodes[id].parent = Nowhere;
    }

    void act() {
        switch (below(12)) {
        case 0:
        case 1:
        case 2:
        case 3:
            return enter(add(chance(40)), someBranch());
        case 4:
        case 5:
            // Also one that is just being removed, or added.
            return enter(some([](const Node& node) { return node.parent == Nowhere; }), someBranch());
        case 6:
        case 7:
            return leave(some([](const Node& node) { return node.parent != Nowhere; }));
        case 8:
            return rename(some([](const Node& node) { return node.object->getContext() == nullptr; }));
        case 9:
            return keepOrLetGo();
        case 10:
            return chance(30) ? sweep(someBranch()) : m_nodes[someBranch()].component->rebind();
        default:
            return visit();
        }
    }

    void enter(size_t id, size_t into) {
        if (id == Nowhere || m_nodes[id].leaving == into)
            return;
        if (isWithin(into, id) || m_nodes[id].parent != Nowhere || id == m_top) {
            if (m_nodes[id].parent == Nowhere)
                m_kept.emplace(id, m_nodes[id].object);
            return;
        }
        const bool isAssigned = chance(80);
        if (chance(30))
            m_kept.emplace(id, m_nodes[id].object);
        m_nodes[id].parent = into;
        m_nodes[id].isAssigned = isAssigned;
        m_nodes[id].stamp = m_nodes[id].entered = ++m_stamp;
        m_nodes[into].children.push_back(id);
        m_nodes[into].component->addObject(m_nodes[id].object, isAssigned);
    }

    void leave(size_t id) {
        if (id == Nowhere || m_nodes[id].leaving != Nowhere)
            return;
        const size_t from = m_nodes[id].parent;
        unlink(id);
        m_nodes[id].leaving = from;
        EXPECT_TRUE(m_nodes[from].component->removeObject(m_nodes[id].object));
    }

    void rename(size_t id) {
        if (id == Nowhere)
            return;
        m_nodes[id].name = someName();
        m_nodes[id].stamp = ++m_stamp;
        m_nodes[id].object->setName(m_nodes[id].name);
    }

    void keepOrLetGo() {
        const size_t id = some([](const Node&) { return true; });
        if (id == Nowhere || id == m_top)
            return;
        const auto kept = m_kept.find(id);
        if (kept == m_kept.end()) {
            m_kept.emplace(id, m_nodes[id].object);
            return;
        }
        letGo(id);
    }

    void letGo(size_t id) {
        const ref_ptr<Object> last = m_kept.at(id);
        m_kept.erase(id);
    }

    void sweep(size_t id) {
        if (m_nodes[id].isSwept)
            return;
        const std::vector<size_t> before = m_nodes[id].children;
        const size_t stamp = ++m_stamp;
        m_nodes[id].going = before;
        m_nodes[id].isSwept = true;
        try {
            m_nodes[id].component->removeAllObjects();
        } catch (const Thrown&) {
            // They have left all the same.
        }
        m_nodes[id].isSwept = false;
        for (size_t child : before)
            EXPECT_TRUE(m_nodes[child].parent != id || m_nodes[child].entered > stamp);
    }

    void visit() {
        const size_t id = someBranch();
        m_nodes[id].component->traverse([this](Object*) { callback(); });
    }

    /// An object enters a component that is being destroyed.
    static void addTo(Component* component) {
        const ref_ptr<Object> late(new Object("late"));
        component->addObject(late.get());
        EXPECT_EQ(late->getContext(), component);
    }

    /// Keeps the tree small.
    void letGoOfMany() {
        m_budget = 0;
        if (m_alive.size() < 60)
            return;
        forgetTheDead();
        while (m_kept.size() > 3)
            letGo(std::prev(m_kept.end())->first);
        sweep(m_top);
    }

    void check() {
        for (size_t id : m_alive)
            EXPECT_TRUE(!m_nodes[id].isDying || m_nodes[id].children.empty());
        forgetTheDead();
        for (size_t id : m_alive) {
            const Node& node = m_nodes[id];
            EXPECT_TRUE(node.parent != Nowhere || m_kept.count(id) != 0)
                << "nobody owns an object that lives";
            EXPECT_EQ(node.object->getName(), Name(node.name));
            EXPECT_EQ(node.object->referenceCount(),
                      (node.parent != Nowhere ? 1 : 0) + static_cast<int>(m_kept.count(id)));
            const Object* parent = node.parent == Nowhere ? nullptr : m_nodes[node.parent].component;
            if (node.isAssigned || parent == nullptr)
                EXPECT_EQ(node.object->getContext(), parent);
            else
                EXPECT_TRUE(node.object->getContext() == nullptr || node.object->getContext() == parent);
            if (node.component != nullptr)
                checkChildren(node);
        }
    }

    void checkChildren(const Node& node) {
        ASSERT_EQ(node.component->getNumObjects(), node.children.size());
        std::map<std::string, std::map<size_t, Object*>> chains;
        for (size_t i = 0; i < node.children.size(); ++i) {
            const Node& child = m_nodes[node.children[i]];
            EXPECT_EQ(node.component->getObject(i), child.object);
            chains[child.name][child.stamp] = child.object;
        }
        for (const auto& [name, chain] : chains) {
            EXPECT_EQ(node.component->getNumObjects(name), chain.size());
            size_t index = 0;
            for (const auto& [stamp, object] : chain)
                EXPECT_EQ(node.component->findObject(name, nullptr, index++), object);
        }
        EXPECT_EQ(node.component->findObject("late"), nullptr);
    }

    std::mt19937 m_random;
    std::vector<Node> m_nodes;
    std::vector<size_t> m_alive;
    std::map<size_t, ref_ptr<Object>> m_kept;
    size_t m_top = 0;
    size_t m_stamp = 0;
    size_t m_budget = 0; // how many callbacks may still act
};

Leaf::~Leaf() {
    m_driver.dies(m_id);
}

void Leaf::rebind() {
    m_driver.callback();
}

Branch::Branch(const Name& name, Driver& driver, size_t id) : Component(name), m_driver(driver), m_id(id) {
    addObjectEvent.connect([&driver, id, this](Component* parent, Object* object) {
        if (parent == this)
            driver.hasGot(id, object);
        else
            driver.callback();
    });
    removeObjectEvent.connect([&driver, id, this](Component* parent, Object* object) {
        if (parent == this)
            driver.hasLost(id, this, object);
        else
            driver.callback();
    });
}

Branch::~Branch() {
    m_driver.dies(m_id);
}

void Branch::rebind() {
    const ref_ptr<Object> self(this); // which the callback may destroy
    m_driver.callback();
    Component::rebind();
}

} // namespace

TEST(ComponentModelTest, IsWhatThePlainModelIs) {
    const unsigned seed = zelTest::stressSeed();
    for (unsigned round = 0; round < 100 && !HasFailure(); ++round)
        Driver(seed + round).run(4'000 / zelTest::StressDivisor, 10);
}

TEST(ComponentSoakTest, DISABLED_IsWhatThePlainModelIs) {
    zelTest::soak([](unsigned seed) { Driver(seed).run(4'000, 10); });
}
