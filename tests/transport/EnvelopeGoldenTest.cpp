#include "FramePacketFixture.h"
#include "SocketFixture.h"

#include <support/Golden.h>

// Bytes that stay as they are, for peers of other versions read them. The listings in tests/golden tell each
// byte.

using zel::ref_ptr;
using zelData::Frame;
using zelNet::FramePacket;
using zelNet::StructuredMessage;
using zelTest::elementsOf;
using zelTest::parseMessage;
using zelTest::readListing;

namespace {

class EnvelopeGoldenTest : public zelTest::FramePacketFixture {
protected:
    ref_ptr<Frame> goldenFrame() {
        ref_ptr<Frame> frame(new Frame(3, 1.5, 0.5));
        frame->setKeyFrame(true);
        const auto time = real("t", 2);
        time->setId(10);
        frame->addValue(time.get(), "t");
        const auto bytes = makeBuffer<zel::uint8>("b", "UInt:8bit", {1, 2, 3});
        bytes->setId(11);
        frame->addBuffer(bytes.get(), "c.b");
        return frame;
    }
};

TEST_F(EnvelopeGoldenTest, MessagesAreSentByTcpAsTold) {
    Json::Value header;
    header["frame"] = 3;
    header["name"] = "a";
    const StructuredMessage message("", header, dataOf("\1\2\3\4").get());
    zelTest::Pipe pipe;
    pipe.socket.sendBlocking(&message);
    EXPECT_EQ(pipe.takeAll(), readListing("envelope-tcp.hex"));
}

TEST_F(EnvelopeGoldenTest, MessagesAreReadAsTold) {
    const auto sent = parseMessage(readListing("envelope-tcp.hex"));
    EXPECT_EQ(sent->getUri(), "");
    EXPECT_EQ(sent->getMessageId(), 0U);
    EXPECT_EQ(sent->getHeader()["name"].asString(), "a");
    EXPECT_EQ(zelTest::textOf(sent->getBinarySegment()), "\1\2\3\4");

    const auto message = parseMessage(readListing("envelope.hex"));
    EXPECT_EQ(message->getUri(), "Track.Ack");
    EXPECT_EQ(message->getMessageId(), 7U);
    EXPECT_EQ(message->getResponseId(), 5U);
    EXPECT_EQ(message->getHeader()["frame"].asInt(), 3);
    EXPECT_EQ(zelTest::textOf(message->getBinarySegment()), "\1\2\3\4");
}

TEST_F(EnvelopeGoldenTest, FramePacketsAreWrittenAsTold) {
    EXPECT_EQ(bytesOf(goldenFrame().get()), readListing("frame-packet.hex"));
}

TEST_F(EnvelopeGoldenTest, FramePacketsAreReadAsTold) {
    const auto frame = parseFrame(readListing("frame-packet.hex"));
    EXPECT_EQ(frame->getIndex(), 3U);
    EXPECT_EQ(frame->getTimeStamp(), 1.5);
    EXPECT_EQ(frame->getTimeStep(), 0.5);
    EXPECT_EQ(contentOf(frame->findObject("t")), 2.0);
    EXPECT_EQ(frame->findObject("t")->getId(), 10U);
    EXPECT_EQ(elementsOf<zel::uint8>(frame->getBuffer("c.b")), (std::vector<zel::uint8>{1, 2, 3}));
    EXPECT_EQ(frame->getBuffer("c.b")->getId(), 11U);
}

} // namespace
