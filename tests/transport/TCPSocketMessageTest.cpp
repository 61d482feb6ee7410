#include "SocketFixture.h"

#include <zelData/BinaryData.h>
#include <zelNet/StructuredMessage.h>

#include <json/value.h>

#include <cstring>
#include <string>

// Messages as a TCP socket sends them.

using zel::ref_ptr;
using zel::uint32;
using zelData::BinaryData;
using zelNet::StructuredMessage;
using zelTest::Pipe;

namespace {

ref_ptr<BinaryData> dataOf(const std::string& bytes) {
    return ref_ptr<BinaryData>(BinaryData::copy(bytes.data(), bytes.size()));
}

/// Text in JSON that makes a header of so many bytes, the line end counted.
Json::Value textOfHeader(std::size_t size) {
    return std::string(size - 3, 'h'); // two quotation marks and the line end
}

std::string sent(const StructuredMessage& message) {
    Pipe pipe;
    pipe.socket.sendBlocking(&message);
    return pipe.takeAll();
}

std::string preHeader(uint32 uriSize, uint32 headerSize, uint32 payloadOffset, uint32 payloadSize) {
    const uint32 numbers[] = {0, 0, uriSize, headerSize, payloadOffset, payloadSize};
    return {reinterpret_cast<const char*>(numbers), sizeof(numbers)};
}

TEST(TCPSocketMessageTest, AMessageWithoutPayloadEndsBehindItsHeader) {
    Json::Value header;
    header["a"] = 1;
    EXPECT_EQ(sent(StructuredMessage("uri", header, nullptr)), preHeader(3, 8, 0, 0) + "uri{\"a\":1}\n");
}

TEST(TCPSocketMessageTest, AnEmptyMessageHasANullForHeader) {
    EXPECT_EQ(sent(StructuredMessage()), preHeader(0, 5, 0, 0) + "null\n");
}

TEST(TCPSocketMessageTest, ThePayloadIsAlignedByBytesOfZero) {
    Json::Value header;
    header["a"] = 1;
    EXPECT_EQ(sent(StructuredMessage("", header, dataOf("payload").get())),
              preHeader(0, 8, 32, 7) + "{\"a\":1}\n" + "payload");
    header["a"] = 12;
    EXPECT_EQ(sent(StructuredMessage("", header, dataOf("payload").get())),
              preHeader(0, 9, 64, 7) + "{\"a\":12}\n" + std::string(31, '\0') + "payload");
}

TEST(TCPSocketMessageTest, AnEmptyPayloadIsNone) {
    const StructuredMessage without("uri", Json::Value(), nullptr);
    // However large the padding of a payload would be.
    for (const char* uri : {"uri", "a URI that is longer than the padding of a payload may ever be"})
        EXPECT_EQ(sent(StructuredMessage(uri, Json::Value(), dataOf("").get())),
                  sent(StructuredMessage(uri, Json::Value(), nullptr)));
}

TEST(TCPSocketMessageTest, TheNumbersStayAtHome) {
    StructuredMessage message;
    message.setMessageId(7);
    message.setResponseId(8);
    EXPECT_EQ(sent(message), sent(StructuredMessage()));
    EXPECT_EQ(message.getMessageId(), 7U);
}

TEST(TCPSocketMessageTest, WithAUriThePaddingIsTooLongByIt) {
    // 24 + 3 + 5 bytes need no padding.
    EXPECT_EQ(sent(StructuredMessage("uri", Json::Value(), dataOf("payload").get())),
              preHeader(3, 5, 32, 7) + "urinull\n" + std::string(3, '\0') + "payload");
}

TEST(TCPSocketMessageTest, PaddingOfThirtyTwoBytesIsTheLongest) {
    // 24 + 32 + 8 bytes.
    const std::string uri(32, 'u');
    EXPECT_EQ(sent(StructuredMessage(uri, textOfHeader(8), dataOf("p").get())),
              preHeader(32, 8, 64, 1) + uri + "\"hhhhh\"\n" + std::string(32, '\0') + "p");
}

TEST(TCPSocketMessageDeathTest, LongerPaddingEndsTheProcess) {
    const StructuredMessage message(std::string(33, 'u'), textOfHeader(7), dataOf("p").get());
    EXPECT_DEATH((void)sent(message), "zelVerify failed: `padSize <= 32'");
}

TEST(TCPSocketMessageTest, LargeMessagesArriveWhole) {
    std::string bytes(8 << 20, '\0');
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 7 + i / 251);
    const auto payload = dataOf(bytes);
    const StructuredMessage message("", Json::Value(), payload.get());
    Pipe pipe;
    zelTest::Worker worker([&] {
        pipe.socket.sendBlocking(&message);
        pipe.socket.close();
    });
    const std::string whole = pipe.take(bytes.size() + 1000);
    worker.join();
    ASSERT_EQ(whole.size(), 32 + bytes.size());
    EXPECT_TRUE(whole.ends_with(bytes));
}

TEST(TCPSocketMessageTest, AMessageOfFourGibibytesIsRefused) {
    ref_ptr<BinaryData> payload(new BinaryData(8));
    payload->setApparentSize(0xFFFFFFFF);
    const StructuredMessage message("", Json::Value(), payload.get());
    Pipe pipe;
    EXPECT_EQ(zelTest::errorOf([&] { pipe.socket.sendBlocking(&message); }).what(),
              std::string("TCPSocket::sendBlocking(): the message is larger than 4 GiB"));
    EXPECT_EQ(pipe.takeAll(), "");
}

TEST(TCPSocketMessageTest, AClosedSocketFails) {
    zelNet::TCPSocket socket;
    const StructuredMessage message;
    EXPECT_EQ(zelTest::errorOf([&] { socket.sendBlocking(&message); }).what(),
              std::string("TCPSocket::send(): socket is not opened"));
}

} // namespace
