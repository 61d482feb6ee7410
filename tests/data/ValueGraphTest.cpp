#include "support/Soak.h"

#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

// Random bindings of values in several formats, with changes from within callbacks, beside a plain recursive
// model of the same rules.

using zel::ref_ptr;
using zelData::Value;

namespace {

constexpr std::array<const char*, 3> Formats{"Real:64bit", "Real:32bit", "Int:32bit"};
constexpr size_t NumValues = 10;

/// What a value should be: its element is a cell, which those of one format share along a binding.
struct Expected {
    size_t format = 0;
    Expected* binding = nullptr;
    size_t bindSerial = 0;
    std::vector<Expected*> dependents;
    std::shared_ptr<int> cell = std::make_shared<int>(0);
    int updates = 0;
    bool heard = true; // whether somebody counts the updates
    bool aborted = false;
    std::function<void()> callback; // once
};

class Model {
public:
    std::array<Expected, NumValues> values;

    static bool follows(const Expected* value, const Expected* other) {
        for (; value != nullptr; value = value->binding)
            if (value == other)
                return true;
        return false;
    }

    void set(Expected& value, int content) {
        unbind(value);
        *value.cell = content;
        propagate(value);
    }

    void unbind(Expected& value) {
        if (value.binding == nullptr)
            return;
        Expected* binding = std::exchange(value.binding, nullptr);
        binding->dependents.erase(std::find(binding->dependents.begin(), binding->dependents.end(), &value));
        if (binding->format == value.format)
            setCell(value, std::make_shared<int>(0));
    }

    void bind(Expected& value, Expected& other) {
        if (value.binding == &other)
            return;
        unbind(value);
        if (value.format == other.format)
            setCell(value, other.cell);
        else
            *value.cell = *other.cell;
        value.binding = &other;
        value.bindSerial = ++m_serial;
        other.dependents.push_back(&value);
        propagate(value);
    }

    void forceRemove(Expected& value) {
        for (Expected* dependent : std::exchange(value.dependents, {})) {
            dependent->binding = nullptr;
            if (dependent->format == value.format)
                setCell(*dependent, std::make_shared<int>(0));
        }
        value.aborted = true;
    }

private:
    static void setCell(Expected& value, const std::shared_ptr<int>& cell) {
        value.cell = cell;
        for (Expected* dependent : value.dependents)
            if (dependent->format == value.format)
                setCell(*dependent, cell);
    }

    void propagate(Expected& value) {
        if (value.heard) {
            ++value.updates;
            if (value.callback)
                std::exchange(value.callback, nullptr)();
        }
        std::vector<std::pair<Expected*, size_t>> dependents;
        for (Expected* dependent : value.dependents)
            dependents.emplace_back(dependent, dependent->bindSerial);
        for (const auto& [dependent, serial] : dependents) {
            if (dependent->binding != &value || dependent->bindSerial != serial)
                continue; // gone, or bound anew, meanwhile
            if (dependent->format != value.format)
                *dependent->cell = *value.cell;
            propagate(*dependent);
        }
    }

    size_t m_serial = 0;
};

class Graph {
public:
    explicit Graph(unsigned seed) : m_seed(seed), m_random(seed) {
        for (size_t i = 0; i < NumValues; ++i) {
            const size_t format = pick(Formats.size());
            m_model.values[i].format = format;
            m_values[i] = new Value(std::to_string(i), zelData::getFormat(Formats[format]));
            connect(i);
        }
    }

    void agreesWithTheModel(int steps) {
        for (int step = 0; step < steps; ++step) {
            for (size_t n = pick(3); n > 0; --n) { // changes that wait for their value's next update
                const size_t where = pick(NumValues);
                Change change = randomChange();
                if (change.kind == 8)
                    change.kind = 0; // a callback that is connected while its event runs is called at once
                m_callbacks[where] = [this, change] { apply(change); };
                m_model.values[where].callback = [this, change] { expect(change); };
            }
            const Change change = randomChange();
            SCOPED_TRACE("seed " + std::to_string(m_seed) + ", step " + std::to_string(step) + ", kind " +
                         std::to_string(change.kind));
            apply(change);
            expect(change);
            ASSERT_NO_FATAL_FAILURE(compare());
        }
    }

private:
    void connect(size_t i) {
        m_ids[i] = m_values[i]->updateEvent.connect([this, i](Value*) {
            ++m_updates[i];
            if (m_callbacks[i])
                std::exchange(m_callbacks[i], nullptr)();
        });
    }

    size_t pick(size_t n) { return m_random() % n; }

    /// One change in both worlds.
    struct Change {
        size_t kind, a, b;
        int content;
    };
    Change randomChange() {
        return {pick(9), pick(NumValues), pick(NumValues), static_cast<int>(pick(1000))};
    }

    void apply(const Change& change) {
        Value& value = *m_values[change.a];
        switch (change.kind) {
        case 0:
            value.unbind(true);
            break;
        case 1:
            value.forceRemove();
            break;
        case 8: // falls silent, or is heard again
            if (m_ids[change.a] == 0) {
                connect(change.a);
            } else {
                value.updateEvent.disconnect(m_ids[change.a]);
                m_ids[change.a] = 0;
            }
            break;
        case 2:
        case 3:
        case 4: {
            const ref_ptr<Value> content(new Value(zelData::getFormat("Int:32bit")));
            *static_cast<zel::int32*>(content->getData()) = change.content;
            value.set(content.get());
            break;
        }
        default:
            try {
                value.bind(m_values[change.b].get());
            } catch (const std::runtime_error&) {
                ++m_refused;
            }
        }
    }

    void expect(const Change& change) {
        Expected& value = m_model.values[change.a];
        switch (change.kind) {
        case 0:
            m_model.unbind(value);
            break;
        case 1:
            m_model.forceRemove(value);
            break;
        case 8:
            value.heard = !value.heard;
            break;
        case 2:
        case 3:
        case 4:
            m_model.set(value, change.content);
            break;
        default:
            if (Model::follows(&m_model.values[change.b], &value))
                ++m_expectedRefused;
            else
                m_model.bind(value, m_model.values[change.b]);
        }
    }

    int contentOf(size_t i) const {
        switch (m_model.values[i].format) {
        case 0:
            return static_cast<int>(*static_cast<double*>(m_values[i]->getData()));
        case 1:
            return static_cast<int>(*static_cast<float*>(m_values[i]->getData()));
        default:
            return *static_cast<zel::int32*>(m_values[i]->getData());
        }
    }

    void compare() {
        for (size_t i = 0; i < NumValues; ++i) {
            const Expected& expected = m_model.values[i];
            SCOPED_TRACE("value " + std::to_string(i));
            ASSERT_EQ(contentOf(i), *expected.cell);
            ASSERT_EQ(m_updates[i], expected.updates);
            const size_t binding = expected.binding == nullptr
                                       ? NumValues
                                       : static_cast<size_t>(expected.binding - m_model.values.data());
            ASSERT_EQ(m_values[i]->getBinding(), binding == NumValues ? nullptr : m_values[binding].get());
            ASSERT_EQ(m_values[i]->getDependents().size(), expected.dependents.size());
            for (size_t j = 0; j < expected.dependents.size(); ++j)
                ASSERT_EQ(
                    m_values[i]->getDependents()[j],
                    m_values[static_cast<size_t>(expected.dependents[j] - m_model.values.data())].get());
            for (size_t j = 0; j < i; ++j) // who shares an element with whom
                ASSERT_EQ(m_values[i]->getData() == m_values[j]->getData(),
                          expected.cell == m_model.values[j].cell);
        }
        ASSERT_EQ(m_refused, m_expectedRefused);
    }

    unsigned m_seed;
    std::mt19937 m_random;
    Model m_model;
    std::array<ref_ptr<Value>, NumValues> m_values;
    std::array<zel::uint64, NumValues> m_ids{};
    std::array<int, NumValues> m_updates{};
    std::array<std::function<void()>, NumValues> m_callbacks;
    int m_refused = 0;
    int m_expectedRefused = 0;
};

class ValueGraphTest : public testing::TestWithParam<unsigned> {};

} // namespace

TEST_P(ValueGraphTest, AgreesWithTheModel) {
    Graph(GetParam()).agreesWithTheModel(3000);
}

TEST(ValueGraphSoakTest, DISABLED_AgreesWithTheModel) {
    zelTest::soak([](unsigned seed) { Graph(seed).agreesWithTheModel(3000); });
}

INSTANTIATE_TEST_SUITE_P(Seeds, ValueGraphTest, testing::Range(1U, 13U));
