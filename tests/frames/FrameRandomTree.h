#pragma once

#include <zel/Component.h>
#include <zelData/Array.h>
#include <zelData/Buffer.h>
#include <zelData/EntityPtr.h>
#include <zelData/EntityStorage.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <support/PointLocale.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <vector>

// A tree of all that a frame can hold, which changes at random.

namespace zelTest {

/// The attributes of the entity whose storages stand in the tree.
const char* const RandomTreeAttributes = "<Attribute.Scalar name='mass' type='Real' value='5'/>"
                                         "<Attribute.Scalar name='title' type='String'/>"
                                         "<Attribute.Scalar name='sun' type='EntityPtr'/>"
                                         "<Attribute.Scalar name='triple' type='UInt:32bit' numElements='3'/>"
                                         "<Attribute.Array name='trail' type='Real'/>";

/// What may stand in a tree; the first letter says what it is.
const char* const RandomTreeNames[] = {
    "v0", "v1", "t0", "h0", "b0", "b1", "x0", "p0", "p1", "sv2", "sb2", "sp2"};

/// The content of each object, in the plainest form.
using Snapshot = std::map<std::string, std::string>;

class RandomTree {
public:
    explicit RandomTree(zelData::EntityModel* model) : m_model(model) { root->addObject(m_below.get()); }

    [[nodiscard]] zel::Object* find(const std::string& name) const {
        return parentOf(name)->findObject(name.c_str());
    }
    void add(const std::string& name) {
        zel::ref_ptr<zel::Object> object;
        switch (kindOf(name)) {
        case 'v':
            object = new zelData::Value(name.c_str(), zelData::getFormat("Real:64bit"));
            break;
        case 't':
            object = new zelData::Value(name.c_str(), zelData::getFormat("String"));
            break;
        case 'h':
            object = new zelData::Value(name.c_str(), zelData::getFormat("EntityPtr"));
            break;
        case 'b':
            object = new zelData::Buffer(name.c_str(), zelData::getFormat("Real:64bit"));
            break;
        case 'x':
            object = new zelData::Buffer(name.c_str(), zelData::getFormat("String"));
            break;
        default:
            object = new zelData::EntityStorage(m_model, name.c_str());
        }
        parentOf(name)->addObject(object.get());
    }
    void remove(const std::string& name) const { parentOf(name)->removeObject(find(name)); }
    static char kindOf(const std::string& name) { return name[0] == 's' ? name[1] : name[0]; }

    [[nodiscard]] Snapshot snapshot() const {
        const zelTest::PointLocale point;
        Snapshot result;
        for (const std::string name : RandomTreeNames)
            if (zel::Object* object = find(name))
                result[name] = textOf(object);
        return result;
    }

    zel::ref_ptr<zel::Component> root{new zel::Component("root")};

private:
    [[nodiscard]] zel::Component* parentOf(const std::string& name) const {
        return name[0] == 's' ? m_below.get() : root.get();
    }
    [[nodiscard]] std::string textOf(const zelData::EntityPtr& handle) const {
        for (const std::string name : RandomTreeNames)
            if (handle.getStorage() != nullptr && kindOf(name) == 'p' && find(name) == handle.getStorage())
                return name + "/" + std::to_string(handle.getId());
        return "null";
    }
    [[nodiscard]] std::string textOf(zel::Object* object) const {
        if (auto* value = dynamic_cast<zelData::Value*>(object)) {
            if (value->getFormat() == zelData::getFormat("EntityPtr"))
                return textOf(*static_cast<const zelData::EntityPtr*>(value->getData()));
            return value->toString();
        }
        if (const auto* buffer = dynamic_cast<const zelData::Buffer*>(object))
            return textOf(*buffer);
        const auto& storage = dynamic_cast<const zelData::EntityStorage&>(*object);
        storage.verifyConsistency();
        std::string text = std::to_string(storage.size()) + " of " + std::to_string(storage.capacity()) + ":";
        for (zel::uint64 i = 0; i < storage.capacity(); ++i)
            text += " " + std::to_string(storage.getId(i));
        for (const char* name : {"mass", "title", "sun", "triple", "trail", "globalOrder"})
            if (const zelData::Buffer* column = storage.getBuffer(name);
                column != nullptr && !column->empty())
                text += std::string("; ") + name + textOf(*column);
        return text;
    }
    [[nodiscard]] std::string textOf(const zelData::Buffer& buffer) const {
        std::string text = "[" + std::to_string(buffer.size()) + "]";
        for (zel::uint64 i = 0; i < buffer.size(); ++i) {
            text += " ";
            if (buffer.getFormat() == zelData::getFormat("Real:64bit"))
                text += std::to_string(buffer.data<double>()[i]);
            else if (buffer.getFormat() == zelData::getFormat("UInt:32bit"))
                text += std::to_string(buffer.data<zel::uint32>()[i]);
            else if (buffer.getFormat() == zelData::getFormat("String"))
                text += "'" + buffer.data<zel::String>()[i] + "'";
            else if (buffer.getFormat() == zelData::getFormat("EntityPtr"))
                text += textOf(buffer.data<zelData::EntityPtr>()[i]);
            else
                for (const double element : buffer.data<zelData::Array<double>>()[i])
                    text += "," + std::to_string(element);
        }
        return text;
    }

    zelData::EntityModel* m_model;
    zel::ref_ptr<zel::Component> m_below{new zel::Component("below")};
};

/// Changes a tree at random.
class RandomChanger {
public:
    RandomChanger(RandomTree& tree, std::mt19937& random) : m_tree(tree), m_random(random) {}

    void step() {
        for (const std::string name : RandomTreeNames) {
            if (m_tree.find(name) == nullptr) {
                if (oneOf(6))
                    m_tree.add(name);
            } else if (oneOf(40)) {
                m_tree.remove(name);
            } else if (!oneOf(3)) {
                change(name);
            }
        }
    }

private:
    [[nodiscard]] zel::uint64 below(zel::uint64 n) { return m_random() % n; }
    [[nodiscard]] bool oneOf(zel::uint64 n) { return below(n) == 0; }
    [[nodiscard]] double real() { return static_cast<double>(below(1000)); }
    [[nodiscard]] zel::String text() {
        return oneOf(3) ? zel::String()
                        : zel::String("a text that is not short, number " + std::to_string(below(1000)));
    }
    [[nodiscard]] zelData::EntityPtr handle() {
        const std::string name = RandomTreeNames[below(std::size(RandomTreeNames))];
        if (RandomTree::kindOf(name) != 'p')
            return {};
        auto* storage = dynamic_cast<zelData::EntityStorage*>(m_tree.find(name));
        return storage == nullptr || storage->empty() ? zelData::EntityPtr()
                                                      : storage->getInstance(below(storage->size()));
    }

    void change(const std::string& name) {
        zel::Object* object = m_tree.find(name);
        if (auto* value = dynamic_cast<zelData::Value*>(object))
            change(*value);
        else if (auto* buffer = dynamic_cast<zelData::Buffer*>(object))
            change(*buffer);
        else
            change(dynamic_cast<zelData::EntityStorage&>(*object));
    }
    void change(zelData::Value& value) {
        if (value.getFormat() == zelData::getFormat("Real:64bit")) {
            const double content = real();
            value.set(&content);
        } else if (value.getFormat() == zelData::getFormat("String")) {
            const zel::String content = text();
            value.set(&content);
        } else {
            const zelData::EntityPtr content = handle();
            value.set(&content);
        }
    }
    void change(zelData::Buffer& buffer) {
        if (oneOf(4))
            buffer.resize(oneOf(6) ? 0 : below(30));
        fill(buffer);
    }
    /// Some elements, or all.
    void fill(zelData::Buffer& buffer) {
        const bool all = oneOf(5);
        for (zel::uint64 i = 0; i < buffer.size(); ++i) {
            if (!all && !oneOf(8))
                continue;
            if (buffer.getFormat() == zelData::getFormat("Real:64bit"))
                buffer.data<double>()[i] = real();
            else if (buffer.getFormat() == zelData::getFormat("UInt:32bit"))
                buffer.data<zel::uint32>()[i] = static_cast<zel::uint32>(below(1000));
            else if (buffer.getFormat() == zelData::getFormat("String"))
                buffer.data<zel::String>()[i] = text();
            else
                buffer.data<zelData::EntityPtr>()[i] = handle();
        }
    }
    void change(zelData::EntityStorage& storage) {
        for (zel::uint64 i = below(3); i != 0; --i)
            changeInstances(storage);
        for (const char* name : {"mass", "title", "sun", "triple"})
            if (oneOf(2))
                fill(*storage.getBuffer(name));
        if (oneOf(4))
            changeArrays(*storage.getBuffer("trail"));
    }
    void changeInstances(zelData::EntityStorage& storage) {
        const zel::uint64 n = storage.size();
        switch (below(9)) {
        case 0:
            storage.createInstances(below(20));
            break;
        case 1:
            (void)storage.createInstance();
            break;
        case 2:
            storage.reserve(below(80));
            break;
        case 3:
            if (oneOf(4))
                storage.clear();
            else if (oneOf(4))
                storage.reset();
            break;
        case 4: {
            zel::VectorPOD<zel::uint32> permutation(n);
            std::iota(permutation.begin(), permutation.end(), 0U);
            std::shuffle(permutation.begin(), permutation.end(), m_random);
            storage.reorder(permutation);
            break;
        }
        case 5:
            if (n != 0)
                storage.swapInstanceIds(storage.getId(below(n)), storage.getId(below(n)));
            break;
        case 6:
            if (oneOf(6))
                (void)storage.getOrCreateGlobalOrderBuffer();
            break;
        default:
            for (zel::uint64 i = n == 0 ? 0 : below(n); i != 0; --i)
                storage.destroyInstance(storage.getId(below(storage.size())));
        }
    }
    void changeArrays(zelData::Buffer& column) {
        zelData::Buffer* elements = column.getElementBuffer();
        std::vector<zel::uint32> ends;
        zel::uint32 end = 0;
        for (zel::uint64 i = 0; i < column.size(); ++i)
            ends.push_back(end += static_cast<zel::uint32>(below(4)));
        elements->resize(end);
        for (zel::uint64 i = 0; i < end; ++i)
            elements->data<double>()[i] = real();
        for (zel::uint64 i = 0; i < column.size(); ++i)
            column.data<zelData::AbstractArray>()[i].bind(elements, {i == 0 ? 0 : ends[i - 1], ends[i]});
    }

    RandomTree& m_tree;
    std::mt19937& m_random;
};

} // namespace zelTest
