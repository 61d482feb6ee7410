#include <zel/Log.h>
#include <zelIO/Environment.h>
#include <zelIO/FileSystem.h>
#include <zelIO/ResourceManager.h>

#include <algorithm>
#include <mutex>

namespace zelIO {

namespace {

void warnOfSeparator(const String& resource) {
    if (resource.find('/') == String::npos)
        return;
    static zel::RankedMutex<zel::LockRank::OnceTold> s_mutex;
    static bool s_warned = false; // guarded by s_mutex
    const std::lock_guard lock(s_mutex);
    if (!std::exchange(s_warned, true))
        ZEL_LOG_WARNING("Wrong separator '/' should be '.'");
}

String toPath(String resource) {
    std::replace(resource.begin(), resource.end(), '.', FileSystem::PATH_SEPARATOR[0]);
    return resource;
}

String findFile(const String& file, const String& resource) {
    const Environment* const environment = Environment::instance();
    String path = environment->getFilePath(Environment::PluginPath).find(file);
    if (path.empty())
        path = environment->getFilePath(Environment::ResourcePath).find(file);
    if (path.empty())
        ZEL_LOG_WARNING("Unable to find plugin for resource: '" << resource << "'");
    return path;
}

} // namespace

constinit zel::ServicePointer<ResourceManager> ResourceManager::s_instance;

ResourceManager* ResourceManager::instance() {
    return s_instance.get([] { return new ResourceManager; });
}

ResourceManager::ResourceManager() = default;

ResourceManager::~ResourceManager() {
    s_instance.forget(this);
}

void ResourceManager::shutdown() {
    s_instance.forget(this);
}

std::string ResourceManager::getClassName() const {
    return __PRETTY_FUNCTION__;
}

String ResourceManager::getFileSystemPath(const String& resource, const String& fileType) const {
    warnOfSeparator(resource);
    return findFile(toPath(resource) + fileType, resource);
}

String ResourceManager::getPluginFileSystemPath(const String& resource) const {
    warnOfSeparator(resource);
    String file = toPath(resource);
    const size_t separator = file.rfind(FileSystem::PATH_SEPARATOR);
    file.insert(separator == String::npos ? 0 : separator + 1, "lib");
    return findFile(file + FileSystem::DLL_SUFFIX, resource);
}

} // namespace zelIO
