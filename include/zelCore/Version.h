#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>

#include <string>

/// Packs a version so that newer versions are larger integers. Each part has 8 bits.
#define ZEL_CALC_VERSION(generation, major, minor, patch)                                                    \
    ((static_cast<::zel::uint32>(generation) << 24) | (static_cast<::zel::uint32>(major) << 16) |            \
     (static_cast<::zel::uint32>(minor) << 8) | static_cast<::zel::uint32>(patch))

#define ZEL_VERSION_GENERATION 2
#define ZEL_VERSION_MAJOR 40
#define ZEL_VERSION_MINOR 0
#define ZEL_VERSION_PATCH 0

/// The version of these headers.
#define ZEL_GET_VERSION()                                                                                    \
    ZEL_CALC_VERSION(ZEL_VERSION_GENERATION, ZEL_VERSION_MAJOR, ZEL_VERSION_MINOR, ZEL_VERSION_PATCH)

/// The version of the archive format that the library writes.
#define ZEL_SERIALIZATION_VERSION 90

/// What the library knows of its own build.
/// @threads any thread
namespace zelCore {

[[nodiscard]] ZEL_CORE_API const char* zelGetCompanyName();
[[nodiscard]] ZEL_CORE_API const char* zelGetLibraryName();

/// @param allParts  with generation, major, minor and patch ("2.40.0.0"), otherwise the first two ("2.40")
[[nodiscard]] ZEL_CORE_API std::string zelGetVersion(bool allParts);
/// The version of the library, packed by ZEL_CALC_VERSION; may differ from that of the headers.
[[nodiscard]] ZEL_CORE_API zel::uint32 zelGetVersionNumber();
[[nodiscard]] ZEL_CORE_API int zelGetSerializationVersion();

/// @param numeric  as "2024-03-01", otherwise as the compiler gives it ("Mar  1 2024")
[[nodiscard]] ZEL_CORE_API std::string zelGetBuildDate(bool numeric);
[[nodiscard]] ZEL_CORE_API const char* zelGetBuildTime();
/// The build type of the build system, such as "Release".
[[nodiscard]] ZEL_CORE_API const char* zelGetBuildType();
/// The compiler flags that were given to the build.
[[nodiscard]] ZEL_CORE_API const char* zelGetCppBuildFlags();

} // namespace zelCore
