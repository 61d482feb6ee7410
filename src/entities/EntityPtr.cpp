#include "EntityText.h"

#include <zel/FirstException.h>
#include <zel/String.h>
#include <zelData/Attribute.h>
#include <zelData/Buffer.h>
#include <zelData/EntityData.h>
#include <zelData/EntityInstance.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityPtr.h>
#include <zelData/EntityRange.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/SharedAttribute.h>
#include <zelData/Transform.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <iostream>
#include <utility>

// The handles of instances: EntityPtr, EntityInstance and EntityRange.

namespace zelData {

zel::uint32 EntityPtr::getIndex() const {
    return m_storage == nullptr ? static_cast<zel::uint32>(zel::InvalidIndex) : m_storage->getIndex(m_id);
}

EntityModel* EntityPtr::getModel() const {
    return m_storage == nullptr ? nullptr : m_storage->getEntityModel();
}

void EntityPtr::transfer(EntityStorage* storage) {
    if (m_storage != nullptr)
        *this = m_storage->transferInstance(m_id, storage);
}

EntityPtr EntityPtr::copy() const {
    return copy(m_storage);
}

EntityPtr EntityPtr::copy(EntityStorage* storage) const {
    return m_storage == nullptr ? EntityPtr() : m_storage->copyInstance(m_id, storage);
}

void EntityPtr::copyAttributes(const EntityPtr& other) const {
    if (m_storage != nullptr && other.m_storage != nullptr)
        other.m_storage->copyInstance(other.m_id, m_storage, m_id);
}

void EntityPtr::destroy() {
    if (m_storage == nullptr)
        return;
    zel::FirstException failure; // of a listener: the instance goes all the same
    failure.run([this] { m_storage->destroyInstance(m_id); });
    *this = EntityPtr();
    failure.rethrow();
}

namespace {

void printAttribute(std::ostream& stream,
                    const EntityStorage* storage,
                    const Attribute* attribute,
                    zel::uint32 index) {
    if (attribute == nullptr) {
        stream << "attribute was nullptr\n";
        return;
    }
    stream << "  * " << attribute->getName() << " (" << attribute->getDefaultFormat()->fullName() << "): ";
    if (const Buffer* buffer = storage->getBuffer(attribute)) {
        const zel::uint64 count = buffer->getElementArraySize();
        for (zel::uint64 i = 0; i < count; ++i) {
            if (i != 0)
                stream << "; ";
            printElement(
                stream, attribute->getName(), buffer->getFormat(), buffer->getElement(index * count + i));
        }
    } else if (dynamic_cast<const SharedAttribute*>(attribute) != nullptr) {
        if (const auto* value = dynamic_cast<const Value*>(storage->findObject(attribute->getName())))
            stream << *value;
    }
    stream << '\n';
}

} // namespace

void EntityPtr::print(std::ostream& stream) const {
    if (m_storage == nullptr) {
        stream << "--== EntityInstance: nullptr (id: " << m_id << ") ==--\n--== END ==--\n";
        return;
    }
    const zel::uint32 index = getIndex();
    const EntityModel* model = getModel(); // a storage may have none
    stream << "--== EntityInstance: " << (model == nullptr ? zel::Name("none") : model->getName())
           << " (storage: " << m_storage->getPath() << ", id: " << m_id << ", index: " << index << ") ==--\n";
    if (model != nullptr)
        for (const zel::ref_ptr<Attribute>& attribute : model->getAttributes())
            printAttribute(stream, m_storage, attribute.get(), index);
    for (const zel::ref_ptr<Attribute>& attribute : m_storage->getCustomAttributes())
        printAttribute(stream, m_storage, attribute.get(), index);
    stream << "--== END ==--\n";
}

void EntityPtr::print() const {
    print(std::cout);
}

std::ostream& operator<<(std::ostream& stream, const EntityPtr& instance) {
    return stream << '(' << static_cast<const void*>(instance.getStorage()) << ", " << instance.getId()
                  << ')';
}

EntityInstance::EntityInstance(const EntityPtr& instance)
    : m_data(instance.isNull() ? nullptr : instance.getStorage()->getData()), m_index(instance.getIndex()) {}

EntityStorage* EntityInstance::getStorage() const {
    return m_data == nullptr ? nullptr : m_data->getStorage();
}

EntityPtr EntityInstance::getPtr() const {
    EntityStorage* storage = getStorage();
    return storage == nullptr ? EntityPtr() : storage->getInstance(m_index);
}

EntityPtr EntityRange::operator[](zel::uint64 i) const {
    return m_storage->getInstance(m_range.begin() + i);
}

} // namespace zelData
