#pragma once

#include <zel/String.h>
#include <zel/Xml.h>

#include <exception>
#include <string>

namespace zel {

/// Where an element stands, for messages: "file 'FILE', row N".
/// @param row  that of an attribute or a text in the element, if it is meant; else 0
[[nodiscard]] String describePlace(const TiXmlElement* element, int row = 0);

/// Warns of something that most likely is a slip: "In file 'FILE', row N: MESSAGE".
void warnAt(const TiXmlElement* element, const std::string& message, int row = 0);

/// Whether the text of an exception tells file and row. It has been logged then, when it was thrown.
[[nodiscard]] bool tellsPlace(const std::exception& exception);

} // namespace zel
