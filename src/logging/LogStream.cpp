#include <zel/Date.h>
#include <zel/LogStream.h>
#include <zel/Thread.h>
#include <zelCore/zelCore.h>
#include <zelIO/FileSystem.h>

#include <array>
#include <ctime>
#include <iostream>

namespace zel {

LogStream::LogStream()
    : std::ostream(nullptr), m_buffer(new LogBuf<LogStream, char, std::char_traits<char>>(this)) {
    rdbuf(m_buffer);
}

LogStream::~LogStream() {
    close();
    rdbuf(nullptr);
    delete m_buffer;
}

bool LogStream::open(const std::string& name, bool append) {
    close();
    const String directory = zelIO::FileSystem::getDirectory(name);
    if (!directory.empty() && !zelIO::FileSystem::exists(directory) &&
        !zelIO::FileSystem::mkdir(directory, true))
        return false;
    m_filename = name;
    m_file = zelIO::FileSystem::openFile(name.c_str(), append ? "a" : "w");
    if (m_file == nullptr) {
        setstate(failbit);
        return false;
    }
    clear();
    m_isOpen = true;
    return true;
}

void LogStream::close() {
    std::ostream::flush();
    if (!m_isOpen)
        return;
    m_isOpen = false;
    if (std::fclose(std::exchange(m_file, nullptr)) != 0)
        setstate(failbit);
}

void LogStream::flush() {
    std::ostream::flush();
    if (m_isOpen && std::fflush(m_file) != 0)
        setstate(badbit);
}

long LogStream::write(const char* text, long length) {
    if (!m_isOpen || length <= 0)
        return 0;
    const size_t written = std::fwrite(text, 1, static_cast<size_t>(length), m_file);
    if (std::fflush(m_file) != 0)
        return 0;
    return static_cast<long>(written);
}

void LogStream::message(const char*, unsigned int) {}

/// @return false if the file did not take the whole line
bool LogStream::finishLine(const std::string& body) {
    std::string line;
    if (m_enableDate)
        line += getTimeString(m_dateFormat, true);
    if (m_enableThreadId && !zelCore::isShutdown())
        line += " (thread: " + Thread::getCurrentThreadDescription() + "):  ";
    line += body;

    const auto length = static_cast<unsigned int>(line.size());
    message(line.data(), length);
    if (isActive(Cerr))
        std::cerr << line;
    if (isActive(Callback) && m_callback != nullptr)
        m_callback(line.data(), length);
    if (isActive(Cout))
        std::cout << line;
    if (isActive(File) && m_isOpen)
        return write(line.data(), static_cast<long>(length)) == static_cast<long>(length);
    return true;
}

std::string LogStream::getTimeString(const std::string& format, bool useMilliseconds) {
    const Date now = Date::now();
    const std::tm local = now.localTime();
    if (!useMilliseconds) {
        // The blank tells an empty text from one that does not fit.
        const std::string padded = format + ' ';
        std::string text;
        size_t length = 0;
        for (size_t size = 128; length == 0; size *= 2) {
            text.resize(size);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // the format is the caller's by design
            length = std::strftime(text.data(), size, padded.c_str(), &local);
#pragma GCC diagnostic pop
        }
        text.resize(length - 1);
        return text;
    }
    std::array<char, 128> text{};
    const size_t length = std::strftime(text.data(), text.size(), "%X", &local);
    const std::string milliseconds = std::to_string(1000 + now.getMicroSeconds() / 1000);
    return std::string(text.data(), length) + "." + milliseconds.substr(1);
}

} // namespace zel
