#include <zel/CpuDevice.h>
#include <zel/InitCallback.h>
#include <zel/Model.h>
#include <zel/ServicePointer.h>
#include <zel/Singleton.h>
#include <zel/Verify.h>
#include <zelData/Buffer.h>
#include <zelData/Format.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>

namespace zel {

namespace {

/// Room for 64 jobs of a usual size, in bytes.
constexpr unsigned JobChunk = 18944;
constexpr int32 DevicePriority = 9985;

constinit ServicePointer<CpuDevice> s_cpuDevice; // counted

/// Lets go of the device when those that use it have gone.
class CpuDeviceSingleton : public Singleton {
public:
    CpuDeviceSingleton() : Singleton(DevicePriority) {}
    void shutdown() override {
        if (CpuDevice* device = s_cpuDevice.find()) {
            s_cpuDevice.forget(device);
            device->unreference();
        }
    }
    [[nodiscard]] std::string getClassName() const override { return __PRETTY_FUNCTION__; }
};

ZEL_STATIC_INIT {
    new CpuDeviceSingleton;
} // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks): the manager owns it

void* elementsOf(const zelData::Buffer* buffer, size_t index, size_t count) {
    zelVerifyN(index <= buffer->size() && count <= buffer->size() - index,
               "%s: elements %lu to %lu of %lu",
               buffer->getPath().c_str(),
               index,
               index + count,
               buffer->size());
    return buffer->getElement(index);
}

} // namespace

int32 CpuDevice::SyncTag::wait() {
    return 1;
}

int32 CpuDevice::SyncTag::getStatus() {
    return 1;
}

CpuDevice::CpuDevice(const Name& name)
    : Device(name, Type::Cpu, "CPU", NativeByteOrder)
    , m_syncTag(new SyncTag)
    , m_jobPool("MemoryPool", JobChunk) {
    setModel(ClassModel());
}

CpuDevice::~CpuDevice() = default;

CpuDevice* CpuDevice::instance() {
    if (CpuDevice* device = s_cpuDevice.find())
        return device;
    // Its constructor looks types up; a storage, which asks for the device, holds the mutex already.
    const std::lock_guard lock(getTypeSystemMutex());
    return s_cpuDevice.get([] {
        auto* device = new CpuDevice("CpuDevice");
        device->reference();
        return device;
    });
}

zelData::Buffer* CpuDevice::createBuffer(const zelData::Format* format) {
    auto* buffer = new zelData::Buffer(format);
    buffer->setDevice(this);
    return buffer;
}

ref_ptr<zel::SyncTag>
CpuDevice::sendData(const void* source, zelData::Buffer* buffer, size_t index, size_t count, bool blocking) {
    if (void* const target = elementsOf(buffer, index, count); count != 0)
        std::memcpy(target, source, count * buffer->getElementSize());
    return blocking ? nullptr : m_syncTag;
}

ref_ptr<zel::SyncTag>
CpuDevice::receiveData(void* target, zelData::Buffer* buffer, size_t index, size_t count, bool blocking) {
    if (const void* const source = elementsOf(buffer, index, count); count != 0)
        std::memcpy(target, source, count * buffer->getElementSize());
    return blocking ? nullptr : m_syncTag;
}

void CpuDevice::enqueue(Task*) {
    zelAbort();
}

void CpuDevice::wait(bool) {
    zelAbort();
}

Model* CpuDevice::ClassModel() {
    static std::atomic<Model*> s_model{nullptr};
    return Model::createBuiltinModel("zel.CpuDevice", Device::ClassModel(), s_model);
}

} // namespace zel
