#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zelStream/ArchiveException.h>
#include <zelStream/ArchiveTypes.h>

#include <concepts>
#include <string>

namespace zelStream {

/// A block of bytes in memory for an object's light data: the part of its state that changes often and is
/// saved and brought back in the same process or between equal ones, without header, names and classes.
/// Values are written at the end and read from the front, in the same order; numbers are little-endian.
///
///     StorageStream stream;
///     rover.storeLightData(stream);
///     ...
///     stream.rewind();
///     rover.restoreLightData(stream);
/// @threads owner thread
class ZEL_CORE_API StorageStream {
public:
    StorageStream() = default;
    /// Over a copy of bytes that another stream has written.
    StorageStream(const void* data, zel::size_t numBytes);

    template <ArchiveScalar T>
    void write(T value) {
        writeNumber(&value, sizeof(T));
    }
    template <ArchiveComponents V>
    void write(const V& value) {
        for (zel::size_t i = 0; i < NumArchiveComponents<V>; ++i)
            write(value.data()[i]);
    }
    /// Its length in 64 bits, and its bytes.
    void write(const std::string& text);
    /// Bytes as they are.
    void write(const void* data, zel::size_t numBytes);

    /// @throws ArchiveException if fewer bytes are left than the value takes, which then is left alone
    template <ArchiveScalar T>
    void read(T& value) {
        if constexpr (std::same_as<T, bool>) {
            zel::uint8 byte = 0; // not each byte is a bool
            read(byte);
            value = byte != 0;
        } else {
            readNumber(&value, sizeof(T));
        }
    }
    template <ArchiveComponents V>
    void read(V& value) {
        verifyLeft(NumArchiveComponents<V> * sizeof(typename V::value_type));
        for (zel::size_t i = 0; i < NumArchiveComponents<V>; ++i)
            read(value.data()[i]);
    }
    void read(std::string& text);
    /// @throws ArchiveException, as above
    void read(void* data, zel::size_t numBytes);

    /// Reads from the front again.
    void rewind() noexcept { m_head = 0; }
    void clear() noexcept;
    [[nodiscard]] const char* data() const noexcept { return m_bytes.data(); }
    [[nodiscard]] zel::size_t size() const noexcept { return m_bytes.size(); }
    /// Bytes that were not read yet.
    [[nodiscard]] zel::size_t getNumBytesLeft() const noexcept { return m_bytes.size() - m_head; }

private:
    void writeNumber(const void* value, zel::size_t size);
    void readNumber(void* value, zel::size_t size);
    void verifyLeft(zel::uint64 numBytes) const;

    std::string m_bytes;
    zel::size_t m_head = 0;
};

} // namespace zelStream
