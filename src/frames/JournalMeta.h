#pragma once

#include <zel/Integers.h>
#include <zel/InvalidIndex.h>
#include <zel/String.h>
#include <zelData/FileJournal.h>

#include <tinyxml.h>

namespace zelData {

/// What a journal's file begins with:
///
///     10 bytes   "ZelJournal"
///     u64        version of the library that wrote it
///     u64        where the block of the session header begins; InvalidIndex without one
///     u64        the length of the text in that block
///
/// and the block itself, MaxHeaderSize bytes: an XML document, and zeros.
class JournalMeta {
public:
    static constexpr zel::uint64 JournalHeaderSize = 34;
    /// Where the data segment of a frame may begin in the file, so that it can be mapped and used in place.
    static constexpr zel::uint64 DataAlignment = 32;
    static constexpr zel::uint64 MaxHeaderSize = FileJournal::Session::MaxHeaderSize;

    /// @throws std::runtime_error  for a file that is no journal
    void read(const zel::String& path, bool withSessionHeader);
    /// Reads the document alone, once the rest has been read.
    /// @throws std::runtime_error  for a block or a text that cannot be read
    void readSessionHeader(const zel::String& path);
    /// Writes all from the beginning on in one piece, and makes the file if it lacks. The version is that of
    /// this library.
    /// @throws std::runtime_error  where that fails
    void write(const zel::String& path);

    [[nodiscard]] bool hasSessionHeader() const { return sessionHeaderOffset != zel::InvalidIndex; }
    /// The element of a name in the session header, made if it lacks.
    [[nodiscard]] TiXmlElement* getExtraDataRoot() { return childOfRoot("ExtraData"); }
    [[nodiscard]] TiXmlElement* getPlotDataRoot() { return childOfRoot("Plots"); }

    /// The text of a document, as it goes into the file.
    [[nodiscard]] static zel::String print(const TiXmlNode& node);

    zel::uint64 version = 0;
    zel::uint64 sessionHeaderOffset = zel::InvalidIndex;
    zel::uint64 sessionHeaderSize = 0;
    zel::uint64 fileSize = 0;
    TiXmlDocument document; // without a root where there is no session

private:
    [[nodiscard]] TiXmlElement* childOfRoot(const char* name);
};

/// The session that a reader or writer of files is given; any other is a fatal verification.
[[nodiscard]] FileJournal::Session* requireFileSession(JournalArchive::Session* session);

} // namespace zelData
