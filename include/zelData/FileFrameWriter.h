#pragma once

#include <zel/Callback.h>
#include <zel/Event.h>
#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelData/BinaryData.h>
#include <zelData/DiskFrameReader.h>
#include <zelData/FileJournal.h>
#include <zelData/SerializedFrame.h>

namespace zelData {

/// Appends frames to the session of a journal in a file. Whatever the writer did not finish, all frames of
/// which writeFrame has returned are in the file.
///
/// A session has one writer at a time, and its scene is packed. One that holds frames goes on behind its last
/// one; plots are kept in memory meanwhile, and are saved again at the end: a crash in between loses them.
/// @threads external lock: the track's
class ZEL_CORE_API FileFrameWriter : public DiskFrameWriter {
public:
    using FrameEvent = zel::EventT<zel::Callback1<const Frame*>>;

    /// The session is that of a FileJournal, which is verified. Its header format becomes binary.
    explicit FileFrameWriter(JournalArchive::Session* session);
    ~FileFrameWriter() override;

    /// Must be a key frame if it is the first one of the writer, if the end of the session was moved by
    /// anybody else, or if the frame before it could not be written; its index is above that of the last
    /// frame in the session.
    /// @throws std::runtime_error  for any other frame, with nothing written; where another writer is at work
    ///     on the session; and where the frame cannot be written, which is cut off again
    void writeFrame(const Frame* frame) override;
    /// Writes a frame that is in bytes already, as it stands in another journal. An increment goes behind the
    /// frame that it stood behind there; the next frame of the other kind must be a key frame.
    /// @param header   with its record, which tells the sizes of both
    /// @throws std::runtime_error  as the other one
    void writeFrame(const BinaryData* header, const BinaryData* segment);
    /// Whether checksums of the frames are written to a file beside the journal, "<journal>.sums": not by
    /// default. Where that fails, a warning tells so, and the frames that follow have none.
    /// @cost a look at each byte: about 1 s for each GB, and one more small file that is opened and closed
    /// for
    ///     each frame
    void setChecksums(bool flag) noexcept { m_writesChecksums = flag; }
    [[nodiscard]] bool hasChecksums() const noexcept { return m_writesChecksums; }
    /// Closes the session in the file, once.
    /// @throws std::runtime_error  where the file cannot be written
    void endOfStream() override;
    [[nodiscard]] JournalArchive::Session* getSession() const override { return m_session.get(); }

    /// The frames that this object has written.
    [[nodiscard]] zel::uint64 getNumFrames() const noexcept { return m_numFrames; }

    /// Fires with each frame once it is written.
    FrameEvent writeFrameEvent;

private:
    [[noreturn]] void fail(zel::uint64 index, const zel::String& reason) const;
    void requireSoleWriter() const;
    /// @return whether the frame is the first one of the writer
    bool requireNext(zel::uint64 index, bool isKeyFrame, bool namesAreKnown) const;
    void writeBlocks(const BinaryData* header,
                     const zel::Vector<SerializedFrame::BinarySegment>& segments,
                     bool begins);

    zel::ref_ptr<FileJournal::Session> m_session;
    SerializedFrame::NameTable m_names;
    zel::uint64 m_numFrames = 0;
    bool m_writesChecksums = false;
    bool m_namesAreForeign = false; // of the frame before the next one: those in the table are of none
    bool m_goesOn = false;          // whether the frame before the next one was written
    zel::uint64 m_head = 0;         // the end of that frame
    zel::uint64 m_device = 0;       // of the file in which it stands
    zel::uint64 m_inode = 0;        // as well
};

} // namespace zelData
