#pragma once

#include <zel/Path.h>

#include <string>

namespace zel {

class Object;

/// For a message about a path that leads nowhere: " (did you mean 'PATH'?)", if one of its parts has a name
/// beside it that leads somewhere, or nothing.
/// @param scope  the innermost object in which the path is looked up; may be null
[[nodiscard]] std::string hintOfPath(Object* scope, const Path& path);

} // namespace zel
