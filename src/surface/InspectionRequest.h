#pragma once

#include <zel/Integers.h>
#include <zel/String.h>
#include <zel/ref_ptr.h>
#include <zelData/BinaryData.h>
#include <zelNet/WebSocket.h>

#include <json/value.h>

#include <string>
#include <string_view>

namespace zelNet {

/// A request to an inspection service, and what is answered.
class InspectionRequest {
public:
    InspectionRequest(WebSocket* sender, const StructuredMessage& request);

    // Members of the header. They throw std::runtime_error for one of the wrong kind, which names it.

    [[nodiscard]] zel::String text(const char* name) const;
    [[nodiscard]] zel::uint64 wholeNumber(const char* name, zel::uint64 otherwise, zel::uint64 max) const;
    /// Required, and finite.
    [[nodiscard]] double number(const char* name) const;
    /// Required.
    [[nodiscard]] zel::uint64 wholeNumber(const char* name, zel::uint64 max) const;
    /// The same of one that may be below 0.
    [[nodiscard]] zel::int64 signedNumber(const char* name, zel::int64 otherwise) const;
    /// Required.
    [[nodiscard]] bool flag(const char* name) const;
    /// Required, of texts.
    [[nodiscard]] zel::Vector<zel::String> texts(const char* name, zel::size_t maxCount) const;
    [[nodiscard]] const Json::Value& member(const char* name) const;

    WebSocket* const socket;
    const StructuredMessage& message;
    Json::Value response;
    zel::ref_ptr<zelData::BinaryData> payload;

private:
    Json::Value m_header; // an object
};

/// Texts in answers are cut at this size.
constexpr zel::size_t MaxInspectionText = 4096;

/// The text, not longer than that; never cut within a character.
[[nodiscard]] zel::String cutText(zel::String text);

/// On one line, without a line end.
[[nodiscard]] std::string jsonOf(const Json::Value& json);

/// Sends a message that answers nothing.
void push(WebSocket* socket, const char* uri, const Json::Value& header, zelData::BinaryData* payload);
/// The same with a header that is JSON text already: for those that are sent again and again, which a tree of
/// values would make five times as dear.
/// @param number  of the message; another one than that of the one of the same URI before
void pushText(WebSocket* socket,
              std::string_view uri,
              zel::uint32 number,
              std::string_view header,
              const zelData::BinaryData* payload);

} // namespace zelNet
