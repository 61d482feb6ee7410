// XML archives: the header, objects by reference with all that they hold, and one of each plain value.
#include "Support.h"

#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelStream/ArchiveException.h>
#include <zelStream/Serializable.h>
#include <zelStream/StorageAgent.h>
#include <zelStream/StorageManager.h>
#include <zelStream/XMLInputArchive.h>
#include <zelStream/XMLOutputArchive.h>

#include <cstdint>
#include <sstream>
#include <string>

namespace fuzzed {

class Part : public zelStream::Serializable {
    ZEL_SERIALIZABLE(Part)
public:
    void store(zelStream::OutputArchive& archive) const override {
        archive.write(name);
        archive.write(place);
        archive.write(samples);
        archive.write(next);
    }
    void restore(zelStream::InputArchive& archive) override {
        archive.read(name);
        archive.read(place);
        archive.read(samples);
        archive.read(next);
    }

    std::string name;
    zel::Vec3d place;
    zel::Vector<float> samples;
    Part* next = nullptr; ///< not held, for it may go round
};

ZEL_REGISTER_SERIALIZABLE(Part)

} // namespace fuzzed

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();

    std::istringstream stream(std::string(reinterpret_cast<const char*>(data), size));
    try {
        zelStream::XMLInputArchive archive;
        archive.open(stream);
        fuzzed::Part* part = nullptr;
        archive.read(part);
        bool flag = false;
        char character = 0;
        zel::int64 number = 0;
        zel::Uuid uuid;
        char block[5];
        archive.read(flag);
        archive.read(character);
        archive.read(number);
        archive.read(uuid);
        archive.read(block, sizeof(block));
        // What was read can be written.
        std::ostringstream written;
        zelStream::XMLOutputArchive output;
        output.open(written);
        output.write(part);
        output.close();
    } catch (const zelStream::ArchiveException&) {
        // What a bad document gets.
    }
    return 0;
}
