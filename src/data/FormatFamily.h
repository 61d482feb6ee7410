#pragma once

#include <zel/Integers.h>
#include <zel/String.h>
#include <zel/Vec.h>
#include <zelData/FormatT.h>
#include <zelData/Swap.h>
#include <zelData/Transform.h>
#include <zelData/Type.h>

#include <array>
#include <cstddef>
#include <type_traits>
#include <utility>

/// @file
/// What the create functions of numeric types have in common: elements that consist of numbers of one type.

namespace zelData {

namespace detail {

/// The type of the numbers that an element consists of.
template <typename Element>
struct PrimitiveOf {
    using type = Element;
};
template <typename Element>
requires requires {
    typename Element::value_type;
}
struct PrimitiveOf<Element> {
    using type = typename PrimitiveOf<typename Element::value_type>::type;
};

/// How many numbers at the end of an element are always zero.
template <typename Element>
inline constexpr unsigned int paddingOf = 0;
template <std::floating_point T>
inline constexpr unsigned int paddingOf<zel::Vec3T<T>> = 1;

template <zel::size_t Size>
struct WordOfSize;
template <>
struct WordOfSize<1> {
    using type = zel::uint8;
};
template <>
struct WordOfSize<2> {
    using type = zel::uint16;
};
template <>
struct WordOfSize<4> {
    using type = zel::uint32;
};
template <>
struct WordOfSize<8> {
    using type = zel::uint64;
};

} // namespace detail

template <typename Element>
using PrimitiveOf = typename detail::PrimitiveOf<Element>::type;

template <typename Element>
inline constexpr zel::size_t strideOf = sizeof(Element) / sizeof(PrimitiveOf<Element>);

/// Reverses each number of an element.
template <typename Element>
inline constexpr TransformFunction swapFunctionOf =
    &SwapWordsFunction<typename detail::WordOfSize<sizeof(PrimitiveOf<Element>)>::type, strideOf<Element>>;

/// Converts elements of the same shape number by number.
template <typename Target, typename Source>
requires(strideOf<Target> == strideOf<Source>) inline constexpr TransformFunction conversionOf =
    &TransformNumbersFunction<PrimitiveOf<Target>, PrimitiveOf<Source>, strideOf<Target>>;

/// Adds the format of a class of elements, named by the width of their numbers; that of 64 bits is the
/// default.
template <typename Element>
Format* addNumericFormat(Type* type) {
    constexpr zel::size_t Bits = 8 * sizeof(PrimitiveOf<Element>);
    auto* const format = new FormatT<Element>(zel::String::format("%zubit", Bits), swapFunctionOf<Element>);
    type->addFormat(format, Bits == 64);
    Format::registerFormatPrimitives<PrimitiveOf<Element>>(
        format, strideOf<Element>, detail::paddingOf<Element>);
    return format;
}

/// The formats of a type whose elements have one shape and numbers of several widths.
template <typename... Elements>
class NumericFormats {
public:
    static constexpr zel::size_t Size = sizeof...(Elements);

    /// Adds the formats to the type, each with a transformer from every other.
    explicit NumericFormats(Type* type) : m_formats{addNumericFormat<Elements>(type)...} {
        forEach([this]<typename Target>(Format* target) {
            this->forEach([target]<typename Source>(Format* source) {
                if constexpr (!std::is_same_v<Target, Source>)
                    registerTransformer(conversionOf<Target, Source>, target, source);
            });
        });
    }

    /// Calls the function with each class of elements as template argument and its format.
    template <typename Function>
    void forEach(Function function) const {
        forEach(function, std::index_sequence_for<Elements...>());
    }

private:
    template <typename Function, zel::size_t... Indices>
    void forEach(Function& function, std::index_sequence<Indices...>) const {
        (function.template operator()<Elements>(m_formats[Indices]), ...);
    }

    std::array<Format*, Size> m_formats;
};

/// The transformer to text that calls `write(String&, const Element&)` for each element.
template <typename Element, auto write>
void writeAscii(void* target, const void* source, zel::uint64 numElements) {
    zel::String* const to = static_cast<zel::String*>(target);
    const Element* const from = static_cast<const Element*>(source);
    for (zel::uint64 i = 0; i < numElements; ++i)
        write(to[i], from[i]);
}

/// The transformer from text that calls `read(Element&, const String&)` for each element.
template <typename Element, auto read>
void readAscii(void* target, const void* source, zel::uint64 numElements) {
    Element* const to = static_cast<Element*>(target);
    const zel::String* const from = static_cast<const zel::String*>(source);
    for (zel::uint64 i = 0; i < numElements; ++i)
        read(to[i], from[i]);
}

/// Adds a format whose elements are texts.
inline Format* addTextFormat(Type* type, const char* name) {
    auto* const format = new FormatT<zel::String>(name);
    type->addFormat(format);
    return format;
}

/// Registers the ways between a format and its type's text format.
template <typename Element, auto write, auto read>
void registerAscii(Format* ascii, Format* format) {
    registerTransformer(&writeAscii<Element, write>, ascii, format);
    registerTransformer(&readAscii<Element, read>, format, ascii);
}

/// The format of a type's numbers of a width, such as "Int:32bit".
template <typename T>
Format* scalarFormat(const char* typeName) {
    return getFormat(zel::String::format("%s:%zubit", typeName, 8 * sizeof(T)));
}

} // namespace zelData
