#include "ValueText.h"

#include "AsciiFormat.h"

#include <zelData/Format.h>
#include <zelData/Value.h>

#include <ostream>

namespace zelData {

void describeValue(std::ostream& stream, const Value& value) {
    const Format* format = value.getFormat();
    stream << " type=" << (format == nullptr ? zel::String() : format->fullName());
    const char* separator = ", binding=";
    constexpr int longestChain = 8;
    int length = 0;
    for (const Value* binding = value.getBinding(); binding != nullptr; binding = binding->getBinding()) {
        if (++length > longestChain) {
            stream << separator << "...";
            break;
        }
        stream << separator << binding->getPath();
        separator = " -> ";
    }
    if (format == nullptr)
        return;
    stream << ", value=";
    if (asciiFormat(format) == nullptr)
        stream << "<no Ascii transformer for type " << format->fullName() << "> ";
    else
        stream << value;
}

} // namespace zelData
