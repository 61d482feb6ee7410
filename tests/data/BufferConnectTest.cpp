#include <zelData/Buffer.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>

#include <gtest/gtest.h>

#include <vector>

// A buffer that follows a storage; the storage's own side is tested with the storages.

using zel::Path;
using zel::ref_ptr;
using zel::uint64;
using zelData::Buffer;
using zelData::EntityStorage;
using zelData::Value;
using zelData::ValueT;

namespace {

class BufferConnectTest : public testing::Test {
protected:
    void SetUp() override {
        m_storage->resize(4);
        m_buffer->setContext(m_storage.get()); // as the storage's own columns
    }
    void TearDown() override { m_buffer->disconnect(); }

    /// What the storage does for its columns when its size changes.
    void resizeStorage(uint64 n) {
        m_storage->resize(n);
        m_buffer->reserveCallback(m_storage->getCapacityValue());
        m_buffer->resizeCallback(m_storage->getSizeValue());
    }

    ref_ptr<EntityStorage> m_storage{new EntityStorage("s")};
    ref_ptr<Buffer> m_buffer{new Buffer("b", zelData::getFormat("Real:64bit"))};
};
using BufferConnectDeathTest = BufferConnectTest;

} // namespace

TEST_F(BufferConnectTest, TakesTheStoragesSizeAndValues) {
    m_buffer->connect(m_storage.get(), nullptr);
    EXPECT_EQ(m_buffer->getStorage(), m_storage.get());
    EXPECT_EQ(m_buffer->size(), 4U);
    EXPECT_GE(m_buffer->capacity(), m_storage->getCapacityValue()->get());
    EXPECT_EQ(m_buffer->getNumElementsValue(), m_storage->getSizeValue());
    EXPECT_EQ(m_buffer->getCapacityValue(), m_storage->getCapacityValue());
    EXPECT_EQ(m_buffer->getNumObjects(), 0U);
    EXPECT_EQ(m_buffer->getResource(Path("numElements")), m_storage->getSizeValue());
    EXPECT_EQ(m_storage->getSizeValue()->getContext(), m_storage.get());
}

TEST_F(BufferConnectTest, IsDrivenByTheStorageAlone) {
    m_buffer->connect(m_storage.get(), nullptr);
    const void* memory = m_buffer->getPtr();
    const uint64 capacity = m_buffer->capacity();
    m_buffer->resize(1000);
    m_buffer->resize(0);
    m_buffer->reserve(100000);
    EXPECT_EQ(m_buffer->size(), 4U);
    EXPECT_EQ(m_buffer->capacity(), capacity);
    EXPECT_EQ(m_buffer->getPtr(), memory);
    EXPECT_EQ(m_storage->getSizeValue()->get(), 4U);
    resizeStorage(100);
    EXPECT_EQ(m_buffer->size(), 100U);
    EXPECT_EQ(m_buffer->data<double>()[99], 0.0);
}

TEST_F(BufferConnectTest, HasSeveralElementsForEachInstance) {
    m_buffer->setElementArraySize(ref_ptr<Value>(new ValueT<uint64>("n", 3)).get());
    m_buffer->connect(m_storage.get(), nullptr);
    EXPECT_EQ(m_buffer->size(), 12U);
    EXPECT_NE(m_buffer->getNumElementsValue(), m_storage->getSizeValue());
    EXPECT_EQ(m_buffer->getNumElementsValue()->get(), 12U);
    resizeStorage(50);
    EXPECT_EQ(m_buffer->size(), 150U);
    EXPECT_EQ(m_buffer->getNumElementsValue()->get(), 150U);
    EXPECT_EQ(m_buffer->getCapacityValue()->get(), 3 * m_storage->getCapacityValue()->get());
    EXPECT_EQ(m_buffer->capacity(), m_buffer->getCapacityValue()->get());
}

TEST_F(BufferConnectTest, AnArraySizeOfOneIsNone) {
    m_buffer->setElementArraySize(ref_ptr<Value>(new ValueT<uint64>("n", 1)).get());
    m_buffer->connect(m_storage.get(), nullptr);
    EXPECT_EQ(m_buffer->getNumElementsValue(), m_storage->getSizeValue());
}

TEST_F(BufferConnectTest, IsFreeAgainAfterwards) {
    m_buffer->connect(m_storage.get(), nullptr);
    m_buffer->data<double>()[3] = 8;
    const uint64 capacity = m_buffer->capacity();
    m_buffer->disconnect();
    EXPECT_EQ(m_buffer->getStorage(), nullptr);
    EXPECT_EQ(m_buffer->getNumElementsValue()->get(), 4U);
    EXPECT_EQ(m_buffer->getCapacityValue()->get(), capacity);
    EXPECT_EQ(m_buffer->getResource(Path("numElements")), m_buffer->getNumElementsValue());
    m_storage->resize(9);
    EXPECT_EQ(m_buffer->size(), 4U);
    m_buffer->resize(5);
    EXPECT_EQ(m_buffer->size(), 5U);
    EXPECT_EQ(m_buffer->data<double>()[3], 8.0);
    m_buffer->connect(m_storage.get(), nullptr);
    EXPECT_EQ(m_buffer->size(), 9U);
}

TEST_F(BufferConnectTest, GrowsOnItsOwnWhenTheStorageHasNotReserved) {
    m_buffer->connect(m_storage.get(), nullptr);
    const ref_ptr<ValueT<uint64>> size(new ValueT<uint64>("n", 1000));
    m_buffer->resizeCallback(size.get(), true);
    EXPECT_EQ(m_buffer->size(), 1000U);
    EXPECT_EQ(m_buffer->capacity(), 1500U);
    m_buffer->presize(3000, 2000);
    EXPECT_EQ(m_buffer->capacity(), 3000U);
    EXPECT_EQ(m_buffer->size(), 2000U);
}

TEST_F(BufferConnectDeathTest, BelongsToOneStorage) {
    m_buffer->connect(m_storage.get(), nullptr);
    EXPECT_DEATH(m_buffer->connect(m_storage.get(), nullptr), "b: The buffer is connected to a storage");
}
