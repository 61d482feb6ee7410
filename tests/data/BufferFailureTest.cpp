#include <zel/ByteAllocator.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zelData/Buffer.h>
#include <zelData/BufferProxyAllocator.h>
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <support/WhatOf.h>

#include <string>
#include <vector>

// Initializers that throw and memory that ends: the buffer is as it was.

using testing::HasSubstr;
using zel::ByteAllocator;
using zel::ref_ptr;
using zel::String;
using zel::uint64;
using zelData::Buffer;
using zelData::getFormat;
using zelData::ValueT;
using zelTest::whatOf;

namespace {

/// Texts whose initializer throws at the n-th element, and cleans up as it has to.
class BufferFailureTest : public testing::Test {
protected:
    void SetUp() override {
        m_buffer = new Buffer("b", getFormat("String"));
        m_buffer->setElementInitializer([this](Buffer* buffer, const Buffer::Range& range) {
            uint64 i = range.begin();
            try {
                for (; i < range.end(); ++i, ++m_numAlive) {
                    if (m_left-- == 0)
                        throw std::runtime_error("initializer");
                    new (buffer->getElement(i)) String("fresh");
                }
            } catch (...) {
                destroy(buffer, range.begin(), i);
                throw;
            }
        });
        m_buffer->setElementDestructor([this](Buffer* buffer, const Buffer::Range& range) {
            destroy(buffer, range.begin(), range.end());
        });
        m_buffer->resize(4);
        for (uint64 i = 0; i < 4; ++i)
            m_buffer->data<String>()[i] = text(i);
    }
    void TearDown() override {
        ByteAllocator::triesUntilFailure = ByteAllocator::NoFailure;
        m_buffer = nullptr;
        EXPECT_EQ(m_numAlive, 0);
    }
    void destroy(Buffer* buffer, uint64 begin, uint64 end) {
        for (uint64 i = begin; i < end; ++i, --m_numAlive)
            buffer->data<String>()[i].~String();
    }
    static std::string text(uint64 i) { return "a text with memory of its own, number " + std::to_string(i); }
    void expectAsBefore(uint64 capacity) {
        EXPECT_EQ(m_buffer->size(), 4U);
        EXPECT_EQ(m_buffer->getLogicalSize(), 4U);
        EXPECT_EQ(m_buffer->capacity(), capacity);
        EXPECT_EQ(m_buffer->getCapacityValue()->get(), capacity);
        EXPECT_EQ(m_numAlive, 4);
        for (uint64 i = 0; i < 4; ++i)
            EXPECT_EQ(m_buffer->data<String>()[i], text(i));
    }

    ref_ptr<Buffer> m_buffer;
    zel::int64 m_left = 1'000'000; // elements until one fails
    zel::int64 m_numAlive = 0;
};

} // namespace

TEST_F(BufferFailureTest, AGrowthThatFailsKeepsTheElements) {
    for (zel::int64 n = 0; n < 4; ++n) { // while the present ones get their new places
        m_left = n;
        EXPECT_EQ(whatOf([this] { m_buffer->resize(20); }), "initializer");
        expectAsBefore(6);
        EXPECT_EQ(m_buffer->getNumElementsValue()->get(), 4U);
    }
    m_left = 10; // there is room, and the new ones fail
    EXPECT_EQ(whatOf([this] { m_buffer->getNumElementsValue()->set(20); }), "initializer");
    expectAsBefore(30);
    EXPECT_EQ(m_buffer->getNumElementsValue()->get(), 4U);
    m_left = 100;
    m_buffer->resize(20);
    EXPECT_EQ(m_buffer->data<String>()[19], "fresh");
    EXPECT_EQ(m_buffer->data<String>()[3], text(3));
}

TEST_F(BufferFailureTest, AReservationThatFailsKeepsTheCapacity) {
    m_left = 2;
    EXPECT_EQ(whatOf([this] { m_buffer->reserve(100); }), "initializer");
    expectAsBefore(6);
    m_left = 100;
    ByteAllocator::triesUntilFailure = 0;
    EXPECT_EQ(whatOf([this] { m_buffer->reserve(100); }),
              "b: 100 elements of format 'String:default' do not fit in memory");
    expectAsBefore(6);
    m_buffer->reserve(100);
    expectAsBefore(100);
}

TEST_F(BufferFailureTest, ABindingStaysWhereAChangeIsRefused) {
    const ref_ptr<ValueT<uint64>> wanted(new ValueT<uint64>("wanted", 4));
    m_buffer->getNumElementsValue()->bind(wanted.get());
    EXPECT_NE(whatOf([this] { m_buffer->resize(~uint64{0}); }), "no exception");
    EXPECT_EQ(m_buffer->getNumElementsValue()->getBinding(), wanted.get());
    ByteAllocator::triesUntilFailure = 0;
    EXPECT_NE(whatOf([this] { m_buffer->resize(20); }), "no exception");
    EXPECT_EQ(m_buffer->getNumElementsValue()->getBinding(), wanted.get());
    expectAsBefore(6);
    // What it follows is another's: it goes on showing it, and follows the next change.
    ByteAllocator::triesUntilFailure = 0;
    EXPECT_NE(whatOf([&] { wanted->set(20); }), "no exception");
    EXPECT_EQ(wanted->get(), 20U);
    expectAsBefore(6);
    wanted->set(5);
    EXPECT_EQ(m_buffer->size(), 5U);
}

TEST_F(BufferFailureTest, AnOverflowThatFailsLeavesTheMemory) {
    const void* memory = m_buffer->getPtr();
    m_left = 5;
    EXPECT_EQ(whatOf([this] { static_cast<void>(m_buffer->kernelOverflowReallocation(20)); }), "initializer");
    EXPECT_EQ(m_buffer->getPtr(), memory);
    expectAsBefore(6);
}

TEST_F(BufferFailureTest, ACloneThatFailsLeavesNothing) {
    m_left = 3;
    EXPECT_EQ(whatOf([this] { static_cast<void>(m_buffer->clone()); }), "initializer");
    expectAsBefore(6);
}

TEST_F(BufferFailureTest, AVectorInABufferKeepsItsElements) {
    const ref_ptr<Buffer> buffer(new Buffer("v", getFormat("Real:64bit")));
    zel::VectorPOD<double, zelData::BufferProxyAllocator> numbers;
    numbers.allocator().setBuffer(buffer.get());
    for (int i = 0; i < 4; ++i)
        numbers.push_back(i);
    const uint64 capacity = numbers.capacity();
    ByteAllocator::triesUntilFailure = 0;
    EXPECT_THAT(whatOf([&] { numbers.reserve(1000); }), HasSubstr("v: 1000 elements of format 'Real:64bit'"));
    EXPECT_EQ(numbers.capacity(), capacity);
    ASSERT_EQ(numbers.size(), 4U);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(numbers[static_cast<uint64>(i)], i);
    numbers.reserve(1000);
    numbers.allocator().commit();
    EXPECT_EQ(buffer->size(), 4U);
    EXPECT_EQ(buffer->data<double>()[3], 3);
}

TEST(BufferArraySizeTest, AChangedNumberOfElementsResizes) {
    const ref_ptr<Buffer> buffer(new Buffer("b", getFormat("Real:64bit")));
    buffer->resize(4);
    const ref_ptr<ValueT<uint64>> three(new ValueT<uint64>("three", 3));
    buffer->setElementArraySize(three.get());
    EXPECT_EQ(buffer->size(), 12U);
    EXPECT_GE(buffer->capacity(), 12U);
    EXPECT_EQ(buffer->getNumElementsValue()->get(), 4U);
    EXPECT_EQ(buffer->data<double>()[11], 0);
    auto* count = dynamic_cast<ValueT<uint64>*>(buffer->getElementArraySizeValue());
    ASSERT_NE(count, nullptr);
    count->set(100);
    EXPECT_EQ(buffer->size(), 400U);
    EXPECT_EQ(buffer->data<double>()[399], 0);
    count->set(2);
    EXPECT_EQ(buffer->size(), 8U);
    count->bind(three.get());
    EXPECT_EQ(buffer->size(), 12U);
    ByteAllocator::triesUntilFailure = 0;
    EXPECT_NE(whatOf([&] { three->set(1000); }), "no exception");
    EXPECT_EQ(buffer->size(), 12U);
    EXPECT_EQ(buffer->getElementArraySize(), 3U); // in force, whatever the value follows
    buffer->resize(5);
    EXPECT_EQ(buffer->size(), 15U);
}
