#include <zel/DeviceGroup.h>
#include <zel/Model.h>
#include <zel/Verify.h>

#include <atomic>

namespace zel {

namespace {

[[noreturn]] void refuse() {
    zelAbort("%s", "DeviceGroup");
}

Device* verified(Device* primary) {
    zelVerifyAs(primary != nullptr, "primary");
    return primary;
}

} // namespace

DeviceGroup::DeviceGroup(const Name& name, Device* primary)
    : Device(name,
             verified(primary)->getType(),
             verified(primary)->getTypeName(),
             verified(primary)->getByteOrder())
    , m_primaryDevice(primary) {
    setModel(ClassModel());
}

DeviceGroup::~DeviceGroup() = default;

zelData::Buffer* DeviceGroup::createBuffer(const zelData::Format*) {
    refuse();
}

ref_ptr<SyncTag> DeviceGroup::sendData(const void*, zelData::Buffer*, size_t, size_t, bool) {
    refuse();
}

ref_ptr<SyncTag> DeviceGroup::receiveData(void*, zelData::Buffer*, size_t, size_t, bool) {
    refuse();
}

Device* DeviceGroup::getOrCreateDevice(Device::Type type) const {
    const auto it = m_devices.find(type);
    return it == m_devices.end() ? nullptr : it->value.get();
}

void DeviceGroup::addDevice(Device* device) {
    m_devices.insert(device->getType(), device);
}

Model* DeviceGroup::ClassModel() {
    static std::atomic<Model*> s_model{nullptr};
    return Model::createBuiltinModel("zel.DeviceGroup", Device::ClassModel(), s_model);
}

} // namespace zel
