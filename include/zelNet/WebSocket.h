#pragma once

#include <zel/Callback.h>
#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Name.h>
#include <zel/Referenced.h>
#include <zel/String.h>
#include <zel/ref_ptr.h>

#include <json/forwards.h>

#include <atomic>
#include <deque>

struct lws;

namespace zelData {
class Frame;
} // namespace zelData

namespace zelNet {

class StructuredMessage;
class WebSocketServer;

/// One connection of a WebSocketServer, which makes it and lets it go when the connection ends. Whoever keeps
/// a reference longer holds a dead socket: sending through it does nothing.
///
/// All network work is done by WebSocketServer::service: `send` only puts into a queue, and the receive
/// callback is called from within `service`, on the thread that calls it.
/// @threads `send`, `close`, `setPaused` and `setReceiveCallback` from any thread; all else as the server's
///     service
class ZEL_CORE_API WebSocket : public zel::Referenced {
public:
    class ControlChannel;

    /// Bytes that are ready to be sent, as one message. One packet may wait in the queues of many sockets of
    /// one server; nobody changes its payload meanwhile. Owned through ref_ptr.
    class ZEL_CORE_API Packet : public zel::Referenced {
    public:
        enum class ContentType : zel::uint32 {
            Binary = 0,
            Text = 1 ///< always valid UTF-8: what is none is replaced by U+FFFD
        };

        /// Uninitialised bytes.
        /// @throws NetError  without the memory for it
        Packet(zel::size_t size, ContentType type);
        /// The frame as a FramePacket.
        /// @param leftOut  the name of a child of the frame that is not sent
        /// @throws std::runtime_error  as FramePacket
        explicit Packet(const zelData::Frame* frame, const zel::Name& leftOut = zel::Name());
        /// The value on one line, as text.
        explicit Packet(const Json::Value& json);
        explicit Packet(const zel::String& text);
        Packet(const Packet&) = delete;
        Packet& operator=(const Packet&) = delete;
        ~Packet() override;

        [[nodiscard]] ContentType getContentType() const noexcept { return m_type; }
        [[nodiscard]] zel::uint8* getPayload() const noexcept { return m_payload; }
        [[nodiscard]] zel::size_t getSize() const noexcept { return m_size; }
        /// What lws_write is told: an lws_write_protocol.
        /// @throws NetError  for a content type that is none
        [[nodiscard]] int getLibwebsocketsWriteProtocol() const;
        /// A packet of the same bytes, without owner.
        [[nodiscard]] Packet* clone() const;

    private:
        void allocate(zel::size_t size);
        void setText(const std::string& text);

        ContentType m_type;
        zel::uint8* m_allocation = nullptr;
        zel::uint8* m_payload = nullptr; // behind the bytes that libwebsockets writes to
        zel::size_t m_size = 0;
    };

    /// A packet in the queue of a socket.
    struct PacketTransfer {
        zel::ref_ptr<Packet> packet;
        zel::size_t numWritten = 0; ///< bytes of it
    };

    using ReceiveCallback = zel::Callback3<WebSocket*, zel::uint8*, zel::size_t>;

    /// Messages above this size end the connection, where nothing else was set.
    static constexpr zel::size_t NoLimit = ~zel::size_t{0};

    /// Made by the server.
    /// @param isOutgoing  whether WebSocketServer::createConnection made the connection
    WebSocket(WebSocketServer* server, lws* handle, bool isOutgoing);
    WebSocket(const WebSocket&) = delete;
    WebSocket& operator=(const WebSocket&) = delete;
    ~WebSocket() override;

    /// Queues the packet. A peer that is so slow that more waits for it than the server allows is
    /// disconnected. Null is passed over.
    void send(Packet* packet);
    /// The same of a packet of text.
    void send(const zel::String& text);
    /// The same of a message, as one binary packet. The message takes the next number of this socket.
    /// @throws NetError  for a message of 4 GiB, and without memory
    void send(const StructuredMessage* message);

    /// @param callback  gets each message that comes, whole; the bytes are its own until it returns. What it
    ///     throws is logged and sent to the peer as text.
    ///     No call of the one before is under way any more when this returns, unless this is called from it.
    void setReceiveCallback(ReceiveCallback callback);
    /// Leaves what the peer sends in the system, where it waits, or takes it again. Meanwhile the peer gets
    /// signs of life from `service`, since its questions for one wait too.
    /// @threads any thread
    void setPaused(bool isPaused);
    /// Hands a whole message to the callback, if there is one.
    void messageReceived(void* data, zel::size_t size);

    // A message that comes in pieces.

    [[nodiscard]] bool hasPartialMessage() const noexcept { return m_partialMessage != nullptr; }
    /// Adds a piece to the message.
    /// @param remaining  how many more bytes are announced
    /// @throws NetError  without memory
    void appendPartialMessage(void* data, zel::size_t size, zel::size_t remaining);
    /// Hands what was gathered to the callback; there is no partial message from then on.
    /// @throws what the callback throws; std::bad_function_call without one
    void receivePartialMessage();
    void resetPartialMessage() noexcept;

    /// Broadcasts pass over an anonymous socket.
    void setAnonymous(bool isAnonymous) noexcept { m_isAnonymous = isAnonymous; }
    [[nodiscard]] bool isAnonymous() const noexcept { return m_isAnonymous; }
    /// Whether the peer is trusted. A fact for others: the socket itself does nothing about it.
    void setAuthenticated(bool isAuthenticated) noexcept { m_isAuthenticated = isAuthenticated; }
    [[nodiscard]] bool isAuthenticated() const noexcept { return m_isAuthenticated; }

    /// False once the connection has ended.
    /// @threads any thread
    [[nodiscard]] bool isOpen() const noexcept { return m_isOpen.load(std::memory_order_relaxed); }
    [[nodiscard]] bool isOutgoing() const noexcept { return m_isOutgoing; }
    /// Bytes that wait to be sent.
    /// @threads any thread
    [[nodiscard]] zel::size_t getNumQueuedBytes() const noexcept { return m_numQueuedBytes; }
    /// Messages above this size, or above that of the server, end the connection with status 1009.
    void setMaxMessageSize(zel::size_t size) noexcept { m_maxMessageSize = size; }
    /// Ends the connection soon, from within service. The disconnect callback follows.
    /// @param status  of the WebSocket protocol, such as 1009 for a message that is too big
    void close(zel::uint16 status, const zel::String& reason);

private:
    friend class WebSocketServer;
    friend class SocketEventHandler;

    /// What came from the connection: a piece of a message, or all of it.
    void receive(void* data, zel::size_t size, zel::size_t remaining, bool isFinal);
    /// Sends a piece of what waits.
    void writeNext();
    void dropQueue() noexcept;
    void closeSoon();
    /// Sends a frame of at most 125 bytes that tells of the connection, at once.
    void sendControlFrame(zel::uint8 opcode, const std::string& payload);
    /// Keeps a connection that is paused from being taken for a dead one, here and at the peer.
    void showLife();
    /// Forgets the connection, which is no more.
    void connectionEnded() noexcept;

    WebSocketServer* m_server; // null once that has gone
    lws* m_handle;             // null once the connection has ended
    ReceiveCallback m_receiveCallback;
    zel::uint32 m_nextMessageId = 1;
    bool m_isAnonymous = false;
    bool m_isAuthenticated = false;
    zel::uint8* m_partialMessage = nullptr; // from malloc
    zel::size_t m_partialSize = 0;
    std::deque<PacketTransfer> m_queue;
    zel::size_t m_partialCapacity = 0;
    std::atomic<zel::size_t> m_numQueuedBytes{0}; // others may ask
    std::atomic<bool> m_isOpen;                   // the same: whether there is a handle
    zel::size_t m_maxMessageSize = NoLimit;
    bool m_isOutgoing;
    bool m_isPaused = false;
    bool m_isClosing = false; // from now on nothing is received or sent
};

} // namespace zelNet
