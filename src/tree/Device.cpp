#include "XmlPlace.h"

#include <zel/CpuDevice.h>
#include <zel/Device.h>
#include <zel/Exception.h>
#include <zel/Model.h>
#include <zel/Verify.h>
#include <zel/XmlLoader.h>
#include <zelData/Buffer.h>
#include <zelData/Format.h>
#include <zelData/Type.h>

#include <tinyxml.h>

#include <atomic>

namespace zel {

namespace {

const XmlLoaderRegistrator s_deviceLoader("Device", &Device::load);

} // namespace

Device::Device(const Name& name, Type type, const String& typeName, ByteOrder byteOrder)
    : Component(name, ClassModel()), m_type(type), m_typeName(typeName), m_byteOrder(byteOrder) {}

Device::~Device() {
    for (const auto& entry : m_bufferTable) {
        entry.key->removeListener(this);
        detach(entry.value.get(), nullptr);
    }
}

/// Lets a copy go its own way, as an owner of the device.
void Device::detach(zelData::Buffer* copy, Device* device) {
    copy->setOriginalBuffer(nullptr);
    copy->setContext(nullptr);
    copy->takeDevice(device, true);
}

void Device::setTypeFormat(const zelData::Type* type, const zelData::Format* format) {
    if (format == nullptr)
        m_typeFormats.erase(type);
    else
        m_typeFormats.insert(type, format);
}

void Device::setTypeFormat(const String& typeName, const String& formatName) {
    const zelData::Type* type = zelData::getType(typeName);
    zelVerifyN(type != nullptr, "%s: No type named '%s'", getPath().c_str(), typeName.c_str());
    const zelData::Format* format = type->getFormat(formatName);
    zelVerifyN(format != nullptr,
               "%s: No format named '%s:%s'",
               getPath().c_str(),
               typeName.c_str(),
               formatName.c_str());
    setTypeFormat(type, format);
}

const zelData::Format* Device::getTypeFormat(const zelData::Type* type) const {
    const auto it = m_typeFormats.find(type);
    return it == m_typeFormats.end() ? type->getDefaultFormat() : it->value;
}

zelData::Buffer* Device::createBuffer(const zelData::Type* type) {
    return createBuffer(getTypeFormat(type));
}

zelData::Buffer* Device::getBuffer(zelData::Buffer* original) {
    if (original->getDevice() == this)
        return original;
    if (const auto it = m_bufferTable.find(original); it != m_bufferTable.end())
        return it->value.get();
    const ref_ptr<zelData::Buffer> copy(createBuffer(original->getFormat()));
    copy->setName(original->getName());
    copy->setContext(original->getContext());
    copy->setOriginalBuffer(original);
    copy->takeDevice(this, false); // the table owns the copy
    m_bufferTable.insert(original, copy);
    original->Object::addListener(this);
    return copy.get();
}

void Device::destroyCallback(Object* object) {
    const auto it = m_bufferTable.find(object);
    zelVerify(it != m_bufferTable.end());
    const ref_ptr<zelData::Buffer> copy(it->value);
    m_bufferTable.erase(it);
    detach(copy.get(), this);
}

Device* Device::load(TiXmlElement* element, Device*) {
    const char* type = element->Attribute("type");
    if (type == nullptr)
        ZEL_XML_ERROR(element, "Device must specify a type");
    const String text(type);
    if (text == "CPU")
        return new CpuDevice(element->Attribute("name") == nullptr ? Name("CpuDevice")
                                                                   : parseAttribute<Name>(element, "name"));
    warnAt(element, "the device type '" + text + "' is unknown, which ends the process; there is 'CPU'");
    zelAbort("Unknown device type '%s'", type);
}

Model* Device::ClassModel() {
    static std::atomic<Model*> s_model{nullptr};
    return Model::createBuiltinModel("zel.Device", Component::ClassModel(), s_model);
}

} // namespace zel
