#include "StreamFixture.h"

#include <zelNet/NetError.h>
#include <zelNet/TcpSocketFrameReader.h>
#include <zelNet/TcpSocketFrameWriter.h>

#include <support/WhatOf.h>

#include <future>
#include <thread>

using testing::HasSubstr;
using zel::ref_ptr;
using zelData::Frame;
using zelData::Track;
using zelNet::AnyPort;
using zelNet::IPAddress;
using zelNet::NetError;
using zelNet::TCPSocket;
using zelNet::TcpSocketFrameReader;
using zelNet::TcpSocketFrameWriter;
using zelTest::Loopback;

namespace {

class TcpSocketFrameWriterTest : public zelTest::StreamFixture {
protected:
    /// A client whose bytes the test sees.
    struct Client {
        explicit Client(const TcpSocketFrameWriter& writer) : socket(new TCPSocket) {
            socket->open(IPAddress(Loopback, writer.getPort()), false);
        }
        std::string take(std::size_t size) const {
            std::string bytes(size, '\0');
            socket->recvBlocking(reinterpret_cast<zel::uint8*>(bytes.data()), static_cast<zel::uint32>(size));
            return bytes;
        }
        ref_ptr<TCPSocket> socket;
    };
    static ref_ptr<TcpSocketFrameWriter> makeWriter() {
        return ref_ptr<TcpSocketFrameWriter>(new TcpSocketFrameWriter(AnyPort));
    }
    static ref_ptr<Track> startTrack(TcpSocketFrameWriter& writer) {
        ref_ptr<Track> track(new Track(nullptr, &writer));
        track->setExpandFrames(true);
        track->start();
        return track;
    }
    /// More than the system keeps.
    static ref_ptr<Frame> largeFrame() {
        ref_ptr<Frame> large = makeFrame();
        large->setKeyFrame(true);
        const ref_ptr<zelData::Buffer> bytes(new zelData::Buffer("bytes", zelData::getFormat("UInt:8bit")));
        bytes->resize(64'000'000);
        large->addBuffer(bytes.get(), "bytes");
        return large;
    }
    /// Connects a reader, which waits for its first header while the frame is sent.
    static ref_ptr<TcpSocketFrameReader> connectReader(TcpSocketFrameWriter& writer, const Frame* first) {
        const zel::size_t before = writer.getNumClients();
        auto reader = std::async(std::launch::async, [port = writer.getPort()] {
            return ref_ptr<TcpSocketFrameReader>(new TcpSocketFrameReader(IPAddress(Loopback, port)));
        });
        while (writer.getNumClients() == before)
            writer.writeFrame(first);
        return reader.get();
    }
};

TEST_F(TcpSocketFrameWriterTest, WithoutClientsNothingIsSerialized) {
    const auto writer = makeWriter();
    EXPECT_NE(writer->getPort(), 0);
    // A tree that is too deep for a packet would throw.
    const auto frame = makeFrame();
    zel::Component* parent = frame.get();
    for (int i = 0; i < 600; ++i) {
        const ref_ptr<zel::Component> child(new zel::Component("c"));
        frame->addNode(parent, child.get());
        parent = child.get();
    }
    frame->addNode(parent, real("t", 1).get());
    EXPECT_NO_THROW(writer->writeFrame(frame.get()));
    const Client client(*writer);
    EXPECT_THROW(writer->writeFrame(frame.get()), std::runtime_error);
}

TEST_F(TcpSocketFrameWriterTest, APortThatIsTakenThrows) {
    const auto writer = makeWriter();
    EXPECT_THROW(TcpSocketFrameWriter(writer->getPort()), NetError);
}

TEST_F(TcpSocketFrameWriterTest, AClientGetsThePacketWithWhatStandsBetweenItsPartsAs0xFF) {
    const auto writer = makeWriter();
    const Client client(*writer);
    const auto frame = frameOf(3);
    writer->writeFrame(frame.get());
    EXPECT_EQ(writer->getNumClients(), 1U);
    std::string expected = bytesOf(frame.get());
    const ref_ptr<zelNet::FramePacket> packet(new zelNet::FramePacket(frame.get()));
    zel::uint64 end = 0;
    for (const auto& segment : packet->getSegments()) {
        const std::size_t begin = packet->getPreHeader().payloadOffset;
        expected.replace(begin + end, segment.offset - end, segment.offset - end, '\xFF');
        end = segment.offset + segment.data->getSize();
    }
    EXPECT_EQ(client.take(expected.size()), expected);
    writer->endOfStream();
    const std::string marker = client.take(24);
    EXPECT_EQ(marker,
              std::string(8, '\xFF') + std::string(4, '\0') + std::string(4, '\xFF') + std::string(8, '\0'));
}

TEST_F(TcpSocketFrameWriterTest, AFrameWithoutElementsIsItsHeaderWithThePaddingItTells) {
    const auto writer = makeWriter();
    const Client client(*writer);
    writer->writeFrame(makeFrame().get());
    const std::string all = bytesOf(makeFrame().get());
    writer->endOfStream();
    EXPECT_EQ(client.take(all.size()), all);
    EXPECT_EQ(client.take(24).substr(12, 4), std::string(4, '\xFF'));
}

TEST_F(TcpSocketFrameWriterTest, FramesBehindOneWithoutElementsAreRead) {
    const auto writer = makeWriter();
    const auto reader = connectReader(*writer, frameOf(1).get());
    for (zel::uint64 index = 2; index < 12; ++index) // with headers of several lengths
        writer->writeFrame(ref_ptr<Frame>(new Frame(index * index * index, 0.125, 0)).get());
    writer->writeFrame(frameOf(12).get());
    writer->endOfStream();
    ref_ptr<Frame> frame;
    do {
        frame = read(*reader);
    } while (frame != nullptr && frame->getIndex() == 1);
    for (zel::uint64 index = 2; index < 12; ++index) {
        ASSERT_TRUE(frame) << index;
        EXPECT_EQ(frame->getIndex(), index * index * index);
        frame = read(*reader);
    }
    expectFrame(frame, 12);
    EXPECT_EQ(read(*reader), nullptr);
}

TEST_F(TcpSocketFrameWriterTest, AClientSeesTheFramesFromTheNextOneOn) {
    const auto writer = makeWriter();
    writer->writeFrame(frameOf(1).get());
    const auto reader = connectReader(*writer, frameOf(2).get());
    writer->writeFrame(frameOf(3).get());
    writer->endOfStream();
    EXPECT_TRUE(reader->isOpen());
    auto frame = read(*reader);
    expectFrame(frame, 2);
    while ((frame = read(*reader)) != nullptr && frame->getIndex() == 2)
        continue;
    expectFrame(frame, 3);
    EXPECT_EQ(read(*reader), nullptr);
    EXPECT_TRUE(reader->isOpen()) << "the stream has ended in order";
    EXPECT_EQ(read(*reader), nullptr) << "and stays so";
}

TEST_F(TcpSocketFrameWriterTest, AllClientsGetAFrameThoughOneHasGone) {
    const auto writer = makeWriter();
    const Client first(*writer), second(*writer), third(*writer);
    const auto frame = frameOf(1);
    writer->writeFrame(frame.get());
    ASSERT_EQ(writer->getNumClients(), 3U);
    first.socket->close();
    const std::size_t size = bytesOf(frame.get()).size();
    std::size_t numFrames = 1;
    bool hasThrown = false;
    while (!hasThrown) { // the system may take some bytes for a peer that has gone
        ++numFrames;
        try {
            writer->writeFrame(frame.get());
        } catch (const NetError&) {
            hasThrown = true;
        }
    }
    EXPECT_EQ(writer->getNumClients(), 2U);
    EXPECT_EQ(second.take(numFrames * size).size(), numFrames * size);
    EXPECT_EQ(third.take(numFrames * size).size(), numFrames * size);
    EXPECT_NO_THROW(writer->writeFrame(frame.get())) << "it goes on";
}

TEST_F(TcpSocketFrameWriterTest, WritesToAGivenSocket) {
    zelTest::OpenServer server;
    server.open(0, false);
    const ref_ptr<TCPSocket> near(new TCPSocket);
    near->open(IPAddress(Loopback, server.port()), false);
    const ref_ptr<TCPSocket> far(server.accept());
    const ref_ptr<TcpSocketFrameWriter> writer(new TcpSocketFrameWriter(near.get()));
    EXPECT_EQ(writer->getPort(), 0);
    writer->writeFrame(frameOf(5).get());
    writer->endOfStream();
    TcpSocketFrameReader reader(far.get());
    expectFrame(read(reader), 5);
    EXPECT_EQ(read(reader), nullptr);
}

TEST_F(TcpSocketFrameWriterTest, ItsEndClosesItsClientsAndItsPort) {
    auto writer = makeWriter();
    const zel::uint16 port = writer->getPort();
    const Client one(*writer), two(*writer);
    writer->writeFrame(makeFrame().get());
    EXPECT_EQ(writer->getNumClients(), 2U);
    const std::size_t size = bytesOf(makeFrame().get()).size();
    writer = nullptr;
    for (const Client* client : {&one, &two}) {
        EXPECT_EQ(client->take(size).size(), size) << "what was written comes yet";
        EXPECT_THROW((void)client->take(1), NetError);
    }
    EXPECT_THROW(one.socket->open(IPAddress(Loopback, port), false), NetError);
}

TEST_F(TcpSocketFrameWriterTest, ItsEndClosesAGivenSocketThatOthersHold) {
    zelTest::OpenServer server;
    server.open(0, false);
    const ref_ptr<TCPSocket> near(new TCPSocket);
    near->open(IPAddress(Loopback, server.port()), false);
    const ref_ptr<TCPSocket> far(server.accept());
    ref_ptr<TcpSocketFrameWriter> writer(new TcpSocketFrameWriter(near.get()));
    EXPECT_TRUE(near->isValid());
    writer = nullptr;
    EXPECT_FALSE(near->isValid());
    zel::uint8 byte = 0;
    EXPECT_THROW(far->recvBlocking(&byte, 1), NetError);
}

TEST_F(TcpSocketFrameWriterTest, AClientThatDoesNotReadIsDroppedWhenTheTrackIsStopped) {
    const auto writer = makeWriter();
    const Client lazy(*writer);
    const auto track = startTrack(*writer);
    track->pushFrame(largeFrame().get());
    track->stop();
    EXPECT_EQ(writer->getNumClients(), 0U);
    EXPECT_EQ(track->getException(), nullptr) << "nobody has failed";
}

TEST_F(TcpSocketFrameWriterTest, APatientWriterGivesALateReaderItsLastFrames) {
    const auto writer = makeWriter();
    writer->setPatience(60'000);
    const Client late(*writer);
    const auto track = startTrack(*writer);
    track->pushFrame(largeFrame().get());
    std::thread reading([&] {
        while (track->isRunning())
            std::this_thread::yield();
        TcpSocketFrameReader reader(late.socket.get());
        const ref_ptr<Frame> frame = read(reader);
        ASSERT_TRUE(frame);
        EXPECT_EQ(frame->getBuffer("bytes")->size(), 64'000'000U);
        EXPECT_EQ(read(reader), nullptr);
    });
    track->stop();
    reading.join();
    EXPECT_EQ(writer->getNumClients(), 1U);
}

TEST_F(TcpSocketFrameWriterTest, PatienceEnds) {
    const auto writer = makeWriter();
    writer->setPatience(200);
    const Client lazy(*writer);
    const auto track = startTrack(*writer);
    track->pushFrame(largeFrame().get());
    track->stop();
    EXPECT_EQ(writer->getNumClients(), 0U);
}

TEST_F(TcpSocketFrameWriterTest, TwoTracksStreamAllFrames) {
    constexpr zel::uint64 NumFrames = 200;
    const auto writer = makeWriter();
    const auto reader = connectReader(*writer, frameOf(0).get());
    const ref_ptr<Track> sending(new Track(nullptr, writer.get()));
    const ref_ptr<Track> receiving(new Track(reader.get(), nullptr));
    sending->setExpandFrames(true);
    sending->start();
    receiving->start();
    for (zel::uint64 i = 1; i <= NumFrames; ++i)
        sending->pushFrame(frameOf(i).get());
    sending->stop();
    ref_ptr<Frame> frame;
    zel::uint64 last = 0;
    while ((frame = receiving->popFrame(true)) != nullptr) {
        EXPECT_TRUE(frame->getIndex() == last + 1 || frame->getIndex() == 0);
        last = frame->getIndex();
    }
    EXPECT_EQ(last, NumFrames);
    receiving->stop();
}

} // namespace
