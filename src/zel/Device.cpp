#include <zel/Device.h>
#include <zel/Model.h>
#include <zel/Verify.h>
#include <zelData/Buffer.h>

namespace zel {

Device::Device(const Name& name, Type type, const String& typeName, ByteOrder byteOrder)
    : Component(name, ClassModel()), m_type(type), m_typeName(typeName), m_byteOrder(byteOrder) {}

Device::~Device() {
    for (const auto& entry : m_bufferTable)
        entry.key->removeListener(this);
}

void Device::setTypeFormat(const zelData::Type* type, const zelData::Format* format) {
    if (format == nullptr)
        m_typeFormats.erase(type);
    else
        m_typeFormats.insert(type, format);
}

void Device::destroyCallback(Object* object) {
    const auto it = m_bufferTable.find(object);
    zelVerify(it != m_bufferTable.end());
    const ref_ptr<zelData::Buffer> copy(it->value);
    m_bufferTable.erase(it);
    copy->setOriginalBuffer(nullptr);
    copy->setContext(nullptr);
}

Model* Device::ClassModel() {
    static std::atomic<Model*> s_model{nullptr};
    return Model::createBuiltinModel("zel.Device", Component::ClassModel(), s_model);
}

} // namespace zel
