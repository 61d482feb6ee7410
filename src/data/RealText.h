#pragma once

#include <zel/FloatingPoint.h>
#include <zel/Integers.h>

#include <bit>
#include <charconv>
#include <limits>
#include <type_traits>

namespace zelData {

/// Whether the number is so small that threads of the system take it for zero, as a comparison on one of them
/// would.
template <typename T>
[[nodiscard]] bool isDenormal(T value) noexcept {
    using Bits = std::conditional_t<sizeof(T) == sizeof(zel::uint32), zel::uint32, zel::uint64>;
    constexpr int NumFractionBits = std::numeric_limits<T>::digits - 1;
    const Bits magnitude = std::bit_cast<Bits>(value) << 1; // without the sign
    return magnitude != 0 && magnitude >> (NumFractionBits + 1) == 0;
}

/// While it lives, the calling thread computes with denormal numbers.
class DenormalScope {
public:
    DenormalScope() noexcept : m_state(zel::DenormalizationGuard::enable()) {
        zel::DenormalizationGuard::disable(m_state & ~zel::DenormalizationGuard::Mask);
    }
    DenormalScope(const DenormalScope&) = delete;
    DenormalScope& operator=(const DenormalScope&) = delete;
    ~DenormalScope() { zel::DenormalizationGuard::disable(m_state); }

private:
    zel::uint32 m_state;
};

/// std::to_chars, which goes by what the thread takes for zero, for each number as it is.
template <typename T, typename... Form>
std::to_chars_result toChars(char* begin, char* end, T value, Form... form) {
    if constexpr (std::is_floating_point_v<T>)
        if (isDenormal(value)) {
            const DenormalScope scope;
            return std::to_chars(begin, end, value, form...);
        }
    return std::to_chars(begin, end, value, form...);
}

} // namespace zelData
