#include "ArchiveFixture.h"

#include <zel/Vec.h>

using testing::ElementsAre;
using testing::HasSubstr;
using zelStream::InputArchive;
using zelTest::ArchiveBytes;
using zelTest::archiveErrorOf;
using zelTest::Opened;

namespace {

constexpr const char* MixText = "Current scope: 'Archive'. Error reading binary vector. Probably a mix of "
                                "32/64 binary dums. Use ZEL with "
                                "serialization version 28 or higher.";

class InputArchiveVectorTest : public zelTest::ArchiveFixture {
protected:
    template <typename T>
    static zel::Vector<T> read(InputArchive& archive) {
        zel::Vector<T> values;
        archive.read(values);
        return values;
    }
    /// What the library says where it is asked for a vector of T.
    template <typename T>
    static std::string errorOf(const ArchiveBytes& bytes) {
        Opened archive(bytes);
        return archiveErrorOf([&] { (void)read<T>(*archive); });
    }
};

TEST_F(InputArchiveVectorTest, EachTypeOfElementsIsRead) {
    for (const bool isLittleEndian : {true, false}) {
        ArchiveBytes bytes = start(isLittleEndian);
        bytes.vector<float>({1, 2, 3}, 3, 0).vector<double>({-1.5}, 1, 1);
        bytes.vector<float>({1, 2, 3, 4}, 2, 2).vector<double>({1, 2}, 1, 3);
        bytes.vector<float>({1, 2, 3, 0, 4, 5, 6, 0}, 2, 4).vector<double>({1, 2, 3, 0}, 1, 5);
        bytes.vector<float>({1, 2, 3, 4}, 1, 6).vector<double>({1, 2, 3, 4}, 1, 7);
        bytes.vector<zel::uint16>({0x0102, 0x0304}, 2, 8).vectorHeader(0, 8, 8, 1);
        Opened archive(bytes);
        EXPECT_THAT(read<float>(*archive), ElementsAre(1, 2, 3));
        EXPECT_THAT(read<double>(*archive), ElementsAre(-1.5));
        EXPECT_THAT(read<zel::Vec2f>(*archive), ElementsAre(zel::Vec2f(1, 2), zel::Vec2f(3, 4)));
        EXPECT_THAT(read<zel::Vec2d>(*archive), ElementsAre(zel::Vec2d(1, 2)));
        EXPECT_THAT(read<zel::Vec3f>(*archive), ElementsAre(zel::Vec3f(1, 2, 3), zel::Vec3f(4, 5, 6)));
        EXPECT_THAT(read<zel::Vec3d>(*archive), ElementsAre(zel::Vec3d(1, 2, 3)));
        EXPECT_THAT(read<zel::Vec4f>(*archive), ElementsAre(zel::Vec4f(1, 2, 3, 4)));
        EXPECT_THAT(read<zel::Vec4d>(*archive), ElementsAre(zel::Vec4d(1, 2, 3, 4)));
        EXPECT_THAT(read<zel::uint16>(*archive), ElementsAre(0x0102, 0x0304));
        EXPECT_THAT(read<double>(*archive), ElementsAre());
        EXPECT_TRUE(archive->isAtEnd());
    }
}

TEST_F(InputArchiveVectorTest, WhatAVectorHeldIsReplacedAndLeftAloneWhereTheHeadIsWrong) {
    ArchiveBytes bytes = start();
    bytes.vector<double>({1, 2}, 2, 1).vectorHeader(0, 8, 8, 1).vector<double>({3}, 1, 1);
    bytes.vector<float>({4}, 1, 0).vector<double>({5, 6}, 1, 3);
    Opened archive(bytes);
    zel::Vector<double> values{9, 9, 9};
    archive->read(values);
    EXPECT_THAT(values, ElementsAre(1, 2));
    archive->read(values);
    EXPECT_THAT(values, ElementsAre());
    archive->read(values);
    EXPECT_THAT(values, ElementsAre(3));
    values = {7, 8, 9};
    archive->read(values); // of float
    EXPECT_THAT(values, ElementsAre(4));
    EXPECT_NE(archiveErrorOf([&] { archive->read(values); }), "no exception");
    EXPECT_THAT(values, ElementsAre(4));
}

TEST_F(InputArchiveVectorTest, FloatsAndDoublesOfOneShapeAreReadAsEachOther) {
    for (const bool isLittleEndian : {true, false}) {
        ArchiveBytes bytes = start(isLittleEndian);
        bytes.vector<float>({1.5, -2}, 2, 0).vector<double>({1.5, 1e300}, 2, 1);
        bytes.vector<float>({1, 2}, 1, 2).vector<double>({1, 2}, 1, 3);
        bytes.vector<float>({1, 2, 3, 9}, 1, 4).vector<double>({1, 2, 3, 9}, 1, 5);
        bytes.vector<float>({1, 2, 3, 4}, 1, 6).vector<double>({1, 2, 3, 4}, 1, 7);
        Opened archive(bytes);
        EXPECT_THAT(read<double>(*archive), ElementsAre(1.5, -2));
        EXPECT_THAT(read<float>(*archive), ElementsAre(1.5F, std::numeric_limits<float>::infinity()));
        EXPECT_THAT(read<zel::Vec2d>(*archive), ElementsAre(zel::Vec2d(1, 2)));
        EXPECT_THAT(read<zel::Vec2f>(*archive), ElementsAre(zel::Vec2f(1, 2)));
        const auto threeDoubles = read<zel::Vec3d>(*archive);
        EXPECT_THAT(threeDoubles, ElementsAre(zel::Vec3d(1, 2, 3)));
        EXPECT_EQ(threeDoubles[0].data()[3], 0);
        const auto threeFloats = read<zel::Vec3f>(*archive);
        EXPECT_THAT(threeFloats, ElementsAre(zel::Vec3f(1, 2, 3)));
        EXPECT_EQ(threeFloats[0].data()[3], 0);
        EXPECT_THAT(read<zel::Vec4d>(*archive), ElementsAre(zel::Vec4d(1, 2, 3, 4)));
        EXPECT_THAT(read<zel::Vec4f>(*archive), ElementsAre(zel::Vec4f(1, 2, 3, 4)));
    }
}

TEST_F(InputArchiveVectorTest, ManyElementsAreConverted) {
    for (const bool isLittleEndian : {true, false}) {
        std::vector<double> values(100'001);
        for (std::size_t i = 0; i < values.size(); ++i)
            values[i] = static_cast<double>(i) / 4;
        Opened archive(start(isLittleEndian).vector(values, values.size(), 1));
        const auto floats = read<float>(*archive);
        ASSERT_EQ(floats.size(), values.size());
        for (std::size_t i = 0; i < values.size(); ++i)
            ASSERT_EQ(floats[i], static_cast<float>(values[i])) << i;
    }
}

TEST_F(InputArchiveVectorTest, TheFourthComponentOfAVec3IsZeroWhateverTheArchiveHolds) {
    Opened archive(start().vector<float>({1, 2, 3, 9, 4, 5, 6, 9}, 2, 4));
    const auto values = read<zel::Vec3f>(*archive);
    ASSERT_EQ(values.size(), 2U);
    EXPECT_EQ(values[0].data()[3], 0);
    EXPECT_EQ(values[1].data()[3], 0);
}

TEST_F(InputArchiveVectorTest, TheOldElementsGo) {
    Opened archive(start().vector<float>({1, 2}, 2, 0));
    std::vector<float> values(7, 3.0F);
    archive->read(values);
    EXPECT_THAT(values, ElementsAre(1, 2));
}

TEST_F(InputArchiveVectorTest, OtherTypesOfElementsAreNotConverted) {
    ArchiveBytes floats = start().vector<float>({1, 2, 3, 4}, 4, 0);
    EXPECT_NE(errorOf<zel::Vec2f>(floats), "no exception");
    EXPECT_NE(errorOf<zel::Vec4d>(floats), "no exception");
    EXPECT_NE(errorOf<zel::uint16>(floats), "no exception");
    EXPECT_NE(errorOf<float>(start().vector<zel::uint16>({1, 2}, 2, 8)), "no exception");
    EXPECT_NE(errorOf<zel::Vec3f>(start().vector<float>({1, 2, 3, 4}, 1, 6)), "no exception");
    EXPECT_NE(errorOf<zel::Vec4f>(start().vector<float>({1, 2, 3, 0}, 1, 4)), "no exception");
    EXPECT_EQ(errorOf<float>(floats), "no exception");
}

TEST_F(InputArchiveVectorTest, TypesOfElementsThatDoNotExistAreRefused) {
    for (const zel::uint32 type : {9U, 10U, 255U, 0x80000000U, 0xFFFFFFFFU}) {
        const std::string error = errorOf<float>(start().vector<float>({1}, 1, type));
        EXPECT_THAT(error, HasSubstr(std::to_string(type)));
        EXPECT_THAT(error, testing::StartsWith("Current scope: 'Archive'. "));
    }
}

TEST_F(InputArchiveVectorTest, SizesThatDoNotFitTheTypeOfTheElementsAreRefused) {
    const std::string data(64, '\0');
    for (const auto& [elementSize, numBytes] : std::vector<std::pair<zel::uint64, zel::uint32>>{
             {4, 8}, {8, 4}, {0, 4}, {4, 0}, {3, 4}, {12, 4}, {~zel::uint64{0}, 4}, {4, 0xFFFFFFFF}})
        EXPECT_NE(errorOf<float>(start().vectorHeader(1, elementSize, numBytes, 0).block(data)),
                  "no exception")
            << elementSize << ' ' << numBytes;
}

TEST_F(InputArchiveVectorTest, MoreElementsThanTheStreamHasAreRefusedAtOnce) {
    for (const zel::uint64 size : {zel::uint64{2},
                                   zel::uint64{1} << 61,
                                   (zel::uint64{1} << 62) + 1,
                                   zel::uint64{1} << 63,
                                   ~zel::uint64{0}}) {
        zel::Vector<float> values;
        Opened archive(start().vectorHeader(size, 4, 4, 0).block("\1\2\3\4"));
        EXPECT_THAT(archiveErrorOf([&] { archive->read(values); }),
                    HasSubstr("Error occurred while reading "));
        EXPECT_LE(values.capacity(), 16U);
    }
}

// Older forms.

TEST_F(InputArchiveVectorTest, BelowVersion26VectorsAreASizeAndABlock) {
    for (const bool isLittleEndian : {true, false}) {
        ArchiveBytes bytes = startOf(25, isLittleEndian);
        bytes.scalar(zel::uint64{2}).raw(1.5F).raw(-2.0F);
        bytes.scalar(zel::uint64{1}).raw(1.0F).raw(2.0F).raw(3.0F).raw(9.0F);
        bytes.scalar(zel::uint64{3}).raw(zel::uint16{1}).raw(zel::uint16{2}).raw(zel::uint16{3});
        Opened archive(bytes);
        EXPECT_THAT(read<float>(*archive), ElementsAre(1.5F, -2.0F));
        EXPECT_THAT(read<zel::Vec3f>(*archive), ElementsAre(zel::Vec3f(1, 2, 3)));
        EXPECT_THAT(read<zel::uint16>(*archive), ElementsAre(1, 2, 3));
        EXPECT_TRUE(archive->isAtEnd());
    }
}

TEST_F(InputArchiveVectorTest, BelowVersion26TheWidthIsThatOfTheElementsThatAreRead) {
    EXPECT_EQ(errorOf<double>(startOf(25).scalar(zel::uint64{1}).raw(1.0)), MixText);
    EXPECT_EQ(errorOf<zel::Vec3d>(startOf(25).scalar(zel::uint64{0})), MixText);
    EXPECT_EQ(errorOf<float>(startOf(25).scalar(zel::uint64{1}).raw(1.0F)), "no exception");
}

TEST_F(InputArchiveVectorTest, Version26And27TellTheWidthButNotTheType) {
    for (const zel::uint16 version : {zel::uint16{26}, zel::uint16{27}})
        for (const bool isLittleEndian : {true, false}) {
            ArchiveBytes bytes = startOf(version, isLittleEndian);
            bytes.scalar(zel::uint64{2}).scalar(zel::uint64{4}).scalar(zel::uint32{4}).raw(1.5F).raw(-2.0F);
            bytes.scalar(zel::uint64{1}).scalar(zel::uint64{2}).scalar(zel::uint32{2}).raw(zel::uint16{7});
            Opened archive(bytes);
            EXPECT_THAT(read<float>(*archive), ElementsAre(1.5F, -2.0F));
            EXPECT_THAT(read<zel::uint16>(*archive), ElementsAre(7));
            EXPECT_TRUE(archive->isAtEnd());
        }
}

TEST_F(InputArchiveVectorTest, BelowVersion28AWidthOtherThanFourIsAMix) {
    for (const zel::uint16 version : {zel::uint16{26}, zel::uint16{27}}) {
        const ArchiveBytes doubles =
            startOf(version).scalar(zel::uint64{1}).scalar(zel::uint64{8}).scalar(zel::uint32{8}).raw(1.0);
        EXPECT_EQ(errorOf<double>(doubles), MixText);
        EXPECT_EQ(errorOf<float>(doubles), MixText);
        const ArchiveBytes shorts =
            startOf(version).scalar(zel::uint64{1}).scalar(zel::uint64{2}).scalar(zel::uint32{2}).raw(1.0);
        EXPECT_EQ(errorOf<float>(shorts), MixText);
    }
}

TEST_F(InputArchiveVectorTest, FromVersion28OnTheTypeIsTold) {
    EXPECT_EQ(errorOf<double>(startOf(28).vector<double>({1}, 1, 1)), "no exception");
    EXPECT_EQ(errorOf<double>(startOf(28).vector<float>({1}, 1, 0)), "no exception");
    EXPECT_NE(errorOf<double>(startOf(28).vector<float>({1, 2}, 1, 2)), "no exception");
}

} // namespace
