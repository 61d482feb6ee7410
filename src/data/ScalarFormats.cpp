#include "Ascii.h"
#include "BuiltinFormats.h"
#include "FormatFamily.h"
#include "RealText.h"

#include <zel/InvalidIndex.h>
#include <zel/Verify.h>
#include <zelData/GenericFormat.h>

#include <cmath>
#include <limits>
#include <numbers>

namespace zelData {

namespace {

using SignedFormats = NumericFormats<zel::int8, zel::int16, zel::int32, zel::int64>;
using UnsignedFormats = NumericFormats<zel::uint8, zel::uint16, zel::uint32, zel::uint64>;
using RealFormats = NumericFormats<float, double>;

void writeBool(zel::String& text, bool value) {
    text = value ? "true" : "false";
}

void readBool(bool& value, const zel::String& text) {
    if (text == "true")
        value = true;
    else if (text == "false")
        value = false;
    else
        zelAbort("Unknown boolean value '%s', TODO case insensitive?", text.c_str());
}

template <typename T>
void writeInteger(zel::String& text, T value) {
    AsciiText().integer(static_cast<zel::int64>(value)).assignTo(text);
}

template <typename T>
void readInteger(T& value, const zel::String& text) {
    value = text == "InvalidIndex" ? static_cast<T>(~std::make_unsigned_t<T>{0}) : readScalar<T>(text);
}

template <typename T>
void writeReal(zel::String& text, T value) {
    AsciiText().general(static_cast<double>(value)).assignTo(text);
}

template <typename T>
void readReal(T& value, const zel::String& text) {
    if (text == "PI")
        value = std::numbers::pi_v<T>;
    else if (text == "INFINITY")
        value = std::numeric_limits<T>::infinity();
    else
        value = readScalar<T>(text);
}

/// The shortest text that Octave reads back as the same value.
template <typename T>
void writeOctave(zel::String& text, T value) {
    if (std::isnan(value)) {
        text = "NaN";
    } else if (std::isinf(value)) {
        text = value < 0 ? "-Inf" : "Inf";
    } else {
        std::array<char, 32> buffer{};
        const auto result = toChars(buffer.data(), buffer.data() + buffer.size(), value);
        text.assign(buffer.data(), result.ptr);
    }
}

template <typename A, typename B>
void connectScalars(Format* a, Format* b) {
    registerTransformer(&GenericTransformFunction<A, B>, a, b);
    registerTransformer(&GenericTransformFunction<B, A>, b, a);
}

template <typename T>
inline constexpr bool isWide = sizeof(T) >= 4;

} // namespace

// Each type is connected with those above it in this file.

void createVoidFormats() {
    getOrCreateType("Void")->addFormat(new GenericFormat("void", 0), true);
}

void createAutoFormats() {
    getOrCreateType("Auto")->addFormat(new GenericFormat("default", 0), true);
}

void createBoolFormats() {
    Type* type = getOrCreateType("Bool");
    auto* const format = new FormatT<bool>("8bit", Swap8Function);
    type->addFormat(format, true);
    Format::registerFormatPrimitives<bool>(format, 1, 0);
    registerAscii<bool, &writeBool, &readBool>(addTextFormat(type, "ascii"), format);
}

void createIntFormats() {
    Type* type = getOrCreateType("Int");
    const SignedFormats formats(type);
    Format* ascii = addTextFormat(type, "ascii");
    Format* boolFormat = getFormat("Bool:8bit");
    formats.forEach([&]<typename T>(Format* format) {
        registerAscii<T, &writeInteger<T>, &readInteger<T>>(ascii, format);
        if constexpr (isWide<T>)
            connectScalars<T, bool>(format, boolFormat);
    });
}

void createUIntFormats() {
    Type* type = getOrCreateType("UInt");
    const UnsignedFormats formats(type);
    Format* ascii = addTextFormat(type, "ascii");
    Format* boolFormat = getFormat("Bool:8bit");
    formats.forEach([&]<typename T>(Format* format) {
        using Signed = std::make_signed_t<T>;
        registerAscii<T, &writeInteger<T>, &readInteger<T>>(ascii, format);
        if constexpr (isWide<T>)
            connectScalars<T, bool>(format, boolFormat);
        connectScalars<T, Signed>(format, scalarFormat<Signed>("Int"));
    });
}

void createRealFormats() {
    Type* type = getOrCreateType("Real");
    const RealFormats formats(type);
    Format* ascii = addTextFormat(type, "ascii");
    Format* octave = addTextFormat(type, "Octave");
    formats.forEach([&]<typename T>(Format* format) {
        registerAscii<T, &writeReal<T>, &readReal<T>>(ascii, format);
        registerTransformer(&writeAscii<T, &writeOctave<T>>, octave, format);
        const auto connect = [format]<typename I>(const char* typeName) {
            connectScalars<T, I>(format, scalarFormat<I>(typeName));
        };
        connect.template operator()<zel::int32>("Int");
        connect.template operator()<zel::int64>("Int");
        connect.template operator()<zel::uint32>("UInt");
        connect.template operator()<zel::uint64>("UInt");
    });
}

void createAtomicValueFormats() {
    auto* const format = new FormatT<zel::uint32>("default", Swap32Function);
    getOrCreateType("AtomicValue")->addFormat(format, true);
    Format::registerFormatPrimitives<zel::uint32>(format, 1, 0);
}

} // namespace zelData
