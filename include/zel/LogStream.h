#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>

#include <cstdio>
#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>

namespace zel {

/// The sink of the log file and the console. Each finished line, one that ends in std::endl or is flushed,
/// gets the time and the thread in front and goes to the destinations of the output mode:
///
///     12:00:00.123 (thread: 140245, 3):  text
/// @threads external lock; Notify writes to it under its mutex
class ZEL_CORE_API LogStream : public virtual std::ostream {
public:
    /// The destinations of a line, as bits; they are served in the order Cerr, Callback, Cout, File.
    enum OutputMode : int16 { Cerr = 1, Cout = 2, File = 4, Callback = 8 };

    using LineCallback = void (*)(const char* text, unsigned int length);

    LogStream();
    LogStream(const LogStream&) = delete;
    LogStream& operator=(const LogStream&) = delete;
    ~LogStream() override;

    /// Opens a file for writing and closes an open one; a missing directory is made.
    /// @param append  whether what is written follows what the file holds; otherwise it begins anew
    /// @return false, with the stream's failbit set, if the file cannot be opened
    bool open(const std::string& name, bool append = false);
    /// Finishes the pending line, if any. Failing to write the rest of the file sets the failbit.
    void close();
    /// Finishes the pending line, if any, and flushes the file.
    void flush();
    /// Writes to the file and flushes it.
    /// @return the number of characters written; 0 without an open file
    long write(const char* text, long length);

    [[nodiscard]] bool haveOpenFile() const noexcept { return m_isOpen; }
    [[nodiscard]] const std::string& getFilename() const noexcept { return m_filename; }

    /// The format of getTimeString without milliseconds; "%X" by default.
    void setDateFormat(const std::string& format) { m_dateFormat = format; }
    [[nodiscard]] const std::string& getDateFormat() const noexcept { return m_dateFormat; }
    /// Whether lines begin with the time; off by default.
    void setEnableDate(bool enable) noexcept { m_enableDate = enable; }
    [[nodiscard]] bool getEnableDate() const noexcept { return m_enableDate; }
    /// Whether lines name the thread while the library is initialised; on by default.
    void setEnableThreadId(bool enable) noexcept { m_enableThreadId = enable; }
    [[nodiscard]] bool getEnableThreadId() const noexcept { return m_enableThreadId; }

    void setOutputMode(int16 mode) noexcept { m_outputMode = mode; }
    void appendOutputMode(int16 mode) noexcept { m_outputMode = static_cast<int16>(m_outputMode | mode); }
    void clearOutputMode() noexcept { m_outputMode = 0; }
    [[nodiscard]] int16 getOutputMode() const noexcept { return m_outputMode; }
    [[nodiscard]] bool isActive(OutputMode mode) const noexcept { return (m_outputMode & mode) != 0; }

    void setCallback(LineCallback callback) noexcept { m_callback = callback; }
    [[nodiscard]] LineCallback getCallback() const noexcept { return m_callback; }

    /// The local time of now.
    /// @param format           as for strftime; unused with milliseconds
    /// @param useMilliseconds  "%X", a point and three digits, such as "12:00:00.123"
    [[nodiscard]] static std::string getTimeString(const std::string& format, bool useMilliseconds);

protected:
    /// Sees each finished line before its destinations do.
    virtual void message(const char* text, unsigned int length);

private:
    /// Gathers a line and hands it to its stream.
    template <typename Stream, typename Char, typename Traits>
    class LogBuf : public std::basic_streambuf<Char, Traits> {
    public:
        explicit LogBuf(Stream* stream) : m_stream(stream) {}

    protected:
        using int_type = typename Traits::int_type;

        int_type overflow(int_type character) override {
            if (!Traits::eq_int_type(character, Traits::eof()))
                m_line.put(Traits::to_char_type(character));
            return Traits::not_eof(character);
        }
        std::streamsize xsputn(const Char* text, std::streamsize length) override {
            m_line.write(text, length);
            return length;
        }
        int sync() override {
            const std::basic_string<Char, Traits> line = m_line.str();
            m_line.str({});
            m_line.clear();
            // A flush without text finishes no line.
            return line.empty() || m_stream->finishLine(line) ? 0 : -1;
        }

    private:
        std::basic_ostringstream<Char, Traits> m_line;
        Stream* m_stream;
    };

    bool finishLine(const std::string& body);

    LineCallback m_callback = nullptr;
    int16 m_outputMode = 0;
    std::FILE* m_file = nullptr;
    bool m_isOpen = false;
    std::string m_filename;
    std::string m_dateFormat = "%X";
    bool m_enableDate = false;
    bool m_enableThreadId = true;
    LogBuf<LogStream, char, std::char_traits<char>>* m_buffer;
};

} // namespace zel
