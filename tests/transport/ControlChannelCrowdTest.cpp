#include "WebSocketFixture.h"

#include <zelNet/ControlChannel.h>

#include <json/value.h>
#include <support/LogCapture.h>
#include <support/StreamCapture.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <iostream>
#include <iterator>

using zel::ref_ptr;
using zelNet::AnyPort;
using zelNet::StructuredMessage;
using zelNet::WebSocket;
using zelNet::WebSocketServer;
using zelTest::envelopeOf;
using zelTest::RawWebSocket;
using ControlChannel = WebSocket::ControlChannel;

namespace {

std::ptrdiff_t numOpenFiles() {
    namespace fs = std::filesystem;
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

/// Many clients at once, as many as the process may have.
class ControlChannelCrowdTest : public zelTest::WebSocketFixture {
protected:
    using Peers = std::vector<std::unique_ptr<RawWebSocket>>;

    void SetUp() override {
        rlimit limit{};
        ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
        limit.rlim_cur = limit.rlim_max;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
        // Both ends of each connection lie in this process, beside what else it has open.
        m_room = static_cast<std::size_t>(limit.rlim_cur - std::min<rlim_t>(limit.rlim_cur, 100)) / 2;
        WebSocketFixture::SetUp();
    }
    /// So many, or as many as the system lets the test have.
    [[nodiscard]] std::size_t atMost(std::size_t count) const { return std::min(count, m_room); }

    /// Sends a request, and takes the number that its answer is for.
    void send(RawWebSocket& peer, const std::string& uri, const std::string& json, zel::uint32 id) {
        EXPECT_TRUE(peer.send(RawWebSocket::frame(RawWebSocket::Binary, envelopeOf(uri, json, id))));
    }
    ref_ptr<StructuredMessage> take(RawWebSocket& peer) {
        const auto frame = takeFrame(peer);
        EXPECT_EQ(frame.opcode, RawWebSocket::Binary) << frame.payload;
        return ref_ptr<StructuredMessage>(StructuredMessage::parse(
            reinterpret_cast<const zel::uint8*>(frame.payload.data()), frame.payload.size(), true));
    }

private:
    std::size_t m_room = 0;
};

TEST_F(ControlChannelCrowdTest, AThousandClientsAreServedAndLeaveNothingBehind) {
    const zelTest::StreamCapture output(std::cout);
    const ref_ptr<ControlChannel> channel(new ControlChannel(AnyPort, "secret"));
    serveAlso([&] { channel->service(0); });
    channel->registerMessageHandler("Echo", [](auto*, WebSocket* socket, StructuredMessage* message) {
        const ref_ptr<StructuredMessage> response(message->createResponse());
        response->setHeader(message->getHeader());
        socket->send(response.get());
    });
    const std::ptrdiff_t before = numOpenFiles();
    const std::size_t numClients = atMost(1000);
    ASSERT_GE(numClients, 100U);
    {
        Peers peers;
        while (peers.size() < numClients) {
            peers.push_back(connectTo(channel->getPort()));
            send(*peers.back(), "authenticate", R"({"token":"secret"})", 1);
            ASSERT_EQ(take(*peers.back())->getHeader()["success"], true) << peers.size();
        }
        EXPECT_EQ(channel->getClients().size(), numClients);
        EXPECT_EQ(numOpenFiles(), before + 2 * static_cast<std::ptrdiff_t>(numClients));

        for (std::size_t i = 0; i < numClients; ++i)
            send(*peers[i], "Echo", "{\"value\":" + std::to_string(i) + "}", 2);
        for (std::size_t i = 0; i < numClients; ++i)
            ASSERT_EQ(take(*peers[i])->getHeader()["value"].asUInt64(), i);

        const StructuredMessage tick("Clock.Tick");
        channel->send(&tick);
        for (const auto& peer : peers)
            ASSERT_EQ(take(*peer)->getUri(), "Clock.Tick");
        // Half of them in order, the others not.
        for (std::size_t i = 0; i < numClients; i += 2)
            peers[i]->reset();
    }
    EXPECT_TRUE(serveUntil([&] { return channel->getClients().empty(); }));
    EXPECT_TRUE(serveUntil([&] { return numOpenFiles() == before; })) << numOpenFiles() - before;
}

TEST_F(ControlChannelCrowdTest, ThePlacesOfAServerAreLimited) {
    if (atMost(WebSocketServer::MaxConnections + 2) < WebSocketServer::MaxConnections + 2)
        GTEST_SKIP() << "The system lets this process open too few connections";
    const auto server = makeServer();
    const auto isRefused = [&] {
        RawWebSocket peer(server->getPort());
        EXPECT_TRUE(peer.send(RawWebSocket::handshake(Protocol)));
        EXPECT_TRUE(serveUntil([&] { return !peer.receive(); }));
        return peer.received().find("101") == std::string::npos;
    };
    Peers peers;
    while (peers.size() < WebSocketServer::MaxConnections)
        peers.push_back(connectTo(server->getPort()));
    EXPECT_TRUE(isRefused());
    EXPECT_EQ(server->getClientSockets().size(), WebSocketServer::MaxConnections);
    peers.pop_back();
    EXPECT_TRUE(
        serveUntil([&] { return server->getClientSockets().size() == WebSocketServer::MaxConnections - 1; }));
    peers.push_back(connectTo(server->getPort()));
    EXPECT_TRUE(isRefused());
}

TEST_F(ControlChannelCrowdTest, ThoseWithoutTokenTakeNoPlaceOfThoseWith) {
    const zelTest::StreamCapture output(std::cout);
    const ref_ptr<ControlChannel> channel(new ControlChannel(AnyPort, "secret"));
    serveAlso([&] { channel->service(0); });
    Peers trusted, others;
    const auto enter = [&] {
        auto peer = connectTo(channel->getPort());
        send(*peer, "authenticate", R"({"token":"secret"})", 1);
        EXPECT_EQ(take(*peer)->getHeader()["success"], true);
        trusted.push_back(std::move(peer));
    };
    while (trusted.size() < 100) // more than there are places for the others
        enter();
    while (others.size() < ControlChannel::MaxUntrustedClients)
        others.push_back(connectTo(channel->getPort()));
    RawWebSocket another(channel->getPort());
    EXPECT_TRUE(another.send(RawWebSocket::handshake(Protocol)));
    EXPECT_TRUE(serveUntil([&] { return !another.receive(); }));
    EXPECT_EQ(another.received().find("101"), std::string::npos);
    // A place is free again, be it that somebody goes or is trusted.
    others.pop_back();
    EXPECT_TRUE(serveUntil([&] { return channel->getClients().size() == trusted.size() + others.size(); }));
    enter();
    EXPECT_EQ(channel->getClients().size(), 101 + ControlChannel::MaxUntrustedClients - 1);
}

} // namespace
