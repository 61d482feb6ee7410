#pragma once

#include <zel/Bound.h>
#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Line.h>
#include <zel/Matrix.h>
#include <zel/Name.h>
#include <zel/Plane.h>
#include <zel/Quat.h>
#include <zel/Range.h>
#include <zel/String.h>
#include <zel/Uuid.h>
#include <zel/Vec.h>

#include <algorithm>
#include <atomic>
#include <concepts>

namespace zel {
class Job;
class JobGroup;
class Object;
class RangeJob;
class SpinMutex;
class TaskJob;
} // namespace zel

namespace zelData {

class Type;

/// The name of the type that elements of a class belong to. Specialise it to bind a class of one's own:
///
///     template <> struct zelData::TypeNameOf<Colour> { static constexpr const char* name = "Colour"; };
template <typename T>
struct TypeNameOf;

namespace detail {
/// Grows by one whenever the registry is shut down, so that what was looked up before is known to be stale.
[[nodiscard]] ZEL_CORE_API zel::uint64 getTypeRegistryGeneration() noexcept;
/// The type of that name; a missing type ends the process.
[[nodiscard]] ZEL_CORE_API Type* lookUpBoundType(const char* name);

/// A text as template argument.
template <zel::size_t Size>
struct FixedText {
    consteval FixedText(const char (&text)[Size]) noexcept { std::copy_n(text, Size, characters); }
    char characters[Size]{};
};

template <FixedText text>
struct NamedType {
    static constexpr const char* name = text.characters;
};

template <typename T>
concept SignedElement = std::signed_integral<T>;
template <typename T>
concept UnsignedElement = std::unsigned_integral<T> && !std::same_as<T, bool>;
} // namespace detail

/// The type that elements of a class belong to.
/// @threads any thread
/// @cost two loads, after the first call
template <typename T>
class TypeBinding {
public:
    [[nodiscard]] static Type* getType() {
        const zel::uint64 generation = detail::getTypeRegistryGeneration();
        // Acquire: pairs with the release below, so that the type belongs to the generation.
        if (s_generation.load(std::memory_order_acquire) == generation)
            return s_type.load(std::memory_order_relaxed);
        Type* const type = detail::lookUpBoundType(TypeNameOf<T>::name);
        s_type.store(type, std::memory_order_relaxed);
        s_generation.store(generation, std::memory_order_release);
        return type;
    }

private:
    static inline std::atomic<Type*> s_type{nullptr};
    static inline std::atomic<zel::uint64> s_generation{0}; // that of the registry begins at 1
};

template <>
struct TypeNameOf<bool> : detail::NamedType<"Bool"> {};
template <typename T>
struct TypeNameOf<T*> : detail::NamedType<"Pointer"> {};
template <>
struct TypeNameOf<zel::Object*> : detail::NamedType<"ObjectPointer"> {};

// Numbers come in three families: reals, signed integers and unsigned ones.

template <std::floating_point T>
struct TypeNameOf<T> : detail::NamedType<"Real"> {};
template <detail::SignedElement T>
struct TypeNameOf<T> : detail::NamedType<"Int"> {};
template <detail::UnsignedElement T>
struct TypeNameOf<T> : detail::NamedType<"UInt"> {};

template <std::floating_point T>
struct TypeNameOf<zel::Vec2T<T>> : detail::NamedType<"Vec2"> {};
template <detail::SignedElement T>
struct TypeNameOf<zel::Vec2T<T>> : detail::NamedType<"Vec2i"> {};
template <detail::UnsignedElement T>
struct TypeNameOf<zel::Vec2T<T>> : detail::NamedType<"Vec2u"> {};

template <std::floating_point T>
struct TypeNameOf<zel::Vec3T<T>> : detail::NamedType<"Vec3"> {};
template <detail::SignedElement T>
struct TypeNameOf<zel::Vec3T<T>> : detail::NamedType<"Vec3i"> {};
template <detail::UnsignedElement T>
struct TypeNameOf<zel::Vec3T<T>> : detail::NamedType<"Vec3u"> {};

template <std::floating_point T>
struct TypeNameOf<zel::Vec4T<T>> : detail::NamedType<"Vec4"> {};
template <detail::SignedElement T>
struct TypeNameOf<zel::Vec4T<T>> : detail::NamedType<"Vec4i"> {};
template <detail::UnsignedElement T>
struct TypeNameOf<zel::Vec4T<T>> : detail::NamedType<"Vec4u"> {};

template <std::floating_point T>
struct TypeNameOf<zel::BoundT<T>> : detail::NamedType<"Bound1"> {};
template <detail::SignedElement T>
struct TypeNameOf<zel::BoundT<T>> : detail::NamedType<"Bound1i"> {};
template <detail::UnsignedElement T>
struct TypeNameOf<zel::BoundT<T>> : detail::NamedType<"Bound1u"> {};

template <std::floating_point T>
struct TypeNameOf<zel::BoundT<zel::Vec2T<T>>> : detail::NamedType<"Bound2"> {};
template <detail::SignedElement T>
struct TypeNameOf<zel::BoundT<zel::Vec2T<T>>> : detail::NamedType<"Bound2i"> {};
template <detail::UnsignedElement T>
struct TypeNameOf<zel::BoundT<zel::Vec2T<T>>> : detail::NamedType<"Bound2u"> {};

template <std::floating_point T>
struct TypeNameOf<zel::BoundT<zel::Vec3T<T>>> : detail::NamedType<"Bound3"> {};
template <detail::SignedElement T>
struct TypeNameOf<zel::BoundT<zel::Vec3T<T>>> : detail::NamedType<"Bound3i"> {};
template <detail::UnsignedElement T>
struct TypeNameOf<zel::BoundT<zel::Vec3T<T>>> : detail::NamedType<"Bound3u"> {};

template <std::floating_point T>
struct TypeNameOf<zel::QuatT<T>> : detail::NamedType<"Quat"> {};
template <std::floating_point T>
struct TypeNameOf<zel::Matrix3x3T<T>> : detail::NamedType<"Matrix3x3"> {};
template <std::floating_point T>
struct TypeNameOf<zel::Matrix4x4T<T>> : detail::NamedType<"Matrix4x4"> {};
template <std::floating_point T>
struct TypeNameOf<zel::AffineMatrix4x4T<T>> : detail::NamedType<"AffineMatrix4x4"> {};
template <std::floating_point T>
struct TypeNameOf<zel::LineT<T>> : detail::NamedType<"Line"> {};
template <std::floating_point T>
struct TypeNameOf<zel::PlaneT<T>> : detail::NamedType<"Plane"> {};
template <std::floating_point T>
struct TypeNameOf<zel::Range6T<T>> : detail::NamedType<"Range6"> {};
template <detail::UnsignedElement T>
struct TypeNameOf<zel::IndexRangeT<T>> : detail::NamedType<"IndexRange"> {};

template <>
struct TypeNameOf<zel::SPDMatrix3x3> : detail::NamedType<"SPDMatrix3x3"> {};
template <>
struct TypeNameOf<zel::Name> : detail::NamedType<"Name"> {};
template <>
struct TypeNameOf<zel::String> : detail::NamedType<"String"> {};
template <>
struct TypeNameOf<zel::Uuid> : detail::NamedType<"Uuid"> {};
template <>
struct TypeNameOf<zel::SpinMutex> : detail::NamedType<"SpinMutex"> {};
template <>
struct TypeNameOf<zel::Job> : detail::NamedType<"Job"> {};
template <>
struct TypeNameOf<zel::RangeJob> : detail::NamedType<"RangeJob"> {};
template <>
struct TypeNameOf<zel::JobGroup> : detail::NamedType<"JobGroup"> {};
template <>
struct TypeNameOf<zel::TaskJob> : detail::NamedType<"TaskJob"> {};

} // namespace zelData
