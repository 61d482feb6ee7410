#pragma once

#include <iostream>
#include <sstream>
#include <string>

namespace zelTest {

/// Takes what is written to a stream, such as std::cerr, while it lives.
class StreamCapture {
public:
    explicit StreamCapture(std::ostream& stream) : m_stream(stream), m_old(stream.rdbuf(m_text.rdbuf())) {}
    StreamCapture(const StreamCapture&) = delete;
    StreamCapture& operator=(const StreamCapture&) = delete;
    ~StreamCapture() { m_stream.rdbuf(m_old); }
    [[nodiscard]] std::string text() const { return m_text.str(); }

private:
    std::ostringstream m_text;
    std::ostream& m_stream;
    std::streambuf* m_old;
};

} // namespace zelTest
