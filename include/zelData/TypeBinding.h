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

// Numbers come in three families: reals, signed integers and unsigned ones.

template <typename T>
struct TypeNameOf<T*> {
    static constexpr const char* name = "Pointer";
};
template <>
struct TypeNameOf<zel::Object*> {
    static constexpr const char* name = "ObjectPointer";
};
template <>
struct TypeNameOf<bool> {
    static constexpr const char* name = "Bool";
};
template <std::floating_point T>
struct TypeNameOf<T> {
    static constexpr const char* name = "Real";
};
template <detail::SignedElement T>
struct TypeNameOf<T> {
    static constexpr const char* name = "Int";
};
template <detail::UnsignedElement T>
struct TypeNameOf<T> {
    static constexpr const char* name = "UInt";
};

#define ZEL_TYPE_NAME_OF_FAMILY(Class, text)                                                                 \
    template <std::floating_point T>                                                                         \
    struct TypeNameOf<Class<T>> {                                                                            \
        static constexpr const char* name = text;                                                            \
    };                                                                                                       \
    template <detail::SignedElement T>                                                                       \
    struct TypeNameOf<Class<T>> {                                                                            \
        static constexpr const char* name = text "i";                                                        \
    };                                                                                                       \
    template <detail::UnsignedElement T>                                                                     \
    struct TypeNameOf<Class<T>> {                                                                            \
        static constexpr const char* name = text "u";                                                        \
    }
ZEL_TYPE_NAME_OF_FAMILY(zel::Vec2T, "Vec2");
ZEL_TYPE_NAME_OF_FAMILY(zel::Vec3T, "Vec3");
ZEL_TYPE_NAME_OF_FAMILY(zel::Vec4T, "Vec4");
#undef ZEL_TYPE_NAME_OF_FAMILY

#define ZEL_TYPE_NAME_OF_BOUND(dimension, ...)                                                               \
    template <std::floating_point T>                                                                         \
    struct TypeNameOf<zel::BoundT<__VA_ARGS__>> {                                                            \
        static constexpr const char* name = "Bound" dimension;                                               \
    };                                                                                                       \
    template <detail::SignedElement T>                                                                       \
    struct TypeNameOf<zel::BoundT<__VA_ARGS__>> {                                                            \
        static constexpr const char* name = "Bound" dimension "i";                                           \
    };                                                                                                       \
    template <detail::UnsignedElement T>                                                                     \
    struct TypeNameOf<zel::BoundT<__VA_ARGS__>> {                                                            \
        static constexpr const char* name = "Bound" dimension "u";                                           \
    }
ZEL_TYPE_NAME_OF_BOUND("1", T);
ZEL_TYPE_NAME_OF_BOUND("2", zel::Vec2T<T>);
ZEL_TYPE_NAME_OF_BOUND("3", zel::Vec3T<T>);
#undef ZEL_TYPE_NAME_OF_BOUND

#define ZEL_TYPE_NAME_OF_TEMPLATE(Class, Concept, text)                                                      \
    template <Concept T>                                                                                     \
    struct TypeNameOf<Class<T>> {                                                                            \
        static constexpr const char* name = text;                                                            \
    }
ZEL_TYPE_NAME_OF_TEMPLATE(zel::QuatT, std::floating_point, "Quat");
ZEL_TYPE_NAME_OF_TEMPLATE(zel::Matrix3x3T, std::floating_point, "Matrix3x3");
ZEL_TYPE_NAME_OF_TEMPLATE(zel::Matrix4x4T, std::floating_point, "Matrix4x4");
ZEL_TYPE_NAME_OF_TEMPLATE(zel::AffineMatrix4x4T, std::floating_point, "AffineMatrix4x4");
ZEL_TYPE_NAME_OF_TEMPLATE(zel::LineT, std::floating_point, "Line");
ZEL_TYPE_NAME_OF_TEMPLATE(zel::PlaneT, std::floating_point, "Plane");
ZEL_TYPE_NAME_OF_TEMPLATE(zel::Range6T, std::floating_point, "Range6");
ZEL_TYPE_NAME_OF_TEMPLATE(zel::IndexRangeT, detail::UnsignedElement, "IndexRange");
#undef ZEL_TYPE_NAME_OF_TEMPLATE

#define ZEL_TYPE_NAME_OF(Class, text)                                                                        \
    template <>                                                                                              \
    struct TypeNameOf<Class> {                                                                               \
        static constexpr const char* name = text;                                                            \
    }
ZEL_TYPE_NAME_OF(zel::SPDMatrix3x3, "SPDMatrix3x3");
ZEL_TYPE_NAME_OF(zel::Name, "Name");
ZEL_TYPE_NAME_OF(zel::String, "String");
ZEL_TYPE_NAME_OF(zel::Uuid, "Uuid");
ZEL_TYPE_NAME_OF(zel::SpinMutex, "SpinMutex");
ZEL_TYPE_NAME_OF(zel::RangeJob, "RangeJob");
ZEL_TYPE_NAME_OF(zel::JobGroup, "JobGroup");
ZEL_TYPE_NAME_OF(zel::TaskJob, "TaskJob");
ZEL_TYPE_NAME_OF(zel::Job, "Job");
#undef ZEL_TYPE_NAME_OF

} // namespace zelData
