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

/// The same, but a file that is read again for each of its components is told once.
void warnOnceAt(const TiXmlElement* element, const std::string& message, int row = 0);

/// Whether the message about the file is new.
/// @threads any thread
[[nodiscard]] bool isNewMessage(const String& file, const String& message);
/// The messages about the file are new again, since it is going to be loaded anew.
void forgetMessages(const String& file);

/// Whether the text of an exception tells file and row. It has been logged then, when it was thrown.
[[nodiscard]] bool tellsPlace(const std::exception& exception);

} // namespace zel
