#include "StructuredMessageFixture.h"
#include "transport/Envelope.h"

#include <zelNet/NetError.h>

#include <gtest/gtest.h>
#include <json/writer.h>
#include <support/CommaStreams.h>
#include <support/LogCapture.h>
#include <support/Stress.h>
#include <support/WhatOf.h>

#include <random>
#include <string>
#include <type_traits>
#include <vector>

using zel::ref_ptr;
using zelData::BinaryData;
using zelNet::NetError;
using zelNet::StructuredMessage;
using zelTest::Envelope;
using zelTest::parseMessage;
using zelTest::textOf;
using zelTest::whatOf;

namespace {

constexpr const char* InvalidPreHeader = "Structured message has invalid pre-header!";
constexpr const char* InvalidJson = "Structured message header is not valid JSON!";

std::string refusalOf(const Envelope& envelope) {
    return whatOf([&] { (void)parseMessage(envelope.bytes()); });
}

// The object

TEST(StructuredMessageTest, BeginsEmptyAndWithoutNumbers) {
    const StructuredMessage message;
    EXPECT_EQ(message.getUri(), "");
    EXPECT_TRUE(message.getHeader().isNull());
    EXPECT_EQ(message.getBinarySegment(), nullptr);
    EXPECT_EQ(message.getMessageId(), 0xFFFFFFFFU);
    EXPECT_EQ(message.getResponseId(), 0xFFFFFFFFU);
    EXPECT_EQ(StructuredMessage("a.b").getUri(), "a.b");
}

TEST(StructuredMessageTest, KeepsWhatItIsGiven) {
    const ref_ptr<BinaryData> payload(new BinaryData(3));
    Json::Value header;
    header["a"] = 1;
    const StructuredMessage made("uri", header, payload.get());
    EXPECT_EQ(made.getHeader()["a"].asInt(), 1);
    EXPECT_EQ(made.getBinarySegment(), payload.get());
    EXPECT_EQ(payload->referenceCount(), 2);

    StructuredMessage set;
    set.setUri("uri");
    set.setHeader(header);
    set.setBinarySegment(payload.get());
    set.setResponseId(5);
    set.getHeader()["b"] = 2;
    EXPECT_EQ(set.getUri(), "uri");
    EXPECT_EQ(set.getHeader()["a"].asInt(), 1);
    EXPECT_EQ(set.getHeader()["b"].asInt(), 2);
    EXPECT_EQ(set.getBinarySegment(), payload.get());
    EXPECT_EQ(set.getResponseId(), 5U);
}

TEST(StructuredMessageTest, AMessageThatDoesNotChangeTakesItsNumber) {
    const StructuredMessage message;
    message.setMessageId(9);
    EXPECT_EQ(message.getMessageId(), 9U);
}

TEST(StructuredMessageTest, AResponseHasTheUriAndAnswersTheNumber) {
    const ref_ptr<BinaryData> payload(new BinaryData(3));
    StructuredMessage message("uri", Json::Value("header"), payload.get());
    message.setMessageId(9);
    message.setResponseId(4);
    const ref_ptr<StructuredMessage> response(message.createResponse());
    EXPECT_EQ(response->referenceCount(), 1);
    EXPECT_EQ(response->getUri(), "uri");
    EXPECT_EQ(response->getResponseId(), 9U);
    EXPECT_EQ(response->getMessageId(), 0xFFFFFFFFU);
    EXPECT_TRUE(response->getHeader().isNull());
    EXPECT_EQ(response->getBinarySegment(), nullptr);
}

TEST(StructuredMessageTest, ThePreHeaderHasTwentyFourBytesAndNoNumbers) {
    static_assert(sizeof(StructuredMessage::PreHeader) == 24);
    zel::uint8 bytes[24];
    StructuredMessage::PreHeader().write(bytes);
    EXPECT_EQ(std::string(bytes, bytes + 24), std::string(8, '\xFF') + std::string(16, '\0'));
}

// Reading

TEST(StructuredMessageTest, ParseReadsWhatStandsThere) {
    Envelope envelope("uri", R"({"a":[1,"b"]})", "payload");
    envelope.preHeader.messageId = 5;
    envelope.preHeader.responseId = 6;
    const auto message = parseMessage(envelope.bytes());
    EXPECT_EQ(message->referenceCount(), 1);
    EXPECT_EQ(message->getUri(), "uri");
    EXPECT_EQ(message->getHeader()["a"][1].asString(), "b");
    EXPECT_EQ(message->getMessageId(), 5U);
    EXPECT_EQ(message->getResponseId(), 6U);
    EXPECT_EQ(textOf(message->getBinarySegment()), "payload");
}

TEST(StructuredMessageTest, ParseCopiesThePayloadIfToldSo) {
    std::string bytes = Envelope("", "{}", "payload").bytes();
    const auto copy = parseMessage(bytes, true);
    const auto view = parseMessage(bytes, false);
    EXPECT_EQ(view->getBinarySegment()->getData(), reinterpret_cast<const zel::uint8*>(bytes.data()) + 32);
    EXPECT_EQ(view->getBinarySegment()->getAllocationType(), zelData::DataAllocationType::Owner);
    bytes[32] = 'P';
    EXPECT_EQ(textOf(view->getBinarySegment()), "Payload");
    EXPECT_EQ(textOf(copy->getBinarySegment()), "payload");
}

TEST(StructuredMessageTest, ParseMakesAPayloadOfSizeZeroToo) {
    for (const bool copies : {true, false}) {
        const auto message = parseMessage(Envelope("", "{}", "").bytes(), copies);
        ASSERT_NE(message->getBinarySegment(), nullptr);
        EXPECT_EQ(message->getBinarySegment()->getSize(), 0U);
    }
}

TEST(StructuredMessageTest, ParseAcceptsBytesThatFollow) {
    Envelope envelope("", "{}", "payload");
    envelope.rest += "more";
    EXPECT_EQ(textOf(parseMessage(envelope.bytes())->getBinarySegment()), "payload");
}

TEST(StructuredMessageTest, ParseTakesThePayloadFromWhereverItsOffsetSays) {
    Envelope envelope("uri", "{}", "payload");
    envelope.preHeader.payloadOffset = 24;
    envelope.preHeader.payloadSize = 3;
    EXPECT_EQ(textOf(parseMessage(envelope.bytes())->getBinarySegment()), "uri");
}

TEST(StructuredMessageTest, ParseAcceptsNullAndObjectsAsHeader) {
    EXPECT_TRUE(parseMessage(Envelope("", "null\n", "").bytes())->getHeader().isNull());
    EXPECT_TRUE(parseMessage(Envelope("", "{}\n", "").bytes())->getHeader().isObject());
    for (const char* json : {"[]", "1", "1.5", "\"text\"", "true", "[{}]"})
        EXPECT_EQ(refusalOf(Envelope("", json, "")), InvalidJson) << json;
}

/// The header of a message with this text, on one line; what is wrong for a message that is refused.
std::string readHeader(const std::string& json) {
    std::string header;
    const std::string refusal = whatOf([&] {
        header = Json::FastWriter().write(parseMessage(Envelope("", json, "").bytes())->getHeader());
    });
    return header.empty() ? refusal : header;
}

TEST(StructuredMessageTest, RealNumbersAreReadWhateverTheStreamsOfTheProgramTakeForAPoint) {
    const std::string json =
        R"({"a":[12345.5,-1.25e-3,"2.5 \\",1.5E+2],/* "3.5 */"b":{"4.5":4.5},"c":-7} 1e999)";
    const std::string header = R"({"a":[12345.5,-0.00125,"2.5 \\",150.0],"b":{"4.5":4.5},"c":-7})";
    EXPECT_EQ(readHeader(json), header + '\n');
    const zelTest::CommaStreams comma;
    EXPECT_EQ(readHeader(json), header + '\n');
    EXPECT_EQ(readHeader("\xEF\xBB\xBF" + json), header + '\n');
    EXPECT_EQ(readHeader(R"({"a":1.5e999})"), InvalidJson);
    EXPECT_EQ(readHeader(R"({"a":1.5.2})"), InvalidJson);
    EXPECT_EQ(readHeader(R"({1.5:2})"), InvalidJson);
    EXPECT_EQ(readHeader(R"({"a":/**//**/1.5})"), "{\"a\":1.5}\n");
    EXPECT_EQ(readHeader("{\"a\":[+.5,-.5]}"), "{\"a\":[0.5,-0.5]}\n"); // the parser takes these too
}

TEST(StructuredMessageTest, RandomTextsReadTheSameWhateverTheStreamsTakeForAPoint) {
    const std::vector<std::string> pieces{"{",       "}",    "[",     "]",      ",",
                                          ":",       "\"",   "\"k\"", "\\",     "-",
                                          ".",       "e",    "E",     "+",      "0",
                                          "1",       "12",   "345",   "1.5",    "-0.25",
                                          "1e5",     "2E-3", "1e999", "5e-324", "18446744073709551616",
                                          "{\"a\":", "//",   "/*",    "*/",     "\n",
                                          " ",       "true", "null",  "1,5",    "1.234,5"};
    std::mt19937 random(zelTest::stressSeed());
    for (int i = 0; i < 20'000; ++i) {
        std::string json = "{\"a\":[";
        for (auto left = random() % 6; left != 0; --left)
            json += pieces[random() % pieces.size()];
        json += "]}";
        const std::string expected = readHeader(json);
        const zelTest::CommaStreams comma;
        EXPECT_EQ(readHeader(json), expected) << json;
    }
}

TEST(StructuredMessageTest, ParseAcceptsAUriUpToTheEndAheadOfTheJson) {
    // The sizes fit; what fails is the JSON, which is empty.
    EXPECT_EQ(refusalOf(Envelope("the whole rest", "", "")), InvalidJson);
}

TEST(StructuredMessageTest, APreHeaderAloneHasNoJson) {
    EXPECT_EQ(refusalOf(Envelope()), InvalidJson);
}

TEST(StructuredMessageTest, ErrorsAreNetErrorsWithoutSocket) {
    try {
        (void)parseMessage("short");
        ADD_FAILURE() << "no exception";
    } catch (const NetError& error) {
        EXPECT_EQ(error.getSocket(), nullptr);
    }
}

// Bytes that lie

TEST(StructuredMessageMaliciousTest, TooFewBytesForAPreHeader) {
    EXPECT_EQ(whatOf([] { (void)StructuredMessage::parse(nullptr, 0, true); }), InvalidPreHeader);
    EXPECT_EQ(whatOf([] { (void)parseMessage(std::string(23, '\0')); }), InvalidPreHeader);
}

TEST(StructuredMessageMaliciousTest, AUriThatReachesBeyondTheEnd) {
    Envelope envelope;
    envelope.rest = std::string("a\0b\n\x7F", 5) + "\xC3\xA4";
    envelope.preHeader.uriSize = 8;
    EXPECT_EQ(refusalOf(envelope),
              "Structured message has invalid pre-header! URI size: 8, remaining message size: 7. Printable "
              "data: a0b..\xC3\xA4");
    envelope.preHeader.uriSize = 0xFFFFFFFF;
    EXPECT_EQ(refusalOf(envelope),
              "Structured message has invalid pre-header! URI size: 4294967295, remaining message size: 7. "
              "Printable data: a0b..\xC3\xA4");
}

TEST(StructuredMessageMaliciousTest, AHeaderThatReachesBeyondTheEnd) {
    Envelope envelope("some\turi", "{}", "");
    envelope.preHeader.headerSize = 3;
    EXPECT_EQ(refusalOf(envelope),
              "Structured message has invalid pre-header! URI: some.uri, message size: 0KB");
    envelope.rest += std::string(5000, ' ');
    envelope.preHeader.headerSize = 0xFFFFFFFF;
    EXPECT_EQ(refusalOf(envelope),
              "Structured message has invalid pre-header! URI: some.uri, message size: 4KB");
}

TEST(StructuredMessageMaliciousTest, APayloadThatReachesBeyondTheEnd) {
    Envelope envelope("", "{}", "payload");
    ++envelope.preHeader.payloadSize;
    EXPECT_EQ(refusalOf(envelope), InvalidPreHeader);
    --envelope.preHeader.payloadSize;
    ++envelope.preHeader.payloadOffset;
    EXPECT_EQ(refusalOf(envelope), InvalidPreHeader);
    envelope.preHeader.payloadOffset = 0xFFFFFFFF;
    envelope.preHeader.payloadSize = 0;
    EXPECT_EQ(refusalOf(envelope), InvalidPreHeader);
}

TEST(StructuredMessageMaliciousTest, SumsThatWrapInThirtyTwoBits) {
    Envelope envelope("uri", "{}", "payload");
    envelope.preHeader.payloadOffset = 0xFFFFFFF0;
    envelope.preHeader.payloadSize = 0x20;
    EXPECT_EQ(refusalOf(envelope), InvalidPreHeader);
    envelope.preHeader.payloadOffset = 0x20;
    envelope.preHeader.payloadSize = 0xFFFFFFF0;
    EXPECT_EQ(refusalOf(envelope), InvalidPreHeader);
}

TEST(StructuredMessageMaliciousTest, TextThatIsNoJson) {
    for (const char* json :
         {"", "{", "{\"a\":}", "{,}", "nul", "}", "\xFF\xFE", "{\"a\":1,}", "{'a':1}", "NaN"})
        EXPECT_EQ(refusalOf(Envelope("", json, "")), InvalidJson) << json;
}

TEST(StructuredMessageMaliciousTest, JsonThatIsNestedTooDeep) {
    const auto nested = [](int depth) {
        std::string json;
        for (int i = 0; i < depth - 1; ++i)
            json += "{\"a\":";
        json += "1";
        return json + std::string(static_cast<std::size_t>(depth - 1), '}');
    };
    EXPECT_NO_THROW((void)parseMessage(Envelope("", nested(64), "").bytes()));
    EXPECT_EQ(refusalOf(Envelope("", nested(65), "")), InvalidJson);
    EXPECT_EQ(refusalOf(Envelope("", std::string(1 << 20, '['), "")), InvalidJson);
    EXPECT_NO_THROW((void)parseMessage(Envelope("", nested(64), "").bytes())) << "the failure left traces";
}

TEST(StructuredMessageMaliciousTest, JsonThatIsTooLong) {
    const auto header = [](std::size_t size) { return "{}" + std::string(size - 2, ' '); };
    EXPECT_NO_THROW((void)parseMessage(Envelope("", header(1 << 20), "").bytes()));
    EXPECT_EQ(refusalOf(Envelope("", header((1 << 20) + 1), "")), InvalidJson);
}

TEST(StructuredMessageMaliciousTest, EachCutGivesAMessageOrAnError) {
    const std::string bytes = Envelope("uri", "{\"a\":1}", "payload").bytes();
    for (std::size_t size = 0; size < bytes.size(); ++size)
        EXPECT_THROW((void)parseMessage(bytes.substr(0, size)), NetError) << size;
}

TEST(EnvelopeTest, NumbersOfMessagesBeginAgainAt1) {
    EXPECT_EQ(zelNet::messageIdAfter(1), 2U);
    EXPECT_EQ(zelNet::messageIdAfter(0xFFFFFFFE), 0xFFFFFFFF);
    EXPECT_EQ(zelNet::messageIdAfter(0xFFFFFFFF), 1U);
}

} // namespace
