#include "engine/PluginLibrary.h"

#include <zel/TaskManager.h>
#include <zel/Verify.h>
#include <zelData/Buffer.h>
#include <zelData/EntityStorage.h>

#include <mutex>
#include <string>

// How a buffer becomes a column of a storage, and a free buffer again.

namespace zelData {

using zel::uint64;

void Buffer::connect(EntityStorage* storage, Attribute* attribute) {
    zelVerifyN(m_storage == nullptr, "%s: The buffer is connected to a storage", getPath().c_str());
    ValueT<uint64>* const size = storage->getSizeValue();
    ValueT<uint64>* const capacity = storage->getCapacityValue();
    reserve(capacity->get());
    resize(size->get());
    m_storage = storage;
    m_attribute = attribute;
    // The storage calls resizeCallback and reserveCallback from now on.
    disconnectCallbacks();
    if (m_elementArraySize &&
        (m_elementArraySize->getBinding() != nullptr || m_elementArraySize->get() != 1)) {
        followStorage(m_numElementsValue.get(), size);
        followStorage(m_capacityValue.get(), capacity);
        return;
    }
    removeObject(m_numElementsValue.get());
    removeObject(m_capacityValue.get());
    m_numElementsValue = size;
    m_capacityValue = capacity;
}

void Buffer::disconnect() {
    if (m_storage == nullptr)
        return;
    m_storage = nullptr;
    m_attribute = nullptr;
    disconnectCallbacks();
    if (m_numElementsValue->getContext() == this) {
        removeObject(m_numElementsValue.get());
        removeObject(m_capacityValue.get());
    }
    makeValues(m_numElements, m_capacity);
}

namespace {

/// Whether expressions can multiply, and can name the storage as seen from its column.
bool canBeExpressed(const zel::Name& storageName) {
    if (storageName.str().find_first_of(".,()@") != std::string::npos)
        return false;
    const std::lock_guard lock(zel::TaskManager::getMutex());
    return zel::hasPlugin(zel::Path("Math.Mul"));
}

} // namespace

/// Keeps an own value at the storage's number, multiplied by the element array size.
void Buffer::followStorage(ValueT<uint64>* own, ValueT<uint64>* storage) {
    // The size of a column is right without the library of functions as well.
    const auto update = [this, own, storage](Value*) { own->set(storage->get() * getElementArraySize()); };
    const auto followByHand = [this, storage, update] {
        for (const Connection& connection : m_connections)
            if (connection.value == storage)
                return update(storage);
        m_connections.push_back({storage, storage->updateEvent.connect(update)});
        update(storage);
    };
    const zel::Name& name = m_storage->getName();
    if (name == getName() || !canBeExpressed(name))
        return followByHand();
    own->setExpression(
        zel::String::format("Math.Mul(@%s.%s, @elementArraySize)", name.c_str(), storage->getName().c_str()));
    // The name may come to be that of another one, when either is renamed or enters a tree.
    const auto verify = [this, own, storage, followByHand](Value*) {
        if (own->get() != storage->get() * getElementArraySize())
            followByHand();
    };
    m_connections.push_back({own, own->updateEvent.connect(verify)});
}

} // namespace zelData
