#include "ArchiveReader.h"

#include <algorithm>
#include <cstring>
#include <istream>
#include <utility>

namespace zelStream {

namespace {

constexpr zel::size_t BufferSize = 65536;
constexpr std::streamoff NoPosition = -1;

} // namespace

ArchiveReader::ArchiveReader(std::istream& stream, InputArchive::Ahead& ahead)
    : m_stream(stream), m_ahead(ahead) {
    std::streambuf* const source = stream.rdbuf();
    if (source == nullptr || !stream.good())
        return;
    const std::streamoff here = source->pubseekoff(0, std::ios::cur, std::ios::in);
    if (here == NoPosition)
        return;
    const std::streamoff end = source->pubseekoff(0, std::ios::end, std::ios::in);
    if (end == NoPosition || source->pubseekoff(here, std::ios::beg, std::ios::in) != here || end < here)
        return;
    m_isSeekable = true;
    m_numBytesLeft = static_cast<zel::uint64>(end - here);
    m_buffer.resize(static_cast<zel::size_t>(std::min<zel::uint64>(BufferSize, m_numBytesLeft)));
}

ArchiveReader::~ArchiveReader() {
    const InputArchive::Ahead ahead = std::exchange(m_ahead, {});
    if (ahead.head == ahead.end)
        return;
    try {
        m_stream.rdbuf()->pubseekoff(ahead.head - ahead.end, std::ios::cur, std::ios::in);
    } catch (...) { // NOLINT(bugprone-empty-catch): a stream that failed stands anywhere
    }
}

bool ArchiveReader::isAtEnd() {
    if (m_isSeekable)
        return getNumBytesLeft() == 0;
    try {
        return m_stream.rdbuf() == nullptr || m_stream.rdbuf()->sgetc() == std::istream::traits_type::eof();
    } catch (...) {
        return true; // as in take
    }
}

void ArchiveReader::copy(void* data, zel::size_t numBytes) {
    if (numBytes != 0)
        std::memcpy(data, m_ahead.head, numBytes);
    m_ahead.head += numBytes;
}

zel::size_t ArchiveReader::readBeyondBuffer(char* data, zel::size_t numBytes) {
    const auto ahead = static_cast<zel::size_t>(m_ahead.end - m_ahead.head);
    copy(data, ahead);
    const zel::size_t left = numBytes - ahead;
    if (left >= m_buffer.size())
        return ahead + take(data + ahead, left);
    const zel::size_t n = take(m_buffer.data(), m_buffer.size());
    m_ahead = {m_buffer.data(), m_buffer.data() + n};
    const zel::size_t more = std::min(left, n);
    copy(data + ahead, more);
    return ahead + more;
}

zel::size_t ArchiveReader::take(char* data, zel::size_t numBytes) noexcept {
    try {
        if (m_stream.rdbuf() == nullptr || m_stream.fail())
            return 0;
        const auto n = static_cast<zel::size_t>(std::max<std::streamsize>(
            m_stream.rdbuf()->sgetn(data, static_cast<std::streamsize>(numBytes)), 0));
        if (m_isSeekable)
            m_numBytesLeft -= std::min<zel::uint64>(n, m_numBytesLeft);
        return n;
    } catch (...) {
        return 0; // which the archive tells as its end
    }
}

} // namespace zelStream
