#include "ArchiveFixture.h"

using fleet::Barge;
using fleet::Scripted;
using fleet::Wheel;
using zel::ref_ptr;
using zelStream::InputArchive;
using zelStream::OutputArchive;
using zelTest::ArchiveBytes;
using zelTest::archiveErrorOf;
using zelTest::Listening;
using zelTest::Opened;
using zelTest::uuidOf;

// References whose bodies are put off until the outermost object is complete.

namespace {

class ArchiveDeferredTest : public zelTest::ArchiveFixture {
protected:
    static ref_ptr<Barge> makeBarge(char fill) {
        ref_ptr<Barge> barge(new Barge);
        barge->setUuid(uuidOf(fill));
        return barge;
    }
    /// Restores an outer object that refers to `pointers` wheels.
    template <typename Pointer>
    static void readWheels(InputArchive& archive, std::vector<Pointer>& pointers) {
        Scripted::s_restore = [&](Scripted&, InputArchive& from) {
            for (Pointer& pointer : pointers)
                from.readDeferred(pointer);
        };
        EXPECT_NE(archive.readObjectByRef(), nullptr);
    }
    static ArchiveBytes outer() { return start().newObject(1, 1, "fleet::Scripted").base(uuidOf(1)); }
};

TEST_F(ArchiveDeferredTest, ABodyThatIsPutOffFollowsTheOutermostObject) {
    const auto first = makeBarge(1);
    const auto second = makeBarge(2);
    const auto third = makeBarge(3);
    first->next = second.get();
    second->next = third.get();
    third->next = first.get();
    for (const bool isLittleEndian : {true, false}) {
        ArchiveBytes bytes(isLittleEndian);
        bytes.newObject(1, 1, "fleet::Barge").base(uuidOf(1)).knownObject(2, 1);
        bytes.newObject(2, 1).base(uuidOf(2)).knownObject(3, 1);
        bytes.newObject(3, 1).base(uuidOf(3)).knownObject(1, 1);
        EXPECT_EQ(written([&](OutputArchive& archive) { archive.write(first.get()); }, isLittleEndian),
                  bytes.bytes());
    }
}

TEST_F(ArchiveDeferredTest, NullAndDisabledObjectsAreNotPutOff) {
    const auto first = makeBarge(1);
    EXPECT_EQ(written([&](OutputArchive& archive) { archive.write(first.get()); }, true),
              ArchiveBytes().newObject(1, 1, "fleet::Barge").base(uuidOf(1)).null().bytes());
    const auto second = makeBarge(2);
    first->next = second.get();
    second->setEnableSerialization(false);
    EXPECT_EQ(written([&](OutputArchive& archive) { archive.write(first.get()); }, true),
              ArchiveBytes().newObject(1, 1, "fleet::Barge").base(uuidOf(1)).null().bytes());
}

TEST_F(ArchiveDeferredTest, WhatWasPutOffIsWrittenThoughItsSerializationIsOffByThen) {
    const auto first = makeBarge(1);
    const auto second = makeBarge(2);
    first->next = second.get();
    std::ostringstream stream;
    OutputArchive archive;
    archive.open(stream);
    archive.getObjectEvent().connect(
        {[&](const zelStream::Serializable*, zel::uint32) { second->setEnableSerialization(false); }});
    archive.write(first.get());
    archive.write(7);
    archive.close();
    Opened opened(stream.str());
    Barge* restored = nullptr;
    opened->read(restored);
    ASSERT_NE(restored->next, nullptr);
    EXPECT_EQ(restored->next->getUuid(), uuidOf(2));
    int behind = 0;
    opened->read(behind);
    EXPECT_EQ(behind, 7);
}

TEST_F(ArchiveDeferredTest, OutsideOfObjectsNothingIsPutOff) {
    const ref_ptr<Wheel> wheel(new Wheel(2));
    wheel->setUuid(uuidOf(1));
    const auto write = [&](OutputArchive& archive) {
        archive.writeDeferred(wheel.get());
        archive.writeDeferred(wheel.get());
        archive.writeDeferred(nullptr);
    };
    EXPECT_EQ(written(write, true),
              ArchiveBytes()
                  .newObject(1, 1, "fleet::Wheel")
                  .base(uuidOf(1))
                  .scalar(2.0)
                  .knownObject(1, 1)
                  .null()
                  .bytes());
    Opened archive(archiveOf(write));
    Wheel* first = nullptr;
    Wheel* second = nullptr;
    Wheel* third = first;
    archive->readDeferred(first);
    archive->readDeferred(second);
    archive->readDeferred(third);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->radius, 2);
    EXPECT_EQ(second, first);
    EXPECT_EQ(third, nullptr);
}

TEST_F(ArchiveDeferredTest, AnObjectThatIsPutOffAndThenStoredPlainlyHasOneBody) {
    const ref_ptr<Wheel> wheel(new Wheel(2));
    const ref_ptr<Scripted> object(new Scripted);
    wheel->setUuid(uuidOf(2));
    object->setUuid(uuidOf(1));
    Scripted::s_store = [&](const Scripted&, OutputArchive& archive) {
        archive.writeDeferred(wheel.get());
        archive.writeDeferred(wheel.get());
        archive.write(wheel.get());
        archive.writeDeferred(wheel.get());
    };
    const std::string stored = archiveOf([&](OutputArchive& archive) { archive.write(object.get()); });
    Wheel* wheels[4] = {};
    Scripted::s_restore = [&](Scripted&, InputArchive& archive) {
        archive.readDeferred(wheels[0]);
        archive.readDeferred(wheels[1]);
        EXPECT_EQ(wheels[0], nullptr);
        archive.read(wheels[2]);
        EXPECT_EQ(wheels[0], wheels[2]); // those that waited have it at once
        EXPECT_EQ(wheels[1], wheels[2]);
        archive.readDeferred(wheels[3]);
        EXPECT_EQ(wheels[3], wheels[2]);
    };
    Opened archive(stored);
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_EQ(wheels[2]->radius, 2);
    EXPECT_TRUE(archive->isAtEnd());
    EXPECT_EQ(archive->getNumObjectsRead(), 2U);
}

TEST_F(ArchiveDeferredTest, AllThatWaitForOneObjectGetIt) {
    ArchiveBytes bytes = outer().objectHeader(8).newClass(2, "fleet::Wheel").id(3);
    bytes.knownObject(2, 2).knownObject(3, 2).knownObject(2, 2).null();
    bytes.newObject(2, 2).base(uuidOf(2)).scalar(0.25).newObject(3, 2).base(uuidOf(3)).scalar(0.5);
    Opened archive(bytes);
    std::vector<ref_ptr<Wheel>> wheels(5);
    readWheels(*archive, wheels);
    ASSERT_NE(wheels[0], nullptr);
    EXPECT_EQ(wheels[0]->radius, 0.5);
    ASSERT_NE(wheels[1], nullptr);
    EXPECT_EQ(wheels[1]->radius, 0.25);
    EXPECT_EQ(wheels[2], wheels[0]);
    EXPECT_EQ(wheels[3], wheels[1]);
    EXPECT_EQ(wheels[4], nullptr);
}

TEST_F(ArchiveDeferredTest, ReferencesWithinAnObjectByValueAreSetToo) {
    const ref_ptr<Wheel> wheel(new Wheel(2));
    Scripted inner;
    Scripted::s_store = [&](const Scripted&, OutputArchive& archive) { archive.writeDeferred(wheel.get()); };
    const std::string bytes = archiveOf([&](OutputArchive& archive) { archive.write(inner); });
    Wheel* restored = nullptr;
    Scripted::s_restore = [&](Scripted&, InputArchive& archive) { archive.readDeferred(restored); };
    Opened archive(bytes);
    EXPECT_TRUE(archive->read(inner));
    ASSERT_NE(restored, nullptr);
    EXPECT_EQ(restored->radius, 2);
}

TEST_F(ArchiveDeferredTest, ListenersAreToldOfThemInTheOrderOfTheirBodies) {
    const auto first = makeBarge(1);
    const auto second = makeBarge(2);
    first->next = second.get();
    Opened archive(archiveOf([&](OutputArchive& out) { out.write(first.get()); }));
    std::vector<zel::Uuid> told;
    const ref_ptr<Listening> listener(new Listening(
        [&](zelStream::Serializable* object, InputArchive&) { told.push_back(object->getUuid()); }));
    archive->addRestoreListener(listener.get());
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_EQ(told, (std::vector<zel::Uuid>{uuidOf(1), uuidOf(2)}));
}

TEST_F(ArchiveDeferredTest, AnObjectOfAnotherClassIsToldWithBothClasses) {
    ArchiveBytes bytes = outer().objectHeader(8).newClass(2, "fleet::Barge").id(2);
    bytes.newObject(2, 2).base(uuidOf(2)).null();
    Opened archive(bytes);
    Wheel* wheel = nullptr;
    Scripted::s_restore = [&](Scripted&, InputArchive& from) { from.readDeferred(wheel); };
    const std::string error = archiveErrorOf([&] { (void)archive->readObjectByRef(); });
    EXPECT_THAT(error, testing::HasSubstr("fleet::Barge"));
    EXPECT_THAT(error, testing::HasSubstr("fleet::Wheel"));
    EXPECT_EQ(wheel, nullptr);
    archive->close();
    EXPECT_EQ(Scripted::s_numLiving, 0);
}

TEST_F(ArchiveDeferredTest, ABodyThatNeverComesIsToldAsTheEnd) {
    const ArchiveBytes bytes = outer().objectHeader(8).newClass(2, "fleet::Wheel").id(2);
    Opened archive(bytes);
    Wheel* wheel = nullptr;
    Scripted::s_restore = [&](Scripted&, InputArchive& from) { from.readDeferred(wheel); };
    EXPECT_THAT(archiveErrorOf([&] { (void)archive->readObjectByRef(); }),
                testing::HasSubstr("Error occurred while reading "));
    EXPECT_EQ(wheel, nullptr);
}

TEST_F(ArchiveDeferredTest, AReferenceToTheIdZeroIsBad) {
    Opened archive(outer().objectHeader(8).newClass(2, "fleet::Wheel").id(0));
    Wheel* wheel = nullptr;
    Scripted::s_restore = [&](Scripted&, InputArchive& from) { from.readDeferred(wheel); };
    EXPECT_EQ(archiveErrorOf([&] { (void)archive->readObjectByRef(); }),
              "Current scope: 'Archive/Object/Object'. Bad object id 0");
}

TEST_F(ArchiveDeferredTest, APlainReferenceToWhatIsPutOffIsBadUntilItComes) {
    Opened archive(outer().objectHeader(8).newClass(2, "fleet::Wheel").id(2).knownObject(2, 2));
    Wheel* wheel = nullptr;
    Scripted::s_restore = [&](Scripted&, InputArchive& from) {
        from.readDeferred(wheel);
        from.read(wheel);
    };
    EXPECT_EQ(archiveErrorOf([&] { (void)archive->readObjectByRef(); }),
              "Current scope: 'Archive/Object/Object'. Bad object id 2");
}

TEST_F(ArchiveDeferredTest, PointersThatWaitedWhenAnExceptionCameAreNotSetLater) {
    ArchiveBytes bytes = outer().objectHeader(8).newClass(2, "fleet::Wheel").id(2);
    bytes.newObject(2, 2).base(uuidOf(2)).scalar(0.5);
    Opened archive(bytes);
    Scripted::s_restore = [](Scripted&, InputArchive& from) {
        Wheel* gone = nullptr; // its place ends with the exception
        from.readDeferred(gone);
        throw std::runtime_error("no place");
    };
    EXPECT_EQ(zelTest::whatOf([&] { (void)archive->readObjectByRef(); }), "no place");
    ref_ptr<Wheel> wheel;
    archive->read(wheel);
    EXPECT_EQ(wheel->radius, 0.5);
}

TEST_F(ArchiveDeferredTest, PointersOfAPartThatThrewAreNotSetThoughItsOwnerGoesOn) {
    ArchiveBytes bytes = outer().byValue().base(uuidOf(2)).objectHeader(8).newClass(2, "fleet::Wheel").id(2);
    bytes.newObject(2, 2).base(uuidOf(3)).scalar(0.5).scalar(7);
    Opened archive(bytes);
    Scripted::s_restore = [](Scripted& object, InputArchive& from) {
        if (object.getUuid() == uuidOf(2)) {
            Wheel* gone = nullptr;
            from.readDeferred(gone);
            throw std::runtime_error("part");
        }
        Scripted part;
        EXPECT_EQ(zelTest::whatOf([&] { from.read(part); }), "part");
    };
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_EQ(archive->getNumObjectsRead(), 2U); // the wheel's body was read all the same
    int value = 0;
    archive->read(value);
    EXPECT_EQ(value, 7);
}

TEST_F(ArchiveDeferredTest, AnObjectThatIsRemovedWhileItsPointersWaitLivesUntilTheyAreSet) {
    const auto first = makeBarge(1);
    const auto second = makeBarge(2);
    const auto third = makeBarge(3);
    first->next = second.get();
    second->next = third.get();
    Opened archive(archiveOf([&](OutputArchive& out) { out.write(first.get()); }));
    const ref_ptr<Listening> listener(new Listening([&](zelStream::Serializable* object, InputArchive& from) {
        if (object->getUuid() == uuidOf(2))
            from.removeObject(object); // whose pointer waits for the third
    }));
    archive->addRestoreListener(listener.get());
    Barge* restored = nullptr;
    archive->read(restored);
    ASSERT_NE(restored, nullptr);
    EXPECT_EQ(archive->getNumObjectsRead(), 3U);
}

TEST_F(ArchiveDeferredTest, AnObjectMayRemoveItselfAndThenWait) {
    ArchiveBytes bytes =
        outer().newObject(2, 1).base(uuidOf(2)).objectHeader(8).newClass(2, "fleet::Wheel").id(3);
    bytes.newObject(3, 2).base(uuidOf(3)).scalar(0.5);
    Opened archive(bytes);
    Wheel* wheel = nullptr;
    int numWhenSet = 0;
    Scripted::s_restore = [&](Scripted& object, InputArchive& from) {
        if (object.getUuid() == uuidOf(1)) {
            EXPECT_EQ(from.readObjectByRef(), nullptr);
            return;
        }
        from.removeObject(&object);
        from.readDeferred(wheel);
    };
    const ref_ptr<Listening> listener(new Listening([&](zelStream::Serializable* object, InputArchive&) {
        if (object->getUuid() == uuidOf(3))
            numWhenSet = Scripted::s_numLiving;
    }));
    archive->addRestoreListener(listener.get());
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    ASSERT_NE(wheel, nullptr);
    EXPECT_EQ(wheel->radius, 0.5);
    EXPECT_EQ(numWhenSet, 2); // the one that waited lived until then
    EXPECT_EQ(Scripted::s_numLiving, 1);
}

TEST_F(ArchiveDeferredTest, TheOutermostObjectMayBeRemovedWhileTheRestIsRead) {
    const auto first = makeBarge(1);
    const auto second = makeBarge(2);
    first->next = second.get();
    Opened archive(archiveOf([&](OutputArchive& out) { out.write(first.get()); }));
    zelStream::Serializable* outermost = nullptr;
    const ref_ptr<Listening> listener(new Listening([&](zelStream::Serializable* object, InputArchive& from) {
        if (outermost == nullptr)
            outermost = object;
        else
            from.removeObject(outermost);
    }));
    archive->addRestoreListener(listener.get());
    EXPECT_EQ(archive->readObjectByRef(), nullptr); // it is gone
}

} // namespace
