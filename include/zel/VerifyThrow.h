#pragma once

#include <zel/Export.h>

/// @file
/// Verifications of what others send: where one fails, its text and the call stack are printed on the
/// standard error stream between two lines of 78 "=", the text is logged as a warning, and thrown.

namespace zel {

/// What a failed zelVerifyThrow does.
/// @throws std::runtime_error
[[noreturn, gnu::cold]] ZEL_CORE_API void
throwVerifyFailed(const char* file, unsigned line, const char* expression);

/// What a failed zelVerifyThrowN does.
/// @throws std::runtime_error
[[noreturn, gnu::cold, gnu::format(printf, 4, 5)]] ZEL_CORE_API void
throwVerifyFailed(const char* file, unsigned line, const char* expression, const char* format, ...);

} // namespace zel

/// Throws std::runtime_error "[file:line] zelVerify failed: `expression'" unless the expression is true.
#define zelVerifyThrow(expression) zelVerifyThrowAs(expression, #expression)

/// As zelVerifyThrow, with the text of the expression given as a literal.
#define zelVerifyThrowAs(expression, text)                                                                   \
    (static_cast<bool>(expression)                                                                           \
         ? static_cast<void>(0)                                                                              \
         : ::zel::throwVerifyFailed(__FILE__, static_cast<unsigned>(__LINE__), text))

/// As zelVerifyThrow, followed by ", " and a printf-style message.
#define zelVerifyThrowN(expression, ...)                                                                     \
    (static_cast<bool>(expression)                                                                           \
         ? static_cast<void>(0)                                                                              \
         : ::zel::throwVerifyFailed(__FILE__, static_cast<unsigned>(__LINE__), #expression, __VA_ARGS__))
