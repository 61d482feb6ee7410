#include "Envelope.h"
#include "tree/XmlCheck.h"

#include <zel/Exception.h>
#include <zel/Verify.h>
#include <zelNet/FramePacket.h>
#include <zelNet/NetError.h>
#include <zelNet/WebSocket.h>

#include <libwebsockets.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace zelNet {

using zel::uint8;

namespace {

/// Ahead of the payload, for libwebsockets.
constexpr zel::size_t PacketPrefix = 16;
static_assert(PacketPrefix == LWS_PRE);

/// Peers close a connection on which text comes that is no UTF-8.
std::string toValidUtf8(std::string_view text) {
    std::string valid;
    valid.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t length = text[i] == '\0' ? 1 : zel::utf8Length(text, i);
        if (length == 0)
            valid += "\xEF\xBF\xBD"; // U+FFFD
        else
            valid += text.substr(i, length);
        i += std::max<std::size_t>(length, 1);
    }
    return valid;
}

} // namespace

WebSocket::Packet::Packet(zel::size_t size, ContentType type) : m_type(type) {
    allocate(size);
}

WebSocket::Packet::Packet(const zelData::Frame* frame, const zel::Name& leftOut)
    : m_type(ContentType::Binary) {
    const FramePacket packet(frame, leftOut);
    const auto& numbers = packet.getPreHeader();
    allocate(zel::size_t{numbers.payloadOffset} + numbers.payloadSize);
    numbers.write(m_payload);
    const zel::String& header = packet.getHeaderText();
    uint8* const texts = m_payload + sizeof(numbers);
    uint8* const payload = m_payload + numbers.payloadOffset;
    const uint8* const payloadEnd = payload + numbers.payloadSize;
    std::memcpy(texts, header.data(), header.size());
    std::memset(texts + header.size(), 0xFF, packet.getPaddingSize());
    uint8* end = payload;
    for (const auto& segment : packet.getSegments()) {
        uint8* const begin = payload + segment.offset;
        zelVerifyAs(begin + segment.data->getSize() <= payloadEnd,
                    "payload + segment.offset + segment.data->size() <= payloadEnd");
        std::memset(end, 0, static_cast<zel::size_t>(begin - end));
        std::copy_n(segment.data->getData(), segment.data->getSize(), begin);
        end = begin + segment.data->getSize();
    }
    std::memset(end, 0, static_cast<zel::size_t>(payloadEnd - end));
}

WebSocket::Packet::Packet(const Json::Value& json) : m_type(ContentType::Text) {
    setText(writeJsonLine(json));
}

WebSocket::Packet::Packet(const zel::String& text) : m_type(ContentType::Text) {
    setText(text);
}

WebSocket::Packet::~Packet() {
    std::free(m_allocation);
}

void WebSocket::Packet::setText(const std::string& text) {
    const std::string valid = toValidUtf8(text);
    allocate(valid.size());
    std::memcpy(m_payload, valid.data(), valid.size());
}

void WebSocket::Packet::allocate(zel::size_t size) {
    const bool isPossible = size <= std::numeric_limits<zel::size_t>::max() - PacketPrefix;
    m_allocation = isPossible ? static_cast<uint8*>(std::malloc(PacketPrefix + size)) : nullptr;
    if (m_allocation == nullptr)
        ZEL_THROW(
            NetError,
            zel::String::format("Could not allocate %lld bytes for packet.", static_cast<long long>(size)));
    m_payload = m_allocation + PacketPrefix;
    m_size = size;
}

int WebSocket::Packet::getLibwebsocketsWriteProtocol() const {
    switch (m_type) {
    case ContentType::Binary:
        return LWS_WRITE_BINARY;
    case ContentType::Text:
        return LWS_WRITE_TEXT;
    }
    ZEL_THROW(NetError, "WebSocket: Unknown write protocol.");
}

WebSocket::Packet* WebSocket::Packet::clone() const {
    zel::ref_ptr<Packet> copy(new Packet(m_size, m_type));
    std::copy_n(m_payload, m_size, copy->m_payload);
    return copy.release_nodelete();
}

} // namespace zelNet
