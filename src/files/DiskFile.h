#pragma once

#include <zel/Integers.h>
#include <zel/String.h>

#include <sys/uio.h>

struct stat;

namespace zelIO {

/// An open file that is read and written at given places. Each operation answers whether all of it was done;
/// where it was not, getReason() tells why in the system's words. Nothing is buffered here.
/// @threads external lock
class DiskFile {
public:
    enum class Mode : zel::uint8 {
        Read,
        ReadWrite, ///< a file that exists
        Create     ///< for both, and makes the file if it lacks
    };

    DiskFile(const zel::String& path, Mode mode);
    DiskFile(const DiskFile&) = delete;
    DiskFile& operator=(const DiskFile&) = delete;
    ~DiskFile();

    [[nodiscard]] bool isOpen() const noexcept { return m_descriptor >= 0; }
    /// Of the last operation that failed.
    [[nodiscard]] zel::String getReason() const;

    [[nodiscard]] bool stat(struct ::stat& data);
    [[nodiscard]] bool size(zel::uint64& size);
    /// A file that ends too early is a failure.
    [[nodiscard]] bool readAt(zel::uint64 offset, void* bytes, zel::uint64 numBytes);
    /// As many bytes as there are, up to the number.
    [[nodiscard]] bool
    readSomeAt(zel::uint64 offset, void* bytes, zel::uint64 numBytes, zel::uint64& numRead);
    /// The first bytes of the file in memory, read-only, until munmap; null where that is not to be had.
    /// Above 0.
    [[nodiscard]] void* map(zel::uint64 numBytes);
    [[nodiscard]] bool writeAt(zel::uint64 offset, const void* bytes, zel::uint64 numBytes);
    /// The same of parts that lie apart in memory, one behind the other in the file.
    /// @param parts       are used up
    /// @param numWritten  how far it came
    [[nodiscard]] bool
    writeAt(zel::uint64 offset, ::iovec* parts, zel::size_t numParts, zel::uint64& numWritten);
    /// Makes the file so long.
    [[nodiscard]] bool cut(zel::uint64 size);
    /// Waits until what was written is on the disk.
    [[nodiscard]] bool sync();
    /// Some systems tell of a full disk only now.
    [[nodiscard]] bool close();

private:
    [[nodiscard]] bool fail(int error);

    int m_descriptor;
    int m_error = 0;
};

} // namespace zelIO
