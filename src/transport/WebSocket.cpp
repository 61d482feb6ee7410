#include "Envelope.h"

#include <zel/Exception.h>
#include <zel/Log.h>
#include <zel/Verify.h>
#include <zelNet/NetError.h>
#include <zelNet/StructuredMessage.h>
#include <zelNet/WebSocket.h>
#include <zelNet/WebSocketServer.h>

#include <libwebsockets.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <utility>

namespace zelNet {

using zel::uint32;
using zel::uint64;
using zel::uint8;

namespace {

/// A larger packet is sent as a message of several fragments: what the system does not take at once,
/// libwebsockets copies, for each connection.
constexpr zel::size_t FragmentSize = zel::size_t{256} << 10;

/// So many packets may wait for a peer, however small they are: each takes memory besides its bytes.
constexpr zel::size_t MaxQueuedPackets = zel::size_t{1} << 20;

/// Frames that tell of the connection, and how many bytes these have at most.
constexpr uint8 CloseFrame = 8, PongFrame = 10;
constexpr zel::size_t MaxControlFrame = 125;

/// What libwebsockets writes ahead of a fragment belongs to the fragment before, which other connections may
/// still have to send.
class SavedPrefix {
public:
    explicit SavedPrefix(uint8* fragment) : m_place(fragment - sizeof(m_bytes)) {
        std::memcpy(m_bytes, m_place, sizeof(m_bytes));
    }
    SavedPrefix(const SavedPrefix&) = delete;
    SavedPrefix& operator=(const SavedPrefix&) = delete;
    ~SavedPrefix() { std::memcpy(m_place, m_bytes, sizeof(m_bytes)); }

private:
    uint8* m_place;
    uint8 m_bytes[LWS_PRE] = {};
};

WebSocket::Packet* packetOf(const StructuredMessage& message) {
    using PreHeader = StructuredMessage::PreHeader;
    const std::string json = writeJsonLine(message.getHeader());
    const zel::String& uri = message.getUri();
    const zelData::BinaryData* payload = message.getBinarySegment();
    const uint64 payloadSize = payload == nullptr ? 0 : payload->getSize();
    const uint64 textsEnd = sizeof(PreHeader) + uri.size() + json.size();
    const uint64 payloadOffset = payloadSize == 0 ? 0 : payloadOffsetBehind(textsEnd);
    constexpr uint64 MaxSize = std::numeric_limits<uint32>::max();
    if (textsEnd > MaxSize || payloadSize > MaxSize - payloadOffset)
        ZEL_THROW(NetError, "WebSocket::send(): the message is larger than 4 GiB");

    PreHeader numbers;
    numbers.messageId = message.getMessageId();
    numbers.responseId = message.getResponseId();
    numbers.uriSize = static_cast<uint32>(uri.size());
    numbers.headerSize = static_cast<uint32>(json.size());
    numbers.payloadOffset = static_cast<uint32>(payloadOffset);
    numbers.payloadSize = static_cast<uint32>(payloadSize);
    const uint64 size = payloadSize == 0 ? textsEnd : payloadOffset + payloadSize;
    zel::ref_ptr<WebSocket::Packet> packet(
        new WebSocket::Packet(size, WebSocket::Packet::ContentType::Binary));
    uint8* const bytes = packet->getPayload();
    numbers.write(bytes);
    uint8* const behindUri = std::copy(uri.begin(), uri.end(), bytes + sizeof(PreHeader));
    std::copy(json.begin(), json.end(), behindUri);
    if (payloadSize != 0) {
        std::memset(bytes + textsEnd, 0, payloadOffset - textsEnd);
        std::memcpy(bytes + payloadOffset, payload->getData(), payloadSize);
    }
    return packet.release_nodelete();
}

} // namespace

WebSocket::WebSocket(WebSocketServer* server, lws* handle, bool isOutgoing)
    : m_server(server), m_handle(handle), m_isOpen(handle != nullptr), m_isOutgoing(isOutgoing) {}

WebSocket::~WebSocket() {
    resetPartialMessage();
}

// Sending

void WebSocket::send(Packet* packet) {
    const zel::ref_ptr<Packet> kept(packet);
    if (packet == nullptr || m_server == nullptr)
        return;
    const std::lock_guard lock(m_server->m_mutex);
    if (m_handle == nullptr || m_isClosing)
        return;
    const zel::size_t size = packet->getSize();
    const zel::size_t limit = m_server->getMaxQueuedBytes();
    if (!m_queue.empty() &&
        (m_numQueuedBytes > limit || size > limit - m_numQueuedBytes || m_queue.size() >= MaxQueuedPackets)) {
        ZEL_LOG_WARNING("WebSocket: a client reads too slowly, "
                        << m_numQueuedBytes << " bytes in " << m_queue.size()
                        << " packets wait for it. It is disconnected.");
        close(LWS_CLOSE_STATUS_POLICY_VIOLATION, "reads too slowly");
        return;
    }
    m_queue.push_back({kept, 0});
    m_numQueuedBytes += size;
    m_server->m_hasActivity = true;
    lws_callback_on_writable(m_handle);
}

void WebSocket::send(const zel::String& text) {
    send(zel::ref_ptr<Packet>(new Packet(text)).get());
}

void WebSocket::send(const StructuredMessage* message) {
    if (m_server == nullptr)
        return;
    const std::lock_guard lock(m_server->m_mutex);
    message->setMessageId(m_nextMessageId);
    m_nextMessageId = messageIdAfter(m_nextMessageId);
    send(zel::ref_ptr<Packet>(packetOf(*message)).get());
}

void WebSocket::writeNext() {
    if (m_queue.empty() || m_isClosing)
        return;
    PacketTransfer& transfer = m_queue.front();
    // A client hides its bytes behind a mask, in place.
    if (m_isOutgoing && transfer.numWritten == 0 && transfer.packet->referenceCount() > 1)
        transfer.packet = transfer.packet->clone();
    const Packet& packet = *transfer.packet;
    const zel::size_t left = packet.getSize() - transfer.numWritten;
    const zel::size_t size = std::min(left, FragmentSize);
    const bool isFirst = transfer.numWritten == 0;
    int protocol = isFirst ? packet.getLibwebsocketsWriteProtocol() : int{LWS_WRITE_CONTINUATION};
    if (size != left)
        protocol |= LWS_WRITE_NO_FIN;
    uint8* const fragment = packet.getPayload() + transfer.numWritten;
    int lenWritten = 0;
    {
        const SavedPrefix prefix(fragment);
        lenWritten = lws_write(m_handle, fragment, size, static_cast<lws_write_protocol>(protocol));
    }
    if (lenWritten < 0) // the connection is lost
        return closeSoon();
    zelVerifyAs(lenWritten > 0 || size == 0, "lenWritten > 0");
    const auto written = static_cast<zel::size_t>(lenWritten);
    transfer.numWritten += written;
    m_numQueuedBytes -= written;
    if (transfer.numWritten >= packet.getSize())
        m_queue.pop_front();
    lws_callback_on_writable(m_handle);
}

void WebSocket::dropQueue() noexcept {
    m_queue.clear();
    m_numQueuedBytes = 0;
}

void WebSocket::close(zel::uint16 status, const zel::String& reason) {
    if (m_server == nullptr)
        return;
    const std::lock_guard lock(m_server->m_mutex);
    if (m_handle == nullptr || m_isClosing)
        return;
    // The end that follows is a sudden one, so the peer is told now, if it still listens.
    std::string payload;
    payload += static_cast<char>(status >> 8);
    payload += static_cast<char>(status & 0xFF);
    payload += reason.substr(0, MaxControlFrame - payload.size());
    sendControlFrame(CloseFrame, payload);
    closeSoon();
}

void WebSocket::sendControlFrame(zel::uint8 opcode, const std::string& payload) {
    std::string frame(LWS_PRE, '\0');
    frame += static_cast<char>(0x80U | opcode);
    frame += static_cast<char>((m_isOutgoing ? 0x80U : 0U) | payload.size());
    if (m_isOutgoing)
        frame.append(4, '\0'); // the mask of a client
    frame += payload;
    static_cast<void>(lws_write(
        m_handle, reinterpret_cast<uint8*>(frame.data()) + LWS_PRE, frame.size() - LWS_PRE, LWS_WRITE_RAW));
}

void WebSocket::showLife() {
    if (m_isClosing)
        return;
    lws_validity_confirmed(m_handle);
    sendControlFrame(PongFrame, "");
}

void WebSocket::closeSoon() {
    m_isClosing = true;
    dropQueue();
    resetPartialMessage();
    m_server->m_hasActivity = true;
    // A result of the callback other than 0 would do it too, but there is not always a callback under way.
    lws_set_timeout(m_handle, PENDING_TIMEOUT_USER_REASON_BASE, LWS_TO_KILL_ASYNC);
}

void WebSocket::connectionEnded() noexcept {
    m_handle = nullptr;
    m_isOpen.store(false, std::memory_order_relaxed);
    dropQueue();
    resetPartialMessage();
}

// Receiving

void WebSocket::setReceiveCallback(ReceiveCallback callback) {
    std::unique_lock<WebSocketServer::Mutex> lock;
    if (m_server != nullptr)
        lock = std::unique_lock(m_server->m_mutex);
    m_receiveCallback = std::move(callback);
}

void WebSocket::setPaused(bool isPaused) {
    if (m_server == nullptr)
        return;
    const std::lock_guard lock(m_server->m_mutex);
    if (m_handle == nullptr)
        return;
    m_server->m_hasActivity = true;
    m_isPaused = isPaused;
    lws_rx_flow_control(m_handle, isPaused ? 0 : 1);
    if (isPaused)
        showLife();
}

void WebSocket::receive(void* data, zel::size_t size, zel::size_t remaining, bool isFinal) {
    if (m_isClosing)
        return;
    const zel::size_t limit = std::min(m_maxMessageSize, m_server->getMaxMessageSize());
    const zel::size_t room = limit - std::min(limit, m_partialSize);
    if (size > room || remaining > room - size)
        return close(LWS_CLOSE_STATUS_MESSAGE_TOO_LARGE, "message too large");
    if (remaining != 0 || !isFinal) {
        appendPartialMessage(data, size, remaining);
    } else if (hasPartialMessage()) {
        appendPartialMessage(data, size, remaining);
        receivePartialMessage();
        resetPartialMessage();
    } else {
        messageReceived(data, size);
    }
}

void WebSocket::messageReceived(void* data, zel::size_t size) {
    // The callback may set another one.
    const ReceiveCallback callback = m_receiveCallback;
    if (!callback)
        return;
    try {
        callback(this, static_cast<uint8*>(data), size);
    } catch (const std::exception& e) {
        ZEL_LOG_WARNING("WebSocket message handler exception: " << printable(e.what()));
        send(zel::String(e.what()));
    }
}

void WebSocket::appendPartialMessage(void* data, zel::size_t size, zel::size_t remaining) {
    const zel::size_t needed = m_partialSize + size + remaining;
    if (m_partialMessage == nullptr || needed > m_partialCapacity) {
        const zel::size_t capacity =
            std::max<zel::size_t>({needed, m_partialMessage == nullptr ? 0 : 2 * m_partialCapacity, 1});
        void* const block = std::realloc(m_partialMessage, capacity);
        if (block == nullptr)
            ZEL_THROW(NetError,
                      zel::String::format("Could not allocate %lld bytes for packet.",
                                          static_cast<long long>(capacity)));
        m_partialMessage = static_cast<uint8*>(block);
        m_partialCapacity = capacity;
    }
    if (size != 0)
        std::memcpy(m_partialMessage + m_partialSize, data, size);
    m_partialSize += size;
}

void WebSocket::receivePartialMessage() {
    // Taken out first: whatever the callback does, the next message begins anew.
    const auto release = [](uint8* block) { std::free(block); };
    const std::unique_ptr<uint8, decltype(release)> message(std::exchange(m_partialMessage, nullptr),
                                                            release);
    const zel::size_t size = std::exchange(m_partialSize, 0);
    m_partialCapacity = 0;
    const ReceiveCallback callback = m_receiveCallback;
    callback(this, message.get(), size);
}

void WebSocket::resetPartialMessage() noexcept {
    std::free(std::exchange(m_partialMessage, nullptr));
    m_partialSize = 0;
    m_partialCapacity = 0;
}

} // namespace zelNet
