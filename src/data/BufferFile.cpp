#include "AsciiFormat.h"

#include <zel/Exception.h>
#include <zel/Log.h>
#include <zel/Verify.h>
#include <zel/XmlLoader.h>
#include <zelData/Buffer.h>
#include <zelData/Format.h>
#include <zelData/Type.h>
#include <zelIO/FileSystem.h>

#include <tinyxml.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string_view>

// Buffers as text and in files.
//
// A dump, ".zelBuffer", is the elements as they lie in memory, in the byte order of the machine that wrote
// it, without a header: their number stands in the XML element that names the file.

namespace zelData {

using zel::String;
using zel::uint64;

namespace {

const zel::XmlLoaderRegistrator s_bufferFileLoader("Buffer", &Buffer::load);

constexpr const char* ElementArraySize = "elementArraySize";
constexpr const char* DefaultValue = "defaultValue";

String elementTypeName(const Buffer* buffer) {
    return buffer->getType() == nullptr ? buffer->getFormat()->fullName()
                                        : String(buffer->getType()->getName().str());
}

/// A file that is closed in any case.
using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

File openFile(const String& path, const char* mode) {
    return {zelIO::FileSystem::openFile(path.c_str(), mode), &std::fclose};
}

} // namespace

// Dumps

void Buffer::writeBinaryDump(const String& path) const {
    File file = openFile(path, "w");
    const bool written =
        file && (m_numElements == 0 || m_elementSize == 0 ||
                 std::fwrite(m_ptr, m_elementSize, m_numElements, file.get()) == m_numElements);
    if (!written || std::fclose(file.release()) != 0)
        zelAbort("%s: Could not write %u elements of type '%s' to file '%s'",
                 getPath().c_str(),
                 static_cast<unsigned>(m_numElements),
                 elementTypeName(this).c_str(),
                 path.c_str());
}

void Buffer::readBinaryDump(const String& path) {
    const File file = openFile(path, "r");
    if (!file || (m_numElements != 0 && m_elementSize != 0 &&
                  std::fread(m_ptr, m_elementSize, m_numElements, file.get()) != m_numElements))
        zelAbort("%s: Could not read %u elements of type '%s' from file '%s'",
                 getPath().c_str(),
                 static_cast<unsigned>(m_numElements),
                 elementTypeName(this).c_str(),
                 path.c_str());
    commit();
}

// XML

Buffer* Buffer::load(TiXmlElement* element, zel::Device*) {
    if (element->Attribute("name") == nullptr)
        ZEL_XML_ERROR(element, "Buffer does not have a name");
    const Format* format = zelData::getFormat(element, nullptr);
    if (format == nullptr)
        ZEL_XML_ERROR(element, "The type of the buffer has no format");
    zel::ref_ptr<Buffer> buffer(new Buffer(zel::parseAttribute<zel::Name>(element, "name"), format));
    buffer->configure(element);
    return buffer.release_nodelete();
}

void Buffer::configure(TiXmlElement* element) {
    // What the number of elements and their initial content depend on comes first.
    for (TiXmlElement* child = element->FirstChildElement("Value"); child != nullptr;
         child = child->NextSiblingElement("Value")) {
        const char* instance = child->Attribute("instance");
        if (instance == nullptr)
            continue;
        if (std::string_view(instance) == DefaultValue) {
            if (m_defaultValue == m_format->getDefaultValue()) {
                zel::ref_ptr<Value> own(new Value(DefaultValue, m_format.get()));
                own->set(m_format->getDefaultValue());
                m_defaultValue = own;
            }
            m_defaultValue->configure(child);
        } else if (std::string_view(instance) == ElementArraySize) {
            if (!m_elementArraySize)
                setElementArraySize(zel::ref_ptr<Value>(new ValueT<uint64>(ElementArraySize, 1)).get());
            m_elementArraySize->configure(child);
        }
    }
    configureSize(element);
    configureData(element);
    Component::configure(element);
}

void Buffer::configureSize(TiXmlElement* element) {
    const char* attribute = element->Attribute("numElements");
    if (attribute == nullptr || m_storage != nullptr)
        return;
    const std::string_view text(attribute);
    if (!text.empty() && (text.front() == '-' || (text.front() >= '0' && text.front() <= '9'))) {
        uint64 n = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), n);
        if (error != std::errc() || end != text.data() + text.size())
            ZEL_XML_ERROR(element,
                          String::format("Buffer '%s': '%.100s' is no number of elements",
                                         getPath().c_str(),
                                         attribute));
    }
    std::string failure;
    try {
        m_numElementsValue->setExpression(attribute);
    } catch (const std::runtime_error& error) {
        failure = error.what();
    }
    if (!failure.empty())
        ZEL_XML_ERROR(element, failure);
}

void Buffer::configureData(TiXmlElement* element) {
    const char* attribute = element->Attribute("data");
    if (attribute == nullptr)
        return;
    String file(attribute);
    if (!zelIO::FileSystem::isAbsolute(file) && element->GetDocument() != nullptr) {
        const String directory = zelIO::FileSystem::getPath(element->GetDocument()->ValueStr());
        if (!directory.empty())
            file = directory + "/" + file;
    }
    if (!m_plain)
        ZEL_XML_ERROR(element,
                      String::format("Buffer '%s': elements of type '%s' can not be read from a file",
                                     getPath().c_str(),
                                     elementTypeName(this).c_str()));
    if (!zelIO::FileSystem::exists(file) || zelIO::FileSystem::isDir(file))
        ZEL_XML_ERROR(element,
                      String::format("Buffer '%s': there is no file '%s'", getPath().c_str(), file.c_str()));
    const uint64 size = zelIO::FileSystem::size(file);
    if (size != m_numElements * m_elementSize)
        ZEL_XML_ERROR(
            element,
            String::format("Buffer '%s': file '%s' has %lu bytes, %lu elements of type '%s' are %lu",
                           getPath().c_str(),
                           file.c_str(),
                           size,
                           m_numElements,
                           elementTypeName(this).c_str(),
                           m_numElements * m_elementSize));
    readBinaryDump(file);
}

void Buffer::snapshot(TiXmlNode* node, const String& directory) {
    auto child = std::make_unique<TiXmlElement>("Buffer");
    child->SetAttribute("instance", getName().str());
    if (getType() != nullptr)
        child->SetAttribute("type", getType()->getName().str());
    child->SetAttribute("format", m_format->getName().str());
    child->SetAttribute("numElements", std::to_string(inEntries(m_numElements)));
    if (m_plain) {
        const String bufferDir = directory + "/buffers";
        zelVerifyAs(zelIO::FileSystem::mkdir(bufferDir, true), "zelIO::FileSystem::mkdir(bufferDir)");
        constexpr std::size_t longestName = 200;
        std::string name = getPath().str();
        const bool isChanged = name.size() > longestName || name.find('/') != std::string::npos;
        std::replace(name.begin(), name.end(), '/', '_');
        if (isChanged) // a file name has 255 bytes at most; that of another buffer may be the same by now
            name =
                std::to_string(getId()) + "_" + name.substr(name.size() - std::min(name.size(), longestName));
        name += ".zelBuffer";
        writeBinaryDump(bufferDir + "/" + name);
        child->SetAttribute("data", "buffers/" + name);
    } else {
        ZEL_LOG_WARNING(getPath() << ": the snapshot has no elements of type '" << elementTypeName(this)
                                  << "', which are no plain bytes");
    }
    if (m_elementArraySize)
        m_elementArraySize->snapshot(child.get(), directory);
    if (m_defaultValue->getName() == zel::Name(DefaultValue))
        m_defaultValue->snapshot(child.get(), directory);
    node->LinkEndChild(child.release());
}

// Text

void Buffer::print() const {
    print(Range(0, m_numElements));
}

void Buffer::print(const Range& range) const {
    const Format* ascii = asciiFormat(m_format.get());
    if (ascii == nullptr) {
        ZEL_LOG_INFO(getName() << ": Can not print buffer of type '" << elementTypeName(this)
                               << "', does not have an ascii format...");
        return;
    }
    std::ostringstream text;
    text << "== Buffer (path: " << getPath() << ", format: " << m_format->fullName()
         << ", size: " << m_numElements << ", capacity: " << m_capacity << ", ptr: " << m_ptr << ")";
    for (uint64 i = range.begin(); i < std::min(range.end(), m_numElements); ++i) {
        String element;
        transform(&element, ascii, getElement(i), m_format.get(), 1);
        text << "\n[" << i << "]: " << element;
    }
    ZEL_LOG_INFO(text.str());
}

} // namespace zelData
