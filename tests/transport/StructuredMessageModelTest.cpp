#include "SocketFixture.h"
#include "StructuredMessageFixture.h"

#include <support/Stress.h>

#include <random>

using zel::ref_ptr;
using zelData::BinaryData;
using zelNet::StructuredMessage;

namespace {

/// Random headers, URIs and payloads.
class RandomMessage {
public:
    explicit RandomMessage(unsigned seed) : m_random(seed) {}

    ref_ptr<StructuredMessage> make() {
        const std::string payload = text(m_random() % 2 == 0 ? 0 : m_random() % 100'000);
        // The road through TCP does not carry both.
        const std::string uri = payload.empty() ? text(m_random() % 50) : "";
        const ref_ptr<BinaryData> data(BinaryData::copy(payload.data(), payload.size()));
        return ref_ptr<StructuredMessage>(
            new StructuredMessage(uri, m_random() % 5 == 0 ? Json::Value() : object(0), data.get()));
    }

private:
    std::string text(std::size_t size) {
        std::string result(size, '\0');
        for (char& c : result)
            c = static_cast<char>(m_random());
        return result;
    }
    Json::Value object(int depth) {
        Json::Value json(Json::objectValue);
        for (auto i = m_random() % 5; i > 0; --i)
            json["key" + std::to_string(m_random() % 100)] = any(depth + 1);
        return json;
    }
    Json::Value any(int depth) {
        switch (m_random() % (depth < 5 ? 7 : 5)) {
        case 0:
            return {};
        case 1:
            return Json::Value(static_cast<Json::Int64>(m_random() * std::uint64_t{0x100000001}));
        case 2:
            return std::ldexp(static_cast<double>(m_random()), static_cast<int>(m_random() % 100) - 50) + 0.5;
        case 3:
            return m_random() % 2 == 0;
        case 4: {
            std::string ascii(m_random() % 30, '\0');
            for (char& c : ascii)
                c = static_cast<char>(1 + m_random() % 126);
            return ascii;
        }
        case 5: {
            Json::Value json(Json::arrayValue);
            for (auto i = m_random() % 5; i > 0; --i)
                json.append(any(depth + 1));
            return json;
        }
        default:
            return object(depth);
        }
    }

    std::mt19937 m_random;
};

TEST(StructuredMessageModelTest, RandomMessagesArriveThroughTcp) {
    const unsigned seed = zelTest::stressSeed();
    for (unsigned round = 0; round < 300 / zelTest::StressDivisor; ++round) {
        const auto message = RandomMessage(seed + round).make();
        zelTest::Connection connection;
        zelTest::Worker sender([&] {
            connection.client.sendBlocking(message.get());
            connection.client.close();
        });
        std::string bytes;
        try {
            for (zel::uint8 byte = 0;;) {
                connection.peer.recvBlocking(&byte, 1);
                bytes += static_cast<char>(byte);
            }
        } catch (const zelNet::NetError& error) {
            ASSERT_EQ(error.getSocket(), &connection.peer);
        }
        const auto back = zelTest::parseMessage(bytes);
        ASSERT_EQ(back->getUri(), message->getUri()) << seed + round;
        ASSERT_EQ(back->getHeader(), message->getHeader()) << seed + round;
        ASSERT_TRUE(zelTest::textOf(back->getBinarySegment()) == zelTest::textOf(message->getBinarySegment()))
            << seed + round;
    }
}

} // namespace
