#pragma once

#include <zel/Integers.h>
#include <zel/String.h>
#include <zelData/Transform.h>

#include <array>
#include <charconv>
#include <cstdlib>
#include <string>
#include <string_view>
#include <type_traits>

/// @file
/// Numbers as text and back, in the forms of the C library's printf, strtod and strtoll in the "C" locale:
/// whatever locale the program has chosen, a file reads the same.

namespace zelData {

/// Composes the text of one element on the stack.
class AsciiText {
public:
    /// As "%f".
    AsciiText& fixed(double value);
    /// As "%g".
    AsciiText& general(double value);
    /// As "%.17g", from which the same number is read.
    AsciiText& exact(double value);
    /// As "%lld".
    AsciiText& integer(zel::int64 value);
    AsciiText& text(std::string_view text);

    /// Several numbers with a separator between them.
    template <typename T>
    AsciiText& join(const T* values, zel::size_t count, std::string_view separator) {
        for (zel::size_t i = 0; i < count; ++i) {
            if (i != 0)
                text(separator);
            if constexpr (std::is_floating_point_v<T>)
                fixed(static_cast<double>(values[i]));
            else
                integer(static_cast<zel::int64>(values[i]));
        }
        return *this;
    }

    [[nodiscard]] std::string str() const {
        return std::string(m_buffer.data(), static_cast<const char*>(m_end));
    }
    void assignTo(zel::String& target) const {
        target.assign(m_buffer.data(), static_cast<zel::size_t>(m_end - m_buffer.data()));
    }

private:
    void append(std::to_chars_result result);
    [[nodiscard]] char* limit() noexcept { return m_buffer.data() + m_buffer.size(); }

    /// Sixteen numbers of the largest kind, which have 317 characters each as "%f", and what separates them.
    std::array<char, 16 * 320 + 256> m_buffer; // not cleared: it is written ahead of being read
    char* m_end = m_buffer.data();
};

/// The number at the beginning of a text that ends with a zero, as strtod reads it for reals and strtoll, cut
/// to the width, for integers.
/// @param end  gets the place behind the number; the beginning if there is none
template <typename T>
[[nodiscard]] T readNumber(const char* text, const char*& end);
template <>
[[nodiscard]] double readNumber<double>(const char* text, const char*& end);
template <>
[[nodiscard]] zel::int64 readNumber<zel::int64>(const char* text, const char*& end);

/// The single number of a scalar.
template <typename T>
[[nodiscard]] T readScalar(const zel::String& text) {
    using Wide = std::conditional_t<std::is_floating_point_v<T>, double, zel::int64>;
    const char* end = nullptr;
    return convertNumber<T>(readNumber<Wide>(text.c_str(), end));
}

/// A text without its blanks; shares the text if there are none.
class CompactText {
public:
    explicit CompactText(const zel::String& text);
    CompactText(const CompactText&) = delete;
    CompactText& operator=(const CompactText&) = delete;

    [[nodiscard]] const char* c_str() const noexcept { return m_text; }

private:
    static constexpr zel::size_t StackSize = 512;

    const char* m_text;
    std::array<char, StackSize> m_stack; // not cleared: it is written ahead of being read
    std::string m_heap;                  // for texts that are longer
};

/// The character of a separator that follows a number, of which there is one of any kind, or the two of "->".
[[nodiscard]] inline const char* skipSeparator(const char* at) noexcept {
    if (*at == '\0')
        return at;
    return at[0] == '-' && at[1] == '>' ? at + 2 : at + 1;
}

/// Reads several numbers, after all blanks are removed. A text that ends behind the first number gives its
/// value to all; one that ends later leaves the rest zero.
/// @tparam Wide  how the numbers are written: double or int64
template <typename Wide, typename T>
void readNumbers(const zel::String& text, T* values, zel::size_t count) {
    const CompactText compact(text);
    const char* at = compact.c_str();
    for (zel::size_t i = 0; i < count; ++i) {
        const char* end = nullptr;
        values[i] = convertNumber<T>(readNumber<Wide>(at, end));
        if (i == 0 && *end == '\0') {
            std::fill_n(values + 1, count - 1, values[0]);
            return;
        }
        at = skipSeparator(end);
    }
}

} // namespace zelData
