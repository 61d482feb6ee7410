#include "SystemCalls.h"

#include <zel/Exception.h>
#include <zel/String.h>
#include <zelNet/Library.h>
#include <zelNet/NetError.h>
#include <zelNet/UDPSocket.h>

#include <arpa/inet.h>
#include <sys/socket.h>

namespace zelNet {

UDPSocket::~UDPSocket() = default;

void UDPSocket::open(zel::uint16 port) {
    (void)Library::instance();
    if (isValid())
        ZEL_THROW(NetError, "UDPSocket::open(): the socket is already opened");
    m_socket = openDescriptor(SOCK_DGRAM);
    if (!isValid())
        ZEL_THROW(NetError, "UDPSocket::open(): ::socket() failed");
    if (port != 0 && !bindToPort(m_socket, port)) {
        close();
        ZEL_THROW(NetError, "UDPSocket::open(): could not bind to local port");
    }
    switchOn(m_socket, SOL_SOCKET, SO_BROADCAST, "SO_BROADCAST");
    inputReady = false;
}

zel::uint32 UDPSocket::send(const zel::uint8* data, zel::uint16 size, IPAddress to) {
    (void)Library::instance();
    const sockaddr_in remote = toSystem(to);
    const ssize_t sent =
        ::sendto(m_socket, data, size, 0, reinterpret_cast<const sockaddr*>(&remote), sizeof(remote));
    if (sent < 0)
        ZEL_THROW(NetError, "UDPSocket::send(): sendto() failed");
    return static_cast<zel::uint32>(sent);
}

zel::uint32 UDPSocket::recv(zel::uint8* data, zel::uint16 size, IPAddress& from) {
    (void)Library::instance();
    sockaddr_in remote{};
    socklen_t remoteSize = sizeof(remote);
    const ssize_t received =
        ::recvfrom(m_socket, data, size, 0, reinterpret_cast<sockaddr*>(&remote), &remoteSize);
    if (received < 0)
        ZEL_THROW(NetError, "UDPSocket::recv(): recvfrom() failed");
    from = IPAddress(ntohl(remote.sin_addr.s_addr), ntohs(remote.sin_port));
    return static_cast<zel::uint32>(received);
}

} // namespace zelNet
