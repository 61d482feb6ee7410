#include "InspectionTree.h"

#include "InspectionElements.h"
#include "StreamText.h"

#include <zel/Clock.h>
#include <zel/Component.h>
#include <zel/Model.h>
#include <zel/Parameter.h>
#include <zel/Pointer.h>
#include <zel/ScalarParameter.h>
#include <zel/Task.h>
#include <zel/Vector.h>
#include <zelData/Buffer.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/Value.h>

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <string>

namespace zelNet {

using zel::Component;
using zel::Object;
using zel::String;
using zel::uint64;

namespace {

/// Of nested lists of children.
constexpr uint64 MaxNestedChildren = 100;
/// What the entries of one answer may come to, in bytes: readers may refuse a header above 1 MiB.
constexpr zel::size_t MaxDescription = zel::size_t{700} * 1024;
/// Of an entry without its texts, about.
constexpr zel::size_t EntryCost = 250;

/// The child that one part of a path names.
Object* childOf(const Component& component, std::string_view part) {
    if (!part.starts_with('#'))
        return component.findObject(zel::Name(std::string(part)));
    uint64 index = 0;
    const auto [end, error] = std::from_chars(part.data() + 1, part.data() + part.size(), index);
    const bool isIndex =
        error == std::errc() && end == part.data() + part.size() && index < component.getNumObjects();
    return isIndex ? component.getObject(index) : nullptr;
}

/// Follows the parts as far as they name children.
/// @return what is left of the path; the object is the one that the rest begins at
std::string_view follow(Object*& object, std::string_view path) {
    while (!path.empty()) {
        const auto* component = dynamic_cast<const Component*>(object);
        const std::string_view part = path.substr(0, path.find('.'));
        Object* child = component == nullptr ? nullptr : childOf(*component, part);
        if (child == nullptr)
            break;
        object = child;
        path.remove_prefix(std::min(part.size() + 1, path.size()));
    }
    return path;
}

/// Whether a path can name the child by its name.
bool isNamed(const Component& component, const Object& child) {
    const std::string_view name(child.getName().c_str());
    return !name.empty() && name.front() != '#' && name.find('.') == std::string_view::npos &&
           component.findObject(child.getName()) == &child;
}

/// How a path names the child.
String partOf(const Component& component, const Object& child, uint64 index) {
    return isNamed(component, child) ? child.getName().str() : String("#" + std::to_string(index));
}

String joined(const String& path, const String& part) {
    return path.empty() ? part : String(path + "." + part);
}

const char* kindOf(const Object& object) {
    if (dynamic_cast<const zel::Pointer*>(&object) != nullptr)
        return "pointer";
    if (dynamic_cast<const zelData::Value*>(&object) != nullptr)
        return "value";
    if (dynamic_cast<const zelData::EntityStorage*>(&object) != nullptr)
        return "storage";
    if (dynamic_cast<const zelData::Buffer*>(&object) != nullptr)
        return "buffer";
    if (dynamic_cast<const zel::Clock*>(&object) != nullptr)
        return "clock";
    if (dynamic_cast<const zel::Task*>(&object) != nullptr)
        return "task";
    if (dynamic_cast<const zel::Parameter*>(&object) != nullptr)
        return "parameter";
    return dynamic_cast<const Component*>(&object) != nullptr ? "component" : "object";
}

const std::string& plain(const String& text) {
    return text;
}

void describeValue(Json::Value& entry, const Component* root, const zelData::Value& value) {
    if (value.getFormat() != nullptr) {
        entry["type"] = plain(value.getFormat()->fullName());
        entry["value"] = valueToJson(value, ElementLayout(value.getFormat()));
    }
    if (value.getBinding() != nullptr)
        entry["binding"] = plain(inspectedPath(root, value.getBinding()));
}

void describeKind(Json::Value& entry, const Component* root, const Object& object) {
    if (const auto* pointer = dynamic_cast<const zel::Pointer*>(&object))
        entry["target"] = plain(inspectedPath(root, pointer->getObject()));
    else if (const auto* value = dynamic_cast<const zelData::Value*>(&object))
        describeValue(entry, root, *value);
    else if (const auto* parameter = dynamic_cast<const zel::ScalarParameter*>(&object)) {
        if (parameter->getValue() != nullptr)
            describeValue(entry, root, *parameter->getValue());
    } else if (const auto* storage = dynamic_cast<const zelData::EntityStorage*>(&object)) {
        entry["numElements"] = static_cast<Json::UInt64>(storage->size());
        entry["capacity"] = static_cast<Json::UInt64>(storage->capacity());
        entry["entity"] =
            storage->getEntityModel() == nullptr ? "" : plain(storage->getEntityModel()->getPath().str());
    } else if (const auto* buffer = dynamic_cast<const zelData::Buffer*>(&object)) {
        entry["type"] = plain(buffer->getFormat()->fullName());
        entry["numElements"] = static_cast<Json::UInt64>(buffer->getNumElements());
    } else if (const auto* task = dynamic_cast<const zel::Task*>(&object))
        entry["enabled"] = task->isEnabled();
}

class Description {
public:
    explicit Description(const Component* root) : m_root(root) {}

    // NOLINTNEXTLINE(misc-no-recursion): three levels
    Json::Value describe(const Object& object, const String& path, const InspectedRange& range) {
        Json::Value entry(Json::objectValue);
        entry["name"] = plain(object.getName().str());
        entry["path"] = plain(path);
        entry["model"] = object.getModel() == nullptr ? "" : plain(object.getModel()->getPath().str());
        entry["implementation"] = object.getImplementationName().c_str();
        entry["kind"] = kindOf(object);
        describeKind(entry, m_root, object);
        m_cost +=
            EntryCost + 2 * path.size() + (entry["value"].isString() ? entry["value"].asString().size() : 0);
        if (entry["value"].isNull())
            entry.removeMember("value");
        const auto* component = dynamic_cast<const Component*>(&object);
        const uint64 numChildren = component == nullptr ? 0 : component->getNumObjects();
        entry["numChildren"] = static_cast<Json::UInt64>(numChildren);
        if (range.depth == 0)
            return entry;
        Json::Value& children = entry["children"] = Json::Value(Json::arrayValue);
        const uint64 begin = std::min(range.begin, numChildren);
        const uint64 end = begin + std::min(range.count, numChildren - begin);
        entry["begin"] = static_cast<Json::UInt64>(begin);
        for (uint64 i = begin; i < end && m_cost < MaxDescription; ++i) {
            const Object& child = *component->getObject(i);
            children.append(describe(
                child, joined(path, partOf(*component, child, i)), {range.depth - 1, 0, MaxNestedChildren}));
        }
        return entry;
    }

private:
    const Component* m_root;
    zel::size_t m_cost = 0;
};

} // namespace

TreeRevision::TreeRevision(Component* root)
    : m_root(root)
    , m_added(root->addObjectEvent.connect([this](Component*, Object*) { ++m_revision; }))
    , m_removed(root->removeObjectEvent.connect([this](Component*, Object*) { ++m_revision; })) {}

TreeRevision::~TreeRevision() {
    m_root->addObjectEvent.disconnect(m_added);
    m_root->removeObjectEvent.disconnect(m_removed);
}

Object* findInspected(Component* root, std::string_view path) {
    const zel::Path whole = zel::verifiedPath(std::string(path));
    Object* object = root;
    const std::string_view rest = follow(object, path);
    return rest.empty() ? object : object->getResource(std::string(rest));
}

Object& requireInspected(Component* root, const String& path) {
    if (Object* object = findInspected(root, path))
        return *object;
    throw std::runtime_error("There is no object '" + path + "'");
}

bool isOfChildren(Component* root, std::string_view path) {
    Object* object = root;
    return follow(object, path).empty();
}

String inspectedPath(const Component* root, const Object* object) {
    String path;
    for (; object != nullptr && object != root; object = object->getContext()) {
        const auto* component = dynamic_cast<const Component*>(object->getContext());
        if (component == nullptr)
            return {};
        uint64 index = 0;
        if (!isNamed(*component, *object))
            while (index < component->getNumObjects() && component->getObject(index) != object)
                ++index;
        if (index == component->getNumObjects())
            return {}; // it knows the component, which does not know it
        const String part = partOf(*component, *object, index);
        path = path.empty() ? part : joined(part, path);
    }
    return object == nullptr ? String() : path;
}

Json::Value
describeInspected(const Component* root, Object& object, const String& path, const InspectedRange& range) {
    return Description(root).describe(object, path, range);
}

} // namespace zelNet
