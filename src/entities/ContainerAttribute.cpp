#include "VectorFormat.h"
#include "tree/XmlPlace.h"

#include <zel/Exception.h>
#include <zel/Model.h>
#include <zel/Verify.h>
#include <zel/XmlLoader.h>
#include <zelData/ArrayAttribute.h>
#include <zelData/ContainerAttribute.h>
#include <zelData/Format.h>
#include <zelData/HashSetAttribute.h>
#include <zelData/Type.h>
#include <zelData/Value.h>
#include <zelData/VectorAttribute.h>

#include <mutex>

namespace zelData {

namespace {

/// The type of containers of what the attribute describes, such as "Array<Real>".
const Type* containerType(const char* container, const ScalarAttribute* elementAttribute) {
    zelVerify(elementAttribute);
    const Format* format = elementAttribute->getDefaultFormat();
    const Type* elementType = elementAttribute->getType();
    // The type's name stands for its default format; elements of another format are named in full.
    const zel::String element =
        format == elementType->getDefaultFormat() ? elementType->getName().str() : format->fullName();
    return getType(zel::String(container) + "<" + element + ">");
}

/// @return null for vectors of what no vectors are made of
const Format* containerFormat(const char* container, const ScalarAttribute* elementAttribute) {
    const std::lock_guard lock(zel::getTypeSystemMutex());
    const Type* type = containerType(container, elementAttribute);
    if (type->getDefaultFormat() == nullptr)
        if (Format* format = createVectorFormat(getFormat(elementAttribute->getDefaultFormat()->fullName())))
            getType(type->getName())->addFormat(format, true);
    return type->getDefaultFormat();
}

const Format* requireContainerFormat(const char* container, const ScalarAttribute* elementAttribute) {
    const Format* format = containerFormat(container, elementAttribute);
    zelVerifyN(format != nullptr,
               "No vectors are made of elements of '%s'",
               elementAttribute->getDefaultFormat()->fullName().c_str());
    return format;
}

} // namespace

ContainerAttribute::ContainerAttribute(const zel::Name& name,
                                       const char* container,
                                       ScalarAttribute* elementAttribute)
    : ScalarAttribute(name, requireContainerFormat(container, elementAttribute))
    , m_elementAttribute(elementAttribute) {}

ContainerAttribute::~ContainerAttribute() = default;

ArrayAttribute::ArrayAttribute(const zel::Name& name, ScalarAttribute* elementAttribute)
    : ContainerAttribute(name, "Array", elementAttribute) {
    setModel(ClassModel());
}

ArrayAttribute* ArrayAttribute::load(zel::TiXmlElement* element) {
    const zel::ref_ptr<ScalarAttribute> elementAttribute(ScalarAttribute::load(element));
    return new ArrayAttribute(elementAttribute->getName(), elementAttribute.get());
}

zel::Model* ArrayAttribute::ClassModel() {
    static std::atomic<zel::Model*> s_model{nullptr};
    return zel::Model::createBuiltinModel("zelData.ArrayAttribute", ScalarAttribute::ClassModel(), s_model);
}

VectorAttribute::VectorAttribute(const zel::Name& name, ScalarAttribute* elementAttribute)
    : ContainerAttribute(name, "Vector", elementAttribute) {
    setModel(ClassModel());
}

VectorAttribute* VectorAttribute::load(zel::TiXmlElement* element) {
    const zel::ref_ptr<ScalarAttribute> elementAttribute(ScalarAttribute::load(element));
    if (containerFormat("Vector", elementAttribute.get()) == nullptr)
        ZEL_XML_ERROR(element,
                      zel::String::format("No vectors are made of elements of '%s'",
                                          elementAttribute->getDefaultFormat()->fullName().c_str()));
    return new VectorAttribute(elementAttribute->getName(), elementAttribute.get());
}

zel::Model* VectorAttribute::ClassModel() {
    static std::atomic<zel::Model*> s_model{nullptr};
    return zel::Model::createBuiltinModel("zelData.VectorAttribute", ScalarAttribute::ClassModel(), s_model);
}

HashSetAttribute* HashSetAttribute::load(zel::TiXmlElement* element) {
    zel::warnAt(element, "sets as attributes are not supported, and end the process");
    zelAbort("TODO: We want both bucket format and element attribute. Bucket size calculation? :/");
}

} // namespace zelData
