#include "ModelPlaces.h"

#include "SearchPlaces.h"

#include <zel/HashTable.h>
#include <zelIO/FilePathContainer.h>
#include <zelIO/FileSystem.h>

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <string>

using zelIO::Environment;
using zelIO::FileSystem;

namespace zel {

namespace {

/// The places below a search directory in which the file of a model path may lie, in order.
constexpr const char* Places[] = {"Components/zel/", "", "Components/"};

/// The files that have been found, by name: what a file is by its name alone may be told in several ways.
/// Never destroyed: the model tree may end after all static objects.
constinit RankedMutex<LockRank::ModelPlaces> s_placesMutex;
HashTable<String, ModelFile>& knownPlaces() { // guarded by s_placesMutex
    static auto& places = *new HashTable<String, ModelFile>;
    return places;
}

/// Absolute, without "." and ".." parts and doubled separators; links stay, unless ".." behind one leads
/// elsewhere.
String cleanName(const String& file) {
    const String absolute = FileSystem::getAbsolutePath(file);
    String clean =
        std::filesystem::path(static_cast<const std::string&>(absolute)).lexically_normal().string();
    if (!FileSystem::exists(absolute) || isSameFile(clean, absolute))
        return clean;
    return FileSystem::combinePath(absolute, "");
}

String asFolder(const String& directory) {
    String folder = cleanName(directory);
    return folder.ends_with('/') ? folder : folder + "/";
}

bool findBelow(const String& directory, const char* place, const String& relative, String& file) {
    file = asFolder(directory) + place + relative;
    return FileSystem::exists(file);
}

/// Whether the text of the path is the name of a file below a folder, and of none outside.
bool canBeFile(const Path& path) {
    const String& text = path.str();
    return !text.empty() && text.find_first_of("/\\") == String::npos && text.find("..") == String::npos &&
           !text.starts_with('.') && !text.ends_with('.');
}

Path toPath(String relative) {
    relative.erase(std::min(relative.rfind('.'), relative.size()));
    std::replace(relative.begin(), relative.end(), '/', Path::Separator);
    return relative;
}

} // namespace

bool findInSearchPaths(const String& relative, String& file, String& root) {
    const auto* environment = Environment::instance();
    for (const auto type : {Environment::PluginPath, Environment::ResourcePath})
        for (const char* place : Places)
            for (const String& directory : environment->getFilePath(type).getFilePathList())
                if (findBelow(directory, place, relative, file)) {
                    root = directory;
                    return true;
                }
    return false;
}

bool isSameFile(const String& a, const String& b) {
    struct ::stat dataA {};
    struct ::stat dataB {};
    return FileSystem::stat(a, dataA) && FileSystem::stat(b, dataB) && dataA.st_dev == dataB.st_dev &&
           dataA.st_ino == dataB.st_ino;
}

bool findModelFile(const Path& path, const String& category, const String& root, ModelFile& result) {
    if (!canBeFile(path))
        return false;
    for (Path prefix = path; !prefix.empty(); prefix = prefix.base()) {
        const String relative = toFileName(prefix) + "." + category;
        const bool isBeside =
            !root.empty() && std::any_of(std::begin(Places), std::end(Places), [&](const char* place) {
                return findBelow(root, place, relative, result.file);
            });
        if (isBeside)
            result.root = root;
        else if (!findInSearchPaths(relative, result.file, result.root))
            continue;
        result.path = prefix;
        const std::lock_guard lock(s_placesMutex);
        knownPlaces().insert(result.file, result);
        return true;
    }
    return false;
}

bool placeModelFile(const String& file, Environment::Type type, ModelFile& result) {
    result.file = cleanName(file);
    {
        const std::lock_guard lock(s_placesMutex);
        const auto known = knownPlaces().find(result.file);
        if (known != knownPlaces().end()) {
            result = known->value;
            return true;
        }
    }
    const std::string folder = "/Components/";
    const size_t components = result.file.rfind(folder);
    if (components != String::npos) {
        const size_t begin = components + folder.size();
        const bool isInZel = result.file.compare(begin, 4, "zel/") == 0;
        result.root = result.file.substr(0, components);
        result.path = toPath(result.file.substr(isInZel ? begin + 4 : begin));
        return true;
    }
    for (const String& directory : Environment::instance()->getFilePath(type).getFilePathList()) {
        const String above = asFolder(directory);
        if (!result.file.starts_with(above))
            continue;
        result.root = directory;
        result.path = toPath(result.file.substr(above.size()));
        return true;
    }
    return false;
}

void forgetModelPlaces() {
    const std::lock_guard lock(s_placesMutex);
    knownPlaces().clear();
}

} // namespace zel
