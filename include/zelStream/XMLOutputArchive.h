#pragma once

#include <zel/Xml.h>
#include <zelStream/OutputArchive.h>

#include <memory>

namespace zelStream {

/// An archive as an XML document that people can read: each section is an element, each attribute an XML
/// attribute, and values are tokens in the element's text: see docs/archives.md. The document is printed
/// once, by `close`, and until then lies in memory.
/// @threads owner thread
class ZEL_CORE_API XMLOutputArchive : public OutputArchive {
public:
    /// Elements may be nested this deep.
    static constexpr zel::size_t MaximumDepth = 10000;
    /// So many attributes an element may have.
    static constexpr zel::size_t MaximumAttributes = 1000;
    /// Of a document, in bytes.
    static constexpr zel::size_t MaximumSize = zel::size_t{1} << 30;

    XMLOutputArchive();
    /// Closes; what fails then is logged as a Warning.
    ~XMLOutputArchive() override;

    void open(std::ostream& stream, const zel::String& appName = zel::String()) override;

    /// @throws ArchiveException for a name that no element can have, and for elements nested too deep
    void beginSection(const char* name) override;
    void endSection(const char* name) override;

    /// Appends to the text of the open element, behind a blank if it has text. The text is read as one plain
    /// value for each of its words, and has no escapes.
    /// @throws ArchiveException if it is not UTF-8, or holds characters that no XML text can
    void addString(const zel::String& text);

    using OutputArchive::write;
    void write(const void* data, zel::size_t numBytes) override;
    void write_vector(const void* elements, zel::size_t numElements, VectorElement type) override;

    /// @throws ArchiveException for null and for a name that no element or attribute can have
    static void validateVariable(const char* name);

protected:
    void writeScalar(const char* name, const void* value, ScalarForm form) override;
    void writeString(const char* name, std::string_view text) override;
    void writeUuid(const char* name, const zel::Uuid& uuid) override;
    /// Prints the document.
    void finish() override;
    void writeByteOrder() override;
    void dropSections(zel::size_t depth) noexcept override;

private:
    struct Document;
    struct Element;

    /// Makes room for a value in the open element.
    std::string& beginValue(const char* name);
    static void endValue(const char* name, std::string& place);

    std::unique_ptr<Document> m_document;
};

} // namespace zelStream
