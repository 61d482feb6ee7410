#include "Envelope.h"
#include "Token.h"

#include <zel/Log.h>
#include <zel/VerifyThrow.h>
#include <zelNet/ControlChannel.h>
#include <zelNet/NetError.h>

#include <json/value.h>
#include <json/writer.h>

#include <algorithm>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <utility>

namespace zelNet {

using ControlChannel = WebSocket::ControlChannel;
using zel::uint32;

namespace {

/// Of the WebSocket protocol.
constexpr zel::uint16 PolicyViolation = 1008;

bool isAnswer(const StructuredMessage& message) {
    return message.getResponseId() != StructuredMessage::NoId && message.getResponseId() != 0;
}

void sendFailure(WebSocket* socket, const StructuredMessage& message, const std::string& error) {
    if (isAnswer(message))
        return; // two channels would go on for ever
    const zel::ref_ptr<StructuredMessage> response(message.createResponse());
    response->getHeader()["success"] = false;
    response->getHeader()["error"] = error;
    socket->send(response.get());
}

} // namespace

ControlChannel::ControlChannel(zel::uint16 port, const zel::String& token)
    : SocketConnect("SocketConnect", this), SocketDisconnect("SocketDisconnect", this), m_token(token) {
    start(port, "on port ");
}

ControlChannel::ControlChannel(PortRange* range, const zel::String& token)
    : SocketConnect("SocketConnect", this), SocketDisconnect("SocketDisconnect", this), m_token(token) {
    start(range, "from portRange on port ");
}

template <typename Port>
void ControlChannel::start(Port port, const char* where) {
    m_server = new WebSocketServer(
        port,
        [this](WebSocket* socket) { clientConnected(socket); },
        [this](WebSocket* socket) { clientDisconnected(socket); },
        ProtocolName);
    if (!m_token.empty())
        m_server->setMaxUnauthenticated(MaxUntrustedClients);
    ZEL_LOG_INFO("Started WebSocket::ControlChannel "
                 << where << getPort() << ", with token: " << m_token
                 << ", using SSL: " << (m_server->useSSL() ? "YES" : "NO"));
}

ControlChannel::~ControlChannel() {
    // Sockets that others still hold call nobody any more.
    for (const auto& socket : m_clients)
        socket->setReceiveCallback({});
    m_lastMessage = nullptr;
    m_handlers.clear();
    m_clients.clear();
    m_server = nullptr;
}

void ControlChannel::registerMessageHandler(const zel::String& uri, MessageHandler handler) {
    if (handler)
        m_handlers.insert(uri, std::move(handler));
    else
        m_handlers.erase(uri);
}

bool ControlChannel::service(double time) {
    return m_server->service(std::max(time, 1000.0));
}

void ControlChannel::send(const StructuredMessage* message) {
    m_server->send(message);
}

WebSocket* ControlChannel::createConnection(const zel::String& host,
                                            zel::uint16 port,
                                            bool useSSL,
                                            const zel::String& path,
                                            const zel::String& protocol,
                                            bool isAnonymous) {
    return m_server->createConnection(host, port, useSSL, path, protocol, isAnonymous);
}

bool ControlChannel::isTrusted(const WebSocket* socket) const noexcept {
    return m_token.empty() || socket->isAuthenticated();
}

void ControlChannel::setTrusted(WebSocket* socket, bool isTrusted) const {
    socket->setAuthenticated(isTrusted);
    if (m_token.empty() || socket->isOutgoing())
        return;
    socket->setAnonymous(!isTrusted);
    socket->setMaxMessageSize(isTrusted ? NoLimit : MaxUntrustedMessageSize);
}

void ControlChannel::clientConnected(WebSocket* socket) {
    ZEL_LOG_INFO("ControlChannel::clientConnected: " << static_cast<const void*>(socket));
    setTrusted(socket, false);
    m_clients.push_back(zel::ref_ptr<WebSocket>(socket));
    socket->setReceiveCallback([this](WebSocket* sender, zel::uint8* data, zel::size_t size) {
        messageReceived(sender, data, size);
    });
    SocketConnect.fire(this, socket);
}

void ControlChannel::clientDisconnected(WebSocket* socket) {
    ZEL_LOG_INFO("ControlChannel::clientDisconnected: " << static_cast<const void*>(socket));
    socket->setReceiveCallback({});
    const auto place = std::find(m_clients.begin(), m_clients.end(), socket);
    if (place != m_clients.end())
        m_clients.erase(place);
    // Another socket may get its address.
    if (m_lastSocket == socket) {
        m_lastSocket = nullptr;
        m_lastMessage = nullptr;
    }
    SocketDisconnect.fire(this, socket);
}

void ControlChannel::messageReceived(WebSocket* socket, zel::uint8* data, zel::size_t size) {
    zel::ref_ptr<StructuredMessage> message;
    try {
        message = StructuredMessage::parse(data, size, false);
    } catch (const std::exception& e) {
        ZEL_LOG_WARNING("Unable to parse control channel message, error: " << printable(e.what()));
        return;
    }
    const zel::String& uri = message->getUri();
    if (m_lastMessage != nullptr && m_lastMessage->getMessageId() == message->getMessageId() &&
        m_lastSocket == socket && m_lastMessage->getUri() == uri) {
        std::cout << zel::String::format("%p: ControlChannel detected duplicate message! %s\n",
                                         static_cast<const void*>(socket),
                                         printable(uri).c_str())
                  << std::flush;
        return;
    }
    m_lastMessage = message;
    m_lastSocket = socket;
    if (uri != "System.Heartbeat")
        ZEL_LOG_DEBUG(static_cast<const void*>(socket)
                      << ": ControlChannel::messageReceived: " << printable(uri)
                      << ", id: " << message->getMessageId() << ", data: " << static_cast<const void*>(data));

    struct End {
        ~End() {
            // The bytes are gone when this returns, while the message is kept for the next comparison.
            message->setBinarySegment(nullptr);
            // Refusals that nobody reads are not to fill the memory.
            if (stranger != nullptr && !stranger->isAuthenticated() && !stranger->isOutgoing() &&
                stranger->getNumQueuedBytes() > MaxUntrustedQueuedBytes)
                stranger->close(PolicyViolation, "reads too slowly");
        }
        StructuredMessage* message;
        WebSocket* stranger;
    } end{message.get(), isTrusted(socket) ? nullptr : socket};
    if (uri == "authenticate" && !isAnswer(*message))
        return authenticate(socket, message.get());
    if (!isTrusted(socket)) {
        std::cout << "Ignoring message " << printable(uri) << " from non authenticated client "
                  << static_cast<const void*>(socket) << std::endl;
        if (!isAnswer(*message))
            socket->send(zel::String("Error: not authenticated!"));
        return;
    }
    handle(socket, message.get());
}

void ControlChannel::authenticate(WebSocket* socket, const StructuredMessage* message) {
    const Json::Value& header = message->getHeader();
    zelVerifyThrowAs(header.isMember("token"), "header.hasMember(\"token\")");
    const Json::Value& received = header["token"];
    const bool success = isSameToken(received.asString(), m_token);
    if (success)
        std::cout << "WebSocket client " << static_cast<const void*>(socket) << " is authenticated"
                  << std::endl;
    else
        std::cout << "WebSocket client " << static_cast<const void*>(socket)
                  << " failed authentication! Received token " << Json::FastWriter().write(received)
                  << std::flush;
    setTrusted(socket, success);
    const zel::ref_ptr<StructuredMessage> response(message->createResponse());
    response->getHeader()["success"] = success;
    socket->send(response.get());
}

void ControlChannel::handle(WebSocket* socket, StructuredMessage* message) {
    const auto found = m_handlers.find(message->getUri());
    if (found == m_handlers.end()) {
        const zel::String error = zel::String::format(
            "ControlChannel: No message handler registered for uri: %s", message->getUri().c_str());
        ZEL_LOG_WARNING(printable(error));
        sendFailure(socket, *message, error);
        return;
    }
    const MessageHandler handler = found->value; // which may replace itself
    try {
        handler(this, socket, message);
    } catch (const std::exception& e) {
        ZEL_LOG_WARNING("Exception from message handler, error: " << printable(e.what()));
        sendFailure(socket, *message, e.what());
    }
}

} // namespace zelNet
