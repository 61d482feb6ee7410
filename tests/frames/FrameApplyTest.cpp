#include "CaptureFixture.h"

#include <zelData/EntityStorageEvents.h>
#include <zelData/FrameApply.h>

using testing::ElementsAre;
using zel::ref_ptr;
using zel::uint64;
using zelData::Buffer;
using zelData::EntityPtr;
using zelData::EntityStorage;
using zelData::Frame;
using zelData::FrameApply;
using zelTest::elementsOf;

namespace {

class FrameApplyTest : public zelTest::CaptureFixture {
protected:
    void TearDown() override {
        apply = nullptr;
        target = nullptr;
        CaptureFixture::TearDown();
    }
    static zel::Object* at(zel::Component* top, const char* name) { return top->findObject(name); }
    static double realAt(zel::Component* top, const char* name) { return contentOf(at(top, name)); }
    ref_ptr<Buffer> addTarget(const char* name, const char* format = "Real:64bit") {
        return add(target.get(), new Buffer(name, zelData::getFormat(format)));
    }
    ref_ptr<EntityStorage> addTargetPlanets(const char* name) {
        return add(target.get(), new EntityStorage(planetModel(), name));
    }

    ref_ptr<zel::Component> target{new zel::Component("target")};
    ref_ptr<FrameApply> apply{new FrameApply(target.get())};
};

/// Counts what it hears.
struct Ear : Buffer::EventListener, EntityStorage::EventListener {
    void updateCallback(Buffer* /*buffer*/) override { ++numUpdates; }
    void createInstancesCallback(EntityStorage*, zelData::EntityRange) override { ++numEvents; }
    void createInstanceCallback(EntityStorage*, EntityPtr) override { ++numEvents; }
    using EntityStorage::EventListener::createInstancesCallback;
    int numUpdates = 0;
    int numEvents = 0;
};

TEST_F(FrameApplyTest, ValuesBuffersAndPartsAreWritten) {
    const auto speed = addReal("speed", 3);
    const ref_ptr<Buffer> masses = addReals("masses", 5);
    const auto targetSpeed = add(target.get(), new zelData::ValueT<double>("speed", 0));
    const ref_ptr<Buffer> targetMasses = addTarget("masses");
    Ear ear;
    targetMasses->addListener(&ear);
    apply->writeFrame(next().get());
    EXPECT_EQ(targetSpeed->get(), 3.0);
    EXPECT_THAT(elementsOf<double>(targetMasses.get()), ElementsAre(0.0, 1.0, 2.0, 3.0, 4.0));
    EXPECT_EQ(ear.numUpdates, 1);
    masses->data<double>()[2] = 20;
    masses->data<double>()[4] = 40;
    speed->set(4.0);
    apply->writeFrame(next().get());
    EXPECT_EQ(targetSpeed->get(), 4.0);
    EXPECT_THAT(elementsOf<double>(targetMasses.get()), ElementsAre(0.0, 1.0, 20.0, 3.0, 40.0));
    EXPECT_EQ(ear.numUpdates, 2);
    EXPECT_TRUE(apply->getOmissions().empty());
    targetMasses->removeListener(&ear);
}

TEST_F(FrameApplyTest, BoundValuesAreLeftAlone) {
    addReal("speed", 3);
    const auto other = add(target.get(), new zelData::ValueT<double>("other", 7));
    const auto speed = add(target.get(), new zelData::ValueT<double>("speed", 0));
    speed->bind(other.get());
    apply->writeFrame(next().get());
    EXPECT_EQ(speed->get(), 7.0);
    EXPECT_EQ(speed->getBinding(), other.get());
    EXPECT_EQ(other->get(), 7.0);
}

TEST_F(FrameApplyTest, AKeyFrameEmptiesWhatItLacks) {
    const ref_ptr<Buffer> masses = addReals("masses", 2);
    const ref_ptr<Buffer> targetMasses = addTarget("masses");
    const ref_ptr<Buffer> others = addTarget("others");
    others->resize(3);
    const ref_ptr<EntityStorage> planets = addTargetPlanets("planets");
    planets->createInstances(3);
    Ear ear;
    planets->addListener(&ear);
    const ref_ptr<Frame> key = next();
    masses->data<double>()[0] = 5;
    apply->writeFrame(next().get()); // an increment
    EXPECT_EQ(others->size(), 3U);
    apply->writeFrame(key.get());
    EXPECT_EQ(targetMasses->size(), 2U);
    EXPECT_EQ(others->size(), 0U);
    EXPECT_EQ(planets->size(), 0U);
    EXPECT_EQ(ear.numEvents, 0);
    planets->removeListener(&ear);
}

TEST_F(FrameApplyTest, StoragesGetTheirIdsAndHandlesLeadToThoseOfTheTree) {
    const ref_ptr<EntityStorage> suns = addPlanets("suns", 2);
    const ref_ptr<EntityStorage> planets = addPlanets("planets", 4);
    planets->destroyInstance(1);
    for (uint64 i = 0; i < 3; ++i)
        planets->getBuffer("sun")->data<EntityPtr>()[i] = i == 2 ? EntityPtr() : suns->getInstance(i);
    const ref_ptr<EntityStorage> targetSuns = addTargetPlanets("suns");
    const ref_ptr<EntityStorage> targetPlanets = addTargetPlanets("planets");
    Ear ear;
    targetPlanets->addListener(&ear);
    apply->writeFrame(next().get());
    EXPECT_EQ(ear.numEvents, 0);
    targetPlanets->verifyConsistency();
    EXPECT_EQ(targetPlanets->getIndex(3), planets->getIndex(3));
    EXPECT_FALSE(targetPlanets->isAlive(1));
    const auto* handles = targetPlanets->getBuffer("sun")->data<EntityPtr>();
    EXPECT_EQ(handles[0], EntityPtr(targetSuns.get(), 0));
    EXPECT_EQ(handles[1], EntityPtr(targetSuns.get(), 1));
    EXPECT_TRUE(handles[2].isNull());
    EXPECT_EQ(targetPlanets->createInstance(), EntityPtr(targetPlanets.get(), 1));
    EXPECT_EQ(ear.numEvents, 1);
    targetPlanets->removeListener(&ear);
}

TEST_F(FrameApplyTest, HandlesOfStoragesThatAreNotRecordedAreNullWithOneWarning) {
    const ref_ptr<EntityStorage> suns = addPlanets("suns", 2);
    const ref_ptr<EntityStorage> planets = addPlanets("planets", 4);
    for (uint64 i = 0; i < 4; ++i)
        planets->getBuffer("sun")->data<EntityPtr>()[i] = suns->getInstance(0);
    capture->addDataBinding("planets", true);
    const ref_ptr<EntityStorage> targetPlanets = addTargetPlanets("planets");
    const ref_ptr<Frame> frame = next();
    const zelTest::LogCapture log(zel::Notify::Warning);
    apply->writeFrame(frame.get());
    EXPECT_TRUE(targetPlanets->getBuffer("sun")->data<EntityPtr>()[3].isNull());
    EXPECT_EQ(log.texts().size(), 1U);
    EXPECT_NE(log.text().find("Frame 0 holds handles of storages that it does not hold: they are null"),
              std::string::npos)
        << log.text();
}

TEST_F(FrameApplyTest, BindingsLeadFromTheFrameToTheTree) {
    addReal("speed", 3);
    addReal("height", 4);
    const ref_ptr<zel::Component> below = add(target.get(), new zel::Component("below"));
    const auto speed = add(below.get(), new zelData::ValueT<double>("s", 0));
    const auto height = add(target.get(), new zelData::ValueT<double>("height", 0));
    const ref_ptr<Buffer> others = addTarget("others");
    others->resize(2);
    apply->addDataBinding("speed", "below.s", false);
    apply->writeFrame(next().get());
    EXPECT_EQ(speed->get(), 3.0);
    EXPECT_EQ(height->get(), 0.0);
    EXPECT_EQ(others->size(), 2U); // not bound
}

TEST_F(FrameApplyTest, WhatDoesNotFitIsToldOnce) {
    addReal("speed", 3);
    addReal("lacking", 3);
    addReals("masses", 3);
    addReals("bound", 3);
    addPlanets("planets", 1);
    add(target.get(), new zelData::Value("speed", zelData::getFormat("UInt:32bit")));
    add(target.get(), new zel::Component("masses"));
    add(target.get(), new zel::Component("planets"));
    const ref_ptr<Buffer> bound = addTarget("bound");
    const auto size = add(target.get(), new zelData::ValueT<uint64>("size", 1));
    bound->getNumElementsValue()->bind(size.get());
    const ref_ptr<Frame> frame = next();
    apply->writeFrame(frame.get());
    apply->writeFrame(frame.get());
    EXPECT_THAT(apply->getOmissions(),
                ElementsAre("'speed' is not replayed: it is not of the kind and format of the frame",
                            "'lacking' is not replayed: there is no such object",
                            "'masses' is not replayed: it is not of the kind and format of the frame",
                            "'planets' is not replayed: it is no storage of the entity of the frame",
                            "'bound' is not replayed: its size is bound"));
    EXPECT_EQ(bound->size(), 1U);
}

TEST_F(FrameApplyTest, ATableOfIdsThatIsNoneIsRefused) {
    addPlanets("planets", 2);
    const ref_ptr<EntityStorage> targetPlanets = addTargetPlanets("planets");
    const ref_ptr<Frame> frame = next();
    storageIn(frame.get(), "planets")->getIdToIndexBuffer()->data<uint64>()[0] = 1;
    EXPECT_EQ(zelTest::whatOf([&] { apply->writeFrame(frame.get()); }),
              "target.planets: the table of ids is none of a storage of 2 instances");
    EXPECT_EQ(targetPlanets->size(), 0U);
    targetPlanets->verifyConsistency();
    EXPECT_TRUE(targetPlanets->getEnableEvents());
}

TEST_F(FrameApplyTest, ListenersThatThrowAreHeardWhenAllIsWritten) {
    struct Throwing : Buffer::EventListener {
        void updateCallback(Buffer* /*buffer*/) override { throw std::runtime_error("no"); }
    } throwing;
    addReals("a", 2);
    addReals("b", 2);
    const ref_ptr<Buffer> a = addTarget("a");
    const ref_ptr<Buffer> b = addTarget("b");
    a->addListener(&throwing);
    const ref_ptr<Frame> frame = next();
    EXPECT_EQ(zelTest::whatOf([&] { apply->writeFrame(frame.get()); }), "no");
    EXPECT_EQ(a->size(), 2U);
    EXPECT_THAT(elementsOf<double>(b.get()), ElementsAre(0.0, 1.0));
    a->removeListener(&throwing);
}

} // namespace
