#pragma once

#include <zel/Export.h>
#include <zel/HashSet.h>
#include <zel/Integers.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zelStream/ArchiveException.h>

#include <string_view>

namespace zelStream {

/// What writing and reading an archive have in common: the stack of open sections, the state of errors and
/// the changes of stored forms that the library knows.
///
/// A section is an element of an XML archive, and in a binary one it has no bytes; in both its name stands in
/// the texts of errors, and its end must fit its begin.
/// @threads owner thread; registerModification external lock, at start-up
class ZEL_CORE_API Archive {
public:
    /// How an object lies in an archive; the first two are what `write` and `read` are asked for.
    enum StorageMode : zel::int32 {
        ByReference = 1, ///< shared: one body, however often it is stored
        ByValue = 2,     ///< within its owner
        NewObject = 4,
        KnownObject = 8,
        NullObject = 16,
    };

    /// The first field behind the byte order and the sizes of types.
    static constexpr zel::uint32 Magic = 0x0FADDED0;

    /// Keeps a section open for as long as it lives. Where an exception leaves it, or sections within it were
    /// left open, it restores the stack as it was; in the second case the next operation of the archive
    /// throws what the end of the section would have.
    class ZEL_CORE_API ScopedSection {
    public:
        /// @param name  has to stay where it is meanwhile
        ScopedSection(Archive& archive, const char* name);
        ScopedSection(const ScopedSection&) = delete;
        ScopedSection& operator=(const ScopedSection&) = delete;
        ~ScopedSection();

        /// Ends the section ahead of the end of the scope, and throws what the end has to say at once.
        void end();

    private:
        Archive& m_archive;
        const char* m_name;
        zel::size_t m_depth; ///< ahead of the section
        int m_numExceptions; ///< that were on their way
        bool m_isEnded = false;
    };

    Archive(const Archive&) = delete;
    Archive& operator=(const Archive&) = delete;
    virtual ~Archive();

    /// @throws ArchiveException for a null name
    virtual void beginSection(const char* name);
    /// @throws ArchiveException if the section that was begun last has another name
    virtual void endSection(const char* name);

    [[nodiscard]] bool isOpen() const noexcept { return m_isOpen; }
    /// Whether it is the binary form, and not XML.
    [[nodiscard]] bool isBinary() const noexcept { return m_isBinary; }
    /// Whether an error has ended the use of the archive: each further operation throws at once.
    [[nodiscard]] bool hasFailed() const noexcept { return !m_failure.empty(); }

    /// The names of the open sections, the outermost first, joined by "/".
    [[nodiscard]] const zel::String& getSectionStackString() const noexcept { return m_sections; }
    /// The text with the place ahead of it: "Current scope: 'Archive/Object'. " and the text, which stands
    /// alone where no section is open. A long row of sections is shortened in its middle.
    [[nodiscard]] virtual zel::String getErrorMessage(const zel::String& text) const;

    /// Whether the archive's objects have the stored form that came with the change, named by eight
    /// lower-case hexadecimal digits.
    [[nodiscard]] virtual bool hasModification(const zel::String& hash) const;

    /// Tells the library of a change of an application's own: archives written from now on name it, and those
    /// that name it are read without a warning.
    /// @throws ArchiveException if the text is not eight lower-case hexadecimal digits
    static void registerModification(const zel::String& hash);

protected:
    explicit Archive(bool isBinary) noexcept : m_isBinary(isBinary) {}

    /// Throws ArchiveException with getErrorMessage(text).
    [[noreturn]] void fail(const zel::String& text) const;
    /// The same, and from then on each operation throws this text.
    [[noreturn]] void failForGood(const zel::String& text);
    /// Lets each further operation throw this text, unless the archive has failed already.
    void noteFailure(const zel::String& message);
    /// @throws ArchiveException if the archive has failed
    void verifySound() const {
        if (hasFailed())
            throwFailure();
    }

    [[nodiscard]] zel::size_t getSectionDepth() const noexcept { return m_sectionStarts.size(); }
    /// Of the section that was begun last; empty if none is open.
    [[nodiscard]] std::string_view getSectionName() const noexcept;
    /// Forgets the sections that were begun at this depth and below; an XML archive goes to where it stood.
    virtual void dropSections(zel::size_t depth) noexcept;

    /// All changes that the library and its application know.
    [[nodiscard]] static const zel::Vector<zel::String>& getKnownModifications();
    /// @throws ArchiveException if the text is not eight lower-case hexadecimal digits
    static void verifyHash(const zel::String& hash);
    [[nodiscard]] static zel::Vector<zel::String> sorted(const zel::HashSet<zel::String>& modifications);

    zel::HashSet<zel::String> m_modifications; ///< of this archive
    zel::String m_failure;                     ///< what ended the use of it; empty while sound
    bool m_isOpen = false;

private:
    [[noreturn]] void throwFailure() const;

    const bool m_isBinary;
    zel::String m_sections;                   ///< joined by "/"
    zel::Vector<zel::size_t> m_sectionStarts; ///< of each name in the joined text
};

} // namespace zelStream
