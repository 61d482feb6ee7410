#pragma once

#include <zel/Vector.h>
#include <zelStream/InputArchive.h>

#include <fstream>
#include <memory>
#include <string>

namespace tool {

/// An archive in a file, in either form.
class ArchiveFile {
public:
    /// Reads the header.
    /// @throws std::runtime_error
    explicit ArchiveFile(const std::string& path);

    [[nodiscard]] zelStream::InputArchive& archive() { return *m_archive; }
    [[nodiscard]] unsigned long size() const { return m_size; }

    /// Restores the objects that stand in the archive one after the other, up to its end. They live as long
    /// as this does; null for one that was stored as null.
    /// @throws std::runtime_error that names a class that can not be loaded, or what else is wrong
    [[nodiscard]] zel::Vector<zelStream::Serializable*> readObjects();

private:
    std::string m_path;
    unsigned long m_size = 0;
    std::ifstream m_stream;
    std::unique_ptr<zelStream::InputArchive> m_archive;
};

} // namespace tool
