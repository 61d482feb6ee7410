#pragma once

#include <zel/Path.h>
#include <zel/String.h>
#include <zel/Vector.h>
#include <zelIO/Environment.h>

namespace zel {

/// A model file, and what it is by the place where it lies. Links are not followed: a folder that is linked
/// to another one makes models of its own.
struct ModelFile {
    String file; ///< absolute, without "." and ".." parts
    String root; ///< the folder that the file was looked for in, or the one above "Components"
    Path path;   ///< the file's name as a model path; its models live in the namespace of it
};

/// Finds a file below the search directories: of ZEL_PLUGIN_PATH ahead of ZEL_FILE_PATH, and in each of these
/// first below "Components/zel", then as it is, then below "Components". Says nothing in the log: it is asked
/// often.
/// @param root  set to the search directory
[[nodiscard]] bool findInSearchPaths(const String& relative, String& file, String& root);

/// Finds the file of the longest prefix of a model path.
/// @param category  the file extension
/// @param root      a folder to look in ahead of the search paths; may be empty
[[nodiscard]] bool
findModelFile(const Path& path, const String& category, const String& root, ModelFile& result);

/// Tells what a file is by its place.
/// @param type  the search directories that it may lie in
/// @return false if it lies neither there nor below a folder "Components"
[[nodiscard]] bool placeModelFile(const String& file, zelIO::Environment::Type type, ModelFile& result);

/// Whether both names lead to one file.
[[nodiscard]] bool isSameFile(const String& a, const String& b);

/// The model files that have been read, in alphabetical order.
[[nodiscard]] Vector<String> listModelFiles();

/// Forgets which files have been found.
void forgetModelPlaces();

} // namespace zel
