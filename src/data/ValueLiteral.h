#pragma once

#include <zel/String.h>

#include <string_view>

namespace zelData {

/// Whether the text of an expression is a literal: begins with a digit or "-", or is one of the words that
/// are.
[[nodiscard]] bool isLiteral(std::string_view text);

/// As pystring::strip, of a text that is too long to be copied at each level of parentheses.
[[nodiscard]] std::string_view stripped(std::string_view text);

/// The text as it stands in messages: cut after 200 characters.
[[nodiscard]] zel::String shortenedExpression(std::string_view text);

} // namespace zelData
