#include <zel/Component.h>
#include <zel/ComponentManager.h>
#include <zel/Device.h>
#include <zel/DynamicLibrary.h>
#include <zel/HashTable.h>
#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/ServicePointer.h>
#include <zelIO/FilePathContainer.h>
#include <zelIO/ResourceManager.h>

namespace zel {

namespace {

constinit ServicePointer<ComponentManager> s_componentManager;

/// Made by the first static plug-in, and never destroyed: those may be the last to go.
HashTable<String, AbstractComponentPlugin*>& plugins() {
    static auto& table = *new HashTable<String, AbstractComponentPlugin*>;
    return table;
}

} // namespace

AbstractComponentPlugin::AbstractComponentPlugin(const String& path) : m_path(path) {
    ComponentManager::registerPlugin(this);
}

AbstractComponentPlugin::~AbstractComponentPlugin() {
    ComponentManager::unregisterPlugin(this);
}

ComponentManager::ComponentManager() = default;

ComponentManager* ComponentManager::instance() {
    return s_componentManager.get([] { return new ComponentManager; });
}

void ComponentManager::shutdown() {
    s_componentManager.forget(this);
}

std::string ComponentManager::getClassName() const {
    return __PRETTY_FUNCTION__;
}

void ComponentManager::registerPlugin(AbstractComponentPlugin* plugin) {
    if (plugins().contains(plugin->getPath()))
        ZEL_LOG_WARNING("There is a plug-in for the path '" << plugin->getPath() << "' already");
    else
        plugins().insert(plugin->getPath(), plugin);
}

void ComponentManager::unregisterPlugin(AbstractComponentPlugin* plugin) {
    if (findPlugin(plugin->getPath()) == plugin)
        plugins().erase(plugin->getPath());
}

AbstractComponentPlugin* ComponentManager::findPlugin(const String& path) {
    const auto position = plugins().find(path);
    return position == plugins().end() ? nullptr : position->value;
}

String ComponentManager::getFileSystemPath(const Path& path) {
    String file;
    Path remainder;
    return Model::getDiskPath(path, file, remainder, "zelComponent") ? file : String();
}

String ComponentManager::getPluginFileSystemPath(const Path& path) {
    return zelIO::ResourceManager::instance()->getPluginFileSystemPath(path.str());
}

Component* ComponentManager::create(const Path& path, const Name& name, Device* device) {
    if (path.str().find('/') != std::string::npos) {
        ZEL_LOG_WARNING("Wrong separator '/' should be '.'");
        return nullptr;
    }
    if (AbstractComponentPlugin* plugin = findPlugin(path.str()))
        return plugin->create(name, device);
    if (!getFileSystemPath(path).empty())
        return Component::load(path, name, device);
    // The resource manager names the resource when there is no library for it.
    const String library = getPluginFileSystemPath(path);
    if (library.empty())
        return nullptr;
    const ref_ptr<DynamicLibrary> loaded(DynamicLibrary::loadLibrary(library, zelIO::FilePathContainer()));
    AbstractComponentPlugin* plugin = loaded ? findPlugin(path.str()) : nullptr;
    if (plugin == nullptr) {
        ZEL_LOG_WARNING("Unable to find plugin for resource: '" << path << "'");
        return nullptr;
    }
    return plugin->create(name, device);
}

} // namespace zel
