#pragma once

#include <zel/String.h>

#include <string>

namespace zel {

/// For a message about a tag without a load function: " (did you mean 'TAG'?)" with the one beside it, or
/// nothing.
[[nodiscard]] std::string hintOfTag(const String& tag);

} // namespace zel
