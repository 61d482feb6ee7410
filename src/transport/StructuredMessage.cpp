#include "Envelope.h"

#include <zel/Exception.h>
#include <zelNet/NetError.h>
#include <zelNet/StructuredMessage.h>

#include <bit>
#include <cstring>
#include <string_view>

namespace zelNet {

using zel::uint32;
using zel::uint64;
using zel::uint8;
using zelData::BinaryData;

static_assert(std::endian::native == std::endian::little, "the numbers of an envelope are little endian");

namespace {

/// The text as a log may show it: "0" for each NUL, "." for other bytes that control terminals.
zel::String shownInLog(std::string_view bytes) {
    zel::String text(bytes);
    for (char& c : text)
        if (c == '\0')
            c = '0';
        else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
            c = '.';
    return text;
}

} // namespace

StructuredMessage::PreHeader StructuredMessage::PreHeader::read(const uint8* bytes) {
    PreHeader preHeader;
    std::memcpy(&preHeader, bytes, sizeof(preHeader));
    return preHeader;
}

void StructuredMessage::PreHeader::write(uint8* bytes) const {
    std::memcpy(bytes, this, sizeof(*this));
}

StructuredMessage::StructuredMessage() : StructuredMessage(zel::String()) {}
StructuredMessage::StructuredMessage(const zel::String& uri)
    : StructuredMessage(uri, Json::Value(), nullptr) {}
StructuredMessage::StructuredMessage(const zel::String& uri, const Json::Value& header, BinaryData* payload)
    : m_uri(uri), m_header(std::make_unique<Json::Value>(header)), m_payload(payload) {}
StructuredMessage::~StructuredMessage() = default;

void StructuredMessage::setHeader(const Json::Value& header) {
    *m_header = header;
}

StructuredMessage* StructuredMessage::createResponse() const {
    auto* response = new StructuredMessage(m_uri);
    response->setResponseId(m_messageId);
    return response;
}

StructuredMessage* StructuredMessage::parse(const uint8* data, zel::size_t size, bool copyPayload) {
    constexpr zel::size_t PreHeaderSize = sizeof(PreHeader);
    if (size < PreHeaderSize)
        ZEL_THROW(NetError, "Structured message has invalid pre-header!");
    const PreHeader preHeader = PreHeader::read(data);
    const std::string_view texts(reinterpret_cast<const char*>(data) + PreHeaderSize, size - PreHeaderSize);
    if (preHeader.uriSize > texts.size())
        ZEL_THROW(NetError,
                  zel::String::format("Structured message has invalid pre-header! URI size: %u, remaining "
                                      "message size: %u. Printable data: %s",
                                      preHeader.uriSize,
                                      static_cast<uint32>(texts.size()),
                                      shownInLog(texts).c_str()));

    zel::ref_ptr<StructuredMessage> message(
        new StructuredMessage(zel::String(texts.substr(0, preHeader.uriSize))));
    message->setMessageId(preHeader.messageId);
    message->setResponseId(preHeader.responseId);
    if (texts.size() - preHeader.uriSize < preHeader.headerSize)
        ZEL_THROW(
            NetError,
            zel::String::format("Structured message has invalid pre-header! URI: %s, message size: %uKB",
                                shownInLog(message->getUri()).c_str(),
                                static_cast<uint32>(size >> 10)));

    Json::Value& header = message->getHeader();
    if (preHeader.headerSize > MaxHeaderSize ||
        !parseJson(texts.substr(preHeader.uriSize, preHeader.headerSize), MaxHeaderDepth, header) ||
        !(header.isNull() || header.isObject()))
        ZEL_THROW(NetError, "Structured message header is not valid JSON!");

    if (uint64{preHeader.payloadOffset} + preHeader.payloadSize > size)
        ZEL_THROW(NetError, "Structured message has invalid pre-header!");
    const uint8* payload = data + preHeader.payloadOffset;
    const zel::ref_ptr<BinaryData> segment(copyPayload ? BinaryData::copy(payload, preHeader.payloadSize)
                                                       : viewOf(payload, preHeader.payloadSize));
    message->setBinarySegment(segment.get());
    return message.release_nodelete();
}

} // namespace zelNet
