#pragma once

#include <zel/Event.h>
#include <zel/Vector.h>
#include <zelNet/StructuredMessage.h>
#include <zelNet/WebSocketServer.h>

namespace zelNet {

/// Requests and responses over WebSocket: messages go to handlers by their URI.
///
///     WebSocket::ControlChannel channel(AnyPort, token);
///     channel.registerMessageHandler("Clock.Get", [&](auto*, WebSocket* socket, StructuredMessage* message)
///     {
///         zel::ref_ptr<StructuredMessage> response(message->createResponse());
///         response->getHeader()["time"] = clock->getTime();
///         socket->send(response.get());
///     });
///
/// A handler answers by itself, or not at all; what it throws is the answer {"success": false, "error":
/// text}. A message that answers another one is never answered by the channel itself.
///
/// With a token, a client must send it before anything else: a message "authenticate" with {"token": token}.
/// Until then its other messages are refused, broadcasts pass over it, its messages may be of 1 MiB at most,
/// it is disconnected if it asks and does not read, and there may be 64 such clients. A connection that the
/// channel makes by itself is trusted only after WebSocket::setAuthenticated(true). docs/wire-format.md tells
/// what crosses the wire.
///
/// Owned through ref_ptr, or by value where nobody counts.
/// @threads as WebSocketServer: all from the thread that calls service, but `send`
class ZEL_CORE_API WebSocket::ControlChannel : public zel::Referenced {
public:
    /// The message is the handler's until it returns: its payload refers to bytes that are gone then.
    using MessageHandler = zel::Callback3<ControlChannel*, WebSocket*, StructuredMessage*>;
    using SocketEvent = zel::EventT<zel::Callback2<ControlChannel*, WebSocket*>>;

    /// Of all channels.
    static constexpr const char* ProtocolName = "zel_stream";
    /// What a client may be that is not authenticated, where there is a token.
    static constexpr zel::size_t MaxUntrustedMessageSize = zel::size_t{1} << 20;
    static constexpr zel::size_t MaxUntrustedQueuedBytes = zel::size_t{1} << 20;
    static constexpr zel::size_t MaxUntrustedClients = 64;

    SocketEvent SocketConnect;
    SocketEvent SocketDisconnect;

    /// The port and the range as those of WebSocketServer.
    /// @param token  empty: everybody is trusted who can connect
    ControlChannel(zel::uint16 port, const zel::String& token);
    ControlChannel(PortRange* range, const zel::String& token);
    ControlChannel(const ControlChannel&) = delete;
    ControlChannel& operator=(const ControlChannel&) = delete;
    ~ControlChannel() override;

    /// Inserts or replaces; null takes the handler away. A call that is under way ends as it began.
    void registerMessageHandler(const zel::String& uri, MessageHandler handler);
    [[nodiscard]] zel::uint16 getPort() const noexcept { return m_server->getPort(); }
    /// Keep it no longer than the channel: it tells the channel of its clients.
    [[nodiscard]] WebSocketServer* getServer() const noexcept { return m_server.get(); }
    [[nodiscard]] const zel::Vector<zel::ref_ptr<WebSocket>>& getClients() const noexcept {
        return m_clients;
    }
    /// See WebSocketServer::service.
    bool service(double time);
    /// To every client, see WebSocketServer::send.
    void send(const StructuredMessage* message);
    /// See WebSocketServer::createConnection.
    WebSocket* createConnection(const zel::String& host,
                                zel::uint16 port,
                                bool useSSL,
                                const zel::String& path,
                                const zel::String& protocol,
                                bool isAnonymous);

private:
    ControlChannel(const char* where, const zel::String& token);
    template <typename Port>
    void start(Port port, const char* where);
    void clientConnected(WebSocket* socket);
    void clientDisconnected(WebSocket* socket);
    void messageReceived(WebSocket* socket, zel::uint8* data, zel::size_t size);
    void handle(WebSocket* socket, StructuredMessage* message);
    void authenticate(WebSocket* socket, const StructuredMessage* message);
    [[nodiscard]] bool isTrusted(const WebSocket* socket) const noexcept;
    void setTrusted(WebSocket* socket, bool isTrusted) const;

    zel::ref_ptr<WebSocketServer> m_server;
    zel::Vector<zel::ref_ptr<WebSocket>> m_clients;
    zel::HashTable<zel::String, MessageHandler> m_handlers;
    zel::String m_token;
    zel::ref_ptr<StructuredMessage> m_lastMessage; // against duplicates
    WebSocket* m_lastSocket = nullptr;
};

} // namespace zelNet
