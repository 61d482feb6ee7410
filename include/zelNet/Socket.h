#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Referenced.h>
#include <zelNet/IPAddress.h>

namespace zelNet {

/// The base of the sockets, and the owner of a descriptor of the system. Sockets are of IPv4, and are closed
/// when a program is executed.
///
/// Signals: a call of select, SocketSet::checkSockets, TCPSocket::send or TCPSocket::recv that a signal
/// interrupts repeats itself from then on until the system reports another failure or the peer closes, and
/// what it sends or receives meanwhile is lost or doubled. Threads that call these four block the signals
/// that have handlers. sendBlocking and recvBlocking have no such trap.
///
/// Owned through ref_ptr.
/// @threads external lock
class ZEL_CORE_API Socket : public zel::Referenced {
public:
    bool inputReady = false;  ///< set by select and SocketSet::checkSockets, cleared by what reads
    bool outputReady = false; ///< set by select, cleared by what writes
    bool blocking = true;     ///< what setBlocking was told last
    IPAddress address;        ///< of the peer, or of this end

    explicit Socket(const IPAddress& socketAddress) : address(socketAddress) {}
    Socket(const Socket&) = delete;
    /// Closes this socket and takes over the descriptor of the other, which is closed afterwards.
    Socket& operator=(const Socket& other);
    ~Socket() override;

    /// Whether the socket is open.
    [[nodiscard]] bool isValid() const noexcept { return m_socket != -1; }
    void close();
    /// Of an open socket; a closed one ends the process.
    void setBlocking(bool flag);
    /// Waits until the socket can be read from or written to, and sets the flags of what it can. Leaves flags
    /// that are set. A failure changes nothing.
    void select(zel::uint32 timeoutMs);

    /// The errno of the thread.
    [[nodiscard]] static int getLastError();

protected:
    friend class SocketSet; // waits for many

    mutable zel::int32 m_socket = -1; // -1 if not open; assignment takes it from what it copies
};

} // namespace zelNet
