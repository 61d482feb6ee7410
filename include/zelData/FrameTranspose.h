#pragma once

#include <zel/Export.h>
#include <zel/HashTable.h>
#include <zel/Integers.h>
#include <zel/InvalidIndex.h>
#include <zel/Name.h>
#include <zel/Path.h>
#include <zel/Range.h>
#include <zel/Referenced.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelData/FrameIO.h>
#include <zelData/JournalArchive.h>

#include <cstring>
#include <memory>

namespace zelData {

class Buffer;
class Format;
class Track;

/// Turns a session inside out: in place of all data at one time it gives one datum at all times, for plots
/// and tables. What is wanted is registered; the frames are then read once, or written to it by whoever has
/// them, and each of them is a row.
///
///     const zel::ref_ptr<FrameTranspose> transpose(new FrameTranspose(session));
///     const auto* speed = transpose->registerTrack("sun.planets", "speed", 3);
///     transpose->extractFrames();
///     // speed->getBuffer()[i] belongs to transpose->getTimeBuffer()[speed->getFirstRow() + i]
///
/// Frames must come in the order of time, the first of them a key frame or a merged one.
///
/// Owned through ref_ptr.
/// @threads external lock
/// @cost a frame: one element for each track; a column of which only some elements have changed is copied
///     once, and from then on only those elements
class ZEL_CORE_API FrameTranspose : public FrameWriter {
public:
    class Track;
    class ValueTrack;
    class AttributeTrack;

    /// For extractFrames.
    /// @param session  of a journal, which is verified; kept alive
    explicit FrameTranspose(JournalArchive::Session* session);
    /// An output for any track.
    /// @param threaded  whether the track runs a thread for it
    explicit FrameTranspose(bool threaded = true);
    ~FrameTranspose() override;

    // What is wanted; all ahead of the first frame, which is verified

    /// A value. A text or a handle, which frames carry as a buffer of one element, is one too.
    ValueTrack* registerTrack(const zel::Path& path);
    /// An attribute of an instance of the storage at the path.
    AttributeTrack*
    registerTrack(const zel::Path& path, const zel::Name& attributeName, zel::uint32 instanceId);
    void registerTrack(Track* track);
    [[nodiscard]] const zel::Vector<zel::ref_ptr<Track>>& getTracks() const noexcept { return m_tracks; }

    /// Each stride-th frame of the session is read, 1 by default.
    void setFrameStride(zel::uint64 stride);
    [[nodiscard]] zel::uint64 getFrameStride() const noexcept { return m_frameStride; }

    /// Appends a row. Frames are not copied: the columns of one must stay as they are until others are told.
    /// @throws std::runtime_error  for a storage, or its table of ids, that a key frame lacks or that never
    ///     was there, for elements that can not stand alone or change their format, and for a part that does
    ///     not fit to its column; there is no row then. An instance that is not alive ends the process
    void writeFrame(const Frame* frame) override;
    /// Begins anew and reads the whole session. Reads nothing but what is registered.
    /// @throws std::runtime_error  naming the path of a track that has found nothing; what writeFrame and the
    ///     reader throw
    void extractFrames();
    /// The same from the frame nearest to the lower end, up to the upper end, in the time of the simulation.
    void extractFrames(const zel::Range<double>& range);

    /// The time stamps of the rows, as `Real:64bit`; null ahead of the first row.
    [[nodiscard]] Buffer* getTimeBuffer() const noexcept { return m_time.get(); }
    /// The indices of the frames, as `UInt:64bit`.
    [[nodiscard]] Buffer* getIndexBuffer() const noexcept { return m_index.get(); }

private:
    class Storage;

    void clear();
    void bind(FrameReader* reader) const;
    static void updateValueTrack(ValueTrack* track, const Frame* frame, zel::uint64 row);
    static void updateAttributeTrack(AttributeTrack* track, const Frame* frame, zel::uint64 row);
    void verifyData() const;
    [[nodiscard]] zel::uint64 getNumRows() const;

    zel::ref_ptr<JournalArchive::Session> m_session;
    zel::ref_ptr<zelData::Track> m_track; // "Track", which owns this object while frames are extracted
    zel::Vector<zel::ref_ptr<Track>> m_tracks;
    zel::Vector<ValueTrack*> m_valueTracks; // of them
    zel::Vector<AttributeTrack*> m_attributeTracks;
    zel::ref_ptr<Buffer> m_time;
    zel::ref_ptr<Buffer> m_index;
    zel::uint64 m_frameStride = 1;
    zel::HashTable<zel::Path, std::shared_ptr<Storage>> m_storages; // as last seen
};

/// One datum over time.
class ZEL_CORE_API FrameTranspose::Track : public zel::Referenced {
public:
    ~Track() override;

    [[nodiscard]] const zel::Path& getPath() const noexcept { return m_path; }
    /// What belongs to the rows from getFirstRow() on, without gaps; a row whose frame does not tell the
    /// datum repeats the one before. Null until there is one.
    [[nodiscard]] Buffer* getBuffer();
    /// InvalidIndex until there is one.
    [[nodiscard]] zel::uint64 getFirstRow() const noexcept { return m_firstRow; }

protected:
    explicit Track(const zel::Path& path);

private:
    friend class FrameTranspose;

    void append(const Format* format, const void* elements, zel::uint64 numElements, zel::uint64 row) {
        const zel::uint64 end = m_numGathered + numElements * m_elementSize;
        if (format != m_format || numElements != m_numElements || end > m_gathered.size()) {
            appendSlowly(format, elements, numElements, row);
            return;
        }
        if (end - m_numGathered == sizeof(double)) // most are, and the size is then known
            std::memcpy(m_gathered.data() + m_numGathered, elements, sizeof(double));
        else
            std::memcpy(m_gathered.data() + m_numGathered, elements, end - m_numGathered);
        m_numGathered = end;
    }
    void appendSlowly(const Format* format, const void* elements, zel::uint64 numElements, zel::uint64 row);
    void flush();
    void rewind(zel::uint64 numRows);
    void clear();

    zel::Path m_path;
    zel::ref_ptr<Buffer> m_buffer;
    zel::uint64 m_firstRow = zel::InvalidIndex;
    const Format* m_format = nullptr; // of the buffer
    zel::uint64 m_elementSize = 0;
    zel::uint64 m_numElements = 1; // of each row
    // Plain elements that the buffer has not got yet, since a change of its size costs more than an element.
    zel::VectorPOD<char> m_gathered;
    zel::uint64 m_numGathered = 0; // bytes
};

class ZEL_CORE_API FrameTranspose::ValueTrack : public FrameTranspose::Track {
public:
    explicit ValueTrack(const zel::Path& path);
    ~ValueTrack() override;

private:
    friend class FrameTranspose;

    zel::Vector<zel::Name> m_names; // the parts of the path
};

/// An attribute with several elements for each instance gives as many for each row.
class ZEL_CORE_API FrameTranspose::AttributeTrack : public FrameTranspose::Track {
public:
    AttributeTrack(const zel::Path& path, const zel::Name& name, zel::uint32 instanceId);
    ~AttributeTrack() override;

    [[nodiscard]] const zel::Name& getName() const noexcept { return m_name; }
    [[nodiscard]] zel::uint32 getInstanceId() const noexcept { return m_instanceId; }
    /// The most recent table of ids, and the most recent column, of the frames up to the present row; null
    /// ahead of the first. Tracks of one column share it.
    [[nodiscard]] Buffer* getIdToIndexBuffer() const noexcept;
    [[nodiscard]] Buffer* getCurrentFrameAttributeBuffer() const noexcept;

private:
    friend class FrameTranspose;

    zel::Name m_name;
    zel::uint32 m_instanceId;
    std::shared_ptr<Storage> m_storage; // shared by the tracks of one storage
    zel::uint64 m_column = 0;           // of the storage
};

} // namespace zelData
