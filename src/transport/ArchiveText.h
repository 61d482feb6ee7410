#pragma once

#include <zel/Integers.h>
#include <zel/Uuid.h>
#include <zelStream/ArchiveTypes.h>

#include <string>
#include <string_view>

// How values look in XML archives, in every locale the same. What reads takes the whole text or nothing.

namespace zelStream {

/// Appends the text of a scalar value.
void appendScalar(std::string& out, const void* value, ScalarForm form);
/// @return whether the text is a value of that form, which then lies in `value`, and else nothing
[[nodiscard]] bool parseScalar(std::string_view text, void* value, ScalarForm form);

/// Appends a string as one token: without blanks, and of "\e" if it is empty. Whatever is no UTF-8, or would
/// be lost or changed on the way through a parser, is escaped.
void appendToken(std::string& out, std::string_view text);
/// The same with blanks and the empty text as they are.
void appendAttributeText(std::string& out, std::string_view text);
/// @return whether the text has no unknown escapes; its string is then in `value`
[[nodiscard]] bool parseEscaped(std::string_view text, std::string& value);

/// @return whether the text is wholly of the form that Uuid::str writes
[[nodiscard]] bool parseUuid(std::string_view text, zel::Uuid& uuid);

/// Appends bytes in base64, and "-" for none.
void appendBytes(std::string& out, const void* data, zel::size_t numBytes);
/// @return whether the text is that of exactly so many bytes; else nothing is read
[[nodiscard]] bool parseBytes(std::string_view text, void* data, zel::size_t numBytes);

/// Appends a text with the marks of XML replaced by entities.
void appendXml(std::string& out, std::string_view text);
/// Whether XML can hold the text, and parsers give it back, as it is.
[[nodiscard]] bool isXmlText(std::string_view text);
/// Whether an element or an attribute can have the name.
[[nodiscard]] bool isXmlName(std::string_view name);

} // namespace zelStream
