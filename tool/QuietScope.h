#pragma once

#include <iostream>
#include <sstream>

namespace tool {

/// While it lives, nothing is printed. Each new journal makes the library tell of an old one that it removes,
/// which there is none of: commands refuse a file that is there.
class QuietScope {
public:
    QuietScope() : m_former(std::cout.rdbuf(m_untold.rdbuf())) {}
    QuietScope(const QuietScope&) = delete;
    QuietScope& operator=(const QuietScope&) = delete;
    ~QuietScope() { std::cout.rdbuf(m_former); }

private:
    std::ostringstream m_untold;
    std::streambuf* m_former;
};

} // namespace tool
