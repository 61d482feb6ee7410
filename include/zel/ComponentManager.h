#pragma once

#include <zel/Export.h>
#include <zel/Path.h>
#include <zel/Singleton.h>
#include <zel/String.h>

namespace zel {

class Component;
class Device;

/// A class of components that lives in a plug-in, known by its path. A static object of the plug-in: it
/// enters itself when the library is loaded and leaves when it is unloaded. One of the program's own stays
/// from its constructor to its destructor, across all lives of the library. A second one of a path is refused
/// with a warning.
class ZEL_CORE_API AbstractComponentPlugin {
public:
    explicit AbstractComponentPlugin(const String& path);
    AbstractComponentPlugin(const AbstractComponentPlugin&) = delete;
    AbstractComponentPlugin& operator=(const AbstractComponentPlugin&) = delete;
    virtual ~AbstractComponentPlugin();

    [[nodiscard]] const String& getPath() const noexcept { return m_path; }
    /// @return a new component without owner
    virtual Component* create(const Name& name, Device* device) = 0;
    /// A line for people who look for a plug-in.
    [[nodiscard]] virtual String getDescription() const = 0;

private:
    String m_path;
};

/// Makes components from model files and plug-ins.
/// @threads owner thread; instance() any thread
class ZEL_CORE_API ComponentManager : public Singleton {
public:
    [[nodiscard]] static ComponentManager* instance();

    void shutdown() override;
    [[nodiscard]] std::string getClassName() const override;

    /// Makes the component that the path names: a registered plug-in class, a model file, or a class of a
    /// plug-in library, which is loaded. A model with an implementation is made by the plug-in class of that
    /// path.
    /// @return a new component without owner; null, with a warning, if there is none
    /// @throws std::runtime_error with file and row for bad content of a model file
    [[nodiscard]] Component* create(const Path& path, const Name& name, Device* device);

    /// The model file of a path; empty if there is none.
    [[nodiscard]] static String getFileSystemPath(const Path& path);
    /// The library of a path, which has "lib" before its last part; empty if there is none.
    [[nodiscard]] static String getPluginFileSystemPath(const Path& path);

    static void registerPlugin(AbstractComponentPlugin* plugin);
    static void unregisterPlugin(AbstractComponentPlugin* plugin);
    [[nodiscard]] static AbstractComponentPlugin* findPlugin(const String& path);

private:
    ComponentManager();
};

} // namespace zel
