#include "KnownAttributes.h"
#include "ModelCleanup.h"
#include "ModelLoads.h"
#include "ModelPlaces.h"
#include "XmlDocument.h"
#include "containers/NearName.h"

#include <zel/Exception.h>
#include <zel/HashSet.h>
#include <zel/HashVector.h>
#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/Namespace.h>
#include <zel/Verify.h>
#include <zel/XmlLoader.h>
#include <zelIO/Environment.h>
#include <zelIO/FileSystem.h>

#include <tinyxml.h>

#include <algorithm>
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

String documentFile(TiXmlElement* element) {
    const TiXmlDocument* document = element->GetDocument();
    return document == nullptr ? String() : String(document->ValueStr());
}

/// The folder of the element's document, without a word where there is none.
String rootOf(TiXmlElement* element) {
    const String file = element == nullptr ? String() : documentFile(element);
    ModelFile place;
    return !file.empty() && placeModelFile(file, zelIO::Environment::PluginPath, place) ? place.root
                                                                                        : String();
}

/// What is left of the path behind the one of the file.
Path remainderOf(const Path& path, const ModelFile& file) {
    const size_t length = file.path.str().size();
    return path.str().size() > length ? Path(path.str().substr(length + 1)) : Path();
}

} // namespace

String describeDuplicate(const Model& other, const Path& space) {
    String text = String::format(
        "A model '%s' exists already in namespace '%s'", other.getName().c_str(), space.c_str());
    if (other.getSourcePath().empty())
        return text + ": a class of the program has it";
    return text +
           String::format(": see file '%s', row %d", other.getSourcePath().c_str(), other.getSourceRow());
}

Vector<String> listModelFiles() {
    const std::lock_guard lock(getTypeSystemMutex());
    Vector<String> files;
    for (const String& file : readFiles())
        files.push_back(file);
    std::sort(files.begin(), files.end());
    return files;
}

void forgetModelFiles() {
    readFiles().clear();
    forgetModelPlaces();
}

void forgetModelFile(const String& file) {
    readFiles().erase(file);
}

Model::Loader::Loader(const char* tag, const char* fileExtension)
    : m_tag(tag), m_fileExtension(fileExtension) {
    addAlias(tag);
}

void Model::Loader::addAlias(const char* tag) {
    zelVerifyN(!s_modelTypes().contains(tag), "A model loader for tag '%s' is already registered!", tag);
    s_modelTypes().push_back(tag, this);
}

Path Model::getPath(const String& file, zelIO::Environment::Type type) {
    if (zelIO::FileSystem::getFileExtension(file).empty()) {
        ZEL_LOG_WARNING("Could not locate file extension for file \"" << file << "\"");
        return {};
    }
    ModelFile place;
    if (placeModelFile(file, type, place))
        return place.path;
    ZEL_LOG_WARNING("Could not locate component root directory for file \"" << file << "\"");
    return {};
}

Path Model::getPath(TiXmlElement* element, zelIO::Environment::Type type) {
    // A document from elsewhere is no error here: its models live in no namespace.
    const String file = documentFile(element);
    ModelFile place;
    return !file.empty() && placeModelFile(file, type, place) ? place.path.base() : Path();
}

Path Model::getPath(TiXmlElement* element, const Name& name, zelIO::Environment::Type type) {
    return getPath(element, type) + Path(name);
}

Namespace* Model::getNamespace(TiXmlElement* element) {
    return getNamespace(getPath(element));
}

String Model::getFileSystemRoot(TiXmlElement* element, zelIO::Environment::Type type) {
    const String file = documentFile(element);
    ModelFile place;
    if (!file.empty() && placeModelFile(file, type, place))
        return place.root;
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
    ModelFile found;
    const bool isFound = findModelFile(path, category, String(), found);
    result = isFound ? found.file : String();
    remainder = isFound ? remainderOf(path, found) : Path();
    return isFound;
}

bool Model::getDiskPath(const Path& path,
                        String& result,
                        Path& remainder,
                        TiXmlElement* element,
                        zelIO::Environment::Type type,
                        const String& category) {
    ModelFile found;
    const bool isFound = findModelFile(path, category, getFileSystemRoot(element, type), found);
    result = isFound ? found.file : String();
    remainder = isFound ? remainderOf(path, found) : Path();
    return isFound;
}

void Model::loadModelFile(const ModelFile& source) {
    const String& file = source.file;
    if (readFiles().contains(file))
        return;
    ModelLoads loads;
    readFiles().insert(file);
    ModelLoads::read(file);
    XmlFileError error;
    const auto document = parseXmlFile(file, error);
    if (!document) {
        ZEL_LOG_WARNING(describeXmlFileError(file, error));
        return;
    }
    warnOfSlips(*document);
    const Path path = source.path.base();
    Namespace* space = getOrCreateNamespace(path);
    for (TiXmlElement* element = document->FirstChildElement(); element != nullptr;
         element = element->NextSiblingElement()) {
        const auto* type = s_modelTypes().find(element->ValueStr());
        if (type == nullptr) {
            NearName near(element->ValueStr());
            for (const auto& known : s_modelTypes())
                near.consider(known.key);
            ZEL_LOG_WARNING("Found model file '" << file << "' but no registered model type for tag '"
                                                 << element->ValueStr() << "'" << near.hint() << ", row "
                                                 << element->Row());
            continue;
        }
        const ref_ptr<Model> model(type->value->load(element, path));
        if (!model)
            continue; // the element refers to a model that exists already
        if (const auto* other = dynamic_cast<Model*>(space->findObject(model->getName(), ClassModel())))
            ZEL_XML_ERROR(element, describeDuplicate(*other, path));
        model->setSourcePath(file, element->Row());
        registerModel(model.get(), space);
        ModelLoads::added(model.get());
    }
    loads.keep();
}

Model* Model::internal_getModel(const Path& path, const Name& name, TiXmlElement* element) {
    const std::lock_guard lock(getTypeSystemMutex());
    if (Model* model = findInTree(path, name))
        return model;
    const Path whole = path + Path(name);
    const String root = rootOf(element);
    for (const auto& type : s_modelTypes()) {
        ModelFile file;
        if (!findModelFile(whole, type.value->getFileExtension(), root, file))
            continue;
        loadModelFile(file);
        // The models of a file lie beside each other, in the namespace of the file: what is left of the path
        // names one of them, and no model of that name from another file.
        const Path remainder = remainderOf(whole, file);
        if (remainder.empty() || remainder.hasTail())
            continue;
        Model* model = findInTree(file.path.base(), remainder.root());
        if (model != nullptr && model->getSourcePath() == file.file)
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
    if (parent != nullptr && parent->ToDocument() != nullptr) {
        const std::lock_guard lock(getTypeSystemMutex());
        if (Model* model = name == nullptr ? nullptr : findInTree(getPath(element), name))
            return model;
    } else if (const char* source = element->Attribute("source")) {
        if (Model* model = findSource(element, std::string(source)))
            return model;
    }
    return Component::ClassModel();
}

Model* Model::getModelFromFile(const String& file) {
    const Path path = getPath(file);
    if (path.empty())
        return nullptr;
    ModelFile place;
    if (!placeModelFile(file, zelIO::Environment::PluginPath, place))
        return nullptr;
    const std::lock_guard lock(getTypeSystemMutex());
    Model* model = findInTree(path.base(), path.back());
    if (model != nullptr && isSameFile(model->getSourcePath(), place.file))
        return model;
    loadModelFile(place);
    model = findInTree(path.base(), path.back());
    return model != nullptr && model->getSourcePath() == place.file ? model : nullptr;
}

Model* Model::findSource(TiXmlElement* element, const String& source) {
    Path space;
    Name name;
    parsePathString(source, space, name);
    const Path here = getPath(element);
    if (!here.empty())
        if (Model* model = internal_getModel(here + space, name, element))
            return model;
    return internal_getModel(space, name, element);
}

} // namespace zel
