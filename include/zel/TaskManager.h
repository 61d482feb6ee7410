#pragma once

#include <zel/Export.h>
#include <zel/HashTable.h>
#include <zel/LockRank.h>
#include <zel/ParameterTable.h>
#include <zel/Path.h>
#include <zel/Singleton.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zel/Xml.h>

namespace zel {

class Device;
class Name;
class ParameterBinding;
class Task;
class TaskPlugin;

/// Makes tasks by their paths: from plug-in libraries, which it loads, and from the description files of
/// kernels and tasks.
///
/// The path "Bodies.Kick" is the library "libBodies.Kick.so" and the files "Bodies/Kick.zelKernel" and
/// "Bodies/Kick.zelTask", looked for as model files are.
/// @threads any thread, one at a time: everything runs under the mutex of the type system
class ZEL_CORE_API TaskManager : public Singleton {
public:
    [[nodiscard]] static TaskManager* instance();

    void shutdown() override;
    [[nodiscard]] std::string getClassName() const override;

    /// Makes the implementation of a path that fits the parameters.
    /// @param device      on which the task is to run; null for the CPU device
    /// @param parameters  what the caller binds, by the names of the task's parameters; empty fits any
    /// @param name        of the new task
    /// @return a new task without owner; null, with a warning, if there is none
    /// @throws std::runtime_error with file and row for bad content of a description file
    [[nodiscard]] Task*
    create(const Path& path, Device* device, const ParameterTable& parameters, const Name& name);
    /// The same without bindings: the first implementation.
    [[nodiscard]] Task* create(const Path& path, Device* device, const Name& name);
    /// The same on the CPU device, with bindings by position.
    [[nodiscard]] Task* create(const Path& path, const Name& name, Vector<ParameterBinding>& bindings);

    /// Finds the description file of a path: below each directory of the plug-in and then the resource path,
    /// for the path and then for its prefixes.
    /// @param category  the file extension, "zelKernel" or "zelTask"
    /// @return empty, with a warning, if there is none
    [[nodiscard]] static String getFileSystemPath(const Path& path, const String& category);
    /// The name of the library file of a path, such as "libBodies.Kick.so".
    [[nodiscard]] static String getPluginPath(const Path& path);
    /// Reads a top-level element beside the wanted one of a description file.
    static void loadCallback(TiXmlElement* element);

    /// The plug-ins that are loaded, by their paths.
    [[nodiscard]] static HashTable<String, TaskPlugin*>& pluginTable();
    /// Guards the loading of plug-ins and the list of retained tasks. It is the mutex of the type system, and
    /// recursive: a task may make others. The constructors of tasks run under it, and may not wait for work
    /// of other threads that looks types or models up.
    [[nodiscard]] static TypeSystemMutex& getMutex();

private:
    TaskManager();
};

} // namespace zel
