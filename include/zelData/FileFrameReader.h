#pragma once

#include <zel/Export.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelData/DiskFrameReader.h>
#include <zelData/FileJournal.h>

#include <memory>

namespace zelIO {
class DiskFile;
} // namespace zelIO

namespace zelData {

/// Reads the frames of a journal in a file, from its first frame on. Keeps the file open.
///
/// Of a journal that was opened tolerantly, a frame that cannot be read throws a std::runtime_error; of any
/// other it ends the process.
/// @threads any thread
class ZEL_CORE_API FileFrameReader : public DiskFrameReader {
public:
    /// How the bytes of frames come into memory.
    enum class BinaryReadStrategy : zel::uint32 { PlainRead = 0 };

    /// The session is that of a FileJournal, and its file can be opened, which is verified.
    explicit FileFrameReader(JournalArchive::Session* session);
    ~FileFrameReader() override;

    bool jumpToFrame(zel::uint64 index) override;
    bool jumpToTime(double time) override;
    [[nodiscard]] JournalArchive::Session* getSession() const override { return m_session.get(); }
    using DiskFrameReader::readFrame;
    [[nodiscard]] Frame* readFrame(zel::uint64 index) override;
    void prepareSequence(zel::uint64 first, zel::uint64 last) override;
    void endSequence() override;

    /// Whether the session has a frame of the index.
    [[nodiscard]] bool isValidFrame(zel::uint64 index) const;
    void setBinaryReadStrategy(BinaryReadStrategy strategy) noexcept { m_strategy = strategy; }
    [[nodiscard]] BinaryReadStrategy getBinaryReadStrategy() const noexcept { return m_strategy; }

private:
    [[nodiscard]] SerializedFrame::OnFault onFault() const;
    class Segment;

    /// A part of the file that lies in memory.
    struct Block {
        zel::ref_ptr<BinaryData> data;
        zel::uint64 capacity = 0;
    };
    [[noreturn]] void refuse(zel::uint64 frameIndex) const;
    /// Whether the file is so long.
    [[nodiscard]] bool reaches(zel::uint64 offset, zel::uint64 numBytes);
    /// The header of the frame, whose memory is used again once nobody else has it.
    [[nodiscard]] BinaryData* readHeader(const FileJournal::FrameInfo& info);

    zel::ref_ptr<FileJournal::Session> m_session;
    std::unique_ptr<zelIO::DiskFile> m_file;
    BinaryReadStrategy m_strategy = BinaryReadStrategy::PlainRead;
    Block m_header;
    zel::VectorPOD<zel::uint8> m_window; // of the segment that is being read
    SerializedFrame::NameLookup m_names;
    bool m_sequenceMode = false;
};

} // namespace zelData
