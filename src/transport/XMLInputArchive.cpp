#include "ArchiveReader.h"
#include "ArchiveText.h"
#include "ArchiveVectors.h"
#include "StackLeft.h"
#include "tree/XmlCheck.h"

#include <zelStream/XMLInputArchive.h>
#include <zelStream/XMLOutputArchive.h>

#include <tinyxml.h>

#include <algorithm>
#include <cstring>
#include <istream>

namespace zelStream {

namespace {

/// What the parser takes of the stack for each level; it was seen to take less than 320 bytes.
constexpr zel::size_t StackOfLevel = 512;

const char* readFailureOf(ScalarForm form, bool isAttribute) {
    switch (form.kind) {
    case ScalarForm::Boolean:
        return "Error while reading a bool value in path: ";
    case ScalarForm::Character:
        return "Error while reading a char value in path: ";
    case ScalarForm::Signed:
        return "Error while reading a signed int in path: ";
    case ScalarForm::Unsigned:
        return "Error while reading an unsigned int in path: ";
    case ScalarForm::Component:
        return "Error while reading a Vec3 int in path: ";
    default:
        return isAttribute ? "Error while reading a double value in path: " : "Error reading a real value ";
    }
}

constexpr const char* StringFailure = "Error while reading a string value in path: ";
constexpr const char* UuidFailure = "Error while reading an uuid value in path: ";

bool isBlank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// Deletes the nodes from the innermost on, for their destructors would go as deep on the stack as they are
/// nested.
void dismantle(TiXmlDocument& document) {
    TiXmlNode* node = &document;
    while (node != nullptr) {
        if (TiXmlNode* const child = node->FirstChild()) {
            if (child->NoChildren())
                node->RemoveChild(child);
            else
                node = child;
        } else
            node = node->Parent();
    }
}

} // namespace

/// Where reading stands in an open element.
struct XMLInputArchive::Level {
    TiXmlElement* element;
    TiXmlElement* nextChild;              ///< behind the one that was visited last
    const TiXmlNode* nextNode;            ///< to look at for text
    std::string_view text;                ///< left of the text at hand
    const TiXmlAttribute* last = nullptr; ///< attribute that was read

    explicit Level(TiXmlElement* opened)
        : element(opened), nextChild(opened->FirstChildElement()), nextNode(opened->FirstChild()) {}
    bool findText();
};

struct XMLInputArchive::Document : TiXmlDocument {
    zel::Vector<Level> levels; ///< the outermost first
    zel::size_t size = 0;      ///< in bytes

    Document() = default;
    Document(const Document&) = delete;
    Document& operator=(const Document&) = delete;
    ~Document() override { dismantle(*this); }
};

/// Goes to the next token. @return whether there is one
bool XMLInputArchive::Level::findText() {
    while (true) {
        zel::size_t begin = 0;
        while (begin < text.size() && isBlank(text[begin]))
            ++begin;
        text.remove_prefix(begin);
        if (!text.empty())
            return true;
        while (nextNode != nullptr && nextNode->ToText() == nullptr)
            nextNode = nextNode->NextSibling();
        if (nextNode == nullptr)
            return false;
        text = nextNode->ValueStr();
        nextNode = nextNode->NextSibling();
    }
}

XMLInputArchive::XMLInputArchive() : InputArchive(false) {}

XMLInputArchive::~XMLInputArchive() {
    XMLInputArchive::close();
}

void XMLInputArchive::close() {
    InputArchive::close();
    m_document.reset();
}

void XMLInputArchive::init(std::istream& stream) {
    if (!isOpen())
        fail("Archive not opened");
    constexpr const char* Failure = "Error while parsing XML stream: ";
    constexpr zel::size_t MaximumSize = XMLOutputArchive::MaximumSize;
    const auto verifySize = [&](zel::uint64 size) {
        if (size > MaximumSize)
            fail(Failure + ("the document is larger than " + std::to_string(MaximumSize) + " bytes"));
    };
    Ahead ahead;
    ArchiveReader reader(stream, ahead);
    if (reader.isSeekable())
        verifySize(reader.getNumBytesLeft());
    std::string text;
    std::string block(zel::size_t{1} << 16, '\0');
    zel::size_t n = 0;
    do {
        n = reader.read(block.data(), block.size());
        text.append(block, 0, n);
        verifySize(text.size());
    } while (n == block.size());
    if (text.empty())
        fail("No document available while parsing");
    zel::XmlRules rules;
    const zel::size_t numLevels = stackAbove(stackFloor()) / StackOfLevel;
    rules.maximumDepth = std::min(XMLOutputArchive::MaximumDepth, numLevels);
    rules.maximumAttributes = XMLOutputArchive::MaximumAttributes;
    rules.isStrict = true;
    zel::XmlFileError error;
    if (!zel::checkXml(text, error, rules))
        fail(Failure + error.reason + " (row " + std::to_string(error.row) + ")");
    auto document = std::make_unique<Document>();
    document->SetTabSize(0); // no rows and columns of nodes, which take time to count
    document->Parse(text.c_str(), nullptr, TIXML_ENCODING_UTF8);
    if (document->Error())
        fail(Failure + zel::String(document->ErrorDesc()));
    document->size = text.size();
    countBytes(text.size());
    m_document = std::move(document);
}

// Sections.

XMLInputArchive::Level& XMLInputArchive::level() {
    verifyReadable();
    if (m_document == nullptr || m_document->levels.empty())
        fail("No data available for reading");
    return m_document->levels.back();
}

/// The next child of the name, which then counts as visited; null without a change if there is none.
TiXmlElement* XMLInputArchive::findChild(const char* name) {
    TiXmlElement* child = level().nextChild;
    while (child != nullptr && child->ValueStr() != name)
        child = child->NextSiblingElement();
    if (child != nullptr)
        level().nextChild = child->NextSiblingElement();
    return child;
}

void XMLInputArchive::beginSection(const char* name) {
    verifyReadable();
    if (name == nullptr)
        fail("A section needs a name");
    const bool isRoot = m_document->levels.empty();
    TiXmlElement* element = isRoot ? m_document->RootElement() : findChild(name);
    if (element == nullptr || (isRoot && element->ValueStr() != name))
        fail("Unable to find section '" + zel::String(name) + (isRoot ? "': stack empty" : "'"));
    m_document->levels.push_back(Level(element));
    InputArchive::beginSection(name);
}

void XMLInputArchive::endSection(const char* name) {
    InputArchive::endSection(name);
    m_document->levels.pop_back();
}

void XMLInputArchive::dropSections(zel::size_t depth) noexcept {
    if (m_document != nullptr)
        while (m_document->levels.size() > depth)
            m_document->levels.pop_back();
    InputArchive::dropSections(depth);
}

TiXmlElement* XMLInputArchive::getElement(const char* name) {
    verifyReadable();
    TiXmlElement* const element = name == nullptr ? nullptr : findChild(name);
    if (element == nullptr)
        fail("Unable to find element '" + zel::String(name == nullptr ? "" : name) + "'");
    return element;
}

zel::String XMLInputArchive::getXMLPath(const TiXmlElement* element) {
    zel::Vector<const TiXmlNode*> nodes;
    for (const TiXmlNode* node = element; node != nullptr && node->ToElement() != nullptr;
         node = node->Parent())
        nodes.push_back(node);
    zel::String path;
    for (zel::size_t i = nodes.size(); i != 0; --i)
        path += (path.empty() ? "" : "/") + nodes[i - 1]->ValueStr();
    return path;
}

bool XMLInputArchive::isAtEnd() {
    verifyReadable();
    if (m_document->levels.empty())
        return true;
    return m_document->levels.back().nextChild == nullptr && !m_document->levels.back().findText();
}

// Values.

void XMLInputArchive::failToRead(const char* failure, const char* name) {
    zel::String text = failure;
    if (text.ends_with(": ")) {
        text += getXMLPath(level().element);
        if (name != nullptr)
            text += "/@" + zel::String(name);
    }
    fail(text);
}

const std::string* XMLInputArchive::findAttribute(const char* name) {
    Level& open = level();
    const TiXmlAttribute* const next = open.last == nullptr ? nullptr : open.last->Next();
    // They are mostly read in their order.
    const TiXmlAttribute* found = next;
    if (next == nullptr || std::strcmp(next->Name(), name) != 0)
        for (found = open.element->FirstAttribute();
             found != nullptr && std::strcmp(found->Name(), name) != 0;)
            found = found->Next();
    if (found == nullptr)
        return nullptr;
    open.last = found;
    return &found->ValueStr();
}

std::string_view XMLInputArchive::nextToken() {
    Level& open = level();
    if (!open.findText())
        fail("No data available for reading");
    zel::size_t end = 0;
    while (end < open.text.size() && !isBlank(open.text[end]))
        ++end;
    const std::string_view token = open.text.substr(0, end);
    open.text.remove_prefix(end);
    return token;
}

std::string_view XMLInputArchive::getText(const char* name, const char* failure) {
    if (name == nullptr)
        return nextToken();
    const std::string* const text = findAttribute(name);
    if (text == nullptr)
        failToRead(failure, name);
    return *text;
}

void XMLInputArchive::readScalar(const char* name, void* value, ScalarForm form) {
    if (name != nullptr && form.kind == ScalarForm::Character && findAttribute(name) == nullptr)
        fail("Unable to find char attribute '" + zel::String(name) + "'");
    const char* const failure = readFailureOf(form, name != nullptr);
    const std::string_view text = getText(name, failure);
    if (parseScalar(text, value, form)) [[likely]]
        return;
    if (form.kind != ScalarForm::Boolean)
        failToRead(failure, name);
    if (name != nullptr)
        fail("Invalid boolean value '" + zel::String(text) + "'");
    failToRead(
        ("Invalid value for bool: '" + zel::String(text) + "' while reading a bool value in path: ").c_str(),
        name);
}

void XMLInputArchive::readString(const char* name, std::string& text) {
    if (!parseEscaped(getText(name, StringFailure), text))
        failToRead(StringFailure, name);
}

void XMLInputArchive::readUuid(const char* name, zel::Uuid& uuid) {
    if (!parseUuid(getText(name, UuidFailure), uuid))
        failToRead(UuidFailure, name);
}

void XMLInputArchive::read(void* data, zel::size_t numBytes) {
    if (!parseBytes(nextToken(), data, numBytes))
        failToRead("Error while reading a block of bytes in path: ", nullptr);
}

void XMLInputArchive::read_vector(const VectorSink& sink, VectorElement type) {
    const auto [numElements, stored] = readVectorHead(type);
    const VectorElementForm from = formOf(stored);
    const VectorElementForm to = formOf(type);
    // Each component takes at least a digit and a blank.
    if (numElements > m_document->size / 2 / from.numComponents)
        failShort(numElements > ~zel::uint64{0} / from.size() ? ~zel::uint64{0} : numElements * from.size());
    char* target = static_cast<char*>(sink.resize(numElements));
    for (zel::uint64 i = 0; i < numElements; ++i, target += to.size()) {
        std::memset(target, 0, to.size());
        for (zel::uint32 k = 0; k < from.numComponents; ++k)
            readComponent(target + zel::size_t{k} * to.width, stored, type);
    }
}

/// Of a vector, from its stored type.
void XMLInputArchive::readComponent(char* target, VectorElement stored, VectorElement wanted) {
    if (stored == wanted) {
        readScalar(nullptr, target, componentFormOf(stored));
        return;
    }
    float single = 0;
    double precise = 0;
    if (formOf(stored).width == sizeof(float)) {
        readScalar(nullptr, &single, componentFormOf(stored));
        precise = single;
        std::memcpy(target, &precise, sizeof(precise));
    } else {
        readScalar(nullptr, &precise, componentFormOf(stored));
        single = static_cast<float>(precise);
        std::memcpy(target, &single, sizeof(single));
    }
}

void XMLInputArchive::readByteOrder() {}

} // namespace zelStream
