#include "SystemCalls.h"

#include <zel/Exception.h>
#include <zel/String.h>
#include <zel/Verify.h>
#include <zelNet/Library.h>
#include <zelNet/NetError.h>
#include <zelNet/PortRange.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zelNet {

zel::uint16 getAvailablePort() {
    (void)Library::instance();
    const int descriptor = openDescriptor(SOCK_DGRAM);
    if (descriptor < 0)
        ZEL_THROW(NetError, "Could not open socket");
    sockaddr_in local{};
    socklen_t size = sizeof(local);
    const char* failure = nullptr;
    if (!bindToPort(descriptor, 0))
        failure = "Could not bind socket";
    else if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&local), &size) != 0)
        failure = "Could not getsockname";
    if (::close(descriptor) != 0 && failure == nullptr)
        failure = "Could not close socket";
    if (failure != nullptr)
        ZEL_THROW(NetError, failure);
    return ntohs(local.sin_port);
}

PortRange::PortRange(zel::uint16 start, zel::uint16 end) : m_startPort(start), m_endPort(end) {
    reset();
}

PortRange::~PortRange() = default;

void PortRange::reset() {
    zelVerify(m_endPort > m_startPort);
    m_ports.clear();
    // Counted in 32 bits: below 0 and above 65535 there is no port to stop at.
    for (zel::uint32 port = zel::uint32{m_endPort} + 1; port > m_startPort; --port)
        m_ports.push_back(static_cast<zel::uint16>(port - 1));
}

zel::uint32 PortRange::getPort() {
    if (m_ports.empty())
        return ~zel::uint32{0};
    const zel::uint16 port = m_ports.back();
    m_ports.pop_back();
    return port;
}

} // namespace zelNet
