#include "ArchiveFixture.h"

#include <zel/observer_ptr.h>

#include <exception>
#include <sstream>

using fleet::Motor;
using fleet::Permit;
using fleet::Scripted;
using fleet::Vehicle;
using fleet::Wheel;
using testing::HasSubstr;
using zel::ref_ptr;
using zelStream::Archive;
using zelStream::InputArchive;
using zelStream::Serializable;
using zelTest::ArchiveBytes;
using zelTest::archiveErrorOf;
using zelTest::Opened;
using zelTest::uuidOf;

// Objects that are restored from bytes made by hand.

namespace {

constexpr const char* InObject = "Current scope: 'Archive/Object'. ";
constexpr const char* InClass = "Current scope: 'Archive/Object/TypeHeader'. ";

class InputArchiveObjectTest : public zelTest::ArchiveFixture {
protected:
    static ArchiveBytes wheelBytes(bool isLittleEndian = true) {
        return start(isLittleEndian).newObject(1, 1, "fleet::Wheel").base(uuidOf(5)).scalar(0.5);
    }
    static std::string refErrorOf(const ArchiveBytes& bytes) {
        Opened archive(bytes);
        const std::string error = archiveErrorOf([&] { (void)archive->readObjectByRef(); });
        EXPECT_EQ(archive->getSectionStackString(), "Archive");
        return error;
    }
    template <typename T>
    static std::string valErrorOf(const ArchiveBytes& bytes) {
        Opened archive(bytes);
        T object;
        const std::string error = archiveErrorOf([&] { archive->read(object); });
        EXPECT_EQ(archive->getSectionStackString(), "Archive");
        return error;
    }
    /// The texts of an exception and of those that led to it.
    static std::vector<std::string> chainOf(const std::string& bytes) {
        Opened archive(bytes);
        std::vector<std::string> texts;
        try {
            (void)archive->readObjectByRef();
        } catch (const std::exception& exception) {
            collect(exception, texts);
        }
        return texts;
    }

private:
    static void collect(const std::exception& exception, std::vector<std::string>& texts) {
        texts.emplace_back(exception.what());
        try {
            std::rethrow_if_nested(exception);
        } catch (const std::exception& nested) {
            collect(nested, texts);
        }
    }
};

TEST_F(InputArchiveObjectTest, AnObjectIsMadeByItsClassAndRestored) {
    for (const bool isLittleEndian : {true, false}) {
        Opened archive(wheelBytes(isLittleEndian));
        ref_ptr<Wheel> wheel;
        archive->read(wheel);
        ASSERT_NE(wheel, nullptr);
        EXPECT_EQ(wheel->radius, 0.5);
        EXPECT_EQ(wheel->getUuid(), uuidOf(5));
        EXPECT_TRUE(wheel->isFinished());
        EXPECT_TRUE(wheel->isDynamicallyAllocated());
        EXPECT_TRUE(wheel->isSerializationEnabled());
        EXPECT_EQ(wheel->getArchive(), &*archive);
        EXPECT_EQ(archive->getNumObjectsRead(), 1U);
    }
}

TEST_F(InputArchiveObjectTest, ASecondReferenceIsTheSameObject) {
    Opened archive(wheelBytes().knownObject(1, 1));
    Wheel* first = nullptr;
    Wheel* second = nullptr;
    archive->read(first);
    archive->read(second);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first, second);
    EXPECT_EQ(archive->getNumObjectsRead(), 1U);
}

TEST_F(InputArchiveObjectTest, NullIsRestoredAsNull) {
    Opened archive(start().null());
    Wheel wheel;
    Wheel* pointer = &wheel;
    archive->read(pointer);
    EXPECT_EQ(pointer, nullptr);
    EXPECT_TRUE(archive->isAtEnd());
    EXPECT_EQ(archive->getNumObjectsRead(), 0U);
}

TEST_F(InputArchiveObjectTest, TwoObjectsThatReferToEachOtherAreRestoredSo) {
    for (const bool isLittleEndian : {true, false}) {
        ArchiveBytes bytes = start(isLittleEndian);
        bytes.newObject(1, 1, "fleet::Vehicle").base(uuidOf(1)).text("first");
        bytes.newObject(2, 1).base(uuidOf(2)).text("second").knownObject(1, 1).null();
        bytes.byValue().base(uuidOf(4)).scalar(40).null();
        bytes.null().byValue().base(uuidOf(3)).scalar(30).null();
        Opened archive(bytes);
        ref_ptr<Vehicle> first;
        archive->read(first);
        ASSERT_NE(first, nullptr);
        EXPECT_EQ(first->name, "first");
        ASSERT_NE(first->leader, nullptr);
        EXPECT_EQ(first->leader->name, "second");
        EXPECT_EQ(first->leader->leader, first.get());
        EXPECT_EQ(first->leader->motor.power, 40);
        EXPECT_EQ(first->motor.power, 30);
        EXPECT_EQ(archive->getNumObjectsRead(), 4U);
    }
}

TEST_F(InputArchiveObjectTest, AnObjectIsKnownWithinItsOwnBody) {
    ArchiveBytes bytes = start();
    bytes.newObject(1, 1, "fleet::Vehicle").base(uuidOf(1)).text("").knownObject(1, 1).null();
    bytes.byValue().base(uuidOf(2)).scalar(0).null();
    Opened archive(bytes);
    ref_ptr<Vehicle> vehicle;
    archive->read(vehicle);
    EXPECT_EQ(vehicle->leader, vehicle.get());
}

TEST_F(InputArchiveObjectTest, AnObjectByValueIsRestoredIntoOneThatExists) {
    for (const bool isLittleEndian : {true, false}) {
        ArchiveBytes bytes = start(isLittleEndian);
        bytes.byValue().base(uuidOf(2)).scalar(90);
        bytes.newObject(1, 1, "fleet::Wheel").base(uuidOf(1)).scalar(0.5).knownObject(1, 1);
        Opened archive(bytes);
        Motor motor;
        EXPECT_TRUE(archive->read(motor));
        EXPECT_EQ(motor.power, 90);
        EXPECT_EQ(motor.getUuid(), uuidOf(2));
        ASSERT_NE(motor.drives, nullptr);
        EXPECT_EQ(motor.drives->radius, 0.5);
        EXPECT_TRUE(motor.isFinished());
        EXPECT_FALSE(motor.isDynamicallyAllocated());
        EXPECT_EQ(archive->readObjectByRef(), motor.drives.get());
        EXPECT_EQ(archive->getNumObjectsRead(), 2U);
    }
}

TEST_F(InputArchiveObjectTest, ADisabledObjectByValueIsLeftAloneAndWhatFollowsIsRead) {
    Opened archive(start().null().scalar(7));
    Wheel wheel(3);
    const zel::Uuid uuid = wheel.getUuid();
    EXPECT_FALSE(archive->read(wheel));
    EXPECT_EQ(wheel.radius, 3);
    EXPECT_EQ(wheel.getUuid(), uuid);
    EXPECT_EQ(wheel.getArchive(), nullptr);
    int value = 0;
    archive->read(value);
    EXPECT_EQ(value, 7);
}

TEST_F(InputArchiveObjectTest, WhetherAnObjectIsEnabledIsRestored) {
    Opened archive(start().newObject(1, 1, "fleet::Wheel").base(uuidOf(1), false).scalar(0.0));
    ref_ptr<Wheel> wheel;
    archive->read(wheel);
    EXPECT_FALSE(wheel->isSerializationEnabled());
}

TEST_F(InputArchiveObjectTest, AClassMayBeMadeForTheArchive) {
    Opened archive(start().newObject(1, 1, "fleet::Permit").base(uuidOf(1)));
    ref_ptr<Permit> permit;
    archive->read(permit);
    EXPECT_EQ(permit->issuer, "depot");
    EXPECT_TRUE(permit->isDynamicallyAllocated());
}

TEST_F(InputArchiveObjectTest, ArchivesUpToVersion2HaveANumberInPlaceOfTheUuid) {
    for (const bool isLittleEndian : {true, false}) {
        ArchiveBytes bytes = startOf(2, isLittleEndian);
        bytes.byValue().scalar(zel::uint64{4711}).scalar(true).scalar(0.5);
        bytes.byValue().scalar(zel::uint32{4711}).scalar(true).scalar(0.25); // of 32 bits
        Opened archive(bytes);
        Wheel wheel;
        const zel::Uuid uuid = wheel.getUuid();
        EXPECT_TRUE(archive->read(wheel));
        EXPECT_EQ(wheel.radius, 0.5);
        EXPECT_TRUE(archive->read(wheel));
        EXPECT_EQ(wheel.radius, 0.25);
        EXPECT_EQ(wheel.getUuid(), uuid);
    }
}

TEST_F(InputArchiveObjectTest, ObjectsOfSuchArchivesGetUuidsOfTheirOwn) {
    ArchiveBytes bytes = startOf(2, true);
    bytes.newObject(1, 1, "fleet::Wheel").scalar(zel::uint64{4711}).scalar(true).scalar(0.5);
    bytes.newObject(2, 1).scalar(zel::uint64{4712}).scalar(true).scalar(0.5);
    Opened archive(bytes);
    const Serializable* const first = archive->readObjectByRef();
    const Serializable* const second = archive->readObjectByRef();
    EXPECT_NE(first->getUuid(), zel::Uuid());
    EXPECT_NE(second->getUuid(), zel::Uuid());
    EXPECT_NE(first->getUuid(), second->getUuid());
}

TEST_F(InputArchiveObjectTest, FromVersion3OnTheUuidIsRestored) {
    Opened archive(startOf(3).byValue().base(uuidOf(8)).scalar(0.5));
    Wheel wheel;
    EXPECT_TRUE(archive->read(wheel));
    EXPECT_EQ(wheel.getUuid(), uuidOf(8));
}

// Modes of reading.

TEST_F(InputArchiveObjectTest, ReadValReadsInEitherMode) {
    ArchiveBytes bytes = start().byValue().base(uuidOf(1)).scalar(0.5);
    bytes.newObject(1, 1, "fleet::Wheel").base(uuidOf(2)).scalar(0.25).knownObject(1, 1);
    Opened archive(bytes);
    Wheel value;
    Wheel reference;
    archive->readVal(value, Archive::ByValue);
    EXPECT_EQ(value.radius, 0.5);
    archive->readVal(reference, Archive::ByReference);
    EXPECT_EQ(reference.radius, 0.25);
    EXPECT_EQ(archive->readObjectByRef(), &reference);
}

TEST_F(InputArchiveObjectTest, ReadValTakesNoObjectThatIsNotStoredThere) {
    for (const ArchiveBytes& bytes : {start().null(), wheelBytes().knownObject(1, 1)}) {
        Opened archive(bytes);
        Wheel wheel(3);
        std::string error = archiveErrorOf([&] { archive->readVal(wheel, Archive::ByReference); });
        if (error == "no exception") // the second record
            error = archiveErrorOf([&] { archive->readVal(wheel, Archive::ByReference); });
        EXPECT_EQ(error, std::string(InObject) + "Bad storage mode");
    }
    Opened archive(wheelBytes());
    Motor motor;
    const std::string error = archiveErrorOf([&] { archive->readVal(motor, Archive::ByReference); });
    EXPECT_THAT(error, HasSubstr("fleet::Wheel"));
    EXPECT_THAT(error, HasSubstr("fleet::Motor"));
}

TEST_F(InputArchiveObjectTest, AnObjectThatReadValRestoredIsNotHeld) {
    Opened archive(wheelBytes().knownObject(1, 1));
    {
        Wheel wheel;
        archive->readVal(wheel, Archive::ByReference);
        EXPECT_EQ(wheel.referenceCount(), 0);
        EXPECT_FALSE(wheel.isDynamicallyAllocated());
        archive->removeObject(&wheel); // as it goes ahead of the archive
    }
    EXPECT_THAT(archiveErrorOf([&] { (void)archive->readObjectByRef(); }),
                HasSubstr("has been deleted (id: 1)"));
}

TEST_F(InputArchiveObjectTest, ModesOfARecordAreNoModesToReadIn) {
    Opened archive(wheelBytes());
    Wheel wheel;
    for (const auto mode : {Archive::NewObject, Archive::KnownObject, Archive::NullObject})
        EXPECT_EQ(archiveErrorOf([&] { archive->readVal(wheel, mode); }),
                  "Current scope: 'Archive'. Invalid storage mode specified for read");
}

TEST_F(InputArchiveObjectTest, ASectionThatRestoreLeavesOpenIsToldAtTheEndOfItsObject) {
    fleet::Scripted::s_restore = [](Scripted&, InputArchive& archive) { archive.beginSection("Tank"); };
    EXPECT_EQ(refErrorOf(start().newObject(1, 1, "fleet::Scripted").base(uuidOf(5))),
              "Current scope: 'Archive/Object/Tank'. Call to endSection(\"Object\") does not match previous "
              "call to "
              "beginSection(\"Tank\") at path: 'Archive/Object/Tank'");
    {
        Opened archive(start().newObject(1, 1, "fleet::Scripted").base(uuidOf(5)));
        Scripted object;
        EXPECT_THAT(archiveErrorOf([&] { archive->readVal(object, Archive::ByReference); }),
                    HasSubstr("Call to endSection(\"Object\")"));
    }
    {
        Opened archive(start().newObject(1, 1, "fleet::Scripted").base(uuidOf(5)));
        ref_ptr<Scripted> object;
        EXPECT_THAT(archiveErrorOf([&] { archive->readDeferred(object); }),
                    HasSubstr("Call to endSection(\"Object\")"));
    }
    EXPECT_EQ(valErrorOf<Scripted>(start().scalar(1).scalar(4).base(uuidOf(5))),
              "Current scope: 'Archive/Object/Tank'. Call to endSection(\"Object\") does not match previous "
              "call to "
              "beginSection(\"Tank\") at path: 'Archive/Object/Tank'");
}

/// A form whose sections end in a byte.
class ClosingArchive : public InputArchive {
public:
    void endSection(const char* name) override {
        char mark = 0;
        if (std::string(name) == "Object")
            read(&mark, 1);
        InputArchive::endSection(name);
    }
};

TEST_F(InputArchiveObjectTest, TheEndOfTheFileInTheEndOfAnObjectIsToldWithItsClass) {
    std::istringstream stream(wheelBytes().bytes());
    ClosingArchive archive;
    archive.open(stream);
    EXPECT_EQ(archiveErrorOf([&] { (void)archive.readObjectByRef(); }),
              "Current scope: 'Archive/Object'. End of file reached while trying to read end section Object, "
              "during "
              "restore of object: fleet::Wheel");
}

TEST_F(InputArchiveObjectTest, AnObjectOfAnotherClassIsToldWithBothClasses) {
    {
        Opened archive(wheelBytes());
        Motor* motor = nullptr;
        const std::string error = archiveErrorOf([&] { archive->read(motor); });
        EXPECT_THAT(error, HasSubstr("fleet::Wheel"));
        EXPECT_THAT(error, HasSubstr("fleet::Motor"));
        EXPECT_EQ(motor, nullptr);
    }
    Opened archive(wheelBytes());
    ref_ptr<Motor> motor;
    EXPECT_THAT(archiveErrorOf([&] { archive->read(motor); }), HasSubstr("fleet::Motor"));
    EXPECT_EQ(motor, nullptr);
}

TEST_F(InputArchiveObjectTest, ABaseClassTakesEachOfItsClasses) {
    Opened archive(wheelBytes());
    ref_ptr<Serializable> object;
    archive->read(object);
    EXPECT_NE(dynamic_cast<Wheel*>(object.get()), nullptr);
}

// Who holds what.

TEST_F(InputArchiveObjectTest, TheArchiveHoldsItsObjectsUntilItIsClosed) {
    Opened archive(start().newObject(1, 1, "fleet::Scripted").base(uuidOf(1)));
    const zel::observer_ptr<Serializable> object(archive->readObjectByRef());
    EXPECT_EQ(Scripted::s_numLiving, 1);
    EXPECT_EQ(object->referenceCount(), 1);
    archive->close();
    EXPECT_EQ(Scripted::s_numLiving, 0);
}

TEST_F(InputArchiveObjectTest, WhatWasAdoptedOutlivesTheArchive) {
    ref_ptr<Scripted> object;
    {
        Opened archive(start().newObject(1, 1, "fleet::Scripted").base(uuidOf(1)));
        archive->read(object);
        EXPECT_EQ(object->getArchive(), &*archive);
    }
    EXPECT_EQ(Scripted::s_numLiving, 1);
    EXPECT_EQ(object->referenceCount(), 1);
    EXPECT_EQ(object->getArchive(), nullptr);
    object = nullptr;
    EXPECT_EQ(Scripted::s_numLiving, 0);
}

TEST_F(InputArchiveObjectTest, AnObjectThatThrewIsFreedWithTheArchive) {
    Scripted::s_restore = [](Scripted&, InputArchive& archive) {
        (void)archive.readObjectByRef();
        throw std::runtime_error("no place");
    };
    ArchiveBytes bytes = start().newObject(1, 1, "fleet::Scripted").base(uuidOf(1));
    bytes.newObject(2, 2, "fleet::Wheel").base(uuidOf(2)).scalar(0.0);
    Opened archive(bytes);
    EXPECT_EQ(zelTest::whatOf([&] { (void)archive->readObjectByRef(); }), "no place");
    EXPECT_EQ(archive->getSectionStackString(), "Archive");
    archive->close();
    EXPECT_EQ(Scripted::s_numLiving, 0);
}

TEST_F(InputArchiveObjectTest, AnObjectByValueIsNeverHeld) {
    Opened archive(start().byValue().base(uuidOf(1)).scalar(0.5));
    Wheel wheel;
    archive->read(wheel);
    EXPECT_EQ(wheel.referenceCount(), 0);
}

TEST_F(InputArchiveObjectTest, AnObjectIsUnfinishedWhileItIsRestored) {
    bool wasFinished = true;
    bool hadArchive = false;
    Scripted::s_restore = [&](Scripted& object, InputArchive& archive) {
        wasFinished = object.isFinished();
        hadArchive = object.getArchive() == &archive;
    };
    Opened archive(start().byValue().base(uuidOf(1)));
    Scripted object;
    object.setFinished(true);
    archive->read(object);
    EXPECT_FALSE(wasFinished);
    EXPECT_TRUE(hadArchive);
    EXPECT_TRUE(object.isFinished());
}

TEST_F(InputArchiveObjectTest, ARemovedObjectIsForgotten) {
    Opened archive(start().newObject(1, 1, "fleet::Scripted").base(uuidOf(1)).knownObject(1, 1));
    archive->removeObject(archive->readObjectByRef());
    EXPECT_EQ(Scripted::s_numLiving, 0);
    EXPECT_EQ(archiveErrorOf([&] { (void)archive->readObjectByRef(); }),
              std::string(InObject) +
                  "During restore an object was referenced of type (fleet::Scripted) that "
                  "has been deleted (id: 1)");
}

TEST_F(InputArchiveObjectTest, ARemovedObjectThatWasAdoptedLives) {
    Opened archive(wheelBytes());
    ref_ptr<Wheel> wheel;
    archive->read(wheel);
    archive->removeObject(wheel.get());
    EXPECT_EQ(wheel->referenceCount(), 1);
    archive->removeObject(wheel.get()); // it is no object of the archive any more
    Wheel stranger;
    archive->removeObject(&stranger);
    archive->removeObject(nullptr);
    EXPECT_EQ(wheel->radius, 0.5);
}

// What the records say.

TEST_F(InputArchiveObjectTest, AnotherTagIsABadClassTag) {
    for (const int tag : {0, 2, -1, 256})
        EXPECT_EQ(refErrorOf(start().objectHeader(4, tag)),
                  std::string(InObject) + "Invalid archive format (bad class tag)");
    EXPECT_EQ(valErrorOf<Wheel>(start().objectHeader(4, 3)),
              std::string(InObject) + "Invalid archive format (bad class tag)");
}

TEST_F(InputArchiveObjectTest, AnotherTagOfAClassIsABadClassTag) {
    EXPECT_EQ(refErrorOf(start().objectHeader(4).scalar(1)),
              std::string(InClass) + "Invalid archive format (bad class tag)");
}

TEST_F(InputArchiveObjectTest, OtherModesOfAnObjectAreToldWithTheirValue) {
    for (const int mode : {0, 1, 2, 3, 5, 12, 17, -1, 1'000'000})
        EXPECT_EQ(refErrorOf(start().objectHeader(mode)),
                  InObject + ("Invalid storage mode read: " + std::to_string(mode)));
    EXPECT_EQ(valErrorOf<Wheel>(start().objectHeader(1)),
              std::string(InObject) + "Invalid storage mode read: 1");
}

TEST_F(InputArchiveObjectTest, OtherModesOfAClassAreInvalid) {
    for (const int mode : {0, 1, 16, -1})
        EXPECT_EQ(refErrorOf(start().objectHeader(4).scalar(2).scalar(mode)),
                  std::string(InClass) + "Invalid storage mode");
}

TEST_F(InputArchiveObjectTest, AReferenceIsABadModeForAnObjectByValue) {
    EXPECT_EQ(valErrorOf<Wheel>(start().objectHeader(8)), std::string(InObject) + "Bad storage mode");
}

TEST_F(InputArchiveObjectTest, IdsThatWereNotGivenAreBad) {
    EXPECT_EQ(refErrorOf(start().newObject(0, 1, "fleet::Wheel").base(uuidOf(1)).scalar(0.0)),
              std::string(InObject) + "Bad object id 0");
    Opened archive(wheelBytes().knownObject(2, 1).knownObject(0, 1).knownObject(0xFFFFFFFF, 1));
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    for (const char* id : {"2", "0", "4294967295"})
        EXPECT_EQ(archiveErrorOf([&] { (void)archive->readObjectByRef(); }),
                  std::string(InObject) + "Bad object id " + id);
}

TEST_F(InputArchiveObjectTest, AnIdThatIsGivenTwiceIsBad) {
    Opened archive(wheelBytes().newObject(1, 1).base(uuidOf(2)).scalar(0.0));
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_EQ(archiveErrorOf([&] { (void)archive->readObjectByRef(); }),
              std::string(InObject) + "Bad object id 1");
}

TEST_F(InputArchiveObjectTest, AnIdStaysGivenWhenItsObjectWasRemoved) {
    Opened archive(wheelBytes().newObject(1, 1).base(uuidOf(2)).scalar(0.0));
    archive->removeObject(archive->readObjectByRef());
    EXPECT_EQ(archiveErrorOf([&] { (void)archive->readObjectByRef(); }),
              std::string(InObject) + "Bad object id 1");
}

TEST_F(InputArchiveObjectTest, IdsMayLeaveSomeOut) {
    ArchiveBytes bytes = start();
    bytes.newObject(0xFFFFFFFF, 9, "fleet::Wheel").base(uuidOf(1)).scalar(0.5);
    bytes.newObject(7, 9).base(uuidOf(2)).scalar(0.25).newObject(1, 9).base(uuidOf(3)).scalar(0.125);
    bytes.knownObject(7, 9).knownObject(0xFFFFFFFF, 9).knownObject(1, 9);
    Opened archive(bytes);
    std::vector<Wheel*> wheels(6);
    for (Wheel*& wheel : wheels)
        archive->read(wheel);
    EXPECT_EQ(wheels[3], wheels[1]);
    EXPECT_EQ(wheels[4], wheels[0]);
    EXPECT_EQ(wheels[5], wheels[2]);
    EXPECT_EQ(wheels[2]->radius, 0.125);
}

TEST_F(InputArchiveObjectTest, IdsOfClassesAreCheckedToo) {
    EXPECT_EQ(refErrorOf(start().newObject(1, 0, "fleet::Wheel")), std::string(InClass) + "Bad object id 0");
    Opened archive(wheelBytes().newObject(2, 1, "fleet::Wheel"));
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_EQ(archiveErrorOf([&] { (void)archive->readObjectByRef(); }),
              std::string(InClass) + "Bad object id 1");
}

TEST_F(InputArchiveObjectTest, AClassThatNobodyKnowsIsTold) {
    EXPECT_EQ(refErrorOf(start().newObject(1, 1, "Barrow")),
              std::string(InClass) + "Unable to get StorageAgent for a referenced object: 'Barrow'");
    EXPECT_EQ(refErrorOf(start().newObject(1, 1, "")),
              std::string(InClass) + "Unable to get StorageAgent for a referenced object: ''");
    EXPECT_EQ(refErrorOf(start().newObject(1, 77)),
              std::string(InClass) + "Unable to get StorageAgent for a referenced object: '77'");
}

// The end of the file.

TEST_F(InputArchiveObjectTest, AnEndWithinARecordIsToldByItsPlaceWithTheFirstCauseWithin) {
    const std::string wheel = wheelBytes().bytes();
    const std::string header = start().bytes();
    const std::string null = start().null().bytes();
    using testing::ElementsAre;
    const auto shortRead = [](int wanted) {
        return HasSubstr("Error occurred while reading " + std::to_string(wanted) +
                         " bytes from the input stream");
    };
    EXPECT_THAT(chainOf(wheel.substr(0, wheel.size() - 1)),
                ElementsAre(std::string(InObject) +
                                "End of file reached while trying to restore an object: fleet::Wheel",
                            shortRead(8)));
    EXPECT_THAT(chainOf(null.substr(0, null.size() - 1)),
                ElementsAre(std::string(InObject) + "End of file reached while trying to read 'referenceID' "
                                                    "during restore of a null pointer object",
                            shortRead(1)));
    for (const std::string& record :
         {start().newObject(1, 1, "fleet::Wheel").bytes(), wheelBytes().knownObject(1, 1).bytes()}) {
        std::string cut = record.substr(0, record.size() - 1);
        Opened archive(cut);
        std::string error = archiveErrorOf([&] { (void)archive->readObjectByRef(); });
        if (error == "no exception") // the second record
            error = archiveErrorOf([&] { (void)archive->readObjectByRef(); });
        EXPECT_EQ(error,
                  std::string(InObject) +
                      "End of file reached while trying to read 'referenceID' during restore of object");
    }
}

TEST_F(InputArchiveObjectTest, AnEndWithinAnObjectByValueIsToldByItsPlace) {
    EXPECT_EQ(valErrorOf<Wheel>(start()),
              std::string(InObject) +
                  "End of file reached while trying to read object header: 'fleet::Wheel'");
    EXPECT_EQ(valErrorOf<Wheel>(start().scalar(1)),
              std::string(InObject) +
                  "End of file reached while trying to read object header: 'fleet::Wheel'");
    EXPECT_EQ(valErrorOf<Wheel>(start().byValue()),
              std::string(InObject) + "End of file reached while trying to restoring an object");
    EXPECT_EQ(valErrorOf<Wheel>(start().byValue().base(uuidOf(1))),
              std::string(InObject) + "End of file reached while trying to restoring an object");
}

TEST_F(InputArchiveObjectTest, TheInnermostObjectTellsTheEnd) {
    ArchiveBytes bytes = start().newObject(1, 1, "fleet::Vehicle").base(uuidOf(1)).text("");
    bytes.newObject(2, 1).base(uuidOf(2)).text("x").null().newObject(3, 2, "fleet::Wheel").base(uuidOf(3));
    EXPECT_EQ(refErrorOf(bytes),
              "Current scope: 'Archive/Object/Object/Object'. End of file reached while trying to restore an "
              "object: fleet::Wheel");
}

} // namespace
