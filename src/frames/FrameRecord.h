#pragma once

#include <zel/Integers.h>
#include <zelData/SerializedFrame.h>

namespace zelIO {
class DiskFile;
} // namespace zelIO

namespace zelData {

using FrameRecord = SerializedFrame::BinaryHeader::Frame;

/// What is wrong with a record by itself; null if it can be believed.
[[nodiscard]] const char* faultOf(const FrameRecord& record);

/// The places that follow from a record.
struct FrameExtent {
    zel::uint64 dataOffset;
    zel::uint64 end;
};

/// @param offset  of the record in the file
/// @return whether there are such places in any file
[[nodiscard]] bool extentOf(const FrameRecord& record, zel::uint64 offset, FrameExtent& extent);

/// Whether the record that was read from the file still stands at the offset, byte for byte.
[[nodiscard]] bool standsAt(zelIO::DiskFile& file, zel::uint64 offset, const FrameRecord& record);

/// The first place at the offset or behind it where a record stands that can be believed, and whose frame
/// ends ahead of the given end; InvalidIndex if there is none.
[[nodiscard]] zel::uint64 findFrameRecord(zelIO::DiskFile& file, zel::uint64 offset, zel::uint64 end);

} // namespace zelData
