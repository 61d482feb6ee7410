#include "Places.h"

#include <zelIO/Environment.h>
#include <zelIO/FileSystem.h>

#include <dlfcn.h>

#include <filesystem>
#include <system_error>

namespace zelIO {

namespace {

void addDirectory(FilePathContainer& container, const String& directory) {
    if (FileSystem::isDir(directory))
        container.pushbackPath(directory);
}

/// The folder with the installed model files, found from where this library lies; empty if it is not an
/// installed one.
String findInstalledData() {
    Dl_info library{};
    if (InstalledData[0] == '\0' || dladdr(&BuildRoot, &library) == 0 || library.dli_fname == nullptr)
        return {};
    std::error_code failed;
    const auto file = std::filesystem::canonical(library.dli_fname, failed);
    return failed ? String() : (file.parent_path() / InstalledData).lexically_normal().string();
}

} // namespace

constinit zel::ServicePointer<Environment> Environment::s_instance;

Environment* Environment::instance() {
    return s_instance.get([] { return new Environment; });
}

Environment::Environment() : Singleton(10000) {
    const String root = BuildRoot;
    if (!root.empty()) {
        addDirectory(getFilePath(ResourcePath), root);
        addDirectory(getFilePath(ResourcePath), root + "/data");
        addDirectory(getFilePath(ResourcePath), root + "/data/cfg");
        addDirectory(getFilePath(ComponentDevelopmentPath), root + "/Components/zel");
        addDirectory(getFilePath(PluginPath), root + "/Components/zel");
    }

    getFilePath(ResourcePath).setFromEnvironmentVariable("ZEL_FILE_PATH", false);
    getFilePath(PluginPath).setFromEnvironmentVariable("ZEL_PLUGIN_PATH", false);
    getFilePath(ComponentDevelopmentPath).setFromEnvironmentVariable("ZEL_COMPONENT_DEV_PATH", false);

    // Last, so that what the variables name goes before it.
    const String installed = findInstalledData();
    if (!installed.empty())
        for (const Type type : {ResourcePath, PluginPath})
            addDirectory(getFilePath(type), installed);
}

Environment::~Environment() {
    s_instance.forget(this);
}

void Environment::shutdown() {
    s_instance.forget(this);
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
