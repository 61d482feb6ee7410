#pragma once

#include <zel/Path.h>
#include <zel/String.h>
#include <zel/Vector.h>

#include <string>

namespace zel {

/// The file of a path, without extension, below a directory that files are looked for in: "a/b" for "a.b".
[[nodiscard]] String toFileName(const Path& path);

/// For messages about something that was not found: the directories that files are looked for in, a line
/// each.
[[nodiscard]] String describeSearchPlaces();

/// What is wrong with the form of a path that is meant for a file of one of the extensions: separators, an
/// extension; empty if nothing is.
[[nodiscard]] std::string explainForm(const Path& path, const Vector<String>& extensions);

/// For a message about a path without a file of one of the extensions: " (did you mean 'PATH'?)" with one
/// beside it that has such a file, or a library if "so" is among them, or nothing.
/// @param space  a namespace that the path is looked for in as well
/// @param beside  a directory that is searched as well; may be empty
[[nodiscard]] std::string hintOfFile(const Path& path,
                                     const Vector<String>& extensions,
                                     const Path& space = Path(),
                                     const String& beside = String());

/// For a message about a model that is not there: " (did you mean 'NAME'?)" with the one in the namespace
/// whose name is beside it, or nothing.
[[nodiscard]] std::string hintOfModel(const Path& space, const Name& name);

/// What a user wants to know who names something for which there is no file of the extension: what is wrong
/// with the form, or where the file was looked for; with a hint.
[[nodiscard]] std::string explainMissingFile(const Path& path,
                                             const String& extension,
                                             const Path& space = Path(),
                                             const String& beside = String());

} // namespace zel
