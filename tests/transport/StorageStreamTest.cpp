#include "support/WhatOf.h"

#include <zelStream/InputArchive.h>
#include <zelStream/OutputArchive.h>
#include <zelStream/StorageStream.h>

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>

using namespace zelStream;
using zelTest::whatOf;

namespace {

/// Writes a value, and reads it back from a stream over the bytes.
template <typename T>
T throughBytes(const T& value) {
    StorageStream written;
    written.write(value);
    StorageStream read(written.data(), written.size());
    T result{};
    read.read(result);
    EXPECT_EQ(read.getNumBytesLeft(), 0U);
    return result;
}

std::string contentOf(const StorageStream& stream) {
    return {stream.data(), stream.size()};
}

/// A class whose charge changes often.
class Battery final : public Serializable {
public:
    void store(OutputArchive& /*archive*/) const override {}
    void restore(InputArchive& /*archive*/) override {}
    void storeLightData(StorageStream& stream) const override { stream.write(charge); }
    void restoreLightData(StorageStream& stream) override { stream.read(charge); }

    double charge = 1;
};

/// A class without light data.
class Rock final : public Serializable {
public:
    void store(OutputArchive& /*archive*/) const override {}
    void restore(InputArchive& /*archive*/) override {}
};

} // namespace

TEST(StorageStreamTest, ScalarsReadBackAtTheirBounds) {
    EXPECT_EQ(throughBytes(std::numeric_limits<zel::int8>::min()), std::numeric_limits<zel::int8>::min());
    EXPECT_EQ(throughBytes(std::numeric_limits<zel::uint16>::max()), std::numeric_limits<zel::uint16>::max());
    EXPECT_EQ(throughBytes(std::numeric_limits<zel::int32>::min()), std::numeric_limits<zel::int32>::min());
    EXPECT_EQ(throughBytes(std::numeric_limits<zel::uint64>::max()), std::numeric_limits<zel::uint64>::max());
    EXPECT_EQ(throughBytes(0.1F), 0.1F);
    EXPECT_EQ(throughBytes(-std::numeric_limits<double>::infinity()),
              -std::numeric_limits<double>::infinity());
    EXPECT_EQ(throughBytes('x'), 'x');
    EXPECT_TRUE(throughBytes(true));
    EXPECT_FALSE(throughBytes(false));
}

TEST(StorageStreamTest, NumbersAreLittleEndian) {
    StorageStream stream;
    stream.write(zel::uint32{0x04030201});
    stream.write(true);
    stream.write(1.0);
    EXPECT_EQ(contentOf(stream), std::string("\1\2\3\4\1\0\0\0\0\0\0\xF0\x3F", 13));
}

TEST(StorageStreamTest, MathTypesAreTheirComponents) {
    const zel::Vec3d position(1, 2, 3);
    EXPECT_EQ(throughBytes(position), position);
    const zel::Vec4f colour(1, 2, 3, 4);
    EXPECT_EQ(throughBytes(colour), colour);
    StorageStream stream;
    stream.write(position); // the padding is no component
    EXPECT_EQ(stream.size(), 24U);
}

TEST(StorageStreamTest, TextsAreTheirLengthAndTheirBytes) {
    const std::string text("fuel\0 cell", 10);
    StorageStream stream;
    stream.write(text);
    stream.write("");
    stream.write(zel::uint8{7});
    EXPECT_EQ(stream.size(), 8 + 10 + 8 + 1U);
    std::string read;
    stream.read(read);
    EXPECT_EQ(read, text);
    stream.read(read);
    EXPECT_EQ(read, "");
    zel::uint8 behind = 0;
    stream.read(behind);
    EXPECT_EQ(behind, 7);
}

TEST(StorageStreamTest, BytesAreWrittenAsTheyAre) {
    StorageStream stream;
    stream.write("abc", 3);
    stream.write(nullptr, 0);
    EXPECT_EQ(contentOf(stream), "abc");
    char read[3];
    stream.read(read, 2);
    stream.read(nullptr, 0);
    EXPECT_EQ(stream.getNumBytesLeft(), 1U);
    EXPECT_EQ(std::string(read, 2), "ab");
}

TEST(StorageStreamTest, ABooleanOfAnyByteIsTrue) {
    StorageStream stream("\2", 1);
    bool value = false;
    stream.read(value);
    EXPECT_TRUE(value);
}

TEST(StorageStreamTest, RewindingReadsFromTheFrontAgain) {
    StorageStream stream;
    stream.write(1);
    stream.write(2);
    int value = 0;
    stream.read(value);
    stream.read(value);
    EXPECT_EQ(value, 2);
    stream.rewind();
    stream.read(value);
    EXPECT_EQ(value, 1);
    stream.write(3); // at the end, wherever it is read
    stream.read(value);
    stream.read(value);
    EXPECT_EQ(value, 3);
}

TEST(StorageStreamTest, ClearingLeavesNothingToRead) {
    StorageStream stream;
    stream.write(1);
    int value = 0;
    stream.read(value);
    stream.clear();
    EXPECT_EQ(stream.size(), 0U);
    EXPECT_EQ(stream.getNumBytesLeft(), 0U);
    stream.write(4);
    stream.read(value);
    EXPECT_EQ(value, 4);
}

TEST(StorageStreamTest, WhatIsNotThereIsNotReadAndLeavesTheValue) {
    StorageStream stream("\1\2", 2);
    int value = 5;
    EXPECT_EQ(whatOf([&] { stream.read(value); }), "Light data ends: 4 bytes are wanted, and 2 are left");
    EXPECT_EQ(value, 5);
    zel::Vec2f pair(1, 2);
    EXPECT_THROW(stream.read(pair), ArchiveException);
    EXPECT_EQ(pair, zel::Vec2f(1, 2));
    char block[3] = "xy";
    EXPECT_THROW(stream.read(block, 3), ArchiveException);
    EXPECT_STREQ(block, "xy");
    // The two bytes still are.
    zel::uint16 left = 0;
    stream.read(left);
    EXPECT_EQ(left, 0x0201);
}

TEST(StorageStreamTest, ATextLongerThanTheStreamIsRefused) {
    for (const zel::uint64 length : {zel::uint64{3}, ~zel::uint64{0}, ~zel::uint64{0} - 7}) {
        StorageStream stream;
        stream.write(length);
        stream.write("ab", 2);
        std::string text = "old";
        EXPECT_EQ(whatOf([&] { stream.read(text); }),
                  "Light data ends: " + std::to_string(length) + " bytes are wanted, and 2 are left");
        EXPECT_EQ(text, "old");
        EXPECT_EQ(stream.getNumBytesLeft(), 10U);
    }
}

TEST(StorageStreamTest, LightDataIsSavedAndBroughtBack) {
    Battery battery;
    battery.charge = 0.25;
    StorageStream stream;
    battery.storeLightData(stream);
    battery.charge = 0;
    battery.restoreLightData(stream);
    EXPECT_EQ(battery.charge, 0.25);
}

TEST(StorageStreamTest, ObjectsHaveNoLightDataByDefault) {
    Rock rock;
    StorageStream stream;
    rock.storeLightData(stream);
    EXPECT_EQ(stream.size(), 0U);
    rock.restoreLightData(stream);
    EXPECT_EQ(stream.getNumBytesLeft(), 0U);
}
