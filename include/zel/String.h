#pragma once

#include <zel/Export.h>
#include <zel/HashFn.h>

#include <cstdarg>
#include <string>
#include <string_view>
#include <utility>

namespace zel {

namespace detail {
/// vasprintf into a std::string; a failed allocation is fatal.
[[nodiscard]] ZEL_CORE_API std::string formatText(const char* format, va_list arguments);
} // namespace detail

/// The standard string with a printf-style format operation. Converts implicitly from and to its base.
template <typename Base>
class ZeLString : public Base {
public:
    using Base::Base;
    ZeLString() = default;
    ZeLString(const Base& text) : Base(text) {}
    ZeLString(Base&& text) noexcept : Base(std::move(text)) {}

    /// The C format rules.
    [[nodiscard, gnu::format(printf, 1, 2)]] static ZeLString format(const char* format, ...) {
        va_list arguments;
        va_start(arguments, format);
        ZeLString result(detail::formatText(format, arguments));
        va_end(arguments);
        return result;
    }
};

using String = ZeLString<std::string>;

template <>
struct HashFn<String, void> {
    using is_transparent = void;
    using is_costly = void;
    [[nodiscard]] uint32 operator()(std::string_view key) const noexcept {
        return detail::hashText(key.data(), key.size());
    }
    [[nodiscard]] static bool equal(std::string_view a, std::string_view b) noexcept { return a == b; }
};

} // namespace zel
