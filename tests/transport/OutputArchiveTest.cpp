#include "ArchiveFixture.h"

#include <zel/Matrix.h>
#include <zel/Name.h>
#include <zel/Quat.h>
#include <zel/Vec.h>

#include <limits>

using fleet::Motor;
using fleet::Rumour;
using fleet::Scripted;
using fleet::Vehicle;
using fleet::Wheel;
using testing::HasSubstr;
using zel::ref_ptr;
using zel::uint32;
using zelStream::Archive;
using zelStream::OutputArchive;
using zelStream::Serializable;
using zelTest::ArchiveBytes;
using zelTest::archiveErrorOf;
using zelTest::uuidOf;

// What archives look like, byte by byte; what the header looks like is a matter of OutputArchiveHeaderTest.

namespace {

constexpr const char* ClosedText = "Output archive closed. Writing not possible.";

class OutputArchiveTest : public zelTest::ArchiveFixture {
protected:
    /// Runs the check in both byte orders.
    template <typename Work, typename Expected>
    static void expectWritten(Work work, Expected expected) {
        for (const bool isLittleEndian : {true, false}) {
            ArchiveBytes bytes(isLittleEndian);
            expected(bytes);
            EXPECT_EQ(testing::PrintToString(written(work, isLittleEndian)),
                      testing::PrintToString(bytes.bytes()))
                << (isLittleEndian ? "little" : "big") << "-endian";
        }
    }
    template <typename T>
    static ref_ptr<T> makeWithUuid(char fill) {
        ref_ptr<T> object(new T);
        object->setUuid(uuidOf(fill));
        return object;
    }
};
using OutputArchiveDeathTest = OutputArchiveTest;

TEST_F(OutputArchiveTest, ScalarsStandBehindTheCountOfTheirBytes) {
    expectWritten(
        [](OutputArchive& archive) {
            archive.write(true);
            archive.write('x');
            archive.write(static_cast<signed char>(-2));
            archive.write(zel::uint8{200});
            archive.write(zel::int16{-300});
            archive.write(zel::uint16{40'000});
            archive.write(zel::int32{-70'000});
            archive.write(zel::uint32{3'000'000'000U});
            archive.write(zel::int64{-5'000'000'000});
            archive.write(zel::uint64{0x0102030405060708});
            archive.write(1.5F);
            archive.write(-2.25);
        },
        [](ArchiveBytes& bytes) {
            bytes.scalar(true).scalar('x').scalar(zel::int8{-2}).scalar(zel::uint8{200});
            bytes.scalar(zel::int16{-300}).scalar(zel::uint16{40'000}).scalar(zel::int32{-70'000});
            bytes.scalar(zel::uint32{3'000'000'000U}).scalar(zel::int64{-5'000'000'000});
            bytes.scalar(zel::uint64{0x0102030405060708}).scalar(1.5F).scalar(-2.25);
        });
}

TEST_F(OutputArchiveTest, OneIsWrittenWithItsLowByteFirstInLittleEndian) {
    const auto one = [](OutputArchive& archive) { archive.write(zel::int32{1}); };
    EXPECT_EQ(written(one, true), std::string("\4\1\0\0\0", 5));
    EXPECT_EQ(written(one, false), std::string("\4\0\0\0\1", 5));
}

TEST_F(OutputArchiveTest, TextsStandBehindTheirLengthWithoutATerminator) {
    expectWritten(
        [](OutputArchive& archive) {
            archive.write(std::string("rover"));
            archive.write(zel::String("a\0b", 3));
            archive.write("literal");
            archive.write(static_cast<const char*>(nullptr));
            archive.write(zel::Name("name"));
        },
        [](ArchiveBytes& bytes) {
            bytes.text("rover").text({"a\0b", 3}).text("literal").text("").text("name");
        });
}

TEST_F(OutputArchiveTest, ATextIsRefusedWhoseLengthHasMoreThan32Bits) {
    struct Exposed : OutputArchive {
        using OutputArchive::writeString;
    };
    std::ostringstream stream;
    Exposed archive;
    archive.open(stream);
    archive.flush();
    const std::size_t size = stream.str().size();
    const char text = 'x'; // is not looked at
    EXPECT_THAT(archiveErrorOf([&] {
                    archive.writeString(nullptr, {&text, std::size_t{1} << 32});
                }),
                HasSubstr("4294967296 bytes"));
    archive.flush();
    EXPECT_EQ(stream.str().size(), size);
}

TEST_F(OutputArchiveTest, UuidsAreTheirBytesInOrder) {
    zel::Uuid uuid;
    for (zel::uint8 i = 0; i < 16; ++i)
        uuid.data()[i] = static_cast<zel::uint8>(i + 1);
    const auto write = [&uuid](OutputArchive& archive) { archive.write(uuid); };
    EXPECT_EQ(written(write, true), "\1\2\3\4\5\6\7\x8\x9\xA\xB\xC\xD\xE\xF\x10");
    EXPECT_EQ(written(write, false), written(write, true));
}

TEST_F(OutputArchiveTest, BlocksAreNeverSwapped) {
    const auto write = [](OutputArchive& archive) { archive.write("\1\2\3\4", 4); };
    EXPECT_EQ(written(write, true), "\1\2\3\4");
    EXPECT_EQ(written(write, false), "\1\2\3\4");
}

TEST_F(OutputArchiveTest, AttributesAreValuesWithoutTheirNames) {
    expectWritten(
        [](OutputArchive& archive) {
            archive.addAttribute("count", zel::uint16{7});
            archive.addAttribute("text", "abc");
            archive.addAttribute("none", static_cast<const char*>(nullptr));
            archive.addAttribute("string", std::string("def"));
            archive.addAttribute("name", zel::Name("ghi"));
            archive.addAttribute("uuid", uuidOf(9));
        },
        [](ArchiveBytes& bytes) {
            bytes.scalar(zel::uint16{7}).text("abc").text("").text("def").text("ghi").uuid(uuidOf(9));
        });
}

TEST_F(OutputArchiveTest, SectionsHaveNoBytes) {
    expectWritten(
        [](OutputArchive& archive) {
            archive.beginSection("Depot");
            archive.write('d');
            archive.endSection("Depot");
        },
        [](ArchiveBytes& bytes) { bytes.scalar('d'); });
}

TEST_F(OutputArchiveTest, VectorsAndMatricesAreTheirComponents) {
    expectWritten(
        [](OutputArchive& archive) {
            archive.write(zel::Vec2f(1, 2));
            archive.write(zel::Vec3d(1, 2, 3));
            archive.write(zel::Vec4T<zel::int32>(1, 2, 3, 4));
            archive.write(zel::QuatT<double>(0.5, 0.25, 0.125, 1));
        },
        [](ArchiveBytes& bytes) {
            bytes.scalar(1.0F).scalar(2.0F).scalar(1.0).scalar(2.0).scalar(3.0);
            bytes.scalar(1).scalar(2).scalar(3).scalar(4);
            const zel::QuatT<double> quat(0.5, 0.25, 0.125, 1);
            for (int i = 0; i < 4; ++i)
                bytes.scalar(quat[static_cast<zel::size_t>(i)]);
        });
}

TEST_F(OutputArchiveTest, MatricesAreWrittenRowByRow) {
    zel::Matrix3x3T<float> three;
    zel::Matrix4x4T<double> four;
    for (zel::size_t i = 0; i < 9; ++i)
        three(i / 3, i % 3) = static_cast<float>(i);
    for (zel::size_t i = 0; i < 16; ++i)
        four(i / 4, i % 4) = static_cast<double>(i);
    expectWritten(
        [&](OutputArchive& archive) {
            archive.write(three);
            archive.write(four);
            archive.write(zel::SPDMatrix3x3(1, 2, 3, 4, 5, 6));
        },
        [](ArchiveBytes& bytes) {
            for (int i = 0; i < 9; ++i)
                bytes.scalar(static_cast<float>(i));
            for (int i = 0; i < 16; ++i)
                bytes.scalar(static_cast<double>(i));
            for (const double value : {1, 2, 3, 2, 4, 5, 3, 5, 6})
                bytes.scalar(value);
        });
}

TEST_F(OutputArchiveTest, AffineMatricesAreWrittenWithTheirLastRow) {
    zel::AffineMatrix4x4T<double> matrix;
    matrix.set(0, 3, 7);
    expectWritten([&](OutputArchive& archive) { archive.write(matrix); },
                  [](ArchiveBytes& bytes) {
                      for (const double value : {1, 0, 0, 7, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1})
                          bytes.scalar(value);
                  });
}

TEST_F(OutputArchiveTest, VectorsOfNumbersAreBlocks) {
    expectWritten(
        [](OutputArchive& archive) {
            archive.write(zel::Vector<float>{1, 2, 3});
            archive.write(std::vector<double>{-1.5});
            archive.write(zel::Vector<zel::uint16>{0x0102, 0x0304});
            archive.write(zel::Vector<double>());
        },
        [](ArchiveBytes& bytes) {
            bytes.vector<float>({1, 2, 3}, 3, 0).vector<double>({-1.5}, 1, 1);
            bytes.vector<zel::uint16>({0x0102, 0x0304}, 2, 8);
            bytes.vectorHeader(0, 8, 8, 1);
        });
}

TEST_F(OutputArchiveTest, VectorsOfVecsAreBlocksOfTheirMemory) {
    expectWritten(
        [](OutputArchive& archive) {
            archive.write(zel::Vector<zel::Vec2f>{{1, 2}, {3, 4}});
            archive.write(zel::Vector<zel::Vec2d>{{1, 2}});
            archive.write(zel::Vector<zel::Vec3f>{{1, 2, 3}, {4, 5, 6}});
            archive.write(zel::Vector<zel::Vec3d>{{1, 2, 3}});
            archive.write(zel::Vector<zel::Vec4f>{{1, 2, 3, 4}});
            archive.write(zel::Vector<zel::Vec4d>{{1, 2, 3, 4}});
        },
        [](ArchiveBytes& bytes) {
            bytes.vector<float>({1, 2, 3, 4}, 2, 2).vector<double>({1, 2}, 1, 3);
            bytes.vector<float>({1, 2, 3, 0, 4, 5, 6, 0}, 2, 4).vector<double>({1, 2, 3, 0}, 1, 5);
            bytes.vector<float>({1, 2, 3, 4}, 1, 6).vector<double>({1, 2, 3, 4}, 1, 7);
        });
}

TEST_F(OutputArchiveTest, LargeVectorsAreSwappedWhole) {
    zel::Vector<zel::uint16> values(100'000);
    for (zel::size_t i = 0; i < values.size(); ++i)
        values[i] = static_cast<zel::uint16>(i * 7);
    expectWritten([&](OutputArchive& archive) { archive.write(values); },
                  [&](ArchiveBytes& bytes) {
                      bytes.vector(std::vector<zel::uint16>(values.begin(), values.end()), 100'000, 8);
                  });
}

// Objects.

TEST_F(OutputArchiveTest, NullIsAModeAndACharacter) {
    expectWritten(
        [](OutputArchive& archive) {
            archive.write(static_cast<const Wheel*>(nullptr));
            archive.writeObjectByRef(nullptr);
        },
        [](ArchiveBytes& bytes) { bytes.null().null(); });
}

TEST_F(OutputArchiveTest, ANewObjectIsItsClassItsIdAndItsBody) {
    const auto wheel = makeWithUuid<Wheel>(5);
    wheel->radius = 0.5;
    expectWritten(
        [&](OutputArchive& archive) { archive.write(wheel.get()); },
        [](ArchiveBytes& bytes) { bytes.newObject(1, 1, "fleet::Wheel").base(uuidOf(5)).scalar(0.5); });
}

TEST_F(OutputArchiveTest, AnObjectThatIsStoredTwiceHasOneBody) {
    const auto wheel = makeWithUuid<Wheel>(5);
    expectWritten(
        [&](OutputArchive& archive) {
            archive.write(wheel.get());
            archive.write(wheel.get());
        },
        [](ArchiveBytes& bytes) {
            bytes.newObject(1, 1, "fleet::Wheel").base(uuidOf(5)).scalar(0.0).knownObject(1, 1);
        });
}

TEST_F(OutputArchiveTest, AClassIsNamedOnceAndNumberedApartFromObjects) {
    const auto first = makeWithUuid<Wheel>(1);
    const auto second = makeWithUuid<Wheel>(2);
    const auto motor = makeWithUuid<Motor>(3);
    expectWritten(
        [&](OutputArchive& archive) {
            archive.write(first.get());
            archive.write(second.get());
            archive.write(motor.get());
        },
        [](ArchiveBytes& bytes) {
            bytes.newObject(1, 1, "fleet::Wheel").base(uuidOf(1)).scalar(0.0);
            bytes.newObject(2, 1).base(uuidOf(2)).scalar(0.0);
            bytes.newObject(3, 2, "fleet::Motor").base(uuidOf(3)).scalar(0).null();
        });
}

TEST_F(OutputArchiveTest, AnObjectThatRefersToItselfIsKnownWithinItsBody) {
    const auto vehicle = makeWithUuid<Vehicle>(1);
    vehicle->leader = vehicle.get();
    vehicle->motor.setUuid(uuidOf(2));
    expectWritten([&](OutputArchive& archive) { archive.write(vehicle.get()); },
                  [](ArchiveBytes& bytes) {
                      bytes.newObject(1, 1, "fleet::Vehicle").base(uuidOf(1)).text("");
                      bytes.knownObject(1, 1).null();
                      bytes.byValue().base(uuidOf(2)).scalar(0).null();
                  });
}

TEST_F(OutputArchiveTest, AnObjectByValueHasNeitherClassNorIdButThoseWithinItHave) {
    const auto wheel = makeWithUuid<Wheel>(1);
    Motor motor;
    motor.setUuid(uuidOf(2));
    motor.power = 90;
    motor.drives = wheel;
    expectWritten(
        [&](OutputArchive& archive) {
            archive.write(motor);
            archive.write(wheel.get());
        },
        [](ArchiveBytes& bytes) {
            bytes.byValue().base(uuidOf(2)).scalar(90);
            bytes.newObject(1, 1, "fleet::Wheel").base(uuidOf(1)).scalar(0.0);
            bytes.knownObject(1, 1);
        });
}

TEST_F(OutputArchiveTest, ADisabledObjectByReferenceIsNull) {
    const auto wheel = makeWithUuid<Wheel>(1);
    wheel->setEnableSerialization(false);
    expectWritten([&](OutputArchive& archive) { archive.write(wheel.get()); },
                  [](ArchiveBytes& bytes) { bytes.null(); });
}

TEST_F(OutputArchiveTest, ADisabledObjectByValueIsNullToo) {
    Wheel wheel;
    wheel.setEnableSerialization(false);
    expectWritten([&](OutputArchive& archive) { archive.write(wheel); },
                  [](ArchiveBytes& bytes) { bytes.null(); });
}

TEST_F(OutputArchiveTest, AnObjectByValueIsNotKnownByReference) {
    const auto wheel = makeWithUuid<Wheel>(1);
    expectWritten(
        [&](OutputArchive& archive) {
            archive.write(*wheel);
            archive.write(wheel.get());
            archive.write(*wheel);
        },
        [](ArchiveBytes& bytes) {
            bytes.byValue().base(uuidOf(1)).scalar(0.0);
            bytes.newObject(1, 1, "fleet::Wheel").base(uuidOf(1)).scalar(0.0);
            bytes.byValue().base(uuidOf(1)).scalar(0.0);
        });
}

TEST_F(OutputArchiveTest, PointersMayBeStoredByValueAndObjectsByReference) {
    const auto wheel = makeWithUuid<Wheel>(1);
    expectWritten(
        [&](OutputArchive& archive) {
            archive.write(wheel.get(), Archive::ByValue);
            archive.write(*wheel, Archive::ByReference);
        },
        [](ArchiveBytes& bytes) {
            bytes.byValue().base(uuidOf(1)).scalar(0.0);
            bytes.newObject(1, 1, "fleet::Wheel").base(uuidOf(1)).scalar(0.0);
        });
}

TEST_F(OutputArchiveTest, ModesOfARecordAreNoModesToWriteIn) {
    const Wheel wheel;
    std::ostringstream stream;
    OutputArchive archive;
    archive.open(stream);
    for (const auto mode : {Archive::NewObject, Archive::KnownObject, Archive::NullObject}) {
        EXPECT_EQ(archiveErrorOf([&] { archive.write(&wheel, mode); }),
                  "Current scope: 'Archive'. Invalid storage mode specified for write");
        EXPECT_EQ(archiveErrorOf([&] { archive.write(wheel, mode); }),
                  "Current scope: 'Archive'. Invalid storage mode specified for write");
    }
}

TEST_F(OutputArchiveDeathTest, AnObjectWithoutAnAgentIsAnErrorOfTheProgram) {
    const Rumour rumour;
    std::ostringstream stream;
    OutputArchive archive;
    archive.open(stream);
    EXPECT_DEATH(archive.write(static_cast<const Serializable*>(&rumour)),
                 "an object of class 'fleet::Rumour' has no storage agent, by which archives know its class");
}

TEST_F(OutputArchiveTest, AnObjectWithoutAnAgentCanBeStoredByValue) {
    Rumour rumour;
    rumour.setUuid(uuidOf(4));
    expectWritten([&](OutputArchive& archive) { archive.write(rumour); },
                  [](ArchiveBytes& bytes) { bytes.byValue().base(uuidOf(4)); });
}

TEST_F(OutputArchiveTest, TheEventIsFiredBehindEachBodyWithTheId) {
    const auto vehicle = makeWithUuid<Vehicle>(1);
    vehicle->spare = makeWithUuid<Wheel>(2);
    std::vector<std::pair<const Serializable*, uint32>> seen;
    written([&](OutputArchive& archive) {
        archive.getObjectEvent().connect(
            {[&](const Serializable* object, uint32 id) { seen.emplace_back(object, id); }});
        archive.write(vehicle.get());
        archive.write(vehicle.get());
    });
    const std::vector<std::pair<const Serializable*, uint32>> expected{
        {vehicle->spare.get(), 2}, {&vehicle->motor, 0}, {vehicle.get(), 1}};
    EXPECT_EQ(seen, expected);
}

TEST_F(OutputArchiveTest, BodiesAreCounted) {
    const auto vehicle = makeWithUuid<Vehicle>(1);
    vehicle->spare = makeWithUuid<Wheel>(2);
    written([&](OutputArchive& archive) {
        EXPECT_EQ(archive.getNumObjectsWritten(), 0U);
        archive.write(vehicle.get());
        archive.write(vehicle.get());
        archive.write(vehicle->motor);
        EXPECT_EQ(archive.getNumObjectsWritten(), 4U);
        EXPECT_EQ(archive.getNumObjectsWrittenByReference(), 2U);
    });
}

// Open and closed.

TEST_F(OutputArchiveTest, AClosedArchiveWritesNothing) {
    OutputArchive archive;
    const Wheel wheel;
    EXPECT_FALSE(archive.isOpen());
    EXPECT_EQ(archiveErrorOf([&] { archive.write(1); }), ClosedText);
    EXPECT_EQ(archiveErrorOf([&] { archive.write("text"); }), ClosedText);
    EXPECT_EQ(archiveErrorOf([&] { archive.write(zel::Name("n")); }), ClosedText);
    EXPECT_EQ(archiveErrorOf([&] { archive.write(zel::Uuid()); }), ClosedText);
    EXPECT_EQ(archiveErrorOf([&] { archive.write("x", 1); }), ClosedText);
    EXPECT_EQ(archiveErrorOf([&] { archive.write(zel::Vector<double>{1}); }), ClosedText);
    EXPECT_EQ(archiveErrorOf([&] { archive.write(wheel); }), ClosedText);
    EXPECT_EQ(archiveErrorOf([&] { archive.write(&wheel); }), ClosedText);
    EXPECT_EQ(archiveErrorOf([&] { archive.writeDeferred(&wheel); }), ClosedText);
    EXPECT_EQ(archiveErrorOf([&] { archive.flush(); }), ClosedText);

    std::ostringstream stream;
    archive.open(stream);
    archive.close();
    archive.close();
    EXPECT_EQ(archiveErrorOf([&] { archive.addAttribute("a", 1); }), ClosedText);
}

TEST_F(OutputArchiveTest, AnOpenArchiveIsNotOpenedAgain) {
    std::ostringstream stream;
    std::ostringstream other;
    OutputArchive archive;
    archive.open(stream);
    EXPECT_NE(archiveErrorOf([&] { archive.open(other); }), "no exception");
    EXPECT_EQ(other.str(), "");
    EXPECT_TRUE(archive.isOpen());
    archive.close();
    archive.open(other);
    archive.close();
    EXPECT_NE(other.str(), "");
}

TEST_F(OutputArchiveTest, AnArchiveThatIsOpenedAgainKnowsNoObjects) {
    const auto wheel = makeWithUuid<Wheel>(1);
    OutputArchive archive;
    archive.setUseCurrentDate(false);
    std::vector<std::string> archives;
    for (int i = 0; i < 2; ++i) {
        std::ostringstream stream;
        archive.open(stream);
        archive.write(wheel.get());
        archive.close();
        archives.push_back(stream.str());
        EXPECT_EQ(archive.getNumObjectsWritten(), 1U);
    }
    EXPECT_EQ(archives[0], archives[1]);
}

TEST_F(OutputArchiveTest, TheByteOrderIsThatOfTheMachineUnlessItIsChosenAhead) {
    std::ostringstream stream; // outlives the archive
    OutputArchive archive;
    EXPECT_EQ(archive.isLittleEndian(), std::endian::native == std::endian::little);
    archive.open(stream);
    EXPECT_NE(archiveErrorOf([&] { archive.setLittleEndian(false); }), "no exception");
    EXPECT_EQ(archive.isLittleEndian(), std::endian::native == std::endian::little);
}

TEST_F(OutputArchiveTest, SectionsHaveToEndInOrder) {
    std::ostringstream stream;
    OutputArchive archive;
    archive.open(stream);
    EXPECT_EQ(archive.getSectionStackString(), "Archive");
    archive.beginSection("Depot");
    EXPECT_EQ(
        archiveErrorOf([&] { archive.endSection("Garage"); }),
        "Current scope: 'Archive/Depot'. Call to endSection(\"Garage\") does not match previous call to "
        "beginSection(\"Depot\") at path: 'Archive/Depot'");
    archive.endSection("Depot");
    archive.close();
    EXPECT_EQ(archive.getSectionStackString(), "");
}

TEST_F(OutputArchiveTest, ASectionThatIsLeftOpenIsToldByClose) {
    std::ostringstream stream;
    OutputArchive archive;
    archive.open(stream);
    archive.beginSection("Depot");
    EXPECT_THAT(archiveErrorOf([&] { archive.close(); }), HasSubstr("beginSection(\"Depot\")"));
    EXPECT_FALSE(archive.isOpen());
}

} // namespace
