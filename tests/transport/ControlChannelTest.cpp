#include "WebSocketFixture.h"

#include <zelNet/ControlChannel.h>
#include <zelNet/NetError.h>

#include <json/value.h>
#include <json/writer.h>
#include <support/LogCapture.h>
#include <support/StreamCapture.h>

#include <optional>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;
using zel::ref_ptr;
using zelNet::AnyPort;
using zelNet::StructuredMessage;
using zelNet::WebSocket;
using zelNet::WebSocketServer;
using zelTest::envelopeOf;
using zelTest::RawWebSocket;
using ControlChannel = WebSocket::ControlChannel;

namespace {

constexpr zel::uint32 NoId = StructuredMessage::NoId;

class ControlChannelTest : public zelTest::WebSocketFixture {
protected:
    struct Answer {
        std::string uri;
        zel::uint32 responseId = 0;
        std::string header;
    };

    void SetUp() override {
        WebSocketFixture::SetUp();
        start("");
    }
    void TearDown() override {
        channel = nullptr;
        WebSocketFixture::TearDown();
    }
    void start(const std::string& token) {
        if (!channel)
            serveAlso([this] { channel->service(0); });
        channel = new ControlChannel(AnyPort, token);
        channel->registerMessageHandler(
            "Echo", [this](ControlChannel*, WebSocket* socket, StructuredMessage* message) {
                ++numEchoes;
                const ref_ptr<StructuredMessage> response(message->createResponse());
                response->setHeader(message->getHeader());
                socket->send(response.get());
            });
    }
    std::unique_ptr<RawWebSocket> connect() { return connectTo(channel->getPort()); }

    static void send(RawWebSocket& peer,
                     const std::string& uri,
                     const std::string& json,
                     zel::uint32 id,
                     zel::uint32 responseId = NoId) {
        EXPECT_TRUE(
            peer.send(RawWebSocket::frame(RawWebSocket::Binary, envelopeOf(uri, json, id, responseId))));
    }
    /// The next message that comes, as an answer.
    Answer takeAnswer(RawWebSocket& peer) {
        const auto frame = takeFrame(peer);
        EXPECT_EQ(frame.opcode, RawWebSocket::Binary) << frame.payload;
        const ref_ptr<StructuredMessage> message(StructuredMessage::parse(
            reinterpret_cast<const zel::uint8*>(frame.payload.data()), frame.payload.size(), true));
        return {message->getUri(), message->getResponseId(), Json::FastWriter().write(message->getHeader())};
    }
    /// Sends "authenticate".
    bool authenticate(RawWebSocket& peer, const std::string& token, zel::uint32 id) {
        send(peer, "authenticate", "{\"token\":\"" + token + "\"}", id);
        const Answer answer = takeAnswer(peer);
        EXPECT_EQ(answer.uri, "authenticate");
        EXPECT_EQ(answer.responseId, id);
        EXPECT_THAT(answer.header, testing::AnyOf("{\"success\":true}\n", "{\"success\":false}\n"));
        return answer.header == "{\"success\":true}\n";
    }
    /// Everything that was sent has been handled.
    void serveAll(RawWebSocket& peer) {
        EXPECT_TRUE(peer.send(RawWebSocket::frame(RawWebSocket::Ping, "")));
        EXPECT_TRUE(serveUntil([&] { return peer.takeFrame().opcode == RawWebSocket::Pong; }));
    }

    ref_ptr<ControlChannel> channel;
    int numEchoes = 0;
};

// Requests

TEST_F(ControlChannelTest, TellsWhereItListens) {
    const zelTest::LogCapture log(zel::Notify::Info);
    start("secret");
    EXPECT_THAT(log.text(),
                HasSubstr("Started WebSocket::ControlChannel on port " + std::to_string(channel->getPort()) +
                          ", with token: secret, using SSL: NO"));
    const ref_ptr<zelNet::PortRange> range(new zelNet::PortRange(40000, 40100));
    const ControlChannel other(range.get(), "");
    EXPECT_THAT(log.text(),
                HasSubstr("Started WebSocket::ControlChannel from portRange on port " +
                          std::to_string(other.getPort()) + ", with token: , using SSL: NO"));
    EXPECT_GE(other.getPort(), 40000);
}

TEST_F(ControlChannelTest, AHandlerAnswers) {
    const auto peer = connect();
    send(*peer, "Echo", "{\"a\":[1,2]}", 7);
    const Answer answer = takeAnswer(*peer);
    EXPECT_EQ(answer.uri, "Echo");
    EXPECT_EQ(answer.responseId, 7U);
    EXPECT_EQ(answer.header, "{\"a\":[1,2]}\n");
}

TEST_F(ControlChannelTest, AnUnknownUriIsAnsweredSo) {
    const auto peer = connect();
    const zelTest::LogCapture log(zel::Notify::Warning);
    send(*peer, "No.Such", "{}", 7);
    const Answer answer = takeAnswer(*peer);
    EXPECT_EQ(answer.uri, "No.Such");
    EXPECT_EQ(
        answer.header,
        "{\"error\":\"ControlChannel: No message handler registered for uri: No.Such\",\"success\":false}\n");
    EXPECT_THAT(log.text(), HasSubstr("ControlChannel: No message handler registered for uri: No.Such"));
}

TEST_F(ControlChannelTest, WhatAHandlerThrowsIsTheAnswer) {
    channel->registerMessageHandler("Throw",
                                    [](auto*, auto*, auto*) { throw std::runtime_error("out of range"); });
    const auto peer = connect();
    const zelTest::LogCapture log(zel::Notify::Warning);
    send(*peer, "Throw", "null", 7);
    const Answer answer = takeAnswer(*peer);
    EXPECT_EQ(answer.responseId, 7U);
    EXPECT_EQ(answer.header, "{\"error\":\"out of range\",\"success\":false}\n");
    EXPECT_THAT(log.text(), HasSubstr("Exception from message handler, error: out of range"));
}

TEST_F(ControlChannelTest, OtherExceptionsPassOn) {
    channel->registerMessageHandler("Throw", [](auto*, auto*, auto*) { throw 5; });
    const auto peer = connect();
    const zelTest::StreamCapture errors(std::cerr);
    send(*peer, "Throw", "null", 7);
    send(*peer, "Echo", "{}", 8);
    EXPECT_EQ(takeAnswer(*peer).uri, "Echo");
    EXPECT_THAT(errors.text(), StartsWith("WebSocket: Got a C++ exception while executing a C callback"));
}

TEST_F(ControlChannelTest, RegisteringAgainReplaces) {
    std::vector<int> calls;
    channel->registerMessageHandler("A", [&](auto*, auto*, auto*) { calls.push_back(1); });
    channel->registerMessageHandler("A", [&](auto*, auto*, auto*) {
        // A handler may replace itself.
        channel->registerMessageHandler("A", {});
        calls.push_back(2);
    });
    const auto peer = connect();
    send(*peer, "A", "{}", 1);
    send(*peer, "A", "{}", 2);
    EXPECT_THAT(takeAnswer(*peer).header, HasSubstr("No message handler"));
    EXPECT_THAT(calls, ElementsAre(2));
}

TEST_F(ControlChannelTest, HandlersGetThePayload) {
    std::string payload;
    ref_ptr<StructuredMessage> kept;
    channel->registerMessageHandler("Take", [&](ControlChannel* it, WebSocket*, StructuredMessage* message) {
        EXPECT_EQ(it, channel.get());
        payload.assign(reinterpret_cast<char*>(message->getBinarySegment()->getData()),
                       message->getBinarySegment()->getSize());
        kept = message;
    });
    const auto peer = connect();
    std::string bytes = envelopeOf("Take", "{}", 1);
    bytes[16] = 32; // payload offset
    bytes[20] = 3;  // and size
    bytes += std::string(32 - bytes.size(), '\0') + "abc";
    EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Binary, bytes)));
    EXPECT_TRUE(serveUntil([&] { return kept != nullptr; }));
    EXPECT_EQ(payload, "abc");
    EXPECT_EQ(kept->getBinarySegment(), nullptr) << "its bytes are gone";
}

TEST_F(ControlChannelTest, BytesThatAreNoMessageAreDropped) {
    const auto peer = connect();
    const zelTest::LogCapture log(zel::Notify::Warning);
    EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Binary, "nonsense")));
    send(*peer, "Echo", "[", 1);
    send(*peer, "Echo", "{}", 2);
    EXPECT_EQ(takeAnswer(*peer).responseId, 2U) << "the only answer";
    EXPECT_THAT(log.text(), HasSubstr("Unable to parse control channel message, error: "));
}

TEST_F(ControlChannelTest, RequestsAreLoggedButForHeartbeats) {
    const auto peer = connect();
    const zelTest::LogCapture log(zel::Notify::Debug);
    send(*peer, "System.Heartbeat", "{}", 1);
    send(*peer, "Echo", "{}", 2);
    (void)takeAnswer(*peer);
    (void)takeAnswer(*peer);
    EXPECT_THAT(log.text(),
                testing::ContainsRegex(": ControlChannel::messageReceived: Echo, id: 2, data: 0x"));
    EXPECT_THAT(log.text(), testing::Not(HasSubstr("messageReceived: System.Heartbeat")));
}

// Duplicates

TEST_F(ControlChannelTest, AMessageThatComesTwiceIsAnsweredOnce) {
    const auto peer = connect();
    const zelTest::StreamCapture output(std::cout);
    send(*peer, "Echo", "{}", 1);
    send(*peer, "Echo", "{\"again\":true}", 1);
    send(*peer, "Other", "{}", 1);
    send(*peer, "Echo", "{}", 1);
    EXPECT_EQ(takeAnswer(*peer).uri, "Echo");
    EXPECT_EQ(takeAnswer(*peer).uri, "Other") << "another URI is another message";
    EXPECT_EQ(takeAnswer(*peer).uri, "Echo") << "only the very last message counts";
    EXPECT_EQ(numEchoes, 2);
    EXPECT_THAT(output.text(),
                MatchesRegex("0x[0-9a-f]+: ControlChannel detected duplicate message! Echo\n"));
}

TEST_F(ControlChannelTest, NumbersThatBeginAgainAreNewMessages) {
    const auto peer = connect();
    const zelTest::StreamCapture output(std::cout);
    int value = 0;
    const auto ask = [&](zel::uint32 id) {
        send(*peer, "Echo", "{\"value\":" + std::to_string(++value) + "}", id);
        return value;
    };
    const auto expectEcho = [&](zel::uint32 id, int asked) {
        const Answer answer = takeAnswer(*peer);
        EXPECT_EQ(answer.responseId, id);
        EXPECT_EQ(answer.header, "{\"value\":" + std::to_string(asked) + "}\n");
    };
    for (const zel::uint32 id : {1U, 2U, 0xFFFFFFFEU, 0xFFFFFFFFU, 1U})
        expectEcho(id, ask(id));
    ask(1);
    expectEcho(2, ask(2));
    EXPECT_EQ(numEchoes, 6);
    EXPECT_THAT(output.text(),
                MatchesRegex("0x[0-9a-f]+: ControlChannel detected duplicate message! Echo\n"));
}

TEST_F(ControlChannelTest, TheSameNumberFromAnotherClientIsAnotherMessage) {
    const auto one = connect();
    const auto two = connect();
    for (int i = 0; i < 2; ++i) {
        send(*one, "Echo", "{}", 1);
        (void)takeAnswer(*one);
        send(*two, "Echo", "{}", 1);
        (void)takeAnswer(*two);
    }
    EXPECT_EQ(numEchoes, 4);
}

TEST_F(ControlChannelTest, TwoMessagesWithoutNumberAreDuplicates) {
    const auto peer = connect();
    const zelTest::StreamCapture output(std::cout);
    send(*peer, "Echo", "{}", NoId);
    send(*peer, "Echo", "{}", NoId);
    serveAll(*peer);
    EXPECT_EQ(numEchoes, 1);
}

TEST_F(ControlChannelTest, ANewClientIsNoneThatHasGone) {
    for (int i = 0; i < 3; ++i) {
        // Its socket may get the address of the one before.
        const auto peer = connect();
        send(*peer, "Echo", "{}", 1);
        EXPECT_EQ(takeAnswer(*peer).uri, "Echo");
        peer->reset();
        EXPECT_TRUE(serveUntil([&] { return channel->getClients().empty(); }));
    }
    EXPECT_EQ(numEchoes, 3);
}

// Clients

TEST_F(ControlChannelTest, TellsOfClients) {
    std::vector<std::string> events;
    channel->SocketConnect.connect([&](ControlChannel* it, WebSocket* socket) {
        EXPECT_EQ(it, channel.get());
        EXPECT_EQ(it->getClients().back(), socket);
        events.emplace_back("connect");
    });
    channel->SocketDisconnect.connect([&](ControlChannel*, WebSocket*) {
        events.emplace_back("disconnect " + std::to_string(channel->getClients().size()));
    });
    EXPECT_EQ(channel->SocketConnect.getName(), "SocketConnect");
    EXPECT_EQ(channel->SocketDisconnect.getName(), "SocketDisconnect");
    const zelTest::LogCapture log(zel::Notify::Info);
    {
        const auto one = connect();
        const auto two = connect();
        one->reset();
        EXPECT_TRUE(serveUntil([&] { return events.size() == 3; }));
    }
    EXPECT_TRUE(serveUntil([&] { return events.size() == 4; }));
    EXPECT_THAT(events, ElementsAre("connect", "connect", "disconnect 1", "disconnect 0"));
    EXPECT_THAT(log.text(), testing::ContainsRegex("ControlChannel::clientConnected: 0x"));
    EXPECT_THAT(log.text(), testing::ContainsRegex("ControlChannel::clientDisconnected: 0x"));
}

TEST_F(ControlChannelTest, BroadcastsReachAll) {
    const auto one = connect();
    const auto two = connect();
    const StructuredMessage message("Clock.Tick");
    channel->send(&message);
    EXPECT_EQ(takeAnswer(*one).uri, "Clock.Tick");
    EXPECT_EQ(takeAnswer(*two).uri, "Clock.Tick");
}

TEST_F(ControlChannelTest, ItsEndEndsItsClients) {
    const auto peer = connect();
    const ref_ptr<WebSocket> kept = channel->getClients().front();
    channel = new ControlChannel(AnyPort, "");
    EXPECT_FALSE(kept->isOpen());
    char byte = 'x';
    kept->messageReceived(&byte, 1);
}

// Tokens

TEST_F(ControlChannelTest, WithoutTokenOnlyNoTokenAuthenticates) {
    const zelTest::StreamCapture output(std::cout);
    const auto peer = connect();
    EXPECT_TRUE(authenticate(*peer, "", 1));
    EXPECT_FALSE(authenticate(*peer, "guess", 2));
    send(*peer, "Echo", "{}", 3);
    EXPECT_EQ(takeAnswer(*peer).uri, "Echo") << "nobody needs it";
}

TEST_F(ControlChannelTest, WithATokenNothingIsDoneBeforeIt) {
    start("secret");
    const auto peer = connect();
    WebSocket* const socket = channel->getClients().front().get();
    const zelTest::StreamCapture output(std::cout);
    for (const char* uri : {"Echo", "System.Heartbeat", "No.Such"}) {
        send(*peer, uri, "{}", 1);
        const auto frame = takeFrame(*peer);
        EXPECT_EQ(frame.opcode, RawWebSocket::Text);
        EXPECT_EQ(frame.payload, "Error: not authenticated!");
    }
    EXPECT_EQ(numEchoes, 0);
    EXPECT_THAT(output.text(), StartsWith("Ignoring message Echo from non authenticated client 0x"));

    EXPECT_TRUE(authenticate(*peer, "secret", 2));
    EXPECT_TRUE(socket->isAuthenticated());
    EXPECT_THAT(output.text(), testing::ContainsRegex("WebSocket client 0x[0-9a-f]+ is authenticated\n"));
    send(*peer, "Echo", "{}", 3);
    EXPECT_EQ(takeAnswer(*peer).uri, "Echo");
}

TEST_F(ControlChannelTest, AFailedTokenLeavesTheSocketOpen) {
    start("secret");
    const auto peer = connect();
    WebSocket* const socket = channel->getClients().front().get();
    const zelTest::StreamCapture output(std::cout);
    zel::uint32 id = 0;
    for (const char* token : {"", "secre", "secret2", "Secret", "secres"})
        EXPECT_FALSE(authenticate(*peer, token, ++id)) << token;
    EXPECT_FALSE(socket->isAuthenticated());
    EXPECT_THAT(output.text(),
                testing::ContainsRegex(
                    "WebSocket client 0x[0-9a-f]+ failed authentication! Received token \"secre\"\n"));
    EXPECT_TRUE(authenticate(*peer, "secret", ++id));
    EXPECT_FALSE(authenticate(*peer, "wrong", ++id));
    EXPECT_FALSE(socket->isAuthenticated()) << "what was trusted is so no more";
    EXPECT_TRUE(socket->isOpen());
}

TEST_F(ControlChannelTest, ThousandsOfWrongTokensOpenNothing) {
    const std::string token = "b6a1c3e2f0d94e7a8c5b6d7e8f901234";
    start(token);
    const auto peer = connect();
    const zelTest::StreamCapture output(std::cout);
    zel::uint32 id = 0;
    const auto expectWrong = [&](const std::string& guess) {
        ASSERT_FALSE(authenticate(*peer, guess, ++id)) << guess;
    };
    for (std::size_t i = 0; i < token.size(); ++i) {
        expectWrong(token.substr(0, i));
        expectWrong(token.substr(i + 1));
        for (char c = '!'; c < '~'; ++c) {
            std::string guess = token;
            guess[i] = c;
            if (guess != token && c != '"' && c != '\\')
                expectWrong(guess);
        }
    }
    for (const char* more : {" ", "0", "\\u0000", "\\n"})
        expectWrong(token + more);
    expectWrong(token + token);
    expectWrong(std::string(100'000, '0'));
    EXPECT_GT(id, 2800U);
    EXPECT_EQ(channel->getClients().size(), 1U) << "nobody is sent away";
    send(*peer, "Echo", "{}", ++id);
    EXPECT_EQ(takeFrame(*peer).payload, "Error: not authenticated!");
    EXPECT_TRUE(authenticate(*peer, token, ++id));
    send(*peer, "Echo", "{}", ++id);
    EXPECT_EQ(takeAnswer(*peer).uri, "Echo");
}

TEST_F(ControlChannelTest, ATokenOfAnotherKindIsTold) {
    start("secret");
    const auto peer = connect();
    const zelTest::StreamCapture errors(std::cerr);
    send(*peer, "authenticate", "{}", 1);
    EXPECT_THAT(takeFrame(*peer).payload, HasSubstr("zelVerify failed: `header.hasMember(\"token\")'"));
    EXPECT_THAT(errors.text(), StartsWith(std::string(78, '=') + "\n["));
    send(*peer, "authenticate", "{\"token\":{\"a\":1}}", 2);
    EXPECT_EQ(takeFrame(*peer).opcode, RawWebSocket::Text);
    send(*peer, "authenticate", "null", 3);
    EXPECT_THAT(takeFrame(*peer).payload, HasSubstr("zelVerify failed"));
    EXPECT_FALSE(channel->getClients().front()->isAuthenticated());
}

TEST_F(ControlChannelTest, ControlCharactersOfClientsAreNotPrinted) {
    start("secret");
    const auto peer = connect();
    const zelTest::StreamCapture output(std::cout);
    send(*peer, "\x1b[31m\n", "{}", 1);
    EXPECT_EQ(takeFrame(*peer).payload, "Error: not authenticated!");
    EXPECT_THAT(output.text(), StartsWith("Ignoring message .[31m. from non authenticated client 0x"));
}

TEST_F(ControlChannelTest, ControlCharactersOfExceptionsAreNotLogged) {
    channel->registerMessageHandler("Throw", [](auto*, auto*, StructuredMessage* message) {
        throw std::runtime_error("no " + message->getHeader()["path"].asString());
    });
    const auto peer = connect();
    const zelTest::LogCapture log(zel::Notify::Warning);
    send(*peer, "Throw", "{\"path\":\"a\\n\\u001b[31m\"}", 7);
    EXPECT_EQ(takeAnswer(*peer).header, "{\"error\":\"no a\\n\\u001b[31m\",\"success\":false}\n");
    EXPECT_THAT(log.text(), HasSubstr("Exception from message handler, error: no a..[31m"));
}

TEST_F(ControlChannelTest, WithoutTokenThoseWhoDoNotReadTheirRefusalsAreDisconnected) {
    start("secret");
    const zelTest::StreamCapture output(std::cout), errors(std::cerr);
    for (const char* header : {"{}", "{\"token\":\"wrong\"}"}) {
        const auto peer = connect();
        // More than the system keeps, so that what waits is here.
        channel->getClients().front()->send(std::string(64'000'000, 'x'));
        send(*peer, "authenticate", header, 1);
        EXPECT_TRUE(serveUntil([&] { return channel->getClients().empty(); })) << header;
    }
}

TEST_F(ControlChannelTest, WithATokenOneMayAskWhileMuchWaits) {
    start("secret");
    const zelTest::StreamCapture output(std::cout);
    const auto peer = connect();
    const ref_ptr<WebSocket> socket = channel->getClients().front();
    socket->send(std::string(64'000'000, 'x'));
    send(*peer, "authenticate", "{\"token\":\"secret\"}", 1);
    send(*peer, "Echo", "{}", 2);
    EXPECT_TRUE(serveUntil([&] { return numEchoes == 1; }));
    EXPECT_GT(socket->getNumQueuedBytes(), ControlChannel::MaxUntrustedQueuedBytes);
    EXPECT_TRUE(socket->isOpen());
}

TEST_F(ControlChannelTest, BroadcastsAreForThoseWithToken) {
    start("secret");
    const auto peer = connect();
    WebSocket* const socket = channel->getClients().front().get();
    EXPECT_TRUE(socket->isAnonymous());
    const StructuredMessage message("Clock.Tick");
    channel->send(&message);
    EXPECT_EQ(socket->getNumQueuedBytes(), 0U);
    EXPECT_TRUE(authenticate(*peer, "secret", 1));
    EXPECT_FALSE(socket->isAnonymous());
    channel->send(&message);
    EXPECT_EQ(takeAnswer(*peer).uri, "Clock.Tick");
    EXPECT_FALSE(authenticate(*peer, "wrong", 2));
    EXPECT_TRUE(socket->isAnonymous()) << "again";
    socket->send(&message);
    EXPECT_EQ(takeAnswer(*peer).uri, "Clock.Tick") << "a direct message reaches it all the same";
}

TEST_F(ControlChannelTest, WithoutTokenMessagesAreSmall) {
    start("secret");
    const auto peer = connect();
    const std::string large(ControlChannel::MaxUntrustedMessageSize, ' ');
    EXPECT_TRUE(authenticate(*peer, "secret", 1));
    EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Binary, envelopeOf("Echo", "{}", 2) + large),
                           [&] { channel->service(0); }));
    EXPECT_EQ(takeAnswer(*peer).uri, "Echo");
    EXPECT_FALSE(authenticate(*peer, "wrong", 3));
    (void)peer->send(RawWebSocket::frame(RawWebSocket::Binary, envelopeOf("Echo", "{}", 4) + large),
                     [&] { channel->service(0); });
    EXPECT_TRUE(serveUntil([&] { return channel->getClients().empty(); }));
}

TEST_F(ControlChannelTest, WithoutTokenClientsAreFew) {
    start("secret");
    std::vector<std::unique_ptr<RawWebSocket>> peers;
    for (std::size_t i = 0; i < ControlChannel::MaxUntrustedClients; ++i)
        peers.push_back(connect());
    RawWebSocket another(channel->getPort());
    EXPECT_TRUE(another.send(RawWebSocket::handshake(Protocol)));
    EXPECT_TRUE(serveUntil([&] { return !another.receive(); }));
    EXPECT_EQ(channel->getClients().size(), ControlChannel::MaxUntrustedClients);
    EXPECT_TRUE(authenticate(*peers.front(), "secret", 1));
    (void)connect();
}

// Answers

TEST_F(ControlChannelTest, AnswersAreNotAnswered) {
    channel->registerMessageHandler("Throw", [](auto*, auto*, auto*) { throw std::runtime_error("no"); });
    const auto peer = connect();
    send(*peer, "No.Such", "{}", 1, 5);
    send(*peer, "Throw", "{}", 2, 5);
    send(*peer, "authenticate", "{\"success\":true}", 3, 5);
    send(*peer, "Echo", "{}", 4, 0);
    EXPECT_EQ(takeAnswer(*peer).uri, "Echo") << "0 is no number of a message";
    send(*peer, "Echo", "{}", 5, 6);
    EXPECT_EQ(takeAnswer(*peer).uri, "Echo") << "a handler may answer what it likes";
}

TEST_F(ControlChannelTest, TwoChannelsTalkToEachOther) {
    start("secret");
    const ref_ptr<ControlChannel> other(new ControlChannel(WebSocketServer::NoListen, ""));
    std::vector<std::string> answers;
    for (const char* uri : {"authenticate", "Echo"})
        other->registerMessageHandler(uri, [&](ControlChannel*, WebSocket*, StructuredMessage* message) {
            answers.push_back(message->getUri() + " " + std::to_string(message->getResponseId()));
        });
    serveAlso([&] { other->service(0); });
    WebSocket* socket = nullptr;
    whileServed(*channel, [&] {
        socket = other->createConnection("127.0.0.1", channel->getPort(), false, "/", "zel_stream", false);
    });
    Json::Value header;
    header["token"] = "secret";
    const StructuredMessage login("authenticate", header, nullptr);
    const StructuredMessage echo("Echo", header, nullptr);
    socket->send(&login);
    socket->send(&echo);
    EXPECT_TRUE(serveUntil([&] { return answers.size() == 2; }));
    EXPECT_THAT(answers, ElementsAre("authenticate 1", "Echo 2"));
}

TEST_F(ControlChannelTest, AConnectionThatItMakesIsTrustedOnlyByTheProgram) {
    start("server's");
    const ref_ptr<ControlChannel> client(new ControlChannel(WebSocketServer::NoListen, "client's"));
    int numCalls = 0;
    client->registerMessageHandler("Push", [&](auto*, auto*, auto*) { ++numCalls; });
    serveAlso([&] { client->service(0); });
    ref_ptr<WebSocket> atServer;
    channel->SocketConnect.connect([&](ControlChannel*, WebSocket* socket) { atServer = socket; });
    WebSocket* socket = nullptr;
    whileServed(*channel, [&] {
        socket = client->createConnection("localhost", channel->getPort(), false, "", "zel_stream", false);
    });
    EXPECT_FALSE(socket->isAnonymous()) << "as told";
    const StructuredMessage push("Push");
    std::string refusal;
    atServer->setReceiveCallback([&](WebSocket*, zel::uint8* data, zel::size_t size) {
        refusal.assign(reinterpret_cast<char*>(data), size);
    });
    const zelTest::StreamCapture output(std::cout);
    atServer->send(&push);
    EXPECT_TRUE(serveUntil([&] { return !refusal.empty(); }));
    EXPECT_EQ(refusal, "Error: not authenticated!");
    socket->setAuthenticated(true);
    atServer->send(&push);
    EXPECT_TRUE(serveUntil([&] { return numCalls == 1; }));
}

} // namespace
