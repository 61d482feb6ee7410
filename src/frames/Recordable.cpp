#include "Recordable.h"

#include "ElementForm.h"
#include "RunState.h"

#include <zel/Clock.h>
#include <zel/Log.h>
#include <zel/Model.h>
#include <zelData/Buffer.h>
#include <zelData/EntityData.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/Frame.h>
#include <zelData/FrameNodes.h>
#include <zelData/Value.h>
#include <zelData/ValueT.h>

#include <string_view>
#include <utility>

namespace zelData {

namespace {

Recordable ofFormat(RecordKind kind, const Format* format) {
    if (format == nullptr)
        return {};
    const ElementForm form = elementFormOf(format);
    if (form == ElementForm::None || form == ElementForm::Vector ||
        (form == ElementForm::Array && kind == RecordKind::Value))
        return {RecordKind::Omitted,
                format,
                "elements of format " + format->fullName() + " can not be written to a file"};
    return {kind, format, {}};
}

/// What a storage has by itself, and what is told by its size and its tables of ids.
bool isPartOf(const EntityStorage* storage, const zel::Object* object) {
    return object == storage->getSizeValue() || object == storage->getCapacityValue() ||
           object == storage->getInstanceBuffer() || object == storage->getIdToIndexBuffer() ||
           object == storage->getData();
}

Recordable byClass(zel::Object* object) {
    if (dynamic_cast<const zel::Model*>(object) != nullptr || dynamic_cast<const Frame*>(object) != nullptr)
        return {};
    if (auto* value = dynamic_cast<Value*>(object))
        return ofFormat(RecordKind::Value, value->getFormat());
    if (const auto* buffer = dynamic_cast<const Buffer*>(object))
        return ofFormat(RecordKind::Buffer, buffer->getFormat());
    if (const auto* storage = dynamic_cast<const EntityStorage*>(object)) {
        if (storage->getEntityModel() != nullptr && storage->getInstanceBuffer() != nullptr)
            return {RecordKind::Storage, nullptr, {}};
        return {RecordKind::Omitted, nullptr, "a storage without instance table has no ids to be known by"};
    }
    if (dynamic_cast<const zel::Component*>(object) != nullptr &&
        dynamic_cast<const EntityData*>(object) == nullptr)
        return {RecordKind::Component, nullptr, {}};
    return {};
}

bool holdsData(zel::Component* component) {
    for (zel::size_t i = 0; i < component->getNumObjects(); ++i) {
        zel::Object* child = component->getObject(i);
        const RecordKind kind = byClass(child).kind;
        if (kind == RecordKind::Component ? holdsData(static_cast<zel::Component*>(child))
                                          : kind != RecordKind::None)
            return true;
    }
    return false;
}

/// Why nobody would find the object by its name; empty if one does.
zel::String faultOfName(const zel::Component* parent, const zel::Object* object, RecordKind kind) {
    const std::string_view name(object->getName().c_str());
    if (name.empty())
        return zel::String("it has no name");
    if (name.find(zel::Path::Separator) != std::string_view::npos)
        return zel::String("its name holds a '.'");
    if (parent->findObject(object->getName()) != object)
        return zel::String("an earlier sibling has its name");
    const bool isTable = dynamic_cast<const EntityStorage*>(parent) != nullptr &&
                         (name == EntityStorage::IdToIndexName || name == EntityStorage::IndexToIdName);
    if (name == RunStateName || (kind == RecordKind::Buffer && (name == "Incremental" || isTable)))
        return zel::String("frames use its name for something else");
    return {};
}

} // namespace

Recordable recordableOf(zel::Component* parent, zel::Object* object) {
    const auto* storage = dynamic_cast<const EntityStorage*>(parent);
    if (storage != nullptr && isPartOf(storage, object))
        return {};
    Recordable result = byClass(object);
    if (parent == nullptr || result.kind == RecordKind::None || result.kind == RecordKind::Omitted)
        return result;
    zel::String fault = faultOfName(parent, object, result.kind);
    if (fault.empty())
        return result;
    // Recorders tell of the events of clocks, which mostly have no name, or the path of a slave.
    if (dynamic_cast<const zel::Clock::Event*>(object) != nullptr)
        return {};
    if (result.kind == RecordKind::Component && !holdsData(static_cast<zel::Component*>(object)))
        return {};
    return {RecordKind::Omitted, result.format, std::move(fault)};
}

void noteOmission(zel::Vector<zel::String>& list,
                  const zel::Path& path,
                  const char* verb,
                  const zel::String& reason) {
    zel::String text = zel::String::format("'%s' is not %s: %s", path.c_str(), verb, reason.c_str());
    if (list.contains(text))
        return;
    ZEL_LOG_WARNING(text);
    list.push_back(std::move(text));
}

} // namespace zelData
