#include "data/JsonText.h"
#include "tree/XmlCheck.h"
#include "tree/XmlDocument.h"
#include "tree/XmlPlace.h"

#include <zel/Exception.h>
#include <zel/Log.h>
#include <zel/XmlLoader.h>
#include <zelData/FrameIO.h>

#include <json/reader.h>
#include <json/value.h>
#include <tinyxml.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>

// Bindings that stand in files.

namespace zelData {

namespace {

[[noreturn]] void throwUnreadable(const zel::String& file, const zel::XmlFileError& error) {
    if (error.row == 0)
        ZEL_THROW(std::runtime_error,
                  zel::String::format("Could not load file '%s': %s", file.c_str(), error.reason.c_str()));
    ZEL_THROW(std::runtime_error,
              zel::String::format("[%s:%u] XML error: %s. Error at row %llu\nFile: %s",
                                  __FILE__,
                                  static_cast<unsigned>(__LINE__),
                                  error.reason.c_str(),
                                  static_cast<unsigned long long>(error.row),
                                  file.c_str()));
}

zel::Path pathOf(const TiXmlElement* element, const char* attribute) {
    const std::string* text = element->Attribute(std::string(attribute));
    if (text == nullptr)
        ZEL_XML_ERROR(element, zel::String::format("Could not locate attribute '%s'", attribute));
    zel::Path path(*text);
    if (path.empty() || text->find('\0') != std::string::npos)
        ZEL_XML_ERROR(element, zel::String::format("Unable to parse attribute %s", attribute));
    return path;
}

// JSON

[[noreturn]] void throwUnloadable(const zel::String& file, const std::string& reason) {
    ZEL_THROW(std::runtime_error,
              zel::String::format("Unable to load document '%s', error: %s", file.c_str(), reason.c_str()));
}

/// A document, and the places of the values in it.
class JsonDocument {
public:
    explicit JsonDocument(const zel::String& file) : m_file(file) {
        zel::XmlFileError error;
        if (!zel::readTextFile(file, m_text, error))
            throwUnloadable(file, error.reason);
        if (!zel::checkText(m_text, error))
            throwUnloadable(file, "row " + std::to_string(error.row) + ": " + error.reason);
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false;
        builder["failIfExtra"] = true;
        builder["rejectDupKeys"] = true;
        const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        std::string fault;
        bool isRead = false;
        try {
            isRead = readJson(*reader, m_text, m_root, &fault);
        } catch (const std::exception& exception) { // nested too deep
            fault = exception.what();
        }
        while (fault.ends_with('\n'))
            fault.pop_back();
        if (!isRead)
            throwUnloadable(file, fault);
    }

    [[nodiscard]] const Json::Value& root() const { return m_root; }
    [[noreturn]] void fail(const Json::Value& value, const std::string& reason) const {
        throwUnloadable(m_file, "row " + std::to_string(rowOf(value)) + ": " + reason);
    }
    [[nodiscard]] zel::Path pathOf(const Json::Value& value) const {
        const std::string text = value.asString();
        zel::Path path(text);
        if (path.empty() || text.find('\0') != std::string::npos)
            fail(value, "a data path is empty, or holds a NUL");
        return path;
    }

private:
    [[nodiscard]] std::ptrdiff_t rowOf(const Json::Value& value) const {
        const auto offset = static_cast<std::size_t>(std::max<std::ptrdiff_t>(value.getOffsetStart(), 0));
        const auto end = m_text.begin() + static_cast<std::ptrdiff_t>(std::min(offset, m_text.size()));
        return 1 + std::count(m_text.begin(), end, '\n');
    }

    zel::String m_file;
    std::string m_text;
    Json::Value m_root;
};

} // namespace

zel::ref_ptr<Frame::DataBinding> FrameIO::makeBinding(const TiXmlElement* element) {
    const bool isPair =
        element->Attribute("internal") != nullptr || element->Attribute("external") != nullptr;
    if (isPair && element->Attribute("path") != nullptr)
        ZEL_XML_ERROR(element, "A data binding has either 'path' or the pair 'internal' and 'external'");
    const zel::Path internalPath = pathOf(element, isPair ? "internal" : "path");
    const zel::Path externalPath = isPair ? pathOf(element, "external") : internalPath;
    const bool recursive =
        element->Attribute("recursive") != nullptr && zel::parseAttribute<bool>(element, "recursive");
    return makeBinding(internalPath, externalPath, recursive);
}

void FrameIO::loadDataBindings(const TiXmlElement* element) {
    BindingVector bindings;
    for (const TiXmlElement* child = element->FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement()) {
        if (child->ValueStr() == "DataBinding")
            bindings.push_back(makeBinding(child));
        else
            zel::warnAt(child, "'" + child->ValueStr() + "' is no 'DataBinding' and is passed over");
    }
    for (const zel::ref_ptr<Frame::DataBinding>& binding : bindings)
        addDataBinding(binding.get());
}

void FrameIO::loadDataBindings(const zel::String& file) {
    zel::XmlFileError error;
    const std::unique_ptr<TiXmlDocument> document = zel::parseXmlFile(file, error);
    if (!document)
        throwUnreadable(file, error);
    const TiXmlElement* root = document->RootElement();
    if (root == nullptr || root->ValueStr() != "DataFrame") {
        ZEL_LOG_WARNING("The file '" << file << "' holds no data bindings: its root is not 'DataFrame'");
        return;
    }
    loadDataBindings(root);
}

void FrameIO::loadDataBindingsJSON(const zel::String& file) {
    const JsonDocument document(file);
    const Json::Value& root = document.root();
    if (!root.isObject())
        document.fail(root, "the document is no object with an array 'DataPaths'");
    if (!root.isMember("DataPaths")) {
        ZEL_LOG_WARNING("The file '" << file << "' holds no data bindings: it has no 'DataPaths'");
        return;
    }
    const Json::Value& entries = root["DataPaths"];
    if (!entries.isArray())
        document.fail(entries, "'DataPaths' is no array");
    BindingVector bindings;
    for (const Json::Value& entry : entries) {
        const Json::Value& path = entry.isObject() ? entry["path"] : entry;
        if (!path.isString())
            document.fail(entry, "a data path is a text, or an object with a text 'path'");
        const bool hasFlag = entry.isObject() && entry.isMember("recursive");
        if (hasFlag && !entry["recursive"].isBool())
            document.fail(entry["recursive"], "'recursive' is neither true nor false");
        const zel::Path name = document.pathOf(path);
        bindings.push_back(makeBinding(name, name, hasFlag && entry["recursive"].asBool()));
    }
    for (const zel::ref_ptr<Frame::DataBinding>& binding : bindings)
        addDataBinding(binding.get());
}

} // namespace zelData
