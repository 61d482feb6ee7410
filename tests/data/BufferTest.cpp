#include "BufferContent.h"

#include <zel/Component.h>
#include <zel/CpuDevice.h>
#include <zel/Model.h>
#include <zelData/Buffer.h>
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>

#include <support/LogCapture.h>
#include <support/WhatOf.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using zel::Component;
using zel::Path;
using zel::ref_ptr;
using zel::uint64;
using zelData::Buffer;
using zelData::getFormat;
using zelData::Value;
using zelData::ValueT;
using zelTest::LogCapture;

using zelTest::contentOf;
using zelTest::whatOf;

namespace {

ref_ptr<Buffer> make(const char* format = "Real:64bit") {
    return new Buffer("b", getFormat(format));
}

/// Writes down what it is told.
struct Recorder : Buffer::EventListener {
    void updateCallback(Buffer*) override { log.push_back("update"); }
    void resizeCallback(Buffer*, unsigned int oldSize, unsigned int newSize) override {
        log.push_back(std::to_string(oldSize) + "->" + std::to_string(newSize));
    }
    std::vector<std::string> log;
};

} // namespace

// Birth

TEST(BufferTest, IsBornEmptyOnTheCpu) {
    const ref_ptr<Buffer> buffer = make();
    EXPECT_EQ(buffer->size(), 0U);
    EXPECT_TRUE(buffer->empty());
    EXPECT_EQ(buffer->capacity(), 0U);
    EXPECT_EQ(buffer->getPtr(), nullptr);
    EXPECT_EQ(buffer->getDevice(), zel::CpuDevice::instance());
    EXPECT_EQ(buffer->getOriginalBuffer(), buffer.get());
    EXPECT_EQ(buffer->getDefaultValue(), getFormat("Real")->getDefaultValue());
    EXPECT_EQ(buffer->getStorage(), nullptr);
    EXPECT_EQ(buffer->getResource(Path("numElements")), buffer->getNumElementsValue());
    EXPECT_EQ(buffer->getResource(Path("b.capacity")), buffer->getCapacityValue());
    EXPECT_EQ(buffer->getResource(Path("defaultValue")), nullptr);
    EXPECT_TRUE(Buffer::ClassModel()->is(Component::ClassModel()));
}

// Size

TEST(BufferTest, GrowsByAHalf) {
    const ref_ptr<Buffer> buffer = make();
    buffer->resize(10);
    EXPECT_EQ(buffer->capacity(), 15U);
    EXPECT_EQ(buffer->getCapacityValue()->get(), 15U);
    buffer->resize(15);
    EXPECT_EQ(buffer->capacity(), 15U);
    buffer->resize(16);
    EXPECT_EQ(buffer->capacity(), 24U);
    EXPECT_EQ(buffer->size(), 16U);
    EXPECT_EQ(buffer->getLogicalSize(), 16U);
    EXPECT_EQ(buffer->getNumElementsValue()->get(), 16U);
    EXPECT_EQ(reinterpret_cast<uint64>(buffer->getPtr()) % Buffer::ALIGNMENT, 0U);
}

TEST(BufferTest, KeepsItsCapacityWhenItIsEmptied) {
    std::vector<std::pair<uint64, uint64>> destroyed; // outlives the buffer, whose destructor tells it
    const ref_ptr<Buffer> buffer = make("String");
    buffer->setElementDestructor([&](Buffer* b, const Buffer::Range& range) {
        destroyed.emplace_back(range.begin(), range.end());
        Buffer::destroyElements(b, range);
    });
    buffer->resize(10);
    const void* memory = buffer->getPtr();
    buffer->resize(0);
    EXPECT_EQ(buffer->capacity(), 15U);
    EXPECT_EQ(buffer->getPtr(), memory);
    EXPECT_THAT(destroyed, ElementsAre(std::pair<uint64, uint64>(0, 10)));
    buffer->resize(3);
    buffer->clear();
    EXPECT_EQ(buffer->size(), 0U);
    EXPECT_EQ(destroyed.size(), 2U);
}

TEST(BufferTest, ReservesFromTheCapacityOn) {
    const ref_ptr<Buffer> buffer = make();
    buffer->reserve(20);
    EXPECT_EQ(buffer->capacity(), 20U);
    const uint64 revision = buffer->getRevision();
    int updates = 0;
    int reallocations = 0;
    buffer->getCapacityValue()->updateEvent.connect([&](Value*) { ++updates; });
    buffer->reallocationEvent.connect([&](Buffer*) { ++reallocations; });
    buffer->reserve(19);
    EXPECT_EQ(updates, 0);
    EXPECT_EQ(buffer->getRevision(), revision);
    const void* memory = buffer->getPtr();
    buffer->reserve(20);
    EXPECT_EQ(updates, 1);
    EXPECT_EQ(reallocations, 1);
    EXPECT_EQ(buffer->getRevision(), revision + 1);
    EXPECT_EQ(buffer->getPtr(), memory);
    buffer->reserve(21);
    EXPECT_EQ(buffer->capacity(), 21U);
    EXPECT_NE(buffer->getPtr(), memory);
}

TEST(BufferTest, ASmallerCapacityIsANumberAndMovesNothing) {
    const ref_ptr<Buffer> buffer = make();
    buffer->resize(100);
    std::iota(buffer->data<double>(), buffer->data<double>() + 100, 0.0);
    const void* memory = buffer->getPtr();
    buffer->getCapacityValue()->set(10);
    EXPECT_EQ(buffer->capacity(), 10U);
    EXPECT_EQ(buffer->getPtr(), memory);
    buffer->getCapacityValue()->set(20); // grows again, and still holds all elements
    EXPECT_EQ(buffer->size(), 100U);
    EXPECT_EQ(buffer->data<double>()[99], 99.0);
    void* back = buffer->allocateBackBuffer();
    std::memcpy(back, buffer->getPtr(), 100 * sizeof(double));
    buffer->swapBackBuffer(back);
    EXPECT_EQ(buffer->data<double>()[99], 99.0);
}

TEST(BufferTest, WhoeverWritesTheValuesResizes) {
    const ref_ptr<Buffer> buffer = make();
    Recorder recorder;
    buffer->addListener(&recorder);
    EXPECT_TRUE(buffer->hasListener(&recorder));
    const ref_ptr<ValueT<uint64>> size(new ValueT<uint64>("n", 4));
    buffer->getNumElementsValue()->bind(size.get());
    EXPECT_EQ(buffer->size(), 4U);
    EXPECT_EQ(contentOf<double>(buffer), std::vector<double>(4, 0.0));
    size->set(6);
    EXPECT_EQ(buffer->size(), 6U);
    EXPECT_EQ(buffer->capacity(), 6U);
    size->set(2);
    EXPECT_EQ(buffer->size(), 2U);
    EXPECT_THAT(recorder.log, ElementsAre("0->4", "4->6", "6->2"));
    const ref_ptr<Value> real(new Value("r", getFormat("Real:64bit")));
    real->setExpression("7");
    buffer->getNumElementsValue()->bind(real.get());
    EXPECT_EQ(buffer->size(), 7U);
    buffer->removeListener(&recorder);
}

TEST(BufferTest, NewElementsAreCopiesOfTheDefaultValue) {
    const ref_ptr<Buffer> buffer = make();
    const ref_ptr<ValueT<double>> seven(new ValueT<double>("d", 7));
    buffer->setDefaultValue(seven.get());
    EXPECT_EQ(buffer->getResource(Path("defaultValue")), seven.get());
    buffer->resize(3);
    buffer->data<double>()[1] = 1;
    buffer->resize(4);
    EXPECT_THAT(contentOf<double>(buffer), ElementsAre(7, 1, 7, 7));
    buffer->setDefaultValue(nullptr);
    buffer->resize(5);
    EXPECT_EQ(buffer->data<double>()[4], 0.0);
    const ref_ptr<Buffer> texts = make("String");
    texts->setDefaultValue(ref_ptr<Value>(new ValueT<zel::String>("d", "text")).get());
    texts->resize(100);
    EXPECT_EQ(texts->data<zel::String>()[99], "text");
}

TEST(BufferTest, InitialisationCanBeLeftOutOnce) {
    const ref_ptr<Buffer> buffer = make();
    int initialised = 0;
    int destroyed = 0;
    buffer->setElementInitializer(
        [&](Buffer*, const Buffer::Range& range) { initialised += static_cast<int>(range.size()); });
    buffer->setElementDestructor(
        [&](Buffer*, const Buffer::Range& range) { destroyed += static_cast<int>(range.size()); });
    buffer->reserve(100);
    buffer->resize(10, false);
    EXPECT_EQ(initialised, 0);
    buffer->getNumElementsValue()->set(20);
    EXPECT_EQ(initialised, 10);
    buffer->resize(15, false);
    EXPECT_EQ(destroyed, 0);
    buffer->getNumElementsValue()->set(5);
    EXPECT_EQ(destroyed, 10);
    buffer->setElementInitializer({});
    buffer->setElementDestructor({});
    buffer->resize(50);
    buffer->resize(0);
    EXPECT_EQ(initialised, 10);
    EXPECT_EQ(destroyed, 10);
}

TEST(BufferTest, GrowthMovesTheElements) {
    const ref_ptr<Buffer> buffer = make("String");
    for (uint64 n = 1; n < 200; ++n) {
        buffer->resize(n);
        buffer->data<zel::String>()[n - 1] = "element number " + std::to_string(n - 1);
        for (uint64 i = 0; i < n; ++i)
            ASSERT_EQ(buffer->data<zel::String>()[i], "element number " + std::to_string(i));
    }
}

TEST(BufferTest, ReallocationInitialisesMovesAndDestroys) {
    std::vector<std::pair<std::string, const void*>> log; // outlives the buffer, whose destructor tells it
    const ref_ptr<Buffer> buffer = make("String");
    buffer->resize(2);
    const void* old = buffer->getPtr();
    buffer->setElementInitializer([&](Buffer* b, const Buffer::Range& range) {
        log.emplace_back("initialise " + std::to_string(range.begin()) + "-" + std::to_string(range.end()),
                         b->getPtr());
        Buffer::initializeElements(b, range);
    });
    buffer->setElementDestructor([&](Buffer* b, const Buffer::Range& range) {
        log.emplace_back("destroy " + std::to_string(range.begin()) + "-" + std::to_string(range.end()),
                         b->getPtr());
        Buffer::destroyElements(b, range);
    });
    buffer->reserve(50);
    const void* fresh = buffer->getPtr();
    EXPECT_THAT(log,
                ElementsAre(std::pair<std::string, const void*>("initialise 0-2", fresh),
                            std::pair<std::string, const void*>("destroy 0-2", old)));
}

TEST(BufferTest, SignalsEachReallocation) {
    const ref_ptr<Buffer> buffer = make();
    std::vector<void*> memory;
    const auto id = buffer->reallocationEvent.connect([&](Buffer* b) { memory.push_back(b->getPtr()); });
    buffer->resize(10);
    ASSERT_EQ(memory.size(), 1U);
    EXPECT_EQ(memory[0], buffer->getPtr());
    const auto revision = buffer->getPtrRevision();
    buffer->resize(15);
    EXPECT_EQ(memory.size(), 1U);
    EXPECT_EQ(buffer->getPtrRevision(), revision);
    buffer->resize(16);
    EXPECT_EQ(memory.size(), 2U);
    EXPECT_GT(buffer->getPtrRevision(), revision);
    buffer->reallocationEvent.find(id)->active = false; // removed by the next walk
    buffer->resize(100);
    EXPECT_EQ(memory.size(), 2U);
    EXPECT_EQ(buffer->reallocationEvent.size(), 0U);
}

TEST(BufferTest, PresizeMakesRoomWithoutEvents) {
    const ref_ptr<Buffer> buffer = make();
    Recorder recorder;
    buffer->addListener(&recorder);
    buffer->presize(100, 40);
    EXPECT_EQ(buffer->capacity(), 100U);
    EXPECT_EQ(buffer->getLogicalSize(), 100U);
    EXPECT_EQ(buffer->size(), 40U);
    EXPECT_EQ(buffer->getNumElementsValue()->get(), 0U);
    buffer->presize(50, 50);
    EXPECT_EQ(buffer->capacity(), 100U);
    EXPECT_EQ(buffer->size(), 50U);
    EXPECT_TRUE(recorder.log.empty());
    buffer->removeListener(&recorder);
}

TEST(BufferTest, KeyFrameReserveAllocatesNothing) {
    const ref_ptr<Buffer> buffer = make();
    buffer->keyFrameReserve(100);
    EXPECT_EQ(buffer->capacity(), 100U);
    EXPECT_EQ(buffer->getPtr(), nullptr);
    buffer->resize(50); // which makes the memory
    EXPECT_EQ(buffer->capacity(), 100U);
    EXPECT_EQ(contentOf<double>(buffer), std::vector<double>(50, 0.0));
    buffer->data<double>()[49] = 3;
    buffer->keyFrameReserve(1000);
    buffer->reserve(999);
    buffer->reserve(1000);
    buffer->resize(900);
    EXPECT_EQ(buffer->data<double>()[49], 3.0);
    EXPECT_EQ(buffer->data<double>()[899], 0.0);
}

TEST(BufferTest, HoldsSeveralElementsForEachEntry) {
    const ref_ptr<Buffer> buffer = make();
    EXPECT_EQ(buffer->getElementArraySize(), 1U);
    EXPECT_EQ(buffer->getElementArraySizeValue(), nullptr);
    const ref_ptr<ValueT<uint64>> three(new ValueT<uint64>("three", 3));
    buffer->setElementArraySize(three.get());
    EXPECT_EQ(buffer->getResource(Path("elementArraySize")), buffer->getElementArraySizeValue());
    buffer->resize(4);
    EXPECT_EQ(buffer->size(), 12U);
    EXPECT_EQ(buffer->capacity(), 18U);
    EXPECT_EQ(buffer->getNumElementsValue()->get(), 4U);
    EXPECT_EQ(contentOf<double>(buffer), std::vector<double>(12, 0.0));
    buffer->reserve(10);
    EXPECT_EQ(buffer->capacity(), 30U);
    buffer->keyFrameReserve(20);
    EXPECT_EQ(buffer->capacity(), 60U);
    buffer->presize(61, 61);
    EXPECT_EQ(buffer->capacity(), 63U);
}

TEST(BufferTest, HoldsElementsWithoutSize) {
    const ref_ptr<Buffer> buffer = make("Void");
    buffer->resize(100);
    EXPECT_EQ(buffer->size(), 100U);
    buffer->resize(1000);
    const ref_ptr<Buffer> clone(buffer->clone());
    EXPECT_EQ(clone->size(), 1000U);
}

TEST(BufferTest, RandomSizesKeepTheElements) {
    std::mt19937 random(3);
    const ref_ptr<Buffer> buffer = make("String");
    std::vector<std::string> expected;
    for (int step = 0; step < 2000; ++step) {
        switch (random() % 4) {
        case 0: {
            const uint64 n = random() % 100;
            buffer->resize(n);
            expected.resize(n);
            break;
        }
        case 1:
            buffer->reserve(random() % 120);
            break;
        case 2:
            buffer->getCapacityValue()->set(random() % 120);
            break;
        default:
            if (!expected.empty()) {
                const size_t i = random() % expected.size();
                expected[i] = "a text that is long enough for the heap " + std::to_string(step);
                buffer->data<zel::String>()[i] = expected[i];
            }
        }
        ASSERT_EQ(buffer->size(), expected.size());
        for (size_t i = 0; i < expected.size(); ++i)
            ASSERT_EQ(buffer->data<zel::String>()[i], expected[i]) << "step " << step;
    }
}

// Announcements

TEST(BufferTest, CommitsRaiseTheRevision) {
    const ref_ptr<Buffer> buffer = make();
    buffer->resize(10);
    uint64 revision = buffer->getRevision();
    buffer->commit();
    EXPECT_EQ(buffer->getRevision(), revision + 1);
    Recorder recorder;
    buffer->addListener(&recorder);
    buffer->commit();
    buffer->commit(zel::IndexRangeT<zel::uint32>(2, 5));
    buffer->commit(zel::uint32{3});
    zel::VectorPOD<zel::uint32> indices{1, 2};
    buffer->commit(zelData::Array<zel::uint32>(indices));
    EXPECT_EQ(buffer->getRevision(), revision + 5);
    EXPECT_EQ(recorder.log, std::vector<std::string>(4, "update"));
    revision = buffer->getRevision();
    buffer->resize(11);
    EXPECT_EQ(buffer->getRevision(), revision + 1);
    buffer->removeListener(&recorder);
}

TEST(BufferTest, ListenersMayLeaveWhileTheyAreCalled) {
    struct Leaver : Buffer::EventListener {
        void updateCallback(Buffer* buffer) override {
            ++calls;
            buffer->removeListener(this);
        }
        int calls = 0;
    };
    const ref_ptr<Buffer> buffer = make();
    std::vector<Leaver> leavers(5);
    for (Leaver& leaver : leavers)
        buffer->addListener(&leaver);
    buffer->commit();
    buffer->commit();
    for (const Leaver& leaver : leavers)
        EXPECT_EQ(leaver.calls, 1);
}

TEST(BufferTest, EventsAreRecords) {
    const ref_ptr<Buffer> buffer = make();
    const std::unique_ptr<zel::Object::Event> event(new Buffer::ResizeEvent(buffer.get(), 2, 3));
    const auto* resize = dynamic_cast<const Buffer::ResizeEvent*>(event.get());
    ASSERT_NE(resize, nullptr);
    EXPECT_EQ(resize->getBuffer(), buffer.get());
    EXPECT_EQ(resize->getOldSize(), 2U);
    EXPECT_EQ(resize->getNewSize(), 3U);
    EXPECT_EQ(Buffer::UpdateEvent(buffer.get()).getBuffer(), buffer.get());
}

// Memory at the side

TEST(BufferTest, TakesABackBuffer) {
    const ref_ptr<Buffer> buffer = make();
    buffer->resize(10);
    void* back = buffer->allocateBackBuffer();
    EXPECT_EQ(reinterpret_cast<uint64>(back) % Buffer::ALIGNMENT, 0U);
    EXPECT_NE(back, buffer->getPtr());
    std::fill_n(static_cast<double*>(back), 10, 4.0);
    int reallocations = 0;
    buffer->reallocationEvent.connect([&](Buffer*) { ++reallocations; });
    buffer->swapBackBuffer(back);
    EXPECT_EQ(buffer->getPtr(), back);
    EXPECT_EQ(contentOf<double>(buffer), std::vector<double>(10, 4.0));
    EXPECT_EQ(reallocations, 1);
    buffer->releaseBackBuffer(buffer->allocateBackBuffer());
    EXPECT_EQ(make()->allocateBackBuffer(), nullptr);
}

TEST(BufferTest, KernelsThatOverflowGetNewMemory) {
    const ref_ptr<Buffer> buffer = make("String");
    buffer->resize(2);
    buffer->data<zel::String>()[1] = "a text that is long enough for the heap";
    int reallocations = 0;
    buffer->reallocationEvent.connect([&](Buffer*) { ++reallocations; });
    void* old = buffer->kernelOverflowReallocation(20);
    EXPECT_EQ(buffer->size(), 20U);
    EXPECT_EQ(buffer->capacity(), 20U);
    EXPECT_EQ(reallocations, 1);
    EXPECT_EQ(buffer->data<zel::String>()[19], "");
    EXPECT_EQ(static_cast<zel::String*>(old)[1], "a text that is long enough for the heap");
    buffer->deleteOverflowBuffer(old, 2);
    EXPECT_EQ(buffer->size(), 20U);
}

TEST(BufferTest, MovesTheWholeCapacityOnDemand) {
    const ref_ptr<Buffer> buffer = make();
    buffer->setMovesWholeCapacity(true);
    buffer->reserve(8);
    buffer->resize(2);
    for (int i = 0; i < 8; ++i)
        buffer->data<double>()[i] = i;
    buffer->reserve(16);
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(buffer->data<double>()[i], i);
}

// Company

TEST(BufferTest, HasAnElementBufferAndAGlobalOrder) {
    const ref_ptr<Buffer> buffer = make();
    EXPECT_EQ(buffer->getGlobalOrderBuffer(), nullptr);
    Buffer* order = buffer->getOrCreateGlobalOrderBuffer();
    EXPECT_EQ(buffer->getOrCreateGlobalOrderBuffer(), order);
    EXPECT_EQ(order->getFormat(), getFormat("UInt:32bit"));
    EXPECT_EQ(buffer->getResource(Path("globalOrder")), order);
    const ref_ptr<Buffer> elements(new Buffer("elements", getFormat("Int")));
    buffer->setElementBuffer(elements.get());
    EXPECT_EQ(buffer->getElementBuffer(), elements.get());
    EXPECT_EQ(elements->getContext(), buffer.get());
    buffer->setElementBuffer(nullptr);
    EXPECT_EQ(elements->getContext(), nullptr);
    EXPECT_EQ(elements->referenceCount(), 1);
}

TEST(BufferTest, ForgetsAnOriginalThatHasGone) {
    const ref_ptr<Buffer> buffer = make();
    {
        const ref_ptr<Buffer> original = make();
        buffer->setOriginalBuffer(original.get());
        EXPECT_EQ(buffer->getOriginalBuffer(), original.get());
    }
    EXPECT_EQ(buffer->getOriginalBuffer(), nullptr);
    buffer->setOriginalBuffer(buffer.get());
    EXPECT_EQ(buffer->getOriginalBuffer(), buffer.get());
    EXPECT_EQ(buffer->referenceCount(), 1);
}

TEST(BufferTest, ItsValuesMayOutliveIt) {
    ref_ptr<ValueT<uint64>> size;
    {
        const ref_ptr<Buffer> buffer = make();
        size = buffer->getNumElementsValue();
    }
    size->set(5);
    EXPECT_EQ(size->get(), 5U);
}

// Text

TEST(BufferTest, PrintsItsElements) {
    const ref_ptr<Component> top(new Component("top"));
    const ref_ptr<Buffer> buffer = make("Int:32bit");
    top->addObject(buffer.get());
    buffer->resize(3);
    buffer->data<zel::int32>()[1] = -5;
    {
        const LogCapture log;
        buffer->print();
        EXPECT_THAT(log.text(),
                    HasSubstr("== Buffer (path: top.b, format: Int:32bit, size: 3, capacity: 4, ptr: 0x"));
        EXPECT_THAT(log.text(), HasSubstr(")\n[0]: 0\n[1]: -5\n[2]: 0\n"));
    }
    const LogCapture log;
    buffer->print(Buffer::Range(1, 100));
    EXPECT_THAT(log.text(), HasSubstr(")\n[1]: -5\n[2]: 0\n"));
    EXPECT_THAT(log.text(), testing::Not(HasSubstr("[3]")));
}

TEST(BufferTest, SaysThatATypeHasNoText) {
    const ref_ptr<Buffer> buffer = make("SpinMutex");
    buffer->resize(2);
    const LogCapture log;
    buffer->print();
    EXPECT_THAT(log.text(),
                HasSubstr("b: Can not print buffer of type 'SpinMutex', does not have an ascii format..."));
    EXPECT_THAT(log.text(), testing::Not(HasSubstr("[0]")));
}

// Misuse

TEST(BufferMaliciousTest, RefusesWhatNoMemoryCanHold) {
    const ref_ptr<Buffer> buffer = make();
    buffer->resize(3);
    const auto all = ~uint64{0};
    EXPECT_EQ(whatOf([&] { buffer->resize(all); }),
              "b: 18446744073709551615 elements of format 'Real:64bit' do not fit in memory");
    EXPECT_NE(whatOf([&] { buffer->reserve(all / 8); }), "no exception");
    EXPECT_NE(whatOf([&] { buffer->getCapacityValue()->set(all / 16); }), "no exception");
    EXPECT_NE(whatOf([&] { buffer->getNumElementsValue()->set(uint64{1} << 61U); }), "no exception");
    EXPECT_NE(whatOf([&] { buffer->presize(0, all); }), "no exception");
    EXPECT_NE(whatOf([&] { buffer->keyFrameReserve(all); }), "no exception");
    const ref_ptr<Value> huge(new ValueT<uint64>("n", all));
    EXPECT_NE(whatOf([&] { buffer->setElementArraySize(huge.get()); }), "no exception");
    EXPECT_EQ(buffer->getElementArraySize(), 1U);
    EXPECT_EQ(buffer->size(), 3U);
    EXPECT_EQ(buffer->getNumElementsValue()->get(), 3U);
    EXPECT_EQ(buffer->getCapacityValue()->get(), buffer->capacity());
    EXPECT_EQ(contentOf<double>(buffer), std::vector<double>(3, 0.0));
}

TEST(BufferMaliciousTest, AnArraySizeOfZeroHoldsNothing) {
    const ref_ptr<Buffer> buffer = make();
    buffer->setElementArraySize(ref_ptr<Value>(new ValueT<uint64>("n", 0)).get());
    buffer->resize(100);
    EXPECT_EQ(buffer->size(), 0U);
    buffer->presize(5, 5);
    EXPECT_EQ(ref_ptr<Buffer>(buffer->clone())->getFormat(), buffer->getFormat());
}

TEST(BufferDeathTest, NeedsAFormatAndItsDefault) {
    EXPECT_DEATH(Buffer("b", nullptr), "zelVerify failed: `format'");
    const ref_ptr<Buffer> buffer = make();
    const ref_ptr<Value> narrow(new Value("n", getFormat("Real:32bit")));
    EXPECT_DEATH(buffer->setDefaultValue(narrow.get()),
                 "b: The default value is of format 'Real:32bit' and the buffer of format 'Real:64bit'");
}
