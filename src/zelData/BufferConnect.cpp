#include <zel/Verify.h>
#include <zelData/Buffer.h>
#include <zelData/EntityStorage.h>

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

/// Keeps an own value at the storage's number, multiplied by the element array size.
void Buffer::followStorage(ValueT<uint64>* own, ValueT<uint64>* storage) {
    own->setExpression(zel::String::format(
        "Math.Mul(@%s.%s, @elementArraySize)", m_storage->getName().c_str(), storage->getName().c_str()));
}

} // namespace zelData
