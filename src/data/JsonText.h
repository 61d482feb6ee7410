#pragma once

#include <json/forwards.h>

#include <string>
#include <string_view>

namespace zelData {

/// Parses a text whose reals have a point, whatever locale the program has chosen for its streams: a reader
/// by itself takes them as the streams do. Exceptions of jsoncpp pass.
/// @param fault  gets what is wrong; may be null
/// @return whether the text was JSON
[[nodiscard]] bool
readJson(Json::CharReader& reader, std::string_view text, Json::Value& json, std::string* fault = nullptr);

} // namespace zelData
