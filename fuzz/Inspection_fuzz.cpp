// Messages of clients to an inspection service, with no network between them: whatever they ask for, they get
// an answer, and one that takes no changes is as it was.
//
// An input is a byte of flags, then messages, a line each: the URI, a blank and the header.
#include "RemoteTree.h"
#include "Support.h"

#include <zel/ref_ptr.h>
#include <zelNet/ControlChannel.h>
#include <zelNet/InspectionService.h>
#include <zelNet/StructuredMessage.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

namespace {

using zelNet::StructuredMessage;
using zelNet::WebSocket;
using zelNet::WebSocketServer;

std::vector<std::uint8_t> envelopeOf(std::string_view line, zel::uint32 id, zel::uint32 responseId) {
    const std::string_view uri = line.substr(0, line.find(' '));
    const std::string_view header = line.substr(std::min(uri.size() + 1, line.size()));
    StructuredMessage::PreHeader numbers;
    numbers.messageId = id;
    numbers.responseId = responseId;
    numbers.uriSize = static_cast<zel::uint32>(uri.size());
    numbers.headerSize = static_cast<zel::uint32>(header.size());
    std::vector<std::uint8_t> bytes(sizeof(numbers));
    bytes.insert(bytes.end(), uri.begin(), uri.end());
    bytes.insert(bytes.end(), header.begin(), header.end());
    bytes.resize((bytes.size() + 31) / 32 * 32);
    numbers.payloadOffset = static_cast<zel::uint32>(bytes.size());
    numbers.payloadSize = 64;
    bytes.resize(bytes.size() + 64, 0x3F);
    numbers.write(bytes.data());
    return bytes;
}

/// A client of a channel that has no connection, so that what is sent to it is forgotten.
class Client {
public:
    explicit Client(WebSocketServer* server) : m_server(server), m_socket(server->acceptNewClient(nullptr)) {}
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() { m_server->connectionClosed(nullptr); }

    void send(std::string_view line, zel::uint32 responseId) {
        std::vector<std::uint8_t> bytes = envelopeOf(line, ++m_lastId, responseId);
        m_socket->messageReceived(bytes.data(), bytes.size());
    }

private:
    WebSocketServer* m_server;
    zel::ref_ptr<WebSocket> m_socket;
    zel::uint32 m_lastId = 0;
};

/// What a client that may change nothing leaves as it is.
std::string stateOf(const zelFuzz::RemoteTree& tree) {
    std::string state = tree.clock->isEnabled() ? "runs" : "rests";
    for (const double number : {tree.clock->getTime(),
                                tree.clock->getTimeStep(),
                                static_cast<double>(tree.clock->getFrequency()),
                                tree.a->get(),
                                static_cast<double>(tree.top->getNumObjects())})
        state += " " + std::to_string(number);
    return state;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();
    static const zel::ref_ptr<WebSocket::ControlChannel> channel = [] {
        std::cout.rdbuf(nullptr); // refusals would be printed
        std::cerr.rdbuf(nullptr);
        return zel::ref_ptr<WebSocket::ControlChannel>(
            new WebSocket::ControlChannel(WebSocketServer::NoListen, ""));
    }();
    if (size == 0)
        return 0;
    const bool isWritable = (data[0] & 1) != 0;
    const zelFuzz::RemoteTree tree;
    const std::string before = stateOf(tree);
    const zel::ref_ptr<zelNet::InspectionService> service(
        new zelNet::InspectionService(channel.get(), zel::root()));
    service->setWritable(isWritable);
    service->setCallable((data[0] & 2) != 0);
    {
        Client client(channel->getServer());
        std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
        while (!rest.empty()) {
            const std::string_view line = rest.substr(0, rest.find('\n'));
            rest.remove_prefix(std::min(line.size() + 1, rest.size()));
            client.send(line, (data[0] & 4) != 0 ? 5 : StructuredMessage::NoId);
            service->service();
        }
    }
    service->service();
    if (!isWritable && stateOf(tree) != before)
        std::abort();
    return 0;
}
