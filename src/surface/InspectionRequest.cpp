#include "InspectionRequest.h"

#include <zel/Vector.h>
#include <zelNet/StructuredMessage.h>

#include <cmath>
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

void push(WebSocket* socket, const char* uri, const Json::Value& header, zelData::BinaryData* payload) {
    const StructuredMessage message(uri, header, payload);
    socket->send(&message);
}

} // namespace zelNet
