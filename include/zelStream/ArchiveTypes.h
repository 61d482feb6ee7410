#pragma once

#include <zel/Integers.h>
#include <zel/Matrix.h>
#include <zel/Quat.h>
#include <zel/Vec.h>

#include <concepts>
#include <type_traits>

namespace zelStream {

/// How a scalar value lies in an archive.
struct ScalarForm {
    enum Kind : zel::uint8 {
        Boolean,
        Character, ///< `char`; the other types of one byte are numbers
        Signed,
        Unsigned,
        Real,
        Component, ///< a real of a Vec3
    };

    Kind kind;
    zel::uint8 size;    ///< bytes
    bool isRaw = false; ///< in binary archives without its count byte
};

/// What archives take as one scalar.
template <typename T>
concept ArchiveScalar = std::integral<T> || std::same_as<T, float> || std::same_as<T, double>;

template <ArchiveScalar T>
[[nodiscard]] constexpr ScalarForm scalarFormOf() noexcept {
    static_assert(sizeof(T) <= 8);
    if constexpr (std::same_as<T, bool>)
        return {ScalarForm::Boolean, 1};
    else if constexpr (std::same_as<T, char>)
        return {ScalarForm::Character, 1};
    else if constexpr (std::floating_point<T>)
        return {ScalarForm::Real, sizeof(T)};
    else
        return {std::is_signed_v<T> ? ScalarForm::Signed : ScalarForm::Unsigned, sizeof(T)};
}

/// The numbers of the element types of vectors, as they stand in archives.
enum class VectorElement : zel::uint32 {
    Float = 0,
    Double = 1,
    Vec2f = 2,
    Vec2d = 3,
    Vec3f = 4,
    Vec3d = 5,
    Vec4f = 6,
    Vec4d = 7,
    UInt16 = 8,
};

/// Left undefined for types whose vectors archives do not take.
template <typename T>
struct VectorElementOf;
// clang-format off
template <> struct VectorElementOf<float> { static constexpr VectorElement value = VectorElement::Float; };
template <> struct VectorElementOf<double> { static constexpr VectorElement value = VectorElement::Double; };
template <> struct VectorElementOf<zel::Vec2f> { static constexpr VectorElement value = VectorElement::Vec2f; };
template <> struct VectorElementOf<zel::Vec2d> { static constexpr VectorElement value = VectorElement::Vec2d; };
template <> struct VectorElementOf<zel::Vec3f> { static constexpr VectorElement value = VectorElement::Vec3f; };
template <> struct VectorElementOf<zel::Vec3d> { static constexpr VectorElement value = VectorElement::Vec3d; };
template <> struct VectorElementOf<zel::Vec4f> { static constexpr VectorElement value = VectorElement::Vec4f; };
template <> struct VectorElementOf<zel::Vec4d> { static constexpr VectorElement value = VectorElement::Vec4d; };
template <> struct VectorElementOf<zel::uint16> { static constexpr VectorElement value = VectorElement::UInt16; };
// clang-format on

template <typename T>
concept ArchiveVectorElement = requires {
    VectorElementOf<T>::value;
};

/// Any contiguous container of such elements that can be resized: zel::Vector, zelData::Array, std::vector.
template <typename Container>
concept ArchiveVector = requires(Container& container, zel::size_t n) {
    requires ArchiveVectorElement<std::remove_cvref_t<decltype(container[n])>>;
    { container.data() } -> std::same_as<std::remove_cvref_t<decltype(container[n])>*>;
    container.resize(n);
};

/// How many components archives take of a value; 0 for types that are not taken so.
template <typename V>
inline constexpr zel::size_t NumArchiveComponents = 0;
template <typename T>
inline constexpr zel::size_t NumArchiveComponents<zel::Vec2T<T>> = 2;
template <typename T>
inline constexpr zel::size_t NumArchiveComponents<zel::Vec3T<T>> = 3;
template <typename T>
inline constexpr zel::size_t NumArchiveComponents<zel::Vec4T<T>> = 4;
template <typename T>
inline constexpr zel::size_t NumArchiveComponents<zel::QuatT<T>> = 4;
template <typename T>
inline constexpr zel::size_t NumArchiveComponents<zel::Matrix3x3T<T>> = 9;
template <typename T>
inline constexpr zel::size_t NumArchiveComponents<zel::Matrix4x4T<T>> = 16;

/// What archives take component by component, matrices row by row.
template <typename V>
concept ArchiveComponents = NumArchiveComponents<V>
!= 0;

template <ArchiveComponents V>
[[nodiscard]] constexpr ScalarForm componentFormOf() noexcept {
    using T = typename V::value_type;
    ScalarForm form = scalarFormOf<T>();
    if constexpr (std::same_as<V, zel::Vec3T<T>>)
        if (form.kind == ScalarForm::Real)
            form.kind = ScalarForm::Component;
    return form;
}

} // namespace zelStream
