#pragma once

#include "XmlDocument.h"

#include <string_view>

namespace zel {

/// Whether the text is UTF-8 without a NUL, and not empty; if not, `error` tells where and why.
[[nodiscard]] bool checkText(std::string_view text, XmlFileError& error);

/// The length of the UTF-8 character at a position, of at least 1; 0 if there is none, and for a NUL.
[[nodiscard]] size_t utf8Length(std::string_view text, size_t position) noexcept;

/// What a document may hold.
struct XmlRules {
    size_t maximumDepth = 512; ///< of elements; the parser recurses for each, and so do its destructors
    size_t maximumAttributes = ~size_t{0}; ///< of an element; the parser compares each with all others
    /// No second root, no document type, and of entities only the five of XML and numbers of characters: what
    /// the parser takes without a word and makes something else of.
    bool isStrict = false;
};

/// Goes through the text of a document ahead of the parser, and refuses what the parser reads past its end,
/// passes over without a word, or refuses without saying which element is meant: text that is not UTF-8, text
/// and closing tags outside of the elements, elements that are not closed or nested too deep, attributes that
/// stand twice or have no value.
/// @return whether the text may be parsed; if not, `error` tells where and why
[[nodiscard]] bool checkXml(std::string_view text, XmlFileError& error, const XmlRules& rules = {});

} // namespace zel
