#pragma once

#include <zel/Xml.h>
#include <zelStream/InputArchive.h>

#include <memory>

namespace zelStream {

/// Restores what an XMLOutputArchive stored.
/// @threads owner thread
class ZEL_CORE_API XMLInputArchive : public InputArchive {
public:
    /// Of a document, in bytes.
    static constexpr zel::size_t MaximumSize = zel::size_t{1} << 30;

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
    /// The next child of this name, as beginSection finds it, without going into it.
    zel::TiXmlElement* getElement(const char* name);
    /// The names from the root to the element, joined by "/".
    [[nodiscard]] static zel::String getXMLPath(const zel::TiXmlElement* element);
    [[nodiscard]] zel::String getErrorMessage(const zel::String& text) const override;

    using InputArchive::read;
    void read(void* data, zel::size_t numBytes) override;
    /// The length of the document.
    [[nodiscard]] zel::uint64 getNumBytesRead() const override;

protected:
    void readScalar(const char* name, void* value, ScalarForm form) override;
    void readString(const char* name, std::string& text) override;
    void readUuid(const char* name, zel::Uuid& uuid) override;
    void read_vector(const VectorSink& sink, VectorElement type) override;
    void readByteOrder() override;
    void dropSections(zel::size_t depth) noexcept override;

private:
    struct Level; ///< cursors of an open element
    std::unique_ptr<zel::TiXmlDocument> m_document;
    zel::Vector<Level> m_levels;
};

} // namespace zelStream
