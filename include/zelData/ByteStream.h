#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Verify.h>
#include <zelData/BinaryData.h>

#include <cstring>
#include <type_traits>

namespace zelData {

/// A cursor over a block of bytes, which it neither owns nor keeps alive: values in the byte order of the
/// machine, without alignment. To read or write past the end is a failed verification.
/// @threads external lock
class ByteStream {
public:
    ByteStream(zel::uint8* begin, zel::uint8* end) noexcept : m_begin(begin), m_end(end), m_head(begin) {}
    /// Over a whole block.
    explicit ByteStream(const BinaryData* data) noexcept
        : ByteStream(data->getData(), data->getData() + data->getSize()) {}

    [[nodiscard]] zel::uint8* begin() const noexcept { return m_begin; }
    [[nodiscard]] zel::uint8* end() const noexcept { return m_end; }
    [[nodiscard]] zel::uint8* head() const noexcept { return m_head; }
    /// The bytes between head and end.
    [[nodiscard]] zel::size_t remaining() const noexcept { return static_cast<zel::size_t>(m_end - m_head); }
    /// Lets the stream begin at its head.
    void rebase() noexcept { m_begin = m_head; }

    template <typename T>
    [[nodiscard]] T peek() const {
        static_assert(std::is_trivially_copyable_v<T>);
        verifyRoomFor<T>();
        T value{};
        std::memcpy(&value, m_head, sizeof(T));
        return value;
    }
    template <typename T>
    [[nodiscard]] T read() {
        const T value = peek<T>();
        m_head += sizeof(T);
        return value;
    }
    template <typename T>
    void write(const T& value) {
        static_assert(std::is_trivially_copyable_v<T>);
        verifyRoomFor<T>();
        std::memcpy(m_head, &value, sizeof(T));
        m_head += sizeof(T);
    }
    /// The address of the next bytes, which it passes over.
    [[nodiscard]] const zel::uint8* readBytes(zel::size_t numBytes) {
        zelVerifyAs(remaining() >= numBytes, "(size_t)(m_end-m_head) >= numBytes");
        const zel::uint8* bytes = m_head;
        m_head += numBytes;
        return bytes;
    }
    void writeBytes(const void* bytes, zel::size_t numBytes) {
        zelVerifyAs(remaining() >= numBytes, "(size_t)(m_end-m_head) >= numBytes");
        if (numBytes != 0)
            std::memcpy(m_head, bytes, numBytes);
        m_head += numBytes;
    }

private:
    template <typename T>
    void verifyRoomFor() const {
        zelVerifyAs(remaining() >= sizeof(T), "(size_t)(m_end - m_head) >= sizeof(T)");
    }

    zel::uint8* m_begin;
    zel::uint8* m_end;
    zel::uint8* m_head;
};

} // namespace zelData
