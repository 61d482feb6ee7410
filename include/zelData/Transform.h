#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Vec.h>

#include <algorithm>
#include <concepts>
#include <cstring>
#include <limits>
#include <type_traits>

/// @file
/// How elements of one format become elements of another: functions over whole runs of elements, found by a
/// pair of formats.

namespace zelData {

class Format;

/// Reads `numElements` consecutive elements of one format and writes as many of another over elements that
/// exist. With zero elements neither pointer is looked at.
using TransformFunction = void (*)(void* target, const void* source, zel::uint64 numElements);

/// Makes the function the way from the source format to the target format. A pair can be registered once, a
/// second time ends the process; only the way from a format to itself may be replaced.
/// @threads the thread that creates the formats; look-ups do not lock
ZEL_CORE_API void
registerTransformer(TransformFunction function, const Format* targetFormat, Format* sourceFormat);

/// @return null if there is no way from the one to the other
/// @threads concurrent reads
[[nodiscard]] ZEL_CORE_API TransformFunction getTransformer(const Format* targetFormat,
                                                            const Format* sourceFormat);

/// Runs the transformer of the pair, which must exist; with zero elements nothing is looked up.
/// @threads as the elements
ZEL_CORE_API void transform(void* target,
                            const Format* targetFormat,
                            const void* source,
                            const Format* sourceFormat,
                            zel::uint64 numElements);

/// A number as another arithmetic type.
///
/// Integers are cut to the width of the target, two's complement. Reals that become integers lose their
/// fraction, those outside the target's range become its nearest end, and NaN becomes 0. A double that is too
/// large for a float becomes infinite. As bool, everything but zero is true.
template <typename Target, typename Source>
[[nodiscard]] constexpr Target convertNumber(Source value) noexcept {
    if constexpr (std::is_same_v<Target, bool>) {
        return value != Source{};
    } else if constexpr (std::integral<Target> && std::floating_point<Source>) {
        using Limits = std::numeric_limits<Target>;
        if constexpr (sizeof(Target) <= 4) {
            // Both ends are exact in double, so that clamping leaves nothing to test afterwards and the loop
            // over a column stays free of branches.
            double wide = value;
            wide = wide == wide ? wide : 0.0;
            wide = wide > static_cast<double>(Limits::min()) ? wide : static_cast<double>(Limits::min());
            wide = wide < static_cast<double>(Limits::max()) ? wide : static_cast<double>(Limits::max());
            return static_cast<Target>(wide);
        } else {
            // The first value above the range: a power of two, which both real types hold.
            constexpr Source Above = Source{2} * static_cast<Source>(zel::uint64{1} << (Limits::digits - 1));
            if (!(value > static_cast<Source>(Limits::min())))
                return value != value ? Target{0} : Limits::min();
            return value < Above ? static_cast<Target>(value) : Limits::max();
        }
    } else {
        return static_cast<Target>(value);
    }
}

/// Copies elements: the transformer of every format to itself that needs no more than assignment.
template <typename T>
void GenericCopyFunction(void* target, const void* source, zel::uint64 numElements) {
    if (numElements == 0)
        return;
    if constexpr (std::is_trivially_copyable_v<T>) {
        // As for assignment from the first element on, the target may overlap the source from below.
        // NOLINTNEXTLINE(bugprone-sizeof-expression): the elements may be pointers
        std::memmove(target, source, numElements * sizeof(T));
    } else {
        T* const to = static_cast<T*>(target);
        const T* const from = static_cast<const T*>(source);
        for (zel::uint64 i = 0; i < numElements; ++i)
            to[i] = from[i];
    }
}

/// Converts elements of `Count` numbers each, number by number.
template <typename Target, typename Source, zel::size_t Count>
void TransformNumbersFunction(void* target, const void* source, zel::uint64 numElements) {
    Target* const __restrict to = static_cast<Target*>(target);
    const Source* const __restrict from = static_cast<const Source*>(source);
    const zel::uint64 numNumbers = numElements * Count;
    for (zel::uint64 i = 0; i < numNumbers; ++i)
        to[i] = convertNumber<Target>(from[i]);
}

/// Between scalars.
template <typename Target, typename Source>
void GenericTransformFunction(void* target, const void* source, zel::uint64 numElements) {
    TransformNumbersFunction<Target, Source, 1>(target, source, numElements);
}

/// Between two-vectors; Target and Source are the types of the components.
template <typename Target, typename Source>
void Transform2To2Function(void* target, const void* source, zel::uint64 numElements) {
    TransformNumbersFunction<Target, Source, 2>(target, source, numElements);
}

/// Between three-vectors of reals, whose padding zero goes along, or of integers.
template <typename Target, typename Source>
void Transform3To3Function(void* target, const void* source, zel::uint64 numElements) {
    static_assert(sizeof(zel::Vec3T<Target>) / sizeof(Target) == sizeof(zel::Vec3T<Source>) / sizeof(Source));
    TransformNumbersFunction<Target, Source, sizeof(zel::Vec3T<Target>) / sizeof(Target)>(
        target, source, numElements);
}

/// Between four-vectors.
template <typename Target, typename Source>
void Transform4To4Function(void* target, const void* source, zel::uint64 numElements) {
    TransformNumbersFunction<Target, Source, 4>(target, source, numElements);
}

/// Gives every component of a vector the value of a scalar; the padding of a vector becomes zero.
template <typename Vector, typename Source>
void WidenFunction(void* target, const void* source, zel::uint64 numElements) {
    using Target = typename Vector::value_type;
    constexpr zel::size_t Stored = sizeof(Vector) / sizeof(Target);
    Target* __restrict to = static_cast<Target*>(target);
    const Source* const __restrict from = static_cast<const Source*>(source);
    for (zel::uint64 i = 0; i < numElements; ++i, to += Stored) {
        const Target value = convertNumber<Target>(from[i]);
        for (zel::size_t k = 0; k < Stored; ++k)
            to[k] = k < Vector::Dimension ? value : Target{0};
    }
}

template <typename Target, typename Source>
void Transform1To2Function(void* target, const void* source, zel::uint64 numElements) {
    WidenFunction<zel::Vec2T<Target>, Source>(target, source, numElements);
}

template <typename Target, typename Source>
void Transform1To3Function(void* target, const void* source, zel::uint64 numElements) {
    WidenFunction<zel::Vec3T<Target>, Source>(target, source, numElements);
}

template <typename Target, typename Source>
void Transform1To4Function(void* target, const void* source, zel::uint64 numElements) {
    WidenFunction<zel::Vec4T<Target>, Source>(target, source, numElements);
}

} // namespace zelData
