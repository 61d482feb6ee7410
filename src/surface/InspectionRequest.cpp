#include "InspectionRequest.h"

#include "transport/Envelope.h"

#include <zel/Vector.h>
#include <zelNet/StructuredMessage.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

namespace zelNet {

namespace {

const Json::Value& nullMember() {
    static const Json::Value null;
    return null;
}

[[noreturn]] void refuseMember(const char* member, const std::string& what) {
    throw std::runtime_error(std::string("'") + member + "' must be " + what);
}

} // namespace

InspectionRequest::InspectionRequest(WebSocket* sender, const StructuredMessage& request)
    : socket(sender), message(request), response(Json::objectValue), m_header(request.getHeader()) {}

const Json::Value& InspectionRequest::member(const char* name) const {
    return m_header.isObject() && m_header.isMember(name) ? m_header[name] : nullMember();
}

zel::String InspectionRequest::text(const char* name) const {
    const Json::Value& value = member(name);
    if (value.isNull())
        return {};
    if (!value.isString())
        refuseMember(name, "a text");
    return value.asString();
}

zel::uint64 InspectionRequest::wholeNumber(const char* name, zel::uint64 otherwise, zel::uint64 max) const {
    return member(name).isNull() ? otherwise : wholeNumber(name, max);
}

zel::uint64 InspectionRequest::wholeNumber(const char* name, zel::uint64 max) const {
    const Json::Value& value = member(name);
    if (!value.isNumeric() || !value.isUInt64() || value.asUInt64() > max)
        refuseMember(name, "a whole number from 0 to " + std::to_string(max));
    return value.asUInt64();
}

zel::int64 InspectionRequest::signedNumber(const char* name, zel::int64 otherwise) const {
    const Json::Value& value = member(name);
    if (value.isNull())
        return otherwise;
    if (!value.isNumeric() || !value.isInt64())
        refuseMember(name, "a whole number");
    return value.asInt64();
}

bool InspectionRequest::flag(const char* name) const {
    const Json::Value& value = member(name);
    if (!value.isBool())
        refuseMember(name, "true or false");
    return value.asBool();
}

double InspectionRequest::number(const char* name) const {
    const Json::Value& value = member(name);
    if (!value.isNumeric() || !std::isfinite(value.asDouble()))
        refuseMember(name, "a number");
    return value.asDouble();
}

zel::Vector<zel::String> InspectionRequest::texts(const char* name, zel::size_t maxCount) const {
    const Json::Value& value = member(name);
    if (!value.isArray() || value.size() > maxCount)
        refuseMember(name, "a list of at most " + std::to_string(maxCount) + " texts");
    zel::Vector<zel::String> list;
    for (const Json::Value& entry : value) {
        if (!entry.isString())
            refuseMember(name, "a list of at most " + std::to_string(maxCount) + " texts");
        list.push_back(entry.asString());
    }
    return list;
}

zel::String cutText(zel::String text) {
    if (text.size() <= MaxInspectionText)
        return text;
    zel::size_t end = MaxInspectionText;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U)
        --end;
    text.resize(end == 0 ? MaxInspectionText : end);
    return text;
}

std::string jsonOf(const Json::Value& json) {
    std::string text = writeJsonLine(json);
    text.pop_back();
    return text;
}

void pushText(WebSocket* socket,
              std::string_view uri,
              zel::uint32 number,
              std::string_view header,
              const zelData::BinaryData* payload) {
    StructuredMessage::PreHeader numbers;
    const zel::size_t payloadSize = payload == nullptr ? 0 : payload->getSize();
    const zel::size_t textsEnd = sizeof(numbers) + uri.size() + header.size();
    const zel::size_t offset = payloadSize == 0 ? textsEnd : payloadOffsetBehind(textsEnd);
    numbers.messageId = number;
    numbers.uriSize = static_cast<zel::uint32>(uri.size());
    numbers.headerSize = static_cast<zel::uint32>(header.size());
    numbers.payloadOffset = payloadSize == 0 ? 0 : static_cast<zel::uint32>(offset);
    numbers.payloadSize = static_cast<zel::uint32>(payloadSize);
    const zel::ref_ptr<WebSocket::Packet> packet(
        new WebSocket::Packet(offset + payloadSize, WebSocket::Packet::ContentType::Binary));
    zel::uint8* const bytes = packet->getPayload();
    numbers.write(bytes);
    zel::uint8* end = std::copy(uri.begin(), uri.end(), bytes + sizeof(numbers));
    end = std::copy(header.begin(), header.end(), end);
    std::fill(end, bytes + offset, zel::uint8{0});
    if (payloadSize != 0)
        std::memcpy(bytes + offset, payload->getData(), payloadSize);
    socket->send(packet.get());
}

void push(WebSocket* socket, const char* uri, const Json::Value& header, zelData::BinaryData* payload) {
    const StructuredMessage message(uri, header, payload);
    socket->send(&message);
}

} // namespace zelNet
