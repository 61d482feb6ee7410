#include "StreamFixture.h"

#include <zelNet/NetError.h>
#include <zelNet/TcpSocketFrameReader.h>

#include <support/WhatOf.h>

#include <thread>

using testing::HasSubstr;
using zel::ref_ptr;
using zelData::Track;
using zelNet::IPAddress;
using zelNet::TCPSocket;
using zelNet::TcpSocketFrameReader;
using zelTest::Loopback;
using OnFault = zelData::SerializedFrame::OnFault;

namespace {

/// Readers of bytes that the test writes.
class TcpSocketFrameReaderTest : public zelTest::StreamFixture {
protected:
    void SetUp() override {
        StreamFixture::SetUp();
        zelTest::OpenServer server;
        server.open(0, false);
        m_sender = new TCPSocket;
        m_sender->open(IPAddress(Loopback, server.port()), false);
        m_receiver = server.accept();
    }
    void TearDown() override {
        m_sender = nullptr;
        m_receiver = nullptr;
        StreamFixture::TearDown();
    }

    /// A reader of these bytes, behind which the connection ends.
    std::unique_ptr<TcpSocketFrameReader> readerOf(const std::string& bytes,
                                                   OnFault onFault = OnFault::EndProcess) {
        m_sender->sendBlocking(reinterpret_cast<const zel::uint8*>(bytes.data()),
                               static_cast<zel::uint32>(bytes.size()));
        m_sender->close();
        return std::make_unique<TcpSocketFrameReader>(m_receiver.get(), onFault);
    }
    static std::string preHeader(zel::uint32 headerSize, zel::uint32 payloadOffset, zel::uint32 payloadSize) {
        zelNet::StructuredMessage::PreHeader numbers;
        numbers.headerSize = headerSize;
        numbers.payloadOffset = payloadOffset;
        numbers.payloadSize = payloadSize;
        std::string bytes(24, '\0');
        numbers.write(reinterpret_cast<zel::uint8*>(bytes.data()));
        return bytes;
    }
    const std::string EndMarker = preHeader(0xFFFFFFFF, 0, 0);

    ref_ptr<TCPSocket> m_sender, m_receiver;
};

TEST_F(TcpSocketFrameReaderTest, AnAbsentServerGivesNoFrames) {
    zel::uint16 port = 0;
    {
        zelTest::OpenServer server;
        server.open(0, false);
        port = server.port();
    }
    TcpSocketFrameReader reader(IPAddress(Loopback, port));
    EXPECT_FALSE(reader.isOpen());
    EXPECT_EQ(reader.readFrame(), nullptr);
}

TEST_F(TcpSocketFrameReaderTest, ReadsFramesUntilTheEndMarkerAndNothingBehindIt) {
    const auto reader = readerOf(bytesOf(frameOf(1).get()) + bytesOf(frameOf(2).get()) + EndMarker +
                                 bytesOf(frameOf(3).get()));
    expectFrame(read(*reader), 1);
    expectFrame(read(*reader), 2);
    EXPECT_EQ(reader->readFrame(), nullptr);
    EXPECT_TRUE(reader->isOpen());
    EXPECT_EQ(reader->readFrame(), nullptr) << "the socket is not touched any more";
    EXPECT_FALSE(reader->jumpToFrame(1)) << "a stream cannot go back";
}

TEST_F(TcpSocketFrameReaderTest, AStreamMayEndAtOnce) {
    const auto reader = readerOf(EndMarker);
    EXPECT_EQ(reader->readFrame(), nullptr);
    EXPECT_TRUE(reader->isOpen());
}

TEST_F(TcpSocketFrameReaderTest, AnEndMarkerWithAPayloadOffsetGivesNullAndTheNextFrameIsRead) {
    const std::string marker = preHeader(0xFFFFFFFF, 1, 0);
    const auto reader = readerOf(bytesOf(frameOf(1).get()) + marker + marker + bytesOf(frameOf(2).get()));
    expectFrame(read(*reader), 1);
    EXPECT_EQ(reader->readFrame(), nullptr);
    EXPECT_TRUE(reader->isOpen());
    EXPECT_EQ(reader->readFrame(), nullptr);
    expectFrame(read(*reader), 2);
}

TEST_F(TcpSocketFrameReaderTest, FramesOwnTheirElements) {
    const auto reader = readerOf(bytesOf(frameOf(1).get()) + bytesOf(frameOf(2).get()));
    const auto first = read(*reader);
    const auto second = read(*reader);
    expectFrame(first, 1);
    expectFrame(second, 2);
}

TEST_F(TcpSocketFrameReaderTest, EachCutClosesTheReader) {
    const std::string whole = bytesOf(frameOf(1).get());
    for (std::size_t cut = 0; cut < whole.size(); cut += cut < 40 ? 1 : 13) {
        SetUp();
        const auto reader = readerOf(whole.substr(0, cut));
        EXPECT_EQ(reader->readFrame(), nullptr) << cut;
        EXPECT_FALSE(reader->isOpen()) << cut;
    }
}

TEST_F(TcpSocketFrameReaderTest, AHeaderThatIsNoJsonClosesTheReader) {
    const auto reader = readerOf(preHeader(5, 32, 0) + "nojsn" + std::string(3, '\xFF'));
    EXPECT_FALSE(reader->isOpen());
    EXPECT_EQ(reader->readFrame(), nullptr);
}

TEST_F(TcpSocketFrameReaderTest, JsonThatTellsNoFrameThrowsAndTheNextFrameIsRead) {
    const auto reader = readerOf(preHeader(2, 26, 0) + "[]" + bytesOf(frameOf(2).get()));
    EXPECT_TRUE(reader->isOpen());
    EXPECT_EQ(zelTest::whatOf([&] { (void)reader->readFrame(); }), "FramePacket: Invalid header");
    expectFrame(read(*reader), 2);
}

TEST_F(TcpSocketFrameReaderTest, AnAnnouncedHeaderAboveTheLimitClosesTheReader) {
    const auto reader = readerOf(preHeader(TcpSocketFrameReader::MaxHeaderSize + 1, 0, 0) + "{");
    EXPECT_FALSE(reader->isOpen());
}

TEST_F(TcpSocketFrameReaderTest, AnnouncedBytesThatDoNotComeTakeNoMemory) {
    // 256 MiB of header, then nearly 4 GiB of payload; the limit of the process would show it.
    EXPECT_FALSE(readerOf(preHeader(TcpSocketFrameReader::MaxHeaderSize, 0, 0) + "{")->isOpen());
    SetUp();
    const auto reader = readerOf(preHeader(2, 32, 0xFFFFFFF0U) + "{}" + std::string(6, '\xFF') + "few");
    EXPECT_EQ(reader->readFrame(), nullptr);
    EXPECT_FALSE(reader->isOpen());
}

TEST_F(TcpSocketFrameReaderTest, APayloadAheadOfTheEndOfItsHeaderClosesTheReader) {
    EXPECT_FALSE(readerOf(preHeader(2, 25, 0) + "{}")->isOpen());
}

using TcpSocketFrameReaderDeathTest = TcpSocketFrameReaderTest;

TEST_F(TcpSocketFrameReaderDeathTest, MorePaddingThanASenderWritesEndsTheProcess) {
    const auto bytesWith = [](zel::uint32 numBytes) {
        return preHeader(2, 26 + numBytes, 0) + "{}" + std::string(numBytes, '\xFF');
    };
    EXPECT_DEATH(readerOf(bytesWith(129)), HasSubstr("zelVerify failed: `numBytes <= MAX_PADDING'"));
    EXPECT_TRUE(readerOf(bytesWith(128))->isOpen());
}

TEST_F(TcpSocketFrameReaderTest, FormatsThatAreNotKnownThrowWhereThatIsAskedForAndTheNextFrameIsRead) {
    const auto reader =
        readerOf(withUnknownFormat(bytesOf(frameOf(1).get())) + bytesOf(frameOf(2).get()), OnFault::Throw);
    EXPECT_THAT(zelTest::whatOf([&] { (void)reader->readFrame(); }), HasSubstr("Real:65bit"));
    expectFrame(read(*reader), 2);
}

TEST_F(TcpSocketFrameReaderTest, MorePaddingThanASenderWritesThrowsWhereThatIsAskedFor) {
    const std::string bytes = preHeader(2, 26 + 129, 0) + "{}" + std::string(129, '\xFF');
    EXPECT_EQ(zelTest::whatOf([&] { (void)readerOf(bytes, OnFault::Throw); }),
              "TcpSocketFrameReader: More padding than a sender writes");
}

TEST_F(TcpSocketFrameReaderTest, NothingIsReadBehindTooMuchPadding) {
    const std::string bytes = preHeader(2, 26 + 129, 0) + "{}" + std::string(129, '\xFF');
    const auto reader =
        readerOf(bytesOf(frameOf(1).get()) + bytes + bytesOf(frameOf(2).get()) + EndMarker, OnFault::Throw);
    expectFrame(read(*reader), 1);
    EXPECT_EQ(zelTest::whatOf([&] { (void)reader->readFrame(); }),
              "TcpSocketFrameReader: More padding than a sender writes");
    EXPECT_FALSE(reader->isOpen());
    EXPECT_EQ(reader->readFrame(), nullptr);
}

TEST_F(TcpSocketFrameReaderTest, ATrackGivesAFrameOfIndex0Once) {
    const std::string bytes = bytesOf(frameOf(0).get()) + bytesOf(frameOf(1).get()) + EndMarker;
    m_sender->sendBlocking(reinterpret_cast<const zel::uint8*>(bytes.data()),
                           static_cast<zel::uint32>(bytes.size()));
    const ref_ptr<TcpSocketFrameReader> reader(new TcpSocketFrameReader(m_receiver.get()));
    const ref_ptr<Track> track(new Track(reader.get(), nullptr));
    track->start();
    expectFrame(track->popFrame(true), 0);
    expectFrame(track->popFrame(true), 1);
    EXPECT_EQ(track->popFrame(true), nullptr);
    track->stop();
}

TEST_F(TcpSocketFrameReaderTest, AStoppedTrackEndsTheWait) {
    const std::string bytes = bytesOf(frameOf(1).get());
    m_sender->sendBlocking(reinterpret_cast<const zel::uint8*>(bytes.data()),
                           static_cast<zel::uint32>(bytes.size()));
    const ref_ptr<TcpSocketFrameReader> reader(new TcpSocketFrameReader(m_receiver.get()));
    const ref_ptr<Track> track(new Track(reader.get(), nullptr));
    track->start();
    expectFrame(track->popFrame(true), 1);
    track->stop(); // while the reader waits for bytes that never come
    EXPECT_EQ(track->popFrame(false), nullptr);
}

} // namespace
