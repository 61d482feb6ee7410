#pragma once

#include "RemoteCallFixture.h"

#include <zel/Clock.h>
#include <zelData/ValueT.h>
#include <zelNet/InspectionService.h>

#include <json/writer.h>
#include <transport/WebSocketFixture.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace zelTest {

/// The tree of RemoteCallFixture with a clock "top.clock" of 10 Hz, and a service that inspects it. Clients
/// are raw ones.
class InspectionFixture : public Served<RemoteCallFixture> {
protected:
    /// A message that has come.
    struct Message {
        std::string uri;
        zel::uint32 responseId = 0;
        Json::Value header;
        std::string payload;

        template <typename T>
        [[nodiscard]] std::vector<T> elements(const Json::Value& json) const {
            std::vector<T> result(json["count"].asUInt64() * json["components"].asUInt());
            EXPECT_EQ(json["numBytes"].asUInt64(), result.size() * sizeof(T));
            EXPECT_LE(json["byteOffset"].asUInt64() + json["numBytes"].asUInt64(), payload.size());
            if (!result.empty())
                std::memcpy(
                    result.data(), payload.data() + json["byteOffset"].asUInt64(), result.size() * sizeof(T));
            return result;
        }
    };
    /// A client, with the messages that have come and were not asked for yet.
    struct Client {
        std::unique_ptr<RawWebSocket> peer;
        zel::uint32 lastId = 0;
        std::deque<Message> pushes;
    };

    void SetUp() override {
        Served::SetUp();
        clock = put(new zel::Clock("clock", 10));
        start("");
        serveAlso([this] { service->service(); });
    }
    void TearDown() override {
        service = nullptr;
        channel = nullptr;
        clock = nullptr;
        Served::TearDown();
    }
    void start(const std::string& token) {
        service = nullptr;
        channel = new zelNet::WebSocket::ControlChannel(zelNet::AnyPort, token);
        service = new zelNet::InspectionService(channel.get(), zel::root());
    }

    Client connect() { return {connectTo(channel->getPort()), 0, {}}; }

    static std::string text(const Json::Value& value) { return Json::FastWriter().write(value); }

    /// @param header  may have ' for "
    static void send(Client& client,
                     const std::string& uri,
                     std::string header,
                     zel::uint32 responseId = zelNet::StructuredMessage::NoId,
                     const std::string& payload = {}) {
        std::replace(header.begin(), header.end(), '\'', '"');
        zelNet::StructuredMessage::PreHeader numbers;
        numbers.messageId = ++client.lastId;
        numbers.responseId = responseId;
        numbers.uriSize = static_cast<zel::uint32>(uri.size());
        numbers.headerSize = static_cast<zel::uint32>(header.size());
        std::string bytes(24, '\0');
        bytes += uri + header;
        if (!payload.empty()) {
            bytes.resize((bytes.size() + 31) / 32 * 32);
            numbers.payloadOffset = static_cast<zel::uint32>(bytes.size());
            numbers.payloadSize = static_cast<zel::uint32>(payload.size());
            bytes += payload;
        }
        numbers.write(reinterpret_cast<zel::uint8*>(bytes.data()));
        EXPECT_TRUE(client.peer->send(RawWebSocket::frame(RawWebSocket::Binary, bytes)));
    }
    /// The next message, a push or not.
    Message take(Client& client) {
        auto frame = takeFrame(*client.peer);
        while (!frame.isFinal && !HasFailure()) { // pieces of a large one
            auto more = takeFrame(*client.peer);
            frame.payload += more.payload;
            frame.isFinal = more.isFinal;
        }
        if (frame.opcode != RawWebSocket::Binary)
            return {"text", 0, Json::Value(frame.payload), {}};
        const zel::ref_ptr<zelNet::StructuredMessage> message(zelNet::StructuredMessage::parse(
            reinterpret_cast<const zel::uint8*>(frame.payload.data()), frame.payload.size(), true));
        const auto* payload = message->getBinarySegment();
        return {message->getUri(),
                message->getResponseId(),
                message->getHeader(),
                std::string(reinterpret_cast<const char*>(payload->getData()), payload->getSize())};
    }
    /// The answer to a request. What is pushed meanwhile is kept.
    Message ask(Client& client, const std::string& uri, const std::string& header = {}) {
        send(client, uri, header.empty() ? "{}" : header);
        for (;;) {
            Message message = take(client);
            if (message.responseId == client.lastId || message.uri == "text" || HasFailure()) {
                EXPECT_TRUE(message.uri == uri || message.uri == "text") << message.uri;
                return message;
            }
            client.pushes.push_back(std::move(message));
        }
    }
    /// What a request that is refused says.
    std::string refusal(Client& client, const std::string& uri, const std::string& header) {
        const Message answer = ask(client, uri, header);
        EXPECT_EQ(answer.header["success"], false) << text(answer.header);
        return answer.header["error"].asString();
    }
    Message takePush(Client& client, const std::string& uri) {
        Message message;
        if (client.pushes.empty())
            message = take(client);
        else {
            message = std::move(client.pushes.front());
            client.pushes.pop_front();
        }
        EXPECT_EQ(message.uri, uri) << text(message.header);
        EXPECT_EQ(message.responseId, zelNet::StructuredMessage::NoId);
        return message;
    }
    /// Whether nothing is pushed to the client while another one gets three updates.
    bool isQuiet(Client& client) {
        zelData::ValueT<double>* pulse = put(new zelData::ValueT<double>("pulse", 0.0));
        Client other = connect();
        ask(other, "Watch.Add", "{'watch':1,'paths':['top.pulse'],'interval':16}");
        for (int i = 0; i < 3; ++i) {
            pulse->set(i + 1.0);
            acknowledge(other, takePush(other, "Watch.Update"));
        }
        ask(client, "System.Heartbeat");
        top->removeObject(pulse);
        return client.pushes.empty();
    }
    static void acknowledge(Client& client, const Message& update) {
        send(client,
             "Watch.Ack",
             R"({"watch":)" + update.header["watch"].asString() + R"(,"sequence":)" +
                 update.header["sequence"].asString() + "}");
    }

    zel::ref_ptr<zel::Clock> clock;
    zel::ref_ptr<zelNet::WebSocket::ControlChannel> channel;
    zel::ref_ptr<zelNet::InspectionService> service;
};

} // namespace zelTest
