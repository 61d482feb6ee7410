#include <zel/Device.h>
#include <zel/Model.h>

namespace zel {

Device::Device(const Name& name, Type type, const String& typeName, ByteOrder byteOrder)
    : Component(name, ClassModel()), m_type(type), m_typeName(typeName), m_byteOrder(byteOrder) {}

Model* Device::ClassModel() {
    static std::atomic<Model*> s_model{nullptr};
    return Model::createBuiltinModel("zel.Device", Component::ClassModel(), s_model);
}

} // namespace zel
