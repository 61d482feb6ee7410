#include <zel/Thread.h>
#include <zel/Verify.h>

#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zel {

namespace {

/// Writes the whole text to the standard error stream, around the C library's buffers.
void writeError(const char* text, size_t length) noexcept {
    while (length != 0) {
        const ssize_t written = ::write(STDERR_FILENO, text, length);
        if (written < 0 && errno != EINTR)
            return;
        if (written > 0) {
            text += written;
            length -= static_cast<size_t>(written);
        }
    }
}

/// The line that is written last. It lies in static memory, since the invariant that broke may be that there
/// is memory: to allocate for the text would fail, verify, and allocate for that text.
class FatalLine {
public:
    [[gnu::format(printf, 2, 3)]] FatalLine& add(const char* format, ...) noexcept {
        va_list arguments;
        va_start(arguments, format);
        addList(format, arguments);
        va_end(arguments);
        return *this;
    }
    [[gnu::format(printf, 2, 0)]] FatalLine& addList(const char* format, va_list arguments) noexcept {
        // A text that is too long is cut; the line end has its place always.
        const size_t room = m_text.size() - 1 - m_length;
        const int length = std::vsnprintf(m_text.data() + m_length, room, format, arguments);
        if (length > 0)
            m_length += static_cast<size_t>(length) < room ? static_cast<size_t>(length) : room - 1;
        return *this;
    }
    /// Writes the line and ends the process.
    [[noreturn]] void finish() noexcept {
        m_text.at(m_length) = '\n';
        writeError(m_text.data(), m_length + 1);
        abort();
    }

private:
    std::array<char, 0x10000> m_text{};
    size_t m_length = 0;
};

constinit FatalLine s_line;
constinit std::atomic_flag s_lineTaken;
constinit thread_local bool t_failing = false;

/// The line, for the first thread that fails. Others wait for the end; a failure on the way to it ends the
/// process at once.
FatalLine& takeLine(const char* file, unsigned line, const char* what) noexcept {
    if (t_failing) {
        writeError(what, std::strlen(what));
        writeError("\n", 1);
        std::abort();
    }
    t_failing = true;
    while (s_lineTaken.test_and_set(std::memory_order_acquire))
        ::pause();
    return s_line.add("[%s:%u] %s", file, line, what);
}

} // namespace

void abort() {
    try {
        Thread::flushLogs();
    } catch (...) {
        // Without memory, for instance. The logs are lost, the reason is not.
        constexpr char Text[] = "zel::abort: could not write the thread logs\n";
        writeError(Text, sizeof(Text) - 1);
    }
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
    writeError(text.data(), text.size());
    writeError("\n", 1);
    abort();
}

void verifyFailed(const char* file, unsigned line, const char* expression) {
    takeLine(file, line, "zelVerify failed: ").add("`%s'", expression).finish();
}

void verifyFailed(const char* file, unsigned line, const char* expression, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    takeLine(file, line, "zelVerify failed: ").add("`%s', ", expression).addList(format, arguments).finish();
}

void abortAt(const char* file, unsigned line) {
    takeLine(file, line, "zelAbort").finish();
}

void abortAt(const char* file, unsigned line, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    takeLine(file, line, "zelAbort: ").addList(format, arguments).finish();
}

} // namespace zel
