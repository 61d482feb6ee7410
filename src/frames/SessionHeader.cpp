#include "JournalMeta.h"
#include "data/Ascii.h"
#include "tree/XmlDocument.h"

#include <zel/Component.h>
#include <zel/Exception.h>
#include <zel/Log.h>
#include <zel/Verify.h>
#include <zel/XmlLoader.h>
#include <zelCore/Version.h>
#include <zelData/Value.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

// The session header of a journal, as an XML element and back.

namespace zelData {

using Session = FileJournal::Session;
using zel::uint32;
using zel::uint64;

namespace {

/// The first versions whose headers tell the number of frames and the stride.
constexpr zel::uint32 TellsNumber = ZEL_CALC_VERSION(2, 6, 1, 0);
constexpr zel::uint32 TellsStride = ZEL_CALC_VERSION(2, 6, 3, 0);

constexpr char Inspecting[] = "FileJournal: When inspecting the extra data document, ";

// Texts. The parser drops blanks at the ends of a text and takes several for one, but for those in a section
// of its own.

bool isBlank(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

bool needsSection(const zel::String& text) {
    for (zel::size_t i = 0; i < text.size(); ++i)
        if (text[i] == ' ' &&
            (i == 0 || i + 1 == text.size() || isBlank(text[i - 1]) || isBlank(text[i + 1])))
            return true;
    return std::all_of(text.begin(), text.end(), isBlank);
}

/// Whether it comes back as it is.
bool isWritable(const zel::String& text) {
    return !needsSection(text) || text.find("]]>") == zel::String::npos;
}

TiXmlElement* addElement(TiXmlElement* parent, const zel::String& name) {
    return parent->LinkEndChild(new TiXmlElement(name.c_str()))->ToElement();
}

void addText(TiXmlElement* element, const zel::String& text) {
    if (text.empty())
        return;
    auto node = std::make_unique<TiXmlText>(text.c_str());
    node->SetCDATA(needsSection(text) && isWritable(text));
    element->LinkEndChild(node.release());
}

void add(TiXmlElement* parent, const char* name, const zel::String& text) {
    addText(addElement(parent, name), text);
}
void add(TiXmlElement* parent, const char* name, uint64 number) {
    add(parent, name, zel::String(std::to_string(number)));
}
void add(TiXmlElement* parent, const char* name, bool flag) {
    add(parent, name, zel::String(flag ? "true" : "false"));
}
/// As "%f", in any locale.
void add(TiXmlElement* parent, const char* name, double number) {
    zel::String text;
    AsciiText().fixed(number).assignTo(text);
    add(parent, name, text);
}

/// A name as elements have it.
bool isXmlName(std::string_view name) {
    const auto begins = [](char c) {
        return std::isalpha(static_cast<unsigned char>(c)) != 0 || c == '_' ||
               static_cast<unsigned char>(c) >= 128;
    };
    return !name.empty() && begins(name.front()) && std::all_of(name.begin(), name.end(), [&](char c) {
        return begins(c) || std::isdigit(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '.';
    });
}

/// Adds an element for each component, by name, and one with its content for each value.
void addSimulation(TiXmlElement* element, const zel::Component* component) {
    for (zel::size_t i = 0; i < component->getNumObjects(); ++i) {
        const zel::Object* object = component->getObject(i);
        if (const auto* value = dynamic_cast<const Value*>(object))
            addText(addElement(element, value->getName().c_str()), value->toString());
        else if (const auto* below = dynamic_cast<const zel::Component*>(object))
            addSimulation(addElement(element, below->getName().c_str()), below);
    }
}

const zel::Object* findUnwritableName(const zel::Component* component) {
    for (zel::size_t i = 0; i < component->getNumObjects(); ++i) {
        const zel::Object* object = component->getObject(i);
        const auto* below = dynamic_cast<const zel::Component*>(object);
        if (below == nullptr && dynamic_cast<const Value*>(object) == nullptr)
            continue;
        if (!isXmlName(object->getName().c_str()))
            return object;
        const zel::Object* found = below == nullptr ? nullptr : findUnwritableName(below);
        if (found != nullptr)
            return found;
    }
    return nullptr;
}

// Reading

const TiXmlElement* requireElement(const TiXmlElement* parent, const char* name) {
    const TiXmlElement* element = parent->FirstChildElement(name);
    if (element == nullptr)
        ZEL_XML_ERROR(parent, zel::String::format("FileFrameReader: Could not locate element '%s'", name));
    return element;
}

[[noreturn]] void failToParse(const TiXmlElement* element) {
    ZEL_XML_ERROR(element,
                  zel::String::format("FileFrameReader: Unable to parse element %s", element->Value()));
}

zel::String textOf(const TiXmlElement* element) {
    const char* text = element->GetText();
    return text == nullptr ? "" : text;
}

template <typename T>
T parse(const TiXmlElement* parent, const char* name) {
    const TiXmlElement* element = requireElement(parent, name);
    const zel::String text = textOf(element);
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        failToParse(element);
    return value;
}

template <>
zel::String parse<zel::String>(const TiXmlElement* parent, const char* name) {
    return textOf(requireElement(parent, name));
}

template <>
bool parse<bool>(const TiXmlElement* parent, const char* name) {
    const TiXmlElement* element = requireElement(parent, name);
    const zel::String text = textOf(element);
    if (text != "true" && text != "false")
        failToParse(element);
    return text == "true";
}

// The format of frame headers.

struct FormatName {
    SerializedFrame::HeaderFormat format;
    const char* name;
};
constexpr std::array FormatNames{FormatName{SerializedFrame::XML_HEADER, "XML"},
                                 FormatName{SerializedFrame::JSON_HEADER, "JSON"},
                                 FormatName{SerializedFrame::BINARY_HEADER, "BINARY"},
                                 FormatName{SerializedFrame::INVALID, "INVALID"}};

const char* nameOf(SerializedFrame::HeaderFormat format) {
    for (const FormatName& entry : FormatNames)
        if (entry.format == format)
            return entry.name;
    zelAbort("Unknown header format!");
}

SerializedFrame::HeaderFormat formatOf(const zel::String& name, FileJournal::OpenMode mode) {
    for (const FormatName& entry : FormatNames)
        if (name == entry.name)
            return entry.format;
    if (mode == FileJournal::Tolerant)
        throw std::runtime_error("Unknown header format '" + name + "'");
    zelAbort("Unknown header format '%s'", name.c_str());
}

/// What the elements of a session header tell.
constexpr std::array KnownElements{"name",
                                   "version",
                                   "versionNumber",
                                   "is64BitReal",
                                   "is64BitArchitecture",
                                   "isLittleEndian",
                                   "date",
                                   "headerFormat",
                                   "timeStep",
                                   "numFrames",
                                   "frameStride",
                                   "startFrame",
                                   "endFrame",
                                   "startTime",
                                   "endTime",
                                   "computationTime",
                                   "sceneDataOffset",
                                   "sceneDataSize",
                                   "frameDataOffset",
                                   "ExtraData",
                                   "Plots"};

} // namespace

void Session::load(const TiXmlElement* element) {
    const auto name = parse<zel::String>(element, "name");
    const TiXmlElement* date = requireElement(element, "date");
    const TiXmlElement* epoch = requireElement(date, "epoch");
    const auto versionString = parse<zel::String>(element, "version");
    const auto versionNumber = parse<uint32>(element, "versionNumber");
    const auto seconds = parse<zel::int64>(epoch, "seconds");
    const auto microSeconds = parse<zel::int64>(epoch, "microSeconds");
    const bool real = parse<bool>(element, "is64BitReal");
    const bool architecture = parse<bool>(element, "is64BitArchitecture");
    const bool littleEndian = parse<bool>(element, "isLittleEndian");
    const auto timeStep = parse<double>(element, "timeStep");
    const auto startFrame = parse<uint64>(element, "startFrame");
    auto endFrame = parse<uint64>(element, "endFrame");
    const auto startTime = parse<double>(element, "startTime");
    const auto endTime = parse<double>(element, "endTime");
    if (!architecture && endFrame == std::numeric_limits<uint32>::max())
        endFrame = zel::InvalidIndex; // written in 32 bits
    const double computationTime = element->FirstChildElement("computationTime") == nullptr
                                       ? 0
                                       : parse<double>(element, "computationTime");
    uint64 numFrames = 0;
    if (versionNumber >= TellsNumber)
        numFrames = parse<uint64>(element, "numFrames");
    else if (endFrame != zel::InvalidIndex && endFrame >= startFrame)
        numFrames = endFrame - startFrame + 1; // at most
    const uint64 frameStride = versionNumber < TellsStride ? 1 : parse<uint64>(element, "frameStride");
    const auto headerFormat = formatOf(parse<zel::String>(element, "headerFormat"), m_mode);
    const auto sceneDataOffset = parse<uint64>(element, "sceneDataOffset");
    const auto sceneDataSize = parse<uint64>(element, "sceneDataSize");
    const auto frameDataOffset = parse<uint64>(element, "frameDataOffset");

    auto foreign = std::make_unique<TiXmlElement>("Session");
    for (const TiXmlElement* child = element->FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement())
        if (std::none_of(KnownElements.begin(), KnownElements.end(), [child](const char* known) {
                return child->ValueStr() == known;
            }))
            foreign->LinkEndChild(child->Clone());

    setName(name);
    setDate(zel::Date(seconds, microSeconds));
    setZelVersionString(versionString);
    setZelVersionNumber(versionNumber);
    set64BitReal(real);
    set64BitArchitecture(architecture);
    setLittleEndian(littleEndian);
    setTimeStep(timeStep);
    setFirstFrameIndex(startFrame);
    setLastFrameIndex(endFrame);
    m_isClosed = endFrame != zel::InvalidIndex;
    setFirstFrameTimeStamp(startTime);
    setLastFrameTimeStamp(endTime);
    setComputationTime(computationTime);
    setNumFrames(numFrames);
    setFrameStride(frameStride);
    setHeaderFormat(headerFormat);
    m_sceneDataOffset = sceneDataOffset;
    m_sceneDataSize = sceneDataSize;
    m_frameDataOffset = frameDataOffset;
    m_foreignHeader = std::move(foreign);
}

std::unique_ptr<TiXmlElement> Session::generateHeader() const {
    auto root = std::make_unique<TiXmlElement>("Session");
    TiXmlElement* session = root.get();
    add(session, "name", zel::String(getName().c_str()));
    add(session, "version", getZelVersionString());
    // What goes on from an older version tells its number and stride too, and they are to be read.
    add(session, "versionNumber", uint64{std::max(getZelVersionNumber(), TellsStride)});
    add(session, "is64BitReal", is64BitReal());
    add(session, "is64BitArchitecture", is64BitArchitecture());
    add(session, "isLittleEndian", isLittleEndian());
    TiXmlElement* date = addElement(session, "date");
    add(date, "string", zel::String(getDate().toStringDateAndTime()));
    TiXmlElement* epoch = addElement(date, "epoch");
    add(epoch, "seconds", zel::String(std::to_string(getDate().getSeconds())));
    add(epoch, "microSeconds", zel::String(std::to_string(getDate().getMicroSeconds())));
    add(session, "headerFormat", zel::String(nameOf(getHeaderFormat())));
    add(session, "timeStep", getTimeStep());
    add(session, "numFrames", getNumFrames());
    add(session, "frameStride", getFrameStride());
    add(session, "startFrame", getFirstFrameIndex());
    add(session, "endFrame", getLastFrameIndex());
    add(session, "startTime", getFirstFrameTimeStamp());
    add(session, "endTime", getLastFrameTimeStamp());
    add(session, "computationTime", getComputationTime());
    add(session, "sceneDataOffset", m_sceneDataOffset);
    add(session, "sceneDataSize", m_sceneDataSize);
    add(session, "frameDataOffset", m_frameDataOffset);

    if (!m_extraData.empty()) {
        TiXmlElement* extraData = addElement(session, "ExtraData");
        zel::Vector<zel::String> keys;
        for (const auto& entry : m_extraData)
            keys.push_back(entry.key);
        std::sort(keys.begin(), keys.end());
        for (const zel::String& key : keys)
            addText(addElement(extraData, key), m_extraData.find(key)->value);
    }
    if (getSimulationHeader() != nullptr)
        addSimulation(addElement(session, "Simulation"), getSimulationHeader());
    if (m_foreignHeader)
        for (const TiXmlElement* child = m_foreignHeader->FirstChildElement(); child != nullptr;
             child = child->NextSiblingElement())
            if (getSimulationHeader() == nullptr || child->ValueStr() != "Simulation")
                session->LinkEndChild(child->Clone());
    if (!m_plots.empty()) {
        TiXmlElement* plots = addElement(session, "Plots");
        for (const zel::String& name : plotNames()) {
            const PlotEntry& entry = m_plots.find(name)->value;
            TiXmlElement* plot = addElement(plots, "Plot");
            plot->SetAttribute("name", name.c_str());
            plot->SetAttribute("offset", std::to_string(entry.offset).c_str());
            plot->SetAttribute("headerSize", std::to_string(entry.headerSize).c_str());
            plot->SetAttribute("dataSize", std::to_string(entry.dataSize).c_str());
        }
    }
    return root;
}

JournalMeta Session::readMeta() const {
    JournalMeta meta;
    meta.read(m_path, false);
    if (m_isRecovered)
        meta.sessionHeaderOffset = JournalMeta::JournalHeaderSize; // what the file says may be anything
    return meta;
}

void Session::writeHeader() {
    JournalMeta meta = readMeta();
    meta.document.LinkEndChild(generateHeader().release());
    meta.write(m_path);
}

void Session::requireWritableHeader(const char* what, const zel::String& name) const {
    const zel::String text = JournalMeta::print(*generateHeader());
    if (text.size() > MaxHeaderSize)
        ZEL_THROW(std::runtime_error,
                  zel::String::format(
                      "FileJournal: %s '%.200s' does not fit into the session header of journal '%s': "
                      "it would have %u bytes, %u is the most",
                      what,
                      name.c_str(),
                      m_path.c_str(),
                      static_cast<unsigned>(text.size()),
                      static_cast<unsigned>(MaxHeaderSize)));
    zel::XmlFileError error;
    if (!zel::parseXmlText(text, m_path, error))
        ZEL_THROW(std::runtime_error,
                  zel::String::format(
                      "FileJournal: %s '%.200s' can not stand in the session header of journal '%s': %s",
                      what,
                      name.c_str(),
                      m_path.c_str(),
                      error.reason.c_str()));
}

void Session::setSimulationHeader(zel::Component* header) {
    const zel::ref_ptr<zel::Component> former(getSimulationHeader());
    const zel::Object* unwritable = header == nullptr ? nullptr : findUnwritableName(header);
    if (unwritable != nullptr)
        ZEL_THROW(
            std::runtime_error,
            zel::String::format("FileJournal: '%s' in the simulation header is no name of an XML element",
                                unwritable->getName().c_str()));
    JournalArchive::Session::setSimulationHeader(header);
    try {
        requireWritableHeader("the simulation header", header == nullptr ? "" : header->getName().c_str());
    } catch (...) {
        JournalArchive::Session::setSimulationHeader(former.get());
        throw;
    }
}

void Session::refuseOtherByteOrder() const {
    if (!isLittleEndian())
        ZEL_THROW(std::runtime_error,
                  zel::String::format(
                      "FileJournal: Session '%s' of journal '%s' was written in the other byte order",
                      getName().c_str(),
                      m_path.c_str()));
}

// Extra data

void Session::recordExtraData(const zel::String& key, const zel::String& value) {
    if (!isXmlName(key))
        ZEL_THROW(std::runtime_error,
                  "FileJournal: The key '" + key + "' of extra data is no name of an XML element");
    if (value.empty())
        ZEL_THROW(std::runtime_error,
                  zel::String(Inspecting) + "expected a text node but got an empty value.'.");
    const auto entry = m_extraData.find(key);
    const bool isNew = entry == m_extraData.end();
    const zel::String former = isNew ? zel::String() : entry->value;
    m_extraData.insert(key, value);
    try {
        if (!isWritable(value))
            ZEL_THROW(std::runtime_error,
                      "FileJournal: The extra data '" + key +
                          "' have blanks in a row and ']]>' as well, which has no form in XML");
        if (value.find('\0') != zel::String::npos)
            ZEL_THROW(std::runtime_error,
                      "FileJournal: The extra data '" + key + "' have a NUL byte, which is no text");
        requireWritableHeader("the extra data", key);
    } catch (...) {
        if (isNew)
            m_extraData.erase(key);
        else
            m_extraData.insert(key, former);
        throw;
    }
}

zel::String Session::retrieveExtraData(const zel::String& key) const {
    const auto entry = m_extraData.find(key);
    return entry == m_extraData.end() ? zel::String() : entry->value;
}

void Session::readExtraData(const TiXmlElement* root) {
    m_extraData.clear();
    if (root == nullptr)
        return;
    for (const TiXmlElement* child = root->FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement()) {
        const TiXmlNode* content = child->FirstChild();
        if (content == nullptr)
            ZEL_THROW(std::runtime_error,
                      zel::String(Inspecting) + "found a key without a corresponding value: '" +
                          child->ValueStr() + "'.");
        if (content->ToText() == nullptr || content->NextSibling() != nullptr) {
            const TiXmlNode* other = content->ToText() == nullptr ? content : content->NextSibling();
            ZEL_THROW(std::runtime_error,
                      zel::String(Inspecting) + "expected a text node but got something else. Got '" +
                          other->ValueStr() + "'.");
        }
        if (content->ValueStr().empty())
            ZEL_THROW(std::runtime_error,
                      zel::String(Inspecting) + "expected a text node but got an empty value.'.");
        m_extraData.insert(child->ValueStr(), zel::String(content->ValueStr()));
    }
}

// Plots, as far as the header tells of them

void Session::readPlotData(const TiXmlElement* root) {
    m_plots.clear();
    if (root == nullptr)
        return;
    for (const TiXmlElement* plot = root->FirstChildElement("Plot"); plot != nullptr;
         plot = plot->NextSiblingElement("Plot"))
        m_plots.insert(zel::parseAttribute<zel::String>(plot, "name"),
                       PlotEntry{zel::parseAttribute<uint64>(plot, "offset"),
                                 zel::parseAttribute<uint64>(plot, "headerSize"),
                                 zel::parseAttribute<uint64>(plot, "dataSize")});
}

void Session::getExtraDataKeys(zel::Vector<zel::String>& keys) const {
    keys.clear();
    for (const auto& entry : m_extraData)
        keys.push_back(entry.key);
    std::sort(keys.begin(), keys.end());
}

void Session::copyDescription(const Session& other) {
    setDate(other.getDate());
    set64BitReal(other.is64BitReal());
    set64BitArchitecture(other.is64BitArchitecture());
    setZelVersionString(other.getZelVersionString());
    setZelVersionNumber(other.getZelVersionNumber());
    setTimeStep(other.getTimeStep());
    setFrameStride(other.getFrameStride());
    setComputationTime(other.getComputationTime());
    m_extraData = other.m_extraData;
    JournalArchive::Session::setSimulationHeader(other.getSimulationHeader());
    if (other.m_foreignHeader)
        m_foreignHeader = std::make_unique<TiXmlElement>(*other.m_foreignHeader);
    requireWritableHeader("the session", getName().c_str());
}

} // namespace zelData
