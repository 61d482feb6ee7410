#pragma once

#include "RawWebSocket.h"

#include <zelCore/zelCore.h>
#include <zelNet/StructuredMessage.h>
#include <zelNet/WebSocketServer.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace zelTest {

/// A message without payload, as a client sends it.
inline std::string envelopeOf(const std::string& uri,
                              const std::string& json,
                              zel::uint32 id,
                              zel::uint32 responseId = zelNet::StructuredMessage::NoId) {
    zelNet::StructuredMessage::PreHeader numbers;
    numbers.messageId = id;
    numbers.responseId = responseId;
    numbers.uriSize = static_cast<zel::uint32>(uri.size());
    numbers.headerSize = static_cast<zel::uint32>(json.size());
    std::string bytes(sizeof(numbers), '\0');
    numbers.write(reinterpret_cast<zel::uint8*>(bytes.data()));
    return bytes + uri + json;
}

/// A test with WebSocket peers of one process, all on the test's thread.
template <typename Test>
class Served : public Test {
protected:
    using Callback = zelNet::WebSocketServer::SocketCallback;

    void TearDown() override {
        m_services.clear();
        Test::TearDown();
    }

    /// A service function that serve() calls.
    void serveAlso(std::function<void()> service) { m_services.push_back(std::move(service)); }
    /// Serves until it is true.
    /// @return false if it never is, in a time that no machine needs
    bool serveUntil(const std::function<bool()>& condition) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!condition()) {
            if (std::chrono::steady_clock::now() > end)
                return false;
            for (const auto& service : m_services)
                service();
            std::this_thread::yield();
        }
        return true;
    }

    /// Runs something that waits for a server, which another thread serves meanwhile.
    template <typename Server, typename Action>
    static void whileServed(Server& server, const Action& action) {
        std::atomic<bool> isDone{false};
        std::thread other([&] {
            while (!isDone.load(std::memory_order_acquire)) {
                server.service(0);
                std::this_thread::yield();
            }
        });
        action();
        isDone.store(true, std::memory_order_release);
        other.join();
    }

    /// A server on a free port that is served.
    zel::ref_ptr<zelNet::WebSocketServer> makeServer(Callback onConnect = {}, Callback onDisconnect = {}) {
        zel::ref_ptr<zelNet::WebSocketServer> server(new zelNet::WebSocketServer(
            zelNet::AnyPort, std::move(onConnect), std::move(onDisconnect), Protocol));
        serveAlso([server] { server->service(0); });
        return server;
    }

    /// A peer that has shaken hands.
    std::unique_ptr<RawWebSocket> connectTo(zel::uint16 port) {
        auto peer = std::make_unique<RawWebSocket>(port);
        EXPECT_TRUE(peer->send(RawWebSocket::handshake(Protocol)));
        std::string answer;
        EXPECT_TRUE(serveUntil([&] { return !(answer = peer->takeAnswer()).empty(); }));
        EXPECT_EQ(answer.substr(0, 12), "HTTP/1.1 101");
        return peer;
    }
    /// Pings, which come to peers that have been silent for long, are answered.
    RawWebSocket::Frame takeFrame(RawWebSocket& peer) {
        RawWebSocket::Frame frame;
        do {
            EXPECT_TRUE(serveUntil([&] { return (frame = peer.takeFrame()).isWhole; }));
            if (frame.opcode == RawWebSocket::Ping)
                peer.send(RawWebSocket::frame(RawWebSocket::Pong, frame.payload));
        } while (frame.opcode == RawWebSocket::Ping);
        return frame;
    }

    static constexpr const char* Protocol = "zel_stream";

private:
    std::vector<std::function<void()>> m_services;
};

/// The same without anything else.
class InitialisedTest : public testing::Test {
protected:
    void SetUp() override { zelCore::init(); }
    void TearDown() override { zelCore::shutdown(); }
};
class WebSocketFixture : public Served<InitialisedTest> {};

} // namespace zelTest
