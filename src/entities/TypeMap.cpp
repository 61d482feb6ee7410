#include "tree/XmlDocument.h"

#include <zel/Exception.h>
#include <zel/HashTable.h>
#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/XmlLoader.h>
#include <zelData/TypeMap.h>
#include <zelIO/Environment.h>
#include <zelIO/FileSystem.h>

#include <pystring/pystring.h>
#include <tinyxml.h>

#include <mutex>
#include <stdexcept>

namespace zelData {

namespace {

using TypeMap = zel::HashTable<zel::String, TypeImplementation>;

constexpr const char* TypeMapFile = "TypeMap.xml";
constexpr const char* IncludePrefixFile = "includePrefix.xml";
/// Deeper names are refused: each level of nesting is a level of recursion.
constexpr int MaxNesting = 64;

[[noreturn]] void fail(const zel::TiXmlElement* element, const zel::String& message) {
    if (element != nullptr)
        ZEL_XML_ERROR(element, message);
    ZEL_THROW(std::runtime_error, message);
}

TypeMap buildTypeMap() {
    TypeMap map;
    const zel::String path =
        zelIO::Environment::instance()->getFilePath(zelIO::Environment::ResourcePath).find(TypeMapFile);
    zel::XmlFileError error;
    const auto document = zel::parseXmlFile(path, error);
    if (!document) {
        ZEL_LOG_WARNING("TypeMap: Could not load " << TypeMapFile << " (full file path: '" << path
                                                   << "'). Error on row " << error.row << ": "
                                                   << error.reason);
        return map;
    }
    const zel::TiXmlElement* root = document->RootElement();
    for (auto* element = root->FirstChildElement("Type"); element != nullptr;
         element = element->NextSiblingElement("Type")) {
        TypeImplementation entry;
        entry.implementation = zel::parseAttribute<zel::String>(element, "implementation");
        entry.include = zel::parseAttribute<zel::String>(element, "include");
        if (element->Attribute("abstract") != nullptr)
            entry.abstract = zel::parseAttribute<bool>(element, "abstract");
        map.insert(zel::parseAttribute<zel::String>(element, "name"), entry);
    }
    return map;
}

/// The map, read at the first call. One that can not be read is empty from then on.
const TypeMap& typeMap() {
    static auto& map = *new TypeMap; // static objects may still look types up while the process ends
    static bool s_isBuilt = false;
    const std::lock_guard lock(zel::getTypeSystemMutex());
    if (!s_isBuilt) {
        s_isBuilt = true;
        map = buildTypeMap();
    }
    return map;
}

/// What stands between the brackets of "Container<T>".
zel::String getSubType(const zel::String& name, const char* containerName, const zel::TiXmlElement* element) {
    const zel::String opening = zel::String(containerName) + "<";
    if (!name.starts_with(opening) || name.size() <= opening.size() || name.back() != '>')
        fail(element, zel::String::format("Invalid %s<T> type declaration", containerName));
    return name.substr(opening.size(), name.size() - opening.size() - 1);
}

/// The header that a class of that name is declared in by rule.
zel::String headerOf(const zel::String& className, const zel::TiXmlElement* element) {
    zel::String header = pystring::replace(className, "::", "/") + ".h";
    const zel::TiXmlDocument* document = element == nullptr ? nullptr : element->GetDocument();
    if (document == nullptr)
        return header;
    const zel::String directory = zelIO::FileSystem::getPath(document->ValueStr());
    // Most directories have no such file, and their headers no prefix.
    const bool hasPrefix =
        zelIO::FileSystem::exists(zelIO::FileSystem::combinePath(directory, IncludePrefixFile));
    return hasPrefix ? zel::String(getIncludePrefix(element) + header) : header;
}

/// A container of the library, with the header of its template and of what it holds.
struct Container {
    const char* name;
    const char* implementation;
    const char* untyped; ///< the class of the name without brackets; null if there is none
    const char* include;
};

constexpr Container Containers[] = {
    {"Vector", "zel::Vector", nullptr, "zel/Vector.h"},
    {"Array", "zelData::Array", "zelData::AbstractArray", "zelData/Array.h"},
    {"Scalar", "zelData::Scalar", "zelData::AbstractScalar", "zelData/Scalar.h"},
};

zel::String resolve(const zel::String& typeName,
                    const zel::TiXmlElement* element,
                    zel::SetVector<zel::String>& includes,
                    int depth) {
    for (const Container& container : Containers) {
        if (typeName.starts_with(zel::String(container.name) + "<") && depth < MaxNesting) {
            const zel::String inner =
                resolve(getSubType(typeName, container.name, element), element, includes, depth + 1);
            includes.push_back(container.include);
            return container.implementation + ("< " + inner) + " >";
        }
        if (container.untyped != nullptr && typeName == container.name) {
            includes.push_back(container.include);
            return container.untyped;
        }
    }
    if (typeName.find("::") != zel::String::npos) {
        includes.push_back(headerOf(typeName, element));
        return typeName;
    }
    const TypeMap& map = typeMap();
    const auto position = map.find(typeName);
    if (position == map.end())
        fail(element,
             zel::String::format(
                 "No registered type with name '%s' (Add entry to '%s')\n", typeName.c_str(), TypeMapFile));
    includes.push_back(position->value.include);
    return position->value.implementation;
}

} // namespace

zel::String getTypeImplementationName(const zel::String& typeName,
                                      const zel::TiXmlElement* element,
                                      zel::SetVector<zel::String>& includes) {
    return resolve(typeName, element, includes, 0);
}

zel::String getTypeImplementationName(const zel::String& typeName) {
    zel::SetVector<zel::String> includes;
    return getTypeImplementationName(typeName, nullptr, includes);
}

zel::String getIncludePrefix(const zel::String& path) {
    const zel::String file =
        zelIO::FileSystem::combinePath(zelIO::FileSystem::getPath(path), IncludePrefixFile);
    zel::XmlFileError error;
    const auto document = zel::parseXmlFile(file, error);
    if (!document) {
        ZEL_LOG_WARNING("zel::getIncludePrefix: Could not load xml file '"
                        << file << "'. Error on row " << error.row << ": " << error.reason);
        return "";
    }
    return zel::parseAttribute<zel::String>(document->RootElement(), "prefix");
}

zel::String getIncludePrefix(const zel::TiXmlElement* element) {
    const zel::TiXmlDocument* document = element->GetDocument();
    return getIncludePrefix(document == nullptr ? zel::String() : zel::String(document->ValueStr()));
}

} // namespace zelData
