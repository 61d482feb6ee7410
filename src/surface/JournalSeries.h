#pragma once

#include "InspectionElements.h"

#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/String.h>
#include <zelData/PlainFrame.h>
#include <zelData/PlainJournal.h>

#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

namespace zelNet {

/// A datum that is wanted over time.
struct SeriesItem {
    zel::String path;                 ///< for messages
    std::vector<zel::Name> names;     ///< where it lies in the frames
    std::string error;                ///< why it is nowhere; empty if it is not known to be
    std::optional<zel::uint64> index; ///< of an element; in a storage of the instance, in the present frame
    std::optional<zel::uint64> id;    ///< of an instance, in place of the index
};

/// Some data of a journal over time, which are read frame by frame, and of each frame only these data. Where
/// there are more frames than points, two rows stand for a group of frames: the least and the greatest
/// number of each component, in the order in which they came.
///
/// What a frame does not tell is as it was in the frame ahead. It is NaN where it is not: a key frame lacks
/// it, the buffer has no such element, the instance is not alive, or it has got another number of components.
/// @threads external lock
class JournalSeries {
public:
    /// One datum, and the rows of it that are not taken yet.
    struct Column {
        zel::uint32 components = 0;
        std::optional<zel::uint64> id; ///< of the instance that is followed
        std::string error;             ///< why there are no numbers; empty if there are
        std::vector<double> rows;
    };
    struct Range {
        double start;
        double end;
    };

    /// @param journal  where no one else reads in parts meanwhile
    /// @param present  the frame in which the data are looked for
    /// @param points   1 or more
    JournalSeries(std::shared_ptr<const zelData::PlainJournal> journal,
                  const zelData::PlainFrame& present,
                  const std::vector<SeriesItem>& items,
                  const Range& range,
                  zel::uint64 points);

    [[nodiscard]] zel::uint64 getNumFrames() const noexcept { return m_end - m_begin; }
    [[nodiscard]] zel::uint64 getFramesPerPoint() const noexcept { return m_framesPerPoint; }
    /// Of the first and the last frame; only where there are frames.
    [[nodiscard]] double getStartTime() const { return timeOf(m_begin); }
    [[nodiscard]] double getEndTime() const { return timeOf(m_end - 1); }

    [[nodiscard]] bool isDone() const noexcept { return m_next == m_end; }
    /// Reads the next frame. One that can not be read is the last.
    void readNext();
    /// Why there are no more rows; empty while all is well.
    [[nodiscard]] const std::string& getFailure() const noexcept { return m_failure; }

    // What was read and not taken yet
    [[nodiscard]] const std::vector<double>& getTimes() const noexcept { return m_times; }
    [[nodiscard]] const std::vector<Column>& getColumns() const noexcept { return m_columns; }
    [[nodiscard]] zel::size_t getNumBytes() const noexcept { return m_times.size() * m_rowSize; }
    /// Drops the rows.
    void take();

private:
    using Node = zelData::PlainFrame::Node;

    /// Where a datum lies, and what its elements are made of.
    struct Source {
        std::vector<zel::Name> names;
        bool isInstance = false;
        zel::uint64 index = 0; // of the element; of an instance the id
        zel::Name format;      // of the layout
        ElementLayout layout;
    };

    [[nodiscard]] double timeOf(zel::size_t place) const {
        return m_journal->getFrames()[place].record.timeStamp;
    }
    /// @throws std::runtime_error that tells why there are no numbers
    void prepare(const zelData::PlainFrame& present, const SeriesItem& item, Source& source, Column& column);
    void readRow(Source& source, const Column& column, double* row) const;
    void addRow(double time);
    void addToGroup();
    void endGroup();

    std::shared_ptr<const zelData::PlainJournal> m_journal;
    zel::size_t m_begin = 0; // places
    zel::size_t m_end = 0;
    zel::size_t m_next = 0; // to read; ahead of begin where the key frame is
    zel::uint64 m_framesPerPoint = 1;
    std::unordered_set<std::string> m_wanted;
    std::vector<Source> m_sources;
    std::vector<Column> m_columns; // one for each
    zelData::PlainFrame m_state;
    zelData::PlainFrame::Names m_names; // of the stream
    std::vector<double> m_times;
    zel::size_t m_rowSize = sizeof(double);

    /// Of one component in the present group.
    struct Extent {
        double low;
        double high;
        bool isLowFirst;
    };
    std::vector<double> m_row; // of all columns, one after another
    std::vector<Extent> m_extents;
    zel::uint64 m_groupSize = 0; // frames so far, the last one of which is the last that was read
    std::string m_failure;
};

} // namespace zelNet
