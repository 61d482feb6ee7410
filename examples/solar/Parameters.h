#pragma once

#include <zel/ArrayParameter.h>
#include <zel/EntityDataParameter.h>
#include <zel/ScalarParameter.h>
#include <zel/Task.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <stdexcept>
#include <string>

/// Gives the task a parameter for a storage of the entity.
/// @return owned by the task
inline zel::EntityDataParameter*
storageParameter(zel::Task* task, const char* name, const char* entity, zel::uint32 mode) {
    zelData::EntityModel* model = zelData::getEntity(zel::Path(entity));
    if (model == nullptr)
        throw std::runtime_error(std::string("there is no entity '") + entity + "'\n");
    auto* parameter = new zel::EntityDataParameter(zel::Name(name), model, mode);
    task->addParameter(parameter);
    return parameter;
}

/// A column of the storage that a parameter is bound to.
template <typename T>
class Column {
public:
    Column(zel::EntityDataParameter* storage, const char* name, const char* format, zel::uint32 mode)
        : m_parameter(new zel::ArrayParameter(zel::Name(name), zelData::getFormat(format), mode)) {
        storage->addChildParameter(m_parameter);
    }
    [[nodiscard]] T* data() const noexcept { return static_cast<T*>(m_parameter->getArray().ptr()); }

private:
    zel::ArrayParameter* m_parameter; // of the storage's
};

/// A number or text that a task reads.
template <typename T>
class Scalar {
public:
    Scalar(zel::Task* task, const char* name, const char* format)
        : m_parameter(new zel::ScalarParameter(zel::Name(name), zelData::getFormat(format))) {
        task->addParameter(m_parameter);
    }
    [[nodiscard]] const T& get() const { return *static_cast<const T*>(m_parameter->getValue()->getData()); }

private:
    zel::ScalarParameter* m_parameter; // of the task's
};
