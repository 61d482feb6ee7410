#include "CaptureFixture.h"

#include <zel/Clock.h>
#include <zelData/EntityStorageEvents.h>
#include <zelData/SerializedFrame.h>

#include <support/PoolThreads.h>

using testing::ElementsAre;
using testing::HasSubstr;
using zel::ref_ptr;
using zel::uint64;
using zelData::Buffer;
using zelData::EntityPtr;
using zelData::EntityStorage;
using zelData::Frame;
using zelData::FrameCapture;
using zelData::SerializedFrame;
using zelTest::elementsOf;

namespace {

class FrameCaptureTest : public zelTest::CaptureFixture {};
using FrameCaptureDeathTest = FrameCaptureTest;

// Frames

TEST_F(FrameCaptureTest, TellsWhereClocksStandIfAskedTo) {
    const auto clock = add(root.get(), new zel::Clock("clock", 10));
    EXPECT_EQ(next()->findObject("_runState"), nullptr);
    capture->captureClocks(clock.get());
    for (int i = 0; i < 3; ++i) {
        const auto frame = next();
        const auto* state = dynamic_cast<zel::Component*>(frame->findObject("_runState"));
        ASSERT_NE(state, nullptr) << "in increments, too";
        EXPECT_NE(state->findObject("clocks"), nullptr);
        clock->tick();
    }
}

TEST_F(FrameCaptureTest, TheFirstFrameIsAKeyFrameWithAll) {
    addReal("speed", 3);
    addReals("masses", 4);
    const ref_ptr<zel::Component> below = add(root.get(), new zel::Component("below"));
    add(below.get(), new zelData::ValueT<double>("height", 7));
    const ref_ptr<Frame> frame = next();
    EXPECT_TRUE(frame->isKeyFrame());
    EXPECT_TRUE(frame->isSerialized());
    EXPECT_EQ(frame->getIndex(), 0U);
    EXPECT_EQ(frame->getTimeStep(), 0.5);
    EXPECT_EQ(frame->getId(), root->getId());
    EXPECT_EQ(contentOf(frame->findObject("speed")), 3.0);
    EXPECT_THAT(elementsOf<double>(frame->getBuffer("masses")), ElementsAre(0.0, 1.0, 2.0, 3.0));
    EXPECT_EQ(contentOf(frame->getResource("below.height")), 7.0);
    EXPECT_EQ(frame->findObject("below")->getId(), below->getId());
    EXPECT_GT(capture->getMemory(), 4 * sizeof(double));
}

TEST_F(FrameCaptureTest, TakesIndexAndTimesOfAClock) {
    const ref_ptr<zel::Clock> clock(new zel::Clock("clock", 10));
    const ref_ptr<Frame> frame = capture->capture(clock.get());
    EXPECT_EQ(frame->getIndex(), clock->getFrame());
    EXPECT_EQ(frame->getTimeStep(), clock->getTimeStep());
}

TEST_F(FrameCaptureTest, AnIncrementHoldsWhatHasChanged) {
    const auto speed = addReal("speed", 3);
    addReal("height", 4);
    const ref_ptr<Buffer> masses = addReals("masses", 8);
    addReals("others", 8);
    (void)next();
    EXPECT_EQ(next()->getNumObjects(), 0U);
    speed->set(5.0);
    masses->data<double>()[6] = 60;
    masses->data<double>()[1] = 10;
    masses->data<double>()[2] = 20;
    const ref_ptr<Frame> frame = next();
    EXPECT_FALSE(frame->isKeyFrame());
    ASSERT_EQ(frame->getNumObjects(), 2U);
    EXPECT_EQ(contentOf(frame->findObject("speed")), 5.0);
    const Frame::PartialBuffer* part = partIn(frame.get(), "masses");
    ASSERT_NE(part, nullptr);
    EXPECT_EQ(part->getFullSize(), 8U);
    EXPECT_EQ(part->getId(), masses->getId());
    EXPECT_THAT(elementsOf<uint64>(part->getIndexBuffer()), ElementsAre(1U, 2U, 6U));
    EXPECT_THAT(elementsOf<double>(part->getDataBuffer()), ElementsAre(10.0, 20.0, 60.0));
    EXPECT_EQ(next()->getNumObjects(), 0U);
}

TEST_F(FrameCaptureTest, HalfOfTheElementsAreToldInWhole) {
    const ref_ptr<Buffer> masses = addReals("masses", 6);
    addReals("rest", 100);
    (void)next();
    for (const uint64 i : {0U, 2U, 4U})
        masses->data<double>()[i] += 100;
    const ref_ptr<Frame> half = next();
    EXPECT_THAT(elementsOf<double>(bufferIn(half.get(), "masses")),
                ElementsAre(100.0, 1.0, 102.0, 3.0, 104.0, 5.0));
    masses->data<double>()[5] = 0;
    masses->data<double>()[0] = 0;
    EXPECT_NE(partIn(next().get(), "masses"), nullptr);
}

TEST_F(FrameCaptureTest, ABufferThatGrowsAndShrinks) {
    const ref_ptr<Buffer> masses = addReals("masses", 10);
    addReals("rest", 100);
    (void)next();
    masses->resize(12);
    const ref_ptr<Frame> grown = next();
    ASSERT_NE(partIn(grown.get(), "masses"), nullptr);
    EXPECT_EQ(partIn(grown.get(), "masses")->getFullSize(), 12U);
    EXPECT_THAT(elementsOf<uint64>(partIn(grown.get(), "masses")->getIndexBuffer()), ElementsAre(10U, 11U));
    masses->resize(3);
    EXPECT_THAT(elementsOf<double>(bufferIn(next().get(), "masses")), ElementsAre(0.0, 1.0, 2.0));
    masses->resize(0);
    const ref_ptr<Frame> emptied = next();
    EXPECT_TRUE(emptied->isKeyFrame());
    EXPECT_EQ(emptied->findObject("masses"), nullptr);
    masses->resize(1);
    const ref_ptr<Frame> again = next();
    EXPECT_FALSE(again->isKeyFrame());
    EXPECT_NE(bufferIn(again.get(), "masses"), nullptr);
}

TEST_F(FrameCaptureTest, KeyFramesComeWhenTheyAreDueOrAskedFor) {
    addReal("speed", 3);
    capture->setKeyFrameInterval(3);
    EXPECT_EQ(capture->getKeyFrameInterval(), 3U);
    std::vector<bool> keys;
    for (int i = 0; i < 8; ++i) {
        if (i == 4)
            capture->requestKeyFrame();
        keys.push_back(next()->isKeyFrame());
    }
    EXPECT_EQ(keys, (std::vector<bool>{true, false, false, true, true, false, false, true}));
    capture->setKeyFrameInterval(0);
    for (int i = 0; i < 300; ++i)
        ASSERT_FALSE(next()->isKeyFrame());
}

TEST_F(FrameCaptureTest, AnIncrementThatWouldBeLargerIsAKeyFrame) {
    const ref_ptr<Buffer> bytes = add(root.get(), new Buffer("bytes", zelData::getFormat("UInt:8bit")));
    bytes->resize(100);
    (void)next();
    for (uint64 i = 0; i < 10; ++i)
        bytes->data<zel::uint8>()[i] = 1;
    EXPECT_FALSE(next()->isKeyFrame()); // 90 bytes
    for (uint64 i = 0; i < 20; ++i)
        bytes->data<zel::uint8>()[i] = 2;
    EXPECT_TRUE(next()->isKeyFrame());
}

TEST_F(FrameCaptureTest, WhatComesIsToldAndWhatGoesMakesAKeyFrame) {
    addReal("speed", 3);
    (void)next();
    const auto late = addReal("late", 4);
    const ref_ptr<Frame> come = next();
    EXPECT_FALSE(come->isKeyFrame());
    EXPECT_EQ(contentOf(come->findObject("late")), 4.0);
    root->removeObject(late.get());
    const ref_ptr<Frame> gone = next();
    EXPECT_TRUE(gone->isKeyFrame());
    EXPECT_EQ(gone->findObject("late"), nullptr);
    // Another one of the same name.
    addReal("late", 4);
    EXPECT_FALSE(next()->isKeyFrame());
}

TEST_F(FrameCaptureTest, AnObjectInThePlaceOfOneThatWentIsTold) {
    auto value = addReal("speed", 3);
    (void)next();
    root->removeObject(value.get());
    value = nullptr;
    add(root.get(), new zelData::Value("speed", zelData::getFormat("UInt:32bit")));
    const ref_ptr<Frame> frame = next();
    EXPECT_TRUE(frame->isKeyFrame());
    EXPECT_EQ(dynamic_cast<zelData::Value*>(frame->findObject("speed"))->getFormat(),
              zelData::getFormat("UInt:32bit"));
}

TEST_F(FrameCaptureTest, AValueGetsItsFormatLate) {
    const ref_ptr<zelData::Value> value =
        add(root.get(), new zelData::Value("late", static_cast<const zelData::Format*>(nullptr)));
    EXPECT_EQ(next()->findObject("late"), nullptr);
    value->setFormat(zelData::getFormat("Real:64bit"));
    EXPECT_NE(next()->findObject("late"), nullptr);
}

TEST_F(FrameCaptureTest, TextsOfValuesStandAsBuffersOfOneElement) {
    const auto title = add(root.get(), new zelData::ValueT<zel::String>("title", "sun and moon and stars"));
    const auto name = add(root.get(), new zelData::ValueT<zel::Name>("name", "sun"));
    const ref_ptr<Frame> frame = next();
    ASSERT_EQ(bufferIn(frame.get(), "title")->size(), 1U);
    EXPECT_EQ(bufferIn(frame.get(), "title")->data<zel::String>()[0], "sun and moon and stars");
    EXPECT_EQ(bufferIn(frame.get(), "name")->data<zel::Name>()[0], "sun");
    name->set(zel::Name("moon"));
    const ref_ptr<Frame> changed = next();
    EXPECT_EQ(changed->findObject("title"), nullptr);
    EXPECT_EQ(bufferIn(changed.get(), "name")->data<zel::Name>()[0], "moon");
}

TEST_F(FrameCaptureTest, FramesDoNotChangeWithTheTree) {
    const ref_ptr<Buffer> masses = addReals("masses", 3);
    std::vector<ref_ptr<Frame>> frames;
    for (int i = 0; i < 6; ++i) {
        frames.push_back(next());
        for (uint64 k = 0; k < 3; ++k)
            masses->data<double>()[k] += 10;
    }
    for (unsigned i = 0; i < frames.size(); ++i)
        EXPECT_THAT(elementsOf<double>(bufferIn(frames[i].get(), "masses")),
                    ElementsAre(10.0 * i, 10.0 * i + 1, 10.0 * i + 2));
}

TEST_F(FrameCaptureTest, MemoryOfFramesThatAreGoneIsUsedAgain) {
    const ref_ptr<Buffer> masses = addReals("masses", 1000);
    const Buffer* first = nullptr;
    for (int i = 0; i < 5; ++i) {
        capture->requestKeyFrame();
        const ref_ptr<Frame> frame = next();
        const Buffer* buffer = bufferIn(frame.get(), "masses");
        if (i == 0)
            first = buffer;
        EXPECT_EQ(buffer, first);
        EXPECT_EQ(buffer->getContext(), frame.get());
    }
}

// Storages

TEST_F(FrameCaptureTest, AStorageIsToldWithItsColumnsAndTables) {
    const ref_ptr<EntityStorage> planets = addPlanets("planets", 3);
    for (uint64 i = 0; i < 3; ++i) {
        planets->getBuffer("mass")->data<double>()[i] = static_cast<double>(i);
        planets->getBuffer("title")->data<zel::String>()[i] = "planet" + std::to_string(i);
        planets->getBuffer("sun")->data<EntityPtr>()[i] = i == 0 ? EntityPtr() : planets->getInstance(0);
    }
    planets->destroyInstance(0);
    const ref_ptr<Frame> frame = next();
    Frame::EntityStorage* storage = storageIn(frame.get(), "planets");
    ASSERT_NE(storage, nullptr);
    EXPECT_EQ(storage->getModel(), planetModel());
    EXPECT_EQ(storage->size(), 2U);
    EXPECT_EQ(storage->capacity(), planets->capacity());
    EXPECT_EQ(storage->getId(), static_cast<zel::Object*>(planets.get())->getId());
    EXPECT_THAT(elementsOf<double>(bufferIn(storage, "mass")), ElementsAre(2.0, 1.0));
    EXPECT_EQ(bufferIn(storage, "title")->data<zel::String>()[0], "planet2");
    EXPECT_EQ(bufferIn(storage, "triple")->size(), 6U);
    const EntityPtr handle = bufferIn(storage, "sun")->data<EntityPtr>()[0];
    EXPECT_EQ(reinterpret_cast<uint64>(handle.getStorage()), storage->getId());
    EXPECT_EQ(handle.getId(), 0U);
    ASSERT_EQ(storage->getIdToIndexBuffer()->size(), planets->capacity());
    EXPECT_THAT(elementsOf<uint64>(storage->getIndexToIdBuffer()), ElementsAre(2U, 1U));
    EXPECT_EQ(storage->getIdToIndexBuffer()->data<uint64>()[0], 2U); // on top of the stack of free ids
    EXPECT_EQ(storage->findObject("numElements"), nullptr);
    EXPECT_EQ(storage->getNumObjects(), 6U);
}

TEST_F(FrameCaptureTest, AnUnchangedStorageIsNotToldAndAChangedColumnWithoutTables) {
    const ref_ptr<EntityStorage> planets = addPlanets("planets", 8);
    (void)next();
    EXPECT_EQ(next()->getNumObjects(), 0U);
    planets->getBuffer("triple")->data<zel::uint32>()[4] = 7;
    const ref_ptr<Frame> frame = next();
    Frame::EntityStorage* storage = storageIn(frame.get(), "planets");
    ASSERT_NE(storage, nullptr);
    EXPECT_EQ(storage->getNumObjects(), 1U);
    EXPECT_THAT(elementsOf<uint64>(partIn(storage, "triple")->getIndexBuffer()), ElementsAre(4U));
    EXPECT_EQ(partIn(storage, "triple")->getFullSize(), 24U);
}

TEST_F(FrameCaptureTest, StoragesThatChangeSizeOrderOrIdsStandWithTheirTables) {
    const ref_ptr<EntityStorage> planets = addPlanets("planets", 8);
    addReals("rest", 10000);
    (void)next();
    planets->destroyInstance(7);
    ref_ptr<Frame> frame = next();
    ASSERT_NE(storageIn(frame.get(), "planets"), nullptr);
    EXPECT_EQ(storageIn(frame.get(), "planets")->getNumObjects(), 2U); // no column has other elements
    EXPECT_EQ(storageIn(frame.get(), "planets")->size(), 7U);
    planets->swapInstanceIds(0, 1);
    frame = next();
    EXPECT_NE(storageIn(frame.get(), "planets")->getIdToIndexBuffer(), nullptr);
    planets->reserve(100);
    frame = next();
    EXPECT_EQ(storageIn(frame.get(), "planets")->getIdToIndexBuffer()->size(), 100U);
    EXPECT_FALSE(frame->isKeyFrame());
    planets->clear();
    frame = next();
    EXPECT_FALSE(frame->isKeyFrame());
    EXPECT_EQ(storageIn(frame.get(), "planets")->size(), 0U);
}

TEST_F(FrameCaptureTest, WhatHappensToStoragesIsToldInOrder) {
    const ref_ptr<EntityStorage> planets = addPlanets("planets", 2);
    const ref_ptr<EntityStorage> moons = addPlanets("moons", 0);
    EXPECT_TRUE(next()->getEvents().empty());
    const EntityPtr first = planets->createInstance();
    moons->createInstances(3);
    planets->destroyInstance(first.getId());
    moons->destroyInstances({moons.get(), 1, 3});
    zel::VectorPOD<zel::uint32> permutation;
    permutation.push_back(1);
    permutation.push_back(0);
    planets->reorder(permutation);
    const ref_ptr<Frame> frame = next();
    const auto& events = frame->getEvents();
    ASSERT_EQ(events.size(), 5U);
    const auto numberIn = [](const auto* event) { return reinterpret_cast<uint64>(event->getStorage()); };
    const auto* created = dynamic_cast<EntityStorage::CreateInstanceEvent*>(events[0].get());
    ASSERT_NE(created, nullptr);
    EXPECT_EQ(numberIn(created), static_cast<zel::Object*>(planets.get())->getId());
    EXPECT_EQ(created->getInstance().getId(), first.getId());
    const auto* batch = dynamic_cast<SerializedFrame::StorageBatchEvent*>(events[1].get());
    ASSERT_NE(batch, nullptr);
    EXPECT_EQ(batch->getType(), SerializedFrame::StorageBatchEvent::Type::Create);
    EXPECT_EQ(numberIn(batch), static_cast<zel::Object*>(moons.get())->getId());
    EXPECT_THAT(std::vector<uint64>(batch->getIdVector().begin(), batch->getIdVector().end()),
                ElementsAre(0U, 1U, 2U));
    EXPECT_NE(dynamic_cast<EntityStorage::DestroyInstanceEvent*>(events[2].get()), nullptr);
    const auto* destroyed = dynamic_cast<SerializedFrame::StorageBatchEvent*>(events[3].get());
    ASSERT_NE(destroyed, nullptr);
    EXPECT_EQ(destroyed->getType(), SerializedFrame::StorageBatchEvent::Type::Destroy);
    const auto* permuted = dynamic_cast<EntityStorage::PermuteEvent*>(events[4].get());
    ASSERT_NE(permuted, nullptr);
    EXPECT_EQ(permuted->getPermutation().size(), 2U);
    EXPECT_TRUE(next()->getEvents().empty());
    // It can be written, since nobody looks at storages.
    const ref_ptr<SerializedFrame> serialized(new SerializedFrame(frame.get()));
    EXPECT_GT(serialized->writeBinaryHeader()->getSize(), 56U);
}

TEST_F(FrameCaptureTest, AStorageThatIsDestroyedMakesAKeyFrame) {
    ref_ptr<EntityStorage> planets = addPlanets("planets", 2);
    addReal("speed", 1);
    (void)next();
    root->removeObject(planets.get());
    planets = nullptr;
    const ref_ptr<Frame> frame = next();
    EXPECT_TRUE(frame->isKeyFrame());
    EXPECT_EQ(frame->findObject("planets"), nullptr);
}

TEST_F(FrameCaptureTest, HandlesOfStoragesThatAreGoneAreNull) {
    const ref_ptr<EntityStorage> planets = addPlanets("planets", 1);
    ref_ptr<EntityStorage> other(new EntityStorage(planetModel(), "other"));
    planets->getBuffer("sun")->data<EntityPtr>()[0] = other->createInstance();
    other = nullptr;
    const ref_ptr<Frame> frame = next();
    const EntityPtr handle = bufferIn(storageIn(frame.get(), "planets"), "sun")->data<EntityPtr>()[0];
    EXPECT_EQ(reinterpret_cast<uint64>(handle.getStorage()), Frame::NoId);
}

TEST_F(FrameCaptureTest, TheGlobalOrderTravelsAsAColumn) {
    const ref_ptr<EntityStorage> planets = addPlanets("planets", 3);
    (void)planets->getOrCreateGlobalOrderBuffer();
    const ref_ptr<Frame> frame = next();
    EXPECT_THAT(elementsOf<zel::uint32>(bufferIn(storageIn(frame.get(), "planets"), "globalOrder")),
                ElementsAre(0U, 1U, 2U));
}

TEST_F(FrameCaptureTest, TheCaptureMayGoAheadOfTheStorages) {
    const ref_ptr<EntityStorage> planets = addPlanets("planets", 1);
    (void)next();
    capture = nullptr;
    planets->createInstance();
}

// Bindings

TEST_F(FrameCaptureTest, BindingsSayWhatIsTakenAndWhereItStands) {
    const ref_ptr<zel::Component> sun = add(root.get(), new zel::Component("sun"));
    add(sun.get(), new zelData::ValueT<double>("mass", 1));
    const ref_ptr<zel::Component> moon = add(sun.get(), new zel::Component("moon"));
    add(moon.get(), new zelData::ValueT<double>("mass", 2));
    capture->addDataBinding("sun.moon.mass", "a.b", false);
    ref_ptr<Frame> frame = next();
    EXPECT_EQ(frame->getNumObjects(), 1U);
    EXPECT_EQ(frame->findObject("a")->getId(), Frame::NoId);
    EXPECT_EQ(contentOf(frame->getResource("a.b")), 2.0);
    capture->clearDataBindings();
    capture->addDataBinding("sun", false);
    frame = next();
    EXPECT_TRUE(frame->isKeyFrame()); // since others are bound
    EXPECT_EQ(contentOf(frame->getResource("sun.mass")), 1.0);
    EXPECT_EQ(frame->getResource("sun.moon"), nullptr);
    capture->addDataBinding("sun", true);
    frame = next();
    EXPECT_TRUE(frame->isKeyFrame());
    EXPECT_EQ(contentOf(frame->getResource("sun.moon.mass")), 2.0);
    capture->clearDataBindings();
    capture->addDataBinding("sun", "", true);
    frame = next();
    EXPECT_EQ(contentOf(frame->findObject("mass")), 1.0);
    EXPECT_TRUE(capture->getOmissions().empty());
}

TEST_F(FrameCaptureTest, BindingsThatCoverEachOtherAreTakenOnce) {
    const ref_ptr<zel::Component> sun = add(root.get(), new zel::Component("sun"));
    add(sun.get(), new zelData::ValueT<double>("mass", 1));
    addReal("speed", 3);
    capture->addDataBinding("sun", true);
    capture->addDataBinding("sun.mass", false);
    ref_ptr<Frame> frame = next();
    EXPECT_EQ(dynamic_cast<zel::Component*>(frame->findObject("sun"))->getNumObjects(), 1U);
    EXPECT_TRUE(capture->getOmissions().empty());
    capture->addDataBinding("speed", "sun.mass", false);
    frame = next();
    EXPECT_EQ(contentOf(frame->getResource("sun.mass")), 1.0);
    EXPECT_THAT(capture->getOmissions(),
                ElementsAre("'speed' is not recorded: another binding has its place in the frame"));
}

TEST_F(FrameCaptureTest, APathThatLeadsNowhereIsToldOnceAndTakenWhenItLeadsSomewhere) {
    capture->addDataBinding("sun.mass", false);
    const zelTest::LogCapture log(zel::Notify::Warning);
    EXPECT_EQ(next()->getNumObjects(), 0U);
    EXPECT_EQ(next()->getNumObjects(), 0U);
    ASSERT_EQ(log.texts().size(), 1U);
    EXPECT_THAT(log.text(), HasSubstr("'sun.mass' is not recorded: there is no such object"));
    const ref_ptr<zel::Component> sun = add(root.get(), new zel::Component("sun"));
    add(sun.get(), new zelData::ValueT<double>("mass", 1));
    EXPECT_EQ(next()->getNumObjects(), 1U);
}

// What can not be told

TEST_F(FrameCaptureTest, WhatCanNotBeRecordedIsListedOnceByPath) {
    const ref_ptr<zel::Component> sun = add(root.get(), new zel::Component("sun"));
    add(sun.get(), new zelData::ValueT<double>("a.b", 1));
    add(sun.get(), new zelData::ValueT<double>("", 1));
    add(sun.get(), new zelData::ValueT<double>("mass", 1));
    add(sun.get(), new zelData::ValueT<double>("mass", 2));
    add(sun.get(), new Buffer("Incremental", zelData::getFormat("Real:64bit")));
    add(sun.get(), new zelData::Value("pointer", zelData::getFormat("ObjectPointer")));
    entity("Loose", "<Attribute.Scalar name='mass' type='Real'/>", "useInstanceTable='false'");
    add(sun.get(), new EntityStorage(zelData::getEntity("Loose"), "loose"));
    const zelTest::LogCapture log(zel::Notify::Warning);
    ref_ptr<Frame> frame = next();
    frame = next();
    EXPECT_THAT(capture->getOmissions(),
                ElementsAre("'sun.a.b' is not recorded: its name holds a '.'",
                            "'sun.[anonymous]' is not recorded: it has no name",
                            "'sun.mass' is not recorded: an earlier sibling has its name",
                            "'sun.Incremental' is not recorded: frames use its name for something else",
                            HasSubstr("'sun.pointer' is not recorded: elements of format ObjectPointer"),
                            "'sun.loose' is not recorded: a storage without instance table has no ids to be "
                            "known by"));
    EXPECT_EQ(log.texts().size(), capture->getOmissions().size());
}

TEST_F(FrameCaptureTest, WhatLiesDeepestCanBeWritten) {
    ref_ptr<zel::Component> parent = root;
    std::vector<ref_ptr<Buffer>> texts;
    for (int i = 0; i < 520; ++i) {
        parent = add(parent.get(), new zel::Component("c"));
        if (i < 500)
            continue;
        texts.push_back(add(parent.get(), new Buffer("texts", zelData::getFormat("String"))));
        texts.back()->resize(10);
    }
    for (int i = 0; i < 2; ++i) { // in whole and in part
        const ref_ptr<Frame> frame = next();
        const ref_ptr<SerializedFrame> serialized(new SerializedFrame(frame.get()));
        EXPECT_NE(serialized->writeBinaryHeader(), nullptr);
        for (const ref_ptr<Buffer>& buffer : texts)
            buffer->data<zel::String>()[3] = "changed";
    }
}

TEST_F(FrameCaptureTest, TreesThatAreTooDeepAreCut) {
    ref_ptr<zel::Component> parent = root;
    for (int i = 0; i < 600; ++i)
        parent = add(parent.get(), new zel::Component("c"));
    add(parent.get(), new zelData::ValueT<double>("mass", 1));
    addReal("speed", 1);
    const ref_ptr<Frame> frame = next();
    ASSERT_EQ(capture->getOmissions().size(), 1U);
    EXPECT_THAT(capture->getOmissions()[0], HasSubstr("is not recorded: it lies too deep"));
    const ref_ptr<SerializedFrame> serialized(new SerializedFrame(frame.get()));
    EXPECT_NE(serialized->writeBinaryHeader(), nullptr);
}

// Threads

TEST_F(FrameCaptureTest, LargeColumnsAreTheSameOnAnyNumberOfThreads) {
    constexpr uint64 Size = 1'000'000;
    const ref_ptr<Buffer> masses = addReals("masses", Size);
    for (const zel::size_t numThreads : {1U, 2U, 4U}) {
        zel::setNumThreads(numThreads);
        capture->requestKeyFrame();
        const ref_ptr<Frame> whole = next();
        const Buffer* all = bufferIn(whole.get(), "masses");
        ASSERT_TRUE(std::equal(all->data<double>(), all->data<double>() + Size, masses->data<double>()));
        std::vector<uint64> places;
        for (uint64 i = 7; i < Size; i += 100 + i % 13)
            places.push_back(i);
        for (const uint64 i : places)
            masses->data<double>()[i] += 1;
        const ref_ptr<Frame> frame = next();
        const Frame::PartialBuffer* part = partIn(frame.get(), "masses");
        ASSERT_NE(part, nullptr);
        ASSERT_EQ(elementsOf<uint64>(part->getIndexBuffer()), places);
        for (uint64 i = 0; i < places.size(); ++i)
            ASSERT_EQ(part->getDataBuffer()->data<double>()[i], masses->data<double>()[places[i]]);
        EXPECT_EQ(next()->getNumObjects(), 0U);
        for (uint64 i = 0; i < Size; i += 2)
            masses->data<double>()[i] += 1;
        EXPECT_NE(bufferIn(next().get(), "masses"), nullptr);
        EXPECT_EQ(next()->getNumObjects(), 0U);
    }
    zel::setNumThreads(1);
}

/// Elements of each size that is compared in a way of its own.
TEST_F(FrameCaptureTest, ElementsOfAllSizesAreCompared) {
    for (const char* format : {"UInt:8bit",
                               "UInt:16bit",
                               "UInt:32bit",
                               "UInt:64bit",
                               "Vec3:32bit",
                               "Vec2:64bit",
                               "Vec3:64bit",
                               "Quat:64bit",
                               "Matrix4x4:64bit"}) {
        const zelData::Format* chosen = zelData::getFormat(format);
        if (chosen == nullptr)
            continue;
        const ref_ptr<Buffer> buffer = add(root.get(), new Buffer("b", chosen));
        buffer->resize(5000);
        addReals("rest", 1000000);
        (void)next();
        for (const uint64 i : {3U, 2047U, 4999U}) {
            auto* last = static_cast<char*>(buffer->getElement(i)) + chosen->getSize() - 1;
            *last = static_cast<char>(*last + 1);
        }
        const ref_ptr<Frame> frame = next();
        ASSERT_NE(partIn(frame.get(), "b"), nullptr) << format;
        EXPECT_THAT(elementsOf<uint64>(partIn(frame.get(), "b")->getIndexBuffer()),
                    ElementsAre(3U, 2047U, 4999U))
            << format;
        root->removeAllObjects();
    }
}

} // namespace
