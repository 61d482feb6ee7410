#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/String.h>

namespace zelData {

/// How a task uses what it is given: a number whose bits are reading and writing.
namespace AccessMode {
inline constexpr zel::uint32 READ = 1;
inline constexpr zel::uint32 WRITE = 2;
inline constexpr zel::uint32 READ_WRITE = READ | WRITE;
} // namespace AccessMode

/// "READ", "WRITE" or "READ_WRITE". Another number ends the process.
/// @threads any thread
[[nodiscard]] ZEL_CORE_API const char* getAccessModeString(zel::uint32 mode);
/// The reverse. Exact and case-sensitive: another text ends the process.
/// @threads any thread
[[nodiscard]] ZEL_CORE_API zel::uint32 getAccessMode(const zel::String& text);

} // namespace zelData
