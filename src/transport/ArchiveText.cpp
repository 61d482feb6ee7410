#include "ArchiveText.h"

#include "data/RealText.h"
#include "tree/XmlCheck.h"

#include <zel/Verify.h>

#include <tomcrypt.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

namespace zelStream {

namespace {

template <typename T>
T valueAt(const void* value) {
    T read;
    std::memcpy(&read, value, sizeof(T));
    return read;
}

/// Digits behind the point of the scientific form, with which every value reads back.
template <typename T>
constexpr int Digits = std::numeric_limits<T>::max_digits10 - 1;

template <typename T>
void appendNumber(std::string& out, T value) {
    std::array<char, 24> text{};
    out.append(text.data(), std::to_chars(text.data(), text.data() + text.size(), value).ptr);
}

template <typename T>
void appendScientific(std::string& out, T value) {
    std::array<char, 32> text{};
    char* const end =
        zelData::toChars(
            text.data(), text.data() + text.size(), value, std::chars_format::scientific, Digits<T>)
            .ptr;
    std::replace(text.data(), end, 'e', 'E');
    out.append(text.data(), end);
}

template <typename T>
void appendReal(std::string& out, T value, bool isComponent) {
    // In fixed form, that of components, there are too few digits for them.
    if (zelData::isDenormal(value)) {
        appendScientific(out, value);
        return;
    }
    if (std::isnan(value)) {
        out += "NAN";
        return;
    }
    if (std::isinf(value)) {
        out += value < 0 ? "-INF" : "INF";
        return;
    }
    std::array<char, 384> text{}; // the largest double has 309 digits ahead of the point
    char* const limit = text.data() + text.size();
    if (isComponent) {
        char* const end = std::to_chars(text.data(), limit, value, std::chars_format::fixed, Digits<T>).ptr;
        T back{};
        std::from_chars(text.data(), end, back);
        if (back == value) {
            out.append(text.data(), end);
            return;
        }
    }
    appendScientific(out, value);
}

template <typename T>
bool parseNumber(std::string_view text, void* value) {
    T read{};
    const char* const end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, read);
    if (text.empty() || result.ec != std::errc() || result.ptr != end)
        return false;
    std::memcpy(value, &read, sizeof(T));
    return true;
}

template <typename T>
bool parseReal(std::string_view text, void* value) {
    using Limits = std::numeric_limits<T>;
    if (text == "INF" || text == "-INF" || text == "NAN") {
        const T read = text == "NAN"   ? Limits::quiet_NaN()
                       : text == "INF" ? Limits::infinity()
                                       : -Limits::infinity();
        std::memcpy(value, &read, sizeof(T));
        return true;
    }
    // The library also takes words and a point without digits ahead of it.
    const std::string_view digits = text.substr(text.starts_with('-') ? 1 : 0);
    return !digits.empty() && digits[0] >= '0' && digits[0] <= '9' && parseNumber<T>(text, value);
}

/// Calls the function with a value of the type of an integral form.
template <typename Function>
auto withInteger(ScalarForm form, const Function& function) {
    const bool isSigned = form.kind == ScalarForm::Signed;
    switch (form.size) {
    case 1:
        return isSigned ? function(zel::int8{}) : function(zel::uint8{});
    case 2:
        return isSigned ? function(zel::int16{}) : function(zel::uint16{});
    case 4:
        return isSigned ? function(zel::int32{}) : function(zel::uint32{});
    default:
        return isSigned ? function(zel::int64{}) : function(zel::uint64{});
    }
}

bool isVisible(char c) {
    return c >= '!' && c <= '~';
}

bool parseCharacter(std::string_view text, void* value) {
    char read = 0;
    if (text.size() == 1)
        read = text[0];
    else if (!text.empty()) {
        zel::uint8 code = 0;
        if (text[0] != '#' || !parseNumber<zel::uint8>(text.substr(1), &code))
            return false;
        read = static_cast<char>(code);
    }
    std::memcpy(value, &read, 1);
    return true;
}

constexpr std::string_view HexDigits = "0123456789ABCDEF";

int digitOf(char c) {
    return c >= '0' && c <= '9'   ? c - '0'
           : c >= 'A' && c <= 'F' ? c - 'A' + 10
           : c >= 'a' && c <= 'f' ? c - 'a' + 10
                                  : -1;
}

/// The letter behind the backslash; 0 if there is none.
char escapeOf(char c) {
    switch (c) {
    case ' ':
        return 's';
    case '\t':
        return 't';
    case '\n':
        return 'n';
    case '\r':
        return 'r';
    case '\\':
        return '\\';
    default:
        return 0;
    }
}

/// Marks of byte order and no characters, which parsers pass over or refuse.
bool isLostInXml(std::string_view character) {
    return character == "\xef\xbb\xbf" || character == "\xef\xbf\xbe" || character == "\xef\xbf\xbf";
}

void appendEscaped(std::string& out, std::string_view text, bool isToken) {
    for (zel::size_t i = 0; i < text.size();) {
        const char c = text[i];
        if (isVisible(c) && c != '\\') [[likely]] {
            out += c;
            ++i;
            continue;
        }
        const zel::size_t length = zel::utf8Length(text, i);
        if (c == ' ' && !isToken)
            out += c;
        else if (const char letter = escapeOf(c); letter != 0) {
            out += '\\';
            out += letter;
        } else if (length > 1 && !isLostInXml(text.substr(i, length)))
            out += text.substr(i, length);
        else
            for (const char byte : text.substr(i, std::max<zel::size_t>(length, 1))) {
                out += "\\x";
                out += HexDigits[static_cast<unsigned char>(byte) >> 4U];
                out += HexDigits[static_cast<unsigned char>(byte) & 15U];
            }
        i += std::max<zel::size_t>(length, 1);
    }
}

/// The character at a position of valid UTF-8.
zel::uint32 codeOf(std::string_view character) {
    if (character.size() == 1)
        return static_cast<unsigned char>(character[0]);
    zel::uint32 code = static_cast<unsigned char>(character[0]) & (0x7fU >> character.size());
    for (const char c : character.substr(1))
        code = code << 6U | (static_cast<unsigned char>(c) & 0x3fU);
    return code;
}

bool isMark(char c) {
    return c == '&' || c == '<' || c == '>' || c == '"' || c == '\'';
}

struct CodeRange {
    zel::uint32 first;
    zel::uint32 last;
};

// As XML has it, but for ':' in front, which the parser does not take.
constexpr CodeRange NameStarts[] = {{'A', 'Z'},
                                    {'_', '_'},
                                    {'a', 'z'},
                                    {0xc0, 0xd6},
                                    {0xd8, 0xf6},
                                    {0xf8, 0x2ff},
                                    {0x370, 0x37d},
                                    {0x37f, 0x1fff},
                                    {0x200c, 0x200d},
                                    {0x2070, 0x218f},
                                    {0x2c00, 0x2fef},
                                    {0x3001, 0xd7ff},
                                    {0xf900, 0xfdcf},
                                    {0xfdf0, 0xfffd},
                                    {0x10000, 0xeffff}};
constexpr CodeRange NameRests[] = {
    {'-', '.'}, {'0', '9'}, {':', ':'}, {0xb7, 0xb7}, {0x300, 0x36f}, {0x203f, 0x2040}};

template <zel::size_t N>
bool isIn(const CodeRange (&ranges)[N], zel::uint32 code) {
    return std::any_of(std::begin(ranges), std::end(ranges), [code](const CodeRange& range) {
        return code >= range.first && code <= range.last;
    });
}

} // namespace

void appendScalar(std::string& out, const void* value, ScalarForm form) {
    switch (form.kind) {
    case ScalarForm::Boolean:
        out += valueAt<bool>(value) ? "true" : "false";
        break;
    case ScalarForm::Character:
        if (const char c = valueAt<char>(value); isVisible(c))
            out += c;
        else {
            out += '#';
            appendNumber(out, static_cast<unsigned char>(c));
        }
        break;
    case ScalarForm::Signed:
    case ScalarForm::Unsigned:
        withInteger(form, [&]<typename T>(T) { appendNumber(out, valueAt<T>(value)); });
        break;
    case ScalarForm::Real:
    case ScalarForm::Component:
        if (form.size == sizeof(float))
            appendReal(out, valueAt<float>(value), form.kind == ScalarForm::Component);
        else
            appendReal(out, valueAt<double>(value), form.kind == ScalarForm::Component);
        break;
    }
}

bool parseScalar(std::string_view text, void* value, ScalarForm form) {
    switch (form.kind) {
    case ScalarForm::Boolean: {
        const bool read = text == "true";
        if (!read && text != "false")
            return false;
        std::memcpy(value, &read, sizeof(read));
        return true;
    }
    case ScalarForm::Character:
        return parseCharacter(text, value);
    case ScalarForm::Signed:
    case ScalarForm::Unsigned:
        return withInteger(form, [&]<typename T>(T) { return parseNumber<T>(text, value); });
    default:
        return form.size == sizeof(float) ? parseReal<float>(text, value) : parseReal<double>(text, value);
    }
}

void appendToken(std::string& out, std::string_view text) {
    if (text.empty())
        out += "\\e";
    else
        appendEscaped(out, text, true);
}

void appendAttributeText(std::string& out, std::string_view text) {
    appendEscaped(out, text, false);
}

bool parseEscaped(std::string_view text, std::string& value) {
    if (text.find('\\') == std::string_view::npos) [[likely]] {
        value = text;
        return true;
    }
    std::string read;
    if (text == "\\e") {
        value.clear();
        return true;
    }
    constexpr std::string_view Letters = "stnr\\";
    constexpr std::string_view Meanings = " \t\n\r\\";
    for (zel::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            read += text[i];
            continue;
        }
        if (++i == text.size())
            return false;
        if (const zel::size_t letter = Letters.find(text[i]); letter != std::string_view::npos) {
            read += Meanings[letter];
            continue;
        }
        if (text[i] != 'x' || text.size() - i < 3)
            return false;
        const int high = digitOf(text[i + 1]);
        const int low = digitOf(text[i + 2]);
        if (high < 0 || low < 0)
            return false;
        read += static_cast<char>(high * 16 + low);
        i += 2;
    }
    value = std::move(read);
    return true;
}

bool parseUuid(std::string_view text, zel::Uuid& uuid) {
    constexpr std::string_view Form = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
    if (text.size() != Form.size())
        return false;
    for (zel::size_t i = 0; i < text.size(); ++i)
        if (Form[i] == '-' ? text[i] != '-' : digitOf(text[i]) < 0 || (text[i] >= 'A' && text[i] <= 'F'))
            return false;
    uuid = zel::Uuid(std::string(text));
    return true;
}

void appendBytes(std::string& out, const void* data, zel::size_t numBytes) {
    if (numBytes == 0) {
        out += '-';
        return;
    }
    const zel::size_t begin = out.size();
    unsigned long length = (numBytes + 2) / 3 * 4 + 1; // with a NUL
    out.resize(begin + length);
    zelVerify(base64_encode(static_cast<const unsigned char*>(data),
                            numBytes,
                            reinterpret_cast<unsigned char*>(out.data()) + begin,
                            &length) == CRYPT_OK);
    out.resize(begin + length);
}

bool parseBytes(std::string_view text, void* data, zel::size_t numBytes) {
    if (numBytes == 0)
        return text == "-";
    if (text.size() / 4 != (numBytes - 1) / 3 + 1)
        return false;
    std::vector<unsigned char> bytes(text.size());
    unsigned long length = bytes.size();
    if (base64_strict_decode(
            reinterpret_cast<const unsigned char*>(text.data()), text.size(), bytes.data(), &length) !=
            CRYPT_OK ||
        length != numBytes)
        return false;
    std::string own;
    appendBytes(own, bytes.data(), numBytes);
    if (own != text)
        return false; // another text of the same bytes
    std::memcpy(data, bytes.data(), numBytes);
    return true;
}

void appendXml(std::string& out, std::string_view text) {
    while (!text.empty()) {
        zel::size_t plain = 0;
        while (plain < text.size() && !isMark(text[plain]))
            ++plain;
        out += text.substr(0, plain);
        if (plain == text.size())
            return;
        const char c = text[plain];
        out += c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : c == '"' ? "&quot;" : "&apos;";
        text.remove_prefix(plain + 1);
    }
}

bool isXmlText(std::string_view text) {
    for (zel::size_t i = 0; i < text.size();) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const zel::size_t length = zel::utf8Length(text, i);
        if (length == 0 || byte == 0x7f || (byte < ' ' && byte != '\t' && byte != '\n' && byte != '\r') ||
            isLostInXml(text.substr(i, length)))
            return false;
        i += length;
    }
    return true;
}

bool isXmlName(std::string_view name) {
    for (zel::size_t i = 0; i < name.size();) {
        const zel::size_t length = zel::utf8Length(name, i);
        if (length == 0)
            return false;
        const zel::uint32 code = codeOf(name.substr(i, length));
        if (!isIn(NameStarts, code) && (i == 0 || !isIn(NameRests, code)))
            return false;
        i += length;
    }
    return !name.empty();
}

} // namespace zelStream
