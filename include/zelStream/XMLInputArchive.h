#pragma once

#include <zel/Xml.h>
#include <zelStream/InputArchive.h>

#include <memory>

namespace zelStream {

/// Restores what an XMLOutputArchive stored, also after people have edited it: white space is free, comments
/// are passed over, and the order of attributes does not matter. The limits of the writer hold.
/// @threads owner thread
class ZEL_CORE_API XMLInputArchive : public InputArchive {
public:
    XMLInputArchive();
    ~XMLInputArchive() override;

    void close() override;
    [[nodiscard]] bool isAtEnd() override;

    /// Parses the document, which reaches to the end of the stream. Called by `open`.
    /// @throws ArchiveException if it is too large, nested too deep, or no XML
    void init(std::istream& stream) override;

    /// Goes into the next child of this name, behind the one that was visited last.
    /// @throws ArchiveException if there is none; the archive then stands where it stood
    void beginSection(const char* name) override;
    void endSection(const char* name) override;
    /// The next child of this name, which beginSection would go into; it counts as visited.
    /// @throws ArchiveException if there is none
    zel::TiXmlElement* getElement(const char* name);
    /// The names from the root to the element, joined by "/".
    [[nodiscard]] static zel::String getXMLPath(const zel::TiXmlElement* element);

    using InputArchive::read;
    void read(void* data, zel::size_t numBytes) override;

protected:
    void readScalar(const char* name, void* value, ScalarForm form) override;
    void readString(const char* name, std::string& text) override;
    void readUuid(const char* name, zel::Uuid& uuid) override;
    void read_vector(const VectorSink& sink, VectorElement type) override;
    void readByteOrder() override;
    void dropSections(zel::size_t depth) noexcept override;

private:
    struct Document;
    struct Level;

    zel::TiXmlElement* findChild(const char* name);
    const std::string* findAttribute(const char* name);
    /// The text of an attribute, or the next token; nothing, with an exception, if there is none.
    std::string_view getText(const char* name, const char* failure);
    std::string_view nextToken();
    [[noreturn]] void failToRead(const char* failure, const char* name);
    [[nodiscard]] Level& level();
    void readComponent(char* target, VectorElement stored, VectorElement wanted);

    std::unique_ptr<Document> m_document;
};

} // namespace zelStream
