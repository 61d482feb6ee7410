#include <zel/DynamicLibrary.h>
#include <zel/Log.h>
#include <zel/Model.h>
#include <zel/SingletonManager.h>
#include <zel/Verify.h>
#include <zelIO/FilePathContainer.h>
#include <zelIO/FileSystem.h>

#include <dlfcn.h>

#include <exception>
#include <mutex>
#include <string>

namespace zel {

namespace {

/// Taken ahead of the dynamic linker's own lock. Under that one the static objects of libraries register
/// formats and models, and models load libraries.
class LinkerLock {
    std::lock_guard<TypeSystemMutex> m_lock{getTypeSystemMutex()};
};

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
    if (m_handle != nullptr && !ClosePlugin(m_handle))
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
    const LinkerLock lock;
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

// Plug-ins

namespace {

/// Names the library while it is being opened, should one of its static objects throw: the loader of the
/// system has no way to pass an exception on.
class LoadGuard {
public:
    explicit LoadGuard(const String& path) : m_outerPath(s_path), m_outer(std::set_terminate(&terminate)) {
        s_path = path.c_str();
    }
    LoadGuard(const LoadGuard&) = delete;
    LoadGuard& operator=(const LoadGuard&) = delete;
    ~LoadGuard() {
        std::set_terminate(m_outer);
        s_path = m_outerPath;
    }

    [[noreturn]] static void terminate() {
        std::string reason = "an exception of no standard class";
        try {
            if (std::current_exception())
                std::rethrow_exception(std::current_exception());
        } catch (const std::exception& error) {
            reason = error.what();
        } catch (...) { // NOLINT(bugprone-empty-catch): the text above says so
        }
        zelAbort("Plug-in '%s' has thrown while it was loaded: %s", s_path, reason.c_str());
    }

private:
    static constinit const char* s_path;

    const char* m_outerPath;
    std::terminate_handler m_outer;
};

constinit const char* LoadGuard::s_path = "";

} // namespace

void* OpenPlugin(const String& path) {
    // Whether the exception comes out of the loader or ends in there depends on compiler and linker. Neither
    // leaves the loader in order.
    const LoadGuard guard(path);
    try {
        return DynamicLibrary::getLibraryHandle(path);
    } catch (...) {
        LoadGuard::terminate();
    }
}

void* MapPluginSymbol(void* handle, const String& name) {
    return dlsym(handle, name.c_str());
}

bool ClosePlugin(void* handle) {
    const LinkerLock lock;
    return dlclose(handle) == 0;
}

String GetPluginError() {
    return lastError();
}

} // namespace zel
