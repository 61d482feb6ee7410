#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Referenced.h>
#include <zel/String.h>
#include <zel/ref_ptr.h>
#include <zelData/BinaryData.h>

#include <json/forwards.h>

#include <memory>

namespace zelNet {

/// What crosses a socket: a URI that says what is wanted, a header in JSON, and bytes. The layout on the wire
/// stands in docs/wire-format.md.
///
///     StructuredMessage message("System.Heartbeat", header, nullptr);
///     socket->sendBlocking(&message);
///
/// Owned through ref_ptr, or by value where nobody counts.
/// @threads external lock
class ZEL_CORE_API StructuredMessage : public zel::Referenced {
public:
    /// The first 24 bytes of each message, little endian.
    struct PreHeader {
        zel::uint32 messageId = NoId;
        zel::uint32 responseId = NoId;
        zel::uint32 uriSize = 0;
        zel::uint32 headerSize = 0;    ///< of the JSON text
        zel::uint32 payloadOffset = 0; ///< from the beginning of the message
        zel::uint32 payloadSize = 0;

        [[nodiscard]] static PreHeader read(const zel::uint8* bytes);
        void write(zel::uint8* bytes) const;
    };
    static_assert(sizeof(PreHeader) == 24);

    /// Of a message without number, and of one that answers nothing.
    static constexpr zel::uint32 NoId = 0xFFFFFFFFU;
    /// Messages with a longer JSON text are refused.
    static constexpr zel::uint32 MaxHeaderSize = 1024 * 1024;
    /// Messages with JSON that is nested deeper are refused.
    static constexpr int MaxHeaderDepth = 64;

    StructuredMessage();
    explicit StructuredMessage(const zel::String& uri);
    /// @param payload  is kept alive; may be null
    StructuredMessage(const zel::String& uri, const Json::Value& header, zelData::BinaryData* payload);
    StructuredMessage(const StructuredMessage&) = delete;
    StructuredMessage& operator=(const StructuredMessage&) = delete;
    ~StructuredMessage() override;

    [[nodiscard]] const zel::String& getUri() const noexcept { return m_uri; }
    void setUri(const zel::String& uri) { m_uri = uri; }
    /// Null where nothing was set.
    [[nodiscard]] const Json::Value& getHeader() const noexcept { return *m_header; }
    [[nodiscard]] Json::Value& getHeader() noexcept { return *m_header; }
    void setHeader(const Json::Value& header);
    /// The payload; may be null.
    [[nodiscard]] zelData::BinaryData* getBinarySegment() const noexcept { return m_payload.get(); }
    void setBinarySegment(zelData::BinaryData* payload) { m_payload = payload; }

    [[nodiscard]] zel::uint32 getMessageId() const noexcept { return m_messageId; }
    /// Who sends a message gives it its number, also where the message is not to change otherwise.
    void setMessageId(zel::uint32 id) const noexcept { m_messageId = id; }
    /// The number of the message that this one answers.
    [[nodiscard]] zel::uint32 getResponseId() const noexcept { return m_responseId; }
    void setResponseId(zel::uint32 id) noexcept { m_responseId = id; }

    /// @return a new message without owner, of the same URI, that answers this one
    [[nodiscard]] StructuredMessage* createResponse() const;

    /// The message that the bytes hold. More bytes may follow. There is always a payload object, of size 0
    /// for a message without payload.
    /// @param copyPayload  without it the payload refers to the bytes, which must outlive the message
    /// @return a new message without owner
    /// @throws NetError  for bytes that hold no message: sizes that reach beyond them, or a header that is
    ///     neither a JSON object nor null or breaks the limits above
    [[nodiscard]] static StructuredMessage* parse(const zel::uint8* data, zel::size_t size, bool copyPayload);

private:
    zel::String m_uri;
    std::unique_ptr<Json::Value> m_header; // never null; the class of the value stays out of this header
    zel::ref_ptr<zelData::BinaryData> m_payload;
    mutable zel::uint32 m_messageId = NoId;
    zel::uint32 m_responseId = NoId;
};

} // namespace zelNet
