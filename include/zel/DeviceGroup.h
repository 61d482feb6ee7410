#pragma once

#include <zel/Device.h>
#include <zel/Export.h>
#include <zel/HashTable.h>
#include <zel/ref_ptr.h>

namespace zel {

/// Devices that are used together, one of each type at most. Has no memory of its own: to create or transfer
/// buffers here ends the process.
/// @threads owner thread
class ZEL_CORE_API DeviceGroup : public Device {
public:
    /// @param primary  lends the group its type and byte order; may not be null. Is not entered in the table.
    DeviceGroup(const Name& name, Device* primary);
    ~DeviceGroup() override;

    [[nodiscard]] zelData::Buffer* createBuffer(const zelData::Format* format) override;
    using Device::createBuffer;
    ref_ptr<SyncTag>
    sendData(const void* source, zelData::Buffer* buffer, size_t index, size_t count, bool blocking) override;
    ref_ptr<SyncTag>
    receiveData(void* target, zelData::Buffer* buffer, size_t index, size_t count, bool blocking) override;

    /// The device of a type. Creates nothing, in spite of its name.
    /// @return null if there is none in the table
    [[nodiscard]] Device* getOrCreateDevice(Device::Type type) const;
    /// Enters a device in the table, in place of one of its type.
    void addDevice(Device* device);
    [[nodiscard]] Device* getPrimaryDevice() const noexcept { return m_primaryDevice.get(); }
    void setPrimaryDevice(Device* device) { m_primaryDevice = device; }

    [[nodiscard]] static Model* ClassModel();

private:
    ref_ptr<Device> m_primaryDevice;
    HashTable<Device::Type, ref_ptr<Device>> m_devices;
};

} // namespace zel
