#pragma once

#include <locale>
#include <string>

namespace zelTest {

/// A program whose streams write and read "12.345,5", as long as it lives; those of C keep their point.
class CommaStreams {
public:
    CommaStreams() : m_old(std::locale::global(std::locale(std::locale(), new Form))) {}
    CommaStreams(const CommaStreams&) = delete;
    CommaStreams& operator=(const CommaStreams&) = delete;
    ~CommaStreams() { std::locale::global(m_old); }

private:
    class Form : public std::numpunct<char> {
        char do_decimal_point() const override { return ','; }
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\3"; }
    };

    std::locale m_old;
};

} // namespace zelTest
