#include <zel/DynamicLibrary.h>
#include <zel/Log.h>
#include <zel/SingletonManager.h>
#include <zelIO/FilePathContainer.h>
#include <zelIO/FileSystem.h>

#include <dlfcn.h>

namespace zel {

namespace {

const char* lastError() {
    const char* error = dlerror();
    return error != nullptr ? error : "";
}

} // namespace

DynamicLibrary::DynamicLibrary(const String& path, void* handle) : m_path(path), m_handle(handle) {
    if (SingletonManager* manager = SingletonManager::instance())
        manager->registerDynamicLibrary(this);
}

DynamicLibrary::~DynamicLibrary() {
    if (m_handle != nullptr && dlclose(m_handle) != 0)
        ZEL_LOG_WARNING("Could not close library '" << m_path << "': " << lastError());
}

DynamicLibrary* DynamicLibrary::loadLibrary(const String& name, const zelIO::FilePathContainer& directories) {
    String file = name;
    if (!file.ends_with(zelIO::FileSystem::DLL_SUFFIX))
        file += zelIO::FileSystem::DLL_SUFFIX;
    const String path = directories.find(file);
    if (path.empty()) {
        ZEL_LOG_WARNING("[DynamicLibrary::loadLibrary()]: Could not find library '" << file << "'");
        return nullptr;
    }
    void* const handle = getLibraryHandle(path);
    if (handle == nullptr) {
        ZEL_LOG_WARNING("[DynamicLibrary::loadLibrary()]: " << lastError());
        return nullptr;
    }
    return new DynamicLibrary(path, handle);
}

void* DynamicLibrary::getLibraryHandle(const String& path) {
    // Unresolved symbols show at once, and plug-ins do not see each other's symbols.
    return dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
}

void* DynamicLibrary::getProcAddress(const String& name) const {
    if (m_handle == nullptr)
        return nullptr;
    void* const address = dlsym(m_handle, name.c_str());
    if (address == nullptr) {
        const String error = lastError();
        ZEL_LOG_WARNING("Failed looking up " << name);
        ZEL_LOG_WARNING("Error " << error);
    }
    return address;
}

} // namespace zel
