#include "transport/Envelope.h"

#include <zel/String.h>
#include <zelNet/WebSocketFrameWriter.h>

#include <algorithm>
#include <iostream>
#include <mutex>
#include <string>

namespace zelNet {

WebSocketFrameWriter::WebSocketFrameWriter(zel::uint16 port)
    : m_server(new WebSocketServer(
          port,
          [this](WebSocket* socket) { clientConnectedCallback(socket); },
          [this](WebSocket* socket) { clientDisconnectedCallback(socket); },
          "zel_stream")) {}

WebSocketFrameWriter::WebSocketFrameWriter(WebSocket* socket) {
    clientConnectedCallback(socket);
}

WebSocketFrameWriter::~WebSocketFrameWriter() {
    for (const auto& client : m_clients)
        client->setReceiveCallback({});
}

void WebSocketFrameWriter::writeFrame(const zelData::Frame* frame) {
    (void)service(0); // who comes and goes
    zel::Vector<zel::ref_ptr<WebSocket>> clients;
    {
        const std::lock_guard lock(m_mutex);
        // Nobody tells when a given one has gone.
        const auto hasGone = [](const zel::ref_ptr<WebSocket>& client) { return !client->isOpen(); };
        m_clients.erase(std::remove_if(m_clients.begin(), m_clients.end(), hasGone), m_clients.end());
        clients = m_clients;
    }
    if (clients.empty())
        return;
    const zel::ref_ptr<WebSocket::Packet> packet(new WebSocket::Packet(frame, "FrameArchive"));
    for (const auto& client : clients)
        client->send(packet.get());
}

bool WebSocketFrameWriter::service(double time) {
    return m_server && m_server->service(time);
}

zel::size_t WebSocketFrameWriter::getNumClients() const {
    const std::lock_guard lock(m_mutex);
    return m_clients.size();
}

zel::size_t WebSocketFrameWriter::getNumQueuedBytes() const {
    const std::lock_guard lock(m_mutex);
    zel::size_t sum = 0;
    for (const auto& client : m_clients)
        sum += client->getNumQueuedBytes();
    return sum;
}

void WebSocketFrameWriter::clientConnectedCallback(WebSocket* socket) {
    {
        const std::lock_guard lock(m_mutex);
        m_clients.push_back(zel::ref_ptr<WebSocket>(socket));
    }
    socket->setReceiveCallback(&WebSocketFrameWriter::messageReceivedCallback);
}

void WebSocketFrameWriter::clientDisconnectedCallback(WebSocket* socket) {
    const std::lock_guard lock(m_mutex);
    const auto place = std::find(m_clients.begin(), m_clients.end(), socket);
    if (place != m_clients.end())
        m_clients.erase(place);
}

void WebSocketFrameWriter::messageReceivedCallback(WebSocket* /*socket*/,
                                                   zel::uint8* data,
                                                   zel::size_t size) {
    std::cout << "zelJournal::WebSocketFrameWriter: The writer got a incoming message of size " << size
              << ". The writer is not supposed to receive any messages. Ignoring.\n"
              << "Printing the message as a string.\n"
              << printable({reinterpret_cast<const char*>(data), size}) << "\nEnd of message." << std::endl;
}

} // namespace zelNet
