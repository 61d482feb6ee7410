#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/String.h>
#include <zelData/JournalCheck.h>
#include <zelData/PlainJournal.h>

#include <vector>

namespace zelData {

/// What came out of a damaged journal.
struct ZEL_CORE_API RecoveryReport {
    std::vector<zel::uint64> frames;                       ///< the indices of those that came back
    std::vector<PlainJournal::MissingFrame> missingFrames; ///< those of which a record was found
    std::vector<PlainJournal::Gap> gaps;                   ///< the bytes that were left out
    std::vector<PlainJournal::Fault> faults;               ///< what is wrong with the journal
    bool hasSession = false; ///< whether scene and data of the session came along
    JournalReport check;     ///< of the new journal
};

/// Writes the frames of a damaged journal that stand to a new one, bit for bit, and reads that again. Behind
/// a damaged place, frames stand from the next key frame on. The journal may be one that begins as none; its
/// scene comes along, and the session's data, but no plots.
/// @param newPath  of a file that does not exist
/// @throws std::runtime_error where the new file exists, or cannot be written, and where no frame stands;
/// then
///     nothing is left behind
ZEL_CORE_API RecoveryReport recoverJournal(const zel::String& path, const zel::String& newPath);

/// Writes the frames with indices from first to last to a new journal, with the scene and the session's data.
/// The first of them becomes a key frame, with all that the frames ahead of it hold; the others come along
/// bit for bit.
/// @return how many frames were written
/// @throws std::runtime_error as recoverJournal
ZEL_CORE_API zel::uint64
cutJournal(const zel::String& path, const zel::String& newPath, zel::uint64 first, zel::uint64 last);

} // namespace zelData
