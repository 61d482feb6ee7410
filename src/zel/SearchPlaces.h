#pragma once

#include <zel/String.h>

namespace zel {

/// For messages about something that was not found: the directories that files are looked for in, a line
/// each.
[[nodiscard]] String describeSearchPlaces();

} // namespace zel
