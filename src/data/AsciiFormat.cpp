#include "AsciiFormat.h"

#include <zel/Name.h>
#include <zelData/Format.h>
#include <zelData/Type.h>

namespace zelData {

namespace {

const Format* findAscii(const Format* format) {
    static const zel::Name name("ascii");
    return format == nullptr || format->getType() == nullptr ? nullptr : format->getType()->getFormat(name);
}

} // namespace

const Format* asciiFormat(const Format* format) {
    const Format* ascii = findAscii(format);
    return ascii != nullptr && getTransformer(ascii, format) != nullptr ? ascii : nullptr;
}

const Format* readableAsciiFormat(const Format* format) {
    const Format* ascii = findAscii(format);
    return ascii != nullptr && getTransformer(format, ascii) != nullptr ? ascii : nullptr;
}

} // namespace zelData
