#include "JsonText.h"

#include "Ascii.h"

#include <json/reader.h>
#include <json/value.h>

#include <cmath>
#include <locale>

namespace zelData {

namespace {

/// Whether the streams that the reader makes take "1.5" for one and a half.
bool streamsReadPoints() {
    return std::use_facet<std::numpunct<char>>(std::locale()).decimal_point() == '.';
}

bool isRealToken(std::string_view number) {
    return number.find_first_of(".eE") != std::string_view::npos;
}

/// @return whether the whole text is a real number
bool parseReal(std::string_view text, double& value) {
    const std::string number(text);
    const char* end = nullptr;
    value = readNumber<double>(number.c_str(), end);
    return end == number.c_str() + number.size() && std::isfinite(value);
}

/// Where the text or comment that begins here ends; one character on for anything else.
std::size_t skipOther(std::string_view text, std::size_t at) {
    if (text[at] == '"') {
        for (++at; at < text.size() && text[at] != '"'; ++at)
            if (text[at] == '\\')
                ++at;
        return at + 1;
    }
    if (text.substr(at, 2) == "//")
        return text.find_first_of("\r\n", at);
    if (text.substr(at, 2) == "/*") {
        const std::size_t end = text.find("*/", at + 2);
        return end == std::string_view::npos ? end : end + 2;
    }
    return at + 1;
}

std::size_t skipDigits(std::string_view text, std::size_t at) {
    while (at < text.size() && text[at] >= '0' && text[at] <= '9')
        ++at;
    return at;
}

/// Where the number that begins here ends, as far as the reader takes it for one.
std::size_t skipNumber(std::string_view text, std::size_t at) {
    at = skipDigits(text, at + 1);
    if (at < text.size() && text[at] == '.')
        at = skipDigits(text, at + 1);
    if (at < text.size() && (text[at] == 'e' || text[at] == 'E')) {
        ++at;
        if (at < text.size() && (text[at] == '+' || text[at] == '-'))
            ++at;
        at = skipDigits(text, at);
    }
    return at;
}

/// Puts a zero of the same length where a real number stands: that reads the same in any locale.
void hideReals(std::string& text) {
    for (std::size_t at = 0; at < text.size();) {
        const bool isNumber = text[at] == '-' || text[at] == '+' || skipDigits(text, at) != at;
        const std::size_t end = isNumber ? skipNumber(text, at) : skipOther(text, at);
        double value = 0;
        if (const std::string_view number = std::string_view(text).substr(at, end - at);
            isNumber && isRealToken(number) && parseReal(number, value))
            text.replace(at, end - at, end - at, '0');
        at = end;
    }
}

/// Brings the real numbers back from the text that the values were read from.
/// @return whether all are numbers
bool restoreReals(std::string_view text, Json::Value& json) {
    if (json.isNumeric()) {
        const auto begin = static_cast<std::size_t>(json.getOffsetStart());
        const std::string_view number =
            text.substr(begin, static_cast<std::size_t>(json.getOffsetLimit()) - begin);
        if (!isRealToken(number))
            return true;
        double value = 0;
        if (!parseReal(number, value))
            return false;
        Json::Value real(value);
        json.swapPayload(real); // the place in the text stays
        return true;
    }
    if (!json.isArray() && !json.isObject())
        return true;
    for (Json::Value& child : json)
        if (!restoreReals(text, child))
            return false;
    return true;
}

} // namespace

bool readJson(Json::CharReader& reader, std::string_view text, Json::Value& json, std::string* fault) {
    if (streamsReadPoints())
        return reader.parse(text.data(), text.data() + text.size(), &json, fault);
    std::string hidden(text);
    hideReals(hidden);
    if (!reader.parse(hidden.data(), hidden.data() + hidden.size(), &json, fault))
        return false;
    constexpr std::string_view ByteOrderMark = "\xEF\xBB\xBF"; // places are counted from behind it
    if (text.starts_with(ByteOrderMark))
        text.remove_prefix(ByteOrderMark.size());
    if (restoreReals(text, json))
        return true;
    if (fault != nullptr)
        *fault = "a number is too large";
    return false;
}

} // namespace zelData
