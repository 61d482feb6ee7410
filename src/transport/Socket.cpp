#include "SystemCalls.h"

#include <zel/Log.h>
#include <zel/Verify.h>
#include <zelNet/Library.h>
#include <zelNet/Socket.h>

#include <fcntl.h>
#include <unistd.h>

#include <utility>

namespace zelNet {

Socket::~Socket() {
    close();
}

Socket& Socket::operator=(const Socket& other) {
    if (this == &other)
        return *this;
    close();
    zel::Referenced::operator=(other);
    m_socket = std::exchange(other.m_socket, -1);
    inputReady = other.inputReady;
    outputReady = other.outputReady;
    blocking = other.blocking;
    address = other.address;
    return *this;
}

void Socket::close() {
    // Whatever close says, the descriptor is gone; all that is written stands in the system's buffers.
    if (isValid())
        static_cast<void>(::close(m_socket));
    m_socket = -1;
    inputReady = false;
    outputReady = false;
}

void Socket::setBlocking(bool flag) {
    (void)Library::instance();
    blocking = flag;
    const int old = ::fcntl(m_socket, F_GETFL);
    const int flags = flag ? old & ~O_NONBLOCK : old | O_NONBLOCK;
    zelVerifyAs(::fcntl(m_socket, F_SETFL, flags) == 0, "fcntl(castToSocket(m_socket), F_SETFL, flags) == 0");
}

void Socket::select(zel::uint32 timeoutMs) {
    (void)Library::instance();
    if (!isValid())
        return;
    pollfd entry{m_socket, POLLIN | POLLOUT, 0};
    if (!pollRemembering(&entry, 1, timeoutMs))
        return;
    if ((entry.revents & ReadableEvents) != 0)
        inputReady = true;
    if ((entry.revents & WritableEvents) != 0)
        outputReady = true;
}

int Socket::getLastError() {
    return errno;
}

} // namespace zelNet
