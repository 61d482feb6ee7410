// Messages from clients of a control channel: whatever the bytes are, they are dropped, refused or handled,
// and nothing but the right token lets a handler run.
#include "Support.h"

#include <zel/ref_ptr.h>
#include <zelNet/ControlChannel.h>

#include <json/value.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <vector>

namespace {

using zelNet::StructuredMessage;
using zelNet::WebSocket;
using ControlChannel = WebSocket::ControlChannel;

/// A channel with a client that has no connection: what is sent to it is forgotten.
struct Channel {
    explicit Channel(const char* token) : channel(zelNet::WebSocketServer::NoListen, token) {
        std::cout.rdbuf(nullptr); // each refusal would be printed
        std::cerr.rdbuf(nullptr);
        socket = channel.getServer()->acceptNewClient(nullptr);
        channel.registerMessageHandler("a", [this](auto*, auto*, StructuredMessage* message) {
            ++numCalls;
            const zelData::BinaryData* payload = message->getBinarySegment();
            for (zel::size_t i = 0; i < payload->getSize(); ++i)
                sum += payload->getData()[i];
            if (message->getHeader().isMember("throw"))
                throw std::runtime_error("told to");
        });
    }
    ControlChannel channel;
    zel::ref_ptr<WebSocket> socket;
    int numCalls = 0;
    zel::uint64 sum = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    zelFuzz::initQuietly();
    static Channel open("");
    static Channel closed("token");
    if (size == 0)
        return 0;
    // The bytes are the handler's own until it returns.
    std::vector<std::uint8_t> message(data + 1, data + size);
    Channel& channel = data[0] % 2 == 0 ? open : closed;
    const int before = channel.numCalls;
    const bool mayCall = &channel == &open || channel.socket->isAuthenticated();
    channel.socket->messageReceived(message.data(), message.size());
    if (!mayCall && channel.numCalls != before)
        std::abort();
    return 0;
}
