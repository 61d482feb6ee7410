#include <zel/Log.h>
#include <zelIO/FilePathContainer.h>
#include <zelIO/FileSystem.h>

#include <algorithm>
#include <cstdlib>

namespace zelIO {

namespace {

void append(FilePathContainer::StringList& list, const FilePathContainer::StringList& directories) {
    for (const String& directory : directories)
        list.push_back(directory);
}

String findIn(const FilePathContainer::StringList& directories, const String& file) {
    if (file.empty())
        return {};
    if (FileSystem::isAbsolute(file) && FileSystem::exists(file))
        return FileSystem::convertToNativeFilePath(file);
    for (const String& directory : directories) {
        String path = FileSystem::combinePath(directory, file);
        if (FileSystem::exists(path))
            return path;
    }
    return {};
}

} // namespace

FilePathContainer::FilePathContainer(const StringList& directories) : m_directories(directories) {}

void FilePathContainer::convertStringToList(const String& text, StringList& list, char separator) {
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = std::min(text.find(separator, begin), text.size());
        if (end != begin)
            list.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
}

void FilePathContainer::setFilePathList(const StringList& directories) {
    m_directories = directories;
}

void FilePathContainer::setFilePath(const String& text) {
    clear();
    addFilePath(text);
}

void FilePathContainer::addFilePath(const String& text) {
    convertStringToList(text, m_directories);
}

bool FilePathContainer::removeFilePath(const String& directory) {
    String* const end = std::remove(m_directories.begin(), m_directories.end(), directory);
    const bool found = end != m_directories.end();
    m_directories.erase(end, m_directories.end());
    return found;
}

void FilePathContainer::pushbackPath(const String& directory) {
    m_directories.push_back(directory);
}

void FilePathContainer::pushfrontPath(const String& directory) {
    m_directories.insert(m_directories.begin(), directory);
}

void FilePathContainer::clear() {
    m_directories.clear();
}

void FilePathContainer::removeDuplicates() {
    StringList unique;
    for (const String& directory : m_directories)
        if (!unique.contains(directory))
            unique.push_back(directory);
    m_directories = std::move(unique);
}

void FilePathContainer::setFromEnvironmentVariable(const String& name, bool clearFirst) {
    const char* const text = std::getenv(name.c_str());
    if (text == nullptr)
        return;
    if (clearFirst)
        clear();
    m_environmentDirectories.clear();
    convertStringToList(text, m_environmentDirectories);
    append(m_directories, m_environmentDirectories);

    ZEL_LOG_DEBUG("Env: " << name);
    for (const String& directory : m_environmentDirectories)
        ZEL_LOG_DEBUG("  " << directory << " " << (FileSystem::readable(directory) ? "ok" : "non-readable"));
}

String FilePathContainer::find(const String& file) const {
    String path = findIn(m_directories, file);
    if (path.empty())
        ZEL_LOG_DEBUG("No matching file found: " << file);
    else
        ZEL_LOG_DEBUG("Found " << path << "!");
    return path;
}

} // namespace zelIO
