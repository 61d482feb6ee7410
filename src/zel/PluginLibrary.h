#pragma once

#include <zel/Path.h>
#include <zel/String.h>

namespace zel {

class TaskPlugin;

/// The file of the library that holds the plug-in of a path: "libBodies.Kick.so" in one of the search paths.
/// @return empty if there is none
[[nodiscard]] String findPluginLibrary(const Path& path);

/// The plug-in of a path, whose library is loaded if need be. Under TaskManager's mutex.
/// @return null, with a warning, if there is none
[[nodiscard]] TaskPlugin* loadPlugin(const Path& path);

/// Whether the plug-in of a path is loaded, or its library is there.
[[nodiscard]] bool hasPlugin(const Path& path);

/// Forgets which libraries have been opened, since they are being closed.
void forgetPluginLibraries();

} // namespace zel
