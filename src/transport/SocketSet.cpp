#include "SystemCalls.h"

#include <zel/Exception.h>
#include <zel/String.h>
#include <zelNet/Library.h>
#include <zelNet/NetError.h>
#include <zelNet/SocketSet.h>

#include <algorithm>

namespace zelNet {

SocketSet::~SocketSet() = default;

bool SocketSet::addSocket(Socket* socket) {
    if (socket == nullptr)
        ZEL_THROW(NetError, "SocketSet::addSocket(): null socket pointer passed as argument");
    if (std::find(m_sockets.begin(), m_sockets.end(), socket) != m_sockets.end())
        return false;
    if (m_sockets.size() == getMaxSockets())
        ZEL_THROW(NetError, "SocketSet::SocketSet(): no more sockets available");
    m_sockets.push_back(zel::ref_ptr<Socket>(socket));
    return true;
}

bool SocketSet::removeSocket(Socket* socket) {
    if (socket == nullptr)
        ZEL_THROW(NetError, "SocketSet::removeSocket(): null socket pointer passed as argument");
    const auto place = std::find(m_sockets.begin(), m_sockets.end(), socket);
    if (place == m_sockets.end())
        return false;
    m_sockets.erase(place);
    return true;
}

bool SocketSet::checkSockets(zel::uint32 timeoutMs) {
    (void)Library::instance();
    zel::Vector<pollfd> entries;
    zel::Vector<Socket*> sockets;
    for (const zel::ref_ptr<Socket>& socket : m_sockets)
        if (socket->isValid()) {
            entries.push_back(pollfd{socket->m_socket, POLLIN, 0});
            sockets.push_back(socket.get());
        }
    if (entries.empty() || !pollRemembering(entries.data(), entries.size(), timeoutMs))
        return false;
    bool any = false;
    for (zel::size_t i = 0; i < entries.size(); ++i)
        if ((entries[i].revents & ReadableEvents) != 0) {
            sockets[i]->inputReady = true;
            any = true;
        }
    return any;
}

} // namespace zelNet
