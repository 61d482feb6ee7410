#include "Ascii.h"
#include "BuiltinFormats.h"
#include "FormatFamily.h"

#include <zel/Line.h>
#include <zel/Plane.h>
#include <zel/Range.h>

#include <array>

namespace zelData {

/// The end of a line is padded like a vector.
template <std::floating_point T>
inline constexpr unsigned int detail::paddingOf<zel::LineT<T>> = 1;

namespace {

template <typename T>
void writeLine(zel::String& text, const zel::LineT<T>& line) {
    AsciiText()
        .join(line.start().data(), 3, ", ")
        .text(" -> ")
        .join(line.end().data(), 3, ", ")
        .assignTo(text);
}

template <typename T>
void readLine(zel::LineT<T>& line, const zel::String& text) {
    std::array<T, 6> v{};
    readNumbers<double>(text, v.data(), v.size());
    line = zel::LineT<T>({v[0], v[1], v[2]}, {v[3], v[4], v[5]});
}

/// The normal and the offset.
template <typename T>
void writePlane(zel::String& text, const zel::PlaneT<T>& plane) {
    const T offset = plane.offset();
    AsciiText().join(plane.normal().data(), 3, ", ").text(", ").join(&offset, 1, "").assignTo(text);
}

template <typename T>
void readPlane(zel::PlaneT<T>& plane, const zel::String& text) {
    std::array<T, 4> v{};
    readNumbers<double>(text, v.data(), v.size());
    plane = zel::PlaneT<T>({v[0], v[1], v[2]}, v[3]);
}

/// Signed at the width of the range, as "%d" and "%ld" show its ends.
template <typename T>
void writeIndexRange(zel::String& text, const zel::IndexRangeT<T>& range) {
    using Signed = std::make_signed_t<T>;
    AsciiText()
        .integer(static_cast<Signed>(range.begin()))
        .text(":")
        .integer(static_cast<Signed>(range.end()))
        .assignTo(text);
}

template <typename T>
void readIndexRange(zel::IndexRangeT<T>& range, const zel::String& text) {
    std::array<T, 2> v{};
    readNumbers<zel::int64>(text, v.data(), v.size());
    range = zel::IndexRangeT<T>(v[0], v[1]);
}

} // namespace

void createLineFormats() {
    Type* type = getOrCreateType("Line");
    const NumericFormats<zel::LineT<float>, zel::LineT<double>> formats(type);
    Format* ascii = addTextFormat(type, "ascii");
    formats.forEach([ascii]<typename L>(Format* format) {
        using T = typename L::value_type;
        registerAscii<L, &writeLine<T>, &readLine<T>>(ascii, format);
    });
}

void createPlaneFormats() {
    Type* type = getOrCreateType("Plane");
    const NumericFormats<zel::PlaneT<float>, zel::PlaneT<double>> formats(type);
    Format* ascii = addTextFormat(type, "ascii");
    formats.forEach([ascii]<typename P>(Format* format) {
        using T = typename P::value_type;
        registerAscii<P, &writePlane<T>, &readPlane<T>>(ascii, format);
    });
}

void createRange6Formats() {
    const NumericFormats<zel::Range6T<float>, zel::Range6T<double>> formats(getOrCreateType("Range6"));
    static_cast<void>(formats);
}

void createIndexRangeFormats() {
    Type* type = getOrCreateType("IndexRange");
    const NumericFormats<zel::IndexRangeT<zel::uint32>, zel::IndexRangeT<zel::uint64>> formats(type);
    Format* ascii = addTextFormat(type, "ascii");
    formats.forEach([ascii]<typename R>(Format* format) {
        using T = typename R::value_type;
        registerAscii<R, &writeIndexRange<T>, &readIndexRange<T>>(ascii, format);
    });
}

} // namespace zelData
