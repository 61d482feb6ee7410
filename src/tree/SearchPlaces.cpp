#include "SearchPlaces.h"

#include <zel/HashSet.h>
#include <zelIO/Environment.h>
#include <zelIO/FilePathContainer.h>
#include <zelIO/FileSystem.h>

#include <algorithm>

namespace zel {

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

} // namespace zel
