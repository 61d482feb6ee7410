#include "BuiltinFormats.h"
#include "FormatFamily.h"

#include <zel/Log.h>
#include <zel/Name.h>
#include <zel/Object.h>
#include <zel/Uuid.h>

#include <bit>
#include <cstdlib>

namespace zelData {

namespace {

void writeName(zel::String& text, const zel::Name& name) {
    text.assign(name.c_str(), name.length());
}

void readName(zel::Name& name, const zel::String& text) {
    name = zel::Name(text);
}

void writePointer(zel::String& text, void* pointer) {
    text = zel::String::format("%p", pointer);
}

/// A text without a number, such as "(nil)" or "nullptr", is null.
void readPointer(void*& pointer, const zel::String& text) {
    pointer = std::bit_cast<void*>(std::strtoul(text.c_str(), nullptr, 16));
}

void writeObjectPointer(zel::String& text, zel::Object* object) {
    writePointer(text, object);
}

/// An address in a text names no object of this process that anybody could vouch for: only null is read.
void readObjectPointer(zel::Object*& object, const zel::String& text) {
    void* pointer = nullptr;
    readPointer(pointer, text);
    if (pointer != nullptr)
        ZEL_LOG_WARNING("ObjectPointer: '" << text << "' can not be read back as an object");
    object = nullptr;
}

} // namespace

void createNameFormats() {
    Type* type = getOrCreateType("Name");
    auto* const format = new FormatT<zel::Name>("default");
    type->addFormat(format, true);
    Format* ascii = addTextFormat(type, "ascii");
    registerAscii<zel::Name, &writeName, &readName>(ascii, format);
    registerAscii<zel::Name, &writeName, &readName>(getFormat("String:default"), format);
}

void createStringFormats() {
    Type* type = getOrCreateType("String");
    Format* format = addTextFormat(type, "default");
    type->setDefaultFormat(format);
    Format* ascii = addTextFormat(type, "ascii");
    registerTransformer(&GenericCopyFunction<zel::String>, ascii, format);
    registerTransformer(&GenericCopyFunction<zel::String>, format, ascii);
}

void createUuidFormats() {
    // The bytes of a uuid stand in one order on every machine.
    getOrCreateType("Uuid")->addFormat(new FormatT<zel::Uuid>("default"), true);
}

void createPointerFormats() {
    Type* type = getOrCreateType("Pointer");
    auto* const format = new FormatT<void*>("default");
    type->addFormat(format, true);
    registerAscii<void*, &writePointer, &readPointer>(addTextFormat(type, "ascii"), format);
}

void createObjectPointerFormats() {
    Type* type = getOrCreateType("ObjectPointer");
    auto* const format = new FormatT<zel::Object*>("64bit");
    type->addFormat(format, true);
    registerAscii<zel::Object*, &writeObjectPointer, &readObjectPointer>(addTextFormat(type, "ascii"),
                                                                         format);
}

} // namespace zelData
