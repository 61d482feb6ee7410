#pragma once

#include <zel/Export.h>
#include <zel/Referenced.h>
#include <zel/String.h>

namespace zelIO {
class FilePathContainer;
} // namespace zelIO

namespace zel {

/// A shared library opened at run time. The SingletonManager keeps each one loaded until all services are
/// gone; the library is closed when nobody holds the object any more.
/// @threads owner thread
class ZEL_CORE_API DynamicLibrary : public Referenced {
public:
    /// Adopts a handle of dlopen and registers with the SingletonManager.
    DynamicLibrary(const String& path, void* handle);
    DynamicLibrary(const DynamicLibrary&) = delete;
    DynamicLibrary& operator=(const DynamicLibrary&) = delete;
    ~DynamicLibrary() override;

    /// Finds a library in the directories of the container and opens it.
    /// @param name  gets the suffix ".so" unless it has it
    /// @return the library, owned by the SingletonManager; null, with a warning, if it is not found or cannot
    /// be
    ///     opened
    static DynamicLibrary* loadLibrary(const String& name, const zelIO::FilePathContainer& directories);

    /// Opens a library.
    /// @return the handle of dlopen; null, with dlerror() telling why, if that fails
    [[nodiscard]] static void* getLibraryHandle(const String& path);

    /// @return the address of a symbol; null, with a warning, if there is none
    [[nodiscard]] void* getProcAddress(const String& name) const;

    [[nodiscard]] const String& getPath() const noexcept { return m_path; }
    [[nodiscard]] void* getHandle() const noexcept { return m_handle; }

private:
    String m_path;
    void* m_handle;
};

/// Opens a library, as DynamicLibrary::getLibraryHandle. One whose static objects throw can not be recovered
/// from: the process ends, and the library is named.
[[nodiscard]] ZEL_CORE_API void* OpenPlugin(const String& path);
/// @return the address of a symbol of the library; null if there is none
[[nodiscard]] ZEL_CORE_API void* MapPluginSymbol(void* handle, const String& name);
/// @return whether the handle could be closed
ZEL_CORE_API bool ClosePlugin(void* handle);
/// Why the last of these calls on this thread failed; empty if none did since the last question.
[[nodiscard]] ZEL_CORE_API String GetPluginError();

} // namespace zel
