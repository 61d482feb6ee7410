#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/InvalidIndex.h>
#include <zel/String.h>

namespace zelData {

/// The first place where two journals differ.
struct ZEL_CORE_API JournalDifference {
    bool isDifferent = false;
    zel::uint64 frame = zel::InvalidIndex;   ///< its index; InvalidIndex where no frame is meant
    zel::String path;                        ///< of the node; empty where a frame itself differs
    zel::uint64 element = zel::InvalidIndex; ///< InvalidIndex where no element is meant
    zel::String first;                       ///< what stands there in the one, and in the other
    zel::String second;
    zel::uint64 numFrames = 0; ///< that were compared
};

/// Compares the frames of two journals, each complete, in the order of their indices: index, time stamp, and
/// the nodes by their paths, with format and elements. How a frame is told, as key frame or as increment, the
/// order of nodes, the ids of nodes, and events are no difference.
/// @param tolerance  by which numbers may differ, and times; bytes of formats that are not known must be
/// equal
/// @throws std::runtime_error for journals that cannot be read
[[nodiscard]] ZEL_CORE_API JournalDifference diffJournals(const zel::String& firstPath,
                                                          const zel::String& secondPath,
                                                          double tolerance = 0);

} // namespace zelData
