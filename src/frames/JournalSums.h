#pragma once

#include <zel/HashTable.h>
#include <zel/Integers.h>
#include <zel/String.h>

namespace zelData {

/// The checksums of the frames of a journal, in a file of their own beside it, "<journal>.sums". A record is
/// written once its frame is in the journal, so that the last ones may lack; docs/journal-format.md tells the
/// layout.
class JournalSums {
public:
    struct Record {
        zel::uint64 offset; ///< of the frame's header in the journal
        zel::uint64 index;  ///< of the frame
        zel::uint32 header; ///< crc32 of the header block
        zel::uint32 data;   ///< crc32 of the data segment
        zel::uint32 sum;    ///< crc32 of the fields above
        zel::uint32 padding;
    };
    static_assert(sizeof(Record) == 32);

    explicit JournalSums(const zel::String& journalPath) : m_path(journalPath + ".sums") {}

    [[nodiscard]] const zel::String& getPath() const { return m_path; }
    [[nodiscard]] bool exists() const;
    /// What the crc32 is of so many more bytes, from 0 on.
    [[nodiscard]] static zel::uint32 add(zel::uint32 sum, const void* bytes, zel::uint64 numBytes);

    /// Reads the records. What is cut off, or not whole, is left out.
    void load();
    /// The record that was read for the frame at the offset; null without one.
    [[nodiscard]] const Record* find(zel::uint64 offset) const;
    /// Drops the records of frames at the offset and behind it; does nothing without a file.
    /// @return whether that could be done
    [[nodiscard]] bool cut(zel::uint64 offset) const;
    /// Writes a record behind all others, and makes the file if it lacks.
    /// @return whether that could be done; what was written in part is cut off again
    [[nodiscard]] bool append(Record record) const;
    void remove() const;

private:
    zel::String m_path;
    zel::HashTable<zel::uint64, Record> m_records;
};

} // namespace zelData
