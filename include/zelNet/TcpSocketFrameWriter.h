#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelData/FrameIO.h>
#include <zelNet/PortRange.h>
#include <zelNet/TCPServerSocket.h>
#include <zelNet/TCPSocket.h>

namespace zelNet {

/// Sends frames to all who have connected to a port, as packets that stand one behind the other; the layout
/// stands in docs/wire-format.md. Who connects gets the frames from the next one on.
///
/// Readers do not put partial buffers together: set Track::setExpandFrames(true) on the track that writes
/// here. It listens on all addresses of the machine, and whoever connects gets the frames: see
/// docs/security.md.
/// @threads external lock: the track's, once it has one
class ZEL_CORE_API TcpSocketFrameWriter : public zelData::FrameWriter {
public:
    /// What may stand between two parts of a packet, in bytes; more ends the process.
    static constexpr zel::uint64 MAX_PADDING = 128;

    /// @param port  AnyPort lets the system choose, see getPort
    /// @throws NetError  if the port cannot be had
    explicit TcpSocketFrameWriter(zel::uint16 port);
    /// With this one client.
    explicit TcpSocketFrameWriter(TCPSocket* socket);
    TcpSocketFrameWriter(const TcpSocketFrameWriter&) = delete;
    TcpSocketFrameWriter& operator=(const TcpSocketFrameWriter&) = delete;
    ~TcpSocketFrameWriter() override;

    /// Waits for slow clients; those that still do not read when the track has been stopped are dropped.
    /// @throws NetError  the first one of a client that has gone: it is dropped, the others have got the
    /// frame
    void writeFrame(const zelData::Frame* frame) override;
    /// Tells the clients that no frame follows.
    void endOfStream() override;

    /// For so long in all, clients that take nothing are waited for once the track has been stopped: 0 at
    /// first. To be set ahead of the track's start.
    void setPatience(zel::uint32 milliseconds) noexcept { m_patience = milliseconds; }

    /// 0 for a writer without port.
    [[nodiscard]] zel::uint16 getPort() const noexcept { return m_port; }
    [[nodiscard]] zel::size_t getNumClients() const noexcept { return m_clients.size(); }

private:
    void acceptIncommingConnectionRequests();
    void addClient(TCPSocket* socket);
    [[nodiscard]] bool mayWait();
    template <typename Send>
    void sendToEach(const Send& send);

    zel::ref_ptr<TCPServerSocket> m_server; // null with a given client
    zel::Vector<zel::ref_ptr<TCPSocket>> m_clients;
    zel::uint16 m_port = 0;
    zel::uint32 m_patience = 0; // ms
};

} // namespace zelNet
