#pragma once

#include <zel/Path.h>
#include <zel/String.h>

#include <json/value.h>

#include <string_view>

namespace zelData {
class Format;
} // namespace zelData

namespace zel {

// What the messages of streams hold as text.

/// Whether the JSON is an object that has the member.
[[nodiscard]] inline bool hasMember(const Json::Value& json, const char* key) {
    return json.isObject() && json.isMember(key);
}

/// The text as it stands in messages: cut after 200 characters, and "." for what is no character.
[[nodiscard]] String shortened(std::string_view text);

/// Whether the text is names with dots between them, and leads to no other place.
[[nodiscard]] bool isPlainPath(std::string_view text);

/// Refuses a path that is longer than 4,096 bytes: pointers may lead in circles, and each name on the way
/// takes room on the stack.
/// @return the path
/// @throws std::runtime_error
Path verifiedPath(const String& path);

/// Refuses an expression that would end the process, or that names what is no name of a function.
/// @param format  of the value that it is for
/// @throws std::runtime_error
void verifyExpression(std::string_view text, const zelData::Format* format);

} // namespace zel
