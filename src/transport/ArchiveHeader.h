#pragma once

#include <zel/Integers.h>
#include <zel/String.h>
#include <zelCore/Version.h>

#include <array>
#include <bit>

// What the two ends of an archive's header share.

namespace zelStream {

constexpr bool IsLittleEndianMachine = std::endian::native == std::endian::little;

/// The sizes of the types that an archive tells of its writer: long, pointer, int, double and float.
constexpr std::array<zel::uint8, 5> TypeSizes{
    sizeof(long), sizeof(void*), sizeof(int), sizeof(double), sizeof(float)};

/// The change after which deprecated classes bear their final names.
constexpr const char* FinalNames = "904156fd";

// What a record begins with.
constexpr zel::int32 ObjectTag = 1;
constexpr zel::int32 TypeTag = 2;

/// A compile-time choice of which archives tell.
struct ArchiveBuildFlag {
    const char* name;
    bool isOld; ///< stands in old archives alone
    bool isSet; ///< in this library
};
#ifdef __SSE2__
constexpr bool UsesSse = true;
#else
constexpr bool UsesSse = false;
#endif
#ifdef __SSE3__
constexpr bool UsesSse3 = true;
#else
constexpr bool UsesSse3 = false;
#endif
constexpr std::array<ArchiveBuildFlag, 10> ArchiveBuildFlags{{
    {"USE_64BIT_ARCHITECTURE", true, true},
    {"USE_SSE", false, UsesSse},
    {"USE_REAL_FLOAT", true, false},
    {"VIREO_USE_SSE3", false, UsesSse3},
    {"VIREO_USE_PADDING", false, true},
    {"USE_LUA", true, false},
    {"USE_OSG", false, false},
    {"UNITTEST_ENABLED", false, false},
    {"USE_PARTICLE_SYSTEM", false, false},
    {"USE_OPENCL", false, false},
}};

// The first versions with a form of the header, packed.
constexpr zel::uint32 WithBuildInfo = ZEL_CALC_VERSION(2, 0, 4, 0);
constexpr zel::uint32 WithSerializationVersion = ZEL_CALC_VERSION(2, 5, 7, 0);
constexpr zel::uint32 WithRevision = ZEL_CALC_VERSION(2, 5, 8, 0);
constexpr zel::uint32 WithTextRevision = ZEL_CALC_VERSION(2, 17, 0, 0);
constexpr zel::uint32 WithoutOldFlags = ZEL_CALC_VERSION(2, 38, 0, 0); ///< and the new order of fields

// The first serialization versions.
constexpr zel::uint16 WithUuid = 3;
constexpr zel::uint16 WithElementSize = 26;
constexpr zel::uint16 WithElementType = 28;
constexpr zel::uint16 WithDate = 81;
constexpr zel::uint16 WithModifications = 86;

} // namespace zelStream
