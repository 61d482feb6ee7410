#include <zelIO/Environment.h>
#include <zelIO/FileSystem.h>

namespace zelIO {

namespace {

void addDirectory(FilePathContainer& container, const String& directory) {
    if (FileSystem::isDir(directory))
        container.pushbackPath(directory);
}

} // namespace

constinit Environment* Environment::s_instance = nullptr;

Environment* Environment::instance() {
    if (s_instance == nullptr)
        s_instance = new Environment;
    return s_instance;
}

Environment::Environment() : Singleton(10000) {
    const String root = ZEL_BUILD_ROOT;
    addDirectory(getFilePath(ResourcePath), root);
    addDirectory(getFilePath(ResourcePath), root + "/data");
    addDirectory(getFilePath(ResourcePath), root + "/data/cfg");
    addDirectory(getFilePath(ComponentDevelopmentPath), root + "/Components/zel");
    addDirectory(getFilePath(PluginPath), root + "/Components/zel");

    getFilePath(ResourcePath).setFromEnvironmentVariable("ZEL_FILE_PATH", false);
    getFilePath(PluginPath).setFromEnvironmentVariable("ZEL_PLUGIN_PATH", false);
    getFilePath(ComponentDevelopmentPath).setFromEnvironmentVariable("ZEL_COMPONENT_DEV_PATH", false);
}

Environment::~Environment() {
    if (s_instance == this)
        s_instance = nullptr;
}

void Environment::shutdown() {
    s_instance = nullptr;
}

std::string Environment::getClassName() const {
    return __PRETTY_FUNCTION__;
}

FilePathContainer& Environment::getFilePath(Type type) {
    return m_filePaths.at(type);
}

const FilePathContainer& Environment::getFilePath(Type type) const {
    return m_filePaths.at(type);
}

String Environment::findComponent(const String& file) const {
    const String path = getFilePath(PluginPath).find(file);
    return path.empty() ? getFilePath(PluginPath).find("Components/zel/" + file) : path;
}

void Environment::setupFromRegistry() {}

} // namespace zelIO
