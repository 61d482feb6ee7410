#include "Envelope.h"

#include "data/JsonText.h"

#include <json/reader.h>
#include <json/writer.h>

#include <algorithm>
#include <memory>

namespace zelNet {

std::string writeJsonLine(const Json::Value& json) {
    return Json::FastWriter().write(json);
}

std::string printable(std::string_view text, zel::size_t limit) {
    std::string shown(text.substr(0, limit));
    std::replace_if(
        shown.begin(), shown.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }, '.');
    return text.size() > limit ? shown + "..." : shown;
}

namespace {

/// A parser, which takes longer to make than most texts to read.
struct Parser {
    explicit Parser(int depth) : maxDepth(depth) {
        Json::CharReaderBuilder builder;
        builder["collectComments"] = false;
        builder["allowTrailingCommas"] = false;
        builder["stackLimit"] = depth;
        reader.reset(builder.newCharReader());
    }

    int maxDepth;
    std::unique_ptr<Json::CharReader> reader;
};

} // namespace

bool parseJson(std::string_view text, int maxDepth, Json::Value& json) {
    thread_local Parser parser(maxDepth);
    if (parser.maxDepth != maxDepth)
        parser = Parser(maxDepth);
    try {
        return zelData::readJson(*parser.reader, text, json);
    } catch (const Json::Exception&) {
        return false; // nested too deep
    }
}

zelData::BinaryData* viewOf(const zel::uint8* bytes, zel::size_t size) {
    // The view's type knows no constant bytes; readers do not write to them.
    return new zelData::BinaryData(
        const_cast<zel::uint8*>(bytes), size, static_cast<const zel::Referenced*>(nullptr)); // NOLINT
}

} // namespace zelNet
