#include <zelNet/NetError.h>

namespace zelNet {

NetError::NetError(const std::string& message, Socket* socket)
    : std::runtime_error(message), m_socket(socket) {}
NetError::~NetError() = default;

TimeoutConnectError::TimeoutConnectError(const std::string& message) : NetError(message) {}
TimeoutConnectError::~TimeoutConnectError() = default;

} // namespace zelNet
