// Envelopes from peers: whatever the bytes are, they give a message that lies within them and can be written
// and read again, or a NetError.
#include "Support.h"

#include <zel/ref_ptr.h>
#include <zelData/BinaryData.h>
#include <zelNet/NetError.h>
#include <zelNet/StructuredMessage.h>

#include <json/value.h>
#include <json/writer.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

using zelNet::StructuredMessage;

void require(bool condition) {
    if (!condition)
        std::abort();
}

zel::ref_ptr<StructuredMessage> parse(const std::uint8_t* data, std::size_t size, bool copyPayload) {
    return zel::ref_ptr<StructuredMessage>(StructuredMessage::parse(data, size, copyPayload));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();
    zel::ref_ptr<StructuredMessage> message;
    try {
        message = parse(data, size, false);
    } catch (const zelNet::NetError& error) {
        require(error.getSocket() == nullptr);
        return 0;
    }
    const auto copy = parse(data, size, true);
    const zelData::BinaryData* view = message->getBinarySegment();
    require(view->getData() >= data && view->getData() + view->getSize() <= data + size);
    require(copy->getBinarySegment()->getSize() == view->getSize());
    require(view->getSize() == 0 ||
            std::memcmp(copy->getBinarySegment()->getData(), view->getData(), view->getSize()) == 0);

    StructuredMessage::PreHeader preHeader;
    const std::string json = Json::FastWriter().write(message->getHeader());
    preHeader.messageId = message->getMessageId();
    preHeader.responseId = message->getResponseId();
    preHeader.uriSize = static_cast<zel::uint32>(message->getUri().size());
    preHeader.headerSize = static_cast<zel::uint32>(json.size());
    std::string bytes(sizeof(preHeader), '\0');
    preHeader.write(reinterpret_cast<zel::uint8*>(bytes.data()));
    bytes += message->getUri() + json;
    // Escapes make a text longer than it was, and an infinite number is written and not read.
    if (json.size() > StructuredMessage::MaxHeaderSize || json.find("1e+9999") != std::string::npos)
        return 0;
    const auto again = parse(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(), true);
    require(again->getUri() == message->getUri());
    require(again->getResponseId() == message->getResponseId());
    require(again->getHeader().type() == message->getHeader().type());
    return 0;
}
