#include "StreamFixture.h"

#include <zelNet/NetError.h>
#include <zelNet/WebSocketFrameWriter.h>

#include <support/StreamCapture.h>

using zel::ref_ptr;
using zelData::Frame;
using zelNet::AnyPort;
using zelNet::WebSocketFrameWriter;
using zelTest::RawWebSocket;

namespace {

class WebSocketFrameWriterTest : public zelTest::StreamFixture {
protected:
    ref_ptr<WebSocketFrameWriter> makeWriter() {
        ref_ptr<WebSocketFrameWriter> writer(new WebSocketFrameWriter(AnyPort));
        serveAlso([writer] { (void)writer->service(0); });
        return writer;
    }
    /// Throws where it is serialized.
    static ref_ptr<Frame> frameTooDeepForAPacket() {
        ref_ptr<Frame> frame = makeFrame();
        zel::Component* parent = frame.get();
        for (int i = 0; i < 600; ++i) {
            const ref_ptr<zel::Component> child(new zel::Component("c"));
            frame->addNode(parent, child.get());
            parent = child.get();
        }
        frame->addNode(parent, real("t", 1).get());
        return frame;
    }
};

TEST_F(WebSocketFrameWriterTest, WithoutClientsNothingIsSerialized) {
    const auto writer = makeWriter();
    const auto frame = frameTooDeepForAPacket();
    EXPECT_NO_THROW(writer->writeFrame(frame.get()));
    const auto peer = connectTo(writer->getPort());
    EXPECT_THROW(writer->writeFrame(frame.get()), std::runtime_error);
}

TEST_F(WebSocketFrameWriterTest, EachClientGetsThePacket) {
    const auto writer = makeWriter();
    const auto one = connectTo(writer->getPort());
    const auto two = connectTo(writer->getPort());
    EXPECT_EQ(writer->getNumClients(), 2U);
    const auto frame = frameOf(3);
    writer->writeFrame(frame.get());
    for (RawWebSocket* peer : {one.get(), two.get()}) {
        const auto message = takeFrame(*peer);
        EXPECT_EQ(message.opcode, RawWebSocket::Binary);
        EXPECT_EQ(message.payload, bytesOf(frame.get()));
    }
    one->reset();
    EXPECT_TRUE(serveUntil([&] { return writer->getNumClients() == 1; }));
    writer->writeFrame(frame.get());
    EXPECT_EQ(takeFrame(*two).payload, bytesOf(frame.get()));
}

TEST_F(WebSocketFrameWriterTest, AChildFrameArchiveIsNotSentAndTheFrameIsAsItWas) {
    const auto writer = makeWriter();
    const auto peer = connectTo(writer->getPort());
    const auto frame = frameOf(3);
    frame->addValue(real("size", 5).get(), "FrameArchive.size");
    frame->addValue(real("size", 6).get(), "a.FrameArchive.size");
    const std::string before = bytesOf(frame.get());
    writer->writeFrame(frame.get());
    auto received = parseFrame(takeFrame(*peer).payload);
    EXPECT_EQ(received->getResource("FrameArchive"), nullptr);
    EXPECT_NE(received->getResource("a.FrameArchive.size"), nullptr) << "only of the frame itself";
    EXPECT_NE(received->getResource("a.masses"), nullptr);
    EXPECT_EQ(bytesOf(frame.get()), before);
}

TEST_F(WebSocketFrameWriterTest, MessagesToItArePrintedAndIgnored) {
    const auto writer = makeWriter();
    const auto peer = connectTo(writer->getPort());
    const zelTest::StreamCapture output(std::cout);
    EXPECT_TRUE(peer->send(RawWebSocket::frame(RawWebSocket::Text, "hello\x1b\n")));
    EXPECT_TRUE(serveUntil([&] { return !output.text().empty(); }));
    EXPECT_EQ(
        output.text(),
        "zelJournal::WebSocketFrameWriter: The writer got a incoming message of size 7. The writer is not "
        "supposed to receive any messages. Ignoring.\nPrinting the message as a string.\nhello..\nEnd of "
        "message.\n");
    writer->writeFrame(frameOf(1).get());
    EXPECT_EQ(takeFrame(*peer).payload, bytesOf(frameOf(1).get()));
}

TEST_F(WebSocketFrameWriterTest, WritesToAGivenSocket) {
    ref_ptr<zelNet::WebSocket> socket;
    const auto server = makeServer([&](zelNet::WebSocket* connected) { socket = connected; });
    const auto peer = connectTo(server->getPort());
    const ref_ptr<WebSocketFrameWriter> writer(new WebSocketFrameWriter(socket.get()));
    EXPECT_EQ(writer->getPort(), 0);
    EXPECT_FALSE(writer->service(0)) << "that is somebody else's";
    writer->writeFrame(frameOf(4).get());
    EXPECT_EQ(takeFrame(*peer).payload, bytesOf(frameOf(4).get()));
    socket = nullptr;
}

TEST_F(WebSocketFrameWriterTest, NothingIsSerializedForAGivenSocketThatHasGone) {
    ref_ptr<zelNet::WebSocket> socket;
    const auto server = makeServer([&](zelNet::WebSocket* connected) { socket = connected; });
    const auto peer = connectTo(server->getPort());
    const ref_ptr<WebSocketFrameWriter> writer(new WebSocketFrameWriter(socket.get()));
    const auto frame = frameTooDeepForAPacket();
    EXPECT_THROW(writer->writeFrame(frame.get()), std::runtime_error);
    EXPECT_EQ(writer->getNumClients(), 1U);
    peer->reset();
    EXPECT_TRUE(serveUntil([&] { return !socket->isOpen(); }));
    EXPECT_NO_THROW(writer->writeFrame(frame.get()));
    EXPECT_EQ(writer->getNumClients(), 0U);
    socket = nullptr;
}

} // namespace
