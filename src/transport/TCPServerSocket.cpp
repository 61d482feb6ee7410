#include "SystemCalls.h"

#include <zel/Exception.h>
#include <zel/Log.h>
#include <zel/String.h>
#include <zelNet/Library.h>
#include <zelNet/NetError.h>
#include <zelNet/TCPServerSocket.h>
#include <zelNet/TCPSocket.h>

#include <fcntl.h>
#include <sys/socket.h>

namespace zelNet {

TCPServerSocket::~TCPServerSocket() = default;

void TCPServerSocket::open(zel::uint16 port, bool disableNagle) {
    (void)Library::instance();
    if (isValid())
        ZEL_THROW(NetError, "TCPServerSocket::open(): socket already opened");
    m_socket = openDescriptor(SOCK_STREAM | SOCK_NONBLOCK);
    if (!isValid())
        ZEL_THROW(NetError, "TCPServerSocket::open(): Couldn't create socket");
    switchOn(m_socket, SOL_SOCKET, SO_REUSEADDR, "SO_REUSEADDR");
    if (!bindToPort(m_socket, port)) {
        close();
        ZEL_THROW(NetError, "TCPServerSocket::open(): Couldn't bind to local port");
    }
    constexpr int Backlog = 5;
    if (::listen(m_socket, Backlog) != 0) {
        close();
        ZEL_THROW(NetError, "TCPServerSocket::open(): Couldn't listen to local port");
    }
    m_disableNagle = disableNagle;
}

zel::uint16 TCPServerSocket::getPort() const {
    sockaddr_in local{};
    socklen_t size = sizeof(local);
    const bool isKnown =
        isValid() && ::getsockname(m_socket, reinterpret_cast<sockaddr*>(&local), &size) == 0;
    return isKnown ? ntohs(local.sin_port) : 0;
}

TCPSocket* TCPServerSocket::accept() {
    (void)Library::instance();
    inputReady = false;
    if (!isValid())
        ZEL_THROW(NetError, "TCPServerSocket::accept(): the socket is not opened");
    sockaddr_in remote{};
    socklen_t size = sizeof(remote);
    // The new descriptor blocks: O_NONBLOCK is not handed on.
    const int descriptor = ::accept4(m_socket, reinterpret_cast<sockaddr*>(&remote), &size, SOCK_CLOEXEC);
    if (descriptor < 0) {
        const int error = errno;
        if (error != EAGAIN && error != EINTR && error != ECONNABORTED)
            ZEL_LOG_WARNING("TCPServerSocket::accept(): a connection could not be accepted: error " << error);
        return nullptr;
    }
    auto* socket = new TCPSocket(IPAddress(remote.sin_addr.s_addr, remote.sin_port));
    socket->m_socket = descriptor;
    if (m_disableNagle)
        socket->disableNaggle();
    return socket;
}

} // namespace zelNet
