#include "FramePacketFixture.h"
#include "WebSocketFixture.h"

#include <zelNet/NetError.h>
#include <zelNet/StructuredMessage.h>

#include <json/value.h>
#include <support/LogCapture.h>
#include <support/WhatOf.h>

#include <algorithm>
#include <limits>

using testing::HasSubstr;
using zel::ref_ptr;
using zelNet::StructuredMessage;
using zelNet::WebSocket;
using zelTest::whatOf;
using Packet = WebSocket::Packet;

namespace {

constexpr int WriteText = 0, WriteBinary = 1; // as libwebsockets numbers them

std::string payloadOf(const Packet& packet) {
    return {reinterpret_cast<const char*>(packet.getPayload()), packet.getSize()};
}

// Packets

TEST(WebSocketPacketTest, HasRoomForTheLibraryAheadOfThePayload) {
    const ref_ptr<Packet> packet(new Packet(5, Packet::ContentType::Binary));
    EXPECT_EQ(packet->getSize(), 5U);
    EXPECT_EQ(packet->getContentType(), Packet::ContentType::Binary);
    // Under AddressSanitizer this is seen.
    std::fill(packet->getPayload() - 16, packet->getPayload() + 5, zel::uint8{1});
    EXPECT_EQ(packet->getLibwebsocketsWriteProtocol(), WriteBinary);
}

TEST(WebSocketPacketTest, OfTextIsText) {
    const ref_ptr<Packet> packet(new Packet(zel::String("one\ntwo")));
    EXPECT_EQ(payloadOf(*packet), "one\ntwo");
    EXPECT_EQ(packet->getContentType(), Packet::ContentType::Text);
    EXPECT_EQ(packet->getLibwebsocketsWriteProtocol(), WriteText);
}

TEST(WebSocketPacketTest, OfJsonIsItsLine) {
    Json::Value json;
    json["b"] = 1;
    json["a"] = "x";
    const ref_ptr<Packet> packet(new Packet(json));
    EXPECT_EQ(payloadOf(*packet), "{\"a\":\"x\",\"b\":1}\n");
    EXPECT_EQ(packet->getContentType(), Packet::ContentType::Text);
}

TEST(WebSocketPacketTest, TextThatIsNoUtf8IsReplaced) {
    const auto sent = [](const std::string& text) {
        return payloadOf(*ref_ptr<Packet>(new Packet(zel::String(text))));
    };
    EXPECT_EQ(sent("a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80z"), "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80z");
    EXPECT_EQ(sent("a\xFFz"), "a\xEF\xBF\xBDz");
    EXPECT_EQ(sent("\xC3"), "\xEF\xBF\xBD");
    EXPECT_EQ(sent("\xED\xA0\x80"), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD") << "half of a pair";
    EXPECT_EQ(sent(std::string("a\0b", 3)), std::string("a\0b", 3));
    EXPECT_EQ(sent(""), "");
}

TEST(WebSocketPacketTest, UnknownContentTypesThrow) {
    const ref_ptr<Packet> packet(new Packet(1, static_cast<Packet::ContentType>(2)));
    EXPECT_EQ(whatOf([&] { (void)packet->getLibwebsocketsWriteProtocol(); }),
              "WebSocket: Unknown write protocol.");
}

TEST(WebSocketPacketTest, WithoutMemoryThrows) {
    const auto failureOf = [](zel::size_t size) {
        return whatOf([size] { const ref_ptr<Packet> packet(new Packet(size, Packet::ContentType::Text)); });
    };
    constexpr zel::size_t Most = std::numeric_limits<zel::size_t>::max();
    EXPECT_EQ(failureOf(Most / 2), "Could not allocate 9223372036854775807 bytes for packet.");
    EXPECT_EQ(failureOf(Most - 3), "Could not allocate -4 bytes for packet.") << "does not wrap";
}

class WebSocketFramePacketTest : public zelTest::FramePacketFixture {};

TEST_F(WebSocketFramePacketTest, HoldsTheWholeFrame) {
    const ref_ptr<zelData::Frame> frame(makeFrame());
    const ref_ptr<Packet> packet(new Packet(frame.get()));
    EXPECT_EQ(packet->getContentType(), Packet::ContentType::Binary);
    EXPECT_EQ(payloadOf(*packet), bytesOf(frame.get()));
}

TEST_F(WebSocketFramePacketTest, OfAnEmptyFrameIsItsHeader) {
    const ref_ptr<zelData::Frame> frame(new zelData::Frame(1, 0.5, 0.25));
    const ref_ptr<Packet> packet(new Packet(frame.get()));
    EXPECT_EQ(payloadOf(*packet), bytesOf(frame.get()));
}

// Messages in pieces. The socket has no connection.

ref_ptr<WebSocket> makeSocket() {
    return ref_ptr<WebSocket>(new WebSocket(nullptr, nullptr, false));
}

void append(WebSocket& socket, std::string text, zel::size_t remaining) {
    socket.appendPartialMessage(text.data(), text.size(), remaining);
}

TEST(WebSocketPartialTest, PiecesComeTogether) {
    std::vector<std::string> messages;
    const auto socket = makeSocket();
    socket->setReceiveCallback([&](WebSocket* sender, zel::uint8* data, zel::size_t size) {
        EXPECT_EQ(sender, socket.get());
        EXPECT_FALSE(socket->hasPartialMessage()) << "it was taken out";
        messages.emplace_back(reinterpret_cast<char*>(data), size);
    });
    EXPECT_FALSE(socket->hasPartialMessage());
    append(*socket, "ab", 2);
    EXPECT_TRUE(socket->hasPartialMessage());
    append(*socket, "cd", 0);
    socket->receivePartialMessage();
    EXPECT_EQ(messages, std::vector<std::string>{"abcd"});
    socket->resetPartialMessage();
    EXPECT_FALSE(socket->hasPartialMessage());
}

TEST(WebSocketPartialTest, TheFirstPieceMayLieAboutWhatFollows) {
    const auto socket = makeSocket();
    std::string all;
    socket->setReceiveCallback([&](WebSocket*, zel::uint8* data, zel::size_t size) {
        all.assign(reinterpret_cast<char*>(data), size);
    });
    std::string expected;
    append(*socket, "", 0);
    EXPECT_TRUE(socket->hasPartialMessage()) << "an empty piece is one too";
    for (int i = 0; i < 3000; ++i) {
        const std::string piece(static_cast<std::size_t>(i % 7), static_cast<char>('a' + i % 26));
        append(*socket, piece, static_cast<zel::size_t>(i % 3));
        expected += piece;
    }
    socket->receivePartialMessage();
    EXPECT_EQ(all, expected);
}

TEST(WebSocketPartialTest, ResettingForgetsThePieces) {
    const auto socket = makeSocket();
    append(*socket, "abc", 10);
    socket->resetPartialMessage();
    EXPECT_FALSE(socket->hasPartialMessage());
    append(*socket, "x", 0);
    std::string all;
    socket->setReceiveCallback([&](WebSocket*, zel::uint8* data, zel::size_t size) {
        all.assign(reinterpret_cast<char*>(data), size);
    });
    socket->receivePartialMessage();
    EXPECT_EQ(all, "x");
}

TEST(WebSocketPartialTest, WithoutCallbackThrowsAndIsTakenOut) {
    const auto socket = makeSocket();
    append(*socket, "abc", 0);
    EXPECT_THROW(socket->receivePartialMessage(), std::bad_function_call);
    EXPECT_FALSE(socket->hasPartialMessage());
}

TEST(WebSocketPartialTest, AnExceptionOfTheCallbackComesOutAndTheNextMessageBeginsAnew) {
    const auto socket = makeSocket();
    append(*socket, "abc", 0);
    socket->setReceiveCallback(
        [](WebSocket*, zel::uint8*, zel::size_t) { throw std::runtime_error("no such thing"); });
    EXPECT_EQ(whatOf([&] { socket->receivePartialMessage(); }), "no such thing");
    EXPECT_FALSE(socket->hasPartialMessage());
}

TEST(WebSocketPartialTest, TheCallbackMayAppendToTheNextMessage) {
    const auto socket = makeSocket();
    std::vector<std::string> messages;
    socket->setReceiveCallback([&](WebSocket*, zel::uint8* data, zel::size_t size) {
        messages.emplace_back(reinterpret_cast<char*>(data), size);
        if (messages.size() == 1)
            append(*socket, "next", 0);
    });
    append(*socket, "first", 0);
    socket->receivePartialMessage();
    ASSERT_TRUE(socket->hasPartialMessage());
    socket->receivePartialMessage();
    EXPECT_EQ(messages, (std::vector<std::string>{"first", "next"}));
}

// Without connection

TEST(WebSocketTest, BeginsTrustedByNobodyAndHeardByAll) {
    const auto socket = makeSocket();
    EXPECT_FALSE(socket->isAnonymous());
    EXPECT_FALSE(socket->isAuthenticated());
    EXPECT_FALSE(socket->isOpen());
    socket->setAnonymous(true);
    socket->setAuthenticated(true);
    EXPECT_TRUE(socket->isAnonymous());
    EXPECT_TRUE(socket->isAuthenticated());
}

TEST(WebSocketTest, SendingWithoutConnectionDoesNothing) {
    const auto socket = makeSocket();
    const ref_ptr<Packet> packet(new Packet(1, Packet::ContentType::Binary));
    const StructuredMessage message("System.Heartbeat");
    socket->send(packet.get());
    socket->send(static_cast<Packet*>(nullptr));
    socket->send(zel::String("text"));
    socket->send(&message);
    EXPECT_EQ(socket->getNumQueuedBytes(), 0U);
    EXPECT_EQ(packet->referenceCount(), 1);
    EXPECT_EQ(message.getMessageId(), StructuredMessage::NoId);
    socket->close(1000, "done");
}

TEST(WebSocketTest, ReceivingWithoutCallbackDoesNothing) {
    char byte = 'a';
    makeSocket()->messageReceived(&byte, 1);
}

} // namespace
