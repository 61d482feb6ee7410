#include "ExpressionCheck.h"

#include "Ascii.h"
#include "AsciiFormat.h"
#include "FormatElement.h"
#include "FormatLookup.h"
#include "ValueLiteral.h"
#include "tree/PathNotes.h"
#include "tree/XmlPlace.h"

#include <zel/Exception.h>
#include <zel/UnresolvedTask.h>
#include <zel/Vector.h>
#include <zel/XmlLoader.h>
#include <zelData/Format.h>
#include <zelData/FunctionValue.h>
#include <zelData/Type.h>
#include <zelData/Value.h>

#include <tinyxml.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <stdexcept>
#include <string>
#include <string_view>

namespace zelData {

namespace {

/// What the numbers of a type are.
enum class Kind { None, Real, Int, UInt };

Kind kindOf(const std::string& type) {
    if (type == "Int" || type == "UInt")
        return type == "Int" ? Kind::Int : Kind::UInt;
    constexpr std::array<std::string_view, 4> integers{"Vec2i", "Vec3i", "Vec4i", "IndexRange"};
    constexpr std::array<std::string_view, 3> unsignedIntegers{"Vec2u", "Vec3u", "Vec4u"};
    constexpr std::array<std::string_view, 10> reals{"Real",
                                                     "Vec2",
                                                     "Vec3",
                                                     "Vec4",
                                                     "Quat",
                                                     "Line",
                                                     "Matrix3x3",
                                                     "Matrix4x4",
                                                     "SPDMatrix3x3",
                                                     "AffineMatrix4x4"};
    const auto holds = [&type](const auto& list) {
        return std::find(list.begin(), list.end(), type) != list.end();
    };
    if (holds(integers))
        return Kind::Int;
    if (holds(unsignedIntegers))
        return Kind::UInt;
    return holds(reals) || type.starts_with("Bound") ? Kind::Real : Kind::None;
}

bool isWord(Kind kind, std::string_view text) {
    return kind == Kind::Real ? text == "PI" || text == "INFINITY" : text == "InvalidIndex";
}

bool isBlank(char c) {
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

std::string quoted(std::string_view text) {
    return "'" + shortenedExpression(text) + "'";
}

/// Takes a text for numbers as a person does, to compare with what the format has read.
class Numbers {
public:
    explicit Numbers(const std::string& text) : m_text(text) { read(); }

    /// What is wrong, whatever the type; empty if nothing is.
    [[nodiscard]] const std::string& fault() const noexcept { return m_fault; }
    [[nodiscard]] const zel::Vector<std::string>& numbers() const noexcept { return m_numbers; }
    /// What stands behind the first number.
    [[nodiscard]] const std::string& rest() const noexcept { return m_rest; }

private:
    void read() {
        const char* at = m_text.c_str();
        while (true) {
            while (isBlank(*at))
                ++at;
            const char* end = nullptr;
            static_cast<void>(readNumber<double>(at, end));
            if (end == at) {
                m_fault = *at == '\0' ? "a number is missing at the end" : quoted(at) + " is no number";
                return;
            }
            m_numbers.push_back(std::string(at, end));
            at = end;
            while (isBlank(*at))
                ++at;
            if (*at == '\0')
                return;
            if (m_numbers.size() == 1)
                m_rest = at;
            if (at != end && std::string_view("+-.0123456789").find(*at) != std::string_view::npos &&
                !(at[0] == '-' && at[1] == '>')) {
                m_fault = "between " + quoted(m_numbers.back()) + " and " + quoted(at) +
                          " a comma is missing, and blanks do not count";
                return;
            }
            const char* const behind = skipSeparator(at);
            if (behind[0] == '\0' && m_numbers.size() > 1)
                return; // as matrices are written
            at = behind;
        }
    }

    const std::string& m_text;
    zel::Vector<std::string> m_numbers;
    std::string m_fault;
    std::string m_rest;
};

double toDouble(const std::string& number) {
    const char* end = nullptr;
    return readNumber<double>(number.c_str(), end);
}

/// Whether the number is a whole one in decimal digits.
bool isInteger(std::string_view number) {
    if (number.starts_with('-') || number.starts_with('+'))
        number.remove_prefix(1);
    return !number.empty() &&
           std::all_of(number.begin(), number.end(), [](char c) { return c >= '0' && c <= '9'; });
}

/// Without a plus and leading zeros.
std::string_view plainInteger(std::string_view number) {
    if (number.starts_with('+'))
        number.remove_prefix(1);
    while (number.size() > 1 && number.front() == '0')
        number.remove_prefix(1);
    return number;
}

/// Whether what has been read is the number that stands in the text.
bool isSame(Kind kind, const std::string& told, const std::string& read) {
    if (kind != Kind::Real)
        return plainInteger(told) == plainInteger(read) || told == "-0";
    const double a = toDouble(told);
    const double b = toDouble(read);
    if (std::isnan(a) || std::isinf(b))
        return std::isnan(a) ? std::isnan(b)
                             : std::isinf(a) && told.find_first_of("0123456789") == std::string::npos;
    return std::abs(a - b) <= 1e-4 * std::abs(a) + 1e-6; // written with six digits
}

/// Why the text is not wholly a value of the type; empty if it is.
/// @param written  what has been read of it, as a text
std::string faultOf(Kind kind, const std::string& text, const std::string& written) {
    const Numbers told(text);
    const Numbers read(written);
    const zel::size_t count = read.numbers().size();
    if (count == 1 && !told.rest().empty())
        return quoted(told.rest()) + " stands behind the number";
    if (!told.fault().empty())
        return told.fault();
    if (told.numbers().size() != 1 && told.numbers().size() != count)
        return "there are " + std::to_string(told.numbers().size()) + " numbers in place of " +
               std::to_string(count);
    for (zel::size_t i = 0; i < told.numbers().size(); ++i) {
        const std::string& number = told.numbers()[i];
        if (kind != Kind::Real && !isInteger(number))
            return quoted(number) + " is no whole number";
        if (kind == Kind::UInt && number.front() == '-' && plainInteger(number.substr(1)) != "0")
            return quoted(number) + " is below 0";
        if (!isSame(kind, number, read.numbers()[i]))
            return quoted(number) + " is out of range";
    }
    return {};
}

/// Whether the text is at first sight a number of the scalar type, as nearly all are: decimal, and short
/// enough for the smallest format of that size.
bool isPlainScalar(const std::string& type, zel::uint64 size, std::string_view text) {
    const bool isReal = type == "Real";
    if (!isReal && type != "Int" && type != "UInt")
        return false;
    if (text.starts_with('-') && type != "UInt")
        text.remove_prefix(1);
    const zel::size_t limit = isReal ? 15 : size < 4 ? 2 : 9;
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    if (text.empty() || text.size() > limit || !isDigit(text.front()))
        return false;
    const auto* const behind = std::find_if_not(text.begin(), text.end(), isDigit);
    return behind == text.end() || (isReal && *behind == '.' && std::all_of(behind + 1, text.end(), isDigit));
}

/// The element of a text, as a text.
zel::String readBack(const Format* format, const Format* ascii, std::string_view text) {
    const zel::String source{std::string(text)};
    const FormatElement element(format);
    transform(element.data(), format, &source, ascii, 1);
    zel::String written;
    transform(&written, ascii, element.data(), format, 1);
    return written;
}

/// Whether literals are read into the format, which is no text itself. Where they can not be, that is refused
/// later.
bool takesLiterals(const Format* format) {
    const Format* const ascii = readableAsciiFormat(format);
    return format->getType() != nullptr && ascii != nullptr && ascii != format &&
           asciiFormat(format) != nullptr;
}

/// Whether the text is for a Bool, and is none.
bool isNoBool(const Format* format, std::string_view text) {
    return format->getType()->getName().str() == "Bool" && text != "true" && text != "false";
}

struct Misreading {
    std::string fault;   // empty where there is none
    std::string written; // how the text is read
};

/// Of a literal for a number, or several.
Misreading misreadingOf(const Format* format, std::string_view text) {
    const std::string name = format->getType()->getName().str();
    const Kind kind = kindOf(name);
    if (kind == Kind::None || isWord(kind, text) || isPlainScalar(name, format->getSize(), text))
        return {};
    const zel::String written = readBack(format, readableAsciiFormat(format), text);
    std::string fault = faultOf(kind, std::string(text), written);
    if (!fault.empty())
        fault = "is not wholly a value of type '" + format->fullName() + "': " + fault;
    return {fault, written};
}

void checkLiteral(const zel::TiXmlElement* element,
                  const char* attribute,
                  const Format* format,
                  std::string_view text) {
    if (!takesLiterals(format))
        return;
    const std::string literal = shortenedExpression(text);
    if (isNoBool(format, text))
        ZEL_XML_ERROR(element,
                      zel::String::format("'%s' of the attribute '%s' is no Bool: it is 'true' or 'false'",
                                          literal.c_str(),
                                          attribute));
    const Misreading misreading = misreadingOf(format, text);
    if (!misreading.fault.empty())
        zel::warnOnceAt(element,
                        "'" + literal + "' of the attribute '" + attribute + "' " + misreading.fault +
                            (misreading.written == text ? std::string()
                                                        : ". It is read as '" + misreading.written + "'"));
}

/// Looks at the numbers among the arguments of a function, and of those in it.
void checkArguments(const zel::TiXmlElement* element, const char* attribute, std::string_view text) {
    for (zel::size_t begin = 0; begin < text.size();) {
        const zel::size_t end = std::min(text.find_first_of("(),", begin), text.size());
        const std::string_view part = stripped(text.substr(begin, end - begin));
        begin = end + 1;
        if (end < text.size() && text[end] == '(') {
            // What is in the brackets of a text, for instance, is no number.
            const Format* const format = findFormat(part);
            if (format != nullptr &&
                (format->getType() == nullptr || kindOf(format->getType()->getName().str()) == Kind::None))
                begin = std::min(text.find(')', end), text.size()) + 1;
            continue;
        }
        if (!isLiteral(part) ||
            !(part.front() == '-' || std::isdigit(static_cast<unsigned char>(part.front())) != 0))
            continue;
        const std::string argument(part);
        const Numbers numbers(argument);
        if (!numbers.fault().empty() || !numbers.rest().empty())
            zel::warnOnceAt(element,
                            "the argument " + quoted(part) + " in the attribute '" + attribute +
                                "' is no number");
    }
}

bool isUntyped(const Format* format) {
    return format == nullptr || format == Format::Auto();
}

} // namespace

void checkExpression(const zel::TiXmlElement* element, const char* attribute, const Format* format) {
    const char* const expression = element->Attribute(attribute);
    if (expression == nullptr)
        return;
    std::string_view text = stripped(expression);
    if (element->Attribute("literal") != nullptr && zel::parseAttribute<bool>(element, "literal")) {
        if (!isUntyped(format))
            checkLiteral(element, attribute, format, expression);
        return;
    }
    // As Value::setExpression: each turn enters one pair of parentheses.
    while (!text.empty()) {
        if (isLiteral(text)) {
            if (isUntyped(format))
                ZEL_XML_ERROR(
                    element,
                    zel::String::format("'%s' of the attribute '%s' needs a type, such as type=\"Real\"",
                                        shortenedExpression(text).c_str(),
                                        attribute));
            checkLiteral(element, attribute, format, text);
            return;
        }
        const auto open = text.find('(');
        if (text.front() == '@' || open == std::string_view::npos || text.back() != ')' ||
            (!isUntyped(format) && format->getType() != nullptr &&
             format->getType()->getName().str() == "String"))
            return;
        const Format* const named = findFormat(stripped(text.substr(0, open)));
        if (named == nullptr) {
            checkArguments(element, attribute, text);
            return;
        }
        if (isUntyped(format))
            format = named;
        text = stripped(text.substr(open + 1, text.size() - open - 2));
    }
}

void Value::verifyLiteral(const zel::String& expression) const {
    const Format* const format = getFormat();
    const std::string_view text = stripped(expression);
    if (!isLiteral(text) || isUntyped() || !takesLiterals(format))
        return;
    const std::string literal = "'" + shortenedExpression(text) + "' ";
    if (isNoBool(format, text))
        throw std::runtime_error(literal + "is no Bool: it is 'true' or 'false'");
    const std::string fault = misreadingOf(format, text).fault;
    if (!fault.empty())
        throw std::runtime_error(literal + fault);
}

void setFromAttribute(Value& value, const zel::TiXmlElement* element, const char* attribute) {
    const char* const expression = element->Attribute(attribute);
    if (expression == nullptr)
        return;
    checkExpression(element, attribute, value.getFormat());
    value.setExpression(std::string(expression));
    if (const auto* function = dynamic_cast<const FunctionValue*>(value.getBinding()))
        function->getProxy()->setPlace(zel::describePlace(element));
    if (value.getFormat() == nullptr || value.getType() == nullptr ||
        value.getType()->getName().str() != "String" || stripped(expression).starts_with('@'))
        zel::notePathsOf(value, element, attribute);
}

} // namespace zelData
