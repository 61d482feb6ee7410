#include "ArchiveFixture.h"

#include <zel/Matrix.h>
#include <zel/Name.h>
#include <zel/Quat.h>
#include <zel/Vec.h>

#include <limits>

using fleet::Wheel;
using testing::HasSubstr;
using testing::StartsWith;
using zelStream::InputArchive;
using zelTest::ArchiveBytes;
using zelTest::archiveErrorOf;
using zelTest::Opened;
using zelTest::uuidOf;

// Values that are read from bytes made by hand.

namespace {

class InputArchiveTest : public zelTest::ArchiveFixture {
protected:
    /// Reads with both byte orders what `write` puts behind the header.
    template <typename Write, typename Check>
    static void inBothOrders(Write write, Check check) {
        for (const bool isLittleEndian : {true, false}) {
            SCOPED_TRACE(isLittleEndian ? "little-endian" : "big-endian");
            ArchiveBytes bytes = start(isLittleEndian);
            write(bytes);
            Opened archive(bytes);
            check(*archive);
            EXPECT_TRUE(archive->isAtEnd());
        }
    }
    template <typename T>
    static T read(InputArchive& archive) {
        T value{};
        archive.read(value);
        return value;
    }
    template <typename T>
    static void expectRead(InputArchive& archive, T expected) {
        EXPECT_EQ(read<T>(archive), expected);
    }
    /// The text of a short read, in parts.
    static void expectShort(const std::string& error, zel::uint64 wanted, zel::uint64 total) {
        EXPECT_THAT(error,
                    StartsWith("Current scope: 'Archive'. Error occurred while reading " +
                               std::to_string(wanted) + " bytes from the input stream"));
        EXPECT_THAT(error, HasSubstr("Total number of bytes read: " + std::to_string(total)));
    }
};

TEST_F(InputArchiveTest, ScalarsAreRead) {
    inBothOrders(
        [](ArchiveBytes& bytes) {
            bytes.scalar(true).scalar(false).scalar('x').scalar(zel::int8{-2}).scalar(zel::uint8{200});
            bytes.scalar(zel::int16{-300}).scalar(zel::uint16{40'000}).scalar(zel::int32{-70'000});
            bytes.scalar(zel::uint32{3'000'000'000U}).scalar(zel::int64{-5'000'000'000});
            bytes.scalar(zel::uint64{0x0102030405060708}).scalar(1.5F).scalar(-2.25);
        },
        [](InputArchive& archive) {
            expectRead(archive, true);
            expectRead(archive, false);
            expectRead(archive, 'x');
            expectRead(archive, static_cast<signed char>(-2));
            expectRead(archive, zel::uint8{200});
            expectRead(archive, zel::int16{-300});
            expectRead(archive, zel::uint16{40'000});
            expectRead(archive, zel::int32{-70'000});
            expectRead(archive, zel::uint32{3'000'000'000U});
            expectRead(archive, zel::int64{-5'000'000'000});
            expectRead(archive, zel::uint64{0x0102030405060708});
            expectRead(archive, 1.5F);
            expectRead(archive, -2.25);
        });
}

TEST_F(InputArchiveTest, RealsKeepEachBit) {
    constexpr double Infinity = std::numeric_limits<double>::infinity();
    inBothOrders(
        [](ArchiveBytes& bytes) {
            bytes.scalar(-Infinity).scalar(-0.0).scalar(std::numeric_limits<float>::quiet_NaN());
            bytes.scalar(std::numeric_limits<double>::denorm_min());
        },
        [](InputArchive& archive) {
            expectRead(archive, -Infinity);
            EXPECT_TRUE(std::signbit(read<double>(archive)));
            EXPECT_TRUE(std::isnan(read<float>(archive)));
            expectRead(archive, std::numeric_limits<double>::denorm_min());
        });
}

TEST_F(InputArchiveTest, IntegersOfEightBytesTakeFourAndExtendThemByTheirSign) {
    inBothOrders(
        [](ArchiveBytes& bytes) {
            bytes.scalar(zel::int32{-7}).scalar(zel::int32{7}).scalar(zel::uint32{0xFFFFFFF9}).scalar(7U);
        },
        [](InputArchive& archive) {
            expectRead(archive, zel::int64{-7});
            expectRead(archive, zel::int64{7});
            expectRead(archive, zel::uint64{0xFFFFFFF9});
            expectRead(archive, zel::uint64{7});
        });
}

TEST_F(InputArchiveTest, EachOtherCountOfBytesIsRefused) {
    const auto refused = [](auto value, auto stored) {
        Opened archive(start().scalar(stored));
        const auto before = value;
        EXPECT_EQ(archiveErrorOf([&] { archive->read(value); }),
                  "Current scope: 'Archive'. Invalid size of data read: " + std::to_string(sizeof(stored)) +
                      ". Max is " + std::to_string(sizeof(value)) + " bytes for a scalar value");
        EXPECT_EQ(value, before);
    };
    refused(zel::int32{1}, zel::int64{1});
    refused(zel::int32{1}, zel::int16{1});
    refused(zel::int64{1}, zel::int16{1});
    refused(zel::uint64{1}, zel::uint8{1});
    refused(zel::uint16{1}, zel::uint8{1});
    refused(zel::uint8{1}, zel::uint16{1});
    refused('a', zel::uint32{1});
    refused(true, zel::uint32{1});
    refused(1.5, 1.5F);
    refused(1.5F, 1.5);
}

TEST_F(InputArchiveTest, CountsOfBytesThatNoScalarHasAreRefused) {
    for (const int count : {0, 3, 5, 16, 255}) {
        Opened archive(start().block(std::string(1, static_cast<char>(count)) + std::string(300, 'x')));
        zel::uint64 value = 5;
        EXPECT_EQ(archiveErrorOf([&] { archive->read(value); }),
                  "Current scope: 'Archive'. Invalid size of data read: " + std::to_string(count) +
                      ". Max is 8 bytes for a scalar value");
        EXPECT_EQ(value, 5U);
    }
}

TEST_F(InputArchiveTest, EachBooleanButZeroIsTrue) {
    for (const int stored : {0, 1, 2, 255}) {
        Opened archive(start().block({"\1", 1}).block(std::string(1, static_cast<char>(stored))));
        bool value = stored == 0;
        archive->read(value);
        EXPECT_EQ(value, stored != 0) << stored;
    }
}

TEST_F(InputArchiveTest, TextsAndUuidsAndBlocksAreRead) {
    inBothOrders(
        [](ArchiveBytes& bytes) {
            bytes.text("rover").text("").text({"a\0b", 3}).text("wheel").uuid(uuidOf(7)).block("\1\2\3");
        },
        [](InputArchive& archive) {
            expectRead(archive, std::string("rover"));
            expectRead(archive, std::string());
            expectRead(archive, zel::String(std::string("a\0b", 3)));
            expectRead(archive, zel::Name("wheel"));
            expectRead(archive, uuidOf(7));
            std::string block(3, 'x');
            archive.read(block.data(), 3);
            EXPECT_EQ(block, "\1\2\3");
        });
}

TEST_F(InputArchiveTest, AttributesAreReadAsValues) {
    inBothOrders(
        [](ArchiveBytes& bytes) {
            bytes.scalar(zel::uint16{7}).text("abc").text("def").uuid(uuidOf(9)).scalar(true);
        },
        [](InputArchive& archive) {
            zel::uint16 number = 0;
            std::string text;
            zel::Name name;
            zel::Uuid uuid;
            bool isSet = false;
            archive.getAttribute("number", number);
            archive.getAttribute("text", text);
            archive.getAttribute("name", name);
            archive.getAttribute("uuid", uuid);
            archive.getAttribute("isSet", isSet);
            EXPECT_EQ(number, 7U);
            EXPECT_EQ(text, "abc");
            EXPECT_EQ(name, zel::Name("def"));
            EXPECT_EQ(uuid, uuidOf(9));
            EXPECT_TRUE(isSet);
        });
}

TEST_F(InputArchiveTest, VectorsAndMatricesAreReadByTheirComponents) {
    inBothOrders(
        [](ArchiveBytes& bytes) {
            bytes.scalar(1.0F).scalar(2.0F);                   // Vec2f
            bytes.scalar(1.0).scalar(2.0).scalar(3.0);         // Vec3d
            bytes.scalar(1).scalar(2).scalar(3).scalar(4);     // Vec4 of int32
            for (const double value : {0.5, 0.25, 0.125, 1.0}) // quaternion
                bytes.scalar(value);
            for (int i = 0; i < 9; ++i)
                bytes.scalar(static_cast<float>(i)); // 3x3
            for (const double value : {1, 0, 0, 7, 0, 1, 0, 8, 0, 0, 1, 9, 0, 0, 0, 1})
                bytes.scalar(value); // affine
            for (const double value : {1, 2, 3, 2, 4, 5, 3, 5, 6})
                bytes.scalar(value); // symmetric
        },
        [](InputArchive& archive) {
            EXPECT_EQ(read<zel::Vec2f>(archive), zel::Vec2f(1, 2));
            EXPECT_EQ(read<zel::Vec3d>(archive), zel::Vec3d(1, 2, 3));
            EXPECT_EQ(read<zel::Vec4T<zel::int32>>(archive), (zel::Vec4T<zel::int32>(1, 2, 3, 4)));
            const auto quat = read<zel::QuatT<double>>(archive);
            EXPECT_EQ(quat[0], 0.5);
            EXPECT_EQ(quat[3], 1.0);
            const auto three = read<zel::Matrix3x3T<float>>(archive);
            EXPECT_EQ(three(0, 1), 1.0F);
            EXPECT_EQ(three(2, 0), 6.0F);
            const auto affine = read<zel::AffineMatrix4x4T<double>>(archive);
            EXPECT_EQ(affine(0, 3), 7);
            EXPECT_EQ(affine(2, 3), 9);
            EXPECT_EQ(read<zel::SPDMatrix3x3>(archive), zel::SPDMatrix3x3(1, 2, 3, 4, 5, 6));
        });
}

TEST_F(InputArchiveTest, AValueOfComponentsIsLeftAloneWhereOneIsMissing) {
    Opened archive(start().scalar(9.0).scalar(9.0));
    zel::Vec3d value(1, 2, 3);
    EXPECT_NE(archiveErrorOf([&] { archive->read(value); }), "no exception");
    EXPECT_EQ(value, zel::Vec3d(1, 2, 3));
}

// The end of the stream.

TEST_F(InputArchiveTest, ABlockThatIsTooShortIsFilledWithZerosAndToldWithBothCounts) {
    ArchiveBytes bytes = start();
    const zel::uint64 headerSize = bytes.size();
    Opened archive(bytes.block("abc"));
    std::string block(8, 'x');
    expectShort(archiveErrorOf([&] { archive->read(block.data(), 8); }), 8, headerSize + 3);
    EXPECT_EQ(block, std::string("abc\0\0\0\0\0", 8));
}

TEST_F(InputArchiveTest, BehindAShortReadEachReadThrowsAtOnce) {
    Opened archive(start().block("abc"));
    char block[8];
    const std::string error = archiveErrorOf([&] { archive->read(block, 8); });
    EXPECT_TRUE(archive->hasFailed());
    const zel::uint64 numBytes = archive->getNumBytesRead();
    int number = 5;
    std::string text = "kept";
    zel::Vector<double> vector;
    Wheel wheel;
    EXPECT_EQ(archiveErrorOf([&] { archive->read(number); }), error);
    EXPECT_EQ(archiveErrorOf([&] { archive->read(text); }), error);
    EXPECT_EQ(archiveErrorOf([&] { archive->read(vector); }), error);
    EXPECT_EQ(archiveErrorOf([&] { archive->read(block, 1); }), error);
    EXPECT_EQ(archiveErrorOf([&] { archive->read(wheel); }), error);
    EXPECT_EQ(archiveErrorOf([&] { (void)archive->readObjectByRef(); }), error);
    EXPECT_EQ(number, 5);
    EXPECT_EQ(text, "kept");
    EXPECT_EQ(archive->getNumBytesRead(), numBytes);
    archive->close();
    EXPECT_FALSE(archive->isOpen());
}

TEST_F(InputArchiveTest, ValuesThatAreTooShortAreTold) {
    ArchiveBytes bytes = start();
    const zel::uint64 headerSize = bytes.size();
    {
        Opened archive(start().block({"\x8\1\2", 3}));
        double value = 3;
        expectShort(archiveErrorOf([&] { archive->read(value); }), 8, headerSize + 3);
        EXPECT_EQ(value, 3);
    }
    {
        Opened archive(start());
        bool value = true;
        expectShort(archiveErrorOf([&] { archive->read(value); }), 1, headerSize);
        EXPECT_TRUE(value);
    }
    {
        Opened archive(start().block({"\5\0\0\0abcd", 8}));
        std::string text = "kept";
        EXPECT_THAT(archiveErrorOf([&] { archive->read(text); }), HasSubstr("while reading 5 bytes"));
        EXPECT_EQ(text, "kept");
    }
    {
        Opened archive(start().block(std::string(15, '\1')));
        zel::Uuid uuid = uuidOf(3);
        expectShort(archiveErrorOf([&] { archive->read(uuid); }), 16, headerSize + 15);
        EXPECT_EQ(uuid, uuidOf(3));
    }
}

TEST_F(InputArchiveTest, TheBytesThatWereReadAreCounted) {
    ArchiveBytes bytes = start();
    Opened archive(ArchiveBytes(bytes).scalar(1.0).text("abc"));
    EXPECT_EQ(archive->getNumBytesRead(), bytes.size());
    EXPECT_EQ(read<double>(*archive), 1.0);
    EXPECT_EQ(archive->getNumBytesRead(), bytes.size() + 9);
    EXPECT_EQ(read<std::string>(*archive), "abc");
    EXPECT_EQ(archive->getNumBytesRead(), bytes.size() + 9 + 7);
}

TEST_F(InputArchiveTest, TheEndIsWhereNothingIsLeft) {
    Opened archive(start().scalar('a'));
    EXPECT_FALSE(archive->isAtEnd());
    EXPECT_EQ(read<char>(*archive), 'a');
    EXPECT_TRUE(archive->isAtEnd());
}

// Open and closed.

TEST_F(InputArchiveTest, AClosedArchiveReadsNothing) {
    constexpr const char* Text = "Archive not opened";
    InputArchive archive;
    int number = 0;
    std::string text;
    zel::Name name;
    zel::Uuid uuid;
    zel::Vector<float> vector;
    Wheel wheel;
    EXPECT_FALSE(archive.isOpen());
    EXPECT_EQ(archiveErrorOf([&] { archive.read(number); }), Text);
    EXPECT_EQ(archiveErrorOf([&] { archive.getAttribute("number", number); }), Text);
    EXPECT_EQ(archiveErrorOf([&] { archive.read(text); }), Text);
    EXPECT_EQ(archiveErrorOf([&] { archive.read(name); }), Text);
    EXPECT_EQ(archiveErrorOf([&] { archive.read(uuid); }), Text);
    EXPECT_EQ(archiveErrorOf([&] { archive.read(vector); }), Text);
    EXPECT_EQ(archiveErrorOf([&] { archive.read(&number, 1); }), Text);
    EXPECT_EQ(archiveErrorOf([&] { archive.read(wheel); }), Text);
    EXPECT_EQ(archiveErrorOf([&] { (void)archive.readObjectByRef(); }), Text);

    Opened opened(start().scalar(1));
    opened->close();
    opened->close();
    EXPECT_EQ(archiveErrorOf([&] { opened->read(number); }), Text);
}

TEST_F(InputArchiveTest, AnOpenArchiveIsNotOpenedAgain) {
    std::istringstream other(start().scalar(8).bytes());
    Opened archive(start().scalar(7));
    EXPECT_NE(archiveErrorOf([&] { archive->open(other); }), "no exception");
    EXPECT_EQ(read<int>(*archive), 7);
    archive->close();
    archive->open(other);
    EXPECT_EQ(read<int>(*archive), 8);
}

TEST_F(InputArchiveTest, AnArchiveThatCouldNotBeOpenedIsClosedAndCanBeOpenedAnew) {
    std::istringstream bad("no archive at all");
    std::istringstream good(start().scalar(7).bytes());
    InputArchive archive;
    EXPECT_NE(archiveErrorOf([&] { archive.open(bad); }), "no exception");
    EXPECT_FALSE(archive.isOpen());
    EXPECT_EQ(archive.getSectionStackString(), "");
    archive.open(good);
    EXPECT_FALSE(archive.hasFailed());
    EXPECT_EQ(read<int>(archive), 7);
}

TEST_F(InputArchiveTest, AStreamThatCanBePositionedIsLeftBehindTheLastByteThatWasRead) {
    std::istringstream stream("ahead" + start().scalar(7).bytes() + "behind");
    stream.seekg(5);
    InputArchive archive;
    archive.open(stream);
    EXPECT_EQ(read<int>(archive), 7);
    archive.close();
    std::string rest;
    EXPECT_TRUE(stream >> rest);
    EXPECT_EQ(rest, "behind");
}

TEST_F(InputArchiveTest, TwoArchivesInOneStreamAreReadOneAfterTheOther) {
    std::istringstream stream(start(true).scalar(7).bytes() + start(false).scalar(8).bytes());
    InputArchive archive;
    for (const int expected : {7, 8}) {
        archive.open(stream);
        EXPECT_EQ(read<int>(archive), expected);
        archive.close();
    }
}

TEST_F(InputArchiveTest, TheRestoreModeIsKeptAndWithoutEffect) {
    Opened archive(start().scalar(7));
    EXPECT_EQ(archive->getRestoreMode(), InputArchive::RestoreMode::Default);
    archive->setRestoreMode(static_cast<InputArchive::RestoreMode>(3));
    EXPECT_EQ(archive->getRestoreMode(), static_cast<InputArchive::RestoreMode>(3));
    EXPECT_EQ(read<int>(*archive), 7);
}

} // namespace
