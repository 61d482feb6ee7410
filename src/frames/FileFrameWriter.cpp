#include "JournalMeta.h"
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
    FramePieces(const BinaryData* header, const SerializedFrame& frame, uint64 offset) : m_end(offset) {
        const auto& segments = frame.getSegments();
        m_pieces.reserve(2 + 2 * segments.size());
        // Two for each segment at most, and those around the header: they must not move.
        m_shortPieces.reset(new zel::uint8[2 * ShortPiece * (1 + segments.size())]);
        m_shortEnd = m_shortPieces.get();
        add(header->getData(), header->getSize());
        fillTo((m_end + JournalMeta::DataAlignment - 1) / JournalMeta::DataAlignment *
               JournalMeta::DataAlignment);
        m_dataOffset = m_end;
        for (const SerializedFrame::BinarySegment& segment : segments) {
            fillTo(m_dataOffset + segment.offset);
            add(segment.data->getData(), segment.data->getSize());
        }
    }

    [[nodiscard]] ::iovec* data() { return m_pieces.begin(); }
    [[nodiscard]] zel::size_t size() const { return m_pieces.size(); }
    [[nodiscard]] uint64 dataOffset() const { return m_dataOffset; }
    [[nodiscard]] uint64 end() const { return m_end; }

private:
    static constexpr uint64 ShortPiece = 128;

    void add(const zel::uint8* bytes, uint64 numBytes) {
        m_end += numBytes;
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

void FileFrameWriter::fail(const Frame* frame, const zel::String& reason) const {
    ZEL_THROW(std::runtime_error,
              zel::String::format("FileFrameWriter: Could not write frame %u to journal '%s'. %s",
                                  static_cast<unsigned>(frame->getIndex()),
                                  m_session->getPath().c_str(),
                                  reason.c_str()));
}

void FileFrameWriter::writeFrame(const Frame* frame) {
    zelVerifyAs(getHeaderFormat() == SerializedFrame::BINARY_HEADER,
                "this->getHeaderFormat() == SerializedFrame::BINARY_HEADER");
    zelVerifyAs(m_session->getFrameHead() != zel::InvalidIndex, "m_session->getFrameHead() != InvalidIndex");
    bool begins = !m_goesOn || m_session->getFrameHead() != m_head;
    if (begins) {
        requireSoleWriter();
        if (!frame->isKeyFrame())
            fail(frame, "It must be a key frame: the names that an increment builds on are not known.");
        m_session->dropFramesFrom(m_session->getFrameHead()); // one that was cut off
    }
    const auto& table = m_session->getFrameTable();
    if (frame->getIndex() == zel::InvalidIndex)
        fail(frame, "It has no index.");
    // The second only where somebody else has written indices that fall.
    if (!table.empty() &&
        (frame->getIndex() <= table.back().index || m_session->getFrameInfo(frame->getIndex()) != nullptr))
        fail(frame,
             zel::String::format("The journal has frame %llu already, and indices must rise.",
                                 static_cast<unsigned long long>(table.back().index)));

    m_goesOn = false; // whatever fails from here on leaves names that are not in the file
    const zel::ref_ptr<SerializedFrame> serialized(new SerializedFrame(frame));
    const zel::ref_ptr<BinaryData> header = serialized->writeBinaryHeader(m_names);
    DiskFile file(m_session->getPath(), DiskFile::Mode::ReadWrite);
    if (!file.isOpen()) {
        ZEL_LOG_WARNING("FileFrameWriter: Could not open file to write frame "
                        << frame->getIndex() << " to journal '" << m_session->getPath() << "'");
        fail(frame, file.getReason());
    }
    struct ::stat data {};
    if (!file.stat(data))
        fail(frame, file.getReason());
    const uint64 head = m_session->getFrameHead();
    const auto size = static_cast<uint64>(data.st_size);
    if (size < head || (!begins && (data.st_dev != m_device || data.st_ino != m_inode)))
        fail(frame, "It is not the file that held the frames ahead.");
    begins |= size > head; // plots, for instance
    if (begins) {
        try {
            m_session->beginWriting(
                frame, getTrack() == nullptr ? m_session->getFrameStride() : getTrack()->getFrameStride());
        } catch (const std::runtime_error& error) {
            fail(frame, error.what());
        }
        m_session->setFrameIO(this);
        m_device = data.st_dev;
        m_inode = data.st_ino;
    }

    FramePieces pieces(header.get(), *serialized, head);
    uint64 numWritten = 0;
    const bool isWritten = file.writeAt(head, pieces.data(), pieces.size(), numWritten);
    const bool isWhole = isWritten && file.close();
    if (!isWhole) {
        const zel::String reason = file.getReason();
        DiskFile again(m_session->getPath(), DiskFile::Mode::ReadWrite);
        if (!(file.isOpen() ? file : again).cut(head))
            ZEL_LOG_WARNING("Journal '" << m_session->getPath() << "': a part of frame " << frame->getIndex()
                                        << " stays at its end");
        fail(frame, reason);
    }

    SerializedFrame::BinaryHeader::Frame meta{};
    ByteStream stream(header.get());
    meta = stream.read<SerializedFrame::BinaryHeader::Frame>();
    m_session->enterFrame(meta, head, pieces.dataOffset());
    m_session->setNumFrames(table.size());
    m_session->setFrameHead(pieces.end());
    m_head = pieces.end();
    m_goesOn = true;
    ++m_numFrames;
    writeFrameEvent.fire(frame);
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
