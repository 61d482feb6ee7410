#include "Ascii.h"
#include "BuiltinFormats.h"
#include "FormatFamily.h"

#include <zel/Bound.h>

#include <array>

namespace zelData {

/// Both corners of a bound are padded like vectors.
template <std::floating_point T>
inline constexpr unsigned int detail::paddingOf<zel::BoundT<zel::Vec3T<T>>> = 1;

namespace {

// Bounds of integers are written as reals as well, "1.000000:2.000000", and so they are read.

template <typename Bound>
void writeBound(zel::String& text, const Bound& bound) {
    using Traits = zel::detail::BoundTraits<typename Bound::value_type>;
    constexpr zel::size_t N = Bound::Dimension;
    std::array<double, 2 * N> values{};
    for (zel::size_t i = 0; i < N; ++i) {
        values[i] = static_cast<double>(Traits::at(bound.minimum(), i));
        values[N + i] = static_cast<double>(Traits::at(bound.maximum(), i));
    }
    AsciiText().join(values.data(), N, ",").text(":").join(values.data() + N, N, ",").assignTo(text);
}

template <typename Bound>
void readBound(Bound& bound, const zel::String& text) {
    using Corner = typename Bound::value_type;
    using Traits = zel::detail::BoundTraits<Corner>;
    constexpr zel::size_t N = Bound::Dimension;
    std::array<PrimitiveOf<Bound>, 2 * N> values{};
    readNumbers<double>(text, values.data(), 2 * N);
    Corner minimum{};
    Corner maximum{};
    for (zel::size_t i = 0; i < N; ++i) {
        Traits::at(minimum, i) = values[i];
        Traits::at(maximum, i) = values[N + i];
    }
    bound = Bound(minimum, maximum);
}

template <typename T>
using Bound1 = zel::BoundT<T>;
template <typename T>
using Bound2 = zel::BoundT<zel::Vec2T<T>>;
template <typename T>
using Bound3 = zel::BoundT<zel::Vec3T<T>>;

template <template <typename> class Bound, typename Narrow, typename Wide>
void createBoundFormats(const char* name) {
    Type* type = getOrCreateType(name);
    const NumericFormats<Bound<Narrow>, Bound<Wide>> formats(type);
    Format* ascii = addTextFormat(type, "ascii");
    formats.forEach([ascii]<typename B>(Format* format) {
        registerAscii<B, &writeBound<B>, &readBound<B>>(ascii, format);
    });
}

} // namespace

void createBound1Formats() {
    createBoundFormats<Bound1, float, double>("Bound1");
}
void createBound2Formats() {
    createBoundFormats<Bound2, float, double>("Bound2");
}
void createBound3Formats() {
    createBoundFormats<Bound3, float, double>("Bound3");
}
void createBound1iFormats() {
    createBoundFormats<Bound1, zel::int32, zel::int64>("Bound1i");
}
void createBound2iFormats() {
    createBoundFormats<Bound2, zel::int32, zel::int64>("Bound2i");
}
void createBound3iFormats() {
    createBoundFormats<Bound3, zel::int32, zel::int64>("Bound3i");
}
void createBound1uFormats() {
    createBoundFormats<Bound1, zel::uint32, zel::uint64>("Bound1u");
}
void createBound2uFormats() {
    createBoundFormats<Bound2, zel::uint32, zel::uint64>("Bound2u");
}
void createBound3uFormats() {
    createBoundFormats<Bound3, zel::uint32, zel::uint64>("Bound3u");
}

} // namespace zelData
