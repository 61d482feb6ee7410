#include <zel/ref_ptr.h>
#include <zelData/Buffer.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>

#include <gtest/gtest.h>
#include <support/WhatOf.h>

#include <functional>
#include <stdexcept>
#include <utility>

// Callbacks that change the buffer which calls them, let go of it, or throw.

using zel::int64;
using zel::ref_ptr;
using zel::uint64;
using zelData::Buffer;
using zelData::getFormat;
using zelData::Value;
using zelData::ValueT;
using zelTest::whatOf;

namespace {

struct Listener : Buffer::EventListener {
    void updateCallback(Buffer* buffer) override { hear(buffer); }
    void resizeCallback(Buffer* buffer, unsigned int, unsigned int) override { hear(buffer); }
    void hear(Buffer* buffer) {
        ++numCalls;
        if (work)
            work(buffer);
    }
    std::function<void(Buffer*)> work;
    int numCalls = 0;
};

class BufferCallbackTest : public testing::Test {
protected:
    ref_ptr<Buffer> buffer{new Buffer("b", getFormat("Int:64bit"))};

    void setArraySize(uint64 n) {
        const ValueT<uint64> value("n", n);
        buffer->setElementArraySize(&value);
    }
    void expectEntries(uint64 entries, uint64 arraySize) const {
        EXPECT_EQ(buffer->getNumElementsValue()->get(), entries);
        EXPECT_EQ(buffer->getElementArraySize(), arraySize);
        EXPECT_EQ(dynamic_cast<ValueT<uint64>*>(buffer->getElementArraySizeValue())->get(), arraySize);
        EXPECT_EQ(buffer->size(), entries * arraySize);
        EXPECT_GE(buffer->capacity(), buffer->size());
    }
};

} // namespace

TEST_F(BufferCallbackTest, AListenerMayLetGoOfTheBuffer) {
    using Work = void (*)(Buffer*);
    const Work works[] = {
        [](Buffer* b) { b->resize(2); },
        [](Buffer* b) { b->resize(30); },
        [](Buffer* b) { b->getNumElementsValue()->set(30); },
        [](Buffer* b) { b->commit(); },
        [](Buffer* b) {
            const ValueT<uint64> two("n", 2);
            b->setElementArraySize(&two);
        },
    };
    for (const Work work : works) {
        ref_ptr<Buffer> only(new Buffer("only", getFormat("Int:64bit")));
        only->resize(3);
        Listener listeners[2];
        for (Listener& listener : listeners) {
            only->addListener(&listener);
            listener.work = [&](Buffer* b) {
                for (Listener& one : listeners)
                    b->removeListener(&one);
                only = nullptr;
            };
        }
        work(only.get());
        EXPECT_FALSE(only);
        EXPECT_EQ(listeners[0].numCalls + listeners[1].numCalls, 1);
    }
}

TEST_F(BufferCallbackTest, WhoCachesTheMemoryMayLetGoOfTheBuffer) {
    using Work = void (*)(Buffer*);
    const Work works[] = {
        [](Buffer* b) { b->resize(100); },
        [](Buffer* b) { b->reserve(100); },
        [](Buffer* b) { b->getCapacityValue()->set(100); },
        [](Buffer* b) { b->presize(100, 100); },
        [](Buffer* b) { b->swapBackBuffer(b->allocateBackBuffer()); },
    };
    for (const Work work : works) {
        ref_ptr<Buffer> only(new Buffer("only", getFormat("Int:64bit")));
        only->resize(3);
        only->reallocationEvent.connect([&](Buffer*) { only = nullptr; });
        work(only.get());
        EXPECT_FALSE(only);
    }
}

TEST_F(BufferCallbackTest, TheValueShowsTheSizeThatHolds) {
    bool once = true;
    buffer->reallocationEvent.connect([&](Buffer* b) {
        if (std::exchange(once, false))
            b->resize(3);
    });
    const ref_ptr<ValueT<uint64>> follower(new ValueT<uint64>("n", 0));
    follower->bind(buffer->getNumElementsValue());
    buffer->resize(20);
    EXPECT_EQ(buffer->size(), 20U);
    EXPECT_EQ(buffer->getNumElementsValue()->get(), 20U);
    EXPECT_EQ(follower->get(), 20U);
}

TEST_F(BufferCallbackTest, AChangeOfSizeStaysWhereACallbackThrows) {
    buffer->reallocationEvent.connect([](Buffer*) { throw std::runtime_error("memory"); });
    Listener listener;
    buffer->addListener(&listener);
    EXPECT_EQ(whatOf([&] { buffer->resize(20); }), "memory");
    EXPECT_EQ(buffer->size(), 20U);
    EXPECT_EQ(buffer->getNumElementsValue()->get(), 20U);
    EXPECT_EQ(listener.numCalls, 1);
    buffer->removeListener(&listener);
}

TEST_F(BufferCallbackTest, AnArraySizeStaysWhereAListenerThrows) {
    setArraySize(3);
    buffer->resize(10);
    Listener listener;
    listener.work = [](Buffer*) { throw std::runtime_error("listener"); };
    buffer->addListener(&listener);
    EXPECT_EQ(whatOf([&] { setArraySize(2); }), "listener");
    expectEntries(10, 2);
    EXPECT_EQ(whatOf([&] { setArraySize(4); }), "listener");
    expectEntries(10, 4);
    buffer->removeListener(&listener);
}

TEST_F(BufferCallbackTest, AnArraySizeOfZeroKeepsTheEntries) {
    buffer->resize(5);
    setArraySize(0);
    expectEntries(5, 0);
    setArraySize(2);
    expectEntries(5, 2);
    EXPECT_EQ(buffer->data<int64>()[9], 0);
}

TEST_F(BufferCallbackTest, LessMemoryThanTheCapacityGrowsInTime) {
    buffer->resize(1000);
    EXPECT_EQ(buffer->capacity(), 1500U);
    buffer->reallocate(1000);
    EXPECT_EQ(buffer->capacity(), 1500U);
    EXPECT_EQ(buffer->getMemorySize(), 8000U);
    buffer->data<int64>()[999] = 7;
    buffer->resize(1500);
    EXPECT_EQ(buffer->getMemorySize(), 12000U);
    EXPECT_EQ(buffer->data<int64>()[999], 7);
    EXPECT_EQ(buffer->data<int64>()[1499], 0);
    EXPECT_EQ(buffer->capacity(), 1500U);
}
