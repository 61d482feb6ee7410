#include "JournalMeta.h"
#include "JournalSums.h"
#include "files/DiskFile.h"

#include <zel/Exception.h>
#include <zel/Log.h>
#include <zel/Verify.h>
#include <zelData/FileFrameWriter.h>
#include <zelData/SerializedFrame.h>
#include <zelData/Track.h>

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <memory>
#include <stdexcept>
#include <utility>

namespace zelData {

using zel::uint64;
using zelIO::DiskFile;

namespace {

/// What stands between the header and the elements, and between those: up to 127 of these.
constexpr std::array<zel::uint8, 128> Zeros{};

/// The pieces of a frame in the order of the file. Short ones are put together, since the system takes longer
/// to gather them than to write them; of all others no byte is copied.
class FramePieces {
public:
    using Segments = zel::Vector<SerializedFrame::BinarySegment>;

    FramePieces(const BinaryData* header, const Segments& segments, uint64 offset, bool wantsSum)
        : m_wantsSum(wantsSum), m_end(offset) {
        m_pieces.reserve(2 + 2 * segments.size());
        // Two for each segment at most, and those around the header: they must not move.
        m_shortPieces.reset(new zel::uint8[2 * ShortPiece * (1 + segments.size())]);
        m_shortEnd = m_shortPieces.get();
        add(header->getData(), header->getSize());
        m_headerSum = std::exchange(m_sum, 0);
        fillTo((m_end + JournalMeta::DataAlignment - 1) / JournalMeta::DataAlignment *
               JournalMeta::DataAlignment);
        m_dataOffset = m_end;
        m_sum = 0;
        for (const SerializedFrame::BinarySegment& segment : segments) {
            fillTo(m_dataOffset + segment.offset);
            add(segment.data->getData(), segment.data->getSize());
        }
    }

    [[nodiscard]] ::iovec* data() { return m_pieces.begin(); }
    [[nodiscard]] zel::size_t size() const { return m_pieces.size(); }
    [[nodiscard]] uint64 dataOffset() const { return m_dataOffset; }
    [[nodiscard]] uint64 end() const { return m_end; }
    [[nodiscard]] zel::uint32 headerSum() const { return m_headerSum; }
    [[nodiscard]] zel::uint32 dataSum() const { return m_sum; }

private:
    static constexpr uint64 ShortPiece = 128;

    void add(const zel::uint8* bytes, uint64 numBytes) {
        m_end += numBytes;
        if (m_wantsSum)
            m_sum = JournalSums::add(m_sum, bytes, numBytes);
        if (numBytes > ShortPiece) {
            m_pieces.push_back(::iovec{const_cast<zel::uint8*>(bytes), numBytes}); // NOLINT: only read
            m_endsShort = false;
            return;
        }
        std::copy_n(bytes, numBytes, m_shortEnd);
        if (m_endsShort)
            m_pieces.back().iov_len += numBytes;
        else
            m_pieces.push_back(::iovec{m_shortEnd, numBytes});
        m_shortEnd += numBytes;
        m_endsShort = true;
    }
    void fillTo(uint64 offset) {
        zelVerify(offset - m_end <= Zeros.size());
        if (offset != m_end)
            add(Zeros.data(), offset - m_end);
    }

    zel::Vector<::iovec> m_pieces;
    std::unique_ptr<zel::uint8[]> m_shortPieces;
    zel::uint8* m_shortEnd = nullptr;
    bool m_endsShort = false;
    bool m_wantsSum;
    zel::uint32 m_sum = 0;
    zel::uint32 m_headerSum = 0;
    uint64 m_end;
    uint64 m_dataOffset = 0;
};

} // namespace

FileFrameWriter::FileFrameWriter(JournalArchive::Session* session)
    : writeFrameEvent("WriteFrameEvent", this), m_session(requireFileSession(session)) {
    setHeaderFormat(SerializedFrame::BINARY_HEADER);
    requireSoleWriter();
}

FileFrameWriter::~FileFrameWriter() = default;

void FileFrameWriter::requireSoleWriter() const {
    const auto* writer = dynamic_cast<const FileFrameWriter*>(m_session->getFrameIO());
    if (writer != nullptr && writer != this)
        ZEL_THROW(std::runtime_error,
                  "FileFrameWriter: Journal '" + m_session->getPath() +
                      "' is being written by another writer.");
}

void FileFrameWriter::fail(uint64 index, const zel::String& reason) const {
    ZEL_THROW(std::runtime_error,
              zel::String::format("FileFrameWriter: Could not write frame %u to journal '%s'. %s",
                                  static_cast<unsigned>(index),
                                  m_session->getPath().c_str(),
                                  reason.c_str()));
}

bool FileFrameWriter::requireNext(uint64 index, bool isKeyFrame, bool namesAreKnown) const {
    zelVerifyAs(getHeaderFormat() == SerializedFrame::BINARY_HEADER,
                "this->getHeaderFormat() == SerializedFrame::BINARY_HEADER");
    zelVerifyAs(m_session->getFrameHead() != zel::InvalidIndex, "m_session->getFrameHead() != InvalidIndex");
    const bool begins = !m_goesOn || m_session->getFrameHead() != m_head;
    if (begins || !namesAreKnown) {
        requireSoleWriter();
        if (!isKeyFrame)
            fail(index, "It must be a key frame: the names that an increment builds on are not known.");
    }
    if (begins)
        m_session->dropFramesFrom(m_session->getFrameHead()); // one that was cut off
    const auto& table = m_session->getFrameTable();
    if (index == zel::InvalidIndex)
        fail(index, "It has no index.");
    // The second only where somebody else has written indices that fall.
    if (!table.empty() && (index <= table.back().index || m_session->getFrameInfo(index) != nullptr))
        fail(index,
             zel::String::format("The journal has frame %llu already, and indices must rise.",
                                 static_cast<unsigned long long>(table.back().index)));
    return begins;
}

void FileFrameWriter::writeFrame(const Frame* frame) {
    const bool begins = requireNext(frame->getIndex(), frame->isKeyFrame(), !m_namesAreForeign);
    m_goesOn = false; // whatever fails from here on leaves names that are not in the file
    const zel::ref_ptr<SerializedFrame> serialized(new SerializedFrame(frame));
    const zel::ref_ptr<BinaryData> header = serialized->writeBinaryHeader(m_names);
    writeBlocks(header.get(), serialized->getSegments(), begins);
    m_namesAreForeign = false;
    writeFrameEvent.fire(frame);
}

void FileFrameWriter::writeFrame(const BinaryData* header, const BinaryData* segment) {
    ByteStream stream(header);
    const auto meta = stream.read<SerializedFrame::BinaryHeader::Frame>();
    const bool begins = requireNext(meta.index, meta.isKeyFrame != 0, true);
    if (meta.headerSize != header->getSize() || meta.dataSize != segment->getSize())
        fail(meta.index, "Its record tells other sizes.");
    m_goesOn = false;
    zel::Vector<SerializedFrame::BinarySegment> segments;
    segments.push_back({zel::ref_ptr<BinaryData>(const_cast<BinaryData*>(segment)), 0}); // NOLINT: only read
    writeBlocks(header, segments, begins);
    m_namesAreForeign = true;
}

void FileFrameWriter::writeBlocks(const BinaryData* header,
                                  const zel::Vector<SerializedFrame::BinarySegment>& segments,
                                  bool begins) {
    ByteStream stream(header);
    const auto meta = stream.read<SerializedFrame::BinaryHeader::Frame>();
    DiskFile file(m_session->getPath(), DiskFile::Mode::ReadWrite);
    if (!file.isOpen()) {
        ZEL_LOG_WARNING("FileFrameWriter: Could not open file to write frame "
                        << meta.index << " to journal '" << m_session->getPath() << "'");
        fail(meta.index, file.getReason());
    }
    struct ::stat data {};
    if (!file.stat(data))
        fail(meta.index, file.getReason());
    const uint64 head = m_session->getFrameHead();
    const auto size = static_cast<uint64>(data.st_size);
    if (size < head || (!begins && (data.st_dev != m_device || data.st_ino != m_inode)))
        fail(meta.index, "It is not the file that held the frames ahead.");
    begins |= size > head; // plots, for instance
    if (begins) {
        try {
            m_session->beginWriting(
                meta, getTrack() == nullptr ? m_session->getFrameStride() : getTrack()->getFrameStride());
        } catch (const std::runtime_error& error) {
            fail(meta.index, error.what());
        }
        m_session->setFrameIO(this);
        m_device = data.st_dev;
        m_inode = data.st_ino;
    }

    FramePieces pieces(header, segments, head, m_writesChecksums);
    uint64 numWritten = 0;
    const bool isWritten = file.writeAt(head, pieces.data(), pieces.size(), numWritten);
    const bool isWhole = isWritten && file.close();
    if (!isWhole) {
        const zel::String reason = file.getReason();
        DiskFile again(m_session->getPath(), DiskFile::Mode::ReadWrite);
        if (!(file.isOpen() ? file : again).cut(head))
            ZEL_LOG_WARNING("Journal '" << m_session->getPath() << "': a part of frame " << meta.index
                                        << " stays at its end");
        fail(meta.index, reason);
    }
    if (m_writesChecksums) {
        const JournalSums sums(m_session->getPath());
        if (!sums.append({head, meta.index, pieces.headerSum(), pieces.dataSum(), 0, 0})) {
            m_writesChecksums = false; // the frame is in the journal all the same
            ZEL_LOG_WARNING("Journal '" << m_session->getPath() << "': from frame " << meta.index
                                        << " on there are no checksums, since '" << sums.getPath()
                                        << "' can not be written");
        }
    }

    m_session->enterFrame(meta, head, pieces.dataOffset());
    m_session->setNumFrames(m_session->getFrameTable().size());
    m_session->setFrameHead(pieces.end());
    m_head = pieces.end();
    m_goesOn = true;
    ++m_numFrames;
}

void FileFrameWriter::endOfStream() {
    const auto* writer = dynamic_cast<const FileFrameWriter*>(m_session->getFrameIO());
    m_goesOn = false;
    if ((writer != nullptr && writer != this) || m_session->getLastFrameIndex() != zel::InvalidIndex)
        return;
    m_session->endWriting();
    m_session->setFrameIO(nullptr);
}

} // namespace zelData
