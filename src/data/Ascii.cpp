#include "Ascii.h"

#include "RealText.h"

#include <zel/Verify.h>

#include <locale.h>

#include <cstring>
#include <limits>
#include <system_error>

namespace zelData {

namespace {

constexpr int Digits = 6; // of "%f" and "%g"

/// strtod in the "C" locale. Never freed: static objects may read numbers while the process ends.
double readInCLocale(const char* text, char** end) {
    static const locale_t locale = newlocale(LC_ALL_MASK, "C", nullptr);
    zelVerify(locale != nullptr);
    return strtod_l(text, end, locale);
}

bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

/// Whether std::from_chars reads the text as the C library does: a digit comes first, after a sign at most,
/// and the number is not hexadecimal.
bool isPlainNumber(const char* text) noexcept {
    const char* const digits = *text == '-' ? text + 1 : text;
    return isDigit(digits[0]) && !(digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X'));
}

} // namespace

void AsciiText::append(std::to_chars_result result) {
    zelVerify(result.ec == std::errc());
    m_end = result.ptr;
}

AsciiText& AsciiText::fixed(double value) {
    append(std::to_chars(m_end, limit(), value, std::chars_format::fixed, Digits));
    return *this;
}

AsciiText& AsciiText::general(double value) {
    append(toChars(m_end, limit(), value, std::chars_format::general, Digits));
    return *this;
}

AsciiText& AsciiText::exact(double value) {
    append(toChars(
        m_end, limit(), value, std::chars_format::general, std::numeric_limits<double>::max_digits10));
    return *this;
}

AsciiText& AsciiText::integer(zel::int64 value) {
    append(std::to_chars(m_end, limit(), value));
    return *this;
}

AsciiText& AsciiText::text(std::string_view text) {
    zelVerify(text.size() <= static_cast<zel::size_t>(limit() - m_end));
    std::memcpy(m_end, text.data(), text.size());
    m_end += text.size();
    return *this;
}

template <>
double readNumber<double>(const char* text, const char*& end) {
    if (isPlainNumber(text)) {
        double value = 0;
        const auto result = std::from_chars(text, text + std::strlen(text), value);
        if (result.ec == std::errc()) {
            end = result.ptr;
            return value;
        }
    }
    char* behind = nullptr;
    const double value = readInCLocale(text, &behind);
    end = behind;
    return value;
}

template <>
zel::int64 readNumber<zel::int64>(const char* text, const char*& end) {
    if (isPlainNumber(text)) {
        zel::int64 value = 0;
        const auto result = std::from_chars(text, text + std::strlen(text), value);
        if (result.ec == std::errc()) {
            end = result.ptr;
            return value;
        }
    }
    char* behind = nullptr;
    const zel::int64 value = std::strtoll(text, &behind, 10);
    end = behind;
    return value;
}

// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): clearing 512 bytes would cost more than the reading
CompactText::CompactText(const zel::String& text) : m_text(text.c_str()) {
    const zel::size_t length = std::strlen(m_text);
    if (std::memchr(m_text, ' ', length) == nullptr)
        return;
    char* begin = m_stack.data();
    if (length >= StackSize) {
        m_heap.resize(length);
        begin = m_heap.data();
    }
    char* end = begin;
    for (const char* at = m_text; *at != '\0'; ++at)
        if (*at != ' ')
            *end++ = *at;
    *end = '\0';
    m_text = begin;
}

} // namespace zelData
