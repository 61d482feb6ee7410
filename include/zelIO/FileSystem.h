#pragma once

#include <zel/Callback.h>
#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/String.h>
#include <zel/Vector.h>

#include <cstdio>

struct stat;

namespace zelIO {

using zel::String;

/// Files, directories and paths. Paths may be given with "\" as separator.
///
/// Unless told otherwise, operations that answer with a bool log a warning when they fail, and operations
/// that return data throw std::runtime_error with the text that they log.
/// @threads any thread, as far as the working directory is not changed meanwhile
class ZEL_CORE_API FileSystem {
public:
    static constexpr char UNIX_PATH_SEPARATOR[] = "/";
    static constexpr char WINDOWS_PATH_SEPARATOR[] = "\\";
    static constexpr char PATH_SEPARATOR[] = "/";
    static constexpr char DLL_SUFFIX[] = ".so";

    // Queries; they do not log.
    [[nodiscard]] static bool isLink(const String& path);
    [[nodiscard]] static bool isAbsolute(const String& path);
    [[nodiscard]] static bool exists(const String& path);
    [[nodiscard]] static bool isDir(const String& path);
    [[nodiscard]] static bool readable(const String& path);
    [[nodiscard]] static bool writeable(const String& path);
    /// The stat data of a file, of what a link points to.
    [[nodiscard]] static bool stat(const String& path, struct ::stat& data);
    /// @return in bytes
    /// @throws std::runtime_error "Could not get the size of 'PATH': " and the system's reason
    [[nodiscard]] static zel::uint64 size(const String& path);
    /// How much younger `b` is than `a`: its modification time minus that of `a`, in seconds; 0 if neither
    /// can be read, 1 if only `a` cannot and -1 if only `b` cannot.
    [[nodiscard]] static zel::int64 compareDate(const String& a, const String& b);

    [[nodiscard]] static String getSystemTmpDirectory();
    [[nodiscard]] static String getCurrentWorkingDirectory();
    static bool setCurrentWorkingDirectory(const String& path);

    // Names. They need not exist.
    [[nodiscard]] static String convertToNativeFilePath(const String& path);
    [[nodiscard]] static String convertWindowsFilePathToUnix(const String& path);
    [[nodiscard]] static String convertUnixFilePathToWindows(const String& path);
    /// For a URI in a Collada file: forward slashes only.
    [[nodiscard]] static String convertToColladaFilePath(const String& path);
    /// Everything ahead of the last separator; empty if there is none.
    [[nodiscard]] static String getPath(const String& path);
    /// What follows the last point of the file name; empty if there is none.
    [[nodiscard]] static String getFileExtension(const String& path);
    /// The file name, directories removed.
    [[nodiscard]] static String getFileWithoutExtension(const String& path);
    [[nodiscard]] static String getFileWithExtension(const String& path);
    [[nodiscard]] static String getAbsolutePath(const String& path);
    /// getPath of the absolute path.
    [[nodiscard]] static String getDirectory(const String& path);
    /// Joins and cleans: the real path if it exists; otherwise "." parts and doubled separators go, and a
    /// ".." part removes the one ahead of it. An empty side gives the other side. It is fatal if both are
    /// empty.
    [[nodiscard]] static String combinePath(const String& a, const String& b);

    // Operations.
    static bool rename(const String& from, const String& to);
    /// Mode 0755. With `recursive`, missing parents are made too and an existing directory is fine.
    static bool mkdir(const String& path, bool recursive);
    /// Calls back with the full path of each entry but ".", ".." and ".svn", in alphabetical order. Not
    /// recursive.
    static bool scan(const String& path, const zel::Callback1<const String&>& callback);
    /// Appends the files of a directory; directories are not listed, and links to directories not followed.
    static bool getFilesInDirectory(zel::Vector<String>& result, const String& path, bool recursive);
    /// Copies a file, or a directory with its content; links to directories below it are copied as links.
    static bool copy(const String& from, const String& to);
    /// Removes a file, a link or a directory, which must be empty unless `recursive`. Of a link, also with a
    /// separator behind its name, the link itself, and nothing of what it leads to.
    static bool remove(const String& path, bool recursive);
    /// Makes an empty file in the system's directory for them.
    /// @throws std::runtime_error "mktemp failed"
    [[nodiscard]] static String getTmpFilename();
    /// Makes a directory in `parent`, whose name is the prefix and six characters.
    /// @throws std::runtime_error "mkdtemp failed"
    [[nodiscard]] static String mkTmpDirectory(const String& parent, const String& prefix);
    [[nodiscard]] static String mkTmpDirectory(const String& prefix);
    /// fopen; null if it fails, without a message.
    [[nodiscard]] static std::FILE* openFile(const char* name, const char* mode);
    /// @return false if what was still buffered could not be written
    /// @throws std::runtime_error "Invalid nullptr file stream"
    static bool closeFile(std::FILE* file);
    /// The whole file.
    /// @throws std::runtime_error "IO-error while reading 'PATH': " and the system's reason
    [[nodiscard]] static String readFile(const String& path);
};

/// Reads the whole file through a stream.
/// @throws std::runtime_error "Could not open file'PATH'"
ZEL_CORE_API void readFile(String& contents, const String& path);

/// Sets a variable of the process, also if it is set already.
/// @return false, with a warning, for a name that no variable can have
/// @threads stopped only: other threads may be reading the environment
ZEL_CORE_API bool setEnvironmentVariable(const char* name, const char* value);

/// Packs files with the tool "minizip", which must be installed; an old archive is overwritten.
/// @param level  0 (store) to 9 (smallest)
/// @return whether the tool succeeded
/// @cost starts a process and waits for it
ZEL_CORE_API bool packZipFile(const String& archive, const zel::Vector<String>& files, unsigned level);
/// Unpacks into an existing directory with the tool "miniunzip", overwriting files.
ZEL_CORE_API bool unpackZipFile(const String& archive, const String& directory);

} // namespace zelIO
