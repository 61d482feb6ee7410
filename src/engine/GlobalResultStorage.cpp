#include <zel/EntityDataParameter.h>
#include <zel/GlobalResultStorage.h>
#include <zel/Task.h>
#include <zel/Verify.h>
#include <zelData/EntityData.h>
#include <zelData/EntityStorage.h>
#include <zelData/ValueT.h>

#include <algorithm>

namespace zel {

GlobalResultStorage::GlobalResultStorage(uint32 settings, const Path& path, zelData::EntityStorage* storage)
    : GlobalResult(settings, path), m_storage(storage) {
    zelVerify(storage);
    forEachColumn([storage, &path](const zelData::Buffer* buffer) {
        zelVerifyN(buffer->getStorage() == storage,
                   "%s: The storage '%s' shows the columns of another one, which is to be the result instead",
                   path.c_str(),
                   storage->getPath().c_str());
    });
}

GlobalResultStorage::~GlobalResultStorage() = default;

/// Visits the columns that jobs write: all but the handles.
template <typename Visit>
void GlobalResultStorage::forEachColumn(const Visit& visit) const {
    for (const ref_ptr<zelData::Buffer>& buffer : m_storage->getBuffers())
        if (buffer && buffer != m_storage->getInstanceBuffer())
            visit(buffer.get());
}

void GlobalResultStorage::locateTargets(Task* task) {
    m_targets.clear();
    if (task == nullptr)
        return;
    for (size_t i = 0; i < task->getNumObjects(); ++i) {
        auto* parameter = dynamic_cast<EntityDataParameter*>(task->getObject(i));
        if (parameter != nullptr && parameter->getStorage() == m_storage)
            m_targets.push_back(parameter);
    }
}

void GlobalResultStorage::prepare(Task* task) {
    if (m_targets.empty())
        locateTargets(task);
    const uint64 size = m_storage->size();
    const uint64 begin = getSettings() == APPEND ? size : 0;
    const uint64 capacity = estimateCapacity(size, begin);
    resetOverflows();
    if (begin != size)
        m_storage->clear();
    m_storage->getData()->presize(static_cast<uint32>(capacity));
    init({begin, m_storage->size()});
    // What is made room for does not count yet: kernels take their number of work items from this value.
    *static_cast<uint64*>(m_storage->getSizeValue()->getData()) = begin;
    forEachColumn([this](zelData::Buffer* buffer) { addTarget(buffer); });
}

void GlobalResultStorage::finalize() {
    const uint64 size = getCursor();
    const uint64 capacity = getCapacity();
    const bool hasGrown = getNumOverflows() != 0;
    finalizeTransactions();
    if (hasGrown)
        m_storage->getCapacityValue()->set(capacity);
    m_storage->commitBatch(size);
    finalizeResultSorting({getBegin(), size});
    for (EntityDataParameter* target : m_targets)
        target->refreshColumns();
    m_targets.clear(); // the task may lose them till the next run
}

void GlobalResultStorage::handleOverflow(size_t newCapacity) {
    // Never below the present capacity, whose ids are all in use or free.
    const uint64 capacity = std::max(uint64{newCapacity}, m_storage->capacity());
    createNewSet(capacity);
    forEachColumn([this, capacity](zelData::Buffer* buffer) {
        moveTarget(buffer, capacity * buffer->getElementArraySize());
    });
    // The handles last: the storage has its columns then, and may run the constructors of new instances.
    if (zelData::Buffer* handles = m_storage->getInstanceBuffer())
        moveTarget(handles, capacity);
    else
        m_storage->overflowCallback(capacity);
}

void GlobalResultStorage::sortResult(const zelData::Array<unsigned>& permutation) {
    m_storage->reorder(permutation, &m_spares);
}

} // namespace zel
