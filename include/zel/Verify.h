#pragma once

#include <zel/Export.h>

#include <string>

/// @file
/// Verifications end the process when an invariant is broken. They are active in every build, write one line
/// to the standard error stream and abort; they never go through the log. They allocate nothing, so that they
/// work where memory is at its end; texts above 64 KiB are cut.

namespace zel {

/// Writes the thread logs out (Thread::flushLogs) and calls the C library's abort().
/// @threads any thread
[[noreturn, gnu::cold]] ZEL_CORE_API void abort();

/// Formats `format` followed by `userFormat` with the remaining arguments, as vasprintf does.
/// A failed allocation is itself a failed verification.
/// @threads any thread
[[nodiscard]] ZEL_CORE_API std::string buildErrorString(const char* format, const char* userFormat, ...);

/// Prints `text` and a line end on the standard error stream and calls zel::abort().
/// @threads any thread
[[noreturn, gnu::cold]] ZEL_CORE_API void abortWith(const std::string& text);

/// What a failed zelVerify does.
[[noreturn, gnu::cold]] ZEL_CORE_API void
verifyFailed(const char* file, unsigned line, const char* expression);

/// What a failed zelVerifyN does.
[[noreturn, gnu::cold, gnu::format(printf, 4, 5)]] ZEL_CORE_API void
verifyFailed(const char* file, unsigned line, const char* expression, const char* format, ...);

/// What zelAbort does without a message.
[[noreturn, gnu::cold]] ZEL_CORE_API void abortAt(const char* file, unsigned line);

/// What zelAbort does with a message.
[[noreturn, gnu::cold, gnu::format(printf, 3, 4)]] ZEL_CORE_API void
abortAt(const char* file, unsigned line, const char* format, ...);

} // namespace zel

// The expression is stringised by the macro that the user writes: a forwarding macro would expand it first.

/// Ends the process with "[file:line] zelVerify failed: `expression'" unless the expression is true.
#define zelVerify(expression) zelVerifyAs(expression, #expression)

/// As zelVerify, with the text of the expression given as a literal.
#define zelVerifyAs(expression, text)                                                                        \
    (static_cast<bool>(expression) ? static_cast<void>(0)                                                    \
                                   : ::zel::verifyFailed(__FILE__, static_cast<unsigned>(__LINE__), text))

/// As zelVerify, followed by ", " and a printf-style message.
#define zelVerifyN(expression, ...) zelVerifyNAs(expression, #expression, __VA_ARGS__)

/// As zelVerifyN, with the text of the expression given as a literal.
#define zelVerifyNAs(expression, text, ...)                                                                  \
    (static_cast<bool>(expression)                                                                           \
         ? static_cast<void>(0)                                                                              \
         : ::zel::verifyFailed(__FILE__, static_cast<unsigned>(__LINE__), text, __VA_ARGS__))

/// Ends the process with "[file:line] zelAbort", followed by ": " and a printf-style message if one is given.
#define zelAbort(...) ::zel::abortAt(__FILE__, static_cast<unsigned>(__LINE__) __VA_OPT__(, ) __VA_ARGS__)
