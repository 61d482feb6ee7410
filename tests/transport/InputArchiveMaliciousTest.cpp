#include "ArchiveFixture.h"

#include <zel/Vec.h>

#include <dlfcn.h>
#include <support/Stress.h>

#include <random>

using fleet::Barge;
using fleet::Scripted;
using fleet::Vehicle;
using fleet::Wheel;
using testing::HasSubstr;
using zel::ref_ptr;
using zelStream::InputArchive;
using zelTest::ArchiveBytes;
using zelTest::archiveErrorOf;
using zelTest::Opened;
using zelTest::uuidOf;

// Archives that are damaged, or made to do harm.

namespace {

/// Gives its bytes a few at a time, can not be positioned, and may throw at a place.
class OneWayBuffer : public std::streambuf {
public:
    static constexpr std::size_t Never = ~std::size_t{0};
    explicit OneWayBuffer(std::string bytes, std::size_t throwsAt = Never)
        : m_bytes(std::move(bytes)), m_throwsAt(throwsAt) {}

protected:
    int_type underflow() override {
        if (m_at >= m_throwsAt)
            throw std::runtime_error("the line is cut");
        if (m_at == m_bytes.size())
            return traits_type::eof();
        const std::size_t n = std::min({std::size_t{7}, m_bytes.size() - m_at, m_throwsAt - m_at});
        setg(m_bytes.data() + m_at, m_bytes.data() + m_at, m_bytes.data() + m_at + n);
        m_at += n;
        return traits_type::to_int_type(*gptr());
    }

private:
    std::string m_bytes;
    std::size_t m_throwsAt;
    std::size_t m_at = 0;
};

class InputArchiveMaliciousTest : public zelTest::ArchiveFixture {
protected:
    void TearDown() override {
        EXPECT_EQ(Scripted::s_numLiving, 0); // half-restored objects are gone
        ArchiveFixture::TearDown();
    }

    /// An archive with one of each kind of record.
    static std::string small(bool isLittleEndian) {
        ArchiveBytes bytes = start(isLittleEndian);
        bytes.scalar(true).scalar('x').scalar(zel::int16{-300}).scalar(1.5).text("rover").uuid(uuidOf(9));
        bytes.vector<float>({1.5, -2}, 2, 0).vector<double>({1, 2, 3, 0}, 1, 5);
        bytes.vector<zel::uint16>({1, 40'000}, 2, 8);
        bytes.newObject(1, 1, "fleet::Vehicle").base(uuidOf(1)).text("first");
        bytes.newObject(2, 1).base(uuidOf(2)).text("second").knownObject(1, 1);
        bytes.newObject(3, 2, "fleet::Wheel").base(uuidOf(3)).scalar(0.5);
        bytes.byValue().base(uuidOf(4)).scalar(40).knownObject(3, 2);
        bytes.knownObject(3, 2).null();
        bytes.knownObject(1, 1).null();
        bytes.newObject(4, 3, "fleet::Barge").base(uuidOf(5)).knownObject(5, 3);
        bytes.newObject(5, 3).base(uuidOf(6)).knownObject(4, 3);
        bytes.newObject(6, 4, "fleet::Scripted").base(uuidOf(7));
        return bytes.bytes();
    }
    /// Reads what `small` holds, and looks at all of it.
    static void readAll(std::istream& stream) {
        InputArchive archive;
        archive.open(stream);
        bool truth = false;
        char character = 0;
        zel::int16 number = 0;
        double real = 0;
        std::string text;
        zel::Uuid uuid;
        zel::Vector<double> doubles;
        zel::Vector<zel::Vec3d> places;
        std::vector<zel::uint16> shorts;
        archive.read(truth);
        archive.read(character);
        archive.read(number);
        archive.read(real);
        archive.read(text);
        archive.read(uuid);
        archive.read(doubles);
        archive.read(places);
        archive.read(shorts);
        ref_ptr<Vehicle> vehicle;
        archive.read(vehicle);
        walk(vehicle.get());
        ref_ptr<Vehicle> again;
        archive.read(again);
        walk(again.get());
        Wheel* none = nullptr;
        archive.read(none);
        Barge* barge = nullptr;
        archive.read(barge);
        for (int i = 0; barge != nullptr && i < 3; ++i)
            barge = barge->next;
        ref_ptr<Scripted> scripted;
        archive.read(scripted);
        archive.close();
    }
    /// Touches all that a vehicle leads to, for the sanitizers to see.
    static void walk(const Vehicle* vehicle) {
        volatile double sum = 0;
        for (int i = 0; vehicle != nullptr && i < 4; ++i, vehicle = vehicle->leader) {
            sum = sum + static_cast<double>(vehicle->name.size()) + vehicle->motor.power;
            for (const Wheel* wheel : {vehicle->spare.get(), vehicle->motor.drives.get()})
                if (wheel != nullptr)
                    sum = sum + wheel->radius;
        }
    }
    /// Reads it with and without a position; each ends well or in an ArchiveException.
    /// @return  whether it was read to its end
    static bool tryAll(const std::string& bytes) {
        std::istringstream seekable(bytes);
        const std::string error = archiveErrorOf([&] { readAll(seekable); });
        OneWayBuffer buffer(bytes);
        std::istream oneWay(&buffer);
        const std::string oneWayError = archiveErrorOf([&] { readAll(oneWay); });
        EXPECT_EQ(error == "no exception", oneWayError == "no exception") << error << '\n' << oneWayError;
        EXPECT_EQ(Scripted::s_numLiving, 0);
        return error == "no exception";
    }
    static std::string refErrorOf(const ArchiveBytes& bytes) {
        Opened archive(bytes);
        return archiveErrorOf([&] { (void)archive->readObjectByRef(); });
    }
};

TEST_F(InputArchiveMaliciousTest, ASoundArchiveIsReadToItsEnd) {
    for (const bool isLittleEndian : {true, false})
        EXPECT_TRUE(tryAll(small(isLittleEndian)));
}

TEST_F(InputArchiveMaliciousTest, AnArchiveThatIsCutAnywhereIsToldAsTooShort) {
    for (const bool isLittleEndian : {true, false}) {
        const std::string bytes = small(isLittleEndian);
        for (std::size_t size = 0; size < bytes.size(); ++size)
            EXPECT_FALSE(tryAll(bytes.substr(0, size))) << size;
    }
}

TEST_F(InputArchiveMaliciousTest, EachByteMayBeAnyOther) {
    const zelTest::LogCapture quiet(zel::Notify::Warning);
    for (const bool isLittleEndian : {true, false}) {
        const std::string bytes = small(isLittleEndian);
        std::size_t numRead = 0;
        for (std::size_t at = 0; at < bytes.size(); ++at)
            for (const int pattern : {0x01, 0x02, 0x04, 0x08, 0x10, 0x80, 0xFF}) {
                std::string wrong = bytes;
                wrong[at] = static_cast<char>(wrong[at] ^ pattern);
                numRead += tryAll(wrong) ? 1U : 0U;
            }
        // Most bytes are values, which may be any; many are not.
        EXPECT_GT(numRead, bytes.size());
        EXPECT_LT(numRead, 6 * bytes.size());
    }
}

TEST_F(InputArchiveMaliciousTest, BytesMayBeReplacedByZerosAndOnes) {
    const zelTest::LogCapture quiet(zel::Notify::Warning);
    for (const bool isLittleEndian : {true, false}) {
        const std::string bytes = small(isLittleEndian);
        for (std::size_t at = 0; at < bytes.size(); ++at)
            for (const std::size_t n : {2U, 4U, 8U})
                for (const char fill : {'\0', '\xFF'}) {
                    std::string wrong = bytes;
                    wrong.replace(at, std::min(n, bytes.size() - at), std::min(n, bytes.size() - at), fill);
                    tryAll(wrong);
                }
    }
}

TEST_F(InputArchiveMaliciousTest, PiecesMayBeMovedAboutAtRandom) {
    const zelTest::LogCapture quiet(zel::Notify::Warning);
    const std::string bytes = small(true);
    std::mt19937 random(zelTest::stressSeed());
    const auto below = [&](std::size_t n) {
        return std::uniform_int_distribution<std::size_t>(0, n)(random);
    };
    for (std::size_t i = 0; i < 4000 / zelTest::StressDivisor; ++i) {
        std::string wrong = bytes;
        const std::string piece = bytes.substr(below(bytes.size()), below(60));
        switch (below(2)) {
        case 0:
            wrong.insert(below(wrong.size()), piece);
            break;
        case 1:
            wrong.erase(below(wrong.size()), piece.size());
            break;
        default:
            wrong.replace(below(wrong.size()), piece.size(), piece);
        }
        tryAll(wrong);
    }
}

TEST_F(InputArchiveMaliciousTest, AStreamThatThrowsIsToldAsTooShort) {
    const std::string bytes = small(true);
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        OneWayBuffer buffer(bytes, at);
        std::istream stream(&buffer);
        EXPECT_NE(archiveErrorOf([&] { readAll(stream); }), "no exception") << at;
        EXPECT_EQ(Scripted::s_numLiving, 0);
    }
}

TEST_F(InputArchiveMaliciousTest, AStreamWithoutBytesIsToldAsTooShort) {
    std::istream none(nullptr);
    EXPECT_THAT(archiveErrorOf([&] { readAll(none); }), HasSubstr("Error occurred while reading "));
    std::istringstream failed(small(true));
    failed.setstate(std::ios::badbit);
    EXPECT_NE(archiveErrorOf([&] { readAll(failed); }), "no exception");
}

TEST_F(InputArchiveMaliciousTest, AStreamThatCanNotBePositionedGivesNoByteTooMany) {
    OneWayBuffer buffer(small(true) + "rest");
    std::istream stream(&buffer);
    readAll(stream);
    std::string rest;
    EXPECT_TRUE(stream >> rest);
    EXPECT_EQ(rest, "rest");
}

TEST_F(InputArchiveMaliciousTest, TextsLongerThanTheFileAreRefused) {
    for (const zel::uint32 length : {5U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        const ArchiveBytes bytes = start().raw(length).block("abcd");
        const std::string expected = "Error occurred while reading ";
        Opened archive(bytes);
        std::string text = "kept";
        EXPECT_THAT(archiveErrorOf([&] { archive->read(text); }), HasSubstr(expected)) << length;
        EXPECT_EQ(text, "kept");
        OneWayBuffer buffer(bytes.bytes());
        std::istream stream(&buffer);
        InputArchive oneWay;
        oneWay.open(stream);
        EXPECT_THAT(archiveErrorOf([&] { oneWay.read(text); }), HasSubstr(expected)) << length;
        EXPECT_EQ(text, "kept");
    }
}

TEST_F(InputArchiveMaliciousTest, NamesOfClassesLongerThanTheFileAreRefused) {
    const ArchiveBytes bytes =
        start().objectHeader(4).scalar(2).scalar(4).scalar(1U).raw(0x80000000U).block("Whe");
    EXPECT_THAT(
        refErrorOf(bytes),
        testing::StartsWith("Current scope: 'Archive/Object/TypeHeader'. Error occurred while reading "
                            "2147483648 bytes"));
}

TEST_F(InputArchiveMaliciousTest, VectorsLongerThanTheStreamAreRefusedAlsoWhereItCanNotBePositioned) {
    for (const zel::uint64 size :
         {zel::uint64{5}, zel::uint64{1} << 32, zel::uint64{1} << 62, ~zel::uint64{0} / 4, ~zel::uint64{0}})
        for (const zel::uint32 type : {0U, 1U}) {
            const zel::uint32 width = type == 0 ? 4 : 8;
            OneWayBuffer buffer(
                start().vectorHeader(size, width, width, type).block(std::string(16, 'x')).bytes());
            std::istream stream(&buffer);
            InputArchive archive;
            archive.open(stream);
            zel::Vector<float> values;
            EXPECT_THAT(archiveErrorOf([&] { archive.read(values); }),
                        HasSubstr("Error occurred while reading "));
            EXPECT_LE(values.capacity(), (std::size_t{1} << 20)); // 1 MiB and its slack
        }
}

TEST_F(InputArchiveMaliciousTest, AnObjectCanNotBeItsOwnPart) {
    // Vehicle 1 whose wheel is to be the vehicle itself.
    const ArchiveBytes bytes =
        start().newObject(1, 1, "fleet::Vehicle").base(uuidOf(1)).text("").null().knownObject(1, 1);
    const std::string error = refErrorOf(bytes);
    EXPECT_THAT(error, HasSubstr("fleet::Vehicle"));
    EXPECT_THAT(error, HasSubstr("fleet::Wheel"));
}

TEST_F(InputArchiveMaliciousTest, AReferenceToWhatComesLaterIsBad) {
    const ArchiveBytes bytes =
        start().newObject(1, 1, "fleet::Vehicle").base(uuidOf(1)).text("").knownObject(2, 1);
    EXPECT_EQ(refErrorOf(bytes), "Current scope: 'Archive/Object/Object'. Bad object id 2");
}

TEST_F(InputArchiveMaliciousTest, AnObjectThatIsMadeAgainWithinItselfIsBad) {
    const ArchiveBytes bytes =
        start().newObject(1, 1, "fleet::Wagon").base(uuidOf(1)).newObject(1, 1).base(uuidOf(2));
    EXPECT_EQ(refErrorOf(bytes), "Current scope: 'Archive/Object/Object'. Bad object id 1");
}

TEST_F(InputArchiveMaliciousTest, NamesThatArePathsLoadNothing) {
    const std::string plugin = ZEL_TEST_PLUGIN;
    ASSERT_EQ(dlopen(plugin.c_str(), RTLD_LAZY | RTLD_NOLOAD), nullptr);
    const std::string stem = plugin.substr(0, plugin.rfind(".so"));
    for (const std::string& name : std::vector<std::string>{plugin + "::C",
                                                            stem + "::C",
                                                            "../" + stem + "::C",
                                                            "a::" + stem + "::C",
                                                            "a::../b::C",
                                                            "/tmp/x::C",
                                                            "..::C",
                                                            "::C",
                                                            "::",
                                                            std::string("zelTestPlugin\0::C", 17),
                                                            std::string(70'000, 'n') + "::C"}) {
        EXPECT_THAT(refErrorOf(start().newObject(1, 1, name)),
                    HasSubstr("Unable to get StorageAgent for a referenced object: '"));
        EXPECT_EQ(dlopen(plugin.c_str(), RTLD_LAZY | RTLD_NOLOAD), nullptr) << name;
    }
}

TEST_F(InputArchiveMaliciousTest, ManyObjectsUnderOneIdAreOneError) {
    ArchiveBytes bytes = start().newObject(1, 1, "fleet::Scripted").base(uuidOf(1));
    for (int i = 0; i < 3; ++i)
        bytes.newObject(1, 1).base(uuidOf(1));
    Opened archive(bytes);
    EXPECT_NE(archive->readObjectByRef(), nullptr);
    EXPECT_EQ(archiveErrorOf([&] { (void)archive->readObjectByRef(); }),
              "Current scope: 'Archive/Object'. Bad object id 1");
    EXPECT_EQ(Scripted::s_numLiving, 1); // the second was made, and is gone
}

} // namespace

#if !defined(ZEL_TEST_UNDER_ASAN) && !defined(ZEL_TEST_UNDER_TSAN)

#include <support/AllocationCounter.h>

namespace {

/// What an archive may take for a few bytes that say there were more: what it reads ahead, and the step by
/// which memory grows where the stream does not tell its length.
constexpr std::size_t Slack = 100'000;
constexpr std::size_t OneWaySlack = (std::size_t{1} << 20) + Slack;

TEST_F(InputArchiveMaliciousTest, TheLargestAllocationIsSeen) {
    EXPECT_EQ(zelTest::largestAllocationOf([] { std::free(std::malloc(12'345)); }), 12'345U);
    EXPECT_GE(zelTest::largestAllocationOf([] { zel::Vector<char> large(300'000'000); }), 300'000'000U);
    EXPECT_GE(zelTest::largestAllocationOf([] { std::string large(50'000'000, 'x'); }), 50'000'000U);
}

TEST_F(InputArchiveMaliciousTest, NoByteTakesMoreMemoryThanASmallMultipleOfTheFile) {
    const zelTest::LogCapture quiet(zel::Notify::Warning);
    const std::string bytes = small(true);
    for (std::size_t at = 0; at < bytes.size(); ++at)
        for (const char fill : {'\x7F', '\xFF'}) {
            std::string wrong = bytes;
            const std::size_t n = std::min<std::size_t>(8, bytes.size() - at);
            wrong.replace(at, n, n, fill);
            EXPECT_LE(zelTest::largestAllocationOf([&] {
                          std::istringstream stream(wrong);
                          (void)archiveErrorOf([&] { readAll(stream); });
                      }),
                      4 * bytes.size() + Slack)
                << at;
            EXPECT_LE(zelTest::largestAllocationOf([&] {
                          OneWayBuffer buffer(wrong);
                          std::istream stream(&buffer);
                          (void)archiveErrorOf([&] { readAll(stream); });
                      }),
                      4 * bytes.size() + OneWaySlack)
                << at;
        }
}

TEST_F(InputArchiveMaliciousTest, LongVectorsAndTextsTakeTheirSizeAndHalfOfItMore) {
    constexpr std::size_t Size = 20'000'000;
    const std::string header = start().bytes();
    const std::string text =
        header + ArchiveBytes().raw(static_cast<zel::uint32>(Size)).bytes() + std::string(Size, 'x');
    const std::string vector =
        header + ArchiveBytes().vectorHeader(Size / 4, 4, 4, 0).bytes() + std::string(Size, '\0');
    const auto largest = [&](std::istream& stream, bool isText) {
        std::string read;
        std::vector<float> values;
        return zelTest::largestAllocationOf([&] {
            InputArchive archive;
            archive.open(stream);
            isText ? archive.read(read) : archive.read(values);
            EXPECT_EQ(isText ? read.size() : values.size() * 4, Size);
        });
    };
    for (const bool isText : {true, false}) {
        std::istringstream stream(isText ? text : vector);
        EXPECT_LE(largest(stream, isText), Size + Slack);
        OneWayBuffer buffer(isText ? text : vector);
        std::istream oneWay(&buffer);
        EXPECT_LE(largest(oneWay, isText), 2 * Size + OneWaySlack);
    }
}

} // namespace

#endif
