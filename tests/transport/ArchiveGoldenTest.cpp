#include "ArchiveFixture.h"

#include <zel/Vec.h>
#include <zelCore/Version.h>

#include <support/Golden.h>

#include <cstdlib>
#include <fstream>
#include <map>

// Archives that stay readable: the present form, and one on either side of each change that the form ever
// had, in both byte orders. tests/golden/archives keeps the bytes of each, and what is to be read from them.
// ZEL_WRITE_GOLDEN in the environment writes the files anew, from the bytes that this test makes by hand.

using fleet::Barge;
using fleet::Motor;
using fleet::Vehicle;
using fleet::Wheel;
using zel::ref_ptr;
using zelStream::InputArchive;
using zelStream::OutputArchive;
using zelTest::ArchiveBytes;
using zelTest::ArchiveHead;
using zelTest::uuidOf;

namespace {

struct Form {
    std::array<zel::uint8, 4> version;
    zel::uint16 serialization;

    [[nodiscard]] std::string name() const {
        std::string text;
        for (const zel::uint8 part : version)
            text += std::to_string(part) + ".";
        return text + std::to_string(serialization);
    }
};

class ArchiveGoldenTest : public zelTest::ArchiveFixture, public testing::WithParamInterface<Form> {
protected:
    static std::string pathOf(const std::string& name) {
        return std::string(ZEL_TEST_SOURCES) + "/golden/archives/" + name;
    }
    static std::string textOf(const std::string& name) {
        std::ifstream file(pathOf(name));
        EXPECT_TRUE(file.good()) << name;
        std::ostringstream text;
        text << file.rdbuf();
        return text.str();
    }
    static void writeAnew(const std::string& name, const std::string& text) {
        if (std::getenv("ZEL_WRITE_GOLDEN") != nullptr) // NOLINT(concurrency-mt-unsafe): nobody sets it
            std::ofstream(pathOf(name)) << text;
    }
    static bool hasElementTypes(const Form& form) { return form.serialization >= 28; }

    /// The golden archive of a form.
    static ArchiveBytes make(const Form& form, bool isLittleEndian) {
        ArchiveHead head;
        head.version = form.version;
        head.serialization = form.serialization;
        head.isLittleEndian = isLittleEndian;
        ArchiveBytes bytes(head);
        bytes.title("Values");
        bytes.scalar(true).scalar('x').scalar(zel::int8{-8}).scalar(zel::uint16{40'000});
        bytes.scalar(zel::int32{-70'000}).scalar(zel::uint64{0x0102030405060708}).scalar(1.5F).scalar(-2.25);
        bytes.text("rover").uuid(uuidOf(0x55)).block("\1\2\3");
        bytes.title("Vectors of float, Vec3f, uint16, and double where they are told");
        bytes.vector<float>({1.5, -2}, 2, 0).vector<float>({1, 2, 3, 0}, 1, 4);
        bytes.vector<zel::uint16>({1, 40'000}, 2, 8);
        if (hasElementTypes(form))
            bytes.vector<double>({0.125}, 1, 1);
        bytes.title("Two vehicles that refer to each other and share a wheel");
        bytes.newObject(1, 1, "fleet::Vehicle").base(uuidOf(1)).text("first");
        bytes.title("the second, within the first");
        bytes.newObject(2, 1).base(uuidOf(2)).text("second").knownObject(1, 1);
        bytes.newObject(3, 2, "fleet::Wheel").base(uuidOf(3)).scalar(0.5);
        bytes.title("its motor").byValue().base(uuidOf(4)).scalar(40).knownObject(3, 2);
        bytes.title("the first again: its wheel and its motor").knownObject(3, 2);
        bytes.null(); // its serialization is off
        bytes.title("The first by reference, null, and a motor by value");
        bytes.knownObject(1, 1).null().byValue().base(uuidOf(5)).scalar(50).null();
        bytes.title("Two barges, the second put off");
        bytes.newObject(4, 3, "fleet::Barge").base(uuidOf(6)).knownObject(5, 3);
        bytes.newObject(5, 3).base(uuidOf(7)).knownObject(4, 3);
        return bytes;
    }

    /// The same by the library, in its present form.
    static void store(OutputArchive& archive) {
        const ref_ptr<Wheel> wheel(new Wheel(0.5));
        const ref_ptr<Vehicle> first(new Vehicle("first"));
        const ref_ptr<Vehicle> second(new Vehicle("second"));
        const ref_ptr<Barge> barges[] = {ref_ptr<Barge>(new Barge), ref_ptr<Barge>(new Barge)};
        Motor motor;
        wheel->setUuid(uuidOf(3));
        first->setUuid(uuidOf(1));
        first->leader = second.get();
        first->spare = wheel;
        first->motor.setEnableSerialization(false);
        second->setUuid(uuidOf(2));
        second->leader = first.get();
        second->spare = wheel;
        second->motor.setUuid(uuidOf(4));
        second->motor.power = 40;
        second->motor.drives = wheel;
        motor.setUuid(uuidOf(5));
        motor.power = 50;
        barges[0]->setUuid(uuidOf(6));
        barges[1]->setUuid(uuidOf(7));
        barges[0]->next = barges[1].get();
        barges[1]->next = barges[0].get();

        archive.write(true);
        archive.write('x');
        archive.write(zel::int8{-8});
        archive.write(zel::uint16{40'000});
        archive.write(zel::int32{-70'000});
        archive.write(zel::uint64{0x0102030405060708});
        archive.write(1.5F);
        archive.write(-2.25);
        archive.write("rover");
        archive.write(uuidOf(0x55));
        archive.write("\1\2\3", 3);
        archive.write(zel::Vector<float>{1.5F, -2});
        archive.write(zel::Vector<zel::Vec3f>{{1, 2, 3}});
        archive.write(zel::Vector<zel::uint16>{1, 40'000});
        archive.write(zel::Vector<double>{0.125});
        archive.write(first.get());
        archive.write(first.get());
        archive.write(static_cast<const Vehicle*>(nullptr));
        archive.write(motor);
        archive.write(barges[0].get());
    }

    template <typename T>
    static T read(InputArchive& archive) {
        T value{};
        archive.read(value);
        return value;
    }
    /// Reads all of a golden archive, and tells it as text.
    static std::string describe(const std::string& bytes) {
        zelTest::Opened opened(bytes);
        InputArchive& archive = *opened;
        std::ostringstream text;
        text << "version " << +archive.getGenerationVersion() << '.' << +archive.getMajorVersion() << '.'
             << +archive.getMinorVersion() << '.' << +archive.getPatchVersion() << '\n'
             << "serialization version " << archive.getSerializationVersion() << '\n'
             << "appName '" << archive.getAppName() << "'\n"
             << "revision '" << archive.getRevision() << "'\n"
             << "built '" << archive.getBuildDate() << "' '" << archive.getBuildTime() << "'\n"
             << "date '" << archive.getArchiveDate() << "'\n"
             << "flags:";
        for (const auto& flag : archive.getBuildFlags())
            text << ' ' << flag.name << (flag.isSet ? "+" : "-");
        text << "\nmodifications:";
        for (const auto& hash : archive.getModifications())
            text << ' ' << hash;
        text << "\nvalues: " << read<bool>(archive) << ' ' << read<char>(archive);
        text << ' ' << +read<zel::int8>(archive) << ' ' << read<zel::uint16>(archive);
        text << ' ' << read<zel::int32>(archive) << ' ' << read<zel::uint64>(archive);
        text << ' ' << read<float>(archive) << ' ' << read<double>(archive);
        text << ' ' << read<std::string>(archive) << ' ' << read<zel::Uuid>(archive).str();
        std::array<zel::uint8, 3> block{};
        archive.read(block.data(), block.size());
        text << ' ' << +block[0] << +block[1] << +block[2] << "\nfloats:";
        for (const float value : read<zel::Vector<float>>(archive))
            text << ' ' << value;
        text << "\nplaces:";
        for (const auto& value : read<zel::Vector<zel::Vec3f>>(archive))
            text << " (" << value.x() << ' ' << value.y() << ' ' << value.z() << ')';
        text << "\nshorts:";
        for (const auto value : read<zel::Vector<zel::uint16>>(archive))
            text << ' ' << value;
        if (archive.getSerializationVersion() >= 28) {
            text << "\ndoubles:";
            for (const double value : read<zel::Vector<double>>(archive))
                text << ' ' << value;
        }
        text << '\n';
        const bool hasUuids = archive.getSerializationVersion() > 2;
        const auto tell = [&](const char* what, const zelStream::Serializable* object) -> std::ostream& {
            return text << what << (hasUuids ? ' ' + object->getUuid().str().substr(0, 2) : " without uuid");
        };
        const auto* const first = read<Vehicle*>(archive);
        for (const Vehicle* vehicle : {first, static_cast<const Vehicle*>(first->leader)}) {
            tell("vehicle", vehicle) << " '" << vehicle->name << "' behind '" << vehicle->leader->name
                                     << "'\n";
            tell("  wheel", vehicle->spare.get()) << " of " << vehicle->spare->radius << '\n';
            if (vehicle->motor.power != 0)
                tell("  motor", &vehicle->motor) << " of " << vehicle->motor.power << '\n';
            text << "  shares its wheel: " << (vehicle->spare == first->spare) << ' '
                 << (vehicle->motor.drives == first->spare) << '\n';
        }
        text << "again: " << (archive.readObjectByRef() == first) << '\n';
        text << "null: " << (archive.readObjectByRef() == nullptr) << '\n';
        Motor motor;
        archive.read(motor);
        tell("motor", &motor) << " of " << motor.power << '\n';
        const auto* const barge = read<Barge*>(archive);
        tell("barge", barge) << '\n';
        tell("barge", barge->next) << '\n';
        text << "round: " << (barge->next->next == barge) << '\n';
        text << "objects: " << archive.getNumObjectsRead() << '\n';
        text << "at its end: " << archive.isAtEnd() << '\n';
        return text.str();
    }
};

TEST_P(ArchiveGoldenTest, BytesAreThoseOfTheRules) {
    for (const bool isLittleEndian : {true, false}) {
        const std::string name = GetParam().name() + (isLittleEndian ? "-little" : "-big") + ".hex";
        const ArchiveBytes bytes = make(GetParam(), isLittleEndian);
        writeAnew(name, bytes.listing());
        EXPECT_EQ(textOf(name), bytes.listing());
        EXPECT_EQ(zelTest::readListing("archives/" + name), bytes.bytes());
    }
}

TEST_P(ArchiveGoldenTest, IsReadAsTold) {
    const std::string name = GetParam().name() + ".txt";
    for (const bool isLittleEndian : {true, false}) {
        const zelTest::LogCapture log(zel::Notify::Warning);
        const std::string text = describe(zelTest::readListing(
            "archives/" + GetParam().name() + (isLittleEndian ? "-little" : "-big") + ".hex"));
        if (isLittleEndian)
            writeAnew(name, text);
        EXPECT_EQ(text, textOf(name));
        EXPECT_EQ(log.text(), "");
    }
}

// Each is the last of a form or the first of the next one, of the header or of what follows.
INSTANTIATE_TEST_SUITE_P(Forms,
                         ArchiveGoldenTest,
                         testing::Values(Form{{2, 0, 3, 255}, 0},
                                         Form{{2, 0, 4, 0}, 0},
                                         Form{{2, 5, 6, 255}, 0},
                                         Form{{2, 5, 7, 0}, 2},
                                         Form{{2, 5, 7, 255}, 3},
                                         Form{{2, 5, 8, 0}, 25},
                                         Form{{2, 16, 255, 255}, 26},
                                         Form{{2, 17, 0, 0}, 27},
                                         Form{{2, 37, 255, 255}, 28},
                                         Form{{2, 38, 0, 0}, 80},
                                         Form{{2, 38, 0, 1}, 81},
                                         Form{{2, 39, 0, 0}, 85},
                                         Form{{2, 39, 0, 1}, 86},
                                         Form{{2, 40, 0, 0}, 90}),
                         [](const auto& form) {
                             std::string name = form.param.name();
                             std::replace(name.begin(), name.end(), '.', '_');
                             return name;
                         });

class ArchiveGoldenWriterTest : public ArchiveGoldenTest {};

TEST_P(ArchiveGoldenWriterTest, IsWhatTheLibraryWritesBehindTheHeader) {
    for (const bool isLittleEndian : {true, false}) {
        const std::string golden = zelTest::readListing("archives/" + GetParam().name() +
                                                        (isLittleEndian ? "-little" : "-big") + ".hex");
        const std::size_t headerSize = start(isLittleEndian).size();
        EXPECT_EQ(testing::PrintToString(written(store, isLittleEndian)),
                  testing::PrintToString(golden.substr(headerSize)));
    }
}

INSTANTIATE_TEST_SUITE_P(Present, ArchiveGoldenWriterTest, testing::Values(Form{{2, 40, 0, 0}, 90}));

} // namespace
