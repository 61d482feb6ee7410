#include "ArchiveText.h"
#include "ArchiveVectors.h"

#include <zel/Log.h>
#include <zelStream/XMLOutputArchive.h>

#include <algorithm>
#include <deque>
#include <ostream>

namespace zelStream {

namespace {

constexpr zel::uint32 Nothing = ~zel::uint32{0};
constexpr zel::size_t BlockSize = 65536;
// Deeper elements stand no farther to the right, else ten thousand levels would be 400 MB of blanks.
constexpr zel::size_t MaximumIndent = 32;

/// Whether one of the printed attributes begins like this. Goes from attribute to attribute, for a value that
/// ends in a blank, a name and '=' looks like a beginning together with its closing quote.
bool hasAttribute(std::string_view attributes, std::string_view beginning) {
    while (!attributes.empty() && !attributes.starts_with(beginning))
        attributes.remove_prefix(attributes.find('"', attributes.find('"') + 1) + 1);
    return !attributes.empty();
}

} // namespace

struct XMLOutputArchive::Element {
    std::string head; ///< its name and attributes, as printed
    std::string text; ///< as printed
    zel::uint32 nameLength;
    zel::uint32 numAttributes = 0;
    zel::uint32 firstChild = Nothing;
    zel::uint32 lastChild = Nothing;
    zel::uint32 next = Nothing;
};

/// The elements in order. They are kept as printed text in a row, and not as a document of the parser's,
/// which would go as deep on the stack as they are nested, and writes "&#x41;" as it is, which reads as "A".
struct XMLOutputArchive::Document {
    std::deque<Element> elements;
    zel::Vector<zel::uint32> open; ///< the outermost first

    void add(std::string_view name);
    template <typename Put>
    void print(const Put& put) const;
};

void XMLOutputArchive::Document::add(std::string_view name) {
    const auto index = static_cast<zel::uint32>(elements.size());
    elements.push_back({std::string(name), {}, static_cast<zel::uint32>(name.size())});
    if (!open.empty()) {
        Element& parent = elements[open.back()];
        (parent.lastChild == Nothing ? parent.firstChild : elements[parent.lastChild].next) = index;
        parent.lastChild = index;
    }
    open.push_back(index);
}

/// Hands over the document in pieces, laid out as TinyXML does.
template <typename Put>
void XMLOutputArchive::Document::print(const Put& put) const {
    std::string block = "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n";
    zel::Vector<zel::uint32> path;
    const auto indent = [&](zel::size_t depth) { block.append(4 * std::min(depth, MaximumIndent), ' '); };
    zel::uint32 index = elements.empty() ? Nothing : 0;
    while (index != Nothing || !path.empty()) {
        if (block.size() >= BlockSize) {
            put(block);
            block.clear();
        }
        if (index == Nothing) { // behind the last child
            const Element& closed = elements[path.back()];
            path.pop_back();
            indent(path.size());
            block.append("</").append(closed.head, 0, closed.nameLength).append(">\n");
            index = closed.next;
            continue;
        }
        const Element& element = elements[index];
        indent(path.size());
        block.append("<").append(element.head);
        if (element.firstChild != Nothing) {
            block += ">\n";
            path.push_back(index);
            if (!element.text.empty()) {
                indent(path.size());
                block.append(element.text).append("\n");
            }
            index = element.firstChild;
            continue;
        }
        if (element.text.empty())
            block += " />\n";
        else
            block.append(">")
                .append(element.text)
                .append("</")
                .append(element.head, 0, element.nameLength)
                .append(">\n");
        index = element.next;
    }
    put(block);
}

XMLOutputArchive::XMLOutputArchive() : OutputArchive(false), m_document(std::make_unique<Document>()) {}

XMLOutputArchive::~XMLOutputArchive() {
    try {
        close();
    } catch (const std::exception& exception) {
        ZEL_LOG_WARNING("An archive was not completed: " << exception.what());
    }
}

void XMLOutputArchive::open(std::ostream& stream, const zel::String& appName) {
    if (!isOpen())
        *m_document = {};
    OutputArchive::open(stream, appName);
}

void XMLOutputArchive::finish() {
    zel::size_t size = 0;
    m_document->print([this, &size](const std::string& block) {
        size += block.size();
        if (size > MaximumSize)
            fail("The document is larger than " + std::to_string(MaximumSize) + " bytes");
        send(block.data(), block.size());
    });
    *m_document = {};
}

// Sections.

void XMLOutputArchive::validateVariable(const char* name) {
    if (name == nullptr)
        throw ArchiveException("A section or an attribute needs a name");
    if (!isXmlName(name))
        throw ArchiveException("'" + zel::String(name) +
                               "' can not be the name of an element or an attribute");
}

void XMLOutputArchive::beginSection(const char* name) {
    verifyWritable();
    validateVariable(name);
    if (getSectionDepth() == MaximumDepth)
        failForGood("Elements are nested more than " + std::to_string(MaximumDepth) + " deep");
    if (m_document->open.empty() && !m_document->elements.empty())
        fail("A document has one outermost section");
    m_document->add(name);
    OutputArchive::beginSection(name);
}

void XMLOutputArchive::endSection(const char* name) {
    OutputArchive::endSection(name);
    m_document->open.pop_back();
}

void XMLOutputArchive::dropSections(zel::size_t depth) noexcept {
    if (depth < m_document->open.size())
        m_document->open.resize(depth);
    OutputArchive::dropSections(depth);
}

// Values.

std::string& XMLOutputArchive::beginValue(const char* name) {
    verifyWritable();
    if (m_document->open.empty())
        fail("No section is open");
    Element& element = m_document->elements[m_document->open.back()];
    if (name == nullptr) {
        if (!element.text.empty())
            element.text += ' ';
        return element.text;
    }
    validateVariable(name);
    const zel::size_t start = element.head.size();
    element.head.append(" ").append(name).append("=\"");
    const std::string_view head = element.head;
    const bool isKnown =
        hasAttribute(head.substr(element.nameLength, start - element.nameLength), head.substr(start));
    if (isKnown || element.numAttributes == MaximumAttributes) {
        element.head.resize(start);
        fail(isKnown ? "The section has an attribute '" + zel::String(name) + "' already"
                     : "The section has more than " + std::to_string(MaximumAttributes) + " attributes");
    }
    ++element.numAttributes;
    return element.head;
}

void XMLOutputArchive::endValue(const char* name, std::string& place) {
    if (name != nullptr)
        place += '"';
}

void XMLOutputArchive::writeScalar(const char* name, const void* value, ScalarForm form) {
    std::string& place = beginValue(name);
    const zel::size_t start = place.size();
    appendScalar(place, value, form);
    if (form.kind == ScalarForm::Character) { // the other forms have no marks
        const std::string text = place.substr(start);
        place.resize(start);
        appendXml(place, text);
    }
    endValue(name, place);
}

void XMLOutputArchive::writeString(const char* name, std::string_view text) {
    std::string& place = beginValue(name);
    std::string escaped;
    if (name == nullptr)
        appendToken(escaped, text);
    else
        appendAttributeText(escaped, text);
    appendXml(place, escaped);
    endValue(name, place);
}

void XMLOutputArchive::writeUuid(const char* name, const zel::Uuid& uuid) {
    std::string& place = beginValue(name);
    place += uuid.str();
    endValue(name, place);
}

void XMLOutputArchive::addString(const zel::String& text) {
    verifyWritable();
    if (!isXmlText(text))
        fail("XML can not hold the text as it is");
    if (!text.empty())
        appendXml(beginValue(nullptr), text);
}

void XMLOutputArchive::write(const void* data, zel::size_t numBytes) {
    appendBytes(beginValue(nullptr), data, numBytes);
}

void XMLOutputArchive::write_vector(const void* elements, zel::size_t numElements, VectorElement type) {
    writeVectorHead(numElements, type);
    const VectorElementForm form = formOf(type);
    const auto* bytes = static_cast<const char*>(elements);
    for (zel::size_t i = 0; i < numElements; ++i, bytes += form.size())
        for (zel::uint32 k = 0; k < form.numComponents; ++k)
            writeScalar(nullptr, bytes + zel::size_t{k} * form.width, componentFormOf(type));
}

void XMLOutputArchive::writeByteOrder() {}

} // namespace zelStream
