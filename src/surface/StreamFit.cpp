#include "StreamFit.h"

#include "engine/ParameterEntity.h"

#include <zel/ArrayParameter.h>
#include <zel/EntityDataParameter.h>
#include <zel/EntityHandleParameter.h>
#include <zel/ScalarParameter.h>
#include <zel/UnresolvedParameter.h>
#include <zel/VerifyThrow.h>
#include <zelData/Buffer.h>
#include <zelData/EntityInstance.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityPtr.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

namespace zel {

namespace {

using MetaType = Parameter::MetaType;

String typeName(const zelData::Format* format) {
    return format == nullptr || format->getType() == nullptr ? String() : format->getType()->getName().str();
}

String formatName(const zelData::Format* format) {
    return format == nullptr ? String() : format->fullName();
}

/// The value that the object is or, as a parameter, has; null for neither.
zelData::Value* valueOf(Object* object) {
    if (const auto* scalar = dynamic_cast<const ScalarParameter*>(object))
        return scalar->getValue();
    return dynamic_cast<zelData::Value*>(object);
}

void verifyValue(const Parameter* parameter, const zelData::Format* format, Object* object) {
    zelData::Value* const value = valueOf(object);
    zelVerifyThrowN(value != nullptr,
                    "%s: Can not bind a scalar parameter to '%s', which is no value",
                    parameter->getPath().c_str(),
                    object->getPath().c_str());
    const ref_ptr<zelData::Value> own(new zelData::Value(parameter->getName(), format));
    zelVerifyThrowN(own->isTypeCompatible(value),
                    "%s: Can not bind parameter of type %s to value of type %s (path: %s)",
                    parameter->getPath().c_str(),
                    typeName(format).c_str(),
                    typeName(value->getFormat()).c_str(),
                    value->getPath().c_str());
    own->bind(value); // what can not be converted is refused here, and not when others are bound
}

void verifyBuffer(const Parameter* parameter, Object* object) {
    const auto* const array = dynamic_cast<const ArrayParameter*>(object);
    const auto* const buffer =
        array != nullptr ? array->getBuffer() : dynamic_cast<const zelData::Buffer*>(object);
    zelVerifyThrowN(buffer != nullptr || array != nullptr,
                    "%s: Can not bind an array parameter to '%s', which is no buffer",
                    parameter->getPath().c_str(),
                    object->getPath().c_str());
    const zelData::Format* const format = parameter->getFormat();
    zelVerifyThrowN(buffer == nullptr || format == nullptr || format == zelData::Format::Auto() ||
                        buffer->getFormat()->is(format),
                    "%s: Can not bind parameter of type %s to buffer %s of type %s",
                    parameter->getPath().c_str(),
                    formatName(format).c_str(),
                    buffer->getPath().c_str(),
                    formatName(buffer->getFormat()).c_str());
}

void verifyStorage(const Parameter* parameter,
                   const zelData::EntityModel* entityModel,
                   const zelData::EntityStorage* storage) {
    const zelData::EntityModel* const model = storage->getEntityModel();
    zelVerifyThrowN(
        model != nullptr && model->is(entityModel),
        "%s: Can not bind entity parameter of type '%s' to storage '%s' which has entity type '%s'",
        parameter->getPath().c_str(),
        entityModel->getPath().c_str(),
        storage->getPath().c_str(),
        model == nullptr ? "" : model->getPath().c_str());
}

void verifyEntities(const EntityDataParameter* parameter, Object* object) {
    const auto* const storage = dynamic_cast<const zelData::EntityStorage*>(object);
    zelVerifyThrowN(storage != nullptr,
                    "%s: Can not bind an entity parameter to '%s', which is no storage",
                    parameter->getPath().c_str(),
                    object->getPath().c_str());
    verifyStorage(parameter, parameter->getEntityModel(), storage);
}

void verifyHandle(const EntityHandleParameter* parameter, Object* object) {
    zelData::Value* const value = valueOf(object);
    const zelData::EntityModel* const model = parameter->getEntityModel();
    zelVerifyThrowN(value != nullptr &&
                        isHandle(value->getFormat(), parameter->getFormat(), model->getName()),
                    "%s: Can not bind parameter of type %s to value of type %s (path: %s)",
                    parameter->getPath().c_str(),
                    typeName(parameter->getFormat()).c_str(),
                    value == nullptr ? "" : typeName(value->getFormat()).c_str(),
                    object->getPath().c_str());
    const void* const element = value->getData();
    if (element == nullptr)
        return;
    const zelData::EntityStorage* const storage =
        parameter->getMetaType() == MetaType::EntityPtr
            ? static_cast<const zelData::EntityPtr*>(element)->getStorage()
            : static_cast<const zelData::EntityInstance*>(element)->getStorage();
    if (storage != nullptr)
        verifyStorage(parameter, model, storage);
}

void verifyKind(const UnresolvedParameter* parameter, Object* object) {
    const MetaType declared = parameter->getMetaType();
    if (declared == MetaType::Pointer)
        return;
    MetaType kind = MetaType::Pointer;
    if (valueOf(object) != nullptr)
        kind = MetaType::Scalar;
    else if (dynamic_cast<ArrayParameter*>(object) != nullptr ||
             dynamic_cast<zelData::Buffer*>(object) != nullptr)
        kind = MetaType::Array;
    else if (dynamic_cast<zelData::EntityStorage*>(object) != nullptr)
        kind = MetaType::EntityData;
    zelVerifyThrowN(declared == MetaType::Unresolved || declared == kind,
                    "%s: Can not bind parameter of kind %s to '%s', which is of kind %s",
                    parameter->getPath().c_str(),
                    Parameter::getMetaTypeName(declared),
                    object->getPath().c_str(),
                    Parameter::getMetaTypeName(kind));
    if (kind == MetaType::Scalar)
        verifyValue(parameter, parameter->getFormat(), object);
}

} // namespace

void verifyBindable(const Parameter* parameter, Object* object) {
    Object* const target = Parameter::followPointers(object);
    if (target == nullptr)
        return; // nothing gets bound, which shows when the task is to run
    if (const auto* scalar = dynamic_cast<const ScalarParameter*>(parameter))
        verifyValue(parameter, scalar->getValue()->getFormat(), target);
    else if (dynamic_cast<const ArrayParameter*>(parameter) != nullptr)
        verifyBuffer(parameter, target);
    else if (const auto* entities = dynamic_cast<const EntityDataParameter*>(parameter))
        verifyEntities(entities, target);
    else if (const auto* handle = dynamic_cast<const EntityHandleParameter*>(parameter))
        verifyHandle(handle, target);
    else if (const auto* unresolved = dynamic_cast<const UnresolvedParameter*>(parameter))
        verifyKind(unresolved, target);
}

} // namespace zel
