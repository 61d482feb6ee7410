#include <zel/Log.h>
#include <zel/String.h>
#include <zel/VerifyThrow.h>

#include <execinfo.h>

#include <cstdarg>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>

namespace zel {

namespace {

constexpr int MaxStackDepth = 64;

[[noreturn]] void printLogAndThrow(const std::string& text) {
    const std::string rule(78, '=');
    std::ostringstream report; // printed in one piece
    report << rule << '\n' << text << '\n';
    void* frames[MaxStackDepth];
    const int numFrames = backtrace(frames, MaxStackDepth);
    const auto release = [](char** names) { std::free(names); };
    const std::unique_ptr<char*, decltype(release)> names(backtrace_symbols(frames, numFrames), release);
    for (int i = 0; names != nullptr && i < numFrames; ++i)
        report << "  " << names.get()[i] << '\n';
    report << rule << '\n';
    std::cerr << report.str() << std::flush;
    ZEL_LOG_WARNING(text);
    throw std::runtime_error(text);
}

std::string textOf(const char* file, unsigned line, const char* expression) {
    return String::format("[%s:%u] zelVerify failed: `%s'", file, line, expression);
}

} // namespace

void throwVerifyFailed(const char* file, unsigned line, const char* expression) {
    printLogAndThrow(textOf(file, line, expression));
}

void throwVerifyFailed(const char* file, unsigned line, const char* expression, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char* message = nullptr;
    const int length = vasprintf(&message, format, arguments);
    va_end(arguments);
    const auto release = [](char* memory) { std::free(memory); };
    const std::unique_ptr<char, decltype(release)> owned(length < 0 ? nullptr : message, release);
    printLogAndThrow(textOf(file, line, expression) + ", " + (length < 0 ? format : message));
}

} // namespace zel
