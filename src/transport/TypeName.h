#pragma once

#include <zel/String.h>

#include <typeinfo>

namespace zelStream {

/// The name of a type as it is written in code.
[[nodiscard]] zel::String typeName(const std::type_info& type);

} // namespace zelStream
