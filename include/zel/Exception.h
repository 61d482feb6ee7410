#pragma once

#include <zel/Export.h>
#include <zel/String.h>

#include <stdexcept>
#include <string>

namespace zel {

/// Asks for an end of the work that is going on. The library does not catch it specially: it travels as any
/// exception does.
class ZEL_CORE_API InterruptException : public std::runtime_error {
public:
    explicit InterruptException(const std::string& message);
    ~InterruptException() override;
};

/// Logs "Exception thrown from LOCATION:  "WHAT"" at the exception notify level.
/// @threads any thread
ZEL_CORE_API void log_throw(const std::string& location, const std::string& what);

/// The level of the messages of log_throw, a Notify::NotifyLevel; Warning by default.
/// @threads any thread
[[nodiscard]] ZEL_CORE_API int getExceptionNotifyLevel();
/// @return the old level
ZEL_CORE_API int setExceptionNotifyLevel(int level);

/// Lets macros take texts of both kinds.
[[nodiscard]] inline const char* cStr(const char* text) noexcept {
    return text;
}
[[nodiscard]] inline const char* cStr(const std::string& text) noexcept {
    return text.c_str();
}

} // namespace zel

/// Creates an exception from the arguments, logs its text and the place, and throws it:
///
///     ZEL_THROW(std::runtime_error, "no such column: " + name);
#define ZEL_THROW(ExceptionType, ...)                                                                        \
    do {                                                                                                     \
        ExceptionType zelException(__VA_ARGS__);                                                             \
        ::zel::log_throw(                                                                                    \
            ::zel::String::format("[%s:%u (%s)]", __FILE__, static_cast<unsigned>(__LINE__), __func__),      \
            ::zel::cStr(zelException.what()));                                                               \
        throw zelException;                                                                                  \
    } while (false)
