#pragma once

#include <zel/Export.h>
#include <zelData/JournalArchive.h>

namespace zelData {

/// Makes the ends of tracks that stand on a session, whatever kind of journal the session belongs to.
/// @threads as the journal
class ZEL_CORE_API FrameIoFactory {
public:
    /// @param session  of a journal, which is verified
    /// @return a new reader without owner
    [[nodiscard]] static FrameReader* createFrameReader(JournalArchive::Session* session);
    /// @return a new writer without owner
    [[nodiscard]] static FrameWriter* createFrameWriter(JournalArchive::Session* session);
};

} // namespace zelData
