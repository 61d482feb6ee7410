#include <zel/Component.h>
#include <zel/CpuDevice.h>
#include <zel/Device.h>
#include <zel/DeviceGroup.h>
#include <zel/Model.h>
#include <zel/observer_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/Buffer.h>
#include <zelData/Format.h>
#include <zelData/Type.h>

#include <support/FirstLife.h>
#include <support/MemoryDevice.h>
#include <tinyxml.h>

#include <array>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using testing::HasSubstr;
using zel::Component;
using zel::CpuDevice;
using zel::Device;
using zel::DeviceGroup;
using zel::ref_ptr;
using zelData::Buffer;
using zelData::getFormat;
using zelData::getType;
using zelTest::MemoryDevice;

TEST(DeviceTest, GivesEachTypeItsFormat) {
    const ref_ptr<MemoryDevice> device(new MemoryDevice);
    EXPECT_EQ(device->getTypeFormat(getType("Real")), getFormat("Real:64bit"));
    device->setTypeFormat(getType("Real"), getFormat("Real:32bit"));
    EXPECT_EQ(device->getTypeFormat(getType("Real")), getFormat("Real:32bit"));
    EXPECT_EQ(ref_ptr<Buffer>(device->createBuffer(getType("Real")))->getFormat(), getFormat("Real:32bit"));
    device->setTypeFormat("Vec3", "32bit");
    EXPECT_EQ(device->getTypeFormat(getType("Vec3")), getFormat("Vec3:32bit"));
    device->setTypeFormat(getType("Real"), nullptr);
    EXPECT_EQ(device->getTypeFormat(getType("Real")), getFormat("Real:64bit"));
}

TEST(DeviceTest, KeepsACopyOfABufferUntilTheOriginalDies) {
    const ref_ptr<MemoryDevice> device(new MemoryDevice);
    const ref_ptr<Component> top(new Component("top"));
    zel::observer_ptr<Buffer> copy;
    ref_ptr<Buffer> original(new Buffer("b", getFormat("Real:64bit")));
    top->addObject(original.get());
    copy = device->getBuffer(original.get());
    ASSERT_NE(copy.get(), nullptr);
    EXPECT_EQ(device->getBuffer(original.get()), copy.get());
    EXPECT_EQ(device->getBuffer(copy.get()), copy.get());
    EXPECT_EQ(copy->getName(), zel::Name("b"));
    EXPECT_EQ(copy->getContext(), top.get());
    EXPECT_EQ(copy->getOriginalBuffer(), original.get());
    EXPECT_EQ(copy->getFormat(), original->getFormat());
    EXPECT_EQ(copy->getDevice(), device.get());
    const ref_ptr<Buffer> kept(copy.get());
    top->removeObject(original.get());
    original = nullptr;
    EXPECT_EQ(kept->getOriginalBuffer(), nullptr);
    EXPECT_EQ(kept->getContext(), nullptr);
    EXPECT_EQ(kept->referenceCount(), 1);
}

TEST(DeviceTest, DropsItsCopyWithTheOriginal) {
    const ref_ptr<MemoryDevice> device(new MemoryDevice);
    ref_ptr<Buffer> original(new Buffer(getFormat("Int")));
    zel::observer_ptr<Buffer> copy(device->getBuffer(original.get()));
    original = nullptr;
    EXPECT_EQ(copy.get(), nullptr);
}

TEST(DeviceTest, MayGoAheadOfTheOriginals) {
    ref_ptr<Buffer> original(new Buffer(getFormat("Int")));
    {
        const ref_ptr<MemoryDevice> device(new MemoryDevice);
        static_cast<void>(device->getBuffer(original.get()));
    }
    original = nullptr;
}

TEST(DeviceTest, IsNotKeptByItsCopies) {
    const ref_ptr<Buffer> original(new Buffer(getFormat("Int")));
    ref_ptr<MemoryDevice> device(new MemoryDevice);
    const zel::observer_ptr<MemoryDevice> watched(device.get());
    const ref_ptr<Buffer> copy(device->getBuffer(original.get()));
    EXPECT_EQ(copy->getDevice(), device.get());
    device = nullptr;
    EXPECT_EQ(watched.get(), nullptr);
    EXPECT_EQ(copy->getDevice(), nullptr);
    EXPECT_EQ(copy->getOriginalBuffer(), nullptr);
}

TEST(DeviceTest, IsKeptByACopyWhoseOriginalIsGone) {
    ref_ptr<Buffer> original(new Buffer(getFormat("Int")));
    ref_ptr<MemoryDevice> device(new MemoryDevice);
    const zel::observer_ptr<MemoryDevice> watched(device.get());
    ref_ptr<Buffer> copy(device->getBuffer(original.get()));
    original = nullptr;
    device = nullptr;
    EXPECT_NE(watched.get(), nullptr);
    EXPECT_EQ(copy->getDevice(), watched.get());
    copy = nullptr;
    EXPECT_EQ(watched.get(), nullptr);
}

TEST(DeviceTest, IsLoadedByItsType) {
    TiXmlElement element("Device");
    element.SetAttribute("type", "CPU");
    element.SetAttribute("name", "mine");
    const ref_ptr<zel::Object> object(zel::Object::load(&element, nullptr));
    EXPECT_NE(dynamic_cast<CpuDevice*>(object.get()), nullptr);
    EXPECT_EQ(object->getName(), zel::Name("mine"));
    EXPECT_NE(object.get(), CpuDevice::instance());
    TiXmlElement untyped("Device");
    try {
        static_cast<void>(Device::load(&untyped, nullptr));
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), HasSubstr("XML error: Device must specify a type. Error at row"));
    }
}

TEST(DeviceDeathTest, RefusesUnknownNames) {
    TiXmlElement element("Device");
    element.SetAttribute("type", "Abacus");
    EXPECT_DEATH(static_cast<void>(Device::load(&element, nullptr)),
                 "zelAbort: Unknown device type 'Abacus'");
    const ref_ptr<MemoryDevice> device(new MemoryDevice);
    EXPECT_DEATH(device->setTypeFormat("Rael", "32bit"), "memory: No type named 'Rael'");
    EXPECT_DEATH(device->setTypeFormat("Real", "8bit"), "memory: No format named 'Real:8bit'");
}

TEST(DeviceDeathTest, ASecondDestroyEventIsUnknown) {
    const ref_ptr<MemoryDevice> device(new MemoryDevice);
    const ref_ptr<Buffer> buffer(new Buffer(getFormat("Int")));
    static_cast<void>(device->getBuffer(buffer.get()));
    device->destroyCallback(buffer.get());
    EXPECT_DEATH(device->destroyCallback(buffer.get()), "zelVerify failed: `it != m_bufferTable.end\\(\\)'");
    buffer->Object::removeListener(device.get());
}

TEST(CpuDeviceTest, IsOneForTheProcess) {
    std::vector<std::thread> threads;
    std::array<CpuDevice*, 4> devices{};
    for (CpuDevice*& device : devices)
        threads.emplace_back([&device] { device = CpuDevice::instance(); });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(std::set(devices.begin(), devices.end()).size(), 1U);
    EXPECT_EQ(devices[0]->getName(), zel::Name("CpuDevice"));
    EXPECT_EQ(devices[0]->getType(), Device::Type::Cpu);
    EXPECT_EQ(devices[0]->getTypeName(), "CPU");
    EXPECT_EQ(devices[0]->getByteOrder(), Device::NativeByteOrder);
    EXPECT_TRUE(CpuDevice::ClassModel()->is(Device::ClassModel()));
}

TEST(CpuDeviceTest, EndsWithTheServicesOfTheLibrary) {
    ZEL_FIRST_LIFE_ONLY();
    zelCore::init();
    zel::observer_ptr<CpuDevice> device(CpuDevice::instance());
    ASSERT_NE(device.get(), nullptr);
    zelCore::shutdown();
    EXPECT_EQ(device.get(), nullptr);
}

TEST(CpuDeviceTest, CopiesElements) {
    CpuDevice* device = CpuDevice::instance();
    const ref_ptr<Buffer> buffer(device->createBuffer(getFormat("Int:32bit")));
    EXPECT_EQ(buffer->getDevice(), device);
    buffer->resize(5);
    const std::array<zel::int32, 3> sent{7, 8, 9};
    EXPECT_FALSE(device->sendData(sent.data(), buffer.get(), 1, 3, true));
    const auto* elements = buffer->data<zel::int32>();
    EXPECT_EQ(std::vector(elements, elements + 5), (std::vector<zel::int32>{0, 7, 8, 9, 0}));
    std::array<zel::int32, 2> received{};
    const ref_ptr<zel::SyncTag> tag = device->receiveData(received.data(), buffer.get(), 2, 2, false);
    EXPECT_EQ(received, (std::array<zel::int32, 2>{8, 9}));
    ASSERT_TRUE(tag);
    EXPECT_NE(dynamic_cast<CpuDevice::SyncTag*>(tag.get()), nullptr);
    EXPECT_EQ(tag->wait(), 1);
    EXPECT_EQ(tag->getStatus(), 1);
    EXPECT_EQ(device->sendData(nullptr, buffer.get(), 5, 0, false), tag);
}

TEST(CpuDeviceTest, HasAPoolForJobs) {
    const ref_ptr<CpuDevice> device(new CpuDevice("d"));
    auto& pool = device->getJobPool();
    const auto* chunk = pool.getAllocator().getNewestChunk();
    EXPECT_EQ(chunk->end - chunk->begin, 18944);
    zel::RangeJob* job = pool.allocate();
    job->setRange(zel::IndexRange(3, 4));
    pool.deallocate(job);
    EXPECT_EQ(pool.size(), 0U);
}

TEST(CpuDeviceDeathTest, HasNoQueueOfItsOwn) {
    EXPECT_DEATH(CpuDevice::instance()->enqueue(nullptr), "^\\[.*:[0-9]+\\] zelAbort\n");
    EXPECT_DEATH(CpuDevice::instance()->wait(true), "^\\[.*:[0-9]+\\] zelAbort\n");
}

TEST(CpuDeviceDeathTest, StaysWithinTheBuffer) {
    CpuDevice* device = CpuDevice::instance();
    const ref_ptr<Buffer> buffer(new Buffer("b", getFormat("Int:32bit")));
    buffer->resize(2);
    std::array<zel::int32, 3> memory{};
    EXPECT_DEATH(device->sendData(memory.data(), buffer.get(), 0, 3, true), "b: elements 0 to 3 of 2");
    EXPECT_DEATH(device->receiveData(memory.data(), buffer.get(), 3, 1, true), "b: elements 3 to 4 of 2");
}

TEST(DeviceGroupTest, CreatesNoDevices) {
    const ref_ptr<MemoryDevice> primary(new MemoryDevice);
    const ref_ptr<DeviceGroup> group(new DeviceGroup("g", primary.get()));
    EXPECT_EQ(group->getPrimaryDevice(), primary.get());
    EXPECT_EQ(group->getType(), MemoryDevice::DeviceType);
    EXPECT_EQ(group->getOrCreateDevice(Device::Type::Cpu), nullptr);
    EXPECT_EQ(group->getOrCreateDevice(Device::Type::Cpu), nullptr);
    group->addDevice(CpuDevice::instance());
    EXPECT_EQ(group->getOrCreateDevice(Device::Type::Cpu), CpuDevice::instance());
    EXPECT_EQ(group->getOrCreateDevice(MemoryDevice::DeviceType), nullptr);
    group->setPrimaryDevice(CpuDevice::instance());
    EXPECT_EQ(group->getPrimaryDevice(), CpuDevice::instance());
}

TEST(DeviceGroupDeathTest, HasNoMemory) {
    const ref_ptr<DeviceGroup> group(new DeviceGroup("g", CpuDevice::instance()));
    EXPECT_DEATH(static_cast<void>(group->createBuffer(getFormat("Int"))), "\\] zelAbort: DeviceGroup\n");
    EXPECT_DEATH(group->sendData(nullptr, nullptr, 0, 0, true), "\\] zelAbort: DeviceGroup\n");
    EXPECT_DEATH(group->receiveData(nullptr, nullptr, 0, 0, true), "\\] zelAbort: DeviceGroup\n");
    EXPECT_DEATH(DeviceGroup("g", nullptr), "zelVerify failed: `primary'");
}
