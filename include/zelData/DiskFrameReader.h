#pragma once

#include <zel/Export.h>
#include <zel/HashSet.h>
#include <zel/LockRank.h>
#include <zel/Path.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelData/FrameIO.h>
#include <zelData/JournalArchive.h>

namespace zelData {

/// Reads the frames of a session in any order. A frame that is read behind the one before it stands alone, as
/// it was written; after a jump, and with a stride other than 1, it is merged from all that have gone before
/// since the last key frame, or since the last one that was read. Bindings are set ahead of the first read.
/// @threads any thread
class ZEL_CORE_API DiskFrameReader : public FrameReader {
public:
    using FrameReader::FrameReader;
    ~DiskFrameReader() override;

    [[nodiscard]] virtual JournalArchive::Session* getSession() const = 0;
    /// The frame of the index as it was written. The names of its nodes must be known: from the frames that
    /// were read ahead of it in order, or from an open sequence.
    /// @return a new frame without owner; null if there is none
    [[nodiscard]] virtual Frame* readFrame(zel::uint64 index) = 0;
    /// Opens a sequence: the names of all its frames are known until it ends.
    virtual void prepareSequence(zel::uint64 first, zel::uint64 last) = 0;
    virtual void endSequence() = 0;

    /// The frame at getNextFrameIndex(); does not go on.
    [[nodiscard]] Frame* readFrame() override;
    [[nodiscard]] zel::uint64 getNextFrameIndex() override;
    void advanceToNextFrame() override;
    /// Whether the path is bound, or on the way to one that is, and no newer frame of the sequence that is
    /// being merged has it. Without bindings all paths are.
    [[nodiscard]] bool shouldExtract(const zel::Path& path) override;
    [[nodiscard]] double getTimeStep() override;
    [[nodiscard]] zel::uint64 getFrameStride() override;

    /// The last key frame up to the next frame, or `stop` if none stands behind it; InvalidIndex if the
    /// session has neither.
    [[nodiscard]] zel::uint64 getSequenceStartFrame(zel::uint64 stop) const;
    /// The frame whose stamp is nearest to the time, the earlier one of two.
    /// @param time  not below 0, which is verified
    /// @return InvalidIndex for a session without frames
    [[nodiscard]] zel::uint64 findFrameAtTime(double time) const;

protected:
    using Mutex = zel::RankedMutex<zel::LockRank::FrameReader>;

    /// Whether there are frames, and lets the next read merge; the caller holds the lock.
    void jumpTo(zel::uint64 index);
    [[nodiscard]] Mutex& getMutex() const noexcept { return m_mutex; }

private:
    class SequenceScope;

    void catchUp(zel::uint64 start);
    [[nodiscard]] zel::ref_ptr<Frame> mergeFrameSequence(zel::uint64 start);
    void updateExclusions(const Frame* frame, const zel::Component* node);
    void initBindTables();

    mutable Mutex m_mutex; // guards all below
    zel::uint64 m_nextFrameIndex = 0;
    bool m_jumped = false;
    zel::ref_ptr<Frame> m_lastFrame;
    zel::Vector<zel::ref_ptr<Frame>> m_frames; // that are being merged, the newest first
    zel::HashSet<zel::Path> m_bindingTable;    // the bound paths
    zel::HashSet<zel::Path> m_recursiveTable;  // those that are bound with all below them
    zel::HashSet<zel::Path> m_wayTable;        // the paths above them
    zel::HashSet<zel::Path> m_exclusions;
};

/// Writes frames to a session.
class ZEL_CORE_API DiskFrameWriter : public FrameWriter {
public:
    using FrameWriter::FrameWriter;
    ~DiskFrameWriter() override;

    [[nodiscard]] virtual JournalArchive::Session* getSession() const = 0;
};

} // namespace zelData
