#pragma once

#include <zel/ref_ptr.h>
#include <zelData/BinaryData.h>
#include <zelNet/StructuredMessage.h>

#include <json/value.h>

#include <cstddef>
#include <string>

namespace zelTest {

/// The bytes of an envelope, each field of which can lie.
struct Envelope {
    zelNet::StructuredMessage::PreHeader preHeader;
    std::string rest; ///< behind the pre-header

    Envelope() = default;
    /// An honest one.
    Envelope(const std::string& uri, const std::string& json, const std::string& payload) : rest(uri + json) {
        preHeader.uriSize = static_cast<zel::uint32>(uri.size());
        preHeader.headerSize = static_cast<zel::uint32>(json.size());
        if (payload.empty())
            return;
        const std::size_t end = (24 + rest.size() + 31) / 32 * 32;
        preHeader.payloadOffset = static_cast<zel::uint32>(end);
        preHeader.payloadSize = static_cast<zel::uint32>(payload.size());
        rest.resize(end - 24);
        rest += payload;
    }
    [[nodiscard]] std::string bytes() const {
        std::string result(24, '\0');
        preHeader.write(reinterpret_cast<zel::uint8*>(result.data()));
        return result + rest;
    }
};

/// The message in exactly these bytes.
inline zel::ref_ptr<zelNet::StructuredMessage> parseMessage(const std::string& bytes,
                                                            bool copyPayload = true) {
    return zel::ref_ptr<zelNet::StructuredMessage>(zelNet::StructuredMessage::parse(
        reinterpret_cast<const zel::uint8*>(bytes.data()), bytes.size(), copyPayload));
}

inline std::string textOf(const zelData::BinaryData* data) {
    return {reinterpret_cast<const char*>(data->getData()), data->getSize()};
}

} // namespace zelTest
