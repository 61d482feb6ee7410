#pragma once

#include <zel/Export.h>

#include <stdexcept>
#include <string>

namespace zelNet {

class Socket;

/// A failure of the network or of a peer.
class ZEL_CORE_API NetError : public std::runtime_error {
public:
    explicit NetError(const std::string& message, Socket* socket = nullptr);
    ~NetError() override;

    /// The socket whose peer closed the connection, and that of a TCPSocket::open which failed in an unusual
    /// way; null in all other cases. Not kept alive.
    [[nodiscard]] Socket* getSocket() const noexcept { return m_socket; }

private:
    Socket* m_socket;
};

/// Nobody answers at the address, or not yet: a caller that waits for a server to come up tries again.
class ZEL_CORE_API TimeoutConnectError : public NetError {
public:
    explicit TimeoutConnectError(const std::string& message);
    ~TimeoutConnectError() override;
};

} // namespace zelNet
