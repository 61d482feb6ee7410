#include "WebSocketFixture.h"

#include <zelNet/AllowedHosts.h>
#include <zelNet/NetError.h>

#include <support/LogCapture.h>
#include <support/StreamCapture.h>

#include <algorithm>

using testing::HasSubstr;
using zel::ref_ptr;
using zelNet::WebSocket;
using zelNet::WebSocketServer;
using zelTest::RawWebSocket;

namespace {

/// A server that counts, and peers that do what they should not.
class WebSocketServerMaliciousTest : public zelTest::WebSocketFixture {
protected:
    void SetUp() override {
        WebSocketFixture::SetUp();
        server = makeServer(
            [this](WebSocket* connected) {
                socket = connected;
                connected->setReceiveCallback([this](WebSocket*, zel::uint8* data, zel::size_t size) {
                    messages.emplace_back(reinterpret_cast<char*>(data), size);
                });
            },
            [this](WebSocket*) { ++numGone; });
    }
    void TearDown() override {
        socket = nullptr;
        server = nullptr;
        WebSocketFixture::TearDown();
    }

    /// The status code with which the server closes the connection of a peer; 0 if it closes without.
    int statusOf(RawWebSocket& peer) {
        int status = -1;
        EXPECT_TRUE(serveUntil([&] {
            const bool isOpen = peer.receive();
            for (auto frame = peer.takeFrame(); frame.isWhole; frame = peer.takeFrame())
                if (frame.opcode == RawWebSocket::Close && frame.payload.size() >= 2)
                    status = static_cast<unsigned char>(frame.payload[0]) << 8 |
                             static_cast<unsigned char>(frame.payload[1]);
            if (!isOpen && status < 0)
                status = 0;
            return status >= 0;
        }));
        return status;
    }
    /// What the server says to a handshake; empty if it hangs up.
    std::string answerTo(const std::string& request) {
        RawWebSocket peer(server->getPort());
        EXPECT_TRUE(peer.send(request));
        std::string answer;
        EXPECT_TRUE(serveUntil([&] {
            const bool isOpen = peer.receive();
            answer = peer.takeAnswer();
            return !answer.empty() || !isOpen;
        }));
        return answer.substr(0, 12);
    }
    /// Whether a client that behaves is still served.
    void expectAlive() {
        const std::size_t before = messages.size();
        const auto peer = connectTo(server->getPort());
        EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Text, "still there?")));
        EXPECT_TRUE(serveUntil([&] { return messages.size() > before; }));
        EXPECT_EQ(messages.back(), "still there?");
    }

    ref_ptr<WebSocketServer> server;
    ref_ptr<WebSocket> socket; // the last one
    std::vector<std::string> messages;
    int numGone = 0;
};

TEST_F(WebSocketServerMaliciousTest, AMessageAboveTheLimitEndsItsConnection) {
    server->setMaxMessageSize(1000);
    const auto peer = connectTo(server->getPort());
    EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Binary, std::string(1000, 'x'))));
    EXPECT_TRUE(serveUntil([&] { return messages.size() == 1; }));
    EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Binary, std::string(1001, 'x'))));
    EXPECT_EQ(statusOf(*peer), 1009);
    EXPECT_TRUE(serveUntil([&] { return numGone == 1; }));
    EXPECT_EQ(messages.size(), 1U);
    expectAlive();
}

TEST_F(WebSocketServerMaliciousTest, AMessageInPiecesAboveTheLimitEndsItsConnection) {
    server->setMaxMessageSize(1000);
    const auto peer = connectTo(server->getPort());
    EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Binary, std::string(600, 'x'), false) +
                           RawWebSocket::frame(RawWebSocket::Continuation, std::string(600, 'x'), false) +
                           RawWebSocket::frame(RawWebSocket::Continuation, "end")));
    EXPECT_EQ(statusOf(*peer), 1009);
    EXPECT_TRUE(messages.empty());
    expectAlive();
}

TEST_F(WebSocketServerMaliciousTest, ALimitOfOneSocketIsItsOwn) {
    const auto peer = connectTo(server->getPort());
    socket->setMaxMessageSize(10);
    EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Binary, std::string(11, 'x'))));
    EXPECT_EQ(statusOf(*peer), 1009);
    expectAlive();
}

TEST_F(WebSocketServerMaliciousTest, AnAnnouncedMessageOf4GiBTakesNoMemory) {
    for (const std::int64_t announced : {std::int64_t{1} << 32, std::numeric_limits<std::int64_t>::max()}) {
        const auto peer = connectTo(server->getPort());
        // What is sent is a beginning.
        EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Binary, "x", true, announced)));
        EXPECT_GE(statusOf(*peer), 0);
    }
    EXPECT_TRUE(messages.empty());
    expectAlive();
}

TEST_F(WebSocketServerMaliciousTest, TinyFragmentsBecomeOneMessage) {
    constexpr int NumFragments = 100'000;
    const auto peer = connectTo(server->getPort());
    std::string bytes = RawWebSocket::frame(RawWebSocket::Binary, "a", false);
    for (int i = 2; i < NumFragments; ++i)
        bytes += RawWebSocket::frame(RawWebSocket::Continuation, "b", false);
    bytes += RawWebSocket::frame(RawWebSocket::Continuation, "c");
    EXPECT_TRUE(peer->send(bytes, [&] { server->service(0); }));
    EXPECT_TRUE(serveUntil([&] { return messages.size() == 1; }));
    EXPECT_EQ(messages[0].size(), std::size_t{NumFragments});
    EXPECT_EQ(messages[0].back(), 'c');
}

TEST_F(WebSocketServerMaliciousTest, ManyTinyMessagesAllCome) {
    constexpr std::size_t NumMessages = 100'000;
    const auto peer = connectTo(server->getPort());
    std::string bytes;
    for (std::size_t i = 0; i < NumMessages; ++i)
        bytes += RawWebSocket::frame(RawWebSocket::Binary, std::to_string(i));
    EXPECT_TRUE(peer->send(bytes, [&] { server->service(0); }));
    EXPECT_TRUE(serveUntil([&] { return messages.size() == NumMessages; }));
    EXPECT_EQ(messages.back(), std::to_string(NumMessages - 1));
}

TEST_F(WebSocketServerMaliciousTest, FramesThatBreakTheProtocolEndTheirConnectionAlone) {
    const std::string good = RawWebSocket::frame(RawWebSocket::Text, "x");
    std::string reserved = good;
    reserved[0] = static_cast<char>(0xF1);
    std::string unknown = good;
    unknown[0] = static_cast<char>(0x83);
    const std::string longPing = RawWebSocket::frame(RawWebSocket::Ping, std::string(126, 'x'));
    const std::string badUtf8 = RawWebSocket::frame(RawWebSocket::Text, "a\xFFz");
    for (const std::string& bytes : {reserved, unknown, longPing, badUtf8}) {
        const auto peer = connectTo(server->getPort());
        EXPECT_TRUE(peer->send(bytes));
        EXPECT_GE(statusOf(*peer), 0);
    }
    EXPECT_TRUE(messages.empty());
    expectAlive();
}

TEST_F(WebSocketServerMaliciousTest, FramesWithoutMaskHarmNobody) {
    const auto peer = connectTo(server->getPort());
    EXPECT_TRUE(peer->send("\x82\x03"
                           "abc"));
    EXPECT_TRUE(serveUntil([&] { return !messages.empty() || numGone == 1; }));
    EXPECT_TRUE(messages.empty() || messages[0] == "abc");
    messages.clear();
    expectAlive();
}

TEST_F(WebSocketServerMaliciousTest, BytesThatAreNoHandshakeGetNoConnection) {
    for (const std::string& request : {std::string(64, '\0'),
                                       std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc", 9) + "\r\n\r\n",
                                       std::string("GET / HTTP/1.1\r\n\r\n"),
                                       std::string("nonsense\r\n\r\n"),
                                       std::string("OPTIONS * HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n")}) {
        RawWebSocket peer(server->getPort());
        EXPECT_TRUE(peer.send(request));
        for (int i = 0; i < 100; ++i)
            server->service(0);
        EXPECT_TRUE(server->getClientSockets().empty());
    }
    expectAlive();
}

TEST_F(WebSocketServerMaliciousTest, RequestsWithContentAreNotKeptForEver) {
    for (const char* method : {"POST", "PUT", "PATCH"}) {
        RawWebSocket peer(server->getPort());
        EXPECT_TRUE(peer.send(
            method + std::string(" / HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 4\r\n\r\nbody")));
        EXPECT_TRUE(serveUntil([&] { return !peer.receive(); })) << method;
        EXPECT_EQ(peer.received(), "") << method;
    }
    expectAlive();
}

TEST_F(WebSocketServerMaliciousTest, ResetsAtEachByteAreSurvived) {
    const std::string bytes = RawWebSocket::handshake(Protocol) +
                              RawWebSocket::frame(RawWebSocket::Text, "hello", false) +
                              RawWebSocket::frame(RawWebSocket::Continuation, "end");
    for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
        RawWebSocket peer(server->getPort());
        EXPECT_TRUE(peer.send(bytes.substr(0, cut)));
        server->service(0);
        if (socket)
            socket->send(std::string(100'000, 'x'));
        server->service(0);
        peer.reset();
        server->service(0);
    }
    EXPECT_TRUE(serveUntil([&] { return server->getClientSockets().empty(); }));
    expectAlive();
}

TEST_F(WebSocketServerMaliciousTest, AClientThatNeverReadsIsDisconnected) {
    server->setMaxQueuedBytes(4'000'000);
    const auto lazy = connectTo(server->getPort());
    const ref_ptr<WebSocket> lazySocket = socket;
    const auto good = connectTo(server->getPort());
    const zelTest::LogCapture log(zel::Notify::Warning);
    const ref_ptr<WebSocket::Packet> packet(
        new WebSocket::Packet(1'000'000, WebSocket::Packet::ContentType::Binary));
    std::fill_n(packet->getPayload(), packet->getSize(), zel::uint8{'x'});
    std::size_t numReceived = 0;
    EXPECT_TRUE(serveUntil([&] {
        if (socket->getNumQueuedBytes() == 0)
            server->send(packet.get());
        good->receive();
        for (auto frame = good->takeFrame(); frame.isWhole; frame = good->takeFrame())
            numReceived += frame.payload.size();
        return numGone == 1;
    }));
    EXPECT_FALSE(lazySocket->isOpen());
    EXPECT_GT(numReceived, 4'000'000U) << "others are not affected";
    EXPECT_THAT(log.text(), HasSubstr("WebSocket: a client reads too slowly"));
    EXPECT_TRUE(socket->isOpen());
}

TEST_F(WebSocketServerMaliciousTest, OnePacketMayBeLargerThanAllThatMayWait) {
    server->setMaxQueuedBytes(10);
    const auto peer = connectTo(server->getPort());
    socket->send(zel::String("larger than ten bytes"));
    EXPECT_EQ(takeFrame(*peer).payload, "larger than ten bytes");
    EXPECT_TRUE(socket->isOpen());
}

TEST_F(WebSocketServerMaliciousTest, AClientForWhichTooManyEmptyPacketsWaitIsDisconnected) {
    const auto peer = connectTo(server->getPort());
    const zelTest::LogCapture log(zel::Notify::Warning);
    const ref_ptr<WebSocket::Packet> packet(new WebSocket::Packet(0, WebSocket::Packet::ContentType::Binary));
    constexpr int MaxPackets = 1 << 20;
    for (int i = 0; i < MaxPackets; ++i)
        socket->send(packet.get());
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(packet->referenceCount(), MaxPackets + 1);
    socket->send(packet.get());
    EXPECT_THAT(log.text(),
                HasSubstr("WebSocket: a client reads too slowly, 0 bytes in 1048576 packets wait"));
    EXPECT_EQ(packet->referenceCount(), 1);
    EXPECT_TRUE(serveUntil([&] { return numGone == 1; }));
}

TEST_F(WebSocketServerMaliciousTest, AnotherProtocolIsRefused) {
    EXPECT_EQ(answerTo(RawWebSocket::handshake("zel_stream")), "HTTP/1.1 101");
    EXPECT_EQ(answerTo(RawWebSocket::handshake("")), "HTTP/1.1 101") << "none is no other";
    EXPECT_EQ(answerTo(RawWebSocket::handshake("chat, zel_stream")), "HTTP/1.1 101");
    EXPECT_NE(answerTo(RawWebSocket::handshake("chat")), "HTTP/1.1 101");
    EXPECT_NE(answerTo(RawWebSocket::handshake("zel_streams")), "HTTP/1.1 101");
}

TEST_F(WebSocketServerMaliciousTest, PagesOfOtherHostsAreRefused) {
    const auto answerOf = [&](const std::string& host, const std::string& origin) {
        return answerTo(
            RawWebSocket::handshake(Protocol, host, origin.empty() ? "" : "Origin: " + origin + "\r\n"));
    };
    constexpr const char* Welcome = "HTTP/1.1 101";
    EXPECT_EQ(answerOf("localhost:8080", ""), Welcome);
    EXPECT_EQ(answerOf("127.0.0.1", "http://127.0.0.1:9999"), Welcome);
    EXPECT_EQ(answerOf("localhost", "https://LocalHost"), Welcome);
    EXPECT_NE(answerOf("evil.example", ""), Welcome) << "a name server has led here";
    EXPECT_NE(answerOf("evil.example", "http://evil.example"), Welcome);
    EXPECT_NE(answerOf("localhost", "http://evil.example"), Welcome);
    EXPECT_NE(answerOf("localhost", "http://localhost.evil.example"), Welcome);
    EXPECT_NE(answerOf("localhost", "null"), Welcome);
    EXPECT_NE(answerOf("localhost", "http://127.0.0.1"), Welcome) << "another name is another host";
    EXPECT_NE(answerOf("localhost", std::string(2000, 'x')), Welcome);
    EXPECT_EQ(server->getClientSockets().size() + static_cast<std::size_t>(numGone), 3U);
}

TEST_F(WebSocketServerMaliciousTest, MoreConnectionsThanAllowedAreRefused) {
    server->setMaxUnauthenticated(3);
    std::vector<std::unique_ptr<RawWebSocket>> peers;
    for (int i = 0; i < 3; ++i)
        peers.push_back(connectTo(server->getPort()));
    EXPECT_NE(answerTo(RawWebSocket::handshake(Protocol)), "HTTP/1.1 101");
    socket->setAuthenticated(true);
    peers.push_back(connectTo(server->getPort()));
    EXPECT_NE(answerTo(RawWebSocket::handshake(Protocol)), "HTTP/1.1 101");
    EXPECT_EQ(server->getClientSockets().size(), 4U);
}

TEST_F(WebSocketServerMaliciousTest, ManyThatConnectAndSayNothingLeaveRoomForOthers) {
    std::vector<std::unique_ptr<RawWebSocket>> peers;
    for (int i = 0; i < 300; ++i) {
        peers.push_back(std::make_unique<RawWebSocket>(server->getPort()));
        EXPECT_TRUE(peers.back()->send("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n")) << "and nothing more";
        server->service(0);
    }
    expectAlive();
}

// Hosts

TEST(AllowedHostsTest, AddressesAndOwnNamesAreAllowed) {
    for (const char* host : {"127.0.0.1",
                             "127.0.0.1:80",
                             "10.1.2.3:8080",
                             "[::1]",
                             "[::1]:80",
                             "localhost",
                             "LOCALHOST:1",
                             "localhost:"})
        EXPECT_TRUE(zelNet::isAllowedHost(host)) << host;
    for (const char* host : {"",
                             ":80",
                             "evil.example",
                             "localhost.evil.example",
                             "localhost:80:80",
                             "localhost:x",
                             "127.0.0.1.evil.example",
                             "1.2.3",
                             "[::1",
                             "[evil]",
                             "[::1]x",
                             "local host",
                             "::1"})
        EXPECT_FALSE(zelNet::isAllowedHost(host)) << host;
    char name[256] = {};
    ASSERT_EQ(::gethostname(name, sizeof(name) - 1), 0);
    EXPECT_TRUE(zelNet::isAllowedHost(name));
}

TEST(AllowedHostsTest, NamesCanBeAdded) {
    EXPECT_FALSE(zelNet::isAllowedHost("simulation.lab"));
    zelNet::allowHost("Simulation.Lab");
    EXPECT_TRUE(zelNet::isAllowedHost("simulation.lab:8080"));
}

TEST(AllowedHostsTest, OriginsAreOfTheSameHost) {
    EXPECT_TRUE(zelNet::isAllowedOrigin("", "localhost")) << "from no page";
    EXPECT_TRUE(zelNet::isAllowedOrigin("http://localhost:1", "localhost:2"));
    EXPECT_TRUE(zelNet::isAllowedOrigin("http://[::1]:1", "[::1]"));
    EXPECT_FALSE(zelNet::isAllowedOrigin("null", "localhost"));
    EXPECT_FALSE(zelNet::isAllowedOrigin("http://", "localhost"));
    EXPECT_FALSE(zelNet::isAllowedOrigin("http://:80", ""));
    EXPECT_FALSE(zelNet::isAllowedOrigin("http://evil.example", "localhost"));
    EXPECT_FALSE(zelNet::isAllowedOrigin("http://localhost@evil.example", "localhost"));
}

} // namespace
