#pragma once

#include <zel/Xml.h>
#include <zelStream/OutputArchive.h>

#include <memory>

namespace zelStream {

/// An archive as an XML document that people can read: each section is an element, each attribute an XML
/// attribute, and values are tokens in the element's text: see docs/archives.md. The document is printed
/// once, by `close`.
/// @threads owner thread
class ZEL_CORE_API XMLOutputArchive : public OutputArchive {
public:
    /// Elements may be nested this deep.
    static constexpr zel::size_t MaximumDepth = 10000;

    XMLOutputArchive();
    ~XMLOutputArchive() override;

    void open(std::ostream& stream, const zel::String& appName = zel::String()) override;
    void close() override;
    /// Flushes the stream; the document is printed by `close` alone.
    void flush() override;

    /// @throws ArchiveException for a name that no element can have, and for elements nested too deep
    void beginSection(const char* name) override;
    void endSection(const char* name) override;

    /// Appends to the text of the open element, behind a blank if it has text.
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
    std::unique_ptr<zel::TiXmlDocument> m_document;
    zel::TiXmlElement* m_element = nullptr; ///< the open one
};

} // namespace zelStream
