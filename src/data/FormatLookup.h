#pragma once

#include <string_view>

namespace zelData {

class Format;

/// As getFormat, for a text of any kind: makes no type for a name that means nothing, and does not end the
/// process for an unknown container.
const Format* findFormat(std::string_view name);

} // namespace zelData
