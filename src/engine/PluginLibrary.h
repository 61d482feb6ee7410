#pragma once

#include <zel/Name.h>
#include <zel/Path.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>

namespace zel {

class Device;
class Task;
class TaskPlugin;
class TaskPluginImplementation;

/// The file of the library that holds the plug-in of a path: "libBodies.Kick.so" in one of the search paths.
/// @return empty if there is none
[[nodiscard]] String findPluginLibrary(const Path& path);

/// The plug-in of a path, whose library is loaded if need be. Under TaskManager's mutex.
/// @param failure  set to the reason if there is none
/// @return null if there is none
[[nodiscard]] TaskPlugin* loadPlugin(const Path& path, String& failure);

/// While it lives, this thread loads no plug-in that is not in a search path: for names that others send.
class SearchPathsOnly {
public:
    SearchPathsOnly() noexcept;
    SearchPathsOnly(const SearchPathsOnly&) = delete;
    SearchPathsOnly& operator=(const SearchPathsOnly&) = delete;
    ~SearchPathsOnly();

private:
    bool m_outer;
};

/// Whether the plug-in of a path is loaded, or its library is there.
[[nodiscard]] bool hasPlugin(const Path& path);

/// Whether the file has been opened as a library.
[[nodiscard]] bool isPluginLibraryOpen(const String& file);

/// The files that have been opened as libraries, in alphabetical order. Takes TaskManager's mutex.
[[nodiscard]] Vector<String> listPluginLibraries();

/// What the exception that is being handled says. To be called from a handler of all exceptions.
/// @throws what unwinds a thread that is cancelled, and is no exception
[[nodiscard]] String whatIsThrown();

/// Makes the implementation's task. It may throw whatever it likes: then there is none.
/// @param failure  set to what it has thrown
/// @return null if there is none
[[nodiscard]] ref_ptr<Task> createImplementation(TaskPluginImplementation& implementation,
                                                 const Name& name,
                                                 Device* device,
                                                 String& failure);

/// Forgets which libraries have been opened, since they are being closed.
void forgetPluginLibraries();

} // namespace zel
