// Archives in the binary form: whatever the bytes are, their header and then objects and values of each kind
// are read, from a stream that can be positioned and from one that can not, or a std::runtime_error tells why
// not. What was read is walked, and stored again.
#include "Support.h"

#include <zel/Vec.h>
#include <zel/ref_ptr.h>
#include <zelStream/ClassInformation.h>
#include <zelStream/InputArchive.h>
#include <zelStream/OutputArchive.h>
#include <zelStream/Serializable.h>
#include <zelStream/StorageAgent.h>
#include <zelStream/StorageManager.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <vector>

namespace f {

/// Holds one of each: what comes next is told by a byte.
class N : public zelStream::Serializable {
    ZEL_SERIALIZABLE(N)
public:
    void store(zelStream::OutputArchive& archive) const override;
    void restore(zelStream::InputArchive& archive) override;

    std::string m_text;
    std::vector<double> m_numbers;
    zel::Vector<zel::Vec3f> m_places;
    zel::uint64 m_number = 0;
    zel::Uuid m_id;
    N* m_links[4] = {};
    static int s_numRemoved;
};

int N::s_numRemoved = 0;

/// A part by value, within the nodes.
class P : public zelStream::Serializable {
    ZEL_SERIALIZABLE(P)
public:
    void store(zelStream::OutputArchive& archive) const override { archive.write(m_node); }
    void restore(zelStream::InputArchive& archive) override { archive.read(m_node); }

    N* m_node = nullptr;
};

ZEL_REGISTER_SERIALIZABLE(N)
ZEL_REGISTER_SERIALIZABLE(P)

void N::store(zelStream::OutputArchive& archive) const {
    archive.write('t');
    archive.write(m_text);
    archive.write('v');
    archive.write(m_numbers);
    archive.write('w');
    archive.write(m_places);
    archive.write('n');
    archive.write(m_number);
    archive.write('u');
    archive.write(m_id);
    for (int i = 0; i < 4; ++i) {
        archive.write(i % 2 == 0 ? 'l' : 'd');
        archive.write(static_cast<zel::uint8>(i));
        i % 2 == 0 ? archive.write(m_links[i]) : archive.writeDeferred(m_links[i]);
    }
    archive.write('.');
}

void N::restore(zelStream::InputArchive& archive) {
    for (char kind = 0; kind != '.';) {
        archive.read(kind);
        zel::uint8 link = 0;
        switch (kind) {
        case 't':
            archive.read(m_text);
            break;
        case 'v':
            archive.read(m_numbers);
            break;
        case 'w':
            archive.read(m_places);
            break;
        case 'n':
            archive.read(m_number);
            break;
        case 'u':
            archive.read(m_id);
            break;
        case 'l':
            archive.read(link);
            archive.read(m_links[link % 4]);
            break;
        case 'd':
            // Each place once: it has to stay a pointer that waits.
            archive.read(link);
            archive.readDeferred(m_links[link % 4]);
            break;
        case 'p': {
            P part;
            archive.read(part);
            break;
        }
        case 'c': // what a part throws is passed over
            try {
                P part;
                archive.read(part);
            } catch (const std::runtime_error&) {
                m_number = 0;
            }
            break;
        case 'r': // is removed at once
            archive.removeObject(this);
            ++s_numRemoved;
            break;
        default:
            kind = '.';
        }
    }
}

} // namespace f

namespace {

/// Can not be positioned.
class OneWay : public std::streambuf {
public:
    OneWay(const std::uint8_t* data, std::size_t size) : m_bytes(data, data + size) {
        setg(m_bytes.data(), m_bytes.data(), m_bytes.data() + m_bytes.size());
    }

private:
    std::vector<char> m_bytes;
};

bool isTooDeep(const std::runtime_error& error) {
    return std::string(error.what()).find("Objects are nested too deep") != std::string::npos;
}

using Held = std::vector<zel::ref_ptr<zelStream::Serializable>>;

void readObjects(zelStream::InputArchive& archive, Held& held) {
    while (!archive.isAtEnd())
        held.emplace_back(archive.readObjectByRef());
}

/// What could be read can be stored, and read again.
void storeAgain(const Held& held) {
    std::stringstream stream;
    try {
        zelStream::OutputArchive output;
        output.open(stream);
        for (const auto& object : held)
            output.write(object.get());
        output.close();
        zelStream::InputArchive archive;
        archive.open(stream);
        Held again;
        readObjects(archive, again);
        if (again.size() != held.size())
            std::abort();
    } catch (const std::runtime_error& error) {
        if (!isTooDeep(error))
            std::abort();
    }
}

void readAll(std::istream& stream) {
    zelStream::InputArchive archive;
    f::N::s_numRemoved = 0;
    archive.open(stream);
    Held held;
    readObjects(archive, held);
    if (f::N::s_numRemoved == 0) // else others may refer to what is gone
        storeAgain(held);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();
    zelStream::StorageManager::instance()->setLibraryLoadingEnabled(false);
    try {
        std::istringstream stream(std::string(data, data + size));
        readAll(stream);
    } catch (const std::runtime_error&) {
        // as told
    }
    try {
        OneWay buffer(data, size);
        std::istream stream(&buffer);
        readAll(stream);
    } catch (const std::runtime_error&) {
        // as told
    }
    return 0;
}
