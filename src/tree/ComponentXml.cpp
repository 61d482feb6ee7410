#include "KnownAttributes.h"
#include "LoadScope.h"
#include "LoadingModels.h"
#include "ModelLoads.h"
#include "PathHint.h"
#include "SearchPlaces.h"

#include <zel/Component.h>
#include <zel/ComponentManager.h>
#include <zel/Device.h>
#include <zel/Exception.h>
#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/Task.h>
#include <zel/UnresolvedTask.h>
#include <zel/XmlLoader.h>
#include <zel/ref_ptr.h>
#include <zelIO/Environment.h>
#include <zelIO/FilePathContainer.h>
#include <zelIO/FileSystem.h>

#include <tinyxml.h>

#include <cctype>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace zel {

namespace {

/// The models that this thread is filling components from. A model whose file asks for the model itself would
/// never end.
thread_local Vector<const Model*> t_loading;

class LoadingModel {
public:
    explicit LoadingModel(const Model* model) { t_loading.push_back(model); }
    LoadingModel(const LoadingModel&) = delete;
    LoadingModel& operator=(const LoadingModel&) = delete;
    ~LoadingModel() { t_loading.pop_back(); }
};

/// Switches rebinding on for a while.
class RebindScope {
public:
    RebindScope() : m_outer(Object::getEnableRebind()) { Object::setEnableRebind(true); }
    RebindScope(const RebindScope&) = delete;
    RebindScope& operator=(const RebindScope&) = delete;
    ~RebindScope() { Object::setEnableRebind(m_outer); }

private:
    bool m_outer;
};

/// Makes the object that the model's implementation asks for, empty.
Component* instantiate(Model* model, const Name& name, Device* device) {
    const Name& implementation = model->getImplementationName();
    if (implementation.empty())
        return new Component(name, model, device);
    ref_ptr<Component> component(ComponentManager::instance()->create(implementation, name, device));
    if (!component)
        return nullptr;
    component->setModel(model);
    return component.release_nodelete();
}

const char* const Extension = "zelComponent";

/// Warns where a model file was looked for, or what is the matter with the one that is there.
void explainMissing(const Path& path) {
    String file;
    Path remainder;
    if (Model::getDiskPath(path, file, remainder, "zelComponent")) {
        ZEL_LOG_WARNING("The file '" << file << "' gives no component '" << path.back() << "'"
                                     << hintOfModel(path.base(), path.back()));
        return;
    }
    std::string reason = explainMissingFile(path, Extension);
    reason.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(reason.front())));
    ZEL_LOG_WARNING(reason);
}

/// The element of the document that describes the model.
TiXmlElement* findElement(TiXmlDocument& document, const Model* model) {
    for (TiXmlElement* element = document.FirstChildElement("Component"); element != nullptr;
         element = element->NextSiblingElement("Component")) {
        const char* name = element->Attribute("name");
        const char* implementation = element->Attribute("implementation");
        if (name == nullptr || std::strcmp(name, model->getName().c_str()) != 0)
            continue;
        if (model->getImplementationName().empty() ||
            (implementation != nullptr &&
             std::strcmp(implementation, model->getImplementationName().c_str()) == 0))
            return element;
    }
    return nullptr;
}

/// Why there is no class and no model file of the path that a model names as its implementation.
std::string explainImplementation(const Path& path) {
    const std::string what = "implementation '" + path.str() + "' is not found: ";
    const Vector<String> extensions{Extension, "so"};
    const std::string hint = hintOfFile(path, extensions);
    if (const std::string form = explainForm(path, extensions); !form.empty())
        return what + form + hint;
    const String folder = path.hasTail() ? toFileName(path.base()) + "/" : String();
    const String library = folder + "lib" + path.back().str() + zelIO::FileSystem::DLL_SUFFIX;
    for (const auto type : {zelIO::Environment::PluginPath, zelIO::Environment::ResourcePath})
        if (const String file = zelIO::Environment::instance()->getFilePath(type).find(library);
            !file.empty())
            return what + "the library '" + file + "' can not be loaded, or gives no such class";
    return what + "looked for the library '" + library + "' and for '" + toFileName(path) + "." + Extension +
           "'" + hint + describeSearchPlaces();
}

/// Why the model that an element names as its source is not there.
std::string explainSource(const TiXmlElement* element, const char* source) {
    const Path path(source);
    const Path here = Model::getPath(const_cast<TiXmlElement*>(element)); // NOLINT: only looked at
    if (!explainForm(path, {Extension}).empty())
        return explainMissingFile(path, Extension, here);
    const TiXmlNode* top = element;
    while (top->Parent() != nullptr && top->Parent()->ToDocument() == nullptr)
        top = top->Parent();
    const TiXmlDocument* document = element->GetDocument();
    const TiXmlElement* other = document == nullptr ? nullptr : document->FirstChildElement();
    for (; other != nullptr; other = other->NextSiblingElement()) {
        const char* name = other->Attribute("name");
        if (name == nullptr || path.back() != Name(name))
            continue;
        if (other == top)
            return "that is the component itself";
        return "it stands in row " + std::to_string(other->Row()) +
               " of this file; a source stands ahead of what derives from it";
    }
    String file;
    Path remainder;
    if (Model::getDiskPath(here + path, file, remainder, "zelComponent") ||
        Model::getDiskPath(path, file, remainder, "zelComponent"))
        return "the file '" + file + "' gives no such component, or is being read and leads back here";
    // One of the models above in this file may be meant, or one that lies in another file.
    if (const std::string hint = path.hasTail() ? std::string() : hintOfModel(here, path.back());
        !hint.empty())
        return "there is no such model" + hint;
    return explainMissingFile(path, Extension, here);
}

[[noreturn]] void throwNoSource(const TiXmlElement* element, const char* source, const std::string& reason) {
    ZEL_XML_ERROR(element, String::format("Unable to locate source component '%s'", source) + ": " + reason);
}

/// Makes models from the top-level elements of the tag "Component".
class ComponentType : public Model::Loader {
public:
    ComponentType() : Loader("Component", "zelComponent") {}

    Model* load(TiXmlElement* element, const Path&) override {
        const char* name = element->Attribute("name");
        if (name == nullptr)
            ZEL_XML_ERROR(element, "Must specify a name for the component!");
        Model* source = Component::ClassModel();
        if (const char* sourceName = element->Attribute("source")) {
            source = Model::findSource(element, std::string(sourceName));
            if (source == nullptr)
                throwNoSource(element, sourceName, explainSource(element, sourceName));
        }
        const char* implementation = element->Attribute("implementation");
        ref_ptr<Model> model(new Model(name, Name(implementation)));
        model->setSource(source);
        return model.release_nodelete();
    }
};

/// Runs the task that initialises the component, which is complete but for what surrounds it.
void runInitializer(Component& component, Task* initializer) {
    // The task that is found for it takes its place.
    ref_ptr<Task> task(initializer);
    {
        const RebindScope scope;
        task->rebind();
        if (auto* proxy = dynamic_cast<UnresolvedTask*>(initializer);
            proxy != nullptr && proxy->getInstance() != nullptr)
            task = proxy->getInstance();
    }
    task->execute();
    component.removeObject(task.get());
}

/// Warns of misspelt attributes of a component with a source, unless a class of the program's may read them.
void warnOfUnreadAttributes(const TiXmlElement* element, const Model* model) {
    for (; model != nullptr; model = model->getSource())
        if (!model->getImplementationName().empty())
            return;
    if (element->Attribute("source") != nullptr)
        warnOfUnknownAttributes(*element);
}

[[noreturn]] void throwLoop(const Model* model) {
    const auto document = Object::openDocument(model->getSourcePath());
    const TiXmlElement* element = findElement(*document, model);
    ZEL_XML_ERROR(element == nullptr ? document->RootElement() : element,
                  String::format("Load loop detected for component '%s'", model->getName().c_str()) +
                      ": what it is made of leads back to it");
}

/// Makes a component of the model and fills it from the model's file. What has been loaded for it stays if
/// that succeeds.
Component* make(Model* model, const Name& name, Device* device, ModelLoads& loads) {
    if (t_loading.contains(model))
        throwLoop(model);
    const LoadingModel loading(model);
    ref_ptr<Component> component(instantiate(model, name, device));
    if (component) {
        component->configure(model);
        loads.keep();
    } else {
        ZEL_LOG_WARNING("In file '" << model->getSourcePath() << "', row " << model->getSourceRow()
                                    << ": the " << explainImplementation(model->getImplementationName()));
    }
    return component.release_nodelete();
}

ComponentType s_componentType;

Object* loadComponent(TiXmlElement* element, Device* device) {
    return Component::load(element, device);
}

const XmlLoaderRegistrator s_componentLoader("Component", loadComponent);

} // namespace

ModelStack getLoadingModels() {
    ModelStack models;
    for (const Model* model : t_loading)
        models.push_back(ref_ptr<const Model>(model));
    return models;
}

LoadingModelsScope::LoadingModelsScope(const ModelStack& models) {
    for (const ref_ptr<const Model>& model : models)
        m_outer.push_back(model.get());
    std::swap(m_outer, t_loading);
}

LoadingModelsScope::~LoadingModelsScope() {
    std::swap(m_outer, t_loading);
}

Component* Component::load(const Path& path, const Name& name, Device* device) {
    ModelLoads loads;
    Model* model = Model::getModel(path.base(), path.back());
    if (model == nullptr) {
        ZEL_LOG_WARNING("Unable to find plugin for resource: '" << path << "'");
        explainMissing(path);
        return nullptr;
    }
    return make(model, name, device, loads);
}

Component* Component::load(const Path& path, Device* device) {
    return load(path, path.back(), device);
}

Component* Component::load(const char* path, Device* device) {
    return load(Path(path), device);
}

Component* Component::loadFile(const String& file, Device* device) {
    ModelLoads loads;
    Model* model = Model::getModelFromFile(file);
    if (model == nullptr) {
        ZEL_LOG_WARNING("Unable to find plugin for resource: '" << file << "'");
        return nullptr;
    }
    return make(model, model->getName(), device, loads);
}

Component* Component::load(TiXmlElement* element, Device* device) {
    const bool isTopLevel = element->Parent() != nullptr && element->Parent()->ToDocument() != nullptr;
    const char* name = element->Attribute("name");
    ref_ptr<Component> component;
    if (const char* sourceName = element->Attribute("source")) {
        Model* source = Model::findSource(element, std::string(sourceName));
        if (source == nullptr)
            throwNoSource(element, sourceName, explainSource(element, sourceName));
        if (t_loading.contains(source))
            ZEL_XML_ERROR(element, String::format("Load loop detected for component '%s'", sourceName));
        const LoadingModel loading(source);
        component = instantiate(source, source->getName(), device);
        if (!component)
            throwNoSource(
                element, sourceName, "its " + explainImplementation(source->getImplementationName()));
        component->configure(source);
        warnOfUnreadAttributes(element, source);
        // That of a nested element is its source's, which the component has.
        if (isTopLevel)
            component->setModel(Model::getModel(element));
        if (name != nullptr)
            component->setName(name);
    } else {
        if (name == nullptr)
            ZEL_XML_ERROR(element, "Must specify a name for the component!");
        component = new Component(name, Model::getModel(element), device);
    }
    component->configure(element);
    return component.release_nodelete();
}

void Component::configure(Model* model) {
    const LoadScope scope;
    if (model->getSourcePath().empty())
        return;
    const LoadingModel loading(model);
    const auto document = openDocument(model->getSourcePath());
    for (const char* tag : {"Entity", "Entity.Model"})
        for (TiXmlElement* entity = document->FirstChildElement(tag); entity != nullptr;
             entity = entity->NextSiblingElement(tag))
            const ref_ptr<Object> registered(Object::load(entity, m_device));
    TiXmlElement* element = findElement(*document, model);
    if (element == nullptr)
        ZEL_XML_ERROR(document->RootElement(),
                      String::format("Could not find matching model %s in file %s",
                                     model->fullPath().c_str(),
                                     model->getSourcePath().c_str()));
    warnOfUnreadAttributes(element, model);
    if (const char* sourceName = element->Attribute("source")) {
        Model* source = Model::findSource(element, std::string(sourceName));
        if (source == nullptr)
            throwNoSource(element, sourceName, explainSource(element, sourceName));
        if (source->is(model))
            ZEL_XML_ERROR(element, String::format("Load loop detected for component '%s'", sourceName));
        configure(source);
        model->setSource(source);
    }
    configure(element);
}

void Component::configure(TiXmlElement* element) {
    Object::configure(element);
    ref_ptr<Task> initializer;
    for (TiXmlElement* child = element->FirstChildElement(); child != nullptr;
         child = child->NextSiblingElement()) {
        if (child->ValueStr() != "Init" || child->Attribute("instance") != nullptr) {
            configureChild(child);
            continue;
        }
        if (initializer)
            ZEL_XML_ERROR(child, "Only one initializer plz!");
        initializer = Task::load(child, m_device);
        addObject(initializer.get(), true);
    }
    if (initializer)
        runInitializer(*this, initializer.get());
}

void Component::configureChild(TiXmlElement* child) {
    if (child->ValueStr() == "description")
        return;
    if (const char* path = child->Attribute("instance")) {
        Object* instance = getResource(Path(path));
        if (instance == nullptr)
            ZEL_XML_ERROR(
                child, String::format("Could not find instance '%s'", path) + hintOfPath(this, Path(path)));
        instance->configure(child);
        return;
    }
    const ref_ptr<Object> object(Object::load(child, m_device));
    addObject(object.get(), true);
}

} // namespace zel
