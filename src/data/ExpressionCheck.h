#pragma once

#include <zel/Xml.h>

namespace zelData {

class Format;
class Value;

/// Looks at the expression in an attribute of a model file ahead of Value::setExpression. What that would end
/// the process for, a literal without a type and a boolean that is neither word, is an XML error. A literal
/// that is read without being wholly a value of its type is warned of, with file and row.
/// @param format  of the value that it is for; null if there is none yet
/// @throws std::runtime_error
void checkExpression(const zel::TiXmlElement* element, const char* attribute, const Format* format);

/// Gives the value the expression in the attribute, if there is one, checked.
void setFromAttribute(Value& value, const zel::TiXmlElement* element, const char* attribute);

} // namespace zelData
