#include <zelStream/StorageStream.h>

#include <algorithm>
#include <bit>
#include <cstring>

namespace zelStream {

namespace {

/// Between the machine's byte order and that of the stream.
void orderBytes(char* bytes, zel::size_t size) noexcept {
    if constexpr (std::endian::native != std::endian::little)
        std::reverse(bytes, bytes + size);
}

} // namespace

StorageStream::StorageStream(const void* data, zel::size_t numBytes) {
    write(data, numBytes);
}

void StorageStream::write(const void* data, zel::size_t numBytes) {
    if (numBytes != 0)
        m_bytes.append(static_cast<const char*>(data), numBytes);
}

void StorageStream::writeNumber(const void* value, zel::size_t size) {
    const zel::size_t end = m_bytes.size();
    write(value, size);
    orderBytes(m_bytes.data() + end, size);
}

void StorageStream::write(const std::string& text) {
    write(zel::uint64{text.size()});
    write(text.data(), text.size());
}

void StorageStream::verifyLeft(zel::uint64 numBytes) const {
    if (numBytes > getNumBytesLeft())
        throw ArchiveException("Light data ends: " + std::to_string(numBytes) + " bytes are wanted, and " +
                               std::to_string(getNumBytesLeft()) + " are left");
}

void StorageStream::read(void* data, zel::size_t numBytes) {
    verifyLeft(numBytes);
    if (numBytes != 0)
        std::memcpy(data, m_bytes.data() + m_head, numBytes);
    m_head += numBytes;
}

void StorageStream::readNumber(void* value, zel::size_t size) {
    read(value, size);
    orderBytes(static_cast<char*>(value), size);
}

void StorageStream::read(std::string& text) {
    const zel::size_t begin = m_head;
    zel::uint64 length = 0;
    read(length);
    try {
        verifyLeft(length);
    } catch (...) {
        m_head = begin;
        throw;
    }
    text.assign(m_bytes.data() + m_head, length);
    m_head += length;
}

void StorageStream::clear() noexcept {
    m_bytes.clear();
    m_head = 0;
}

} // namespace zelStream
