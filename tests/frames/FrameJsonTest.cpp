#include "FrameFixture.h"

#include <zelData/SerializedFrame.h>

#include <json/value.h>
#include <support/StreamCapture.h>

#include <iostream>

// Values and buffers as JSON.

using zel::ref_ptr;
using zelData::Buffer;
using zelData::Value;

namespace {

class FrameJsonTest : public zelTest::FrameFixture {
protected:
    static Json::Value jsonOf(const char* type, const char* expression) {
        const ref_ptr<Value> value(new Value("value", zelData::getFormat(type)));
        value->setExpression(expression);
        Json::Value json;
        zelData::writeJson(json, value.get());
        return json;
    }
};

TEST_F(FrameJsonTest, NumbersKeepTheirKind) {
    EXPECT_TRUE(jsonOf("Real:32bit", "0.5").isDouble());
    EXPECT_EQ(jsonOf("Real:64bit", "0.1").asDouble(), 0.1);
    EXPECT_EQ(jsonOf("Int:8bit", "-3").asInt(), -3);
    EXPECT_EQ(jsonOf("Int:16bit", "-300").asInt(), -300);
    EXPECT_EQ(jsonOf("Int:64bit", "-5000000000").asInt64(), -5000000000);
    EXPECT_EQ(jsonOf("UInt:8bit", "200").asUInt(), 200U);
    EXPECT_EQ(jsonOf("UInt:32bit", "4000000000").asUInt(), 4000000000U);
    EXPECT_EQ(jsonOf("UInt:64bit", "InvalidIndex").asUInt64(), 0xFFFFFFFFFFFFFFFFU);
    EXPECT_TRUE(jsonOf("UInt:64bit", "3").isIntegral());
}

TEST_F(FrameJsonTest, TextsAndBooleansStandAsThemselves) {
    EXPECT_EQ(jsonOf("String", "earth").asString(), "earth");
    EXPECT_TRUE(jsonOf("Bool", "true").isBool());
    EXPECT_TRUE(jsonOf("Bool", "true").asBool());
    EXPECT_FALSE(jsonOf("Bool", "false").asBool());
}

TEST_F(FrameJsonTest, VectorsOfThreeAndQuaternionsAreArrays) {
    for (const char* type : {"Vec3:32bit", "Vec3:64bit"}) {
        const Json::Value json = jsonOf(type, (std::string(type) + "(1,2,3)").c_str());
        ASSERT_EQ(json.size(), 3U) << type;
        EXPECT_EQ(json[2].asDouble(), 3.0);
    }
    for (const char* type : {"Quat:32bit", "Quat:64bit"})
        EXPECT_EQ(jsonOf(type, (std::string(type) + "()").c_str()).size(), 4U) << type;
}

TEST_F(FrameJsonTest, BuffersAreArraysOfTheirElements) {
    Json::Value json;
    zelData::writeJson(json, reals("buffer", {1, 2.5}).get());
    ASSERT_EQ(json.size(), 2U);
    EXPECT_EQ(json[1].asDouble(), 2.5);
    zelData::writeJson(json, reals("buffer", {}).get());
    EXPECT_TRUE(json.isArray());
    EXPECT_EQ(json.size(), 0U);
}

TEST_F(FrameJsonTest, OtherTypesAreToldAndLeftOut) {
    const zelTest::StreamCapture output(std::cout);
    const ref_ptr<Buffer> buffer(new Buffer("buffer", zelData::getFormat("Vec4")));
    buffer->resize(2);
    Json::Value json;
    zelData::writeJson(json, buffer.get());
    EXPECT_EQ(json.size(), 0U);
    const ref_ptr<Value> untyped(new Value("value", static_cast<zelData::Format*>(nullptr)));
    zelData::writeJson(json, untyped.get());
    EXPECT_TRUE(json.isNull());
    EXPECT_EQ(output.text(), "Unknown format: Vec4:64bit\nUnknown format: \n");
}

} // namespace
