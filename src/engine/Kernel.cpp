#include "data/ExpressionCheck.h"

#include <zel/ArrayParameter.h>
#include <zel/CpuDevice.h>
#include <zel/EntityDataParameter.h>
#include <zel/Exception.h>
#include <zel/GlobalResultBuffer.h>
#include <zel/Kernel.h>
#include <zel/Model.h>
#include <zel/Verify.h>
#include <zel/XmlLoader.h>
#include <zelData/Buffer.h>
#include <zelData/EntityData.h>
#include <zelData/EntityStorage.h>

#include <tinyxml.h>

#include <array>
#include <atomic>
#include <stdexcept>
#include <utility>

namespace zel {

using zelData::Val;
using zelData::ValueT;

Kernel::Kernel(const Name& name, Device* device, Callback dispatch)
    : ParallelTask(
          name,
          [this, work = std::move(dispatch)] {
              preDispatch();
              work();
          },
          device == nullptr ? CpuDevice::instance() : device)
    , m_numJobsPerThread("numJobsPerThread", 4)
    , m_minJobSize("minJobSize", 128)
    , m_maxJobSize("maxJobSize", 4096)
    , m_costPerElement("costPerElement", 1) {
    setModel(ClassModel());
    for (Val<uint64>* value : {&m_numJobsPerThread, &m_minJobSize, &m_maxJobSize, &m_costPerElement})
        addObject(value);
}

Kernel::~Kernel() = default;

float Kernel::getComputeTime() {
    return getComputeCost();
}

void Kernel::preDispatch() {}

void Kernel::configure(TiXmlElement* element) {
    ParallelTask::configure(element);
    configureDispatch(element);
}

void Kernel::configureDispatch(TiXmlElement* element) {
    for (Val<uint64>* value : {&m_numJobsPerThread, &m_minJobSize, &m_maxJobSize, &m_costPerElement})
        zelData::setFromAttribute(*value, element, value->getName().c_str());
    if (m_numJobsPerThread.getBinding() == nullptr && m_numJobsPerThread.get() == 0)
        ZEL_XML_ERROR(element, "numJobsPerThread must be at least 1");
}

void Kernel::rebind() {
    ParallelTask::rebind();
    m_numWorkItems = nullptr;
}

void Kernel::setNumJobsPerThread(size_t numJobs) {
    zelVerifyN(numJobs > 0, "%s: numJobsPerThread must be at least 1", getPath().c_str());
    m_numJobsPerThread.set(numJobs);
}

void Kernel::setMinJobSize(size_t numItems) {
    m_minJobSize.set(numItems);
}

void Kernel::setMaxJobSize(size_t numItems) {
    m_maxJobSize.set(numItems);
}

void Kernel::setCostPerElement(size_t cost) {
    m_costPerElement.set(cost);
}

void Kernel::parameterAddedCallback(Parameter* parameter) {
    ParallelTask::parameterAddedCallback(parameter);
    m_numWorkItems = nullptr;
}

void Kernel::parameterRemovedCallback(Parameter* parameter) {
    ParallelTask::parameterRemovedCallback(parameter);
    m_numWorkItems = nullptr;
}

void Kernel::locateNumWorkItemsValue() {
    m_numWorkItems = nullptr;
    m_itemBuffer = nullptr;
    for (const ref_ptr<Parameter>& parameter : getParameters()) {
        if (const auto* array = dynamic_cast<const ArrayParameter*>(parameter.get())) {
            m_itemBuffer = array->getBuffer();
            if (m_itemBuffer != nullptr)
                m_numWorkItems = m_itemBuffer->getNumElementsValue();
        } else if (const auto* entities = dynamic_cast<const EntityDataParameter*>(parameter.get())) {
            if (entities->getData() != nullptr && entities->getData()->getStorage() != nullptr)
                m_numWorkItems = entities->getData()->getStorage()->getSizeValue();
        }
        if (m_numWorkItems)
            return;
    }
    if (!m_ownNumWorkItems)
        m_ownNumWorkItems = new ValueT<uint64>("numWorkItems");
    m_numWorkItems = m_ownNumWorkItems;
}

void Kernel::setNumWorkItems(size_t numItems) {
    if (!m_ownNumWorkItems)
        m_ownNumWorkItems = new ValueT<uint64>("numWorkItems");
    m_ownNumWorkItems->set(numItems);
}

size_t Kernel::countWorkItems() {
    // Anew in each run: parameters are bound to other buffers, and buffers join storages.
    locateNumWorkItemsValue();
    const GlobalResultBuffer* const result = m_itemBuffer == nullptr ? nullptr : findResult(m_itemBuffer);
    return result == nullptr ? m_numWorkItems->get() : result->getOldNumEntries();
}

const GlobalResultBuffer* Kernel::findResult(const zelData::Buffer* buffer) const {
    for (const ref_ptr<Parameter>& parameter : getParameters())
        if (const auto* array = dynamic_cast<const ArrayParameter*>(parameter.get()))
            if (array->getGlobalResult() != nullptr && array->getBuffer() == buffer)
                return array->getGlobalResult();
    return nullptr;
}

Model* Kernel::ClassModel() {
    static std::atomic<Model*> s_model{nullptr};
    return Model::createBuiltinModel("zel.Kernel", Task::ClassModel(), s_model);
}

} // namespace zel
