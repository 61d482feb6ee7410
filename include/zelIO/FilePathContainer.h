#pragma once

#include <zel/Export.h>
#include <zel/String.h>
#include <zel/Vector.h>

namespace zelIO {

using zel::String;

/// An ordered list of directories in which files are searched.
/// @threads concurrent reads; changing the list needs an external lock
class ZEL_CORE_API FilePathContainer {
public:
    using StringList = zel::Vector<String>;

    /// Between the directories of a list in one text.
    static constexpr char ListSeparator = ':';

    FilePathContainer() = default;
    explicit FilePathContainer(const StringList& directories);

    /// Appends the parts of the text to the list; empty parts are dropped.
    static void convertStringToList(const String& text, StringList& list, char separator = ListSeparator);

    void setFilePathList(const StringList& directories);
    /// Replaces the list by that of a text.
    void setFilePath(const String& text);
    [[nodiscard]] const StringList& getFilePathList() const noexcept { return m_directories; }
    /// Appends the directories of a text.
    void addFilePath(const String& text);
    /// Removes all entries equal to the directory.
    /// @return whether there was one
    bool removeFilePath(const String& directory);
    void pushbackPath(const String& directory);
    void pushfrontPath(const String& directory);
    void clear();
    /// Keeps the first of equal entries.
    void removeDuplicates();

    /// Appends the directories of an environment variable and tells about each at level Debug.
    /// @param clear  empties the list first, if the variable is set
    void setFromEnvironmentVariable(const String& name, bool clear);
    /// The directories that the last environment variable gave.
    [[nodiscard]] const StringList& getEnvironmentPathList() const noexcept {
        return m_environmentDirectories;
    }

    /// The first existing combination of a directory and the file, in list order. An absolute name is first
    /// tried as it stands. Tells about the outcome at level Debug.
    /// @return a cleaned path; empty if there is none
    [[nodiscard]] String find(const String& file) const;

private:
    StringList m_directories;
    StringList m_environmentDirectories;
};

} // namespace zelIO
