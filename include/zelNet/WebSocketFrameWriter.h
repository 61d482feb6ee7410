#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/LockRank.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelData/FrameIO.h>
#include <zelNet/WebSocketServer.h>

namespace zelNet {

/// Sends frames to all who have connected to a port, each as one binary message of a WebSocket. A child
/// "FrameArchive" of a frame is not sent.
///
/// A frame that is written is queued; `service` sends it, so somebody must call that again and again. Set
/// Track::setExpandFrames(true) on the track that writes here, see TcpSocketFrameWriter.
/// @threads writeFrame and service from any thread
class ZEL_CORE_API WebSocketFrameWriter : public zelData::FrameWriter {
public:
    /// @param port  AnyPort lets the system choose, see getPort
    /// @throws NetError  if the port cannot be had
    explicit WebSocketFrameWriter(zel::uint16 port);
    /// With this one client, whose server somebody else services.
    explicit WebSocketFrameWriter(WebSocket* socket);
    WebSocketFrameWriter(const WebSocketFrameWriter&) = delete;
    WebSocketFrameWriter& operator=(const WebSocketFrameWriter&) = delete;
    ~WebSocketFrameWriter() override;

    void writeFrame(const zelData::Frame* frame) override;
    /// See WebSocketServer::service.
    /// @return whether anything happened
    virtual bool service(double time);

    /// 0 for a writer without port.
    [[nodiscard]] zel::uint16 getPort() const noexcept {
        return m_server ? m_server->getPort() : zel::uint16{0};
    }
    [[nodiscard]] zel::size_t getNumClients() const;
    /// The bytes that wait to be sent, of all clients.
    /// @threads any thread
    [[nodiscard]] zel::size_t getNumQueuedBytes() const;

private:
    void clientConnectedCallback(WebSocket* socket);
    void clientDisconnectedCallback(WebSocket* socket);
    static void messageReceivedCallback(WebSocket* socket, zel::uint8* data, zel::size_t size);

    zel::ref_ptr<WebSocketServer> m_server; // null with a given client
    zel::Vector<zel::ref_ptr<WebSocket>> m_clients;
    mutable zel::RankedMutex<zel::LockRank::FrameStream> m_mutex; // of the clients; taken behind the server's
};

} // namespace zelNet
