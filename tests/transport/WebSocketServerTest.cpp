#include "SocketFixture.h"
#include "WebSocketFixture.h"

#include <zelNet/NetError.h>
#include <zelNet/StructuredMessage.h>

#include <json/value.h>
#include <libwebsockets.h>
#include <support/LogCapture.h>
#include <support/StreamCapture.h>
#include <support/TempDirectory.h>
#include <support/WhatOf.h>

#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/lsan_interface.h>
#endif

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>

using testing::ElementsAre;
using testing::HasSubstr;
using zel::ref_ptr;
using zelNet::AnyPort;
using zelNet::NetError;
using zelNet::PortRange;
using zelNet::StructuredMessage;
using zelNet::WebSocket;
using zelNet::WebSocketServer;
using zelTest::RawWebSocket;
using zelTest::whatOf;
using Packet = WebSocket::Packet;

namespace {

class WebSocketServerTest : public zelTest::WebSocketFixture {
protected:
    /// Keeps what a socket receives.
    static void keepMessages(WebSocket* socket, std::vector<std::string>& messages) {
        socket->setReceiveCallback([&messages](WebSocket*, zel::uint8* data, zel::size_t size) {
            messages.emplace_back(reinterpret_cast<char*>(data), size);
        });
    }
    static ref_ptr<Packet> packetOf(const std::string& bytes) {
        ref_ptr<Packet> packet(new Packet(bytes.size(), Packet::ContentType::Binary));
        std::copy(bytes.begin(), bytes.end(), packet->getPayload());
        return packet;
    }
    static ref_ptr<WebSocketServer> makeClient(Callback onConnect = {}, Callback onDisconnect = {}) {
        return ref_ptr<WebSocketServer>(new WebSocketServer(
            WebSocketServer::NoListen, std::move(onConnect), std::move(onDisconnect), Protocol));
    }
    /// Connects while the server, which is of this thread too, is served by another one.
    WebSocket* connect(WebSocketServer& client, WebSocketServer& server, bool isAnonymous = false) {
        WebSocket* socket = nullptr;
        whileServed(server, [&] {
            EXPECT_NO_THROW(socket = client.createConnection(
                                "127.0.0.1", server.getPort(), false, "", Protocol, isAnonymous));
        });
        return socket;
    }
};

// Starting

TEST_F(WebSocketServerTest, Port0IsAnyThatIsFree) {
    const auto one = makeServer();
    const auto two = makeServer();
    EXPECT_NE(one->getPort(), 0);
    EXPECT_NE(two->getPort(), 0);
    EXPECT_NE(one->getPort(), two->getPort());
    EXPECT_FALSE(one->useSSL());
}

TEST_F(WebSocketServerTest, APortThatIsTakenThrows) {
    const auto one = makeServer();
    EXPECT_THAT(whatOf([&] { WebSocketServer second(one->getPort(), {}, {}, Protocol); }),
                testing::StartsWith("libwebsocket init failed: "));
}

TEST_F(WebSocketServerTest, TakesTheFirstPortOfARangeThatIsFree) {
    const auto taken = makeServer();
    const auto start = std::min<zel::uint16>(taken->getPort(), 65000);
    const ref_ptr<PortRange> range(new PortRange(start, static_cast<zel::uint16>(start + 20)));
    const WebSocketServer server(range.get(), {}, {}, Protocol);
    EXPECT_GT(server.getPort(), start);
    EXPECT_LE(server.getPort(), start + 20);
}

TEST_F(WebSocketServerTest, ListensOnTheLoopbackDeviceUnlessToldOtherwise) {
    const auto addressOf = [](zel::uint16 port) {
        // Who listens on all addresses leaves no room for another one on any of them.
        const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(0x7F000002); // 127.0.0.2
        const bool isFree = ::bind(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
        ::close(probe);
        return isFree ? "one" : "all";
    };
    EXPECT_STREQ(addressOf(makeServer()->getPort()), "one");
    WebSocketServer::setListenAddress("0.0.0.0");
    EXPECT_STREQ(addressOf(makeServer()->getPort()), "all");
    WebSocketServer::setListenAddress("");
    ::setenv("ZEL_LISTEN_ADDRESS", "0.0.0.0", 1);
    EXPECT_STREQ(addressOf(makeServer()->getPort()), "all");
    WebSocketServer::setListenAddress("127.0.0.1");
    EXPECT_STREQ(addressOf(makeServer()->getPort()), "one");
    WebSocketServer::setListenAddress("");
    ::unsetenv("ZEL_LISTEN_ADDRESS");
}

TEST_F(WebSocketServerTest, AnAddressThatIsNoneThrows) {
    WebSocketServer::setListenAddress("no_such_device");
    EXPECT_THAT(whatOf([&] { WebSocketServer server(AnyPort, {}, {}, Protocol); }),
                testing::StartsWith("libwebsocket init failed: "));
    WebSocketServer::setListenAddress("");
}

TEST_F(WebSocketServerTest, Port65535OnlyConnects) {
    const auto client = makeClient();
    EXPECT_EQ(client->getPort(), 65535);
    EXPECT_TRUE(serveUntil([&] { return !client->service(0); }));
}

using WebSocketServerDeathTest = WebSocketServerTest;

TEST_F(WebSocketServerDeathTest, AProtocolNameOf31CharactersEndsTheProcess) {
    EXPECT_DEATH(
        WebSocketServer(AnyPort, {}, {}, std::string(31, 'p')),
        HasSubstr("zelVerify failed: `strlen(protocolName) < 31', libwebsocket has hardcoded max length "
                  "on protocol name..."));
    const WebSocketServer longest(AnyPort, {}, {}, std::string(30, 'p'));
    EXPECT_NE(longest.getPort(), 0);
}

TEST_F(WebSocketServerDeathTest, ARangeThatIsUsedUpEndsTheProcess) {
    const ref_ptr<PortRange> range(new PortRange(1, 3)); // where only root may listen, and root is told no
    while (range->getPort() != ~0U)
        continue;
    EXPECT_DEATH(
        WebSocketServer(range.get(), {}, {}, Protocol),
        HasSubstr("zelVerify failed: `success', Unable to start websocket server with port range 1:3"));
}

TEST_F(WebSocketServerTest, TheLibraryBelowTellsErrorsAndWarningsAlone) {
    constexpr int All = LLL_ERR | LLL_WARN | LLL_NOTICE | LLL_INFO;
    const auto levels = [] {
        int visible = 0;
        for (const int level : {LLL_ERR, LLL_WARN, LLL_NOTICE, LLL_INFO})
            visible |= lwsl_visible(level) != 0 ? level : 0;
        return visible;
    };
    lws_set_log_level(All, nullptr);
    ASSERT_EQ(levels(), All);
    testing::internal::CaptureStderr();
    const auto one = makeServer();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(levels(), LLL_ERR | LLL_WARN);
    const auto start = std::min<zel::uint16>(one->getPort(), 65000);
    const ref_ptr<PortRange> range(new PortRange(start, static_cast<zel::uint16>(start + 20)));
    const WebSocketServer two(range.get(), {}, {}, Protocol);
    EXPECT_EQ(levels(), LLL_ERR | LLL_WARN) << "silent only while it looks for a port";
}

TEST_F(WebSocketServerTest, IsFoundByTheContextOfItsConnections) {
    const ref_ptr<WebSocketServer> server = makeServer();
    const ref_ptr<WebSocketServer> other = makeServer();
    const auto peer = connectTo(server->getPort());
    lws_context* context = nullptr;
    for (const auto& [handle, socket] : server->getClientSockets())
        context = lws_get_context(handle);
    ASSERT_NE(context, nullptr);
    EXPECT_EQ(WebSocketServer::getServer(context), server.get());
    EXPECT_EQ(WebSocketServer::getServer(nullptr), nullptr);
}

// Servicing

TEST_F(WebSocketServerTest, ServiceWithNothingToDoSaysSo) {
    const auto server = makeServer();
    serveUntil([&] { return !server->service(0); });
    EXPECT_FALSE(server->service(0));
    EXPECT_FALSE(server->service(1e9)) << "whatever the time";
}

TEST_F(WebSocketServerTest, ServiceSaysThatSomethingHappened) {
    const auto server = makeServer();
    const RawWebSocket peer(server->getPort());
    bool happened = false;
    EXPECT_TRUE(serveUntil([&] { return (happened = server->service(0)); }));
}

TEST_F(WebSocketServerTest, ServiceThatFindsNoEndLeavesTheRestForTheNextOneAndSaysSo) {
    ref_ptr<WebSocket> socket;
    const auto server = makeServer([&](WebSocket* client) { socket = client; });
    const auto peer = connectTo(server->getPort());
    const ref_ptr<Packet> packet = packetOf("x");
    constexpr int NumPackets = 30000; // one goes out in a round, and a call has 10,000 of them at most
    for (int i = 0; i < NumPackets; ++i)
        socket->send(packet.get());
    EXPECT_TRUE(server->service(0));
    const zel::size_t waiting = socket->getNumQueuedBytes();
    EXPECT_GE(waiting, NumPackets - 10000U);
    EXPECT_TRUE(server->service(0));
    EXPECT_LT(socket->getNumQueuedBytes(), waiting);
    socket = nullptr;
}

TEST_F(WebSocketServerTest, ServiceAndConnectFromACallbackAreRefused) {
    ref_ptr<WebSocketServer> server;
    bool serviced = true;
    std::string error;
    server = makeServer([&](WebSocket*) {
        serviced = server->service(0);
        error = whatOf([&] {
            (void)server->createConnection("127.0.0.1", server->getPort(), false, "", Protocol, false);
        });
    });
    const auto peer = connectTo(server->getPort());
    EXPECT_FALSE(serviced);
    EXPECT_EQ(error, "WebSocketServer::connect");
}

TEST_F(WebSocketServerTest, ExceptionsOfCallbacksDoNotCrossTheLibrary) {
    const auto server =
        makeServer([](WebSocket*) { throw std::runtime_error("no room"); }, [](WebSocket*) { throw 5; });
    const zelTest::StreamCapture errors(std::cerr);
    {
        const auto peer = connectTo(server->getPort());
        EXPECT_EQ(server->getClientSockets().size(), 1U);
    }
    EXPECT_TRUE(serveUntil([&] { return server->getClientSockets().empty(); }));
    EXPECT_THAT(errors.text(),
                HasSubstr("WebSocket: Got a C++ exception while executing a C callback from libwebsocket. "
                          "Message is 'no room\"."));
}

TEST_F(WebSocketServerTest, ASocketWhoseConnectCallbackThrowsStillReceives) {
    std::vector<std::string> messages;
    const auto server = makeServer([&](WebSocket* socket) {
        keepMessages(socket, messages);
        throw std::runtime_error("in the end");
    });
    const zelTest::StreamCapture errors(std::cerr);
    const auto peer = connectTo(server->getPort());
    EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Text, "hello")));
    EXPECT_TRUE(serveUntil([&] { return !messages.empty(); }));
}

// Connections

TEST_F(WebSocketServerTest, TellsOfConnectionsAndTheirEnd) {
    std::vector<std::string> events;
    std::size_t numAtEnd = 0;
    ref_ptr<WebSocketServer> server;
    ref_ptr<WebSocket> kept;
    server = makeServer(
        [&](WebSocket* socket) {
            events.emplace_back("connect");
            kept = socket;
        },
        [&](WebSocket* socket) {
            events.emplace_back(socket == kept.get() ? "disconnect" : "another");
            numAtEnd = server->getClientSockets().size();
            socket->send(zel::String("too late"));
        });
    {
        const auto peer = connectTo(server->getPort());
        EXPECT_THAT(events, ElementsAre("connect"));
        EXPECT_EQ(server->getClientSockets().size(), 1U);
        EXPECT_TRUE(kept->isOpen());
        EXPECT_FALSE(kept->isOutgoing());
    }
    EXPECT_TRUE(serveUntil([&] { return server->getClientSockets().empty(); }));
    EXPECT_THAT(events, ElementsAre("connect", "disconnect"));
    EXPECT_EQ(numAtEnd, 1U) << "it is still in the table when that is told";
    EXPECT_FALSE(kept->isOpen());
    kept->send(zel::String("nobody hears it"));
    EXPECT_EQ(kept->getNumQueuedBytes(), 0U);
}

TEST_F(WebSocketServerTest, SocketsOutliveTheirServerAsDeadOnes) {
    ref_ptr<WebSocket> kept;
    ref_ptr<WebSocketServer> server(new WebSocketServer(
        AnyPort,
        [&](WebSocket* socket) { kept = socket; },
        [](WebSocket*) { FAIL() << "not told"; },
        Protocol));
    serveAlso([&] {
        if (server)
            server->service(0);
    });
    const auto peer = connectTo(server->getPort());
    kept->send(zel::String("waits"));
    server = nullptr;
    EXPECT_FALSE(kept->isOpen());
    kept->send(zel::String("nobody hears it"));
    kept->close(1000, "");
}

TEST_F(WebSocketServerTest, CallbacksMayLack) {
    const auto server = makeServer();
    {
        const auto peer = connectTo(server->getPort());
        EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Text, "hello")));
        EXPECT_TRUE(serveUntil([&] { return !server->service(0); }));
    }
    EXPECT_TRUE(serveUntil([&] { return server->getClientSockets().empty(); }));
}

TEST_F(WebSocketServerTest, TheEventOfAnUnknownSocketIsTold) {
    const auto server = makeServer();
    const zelTest::StreamCapture errors(std::cerr);
    server->connectionClosed(nullptr);
    EXPECT_EQ(errors.text(), "WebSocketServer: Got connection closed event for an unknown socket.\n");
    EXPECT_EQ(server->getWebSocket(nullptr), nullptr);
    EXPECT_EQ(WebSocketServer::getServer(nullptr), nullptr);
}

TEST_F(WebSocketServerDeathTest, ASocketThatComesTwiceEndsTheProcess) {
    const auto server = makeServer();
    server->acceptNewClient(nullptr);
    EXPECT_DEATH(
        server->acceptNewClient(nullptr),
        HasSubstr("WebSocket: Was told that one of my old clients is a new client. Something is wrong."));
    server->connectionClosed(nullptr);
}

// Messages

TEST_F(WebSocketServerTest, AMessageComesOnceAndWhole) {
    std::vector<std::string> messages;
    const auto server = makeServer([&](WebSocket* socket) { keepMessages(socket, messages); });
    const auto peer = connectTo(server->getPort());
    EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Text, "hello")));
    EXPECT_TRUE(serveUntil([&] { return messages.size() == 1; }));
    EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Binary, "one ", false) +
                           RawWebSocket::frame(RawWebSocket::Continuation, "two ", false) +
                           RawWebSocket::frame(RawWebSocket::Continuation, "three")));
    EXPECT_TRUE(serveUntil([&] { return messages.size() == 2; }));
    const std::string large(3'000'000, 'x');
    EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Binary, large), [&] { server->service(0); }));
    EXPECT_TRUE(serveUntil([&] { return messages.size() == 3; }));
    EXPECT_EQ(messages[0], "hello");
    EXPECT_EQ(messages[1], "one two three");
    EXPECT_EQ(messages[2], large);
}

TEST_F(WebSocketServerTest, AFragmentedMessageWithAPingInItsMiddleComesWhole) {
    std::vector<std::string> messages;
    const auto server = makeServer([&](WebSocket* socket) { keepMessages(socket, messages); });
    const auto peer = connectTo(server->getPort());
    EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Binary, "one ", false) +
                           RawWebSocket::frame(RawWebSocket::Ping, "?") +
                           RawWebSocket::frame(RawWebSocket::Continuation, "two")));
    EXPECT_TRUE(serveUntil([&] { return messages.size() == 1; }));
    EXPECT_EQ(messages[0], "one two");
    const auto pong = takeFrame(*peer);
    EXPECT_EQ(pong.opcode, RawWebSocket::Pong);
    EXPECT_EQ(pong.payload, "?");
}

TEST_F(WebSocketServerTest, APeerThatIsSilentIsAskedAndThenGivenUp) {
    std::vector<WebSocket*> gone;
    const auto server = makeServer({}, [&](WebSocket* socket) { gone.push_back(socket); });
    server->setIdleLimits(std::chrono::seconds(1), std::chrono::seconds(4));
    const auto mute = connectTo(server->getPort());
    const auto alive = connectTo(server->getPort());
    bool isMuteOpen = true;
    int numAsked = 0;
    EXPECT_TRUE(serveUntil([&] {
        const auto question = alive->takeFrame();
        if (question.isWhole) {
            EXPECT_EQ(question.opcode, RawWebSocket::Ping);
            EXPECT_TRUE(alive->send(RawWebSocket::frame(RawWebSocket::Pong, question.payload)));
            ++numAsked;
        }
        isMuteOpen = isMuteOpen && mute->receive();
        return !isMuteOpen && numAsked >= 3;
    }));
    EXPECT_EQ(mute->takeFrame().opcode, RawWebSocket::Ping);
    EXPECT_EQ(gone.size(), 1U);
    EXPECT_TRUE(alive->receive()) << "who answers stays connected";
}

TEST_F(WebSocketServerTest, IdleLimitsAreWholeSecondsInOrder) {
    using std::chrono::seconds;
    const auto server = makeServer();
    const std::vector<std::pair<seconds, seconds>> wrong{{seconds(0), seconds(2)},
                                                         {seconds(2), seconds(2)},
                                                         {seconds(-1), seconds(1)},
                                                         {seconds(1), seconds(65536)}};
    for (const auto& limits : wrong)
        EXPECT_EQ(whatOf([&] { server->setIdleLimits(limits.first, limits.second); }),
                  "WebSocketServer::setIdleLimits: the limits must be whole seconds from 1 to 65535, "
                  "and the second one above the first");
    server->setIdleLimits(seconds(1), seconds(65535));
}

TEST_F(WebSocketServerTest, WhatACallbackThrowsGoesToThePeerAsText) {
    const auto server = makeServer([](WebSocket* socket) {
        socket->setReceiveCallback(
            [](WebSocket*, zel::uint8*, zel::size_t) { throw std::runtime_error("no such thing"); });
    });
    const auto peer = connectTo(server->getPort());
    const zelTest::LogCapture log(zel::Notify::Warning);
    EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Text, "hello")));
    const auto answer = takeFrame(*peer);
    EXPECT_EQ(answer.opcode, RawWebSocket::Text);
    EXPECT_EQ(answer.payload, "no such thing");
    EXPECT_THAT(log.text(), HasSubstr("WebSocket message handler exception: no such thing"));
}

TEST_F(WebSocketServerTest, WhatACallbackThrowsForAMessageInPiecesIsPrinted) {
    const auto server = makeServer([](WebSocket* socket) {
        socket->setReceiveCallback(
            [](WebSocket*, zel::uint8*, zel::size_t) { throw std::runtime_error("no such thing"); });
    });
    const auto peer = connectTo(server->getPort());
    const zelTest::StreamCapture errors(std::cerr);
    EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Text, "hel", false) +
                           RawWebSocket::frame(RawWebSocket::Continuation, "lo")));
    EXPECT_TRUE(serveUntil([&] { return !errors.text().empty(); }));
    EXPECT_EQ(
        errors.text(),
        "WebSocket: Got a C++ exception while executing a C callback from libwebsocket. Message is 'no such "
        "thing\".\n");
}

TEST_F(WebSocketServerTest, ControlCharactersOfExceptionsAreNotPrinted) {
    const auto server = makeServer([](WebSocket* socket) {
        socket->setReceiveCallback([](WebSocket*, zel::uint8* data, zel::size_t size) {
            throw std::runtime_error("no " + std::string(reinterpret_cast<char*>(data), size));
        });
    });
    const auto peer = connectTo(server->getPort());
    const zelTest::LogCapture log(zel::Notify::Warning);
    const zelTest::StreamCapture errors(std::cerr);
    EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Text, "\x1b[31m\n")));
    EXPECT_EQ(takeFrame(*peer).payload, "no \x1b[31m\n") << "the peer gets it as it is";
    EXPECT_THAT(log.text(), HasSubstr("WebSocket message handler exception: no .[31m."));
    EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Text, "\x1b", false) +
                           RawWebSocket::frame(RawWebSocket::Continuation, "[31m")));
    EXPECT_TRUE(serveUntil([&] { return errors.text().ends_with("\".\n"); }));
    EXPECT_THAT(errors.text(), HasSubstr("Message is 'no .[31m\"."));
}

TEST_F(WebSocketServerTest, APausedSocketTakesNothingAndShowsThatItLives) {
    std::vector<std::string> messages;
    ref_ptr<WebSocket> socket;
    const auto server = makeServer([&](WebSocket* connected) {
        socket = connected;
        keepMessages(connected, messages);
    });
    const auto peer = connectTo(server->getPort());
    socket->setPaused(true);
    EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Text, "hello")));
    const auto sign = takeFrame(*peer);
    EXPECT_EQ(sign.opcode, RawWebSocket::Pong);
    EXPECT_EQ(sign.payload, "");
    EXPECT_TRUE(messages.empty());
    socket->setPaused(false);
    EXPECT_TRUE(serveUntil([&] { return !messages.empty(); }));
    EXPECT_THAT(messages, ElementsAre("hello"));
}

TEST_F(WebSocketServerTest, PacketsGoOutInOrder) {
    ref_ptr<WebSocket> socket;
    const auto server = makeServer([&](WebSocket* connected) { socket = connected; });
    const auto peer = connectTo(server->getPort());
    socket->send(packetOf("one").get());
    socket->send(zel::String("two"));
    socket->send(packetOf("").get());
    socket->send(static_cast<Packet*>(nullptr));
    socket->send(zel::String("three"));
    EXPECT_EQ(socket->getNumQueuedBytes(), 11U);
    const auto one = takeFrame(*peer), two = takeFrame(*peer), empty = takeFrame(*peer),
               three = takeFrame(*peer);
    EXPECT_EQ(one.payload, "one");
    EXPECT_EQ(one.opcode, RawWebSocket::Binary);
    EXPECT_TRUE(one.isFinal);
    EXPECT_EQ(two.payload, "two");
    EXPECT_EQ(two.opcode, RawWebSocket::Text);
    EXPECT_EQ(empty.payload, "");
    EXPECT_EQ(empty.opcode, RawWebSocket::Binary);
    EXPECT_EQ(three.payload, "three");
    EXPECT_EQ(socket->getNumQueuedBytes(), 0U);
}

TEST_F(WebSocketServerTest, LargePacketsGoOutInPiecesToEachOfManyUnchanged) {
    std::string bytes(1'000'003, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 31 + i / 1009);
    const auto server = makeServer();
    std::vector<std::unique_ptr<RawWebSocket>> peers;
    for (int i = 0; i < 3; ++i)
        peers.push_back(connectTo(server->getPort()));
    const auto packet = packetOf(bytes);
    server->send(packet.get());
    server->send(packet.get());
    EXPECT_EQ(packet->referenceCount(), 7) << "the queues share it";
    for (const auto& peer : peers)
        for (int i = 0; i < 2; ++i) {
            std::string received;
            for (RawWebSocket::Frame piece; !piece.isFinal;) {
                piece = takeFrame(*peer);
                EXPECT_EQ(piece.opcode, received.empty() ? RawWebSocket::Binary : RawWebSocket::Continuation);
                ASSERT_TRUE(piece.isWhole);
                received += piece.payload;
            }
            EXPECT_TRUE(received == bytes);
        }
    EXPECT_TRUE(serveUntil([&] { return packet->referenceCount() == 1; }));
    EXPECT_TRUE(std::string(reinterpret_cast<const char*>(packet->getPayload()), packet->getSize()) == bytes);
}

TEST_F(WebSocketServerTest, BroadcastsPassOverAnonymousSockets) {
    std::vector<ref_ptr<WebSocket>> sockets;
    const auto server = makeServer([&](WebSocket* socket) { sockets.emplace_back(socket); });
    const auto one = connectTo(server->getPort());
    const auto two = connectTo(server->getPort());
    ASSERT_EQ(sockets.size(), 2U);
    sockets[0]->setAnonymous(true);
    server->send(packetOf("broadcast").get());
    sockets[0]->send(zel::String("direct"));
    EXPECT_EQ(takeFrame(*two).payload, "broadcast");
    EXPECT_EQ(takeFrame(*one).payload, "direct");
}

TEST_F(WebSocketServerTest, MessagesTakeTheNumbersOfTheirSocket) {
    std::vector<ref_ptr<WebSocket>> sockets;
    const auto server = makeServer([&](WebSocket* socket) { sockets.emplace_back(socket); });
    const auto one = connectTo(server->getPort());
    const auto two = connectTo(server->getPort());
    const StructuredMessage message("Clock.Tick");
    const auto idOf = [&](RawWebSocket& peer) {
        const std::string bytes = takeFrame(peer).payload;
        const ref_ptr<StructuredMessage> received(
            StructuredMessage::parse(reinterpret_cast<const zel::uint8*>(bytes.data()), bytes.size(), true));
        EXPECT_EQ(received->getUri(), "Clock.Tick");
        return received->getMessageId();
    };
    sockets[0]->send(&message);
    EXPECT_EQ(message.getMessageId(), 1U);
    EXPECT_EQ(idOf(*one), 1U);
    server->send(&message);
    EXPECT_EQ(idOf(*one), 2U);
    EXPECT_EQ(idOf(*two), 1U);
}

TEST_F(WebSocketServerTest, AMessageGoesOutAsItsEnvelope) {
    ref_ptr<WebSocket> socket;
    const auto server = makeServer([&](WebSocket* connected) { socket = connected; });
    const auto peer = connectTo(server->getPort());
    Json::Value header;
    header["frame"] = 3;
    StructuredMessage message("Track.Ack", header, zelData::BinaryData::copy("\1\2\3\4", 4));
    message.setResponseId(5);
    socket->send(&message);
    std::string expected("\1\0\0\0\5\0\0\0\x9\0\0\0\xc\0\0\0\x40\0\0\0\4\0\0\0Track.Ack{\"frame\":3}\n", 45);
    expected += std::string(64 - 45, '\0') + "\1\2\3\4"; // no byte of anybody's memory
    EXPECT_EQ(takeFrame(*peer).payload, expected);
    message.setBinarySegment(new zelData::BinaryData(0));
    socket->send(&message);
    EXPECT_EQ(takeFrame(*peer).payload.size(), 45U) << "without bytes there is no padding";
}

// Outgoing connections

TEST_F(WebSocketServerTest, ConnectsToAnother) {
    std::vector<std::string> atServer, atClient;
    ref_ptr<WebSocket> accepted;
    const auto server = makeServer([&](WebSocket* socket) {
        accepted = socket;
        keepMessages(socket, atServer);
    });
    const auto client = makeClient();
    serveAlso([&] { client->service(0); });
    const zelTest::LogCapture log(zel::Notify::Info);
    WebSocket* const socket = connect(*client, *server, true);
    ASSERT_NE(socket, nullptr);
    EXPECT_THAT(log.text(),
                HasSubstr("WebSocketServer::createConnection to 127.0.0.1, port: " +
                          std::to_string(server->getPort()) +
                          ", path: , useSSL: 0, protocol: zel_stream, isAnonymous: 1"));
    EXPECT_TRUE(socket->isOutgoing());
    EXPECT_TRUE(socket->isAnonymous());
    EXPECT_EQ(client->getClientSockets().size(), 1U);
    keepMessages(socket, atClient);
    socket->send(zel::String("question"));
    accepted->send(zel::String("answer"));
    EXPECT_TRUE(serveUntil([&] { return !atServer.empty() && !atClient.empty(); }));
    EXPECT_THAT(atServer, ElementsAre("question"));
    EXPECT_THAT(atClient, ElementsAre("answer"));
}

TEST_F(WebSocketServerTest, AClientLeavesSharedPacketsAsTheyAre) {
    std::vector<std::string> atServer;
    const auto server = makeServer([&](WebSocket* socket) { keepMessages(socket, atServer); });
    const auto client = makeClient();
    serveAlso([&] { client->service(0); });
    WebSocket* const socket = connect(*client, *server);
    ASSERT_NE(socket, nullptr);
    const std::string bytes(600'000, 'x');
    const auto packet = packetOf(bytes);
    socket->send(packet.get());
    EXPECT_TRUE(serveUntil([&] { return atServer.size() == 1; }));
    EXPECT_TRUE(atServer[0] == bytes);
    EXPECT_TRUE(std::string(reinterpret_cast<const char*>(packet->getPayload()), packet->getSize()) == bytes);
}

TEST_F(WebSocketServerTest, NobodyToConnectToThrows) {
    const auto client = makeClient();
    zel::uint16 port = 0;
    {
        const WebSocketServer gone(AnyPort, {}, {}, Protocol);
        port = gone.getPort();
    }
    const zelTest::StreamCapture output(std::cout);
    EXPECT_EQ(whatOf([&] { (void)client->createConnection("127.0.0.1", port, false, "/", Protocol, false); }),
              "WebSocketServer::connect");
    EXPECT_EQ(output.text(), "WebSocket connection error!\n");
}

TEST_F(WebSocketServerTest, PeersThatNeverShakeHandsAreGivenUp) {
    const auto client = makeClient();
    serveAlso([&] { client->service(0); });
    client->setConnectLimit(std::chrono::milliseconds(20));
    for (const char* word : {"", "HTTP/1.1 101 Switching Protocols\r\nUpgrade: webso"}) {
        std::atomic<bool> hasHungUp{false};
        zelTest::OpenServer mute;
        mute.open(zelNet::AnyPort, true);
        std::thread peer([&mute, &hasHungUp, word] {
            ref_ptr<zelNet::TCPSocket> accepted;
            while (!accepted) // it does not wait
                accepted = mute.accept();
            accepted->sendBlocking(zelTest::bytesOf(word), static_cast<zel::uint32>(std::strlen(word)));
            zel::uint8 byte = 0;
            try {
                for (;;) // until the other side hangs up
                    accepted->recvBlocking(&byte, 1);
            } catch (const zelNet::NetError&) {
                hasHungUp = true;
            }
        });
        EXPECT_EQ(whatOf([&] {
                      (void)client->createConnection(
                          "127.0.0.1", mute.getPort(), false, "/", Protocol, false);
                  }),
                  "WebSocketServer::connect");
        EXPECT_TRUE(serveUntil([&] { return hasHungUp.load(); }));
        peer.join();
    }
    EXPECT_EQ(client->getClientSockets().size(), 0U);
    client->setConnectLimit(std::chrono::minutes(1));
    EXPECT_NE(connect(*client, *makeServer()), nullptr) << "others are still found";
}

TEST_F(WebSocketServerTest, OthersThatSendWithoutAPauseDoNotLengthenTheWaitForOne) {
    // Two sockets of one server send a message to each other, so that each service has something to do.
    constexpr int Many = 200'000;
    int numReceived = 0;
    const auto server = makeServer([&](WebSocket* socket) {
        socket->setReceiveCallback([&](WebSocket* receiver, zel::uint8*, zel::size_t) {
            if (++numReceived < Many)
                receiver->send(zel::String("ball"));
        });
    });
    WebSocket* const player =
        server->createConnection("127.0.0.1", server->getPort(), false, "/", Protocol, false);
    player->send(zel::String("ball"));
    EXPECT_TRUE(serveUntil([&] { return numReceived > 0; }));
    server->setConnectLimit(std::chrono::milliseconds(1));
    zelTest::OpenServer mute;
    mute.open(zelNet::AnyPort, true);
    EXPECT_EQ(whatOf([&] {
                  (void)server->createConnection("127.0.0.1", mute.getPort(), false, "/", Protocol, false);
              }),
              "WebSocketServer::connect");
    EXPECT_LT(numReceived, Many) << "it has waited until the others were done";
}

TEST_F(WebSocketServerTest, OutgoingConnectionsEndAsOthersDo) {
    bool isConnected = false;
    const auto client =
        makeClient([&](WebSocket*) { isConnected = true; }, [&](WebSocket*) { isConnected = false; });
    {
        ref_ptr<WebSocketServer> server(new WebSocketServer(AnyPort, {}, {}, Protocol));
        ASSERT_NE(connect(*client, *server), nullptr);
        EXPECT_TRUE(isConnected);
    }
    serveAlso([&] { client->service(0); });
    EXPECT_TRUE(serveUntil([&] { return !isConnected; }));
    EXPECT_TRUE(client->getClientSockets().empty());
}

// Encryption

/// libwebsockets loses memory where there are two contexts with encryption, and where a start fails.
class WebSocketServerSecureTest : public WebSocketServerTest {
protected:
    void SetUp() override {
        WebSocketServerTest::SetUp();
#ifdef __SANITIZE_ADDRESS__
        __lsan_disable();
#endif
        pemFile = directory / "server.pem";
        const std::string command =
            "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost -keyout " + pemFile +
            " -out " + pemFile + ".crt 2> /dev/null && cat " + pemFile + ".crt >> " + pemFile;
        ASSERT_EQ(std::system(command.c_str()), 0); // NOLINT(concurrency-mt-unsafe)
    }
    void TearDown() override {
        ::unsetenv("ZEL_SSL_PEM_FILE"); // NOLINT(concurrency-mt-unsafe)
#ifdef __SANITIZE_ADDRESS__
        __lsan_enable();
#endif
        WebSocketServerTest::TearDown();
    }
    /// Connects while the server is served by another thread.
    std::string failureOf(WebSocketServer& client, WebSocketServer& server, bool useSSL) {
        std::string failure;
        whileServed(server, [&] {
            failure = whatOf([&] {
                (void)client.createConnection("localhost", server.getPort(), useSSL, "", Protocol, false);
            });
        });
        return failure;
    }

    zelTest::TempDirectory directory;
    std::string pemFile;
};

TEST_F(WebSocketServerSecureTest, EncryptedConnectionsCarryMessages) {
    ::setenv("ZEL_SSL_PEM_FILE", pemFile.c_str(), 1); // NOLINT(concurrency-mt-unsafe)
    std::vector<std::string> atServer;
    const auto server = makeServer([&](WebSocket* socket) { keepMessages(socket, atServer); });
    EXPECT_TRUE(server->useSSL());
    ::unsetenv("ZEL_SSL_PEM_FILE"); // NOLINT(concurrency-mt-unsafe)
    ref_ptr<WebSocket> socket;
    const auto client = makeClient([&](WebSocket* connected) { socket = connected; });
    serveAlso([&] { client->service(0); });
    EXPECT_FALSE(client->useSSL());
    ASSERT_EQ(failureOf(*client, *server, true), "no exception");
    const std::string large(1'000'000, 'x');
    socket->send(packetOf(large).get());
    EXPECT_TRUE(serveUntil([&] { return !atServer.empty(); }));
    EXPECT_TRUE(atServer.front() == large);
}

TEST_F(WebSocketServerSecureTest, BothEndsMustAgree) {
    const auto plain = makeServer();
    ::setenv("ZEL_SSL_PEM_FILE", pemFile.c_str(), 1); // NOLINT(concurrency-mt-unsafe)
    const auto secure = makeServer();
    const auto client = makeClient();
    EXPECT_EQ(failureOf(*client, *plain, true), "WebSocketServer::connect");
    EXPECT_EQ(failureOf(*client, *secure, false), "WebSocketServer::connect");
}

TEST_F(WebSocketServerSecureTest, AFileThatIsNoneThrows) {
    ::setenv("ZEL_SSL_PEM_FILE", "no/such/file", 1); // NOLINT(concurrency-mt-unsafe)
    EXPECT_THAT(whatOf([&] { WebSocketServer server(AnyPort, {}, {}, Protocol); }),
                testing::StartsWith("libwebsocket init failed: "));
}

TEST_F(WebSocketServerSecureTest, AFailureWithoutReasonIsAnInternalError) {
    ::setenv("ZEL_SSL_PEM_FILE", "no/such/file", 1); // NOLINT(concurrency-mt-unsafe)
    static std::string told;
    lws_set_log_level(LLL_ERR, [](int /*level*/, const char* line) {
        told += line;
        errno = 0;
    });
    EXPECT_EQ(whatOf([&] { WebSocketServer server(AnyPort, {}, {}, Protocol); }),
              "libwebsocket init failed: Internal error\n");
    lws_set_log_level(LLL_ERR | LLL_WARN, lwsl_emit_stderr);
    EXPECT_THAT(told, HasSubstr("no/such/file"));
}

using WebSocketServerSecureDeathTest = WebSocketServerSecureTest;

TEST_F(WebSocketServerSecureDeathTest, ARangeIsTriedInSilence) {
    const auto port = std::min<zel::uint16>(makeServer()->getPort(), 65000);
    ::setenv("ZEL_SSL_PEM_FILE", "no/such/file", 1); // NOLINT(concurrency-mt-unsafe)
    testing::internal::CaptureStderr();
    EXPECT_THROW(WebSocketServer(AnyPort, {}, {}, Protocol), NetError);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("no/such/file"));
    EXPECT_DEATH(
        {
            const ref_ptr<PortRange> range(new PortRange(port, static_cast<zel::uint16>(port + 5)));
            WebSocketServer(range.get(), {}, {}, Protocol);
        },
        testing::AllOf(HasSubstr("Unable to start websocket server with port range"),
                       testing::Not(HasSubstr("no/such/file"))));
}

TEST_F(WebSocketServerSecureTest, CertificatesOfAnAuthorityCompleteTheChain) {
    const auto run = [](const std::string& command) {
        ASSERT_EQ(std::system(command.c_str()), 0) << command; // NOLINT(concurrency-mt-unsafe)
    };
    const std::string authority = directory / "authority", leaf = directory / "leaf";
    run("openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=authority -keyout " + authority +
        ".key -out " + authority + ".pem 2> /dev/null");
    run("openssl req -newkey rsa:2048 -nodes -subj /CN=localhost -keyout " + leaf + ".key -out " + leaf +
        ".csr 2> /dev/null");
    run("openssl x509 -req -days 2 -in " + leaf + ".csr -CA " + authority + ".pem -CAkey " + authority +
        ".key -CAcreateserial -out " + leaf + ".crt 2> /dev/null");
    run("cat " + leaf + ".key " + leaf + ".crt > " + leaf + ".pem");
    /// How many certificates a server shows to who connects.
    const auto numCertificates = [&] {
        const auto server = makeServer();
        const std::string shown = directory / "shown";
        whileServed(*server, [&] {
            run("openssl s_client -showcerts -connect 127.0.0.1:" + std::to_string(server->getPort()) +
                " < /dev/null > " + shown + " 2> /dev/null");
        });
        std::ifstream file(shown);
        int count = 0;
        for (std::string line; std::getline(file, line);)
            count += line == "-----BEGIN CERTIFICATE-----" ? 1 : 0;
        return count;
    };
    ::setenv("ZEL_SSL_PEM_FILE", (leaf + ".pem").c_str(), 1); // NOLINT(concurrency-mt-unsafe)
    EXPECT_EQ(numCertificates(), 1);
    ::setenv("ZEL_SSL_CA_FILE", (authority + ".pem").c_str(), 1); // NOLINT(concurrency-mt-unsafe)
    EXPECT_EQ(numCertificates(), 2);
    ::unsetenv("ZEL_SSL_CA_FILE"); // NOLINT(concurrency-mt-unsafe)
}

TEST_F(WebSocketServerTest, ThreadsMaySendWhileAnotherServes) {
    std::vector<std::string> atServer;
    const auto server = makeServer([&](WebSocket* socket) { keepMessages(socket, atServer); });
    const auto client = makeClient();
    serveAlso([&] { client->service(0); });
    WebSocket* const socket = connect(*client, *server);
    ASSERT_NE(socket, nullptr);
    constexpr int NumMessages = 200;
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i)
        threads.emplace_back([&, i] {
            for (int j = 0; j < NumMessages; ++j)
                socket->send(zel::String(std::to_string(i) + "." + std::to_string(j)));
        });
    EXPECT_TRUE(serveUntil([&] { return atServer.size() == 3U * NumMessages; }));
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(std::set<std::string>(atServer.begin(), atServer.end()).size(), 3U * NumMessages);
}

/// Whether a thread of this process waits for something.
bool isAsleep(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text;
    std::getline(file, text);
    const std::size_t place = text.rfind(") ");
    return place != std::string::npos && text[place + 2] == 'S';
}

TEST_F(WebSocketServerTest, WhoServesInALoopLeavesTheirTurnToThoseWhoWaitToSend) {
    ref_ptr<WebSocket> socket;
    std::function<void()> onMessage;
    const auto server = makeServer([&](WebSocket* client) {
        socket = client;
        client->setReceiveCallback([&](WebSocket*, zel::uint8*, zel::size_t) { onMessage(); });
    });
    const auto peer = connectTo(server->getPort());
    const ref_ptr<Packet> packet = packetOf("in turn");
    for (int i = 0; i < 10; ++i) {
        std::atomic<pid_t> sender{0};
        std::thread other;
        onMessage = [&] {
            other = std::thread([&] {
                sender = ::gettid();
                socket->send(packet.get());
            });
            while (sender.load() == 0 || !isAsleep(sender.load()))
                std::this_thread::yield();
        };
        EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Binary, "x")));
        while (!other.joinable())
            server->service(0);
        server->service(0); // at once, but behind the one who waited
        const bool hasCome = peer->takeFrame().isWhole;
        EXPECT_TRUE(hasCome) << i;
        other.join();
        if (!hasCome)
            (void)takeFrame(*peer);
    }
}

} // namespace
