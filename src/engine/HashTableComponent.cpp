#include "data/FormatLookup.h"

#include <zel/Exception.h>
#include <zel/HashTableComponent.h>
#include <zel/Model.h>
#include <zel/XmlLoader.h>
#include <zelData/Format.h>
#include <zelData/Type.h>

#include <tinyxml.h>

#include <atomic>
#include <stdexcept>

namespace zel {

template class HashTableComponent<int, int, HashFn<int>>;

namespace {

const XmlLoaderRegistrator s_hashTableComponentLoader("Parameter.HashTable",
                                                      &AbstractHashTableComponent::load);

/// The largest power of two that divides the size, at most 16: what a C++ class of the size may be aligned
/// to.
uint64 alignmentOf(const zelData::Format* format) {
    uint64 alignment = 1;
    while (alignment < 16 && format->getSize() != 0 && format->getSize() % (2 * alignment) == 0)
        alignment *= 2;
    return alignment;
}

uint64 roundUp(uint64 n, uint64 multiple) {
    return (n + multiple - 1) / multiple * multiple;
}

uint64 bucketSize(const zelData::Format* key, const zelData::Format* value) {
    const uint64 valueAlignment = alignmentOf(value);
    const uint64 end = roundUp(key->getSize(), valueAlignment) + value->getSize();
    const uint64 alignment = std::max({alignmentOf(key), valueAlignment, uint64{alignof(uint32)}});
    return roundUp(roundUp(end, alignof(uint32)) + sizeof(uint32), alignment);
}

const zelData::Format* loadFormat(TiXmlElement* element, const char* attribute) {
    const char* name = element->Attribute(attribute);
    const zelData::Format* format = zelData::findFormat(name);
    if (format == nullptr)
        ZEL_XML_ERROR(element, String::format("No format with name '%s'", name));
    return format;
}

} // namespace

AbstractHashTableComponent::AbstractHashTableComponent(const Name& name, uint64 bucketSize, Device* device)
    : Component(name, ClassModel(), device)
    , m_numFilled(new zelData::ValueT<uint64>("numFilled"))
    , m_maxProbeLength(new zelData::ValueT<uint64>("maxProbeLength"))
    , m_buckets(new zelData::Buffer("buckets", zelData::getGenericStructFormat(bucketSize))) {
    addObject(m_numFilled.get());
    addObject(m_maxProbeLength.get());
    addObject(m_buckets.get());
}

AbstractHashTableComponent* AbstractHashTableComponent::load(TiXmlElement* element, Device* device) {
    if (element->Attribute("name") == nullptr)
        ZEL_XML_ERROR(element, "Must specify a name for the hash table!");
    if (element->Attribute("keyType") == nullptr)
        ZEL_XML_ERROR(element, "Must specify a key type for the hash table!");
    if (element->Attribute("valueType") == nullptr)
        ZEL_XML_ERROR(element, "Must specify a value type for the hash table!");
    const Name name = parseAttribute<Name>(element, "name");
    const zelData::Format* const key = loadFormat(element, "keyType");
    const zelData::Format* const value = loadFormat(element, "valueType");
    const zelData::Format* const number = zelData::getFormat("Int:32bit");
    if (key == number && value == number)
        return new HashTableComponent<int, int, HashFn<int>>(name, device);
    return new AbstractHashTableComponent(name, bucketSize(key, value), device);
}

Model* AbstractHashTableComponent::ClassModel() {
    static std::atomic<Model*> s_model{nullptr};
    return Model::createBuiltinModel("Parameter.HashTable", Component::ClassModel(), s_model);
}

} // namespace zel
