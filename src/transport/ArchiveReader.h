#pragma once

#include <zel/Integers.h>
#include <zel/Vector.h>
#include <zelStream/InputArchive.h>

#include <iosfwd>

namespace zelStream {

/// Takes bytes from a stream. From one that can be positioned it reads ahead, and puts the stream back behind
/// the last byte that was taken when it ends.
class ArchiveReader {
public:
    /// @param ahead  what was read ahead, which its owner may take from
    ArchiveReader(std::istream& stream, InputArchive::Ahead& ahead);
    ArchiveReader(const ArchiveReader&) = delete;
    ArchiveReader& operator=(const ArchiveReader&) = delete;
    ~ArchiveReader();

    /// @return how many bytes there were: fewer only at the end of the stream, and where it fails
    zel::size_t read(void* data, zel::size_t numBytes) {
        if (numBytes > static_cast<zel::size_t>(m_ahead.end - m_ahead.head)) [[unlikely]]
            return readBeyondBuffer(static_cast<char*>(data), numBytes);
        copy(data, numBytes);
        return numBytes;
    }
    [[nodiscard]] bool isAtEnd();
    /// How many bytes may be left: all ones where the stream does not tell.
    [[nodiscard]] zel::uint64 getNumBytesLeft() const noexcept {
        return m_isSeekable ? m_numBytesLeft + static_cast<zel::uint64>(m_ahead.end - m_ahead.head)
                            : ~zel::uint64{0};
    }
    [[nodiscard]] bool isSeekable() const noexcept { return m_isSeekable; }

private:
    void copy(void* data, zel::size_t numBytes);
    zel::size_t readBeyondBuffer(char* data, zel::size_t numBytes);
    zel::size_t take(char* data, zel::size_t numBytes) noexcept;

    std::istream& m_stream;
    bool m_isSeekable = false;
    zel::uint64 m_numBytesLeft = 0; ///< behind the buffer
    zel::Vector<char> m_buffer;
    InputArchive::Ahead& m_ahead; ///< in the buffer
};

} // namespace zelStream
