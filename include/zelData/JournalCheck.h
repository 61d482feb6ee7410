#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/String.h>
#include <zelData/PlainJournal.h>

#include <vector>

namespace zelData {

/// What a look at all of a journal has found.
struct ZEL_CORE_API JournalReport {
    bool isJournal = false; ///< whether the file could be read, and begins as a journal
    bool isClosed = false;  ///< whether its session was closed; one that was not is no fault
    zel::uint64 fileSize = 0;
    zel::uint64 numFrames = 0; ///< that stand
    zel::uint64 numKeyFrames = 0;
    PlainJournal::Totals totals;             ///< of these frames
    std::vector<PlainJournal::Fault> faults; ///< by offset

    [[nodiscard]] bool isWhole() const { return isJournal && faults.empty(); }
};

/// Looks at all of a journal: its headers, the record, the header and the elements of each frame, each offset
/// and each size, and the checksums beside it, if there are any. Bytes of elements that were changed are
/// found by checksums alone.
///
/// Ends the process for no file, and throws for none. Writes nothing.
/// @cost reads the file once
[[nodiscard]] ZEL_CORE_API JournalReport verifyJournal(const zel::String& path);

} // namespace zelData
