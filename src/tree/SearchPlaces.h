#pragma once

#include <zel/Path.h>
#include <zel/String.h>

namespace zel {

/// The file of a path, without extension, below a directory that files are looked for in: "a/b" for "a.b".
[[nodiscard]] String toFileName(const Path& path);

/// For messages about something that was not found: the directories that files are looked for in, a line
/// each.
[[nodiscard]] String describeSearchPlaces();

} // namespace zel
