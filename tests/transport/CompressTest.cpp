#include <zelNet/Compress.h>

#include <gtest/gtest.h>
#include <support/LogCapture.h>
#include <support/Stress.h>

#include <random>
#include <string>

using zel::ref_ptr;
using zelNet::Compress;

namespace {

std::string textOf(const Compress::Data& data) {
    return {reinterpret_cast<const char*>(data.getData()), data.getSize()};
}

ref_ptr<Compress::Data> compress(const std::string& bytes, int level = 6) {
    return Compress::compress(bytes.data(), bytes.size(), level);
}

ref_ptr<Compress::Data> decompress(const std::string& bytes) {
    return Compress::decompress(bytes.data(), bytes.size());
}

/// The warning of a decompression that fails.
std::string warningOf(const std::string& bytes) {
    const zelTest::LogCapture log;
    EXPECT_FALSE(decompress(bytes));
    for (const int level : log.levels())
        EXPECT_EQ(level, zel::Notify::Warning);
    return log.text();
}

std::string randomBytes(std::mt19937& random, std::size_t size) {
    std::string bytes(size, '\0');
    for (char& c : bytes)
        c = static_cast<char>(random());
    return bytes;
}

const std::string Abc("\x78\x9c\x4b\x4c\x4a\x06\x00\x02\x4d\x01\x27", 11);

TEST(CompressTest, WhatWasCompressedComesBack) {
    std::mt19937 random(1);
    for (const int level : {-1, 0, 1, 6, 9})
        for (const std::size_t size : {0U, 1U, 16'384U, 16'834U, 16'835U, 100'000U, 3'000'000U})
            for (const bool noise : {true, false}) {
                const std::string bytes = noise ? randomBytes(random, size) : std::string(size, 'z');
                const auto packed = compress(bytes, level);
                ASSERT_TRUE(packed);
                const auto plain = decompress(textOf(*packed));
                ASSERT_TRUE(plain);
                EXPECT_TRUE(textOf(*plain) == bytes) << level << " " << size;
                EXPECT_EQ(plain->getMode(), Compress::Data::Decompressed);
                EXPECT_TRUE(plain->isValid());
            }
}

TEST(CompressTest, ReadsWhatOthersWrote) {
    EXPECT_EQ(textOf(*decompress(Abc)), "abc");
}

TEST(CompressTest, TellsModeAndRatio) {
    const std::string bytes(10'000, 'z');
    const auto packed = compress(bytes);
    EXPECT_EQ(packed->getMode(), Compress::Data::Compressed);
    EXPECT_TRUE(packed->isValid());
    EXPECT_EQ(packed->getCompressionRatio(), 10'000.0F / static_cast<float>(packed->getSize()));
    EXPECT_GT(packed->getCompressionRatio(), 100.0F);
    EXPECT_EQ(decompress(textOf(*packed))->getCompressionRatio(), 1.0F);
}

TEST(CompressTest, NothingDecompressesToNothing) {
    const auto plain = Compress::decompress(nullptr, 0);
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->getSize(), 0U);
    EXPECT_EQ(plain->getMode(), Compress::Data::Decompressed);
}

TEST(CompressTest, AnUnknownLevelFails) {
    const zelTest::LogCapture log;
    EXPECT_FALSE(compress("abc", 10));
    EXPECT_EQ(log.text(), "Problem initializing data for compression\n");
    EXPECT_EQ(log.levels().front(), zel::Notify::Warning);
}

TEST(CompressTest, BytesBehindTheEndAreIgnored) {
    EXPECT_EQ(textOf(*decompress(Abc + Abc + "more")), "abc");
}

// The object

TEST(CompressTest, ANewObjectHoldsNothing) {
    const Compress::Data data(Compress::Data::ToCompress);
    EXPECT_EQ(data.getMode(), Compress::Data::ToCompress);
    EXPECT_EQ(data.getSize(), 0U);
    EXPECT_FALSE(data.isValid());
    EXPECT_EQ(data.getCompressionRatio(), 1.0F);
}

TEST(CompressTest, WrappedBytesAreNotValid) {
    std::string bytes = Abc;
    const ref_ptr<Compress::Data> data(new Compress::Data(bytes.data(), bytes.size()));
    bytes[0] = 'x';
    EXPECT_EQ(data->getMode(), Compress::Data::Compressed);
    EXPECT_EQ(textOf(*data), Abc);
    const zelTest::LogCapture log;
    EXPECT_FALSE(Compress::decompress(data.get()));
    EXPECT_EQ(log.text(), "Cannot decompress non-valid data\n");
}

TEST(CompressTest, OnlyCompressedBytesAreDecompressed) {
    const auto packed = compress("abc");
    const auto plain = Compress::decompress(packed.get());
    ASSERT_TRUE(plain);
    EXPECT_EQ(textOf(*plain), "abc");
    const zelTest::LogCapture log;
    EXPECT_FALSE(Compress::decompress(plain.get()));
    EXPECT_EQ(log.text(), "Cannot decompress already decompressed data\n");
}

TEST(CompressTest, EachStreamIsEndedOnce) {
    // A leak or a double end is seen by the sanitizers.
    for (const auto mode : {Compress::Data::ToCompress, Compress::Data::Compressed}) {
        const ref_ptr<Compress::Data> data(new Compress::Data(mode));
        EXPECT_TRUE(data->init(6));
        data->finalize();
        EXPECT_TRUE(data->isValid());
        data->finalize();
        EXPECT_TRUE(data->init(6));
        const ref_ptr<Compress::Data> open(new Compress::Data(mode));
        EXPECT_TRUE(open->init(6));
        EXPECT_TRUE(open->init(6));
    }
}

// Bytes that lie

TEST(CompressMaliciousTest, EachCutIsTold) {
    const std::string packed = textOf(*compress("a text that is cut at each place"));
    for (std::size_t size = 1; size < packed.size(); ++size)
        EXPECT_EQ(warningOf(packed.substr(0, size)), "Error during inflate: truncated\n") << size;
}

TEST(CompressMaliciousTest, ACutBehindAFullChunkIsTold) {
    // All of the first chunk is there, and not one byte more of it.
    const std::string packed = textOf(*compress(std::string(16'834, 'z'), 0));
    EXPECT_EQ(warningOf(packed.substr(0, packed.size() - 4)), "Error during inflate: truncated\n");
}

TEST(CompressMaliciousTest, DamageIsToldWithItsNumber) {
    EXPECT_EQ(warningOf("no zlib at all"), "Error during inflate: -3\n");
    std::string wrongSum = Abc;
    wrongSum.back() = 'x';
    EXPECT_EQ(warningOf(wrongSum), "Error during inflate: -3\n");
    EXPECT_EQ(warningOf(std::string("\x78\xbb\1\2\3\4", 6)), "Error during inflate: 2\n");
}

TEST(CompressMaliciousTest, RandomDamageNeverGivesOtherBytes) {
    const unsigned seed = zelTest::stressSeed();
    std::mt19937 random(seed);
    const std::string bytes = randomBytes(random, 200) + std::string(1000, 'z') + randomBytes(random, 200);
    const std::string packed = textOf(*compress(bytes));
    zel::Notify::instance()->setNotifyLevel(zel::Notify::Error);
    for (std::size_t round = 0; round < 5000 / zelTest::StressDivisor; ++round) {
        std::string damaged = packed;
        damaged[random() % damaged.size()] ^= static_cast<char>(1 + random() % 255);
        const auto plain = decompress(damaged);
        // The first bytes may change without harm, and the sum over all catches the rest.
        ASSERT_TRUE(!plain || textOf(*plain) == bytes) << seed;
    }
}

} // namespace
