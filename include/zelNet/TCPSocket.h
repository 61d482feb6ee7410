#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zelNet/Socket.h>

#include <functional>
#include <utility>

struct iovec;

namespace zelNet {

class StructuredMessage;

/// One end of a connection. See Socket about signals.
///
/// A zero that the system returns means that the peer has closed; the NetError then carries this socket.
/// @threads external lock
class ZEL_CORE_API TCPSocket : public Socket {
public:
    /// After how long, in milliseconds, blocking operations ask whether to go on, see setMayWait.
    static constexpr zel::uint32 AskMs = 100;

    TCPSocket() : TCPSocket(IPAddress()) {}
    explicit TCPSocket(const IPAddress& peer) : Socket(peer) {}
    TCPSocket& operator=(const TCPSocket&) = default;
    ~TCPSocket() override;

    /// Connects, and waits for it.
    /// @param disableNagle  sends small pieces at once
    /// @throws TimeoutConnectError  if nobody answers there, or the network cannot be reached
    /// @throws NetError  if the socket is open, and for other failures
    void open(const IPAddress& peer, bool disableNagle);
    /// Sends small pieces at once from now on.
    /// @throws NetError  if the socket is not open
    void disableNaggle();

    /// @return how many bytes the system took, at least one
    /// @throws NetError  if it took none, also because a socket that does not block would have to wait
    zel::uint32 send(const zel::uint8* data, zel::uint32 size);
    /// @return how many bytes came, at least one and at most `size`
    /// @throws NetError  if none came, also because a socket that does not block would have to wait
    zel::size_t recv(zel::uint8* data, zel::size_t size);

    /// Sends all bytes, however long the peer takes. While it waits, the thread's signals wait too, but those
    /// that tell of faults in the program.
    /// @throws NetError  as send
    void sendBlocking(const zel::uint8* data, zel::uint32 size);
    /// Receives exactly so many bytes, however long the peer takes. Signals are treated as in sendBlocking.
    /// @throws NetError  as recv; what came till then is lost
    void recvBlocking(zel::uint8* data, zel::uint32 size);
    /// Sends the pieces, one behind the other.
    /// @throws NetError  as send
    void sendBlocking(const iovec* pieces, zel::size_t numPieces);
    /// Sends the message from where its parts lie, without its numbers: the peer finds 0 for both. Do not
    /// give a URI to a message with payload. The peer gets as many bytes of padding too many as the URI has,
    /// and above 32 bytes of padding the process ends.
    /// @throws NetError  as send, and for a message of 4 GiB
    void sendBlocking(const StructuredMessage* message);

    /// The blocking operations ask ten times a second, while they wait, whether they may go on waiting; they
    /// throw NetError if not. Empty, as at first, means that they may.
    void setMayWait(std::function<bool()> mayWait) { m_mayWait = std::move(mayWait); }

private:
    friend class TCPServerSocket; // makes open ones

    void sendPieces(iovec* pieces, zel::size_t numPieces);

    std::function<bool()> m_mayWait;
};

} // namespace zelNet
