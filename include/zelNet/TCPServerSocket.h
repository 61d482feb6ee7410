#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zelNet/Socket.h>

namespace zelNet {

class TCPSocket;

/// Waits for connections on all addresses of the machine.
/// @threads external lock
class ZEL_CORE_API TCPServerSocket : public Socket {
public:
    TCPServerSocket() : Socket(IPAddress()) {}
    TCPServerSocket& operator=(const TCPServerSocket&) = default;
    ~TCPServerSocket() override;

    /// @param port  0 lets the system choose
    /// @param disableNagle  of the connections that are accepted
    /// @throws NetError  if the socket is open or the port cannot be had
    void open(zel::uint16 port, bool disableNagle);
    /// Where it listens; 0 if it is not open.
    [[nodiscard]] zel::uint16 getPort() const;
    /// Never waits. The port in the address of the result is in network byte order, unlike elsewhere.
    /// @return a new connection without owner; null if none is pending, and with a warning in the log if the
    ///     system has no room for it
    /// @throws NetError  if the socket is not open
    [[nodiscard]] TCPSocket* accept();

private:
    bool m_disableNagle = false;
};

} // namespace zelNet
