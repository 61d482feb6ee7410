#include "WebSocketFixture.h"

#include <zelNet/ControlChannel.h>

#include <json/value.h>
#include <support/Soak.h>
#include <support/StreamCapture.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>

using zel::ref_ptr;
using zelNet::AnyPort;
using zelNet::StructuredMessage;
using zelNet::WebSocket;
using zelTest::envelopeOf;
using zelTest::RawWebSocket;

namespace {

/// Clients of all kinds at once: those that ask and wait for each answer, those that stall, lie and vanish.
class ControlChannelSoakTest : public zelTest::WebSocketFixture {
protected:
    using Random = std::mt19937;

    static void yield() { std::this_thread::yield(); }

    static bool request(RawWebSocket& peer, const std::string& uri, const std::string& json, zel::uint32 id) {
        return peer.send(RawWebSocket::frame(RawWebSocket::Binary, envelopeOf(uri, json, id)), yield);
    }

    /// Asks, and wants each answer; broadcasts come in between.
    static void behave(zel::uint16 port, Random& random) {
        RawWebSocket peer(port);
        if (!peer.enter(Protocol))
            return; // the places for those without token were taken
        const int numRequests = static_cast<int>(random() % 20);
        for (int i = 0; i <= numRequests; ++i) {
            const auto id = static_cast<zel::uint32>(i + 1);
            ASSERT_TRUE(i == 0 ? request(peer, "authenticate", "{\"token\":\"secret\"}", id)
                               : request(peer, "Echo", "{\"value\":" + std::to_string(i) + "}", id));
            for (bool isAnswered = false; !isAnswered;) {
                ASSERT_TRUE(peer.receive()) << "the server has hung up";
                const auto frame = peer.takeFrame();
                if (!frame.isWhole) {
                    yield();
                    continue;
                }
                const ref_ptr<StructuredMessage> message(StructuredMessage::parse(
                    reinterpret_cast<const zel::uint8*>(frame.payload.data()), frame.payload.size(), true));
                isAnswered = message->getResponseId() == id;
                if (isAnswered && i != 0) {
                    ASSERT_EQ(message->getHeader()["value"].asInt(), i);
                }
            }
        }
    }
    /// Does something, waits for nothing, and goes.
    static void misbehave(zel::uint16 port, Random& random) {
        RawWebSocket peer(port);
        if (random() % 4 == 0) {
            (void)peer.send(RawWebSocket::handshake(Protocol).substr(0, random() % 150));
        } else if (peer.enter(Protocol)) {
            for (auto i = random() % 5; i != 0; --i) {
                std::string bytes = RawWebSocket::frame(
                    RawWebSocket::Binary, envelopeOf("Echo", "{}", static_cast<zel::uint32>(random() % 3)));
                if (random() % 2 == 0)
                    bytes[random() % bytes.size()] = static_cast<char>(random());
                if (random() % 3 == 0)
                    bytes.resize(random() % bytes.size());
                if (random() % 3 == 0)
                    (void)request(peer, "authenticate", "{\"token\":\"secret\"}", 1);
                if (!peer.send(bytes))
                    return;
            }
        }
        if (random() % 2 == 0)
            peer.reset();
    }

    static void run(unsigned seed, int numClients) {
        const zelTest::StreamCapture output(std::cout), errors(std::cerr);
        const ref_ptr<WebSocket::ControlChannel> channel(new WebSocket::ControlChannel(AnyPort, "secret"));
        channel->registerMessageHandler("Echo", [](auto*, WebSocket* socket, StructuredMessage* message) {
            const ref_ptr<StructuredMessage> response(message->createResponse());
            response->setHeader(message->getHeader());
            socket->send(response.get());
        });
        std::atomic<bool> isDone{false};
        std::thread serving([&] {
            while (!isDone.load(std::memory_order_acquire)) {
                channel->service(0);
                yield();
            }
        });
        std::thread broadcasting([&] {
            const ref_ptr<WebSocket::Packet> packet(new WebSocket::Packet(
                envelopeOf("Clock.Tick", "{}", 0).size(), WebSocket::Packet::ContentType::Binary));
            const std::string bytes = envelopeOf("Clock.Tick", "{}", 0);
            std::copy(bytes.begin(), bytes.end(), packet->getPayload());
            const StructuredMessage message("Clock.Tick");
            while (!isDone.load(std::memory_order_acquire)) {
                channel->getServer()->send(packet.get());
                channel->send(&message);
                for (int i = 0; i < 100; ++i)
                    yield();
            }
        });
        zelTest::onThreads(3, seed, [&](std::size_t, Random& random) {
            for (int i = 0; i < numClients; ++i)
                if (random() % 2 == 0)
                    behave(channel->getPort(), random);
                else
                    misbehave(channel->getPort(), random);
        });
        isDone.store(true, std::memory_order_release);
        serving.join();
        broadcasting.join();
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!channel->getClients().empty() && std::chrono::steady_clock::now() < end)
            channel->service(0);
        EXPECT_TRUE(channel->getClients().empty()) << "all have gone";
    }
};

class ControlChannelStressTest : public ControlChannelSoakTest {};

TEST_F(ControlChannelStressTest, ClientsThatComeAskLieAndGoDisturbNobodyElse) {
    run(zelTest::stressSeed(), static_cast<int>(600 / zelTest::StressDivisor));
}

TEST_F(ControlChannelSoakTest, DISABLED_ClientsThatComeAskLieAndGoDisturbNobodyElse) {
    zelTest::soak([](unsigned seed) { run(seed, 100); });
}

} // namespace
