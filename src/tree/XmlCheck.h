#pragma once

#include "XmlDocument.h"

#include <string_view>

namespace zel {

/// Whether the text is UTF-8 without a NUL, and not empty; if not, `error` tells where and why.
[[nodiscard]] bool checkText(std::string_view text, XmlFileError& error);

/// Goes through the text of a document ahead of the parser, and refuses what the parser reads past its end,
/// passes over without a word, or refuses without saying which element is meant: text that is not UTF-8, text
/// and closing tags outside of the elements, elements that are not closed or nested too deep, attributes that
/// stand twice or have no value.
/// @return whether the text may be parsed; if not, `error` tells where and why
[[nodiscard]] bool checkXml(std::string_view text, XmlFileError& error);

} // namespace zel
