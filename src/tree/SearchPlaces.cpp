#include "SearchPlaces.h"

#include "ModelPlaces.h"
#include "containers/NearName.h"

#include <zel/HashSet.h>
#include <zel/Model.h>
#include <zel/Namespace.h>
#include <zelIO/Environment.h>
#include <zelIO/FilePathContainer.h>
#include <zelIO/FileSystem.h>

#include <algorithm>
#include <filesystem>
#include <string_view>
#include <system_error>

namespace zel {

namespace {

/// In a larger directory not all names are looked at.
constexpr size_t ManyEntries = 10000;

/// Calls `visit` with each entry of a directory.
template <typename Visit>
void forEachEntry(const std::string& directory, const Visit& visit) {
    std::error_code error;
    std::filesystem::directory_iterator entry(directory, error);
    for (size_t i = 0; !error && entry != std::filesystem::directory_iterator() && i < ManyEntries; ++i) {
        visit(*entry);
        entry.increment(error);
    }
}

/// Considers the models whose files lie where that of a path would be; a folder that is not there stands for
/// the one beside it.
/// @param ahead  of the path of each model
void considerFiles(NearName& near,
                   const std::string& folder,
                   const Path& path,
                   const std::string& ahead,
                   const Vector<String>& extensions) {
    if (path.hasTail()) {
        const std::string wanted = path.root().str();
        NearName part(wanted);
        std::error_code error;
        forEachEntry(folder, [&part, &error](const std::filesystem::directory_entry& entry) {
            if (entry.is_directory(error))
                part.consider(entry.path().filename().string());
        });
        const std::string name = std::filesystem::is_directory(folder + wanted, error) ? wanted : part.get();
        if (!name.empty())
            considerFiles(near, folder + name + "/", path.tail(), ahead + name + Path::Separator, extensions);
        return;
    }
    forEachEntry(folder, [&near, &ahead, &extensions](const std::filesystem::directory_entry& entry) {
        const std::string extension = entry.path().extension().string();
        if (extension.size() > 1 && extensions.contains(String(extension.substr(1))))
            near.consider(ahead + entry.path().stem().string());
    });
}

/// Considers the plug-ins whose libraries lie in a folder: "libA.B.so" is that of the path "A.B".
void considerLibraries(NearName& near, const std::string& folder) {
    forEachEntry(folder, [&near](const std::filesystem::directory_entry& entry) {
        const std::string name = entry.path().filename().string();
        if (name.starts_with("lib") && name.ends_with(zelIO::FileSystem::DLL_SUFFIX))
            near.consider(std::string_view(name).substr(
                3, name.size() - 3 - std::string_view(zelIO::FileSystem::DLL_SUFFIX).size()));
    });
}

/// The path with its separators and without an extension.
Path wellFormed(const Path& path, const Vector<String>& extensions) {
    String text(path.str());
    for (const String& extension : extensions)
        if (text.ends_with("." + extension))
            text.resize(text.size() - extension.size() - 1);
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '/' || c == '\\'; }, Path::Separator);
    return text;
}

bool hasFile(const Path& path, const Vector<String>& extensions, const String& beside) {
    ModelFile file;
    return std::any_of(extensions.begin(), extensions.end(), [&](const String& extension) {
        return findModelFile(path, extension, beside, file) && file.path.str() == path.str();
    });
}

} // namespace

String toFileName(const Path& path) {
    String name(path.str());
    std::replace(name.begin(), name.end(), Path::Separator, '/');
    return name;
}

String describeSearchPlaces() {
    String text = ", also below 'Components/zel' and 'Components', in the directories of ZEL_PLUGIN_PATH and "
                  "ZEL_FILE_PATH:";
    HashSet<String> told;
    const auto* environment = zelIO::Environment::instance();
    for (const auto type : {zelIO::Environment::PluginPath, zelIO::Environment::ResourcePath})
        for (const String& directory : environment->getFilePath(type).getFilePathList()) {
            if (told.contains(directory))
                continue;
            told.insert(directory);
            text += "\n  " + directory;
            if (!zelIO::FileSystem::isDir(directory))
                text += " (no such directory)";
        }
    return text;
}

std::string explainForm(const Path& path, const Vector<String>& extensions) {
    if (path.str().find_first_of("/\\") != String::npos)
        return "a path is written with '.' in place of '/'";
    for (const String& extension : extensions)
        if (path.str().ends_with("." + extension))
            return "a path is written without the extension '." + extension + "'";
    return {};
}

std::string
hintOfFile(const Path& path, const Vector<String>& extensions, const Path& space, const String& beside) {
    const Path formed = wellFormed(path, extensions);
    if (formed.str() != path.str() && (hasFile(formed, extensions, beside) ||
                                       (!space.empty() && hasFile(space + formed, extensions, beside))))
        return NearName::hint(formed.str());
    NearName near(formed.str());
    NearName inSpace((space + formed).str());
    const auto* environment = zelIO::Environment::instance();
    Vector<String> directories;
    if (!beside.empty())
        directories.push_back(beside);
    for (const auto type : {zelIO::Environment::PluginPath, zelIO::Environment::ResourcePath})
        for (const String& directory : environment->getFilePath(type).getFilePathList())
            if (!directories.contains(directory))
                directories.push_back(directory);
    for (const String& directory : directories)
        for (const char* place : {"Components/zel/", "", "Components/"}) {
            const std::string folder = directory + "/" + place;
            if (!space.empty())
                considerFiles(inSpace, folder, space + formed, "", extensions);
            considerFiles(near, folder, formed, "", extensions);
            if (extensions.contains(String("so"))) {
                considerLibraries(near, folder);
                considerLibraries(inSpace, folder);
            }
        }
    if (const std::string& found = inSpace.get();
        found.starts_with(space.str() + Path::Separator) && !space.empty())
        return NearName::hint(std::string_view(found).substr(space.str().size() + 1));
    return near.hint();
}

std::string hintOfModel(const Path& space, const Name& name) {
    NearName near(name.str());
    if (const Namespace* models = Model::getNamespace(space))
        for (size_t i = 0; i < models->getNumObjects(); ++i)
            if (dynamic_cast<const Model*>(models->getObject(i)) != nullptr)
                near.consider(models->getObject(i)->getName().str());
    return near.hint();
}

std::string
explainMissingFile(const Path& path, const String& extension, const Path& space, const String& beside) {
    const Vector<String> extensions{extension};
    const std::string hint = hintOfFile(path, extensions, space, beside);
    const std::string form = explainForm(path, extensions);
    return form.empty()
               ? "looked for '" + toFileName(path) + "." + extension + "'" + hint + describeSearchPlaces()
               : form + hint;
}

} // namespace zel
