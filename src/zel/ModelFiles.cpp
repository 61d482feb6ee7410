#include "KnownAttributes.h"
#include "ModelCleanup.h"
#include "SearchPlaces.h"

#include <zel/Exception.h>
#include <zel/HashSet.h>
#include <zel/HashVector.h>
#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/Namespace.h>
#include <zel/Verify.h>
#include <zel/XmlLoader.h>
#include <zelIO/Environment.h>
#include <zelIO/FilePathContainer.h>
#include <zelIO/FileSystem.h>

#include <pystring/pystring.h>
#include <tinyxml.h>

#include <algorithm>
#include <array>
#include <stdexcept>

namespace zel {

namespace {

/// Loaders by tag, in the order of registration for those that share no file; made on first use, so that
/// registration works in any static constructor.
HashVector<String, Model::Loader*>& s_modelTypes() {
    static HashVector<String, Model::Loader*> table;
    return table;
}

/// The model files that have been read or are being read; guarded by the type-system mutex. Never destroyed:
/// the model tree may end after all static objects.
HashSet<String>& readFiles() {
    static auto& files = *new HashSet<String>;
    return files;
}

/// The places below a search directory in which the file of a model path may lie, in order.
const std::array<const char*, 3> Places{"Components/zel/", "", "Components/"};

String findInSearchPaths(const String& relative) {
    const auto* environment = zelIO::Environment::instance();
    for (const auto type : {zelIO::Environment::PluginPath, zelIO::Environment::ResourcePath})
        for (const char* place : Places) {
            String found = environment->getFilePath(type).find(place + relative);
            if (!found.empty())
                return found;
        }
    return {};
}

} // namespace

void forgetModelFiles() {
    readFiles().clear();
}

Model::Loader::Loader(const char* tag, const char* fileExtension)
    : m_tag(tag), m_fileExtension(fileExtension) {
    addAlias(tag);
}

void Model::Loader::addAlias(const char* tag) {
    zelVerifyN(!s_modelTypes().contains(tag), "A model loader for tag '%s' is already registered!", tag);
    s_modelTypes().push_back(tag, this);
}

Path Model::getPath(const String& file) {
    const String native = zelIO::FileSystem::getAbsolutePath(file);
    const size_t slash = native.rfind('/');
    const size_t dot = native.rfind('.');
    if (dot == std::string::npos || dot < slash) {
        ZEL_LOG_WARNING("Could not locate file extension for file \"" << file << "\"");
        return {};
    }
    const std::string directory = "/Components/";
    const size_t components = native.rfind(directory);
    if (components == std::string::npos) {
        ZEL_LOG_WARNING("Could not locate component root directory for file \"" << file << "\"");
        return {};
    }
    std::string relative = native.substr(components + directory.size(), dot - components - directory.size());
    if (pystring::startswith(relative, "zel/"))
        relative.erase(0, 4);
    std::replace(relative.begin(), relative.end(), '/', Path::Separator);
    return relative;
}

Path Model::getPath(TiXmlElement* element) {
    const TiXmlDocument* document = element->GetDocument();
    const String file(document == nullptr ? std::string() : document->ValueStr());
    // A document from elsewhere is no error here: its models live in no namespace.
    return file.find("Components/") == std::string::npos ? Path() : getPath(file).base();
}

Path Model::getPath(TiXmlElement* element, const Name& name) {
    return getPath(element) + Path(name);
}

Namespace* Model::getNamespace(TiXmlElement* element) {
    return getNamespace(getPath(element));
}

String Model::getFileSystemRoot(TiXmlElement* element) {
    const TiXmlDocument* document = element->GetDocument();
    const String file(document == nullptr ? String()
                                          : zelIO::FileSystem::getAbsolutePath(document->ValueStr()));
    const size_t components = file.rfind("/Components/");
    if (components != std::string::npos)
        return file.substr(0, components);
    ZEL_LOG_WARNING("Could not locate component root directory for file \"" << file << "\"");
    return {};
}

void Model::parsePathString(const String& text, Path& path, Name& name) {
    String dotted = text;
    std::replace(dotted.begin(), dotted.end(), ':', Path::Separator);
    const Path whole(dotted);
    path = whole.base();
    name = whole.back();
}

bool Model::getDiskPath(const Path& path, String& result, Path& remainder, const String& category) {
    if (path.empty() || path.str().find('/') != std::string::npos)
        return false;
    remainder = Path();
    for (Path prefix = path; !prefix.empty(); prefix = prefix.base()) {
        result = findInSearchPaths(toFileName(prefix) + "." + category);
        if (!result.empty())
            return true;
        remainder = Path(prefix.back()) + remainder;
    }
    result.clear();
    return false;
}

void Model::loadModelFile(const String& file) {
    if (readFiles().contains(file))
        return;
    readFiles().insert(file);
    std::unique_ptr<TiXmlDocument> document;
    try {
        document = openDocument(file);
    } catch (const std::runtime_error& error) {
        readFiles().erase(file);
        ZEL_LOG_WARNING(error.what());
        return;
    }
    warnOfUnknownAttributes(*document);
    try {
        const Path path = getPath(file).base();
        Namespace* space = getOrCreateNamespace(path);
        for (TiXmlElement* element = document->FirstChildElement(); element != nullptr;
             element = element->NextSiblingElement()) {
            const auto* type = s_modelTypes().find(element->ValueStr());
            if (type == nullptr) {
                ZEL_LOG_WARNING("Found model file '" << file << "' but no registered model type for tag '"
                                                     << element->ValueStr() << "'");
                continue;
            }
            const ref_ptr<Model> model(type->value->load(element, path));
            if (!model)
                continue; // the element refers to a model that exists already
            if (space->findObject(model->getName(), ClassModel()) != nullptr)
                ZEL_XML_ERROR(element,
                              String::format("A model '%s' exists already in namespace '%s'",
                                             model->getName().c_str(),
                                             path.c_str()));
            model->setSourcePath(file);
            registerModel(model.get(), space);
        }
    } catch (...) {
        readFiles().erase(file);
        throw;
    }
}

Model* Model::internal_getModel(const Path& path, const Name& name) {
    const std::lock_guard lock(getTypeSystemMutex());
    if (Model* model = findInTree(path, name))
        return model;
    const Path whole = path + Path(name);
    for (const auto& type : s_modelTypes()) {
        String file;
        Path remainder;
        if (!getDiskPath(whole, file, remainder, type.value->getFileExtension()))
            continue;
        loadModelFile(file);
        // The models of a file lie beside each other, in the namespace of the file.
        const Path space = getPath(file).base();
        const Name inner = remainder.empty() ? name : remainder.back();
        if (Model* model = findInTree(space, inner))
            return model;
    }
    return findInTree(path, name);
}

Model* Model::getModel(const Path& path, const Name& name, Model* parent) {
    Model* model = internal_getModel(path, name);
    return model == nullptr || parent == nullptr || model->is(parent) ? model : nullptr;
}

Model* Model::getModel(const String& path) {
    Path space;
    Name name;
    parsePathString(path, space, name);
    return getModel(space, name);
}

Model* Model::getModel(const char* path) {
    return getModel(String(path));
}

Model* Model::getModel(TiXmlElement* element) {
    const TiXmlNode* parent = element->Parent();
    const char* name = element->Attribute("name");
    if (name != nullptr && parent != nullptr && parent->ToDocument() != nullptr) {
        const std::lock_guard lock(getTypeSystemMutex());
        if (Model* model = findInTree(getPath(element), name))
            return model;
    }
    return Component::ClassModel();
}

Model* Model::getModelFromFile(const String& file) {
    const Path path = getPath(file);
    if (path.empty())
        return nullptr;
    const std::lock_guard lock(getTypeSystemMutex());
    if (Model* model = findInTree(path.base(), path.back()))
        return model;
    loadModelFile(file);
    return findInTree(path.base(), path.back());
}

Model* Model::findSource(TiXmlElement* element, const String& source) {
    Path space;
    Name name;
    parsePathString(source, space, name);
    const Path here = getPath(element);
    if (!here.empty())
        if (Model* model = getModel(here + space, name))
            return model;
    return getModel(space, name);
}

} // namespace zel
