#include "DiskFile.h"

#include <zelIO/FileSystem.h>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <limits>

namespace zelIO {

namespace {

using zel::uint64;

int flagsOf(DiskFile::Mode mode) {
    switch (mode) {
    case DiskFile::Mode::Read:
        return O_RDONLY | O_NONBLOCK; // a pipe that nobody writes would wait for ever
    case DiskFile::Mode::ReadWrite:
        return O_RDWR;
    case DiskFile::Mode::Create:
        break;
    }
    return O_RDWR | O_CREAT;
}

/// Whether the bytes lie where a file can have some.
bool isPlace(uint64 offset, uint64 numBytes) {
    constexpr auto limit = static_cast<uint64>(std::numeric_limits<off_t>::max());
    return offset <= limit && numBytes <= limit - offset;
}

} // namespace

DiskFile::DiskFile(const zel::String& path, Mode mode)
    : m_descriptor(open(FileSystem::convertToNativeFilePath(path).c_str(), flagsOf(mode) | O_CLOEXEC, 0666)) {
    if (m_descriptor < 0)
        m_error = errno;
}

DiskFile::~DiskFile() {
    static_cast<void>(close()); // who writes closes it and looks
}

zel::String DiskFile::getReason() const {
    return std::strerror(m_error);
}

bool DiskFile::fail(int error) {
    m_error = error;
    return false;
}

bool DiskFile::stat(struct ::stat& data) {
    return fstat(m_descriptor, &data) == 0 || fail(errno);
}

bool DiskFile::size(uint64& size) {
    struct ::stat data {};
    if (!stat(data))
        return false;
    size = static_cast<uint64>(data.st_size);
    return true;
}

bool DiskFile::readSomeAt(uint64 offset, void* bytes, uint64 numBytes, uint64& numRead) {
    numRead = 0;
    if (!isPlace(offset, numBytes))
        return fail(EINVAL);
    while (numRead < numBytes) {
        const ssize_t count = pread(m_descriptor,
                                    static_cast<char*>(bytes) + numRead,
                                    numBytes - numRead,
                                    static_cast<off_t>(offset + numRead));
        if (count == 0)
            return true;
        if (count > 0)
            numRead += static_cast<uint64>(count);
        else if (errno != EINTR)
            return fail(errno);
    }
    return true;
}

bool DiskFile::readAt(uint64 offset, void* bytes, uint64 numBytes) {
    uint64 numRead = 0;
    return readSomeAt(offset, bytes, numBytes, numRead) && (numRead == numBytes || fail(ENODATA));
}

void* DiskFile::map(uint64 numBytes) {
    void* bytes = mmap(nullptr, numBytes, PROT_READ, MAP_SHARED, m_descriptor, 0);
    if (bytes != MAP_FAILED)
        return bytes;
    m_error = errno;
    return nullptr;
}

bool DiskFile::writeAt(uint64 offset, const void* bytes, uint64 numBytes) {
    ::iovec part{const_cast<void*>(bytes), numBytes}; // NOLINT: only read
    uint64 numWritten = 0;
    return writeAt(offset, &part, 1, numWritten);
}

bool DiskFile::writeAt(uint64 offset, ::iovec* parts, zel::size_t numParts, uint64& numWritten) {
    numWritten = 0;
    while (numParts != 0) {
        if (parts->iov_len == 0) {
            ++parts;
            --numParts;
            continue;
        }
        if (!isPlace(offset, numWritten))
            return fail(EFBIG);
        const ssize_t count = pwritev(m_descriptor,
                                      parts,
                                      static_cast<int>(std::min<zel::size_t>(numParts, IOV_MAX)),
                                      static_cast<off_t>(offset + numWritten));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return fail(count == 0 ? ENOSPC : errno);
        numWritten += static_cast<uint64>(count);
        for (auto done = static_cast<zel::size_t>(count); done != 0;) {
            const zel::size_t taken = std::min(done, parts->iov_len);
            done -= taken;
            parts->iov_base = static_cast<char*>(parts->iov_base) + taken;
            parts->iov_len -= taken;
            if (parts->iov_len == 0) {
                ++parts;
                --numParts;
            }
        }
    }
    return true;
}

bool DiskFile::cut(uint64 size) {
    if (!isPlace(size, 0))
        return fail(EFBIG);
    while (ftruncate(m_descriptor, static_cast<off_t>(size)) != 0)
        if (errno != EINTR)
            return fail(errno);
    return true;
}

bool DiskFile::sync() {
    while (fdatasync(m_descriptor) != 0)
        if (errno != EINTR)
            return fail(errno);
    return true;
}

bool DiskFile::close() {
    const int descriptor = m_descriptor;
    m_descriptor = -1;
    return descriptor < 0 || ::close(descriptor) == 0 || fail(errno);
}

} // namespace zelIO
