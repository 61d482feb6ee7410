#include <zel/ByteAllocator.h>
#include <zel/Verify.h>
#include <zelData/BinaryData.h>
#include <zelIO/FileSystem.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

namespace zelData {

using zel::uint8;

BinaryData::BinaryData(zel::size_t size) : m_data(new uint8[size]), m_size(size) {}

BinaryData::BinaryData(zel::size_t size, zel::size_t alignment)
    : m_data(zel::ByteAllocator::standaloneAllocateBytes(size, alignment))
    , m_size(size)
    , m_type(DataAllocationType::Aligned) {}

BinaryData::BinaryData(void* data, zel::size_t size, DataAllocationType type)
    : m_data(data), m_size(size), m_type(type) {}

BinaryData::BinaryData(void* data, zel::size_t size, const zel::Referenced* owner)
    : m_data(data), m_size(size), m_type(DataAllocationType::Owner), m_owner(owner) {}

BinaryData::~BinaryData() {
    switch (m_type) {
    case DataAllocationType::Malloc:
        std::free(m_data);
        break;
    case DataAllocationType::New:
        delete static_cast<uint8*>(m_data);
        break;
    case DataAllocationType::NewArray:
        delete[] static_cast<uint8*>(m_data);
        break;
    case DataAllocationType::Owner:
        break;
    case DataAllocationType::Aligned:
        zel::ByteAllocator::standaloneDeallocateTypes(m_data);
        break;
    }
}

BinaryData* BinaryData::copy(const void* bytes, zel::size_t size) {
    auto* data = new BinaryData(size);
    if (size != 0)
        std::memcpy(data->m_data, bytes, size);
    return data;
}

BinaryData* BinaryData::readFromFile(const zel::String& path) {
    std::ifstream binaryFile(path, std::ios::in | std::ios::binary);
    zelVerifyN(binaryFile.is_open() && !zelIO::FileSystem::isDir(path),
               "Could not open binary file '%s'.",
               path.c_str());
    binaryFile.seekg(0, std::ios::end);
    const std::ifstream::pos_type totNumBytes = binaryFile.tellg();
    zelVerifyN(
        totNumBytes != std::ifstream::pos_type(-1), "Could not get size of binary file '%s'.", path.c_str());
    const auto size = static_cast<zel::size_t>(std::streamoff(totNumBytes));
    zel::ref_ptr<BinaryData> data(new BinaryData(size));
    binaryFile.seekg(0);
    binaryFile.read(static_cast<char*>(data->m_data), static_cast<std::streamsize>(size));
    zelVerifyN(binaryFile.good(),
               "Could not read %llu bytes from binary file '%s'",
               static_cast<unsigned long long>(size),
               path.c_str());
    return data.release_nodelete();
}

} // namespace zelData
