#include "FrameRecord.h"

#include "JournalMeta.h"
#include "files/DiskFile.h"

#include <zel/InvalidIndex.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <limits>
#include <memory>

namespace zelData {

using zel::uint64;
using zel::uint8;

namespace {

/// The header of a frame without nodes and events.
constexpr uint64 SmallestHeader = 96;
constexpr uint64 DataAlignment = JournalMeta::DataAlignment;
constexpr uint64 LargestOffset = static_cast<uint64>(std::numeric_limits<zel::int64>::max());

} // namespace

const char* faultOf(const FrameRecord& record) {
    const bool isRecord = record.endTag == SerializedFrame::BinaryHeader::EndTag && record.padding2 == 0 &&
                          record.isKeyFrame <= 1 &&
                          std::all_of(std::begin(record.padding1), std::end(record.padding1), [](uint8 byte) {
                              return byte == 0;
                          });
    if (!isRecord || record.index == zel::InvalidIndex)
        return "is no record of a frame";
    return record.headerSize < SmallestHeader ? "tells a header that is too short" : nullptr;
}

bool standsAt(zelIO::DiskFile& file, uint64 offset, const FrameRecord& record) {
    FrameRecord present{};
    if (!file.readAt(offset, &present, sizeof(present)))
        return false;
    // Both come from the file: bytes that are equal.
    // NOLINTNEXTLINE(bugprone-suspicious-memory-comparison)
    return std::memcmp(&present, &record, sizeof(present)) == 0;
}

bool extentOf(const FrameRecord& record, uint64 offset, FrameExtent& extent) {
    if (offset > LargestOffset || record.headerSize > LargestOffset - offset - (DataAlignment - 1))
        return false;
    extent.dataOffset = (offset + record.headerSize + DataAlignment - 1) / DataAlignment * DataAlignment;
    if (record.dataSize > LargestOffset - extent.dataOffset)
        return false;
    extent.end = extent.dataOffset + record.dataSize;
    return true;
}

uint64 findFrameRecord(zelIO::DiskFile& file, uint64 offset, uint64 fileEnd) {
    // Each record has this at the same place: its end tag, and the zeros behind it.
    constexpr std::array<uint8, 8> pattern{0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0};
    constexpr uint64 patternOffset = offsetof(FrameRecord, endTag);
    // What is sought is near most times.
    constexpr uint64 largestBlock = uint64{1} << 20;
    uint64 blockSize = 4096;
    const std::unique_ptr<uint8[]> block(new uint8[largestBlock]);
    while (offset < fileEnd && fileEnd - offset >= sizeof(FrameRecord)) {
        uint64 length = 0;
        const uint64 wanted = std::min(blockSize, fileEnd - offset);
        if (!file.readSomeAt(offset, block.get(), wanted, length) || length < sizeof(FrameRecord))
            break;
        const uint8* const end = block.get() + length;
        for (const uint8* at = block.get() + patternOffset;
             (at = std::search(at, end, pattern.begin(), pattern.end())) != end;
             ++at) {
            FrameRecord record{};
            FrameExtent extent{};
            std::memcpy(&record, at - patternOffset, sizeof(record));
            const uint64 place = offset + static_cast<uint64>(at - block.get()) - patternOffset;
            if (faultOf(record) == nullptr && extentOf(record, place, extent) && extent.end <= fileEnd)
                return place;
        }
        offset += length - sizeof(FrameRecord) + 1;
        blockSize = std::min(2 * blockSize, largestBlock);
    }
    return zel::InvalidIndex;
}

} // namespace zelData
