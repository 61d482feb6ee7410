#include <zel/String.h>
#include <zel/Thread.h>
#include <zel/Verify.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace zel {

void abort() {
    Thread::flushLogs();
    std::abort();
}

std::string buildErrorString(const char* format, const char* userFormat, ...) {
    const std::string whole = std::string(format) + userFormat;
    va_list arguments;
    va_start(arguments, userFormat);
    char* text = nullptr;
    const int ret = vasprintf(&text, whole.c_str(), arguments);
    va_end(arguments);
    zelVerifyN(ret >= 0, "Could not allocate memory for formatted string: '%s'", whole.c_str());
    std::string result(text);
    std::free(text);
    return result;
}

void abortWith(const std::string& text) {
    std::fprintf(stderr, "%s\n", text.c_str());
    abort();
}

void verifyFailed(const char* file, unsigned line, const char* expression) {
    abortWith(buildErrorString("[%s:%u] zelVerify failed: `%s'", "", file, line, expression));
}

void verifyFailed(const char* file, unsigned line, const char* expression, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string message = detail::formatText(format, arguments);
    va_end(arguments);
    abortWith(
        buildErrorString("[%s:%u] zelVerify failed: `%s', ", "%s", file, line, expression, message.c_str()));
}

void abortAt(const char* file, unsigned line) {
    abortWith(buildErrorString("[%s:%u] zelAbort", "", file, line));
}

void abortAt(const char* file, unsigned line, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const std::string message = detail::formatText(format, arguments);
    va_end(arguments);
    abortWith(buildErrorString("[%s:%u] zelAbort: ", "%s", file, line, message.c_str()));
}

} // namespace zel
