#include "RemoteCallFixture.h"

#include <zel/Task.h>

#include <json/writer.h>
#include <support/LogCapture.h>
#include <support/Stress.h>

#include <random>
#include <vector>

using testing::HasSubstr;
using zel::Stream;
using zelTest::failed;

namespace {

class StreamMaliciousTest : public zelTest::RemoteCallFixture {
protected:
    /// Sets one member of the call to things that it is not.
    template <typename Place>
    void expectRefused(const std::vector<std::string>& contents, const std::string& expression, Place place) {
        for (const std::string& content : contents) {
            Json::Value header = call();
            place(header) = json("[" + content + "]")[0];
            EXPECT_THAT(callFailure(header), failed(expression)) << content;
        }
    }
    const std::vector<std::string> noText{"null", "1", "-1", "1.5", "true", "[]", "{}"};
    const std::vector<std::string> noSize{
        "null", "-1", "1.5", "4294967296", "9007199254740993", "1e30", "true", "[]", "{}"};
};

TEST_F(StreamMaliciousTest, MissingMembersAreNamed) {
    EXPECT_THAT(callFailure(Json::Value()), failed("eFunction.hasMember(\"implementation\")"));
    EXPECT_THAT(callFailure(json("{}")), failed("eFunction.hasMember(\"implementation\")"));
    Json::Value header = call();
    header.removeMember("parameters");
    EXPECT_THAT(callFailure(header), failed("eFunction.hasMember(\"parameters\")"));
    EXPECT_THAT(parameterFailure("{'name': 'p'}"), failed("eParameter.hasMember(\"model\")"));
    EXPECT_THAT(parameterFailure("{'name': 'p', 'model': 'zelData.Value'}"),
                failed("eValue.hasMember(\"type\")"));
    EXPECT_THAT(parameterFailure("{'model': 'zelData.Value', 'type': 'Real'}"),
                failed("eValue.hasMember(\"name\")"));
    EXPECT_THAT(valueFailure("'type': 'Real', 'offset': 0"), failed("eValue.hasMember(\"numBytes\")"));
    EXPECT_THAT(valueFailure("'type': 'Real', 'numBytes': 8"), failed("eValue.hasMember(\"offset\")"));
    EXPECT_THAT(bufferFailure("'numBytes': 8, 'offset': 0"), failed("eBuffer.hasMember(\"numElements\")"));
}

TEST_F(StreamMaliciousTest, TextsThatAreNoneAreRefused) {
    expectRefused(noText, "eImplementation.isString()", [](Json::Value& h) -> Json::Value& {
        return h["implementation"];
    });
    expectRefused(noText, "eContext.isString()", [](Json::Value& h) -> Json::Value& { return h["context"]; });
    expectRefused({"null", "1", "'x'", "{}"}, "eParameters.isArray()", [](Json::Value& h) -> Json::Value& {
        return h["parameters"];
    });
    expectRefused({"null", "1", "'x'", "[]"}, "eParameter.isObject()", [](Json::Value& h) -> Json::Value& {
        return h["parameters"][1];
    });
    expectRefused(noText, "eModel.isString()", [](Json::Value& h) -> Json::Value& {
        return h["parameters"][0]["model"];
    });
    expectRefused(noText, "eName.isString()", [](Json::Value& h) -> Json::Value& {
        return h["parameters"][0]["name"];
    });
    expectRefused(noText, "eType.isString()", [](Json::Value& h) -> Json::Value& {
        return h["parameters"][0]["type"];
    });
    expectRefused(noText, "eFormat.isString()", [](Json::Value& h) -> Json::Value& {
        return h["parameters"][0]["format"];
    });
    expectRefused(noText, "eContent.isString()", [](Json::Value& h) -> Json::Value& {
        return h["parameters"][0]["value"];
    });
    expectRefused(noText, "eBind.isString()", [](Json::Value& h) -> Json::Value& {
        return h["parameters"][2]["bind"];
    });
}

TEST_F(StreamMaliciousTest, SizesThatAreNoneAreRefused) {
    expectRefused(noSize, "eNumBytes.isString() || eNumBytes.isUInt()", [](Json::Value& h) -> Json::Value& {
        return h["parameters"][0]["numBytes"];
    });
    expectRefused(noSize, "eOffset.isString() || eOffset.isUInt()", [](Json::Value& h) -> Json::Value& {
        return h["parameters"][0]["offset"];
    });
    expectRefused(noSize, "eCompressedSize.isUInt()", [](Json::Value& h) -> Json::Value& {
        return h["parameters"][0]["compressedSize"];
    });
    expectRefused(noSize, "eNumElements.isUInt()", [](Json::Value& h) -> Json::Value& {
        return h["parameters"][1]["numElements"];
    });
    expectRefused({"'5'"}, "eNumElements.isUInt()", [](Json::Value& h) -> Json::Value& {
        return h["parameters"][1]["numElements"];
    });
}

TEST_F(StreamMaliciousTest, BytesBeyondThePayloadAreNotRead) {
    for (const char* offset :
         {"57", "64", "65", "4294967295", "'18446744073709551615'", "'18446744073709551608'"})
        EXPECT_THAT(valueFailure("'type': 'Real', 'numBytes': 8, 'offset': " + std::string(offset)),
                    testing::AnyOf(failed("binaryMeta.offset <= payloadSize"),
                                   failed("binaryMeta.numBytes <= payloadSize - binaryMeta.offset")));
    EXPECT_THAT(
        failureOf([&] {
            static_cast<void>(Stream::parseValue(
                top.get(), json("{'name': 'v', 'type': 'Real', 'numBytes': 8, 'offset': 0}"), nullptr));
        }),
        failed("binaryMeta.numBytes <= payloadSize - binaryMeta.offset"));
}

TEST_F(StreamMaliciousTest, SizesThatOverflowAreNotElements) {
    const std::string text = "binaryMeta.numBytes == format->getSize() * numElements";
    EXPECT_THAT(bufferFailure("'numBytes': 8, 'offset': 0, 'numElements': 536870913"), failed(text));
    EXPECT_THAT(bufferFailure("'numBytes': '18446744073709551608', 'offset': 0, 'numElements': 4294967295"),
                failed(text));
    EXPECT_THAT(bufferFailure("'numBytes': 0, 'offset': 0, 'numElements': 1"), failed(text));
    EXPECT_THAT(bufferFailure("'numBytes': '34359738360', 'offset': 0, 'numElements': 4294967295"),
                failed("binaryMeta.numBytes <= payloadSize - binaryMeta.offset"));
}

TEST_F(StreamMaliciousTest, BytesMakeOnlyNumbers) {
    for (const char* type : {"String", "Name", "ObjectPointer", "EntityPtr", "EntityInstance", "SpinMutex"}) {
        const zelData::Format* const format = zelData::getFormat(type);
        ASSERT_NE(format, nullptr) << type;
        EXPECT_THAT(valueFailure("'type': '" + std::string(type) + "', 'offset': 0, 'numBytes': '" +
                                 std::to_string(format->getSize()) + "'"),
                    HasSubstr("can not be sent as bytes"))
            << type;
    }
    EXPECT_THAT(valueFailure("'type': 'Bool', 'offset': 63, 'numBytes': 1"),
                testing::AnyOf(HasSubstr("A Bool is a byte 0 or 1"), HasSubstr("can not be sent as bytes")));
}

TEST_F(StreamMaliciousTest, FormatsThatAreNoneAreRefused) {
    for (const char* type :
         {"", "None", "Real:32bit", "Auto", "Void", "Array<", "Foo<Real>", "Vector<Real>", "Array<Foo>"})
        EXPECT_THAT(valueFailure("'type': '" + std::string(type) + "', 'value': '1'"),
                    testing::AnyOf(HasSubstr("Unknown type '"), HasSubstr("has no elements")))
            << type;
    EXPECT_THAT(valueFailure("'type': 'Real', 'format': '128bit', 'value': '1'"),
                HasSubstr("Unknown format '128bit' of type 'Real'"));
}

TEST_F(StreamMaliciousTest, NamesLeadNowhereElse) {
    for (const char* name :
         {"", ".", "..", "a..b", "../x", "/tmp/x", "x/../y", ".x", "x.", "a\\u0000b", "a\\nb", "m", "Math"}) {
        Json::Value header = call();
        header["implementation"] = json("['" + std::string(name) + "']")[0];
        EXPECT_NE(callFailure(header), "no exception") << name;
        if (std::string(name) == "Math")
            continue;
        EXPECT_THAT(parameterFailure("{'name': 'p', 'type': 'Real', 'value': '1', 'model': '" +
                                     std::string(name) + "'}"),
                    HasSubstr("Unknown model '"))
            << name;
    }
    EXPECT_THAT(parameterFailure("{'name': 'p', 'model': 'zel.Component'}"),
                HasSubstr("Unknown model 'zel.Component'"));
    EXPECT_THAT(valueFailure("'type': 'Real', 'value': '../../tmp/x(1)'"),
                HasSubstr("is no name of a function"));
    EXPECT_THAT(valueFailure("'type': 'Real', 'value': 'Math.Mul(a..b(1), 2)'"),
                HasSubstr("is no name of a function"));
    EXPECT_THAT(valueFailure("'type': 'Real', 'value': 'No.Such(1)'"), HasSubstr("can not be called"));
}

TEST_F(StreamMaliciousTest, NothingIsLookedUpOnTheLibraryPathOfTheSystem) {
    const zelTest::LogCapture log;
    Json::Value header = call();
    header["implementation"] = "m";
    EXPECT_THAT(callFailure(header), failed("m_task"));
    EXPECT_THAT(log.text(), HasSubstr("Could not find plugin 'm' in the search paths"));
    EXPECT_THAT(valueFailure("'type': 'Real', 'value': 'z(1)'"), HasSubstr("can not be called"));
    EXPECT_THAT(log.text(), HasSubstr("Could not find plugin 'z' in the search paths"));
}

TEST_F(StreamMaliciousTest, ClientBytesArePrintedWithoutControls) {
    const std::string text = parameterFailure("{'model': 'x\\n\\u0007\\u007fy'}");
    EXPECT_THAT(text, HasSubstr("Unknown model 'x...y'"));
}

/// Changes a place of the message at random.
void mutate(Json::Value& json, std::mt19937& random, int depth) {
    static const char* const contents[] = {"",
                                           "x",
                                           "top",
                                           "cars:1",
                                           "cars:9",
                                           "Real",
                                           "Bool",
                                           "Array<Real>",
                                           "64bit",
                                           "-1",
                                           "1e9",
                                           "..",
                                           "@a",
                                           "@result",
                                           "zelData.Value",
                                           "zelData.Buffer",
                                           "zel.Pointer",
                                           "result",
                                           "numbers",
                                           "String",
                                           "EntityPtr",
                                           "Math.Mul(@a, 2)",
                                           "Bool(2)",
                                           "Remote.Sum",
                                           "18446744073709551615",
                                           "(((",
                                           "ascii"};
    static const char* const keys[] = {"implementation",
                                       "context",
                                       "parameters",
                                       "name",
                                       "model",
                                       "bind",
                                       "type",
                                       "format",
                                       "value",
                                       "numBytes",
                                       "offset",
                                       "compressedSize",
                                       "numElements"};
    const auto pick = [&random](std::size_t n) { return static_cast<Json::ArrayIndex>(random() % n); };
    if (depth > 0 && !json.empty() && random() % 8 != 0) {
        if (json.isObject()) {
            const auto members = json.getMemberNames();
            return mutate(json[members[pick(members.size())]], random, depth - 1);
        }
        if (json.isArray())
            return mutate(json[pick(json.size())], random, depth - 1);
    }
    if (json.isObject() && random() % 2 == 0) {
        const char* const key = keys[pick(std::size(keys))];
        if (random() % 2 == 0)
            json.removeMember(key);
        else
            json[key] = contents[pick(std::size(contents))];
        return;
    }
    switch (random() % 8) {
    case 0:
        json = Json::Value();
        return;
    case 1:
        json = Json::Value(Json::arrayValue);
        return;
    case 2:
        json = Json::Value(Json::objectValue);
        return;
    case 3:
        json = static_cast<int>(random());
        return;
    case 4:
        json = static_cast<Json::UInt64>(random()) << 32U;
        return;
    case 5:
        json = 0.5;
        return;
    default:
        json = contents[pick(std::size(contents))];
    }
}

TEST_F(StreamMaliciousTest, RandomMessagesOnlyEverThrow) {
    std::mt19937 random(20260811);
    const zelTest::StreamCapture quiet(std::cerr);
    const zelTest::StreamCapture quietToo(std::cout);
    int numTaken = 0;
    int numRefused = 0;
    const zel::size_t numObjects = top->getNumObjects();
    for (std::size_t i = 0; i < 4000 / zelTest::StressDivisor; ++i) {
        Json::Value header = call();
        for (auto n = random() % 3 + 1; n != 0; --n)
            mutate(header, random, 4);
        try {
            const auto event = eventOf(header);
            ++numTaken;
        } catch (const std::exception&) {
            ++numRefused;
        }
        ASSERT_EQ(top->getNumObjects(), numObjects);
        ASSERT_EQ(realOf(a), 1.5);
        ASSERT_EQ(realOf(result), 0);
        ASSERT_EQ(numbers->getNumElements(), 2U);
        ASSERT_EQ(storage->size(), 3U);
        ASSERT_TRUE(a->getDependents().empty() && result->getDependents().empty())
            << Json::FastWriter().write(header);
    }
    EXPECT_GT(numTaken, static_cast<int>(50 / zelTest::StressDivisor));
    EXPECT_GT(numRefused, 200);
}

} // namespace
