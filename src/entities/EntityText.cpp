#include "EntityText.h"

#include <zel/String.h>
#include <zelData/Format.h>
#include <zelData/Transform.h>
#include <zelData/Type.h>

#include <ostream>

namespace zelData {

void printElement(std::ostream& stream, const zel::Name& name, const Format* format, const void* element) {
    const Format* ascii = format->getType() == nullptr ? nullptr : format->getType()->getFormat("ascii");
    const TransformFunction toText = ascii == nullptr ? nullptr : getTransformer(ascii, format);
    if (toText == nullptr) {
        stream << '\'' << name << "': No ascii format'";
        return;
    }
    zel::String text;
    toText(&text, element, 1);
    stream << text;
}

} // namespace zelData
