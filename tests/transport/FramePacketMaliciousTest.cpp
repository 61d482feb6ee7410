#include "FramePacketFixture.h"

#include <json/reader.h>

#include <functional>
#include <memory>

using zel::ref_ptr;
using zel::uint64;
using zelData::Frame;
using zelNet::FramePacket;
using zelTest::Envelope;
using zelTest::whatOf;

namespace {

constexpr const char* InvalidHeader = "FramePacket: Invalid header";
constexpr const char* InvalidPacket = "FramePacket: Invalid packet";

class FramePacketMaliciousTest : public zelTest::FramePacketFixture {
protected:
    static std::string errorOf(const Envelope& envelope) {
        return whatOf([&] { (void)parseFrame(envelope.bytes()); });
    }
    /// A packet with one value.
    static Envelope makePacket() {
        return Envelope("", "{\"children\":[" + Value + "]}\n", std::string(8, '\0'));
    }
    /// Reads a frame with one child.
    static ref_ptr<Frame> parseChild(const std::string& child, OnFault onFault) {
        return parseFrame(Envelope("", "{\"children\":[" + child + "]}\n", std::string(16, '\1')).bytes(),
                          onFault);
    }
    static inline const std::string Value =
        R"({"nodeType":"Value","name":"t","id":1,"type":"Real:64bit","numBytes":8,"byteOffset":0})";
};
using FramePacketDeathTest = FramePacketMaliciousTest;

/// A child that ends the process by default, and throws for readers that must survive.
#define EXPECT_FAULT(child, deathText, text)                                                                 \
    do {                                                                                                     \
        EXPECT_DEATH((void)parseChild(child, OnFault::EndProcess), deathText);                               \
        EXPECT_EQ(whatOf([&] { (void)parseChild(child, OnFault::Throw); }), text);                           \
    } while (false)

TEST_F(FramePacketMaliciousTest, TooFewBytesForAPreHeader) {
    EXPECT_EQ(whatOf([] { (void)parseFrame(""); }), InvalidHeader);
    EXPECT_EQ(whatOf([] { (void)parseFrame(std::string(23, '\0')); }), InvalidHeader);
}

TEST_F(FramePacketMaliciousTest, AHeaderThatReachesBeyondTheEnd) {
    Envelope envelope = makePacket();
    envelope.preHeader.headerSize = static_cast<zel::uint32>(envelope.rest.size() + 1);
    EXPECT_EQ(errorOf(envelope), InvalidHeader);
    envelope.preHeader.headerSize = 0xFFFFFFFF;
    EXPECT_EQ(errorOf(envelope), InvalidHeader);
}

TEST_F(FramePacketMaliciousTest, TextThatIsNoObject) {
    for (const char* json : {"", "null", "[]", "1", "\"a\"", "{", "{\"a\"}", "{} }{"}) {
        const std::string text(json);
        EXPECT_EQ(errorOf(Envelope("", text, "p")), text == "{} }{" ? "no exception" : InvalidHeader) << json;
    }
}

TEST_F(FramePacketMaliciousTest, JsonThatIsNestedTooDeep) {
    EXPECT_EQ(errorOf(Envelope("", std::string(100'000, '['), "p")), InvalidHeader);
    std::string json;
    for (int i = 0; i < 2000; ++i)
        json += R"({"nodeType":"Component","name":"c","id":1,"children":[)";
    for (int i = 0; i < 2000; ++i)
        json += "]}";
    EXPECT_EQ(errorOf(Envelope("", json, "p")), InvalidHeader);
}

TEST_F(FramePacketMaliciousTest, APayloadInsideTheHeader) {
    Envelope envelope = makePacket();
    envelope.preHeader.payloadOffset = 24 + envelope.preHeader.headerSize - 1;
    EXPECT_EQ(errorOf(envelope), InvalidHeader);
    envelope.preHeader.payloadOffset = 0;
    EXPECT_EQ(errorOf(envelope), InvalidHeader);
}

TEST_F(FramePacketMaliciousTest, SizesThatAreNotThatOfThePacket) {
    EXPECT_EQ(errorOf(makePacket()), "no exception");
    Envelope more = makePacket();
    more.rest += 'x';
    EXPECT_EQ(errorOf(more), InvalidPacket);
    Envelope less = makePacket();
    less.rest.pop_back();
    EXPECT_EQ(errorOf(less), InvalidPacket);
    Envelope without("", "{}", "");
    without.preHeader.payloadOffset = 32;
    EXPECT_EQ(errorOf(without), InvalidPacket);
}

TEST_F(FramePacketMaliciousTest, SumsThatWrapInThirtyTwoBits) {
    Envelope envelope = makePacket();
    const std::size_t size = envelope.bytes().size();
    envelope.preHeader.payloadOffset = 0xFFFFFFFF;
    envelope.preHeader.payloadSize = static_cast<zel::uint32>(size + 1);
    EXPECT_EQ(errorOf(envelope), InvalidPacket);
}

TEST_F(FramePacketMaliciousTest, MembersOfAWrongKind) {
    for (const char* json : {R"({"index":-1})",
                             R"({"index":"1"})",
                             R"({"index":{}})",
                             R"({"timeStamp":"a"})",
                             R"({"timeStep":[]})",
                             R"({"index":18446744073709551616})",
                             R"({"index":1.5})",
                             R"({"name":[]})",
                             R"({"children":[1]})",
                             R"({"children":[[]]})",
                             R"({"children":[{"nodeType":{}}]})",
                             R"({"children":[{"nodeType":"Value","id":-1}]})",
                             R"({"children":[{"nodeType":"Value","id":4294967296}]})",
                             R"({"children":[{"nodeType":"Buffer","numElements":-1}]})",
                             R"({"children":[{"nodeType":"Buffer","name":{}}]})",
                             R"({"children":[{"nodeType":"Buffer","customSerialization":[],"type":"Real"}]})",
                             R"({"children":[{"nodeType":"Storage","capacity":"a"}]})"})
        EXPECT_EQ(errorOf(Envelope("", json, "p")), InvalidHeader) << json;
}

TEST_F(FramePacketDeathTest, NodesOfAnotherType) {
    EXPECT_FAULT(R"({"nodeType":"Nothing"})",
                 "zelAbort: FramePacket: Unknown node type 'Nothing'",
                 "FramePacket: Unknown node type 'Nothing'");
    EXPECT_FAULT("{}", "zelAbort: FramePacket: Unknown node type ''", "FramePacket: Unknown node type ''");
}

TEST_F(FramePacketDeathTest, UnknownFormats) {
    const std::string text = "FramePacket: Invalid format 'Nothing'";
    EXPECT_FAULT(R"({"nodeType":"Buffer","type":"Nothing"})", "zelVerify failed: `format', " + text, text);
    EXPECT_FAULT(R"({"nodeType":"Value","type":"Nothing"})", "zelVerify failed: `format', " + text, text);
    EXPECT_FAULT(R"({"nodeType":"Value","type":"Array<Nothing>"})",
                 "zelVerify failed: `format', FramePacket: Invalid format 'Array<Nothing>'",
                 "FramePacket: Invalid format 'Array<Nothing>'");
}

TEST_F(FramePacketDeathTest, UnknownEntities) {
    for (const char* name : {"Nowhere", "../Nowhere"}) {
        const std::string child = std::string(R"({"nodeType":"Storage","entity":")") + name + "\"}";
        const std::string text = std::string("FramePacket: No entiy with name '") + name + "'";
        EXPECT_FAULT(child, "zelVerify failed: `model', " + text, text);
    }
}

TEST_F(FramePacketDeathTest, SizesThatAreNotThoseOfTheElements) {
    EXPECT_FAULT(R"({"nodeType":"Value","type":"Real:64bit","numBytes":4})",
                 "zelVerify failed: `format->getSize\\(\\) == numBytes'",
                 "A frame is damaged: format->getSize() == numBytes");
    const char* const death = "zelVerify failed: `format->getSize\\(\\) \\* numElements == numBytes'";
    const char* const text = "A frame is damaged: format->getSize() * numElements == numBytes";
    EXPECT_FAULT(R"({"nodeType":"Buffer","type":"Real:64bit","numElements":2,"numBytes":8})", death, text);
    // 2^61 elements of 8 bytes are 0 in 64 bits.
    EXPECT_FAULT(
        R"({"nodeType":"Buffer","type":"Real:64bit","numElements":2305843009213693952,"numBytes":0})",
        death,
        text);
    // Readers do not know partial buffers.
    EXPECT_FAULT(
        R"({"nodeType":"Buffer","type":"Real:64bit","numElements":2,"isPartial":true,"children":[]})",
        death,
        text);
}

TEST_F(FramePacketDeathTest, ElementsBeyondThePayload) {
    const std::string value =
        R"({"nodeType":"Value","name":"t","type":"Real:64bit","numBytes":8,"byteOffset":)";
    EXPECT_NO_THROW((void)parseChild(value + "8}", OnFault::Throw));
    EXPECT_FAULT(value + "9}",
                 "SerializedFrame: Unable to copy 8 bytes from offset 9 in node t",
                 "SerializedFrame: Unable to copy 8 bytes from offset 9 in node t");
    EXPECT_FAULT(value + "18446744073709551608}",
                 "SerializedFrame: Unable to copy 8 bytes from offset 18446744073709551608",
                 "SerializedFrame: Unable to copy 8 bytes from offset 18446744073709551608 in node t");
}

TEST_F(FramePacketMaliciousTest, ElementsThatAreNoPlainBytes) {
    EXPECT_EQ(whatOf([] {
                  (void)parseChild(
                      R"({"nodeType":"Buffer","name":"n","type":"String","numElements":0,"numBytes":0})",
                      OnFault::EndProcess);
              }),
              "SerializedFrame: elements of format 'String:default' can not stand as bytes in node n");
}

TEST_F(FramePacketMaliciousTest, ElementsWithoutSize) {
    const auto parse = [](const std::string& number) {
        return parseChild(
            R"({"nodeType":"Buffer","name":"v","type":"Void:void","numBytes":0,"numElements":)" + number +
                "}",
            OnFault::Throw);
    };
    EXPECT_EQ(parse("1000000000")->getBuffer("v")->size(), 1'000'000'000U);
    EXPECT_EQ(whatOf([&] { (void)parse("18446744073709551615"); }),
              "v: 18446744073709551615 elements of format 'Void:void' do not fit in memory");
}

TEST_F(FramePacketMaliciousTest, EachCutIsRefused) {
    const auto frame = fullFrame();
    const std::string bytes = bytesOf(frame.get());
    for (std::size_t size = 0; size < bytes.size(); ++size)
        EXPECT_THROW((void)parseFrame(bytes.substr(0, size)), std::runtime_error) << size;
}

} // namespace
