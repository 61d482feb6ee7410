#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/String.h>
#include <zel/ref_ptr.h>
#include <zelData/BinaryData.h>
#include <zelData/FileJournal.h>
#include <zelData/PlainFrame.h>
#include <zelData/SerializedFrame.h>

#include <sys/stat.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <vector>

namespace zelIO {
class DiskFile;
} // namespace zelIO

namespace zelData {

class JournalSums;

/// A journal in a file, for tools: whatever the file holds, no operation ends the process, and nothing is
/// written to it. Frames are read as PlainFrame.
/// @threads external lock
class ZEL_CORE_API PlainJournal {
public:
    /// How the frames are looked for.
    enum class Search : zel::uint8 {
        Walk,    ///< from one record to the next; where that leads nowhere, as Scan
        Records, ///< from one record to the next, as far as that leads: for one who can not wait for a scan,
                 ///< or looks while the file is being written. Of a closed journal, what lacks is a fault
        Scan,    ///< each frame is read and held against its checksum, if there is one; behind each damaged
                 ///< place the next frame is sought
    };

    struct FrameEntry {
        zel::uint64 offset; ///< of its header in the file
        zel::uint64 dataOffset;
        SerializedFrame::BinaryHeader::Frame record;

        [[nodiscard]] zel::uint64 end() const { return dataOffset + record.dataSize; }
    };
    struct Fault {
        zel::uint64 offset = 0; ///< in the file
        zel::String text;
    };
    /// Bytes of the area of the frames that belong to no frame that stands.
    struct Gap {
        zel::uint64 begin = 0;
        zel::uint64 end = 0;
        zel::String reason;
    };
    /// A frame of which a record was found, and that cannot stand.
    struct MissingFrame {
        zel::uint64 index = 0;
        zel::uint64 offset = 0;
        zel::String reason;
    };

    /// What was looked at by a scan.
    struct Totals {
        zel::uint64 numNodes = 0;
        zel::uint64 numEvents = 0;
        zel::uint64 numBytes = 0; ///< of data segments
        zel::uint64 numSums = 0;  ///< frames whose checksums agree
    };

    /// @throws std::runtime_error for a file that cannot be read, or that, unless it is scanned, does not
    /// begin
    ///     as a journal
    explicit PlainJournal(const zel::String& path, Search search = Search::Walk);
    ~PlainJournal();

    /// Takes in the frames that were written since, of a file that was opened for its Records: those that are
    /// known keep their places, and what was read stays. The cost is that of the new frames, and of a look at
    /// the last one that is known.
    /// @return false if the file is another one by now, or no longer holds what is known, which stays as it
    ///     was then: to be opened anew
    [[nodiscard]] bool refresh();

    [[nodiscard]] const zel::String& getPath() const noexcept { return m_path; }
    [[nodiscard]] zel::uint64 getFileSize() const noexcept { return m_fileSize; }
    [[nodiscard]] bool beginsAsJournal() const noexcept { return m_beginsAsJournal; }
    /// What the session header tells; null where there is none, or none that can be read. Its table of frames
    /// is empty.
    [[nodiscard]] FileJournal::Session* getSession() const noexcept { return m_session.get(); }
    /// Whether the session header tells so; not where there is none.
    [[nodiscard]] bool isClosed() const noexcept { return m_isClosed; }
    /// In the order of the file; indices rise, and the first one is a key frame.
    [[nodiscard]] const std::vector<FrameEntry>& getFrames() const noexcept { return m_frames; }
    /// The frame of an index, as a place in getFrames; nothing for an unknown one.
    [[nodiscard]] std::optional<zel::size_t> findFrame(zel::uint64 index) const;
    /// What is wrong with the headers, and with the places of frames; by offset.
    [[nodiscard]] const std::vector<Fault>& getFaults() const noexcept { return m_faults; }
    [[nodiscard]] const std::vector<Gap>& getGaps() const noexcept { return m_gaps; }
    [[nodiscard]] const std::vector<MissingFrame>& getMissingFrames() const noexcept { return m_missing; }
    [[nodiscard]] const Totals& getTotals() const noexcept { return m_totals; }
    /// The end of the last frame.
    [[nodiscard]] zel::uint64 getEndOfFrames() const noexcept { return m_endOfFrames; }

    /// The two blocks of a frame.
    /// @throws std::runtime_error where the file does not hold them
    [[nodiscard]] zel::ref_ptr<BinaryData> readHeader(const FrameEntry& entry) const;
    [[nodiscard]] zel::ref_ptr<BinaryData> readSegment(const FrameEntry& entry) const;
    /// The frame at the place, complete: with all that the frames since the last key frame hold. The next one
    /// costs no more than to read it.
    /// @throws std::runtime_error for frames that cannot be read, or do not fit together
    [[nodiscard]] const PlainFrame& readComplete(zel::size_t place);
    /// The frame at the place as it stands in the file, without the others.
    /// @throws std::runtime_error as readComplete
    [[nodiscard]] PlainFrame readAlone(zel::size_t place) const;
    /// The same of some nodes: of all others not a byte is read but those of the header.
    /// @param names  that the frames ahead of it have told since the key frame; it adds its own
    [[nodiscard]] PlainFrame
    readPart(zel::size_t place, const PlainFrame::Wants& wants, PlainFrame::Names& names) const;
    /// The place of the key frame that the frame builds on.
    /// @throws std::runtime_error for a place that is none
    [[nodiscard]] zel::size_t keyFrameOf(zel::size_t place) const;
    /// Names that the frames up to the one which was read last have told since the key frame.
    [[nodiscard]] const PlainFrame::Names& getNames() const noexcept { return m_names; }
    /// What the buffers of a frame may grow to while frames are merged: far more than the file holds.
    [[nodiscard]] zel::uint64 getMaxBytes() const noexcept {
        return (zel::uint64{64} << 20) + 64 * m_fileSize;
    }

private:
    static constexpr zel::size_t NoPlace = ~zel::size_t{0};

    [[nodiscard]] PlainFrame read(const FrameEntry& entry, bool withData, PlainFrame::Names& names) const;
    [[noreturn]] static void fail(const FrameEntry& entry, const std::runtime_error& error);
    void readElements(const FrameEntry& entry, PlainFrame::Node& node) const;
    [[nodiscard]] zel::ref_ptr<BinaryData>
    readBlock(const char* what, zel::uint64 offset, zel::uint64 size) const;
    void readHeaders(Search search);
    void checkSession();
    void sortFaults();
    /// The crc32 of the beginning and the end of the last frame; nothing where they can not be read.
    [[nodiscard]] std::optional<zel::uint32> sumOfLastFrame() const;
    [[nodiscard]] bool walk(Search search);
    void scan();
    // Each answers why the frame cannot stand, and is empty if it can.

    /// @param entry  is filled in from the record
    [[nodiscard]] zel::String examineRecord(zel::uint64 offset, FrameEntry& entry) const;
    [[nodiscard]] zel::String examineStructure(const FrameEntry& entry) const;
    /// Of the next frame of a group, or the first of one.
    [[nodiscard]] zel::String examineAll(const FrameEntry& entry);
    [[nodiscard]] zel::String faultOfLength(const FrameEntry& entry, const PlainFrame& frame) const;

    [[nodiscard]] zel::uint64 findNextFrame(zel::uint64 offset);
    [[nodiscard]] bool isFollowed(zel::uint64 offset) const;
    void dropDoubtfulFrames();
    void dropFramesBehindTheEnd();
    void addGap(zel::uint64 begin, zel::uint64 end, const zel::String& reason);
    void addFault(zel::uint64 offset, const zel::String& text) { m_faults.push_back({offset, text}); }

    zel::String m_path;
    std::unique_ptr<zelIO::DiskFile> m_file;
    zel::uint64 m_fileSize = 0;
    zel::ref_ptr<FileJournal::Session> m_session;
    bool m_beginsAsJournal = true;
    bool m_isClosed = false;
    zel::uint64 m_begin = 0; // of the frames
    zel::uint64 m_limit = 0; // where they end at the latest
    zel::uint64 m_endOfFrames = 0;
    std::vector<FrameEntry> m_frames;
    std::vector<Fault> m_faults;
    std::vector<Gap> m_gaps;
    std::vector<MissingFrame> m_missing;

    Totals m_totals;
    const JournalSums* m_sums = nullptr; // while a scan runs
    zel::uint64 m_searchBudget = 0;      // bytes that may be read in search of frames

    PlainFrame m_state; // the complete frame at m_place
    PlainFrame::Names m_names;
    zel::size_t m_place = NoPlace;        // in m_frames; NoPlace for none
    struct ::stat m_data {};              // of the file when it was opened
    std::optional<zel::uint32> m_lastSum; // of the last frame that is known, for refresh
};

} // namespace zelData
