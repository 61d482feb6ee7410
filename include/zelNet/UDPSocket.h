#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zelNet/Socket.h>

namespace zelNet {

/// Sends and receives single packets, to all machines of a network too.
/// @threads external lock
class ZEL_CORE_API UDPSocket : public Socket {
public:
    UDPSocket() : Socket(IPAddress()) {}
    UDPSocket& operator=(const UDPSocket&) = default;
    ~UDPSocket() override;

    /// @param port  where packets arrive; with 0 the first one that is sent chooses
    /// @throws NetError  if the socket is open or the port cannot be had
    void open(zel::uint16 port);
    /// @return the bytes that were sent
    /// @throws NetError
    zel::uint32 send(const zel::uint8* data, zel::uint16 size, IPAddress to);
    /// Receives one packet; what does not fit is lost.
    /// @param from  the sender, whose host is in host byte order, unlike elsewhere: who answers swaps it
    /// @return the bytes of the packet
    /// @throws NetError
    zel::uint32 recv(zel::uint8* data, zel::uint16 size, IPAddress& from);
};

} // namespace zelNet
