#pragma once

#include <zel/Integers.h>
#include <zel/ref_ptr.h>
#include <zelData/BinaryData.h>

#include <json/value.h>

#include <string>

namespace zelData {
class Buffer;
class Format;
class Value;
} // namespace zelData

namespace zelNet {

// Values and elements as the inspection protocol has them.

/// What the elements of a format are made of. Not cheap to find out, so whoever reads again keeps it.
struct ElementLayout {
    ElementLayout() = default;
    /// @param format  null for none
    explicit ElementLayout(const zelData::Format* format);

    const char* component = ""; ///< such as "f64"; empty for what is not made of one kind of number
    zel::uint32 components = 0; ///< in an element, without padding
    // Of one component
    zel::uint32 componentSize = 0;                              ///< in bytes
    std::string (*numberToText)(const void* element) = nullptr; ///< in JSON
    double (*numberToReal)(const void* element) = nullptr;
};

/// A number, true or false, or a text; null for a value without a format.
/// @param layout  of its format
[[nodiscard]] Json::Value valueToJson(const zelData::Value& value, const ElementLayout& layout);

[[nodiscard]] Json::Value wholeToJson(zel::uint64 number);
/// A number that may be none.
[[nodiscard]] Json::Value realToJson(double number);

/// The elements begin, begin + stride, and so on. Clipped to what there is.
struct ElementRange {
    zel::uint64 begin = 0;
    zel::uint64 count = 0;
    zel::uint64 stride = 1;

    /// As much of the range as the buffer has and as fits.
    [[nodiscard]] ElementRange clipped(const zelData::Buffer& buffer, zel::uint64 maxBytes) const;
};

/// Adds what the protocol tells of elements, and for those that are no plain bytes their texts.
/// @param range  clipped
/// @param byteOffset  where the bytes will lie in the payload
/// @return how many bytes there will be
zel::uint64 describeElements(Json::Value& json,
                             const zelData::Buffer& buffer,
                             const ElementRange& range,
                             zel::uint64 byteOffset);
/// Copies the bytes of the elements.
void copyElements(zel::uint8* target, const zelData::Buffer& buffer, const ElementRange& range);

} // namespace zelNet
