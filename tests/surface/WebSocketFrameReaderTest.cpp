#include "StreamFixture.h"

#include <zelNet/NetError.h>
#include <zelNet/WebSocketFrameReader.h>
#include <zelNet/WebSocketFrameWriter.h>

#include <support/LogCapture.h>
#include <support/WhatOf.h>

#include <atomic>
#include <thread>

using testing::HasSubstr;
using zel::ref_ptr;
using zelData::Frame;
using zelData::Track;
using zelNet::AnyPort;
using zelNet::WebSocket;
using zelNet::WebSocketFrameReader;
using zelNet::WebSocketFrameWriter;
using zelTest::RawWebSocket;

namespace {

/// A reader at the server's end of a connection to a raw peer.
class WebSocketFrameReaderTest : public zelTest::StreamFixture {
protected:
    void SetUp() override {
        StreamFixture::SetUp();
        server = makeServer([this](WebSocket* socket) { reader = new WebSocketFrameReader(socket); },
                            [this](WebSocket* socket) { reader->releaseBlock(socket); });
        peer = connectTo(server->getPort());
    }
    void TearDown() override {
        reader = nullptr;
        server = nullptr;
        peer = nullptr;
        StreamFixture::TearDown();
    }
    void send(const std::string& bytes) {
        EXPECT_TRUE(
            peer->send(RawWebSocket::frame(RawWebSocket::Binary, bytes), [this] { server->service(0); }));
    }
    /// All that was sent has come.
    void serveAll() {
        EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Ping, "")));
        EXPECT_TRUE(serveUntil([&] { return peer->takeFrame().opcode == RawWebSocket::Pong; }));
    }

    ref_ptr<zelNet::WebSocketServer> server;
    ref_ptr<WebSocketFrameReader> reader;
    std::unique_ptr<RawWebSocket> peer;
};

TEST_F(WebSocketFrameReaderTest, GivesTheFramesInOrder) {
    send(bytesOf(frameOf(1).get()));
    send(bytesOf(frameOf(2).get()));
    serveAll();
    expectFrame(read(*reader), 1);
    expectFrame(read(*reader), 2);
}

TEST_F(WebSocketFrameReaderTest, BytesThatAreNoFrameAreAnsweredByTheirFault) {
    const zelTest::LogCapture log(zel::Notify::Warning);
    send("nonsense");
    const auto answer = takeFrame(*peer);
    EXPECT_EQ(answer.opcode, RawWebSocket::Text);
    EXPECT_EQ(answer.payload, "FramePacket: Invalid header");
    EXPECT_THAT(log.text(), HasSubstr("WebSocket message handler exception: FramePacket: Invalid header"));
    send(bytesOf(frameOf(2).get()));
    serveAll();
    expectFrame(read(*reader), 2);
}

TEST_F(WebSocketFrameReaderTest, FaultsAreThrownInTheirTurnWhereThatIsAskedFor) {
    WebSocket* socket = (*server->getClientSockets().begin()).value.get();
    reader = nullptr;
    reader = new WebSocketFrameReader(socket, true, zelData::SerializedFrame::OnFault::Throw);
    send(bytesOf(frameOf(1).get()));
    send(withUnknownFormat(bytesOf(frameOf(2).get())));
    send("nonsense");
    send(bytesOf(frameOf(3).get()));
    serveAll(); // no answer comes
    expectFrame(read(*reader), 1);
    EXPECT_THAT(zelTest::whatOf([&] { (void)reader->readFrame(); }), HasSubstr("Real:65bit"));
    EXPECT_EQ(zelTest::whatOf([&] { (void)reader->readFrame(); }), "FramePacket: Invalid header");
    expectFrame(read(*reader), 3);
}

TEST_F(WebSocketFrameReaderTest, AReleaseGivesWhatHasComeAndThenNullForGood) {
    send(bytesOf(frameOf(1).get()));
    serveAll();
    peer->reset();
    EXPECT_TRUE(serveUntil([&] { return server->getClientSockets().empty(); }));
    expectFrame(read(*reader), 1);
    EXPECT_EQ(read(*reader), nullptr);
    EXPECT_EQ(read(*reader), nullptr);
}

TEST_F(WebSocketFrameReaderTest, AReleaseWakesAllThatWait) {
    std::atomic<int> numNull{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.emplace_back([&] { numNull += read(*reader) == nullptr ? 1 : 0; });
    reader->releaseBlock(nullptr);
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_EQ(numNull.load(), 3);
}

TEST_F(WebSocketFrameReaderTest, AStoppedTrackEndsTheWait) {
    const ref_ptr<Track> track(new Track(reader.get(), nullptr));
    track->start();
    send(bytesOf(frameOf(1).get()));
    serveAll();
    expectFrame(track->popFrame(true), 1);
    track->stop();
}

TEST_F(WebSocketFrameReaderTest, FramesAboveTheLimitWaitAtThePeer) {
    constexpr zel::uint64 NumFrames = 3 * WebSocketFrameReader::MaxWaitingFrames;
    const auto frameAt = [](zel::uint64 index) {
        const auto frame = frameOf(index);
        const ref_ptr<zelData::Buffer> bytes(new zelData::Buffer("many", zelData::getFormat("UInt:8bit")));
        bytes->resize(20'000);
        frame->addBuffer(bytes.get(), "many");
        return frame;
    };
    std::string bytes;
    for (zel::uint64 i = 0; i < NumFrames; ++i)
        bytes += RawWebSocket::frame(RawWebSocket::Binary, bytesOf(frameAt(i).get()));
    std::size_t sent = 0;
    const auto sendMore = [&] {
        const ssize_t n =
            ::send(peer->descriptor(), bytes.data() + sent, bytes.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        sent += n > 0 ? static_cast<std::size_t>(n) : 0;
        return n > 0;
    };
    // Until nobody takes any more.
    for (int numQuiet = 0; numQuiet < 1000; ++numQuiet)
        if (sendMore() || server->service(0))
            numQuiet = 0;
    EXPECT_LT(sent, bytes.size());
    EXPECT_GT(sent, WebSocketFrameReader::MaxWaitingFrames * 20'000);
    std::atomic<bool> isDone{false};
    std::thread serving([&] {
        while (!isDone.load()) {
            if (sent < bytes.size())
                (void)sendMore();
            server->service(0);
        }
    });
    for (zel::uint64 i = 0; i < NumFrames; ++i) {
        const auto frame = read(*reader);
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->getIndex(), i);
    }
    isDone = true;
    serving.join();
}

TEST_F(WebSocketFrameReaderTest, WriterAndReaderStreamAllFrames) {
    constexpr zel::uint64 NumFrames = 300;
    const ref_ptr<WebSocketFrameWriter> writer(new WebSocketFrameWriter(AnyPort));
    ref_ptr<WebSocketFrameReader> receiver;
    std::atomic<bool> isConnected{false}, isDone{false};
    std::thread receiving([&] {
        zelNet::WebSocketServer client(
            zelNet::WebSocketServer::NoListen,
            {},
            [&](WebSocket* socket) { receiver->releaseBlock(socket); },
            Protocol);
        receiver = new WebSocketFrameReader(
            client.createConnection("127.0.0.1", writer->getPort(), false, "", Protocol, false));
        isConnected = true;
        while (!isDone)
            client.service(0);
        receiver = nullptr;
    });
    while (!isConnected)
        (void)writer->service(0);
    const ref_ptr<Track> track(new Track(nullptr, writer.get()));
    track->setExpandFrames(true);
    track->start();
    for (zel::uint64 i = 0; i < NumFrames; ++i)
        track->pushFrame(frameOf(i).get());
    zel::uint64 next = 0;
    std::atomic<bool> isRead{false};
    std::thread reading([&] {
        while (next < NumFrames)
            expectFrame(read(*receiver), next++);
        isRead = true;
    });
    while (!isRead)
        (void)writer->service(0);
    reading.join();
    track->stop();
    isDone = true;
    receiving.join();
}

} // namespace
