#include <zel/Verify.h>
#include <zelData/Track.h>
#include <zelNet/FramePacket.h>
#include <zelNet/NetError.h>
#include <zelNet/TcpSocketFrameWriter.h>

#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <exception>
#include <vector>

namespace zelNet {

using zel::uint64;
using zel::uint8;

namespace {

constexpr auto Padding = [] {
    std::array<uint8, TcpSocketFrameWriter::MAX_PADDING> bytes{};
    bytes.fill(0xFF);
    return bytes;
}();

/// The parts of a stream, from where they lie.
class Pieces {
public:
    void add(const void* bytes, uint64 size) {
        if (size != 0)
            m_pieces.push_back({const_cast<void*>(bytes), size}); // NOLINT: only read
    }
    void addPadding(uint64 numBytes) {
        zelVerifyAs(numBytes <= TcpSocketFrameWriter::MAX_PADDING, "numBytes <= MAX_PADDING");
        add(Padding.data(), numBytes);
    }
    void sendTo(TCPSocket& socket) const { socket.sendBlocking(m_pieces.data(), m_pieces.size()); }

private:
    std::vector<iovec> m_pieces;
};

} // namespace

TcpSocketFrameWriter::TcpSocketFrameWriter(zel::uint16 port) : m_server(new TCPServerSocket) {
    m_server->open(port, false);
    m_port = m_server->getPort();
}

TcpSocketFrameWriter::TcpSocketFrameWriter(TCPSocket* socket) {
    addClient(socket);
}

TcpSocketFrameWriter::~TcpSocketFrameWriter() {
    for (const auto& client : m_clients) {
        client->setMayWait({});
        client->close();
    }
    if (m_server)
        m_server->close();
}

void TcpSocketFrameWriter::addClient(TCPSocket* socket) {
    m_clients.push_back(zel::ref_ptr<TCPSocket>(socket));
    socket->setMayWait([this] { return mayWait(); });
}

/// Asked whenever a client has taken nothing for a while.
bool TcpSocketFrameWriter::mayWait() {
    if (getTrack() == nullptr || getTrack()->isRunning())
        return true;
    m_patience -= std::min(m_patience, TCPSocket::AskMs);
    return m_patience != 0;
}

void TcpSocketFrameWriter::acceptIncommingConnectionRequests() {
    if (!m_server)
        return;
    while (TCPSocket* const socket = m_server->accept())
        addClient(socket);
}

template <typename Send>
void TcpSocketFrameWriter::sendToEach(const Send& send) {
    std::exception_ptr firstError;
    for (const auto& client : m_clients)
        try {
            send(*client);
        } catch (const NetError&) {
            const bool isGivenUp = getTrack() != nullptr && !getTrack()->isRunning();
            if (firstError == nullptr && !isGivenUp)
                firstError = std::current_exception();
            client->close();
        }
    const auto hasGone = [](const zel::ref_ptr<TCPSocket>& client) { return !client->isValid(); };
    m_clients.erase(std::remove_if(m_clients.begin(), m_clients.end(), hasGone), m_clients.end());
    if (firstError != nullptr)
        std::rethrow_exception(firstError);
}

void TcpSocketFrameWriter::writeFrame(const zelData::Frame* frame) {
    acceptIncommingConnectionRequests();
    if (m_clients.empty())
        return;
    const zel::ref_ptr<FramePacket> packet(new FramePacket(frame));
    uint8 preHeader[sizeof(StructuredMessage::PreHeader)];
    packet->getPreHeader().write(preHeader);
    Pieces pieces;
    pieces.add(preHeader, sizeof(preHeader));
    pieces.add(packet->getHeaderText().data(), packet->getHeaderText().size());
    // Also without elements: the pre-header tells readers where the next packet begins.
    pieces.addPadding(packet->getPaddingSize());
    uint64 end = 0;
    for (const auto& segment : packet->getSegments()) {
        pieces.addPadding(segment.offset - end);
        pieces.add(segment.data->getData(), segment.data->getSize());
        end = segment.offset + segment.data->getSize();
    }
    sendToEach([&pieces](TCPSocket& client) { pieces.sendTo(client); });
}

void TcpSocketFrameWriter::endOfStream() {
    StructuredMessage::PreHeader marker;
    marker.headerSize = 0xFFFFFFFF;
    uint8 bytes[sizeof(marker)];
    marker.write(bytes);
    sendToEach([&bytes](TCPSocket& client) { client.sendBlocking(bytes, sizeof(bytes)); });
}

} // namespace zelNet
