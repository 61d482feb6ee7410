#include "ArchiveFile.h"

#include <zelIO/FileSystem.h>
#include <zelStream/XMLInputArchive.h>

#include <sys/stat.h>

#include <stdexcept>

namespace tool {

namespace {

/// Whether a document begins here; the stream stays where it is.
bool isXml(std::istream& stream) {
    std::string start(64, '\0');
    stream.read(start.data(), static_cast<std::streamsize>(start.size()));
    start.resize(static_cast<std::size_t>(stream.gcount()));
    stream.clear();
    stream.seekg(0);
    if (start.starts_with("\xef\xbb\xbf"))
        start.erase(0, 3);
    const std::size_t first = start.find_first_not_of(" \t\r\n");
    return first != std::string::npos && start[first] == '<';
}

} // namespace

ArchiveFile::ArchiveFile(const std::string& path) : m_path(path) {
    if (!zelIO::FileSystem::exists(path))
        throw std::runtime_error(path + ": there is no such file");
    struct ::stat status {};
    if (!zelIO::FileSystem::stat(path, status) || !S_ISREG(status.st_mode))
        throw std::runtime_error(path + " is no regular file"); // opening a pipe would wait for its writer
    m_stream.open(path, std::ios::binary);
    if (!m_stream)
        throw std::runtime_error(path + " can not be opened");
    m_stream.seekg(0, std::ios::end);
    m_size = static_cast<unsigned long>(m_stream.tellg());
    m_stream.seekg(0);
    if (isXml(m_stream))
        m_archive = std::make_unique<zelStream::XMLInputArchive>();
    else
        m_archive = std::make_unique<zelStream::InputArchive>();
    try {
        m_archive->open(m_stream);
    } catch (const zelStream::ArchiveException& exception) {
        throw std::runtime_error(path + ": " + exception.what());
    }
}

zel::Vector<zelStream::Serializable*> ArchiveFile::readObjects() {
    zel::Vector<zelStream::Serializable*> objects;
    try {
        while (!m_archive->isAtEnd())
            objects.push_back(m_archive->readObjectByRef());
    } catch (const zelStream::ArchiveException& exception) {
        throw std::runtime_error(
            m_path + ": " + exception.what() +
            "\nThe objects can only be read with their classes, which are looked for in the libraries of "
            "ZEL_PLUGIN_PATH and of --path, by the first namespace of their names; and they have to stand "
            "one "
            "after the other, each stored by reference.");
    }
    return objects;
}

} // namespace tool
