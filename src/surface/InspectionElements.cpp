#include "InspectionElements.h"

#include "InspectionRequest.h"
#include "data/AsciiFormat.h"
#include "data/RealText.h"
#include "transport/Envelope.h"

#include <zelData/Buffer.h>
#include <zelData/Format.h>
#include <zelData/FormatPrimitives.h>
#include <zelData/Value.h>
#include <zelNet/StructuredMessage.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <type_traits>

namespace zelNet {

using zel::uint32;
using zel::uint64;
using zel::uint8;
using zelData::Format;

namespace {

/// Numbers beyond are texts in JSON: many readers hold each number as a double.
constexpr double LargestJsonNumber = 9007199254740992.0;

template <typename T>
std::string textOfNumber(const void* element) {
    // A bool of a file may be any byte.
    std::conditional_t<std::is_same_v<T, bool>, uint8, T> number{};
    std::memcpy(&number, element, sizeof(number));
    if constexpr (std::is_same_v<T, bool>)
        return number != 0 ? "true" : "false";
    else if constexpr (std::is_floating_point_v<T>) {
        if (std::isnan(number))
            return "\"nan\"";
        if (std::isinf(number))
            return number > 0 ? "\"inf\"" : "\"-inf\"";
    } else if (std::abs(static_cast<double>(number)) > LargestJsonNumber)
        return "\"" + std::to_string(number) + "\"";
    std::array<char, 32> text{};
    if constexpr (sizeof(T) == 1)
        return std::to_string(static_cast<int>(number));
    else
        return {text.data(), zelData::toChars(text.data(), text.data() + text.size(), number).ptr};
}

template <typename T>
double realOfNumber(const void* element) {
    std::conditional_t<std::is_same_v<T, bool>, uint8, T> number{};
    std::memcpy(&number, element, sizeof(number));
    return std::is_same_v<T, bool> ? (number != 0 ? 1.0 : 0.0) : static_cast<double>(number);
}

template <typename T>
const char* componentName() {
    if constexpr (std::is_floating_point_v<T>)
        return sizeof(T) == 4 ? "f32" : "f64";
    else {
        constexpr const char* Signed[] = {"i8", "i16", "i32", "i64"};
        constexpr const char* Unsigned[] = {"u8", "u16", "u32", "u64"};
        constexpr int place = sizeof(T) == 1 ? 0 : sizeof(T) == 2 ? 1 : sizeof(T) == 4 ? 2 : 3;
        return std::is_signed_v<T> ? Signed[place] : Unsigned[place];
    }
}

Json::Value parsed(const std::string& number) {
    Json::Value json;
    return parseJson(number, StructuredMessage::MaxHeaderDepth, json) ? json : Json::Value();
}

} // namespace

ElementLayout::ElementLayout(const Format* format) {
    if (format == nullptr || !format->hasPlainElements() ||
        std::string_view(format->fullName()).starts_with("AtomicValue"))
        return;
    const auto list =
        zelData::CallbackList::forAll([this]<typename T>(unsigned int stride, unsigned int padding) {
            component = componentName<T>();
            components = stride - padding;
            componentSize = sizeof(T);
            numberToText = &textOfNumber<T>;
            numberToReal = &realOfNumber<T>;
        });
    Format::callFormatPrimitive(format, list);
}

Json::Value wholeToJson(uint64 number) {
    return parsed(textOfNumber<uint64>(&number));
}

Json::Value realToJson(double number) {
    return parsed(textOfNumber<double>(&number));
}

Json::Value valueToJson(const zelData::Value& value, const ElementLayout& layout) {
    const Format* format = value.getFormat();
    const void* element =
        format == nullptr ? nullptr : const_cast<zelData::Value&>(value).getData(); // NOLINT
    if (element == nullptr)
        return {};
    if (layout.components == 1)
        return parsed(layout.numberToText(element));
    if (zelData::asciiFormat(format) == nullptr)
        return {};
    return static_cast<const std::string&>(cutText(value.toString()));
}

ElementRange ElementRange::clipped(const zelData::Buffer& buffer, uint64 maxBytes) const {
    constexpr uint64 MaxTexts = 1000;
    ElementRange range = *this;
    const uint64 size = buffer.getNumElements();
    range.stride = std::clamp<uint64>(range.stride, 1, std::max<uint64>(size, 1));
    range.begin = std::min(range.begin, size);
    const uint64 available = (size - range.begin + range.stride - 1) / range.stride;
    const uint64 room =
        buffer.hasPlainElements() ? maxBytes / std::max<uint64>(buffer.getElementSize(), 1) : MaxTexts;
    range.count = std::min({range.count, available, room});
    return range;
}

uint64 describeElements(Json::Value& json,
                        const zelData::Buffer& buffer,
                        const ElementRange& range,
                        uint64 byteOffset) {
    const Format* format = buffer.getFormat();
    json["type"] = static_cast<const std::string&>(format->fullName());
    json["numElements"] = static_cast<Json::UInt64>(buffer.getNumElements());
    json["revision"] = static_cast<Json::UInt64>(buffer.getRevision());
    json["begin"] = static_cast<Json::UInt64>(range.begin);
    json["count"] = static_cast<Json::UInt64>(range.count);
    json["stride"] = static_cast<Json::UInt64>(range.stride);
    json["elementSize"] = static_cast<Json::UInt64>(buffer.getElementSize());
    const ElementLayout layout(format);
    json["component"] = layout.component;
    json["components"] = layout.components;
    json["byteOffset"] = static_cast<Json::UInt64>(byteOffset);
    const uint64 numBytes = buffer.hasPlainElements() ? range.count * buffer.getElementSize() : 0;
    json["numBytes"] = static_cast<Json::UInt64>(numBytes);
    if (!buffer.hasPlainElements()) {
        Json::Value& texts = json["texts"] = Json::Value(Json::arrayValue);
        zelData::Value element(zel::Name("element"), format);
        for (uint64 i = 0; i < range.count && zelData::asciiFormat(format) != nullptr; ++i) {
            element.set(buffer.getElement(range.begin + i * range.stride));
            texts.append(static_cast<const std::string&>(cutText(element.toString())));
        }
    }
    return numBytes;
}

void copyElements(uint8* target, const zelData::Buffer& buffer, const ElementRange& range) {
    const uint64 size = buffer.getElementSize();
    if (range.stride == 1) {
        if (range.count != 0)
            std::memcpy(target, buffer.getElement(range.begin), range.count * size);
        return;
    }
    for (uint64 i = 0; i < range.count; ++i)
        std::memcpy(target + i * size, buffer.getElement(range.begin + i * range.stride), size);
}

} // namespace zelNet
