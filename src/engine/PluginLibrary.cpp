#include "PluginLibrary.h"

#include "tree/ModelPlaces.h"

#include <zel/DynamicLibrary.h>
#include <zel/HashSet.h>
#include <zel/Task.h>
#include <zel/TaskManager.h>
#include <zel/TaskPlugin.h>
#include <zel/ref_ptr.h>

#include <algorithm>
#include <exception>
#include <mutex>

namespace zel {

namespace {

/// The libraries that have been opened; guarded by TaskManager's mutex.
HashSet<String>& openedLibraries() {
    static auto& libraries = *new HashSet<String>;
    return libraries;
}

TaskPlugin* findPlugin(const Path& path) {
    const auto position = TaskManager::pluginTable().find(path.str());
    return position == TaskManager::pluginTable().end() ? nullptr : position->value;
}

thread_local bool t_searchPathsOnly = false;

} // namespace

SearchPathsOnly::SearchPathsOnly() noexcept : m_outer(t_searchPathsOnly) {
    t_searchPathsOnly = true;
}

SearchPathsOnly::~SearchPathsOnly() {
    t_searchPathsOnly = m_outer;
}

String findPluginLibrary(const Path& path) {
    String file;
    String root;
    return findInSearchPaths(TaskManager::getPluginPath(path), file, root) ? file : String();
}

bool hasPlugin(const Path& path) {
    return findPlugin(path) != nullptr || !findPluginLibrary(path).empty();
}

TaskPlugin* loadPlugin(const Path& path, String& failure) {
    if (TaskPlugin* const plugin = findPlugin(path))
        return plugin;
    String file = findPluginLibrary(path);
    if (file.empty() && t_searchPathsOnly) {
        failure = "Could not find plugin '" + path.str() + "' in the search paths";
        return nullptr;
    }
    if (file.empty())
        file =
            TaskManager::getPluginPath(path); // where the system looks for libraries, if it is there at all
    if (!openedLibraries().contains(file)) {
        void* const handle = OpenPlugin(file);
        if (handle == nullptr) {
            failure = "Could not load plugin '" + path.str() + "': " + GetPluginError();
            return nullptr;
        }
        new DynamicLibrary(file,
                           handle); // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks): the manager owns it
        openedLibraries().insert(file);
    }
    TaskPlugin* const plugin = findPlugin(path);
    if (plugin == nullptr)
        failure = "Library '" + file + "' holds no plug-in '" + path.str() + "'";
    return plugin;
}

bool isPluginLibraryOpen(const String& file) {
    return openedLibraries().contains(file);
}

Vector<String> listPluginLibraries() {
    const std::lock_guard lock(TaskManager::getMutex());
    Vector<String> files;
    for (const String& file : openedLibraries())
        files.push_back(file);
    std::sort(files.begin(), files.end());
    return files;
}

String whatIsThrown() {
    if (!std::current_exception())
        throw; // a cancelled thread unwinds
    try {
        throw;
    } catch (const std::exception& error) {
        try {
            std::rethrow_if_nested(error);
        } catch (...) {
            return whatIsThrown(); // the innermost reason
        }
        return error.what();
    } catch (...) {
        return "an exception of an unknown type";
    }
}

ref_ptr<Task> createImplementation(TaskPluginImplementation& implementation,
                                   const Name& name,
                                   Device* device,
                                   String& failure) {
    try {
        return ref_ptr<Task>(implementation.create(name, device));
    } catch (...) {
        failure = whatIsThrown();
        if (failure.empty())
            failure = "an exception without a text";
        return nullptr;
    }
}

void forgetPluginLibraries() {
    openedLibraries().clear();
}

} // namespace zel
