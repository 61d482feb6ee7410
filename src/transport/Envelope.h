#pragma once

#include <zel/Integers.h>
#include <zelNet/StructuredMessage.h>

#include <json/value.h>

#include <string>
#include <string_view>

// What all that goes in an envelope shares. See docs/wire-format.md.

namespace zelNet {

/// The JSON text on one line, with a line end.
[[nodiscard]] std::string writeJsonLine(const Json::Value& json);

/// @param maxDepth  of values within one another, the outermost counted
/// @return whether the text, which may be followed by more, was JSON
[[nodiscard]] bool parseJson(std::string_view text, int maxDepth, Json::Value& json);

/// Where a payload begins behind so many bytes: the next multiple of 32.
[[nodiscard]] constexpr zel::uint64 payloadOffsetBehind(zel::uint64 numBytes) {
    return (numBytes + 31) / 32 * 32;
}

/// The number of a sender's next message: 0 is none.
[[nodiscard]] constexpr zel::uint32 messageIdAfter(zel::uint32 id) {
    return id + 1 == 0 ? 1 : id + 1;
}

/// Text of a peer, for a terminal or a log: without control characters.
/// @param limit  what is longer is cut, and ends in "..."
[[nodiscard]] std::string printable(std::string_view text, zel::size_t limit = std::string_view::npos);

/// A payload that refers to bytes of somebody else.
[[nodiscard]] zelData::BinaryData* viewOf(const zel::uint8* bytes, zel::size_t size);

} // namespace zelNet
