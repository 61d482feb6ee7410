#include "StreamText.h"

#include "data/FormatLookup.h"
#include "data/ValueLiteral.h"
#include "transport/Envelope.h"

#include <zel/VerifyThrow.h>
#include <zelData/Format.h>
#include <zelData/Type.h>

#include <algorithm>
#include <stdexcept>

namespace zel {

namespace {

using zelData::stripped;

bool isBool(const zelData::Format* format) {
    return format != nullptr && format->getType() != nullptr && format->getType()->getName().str() == "Bool";
}

/// The literal in the explicit forms around it; empty if there is none.
std::string_view innermostLiteral(std::string_view text) {
    text = stripped(text);
    while (true) {
        if (zelData::isLiteral(text))
            return text;
        const auto open = text.find('(');
        if (open == std::string_view::npos || zelData::findFormat(stripped(text.substr(0, open))) == nullptr)
            return {};
        text = text.substr(open + 1);
        // Without a form in it, it ends here; else the next turn enters that.
        const auto end = text.find_first_of("(),");
        text = stripped(end != std::string_view::npos && text[end] != '(' ? text.substr(0, end) : text);
    }
}

void verifyBool(std::string_view text) {
    const std::string_view literal = innermostLiteral(text);
    zelVerifyThrowN(literal.empty() || literal == "true" || literal == "false",
                    "'%s' is no Bool: it is 'true' or 'false'",
                    shortened(literal).c_str());
}

} // namespace

String shortened(std::string_view text) {
    return zelNet::printable(text, 200);
}

bool isPlainPath(std::string_view text) {
    const auto isBad = [](char c) {
        return static_cast<unsigned char>(c) < 0x20 || c == 0x7F || c == '/' || c == '\\';
    };
    return !text.empty() && text.front() != '.' && text.back() != '.' &&
           text.find("..") == std::string_view::npos && std::none_of(text.begin(), text.end(), isBad);
}

Path verifiedPath(const String& path) {
    constexpr std::size_t MaxSize = 4096;
    if (path.size() > MaxSize)
        throw std::runtime_error("The path '" + shortened(path) + "' is too long");
    return path;
}

void verifyExpression(std::string_view text, const zelData::Format* format) {
    if (isBool(format))
        verifyBool(text);
    for (std::size_t at = text.find('@'); at != std::string_view::npos; at = text.find('@', at + 1))
        static_cast<void>(verifiedPath(std::string(text.substr(at, text.find_first_of("(),", at) - at))));
    // Each name ahead of a bracket is a format, or a function.
    for (std::size_t open = text.find('('); open != std::string_view::npos; open = text.find('(', open + 1)) {
        const auto before = open == 0 ? std::string_view::npos : text.find_last_of("(),", open - 1);
        const std::size_t begin = before == std::string_view::npos ? 0 : before + 1;
        const std::string_view name = stripped(text.substr(begin, open - begin));
        const zelData::Format* const named = zelData::findFormat(name);
        if (isBool(named))
            verifyBool(text.substr(begin));
        zelVerifyThrowN(
            named != nullptr || isPlainPath(name), "'%s' is no name of a function", shortened(name).c_str());
    }
}

} // namespace zel
