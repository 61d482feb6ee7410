#pragma once

#include <iosfwd>

namespace zelData {

class Value;

/// Appends what a dump of the tree shows of a value: its type, what it is bound to, and its content.
void describeValue(std::ostream& stream, const Value& value);

} // namespace zelData
