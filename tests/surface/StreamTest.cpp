#include "RemoteCallFixture.h"

#include <zel/ArrayParameter.h>
#include <zel/Model.h>
#include <zel/PointerParameter.h>
#include <zel/SerialTask.h>
#include <zel/TaskPlugin.h>
#include <zelData/EntityInstance.h>
#include <zelData/EntityPtr.h>

using testing::HasSubstr;
using zel::ref_ptr;
using zel::Stream;
using zelTest::failed;

namespace {

using zelData::AccessMode::READ;
using zelData::AccessMode::WRITE;

int s_numRuns = 0;

class SumTask final : public zel::SerialTask {
public:
    SumTask(const zel::Name& name, zel::Device* device) : SerialTask(name, device) {
        m_x = new zel::ScalarParameter("x", zelData::getFormat("Real"), READ);
        m_numbers = new zel::ArrayParameter("numbers", zelData::getFormat("Real"), READ);
        m_result = new zel::ScalarParameter("result", zelData::getFormat("Real"), WRITE);
        auto* const flag = new zel::ScalarParameter("flag", zelData::getFormat("Bool"), READ);
        auto* const target = new zel::PointerParameter("target");
        flag->setRequired(false);
        target->setRequired(false);
        for (zel::Parameter* each : {static_cast<zel::Parameter*>(m_x),
                                     static_cast<zel::Parameter*>(m_numbers),
                                     static_cast<zel::Parameter*>(m_result),
                                     static_cast<zel::Parameter*>(flag),
                                     static_cast<zel::Parameter*>(target)})
            addParameter(each);
    }
    void run() override {
        ++s_numRuns;
        double sum = *static_cast<const double*>(m_x->getData());
        const zelData::Buffer* const buffer = m_numbers->getBuffer();
        for (zel::uint64 i = 0; i < buffer->getNumElements(); ++i)
            sum += *static_cast<const double*>(buffer->getElement(i));
        auto* const value = dynamic_cast<zelData::Value*>(m_result->getBinding());
        value->set(static_cast<const void*>(&sum));
    }

private:
    zel::ScalarParameter* m_x; // owned by the task, as the next
    zel::ArrayParameter* m_numbers;
    zel::ScalarParameter* m_result;
};

zel::TaskPlugin s_plugin("Remote.Sum", zel::Device::Type::Cpu);
const zel::TaskPluginImplementationT<SumTask> s_sum(s_plugin, "Sum");

class StreamTest : public zelTest::RemoteCallFixture {
protected:
    void SetUp() override {
        RemoteCallFixture::SetUp();
        s_numRuns = 0;
    }
};

TEST_F(StreamTest, AMessageRunsATaskWithWhatItSends) {
    const auto event = eventOf(call());
    EXPECT_EQ(s_numRuns, 0);
    event->evaluate();
    EXPECT_EQ(realOf(result), 2.5 + 1 + 2 + 3);
    event->evaluate();
    EXPECT_EQ(s_numRuns, 2);
    EXPECT_EQ(event->getParameters().size(), 3U);
    EXPECT_EQ(event->getParameters().find("result")->value.get(), result);
}

TEST_F(StreamTest, TheEventKeepsWhatItMade) {
    auto event = eventOf(call());
    const zel::observer_ptr<zel::Object> made(event->getParameters().find("x")->value.get());
    EXPECT_NE(made.get(), nullptr);
    event = nullptr;
    EXPECT_EQ(made.get(), nullptr);
}

TEST_F(StreamTest, ATaskOfAModelHasNoBindings) {
    static_cast<void>(eventOf(call())); // registers the model
    zel::Model* const task = zel::Model::getModel("Remote.Sum");
    ASSERT_NE(task, nullptr);
    const ref_ptr<Stream::FunctionEvent> event(new Stream::FunctionEvent(task));
    EXPECT_TRUE(event->getParameters().empty());
    EXPECT_EQ(event->getTask()->findParameter("x")->getBinding(), nullptr);
    EXPECT_THAT(failureOf([&] { event->evaluate(); }), HasSubstr("Parameter verification failed!"));
    EXPECT_EQ(s_numRuns, 0);
    EXPECT_THAT(failureOf([] { new Stream::FunctionEvent(static_cast<zel::Model*>(nullptr)); }),
                failed("model"));
}

TEST_F(StreamTest, WithoutAContextPathsBeginAtTheRoot) {
    Json::Value header = call();
    header.removeMember("context");
    EXPECT_THAT(callFailure(header), failed("binding"));
    header["parameters"][2]["bind"] = "top.result";
    eventOf(header)->evaluate();
    EXPECT_EQ(realOf(result), 8.5);
}

TEST_F(StreamTest, NumbersOfTextAndNumbersAreTheSame) {
    const auto meta = Stream::parseBinaryMeta(json("{'numBytes': '16', 'offset': '8'}"));
    const auto same = Stream::parseBinaryMeta(json("{'numBytes': 16, 'offset': 8, 'compressedSize': 5}"));
    EXPECT_EQ(meta.numBytes, same.numBytes);
    EXPECT_EQ(meta.offset, same.offset);
    EXPECT_EQ(meta.compressedSize, 0U);
    EXPECT_EQ(same.compressedSize, 5U);
}

TEST_F(StreamTest, NumbersInTextsAreReadFromTheFront) {
    EXPECT_EQ(Stream::parseInt(zel::String("16abc")), 16U);
    EXPECT_EQ(Stream::parseInt(zel::String(" \t16")), 16U);
    EXPECT_EQ(Stream::parseInt(zel::String("18446744073709551615")), 18446744073709551615U);
    for (const char* text : {"", " ", "abc", "-1", "+1", "- 1", "x16"})
        EXPECT_THAT(failureOf([&] { static_cast<void>(Stream::parseInt(zel::String(text))); }),
                    failed("end != str.c_str()"))
            << text;
    EXPECT_THAT(failureOf([] { static_cast<void>(Stream::parseInt(zel::String("18446744073709551616"))); }),
                HasSubstr("The number '18446744073709551616' is too large"));
}

TEST_F(StreamTest, AValueOfBytesIsCopiedFromThePayload) {
    EXPECT_EQ(realOf(value("'type': 'Real', 'numBytes': 8, 'offset': 16").get()), 2);
    EXPECT_EQ(value("'type': 'Real', 'format': '32bit', 'numBytes': 4, 'offset': 60")->getFormat(),
              zelData::getFormat("Real:32bit"));
}

TEST_F(StreamTest, AnExpressionGoesAheadOfBytes) {
    EXPECT_EQ(realOf(value("'type': 'Real', 'value': '7', 'numBytes': 8, 'offset': 0").get()), 7);
    EXPECT_EQ(realOf(value("'type': 'Real', 'value': '7', 'numBytes': -1, 'offset': []").get()), 7);
}

TEST_F(StreamTest, AnExpressionSeesTheContext) {
    const auto bound = value("'type': 'Real', 'value': '@a'");
    EXPECT_EQ(bound->getBinding(), a);
    EXPECT_EQ(bound->getContext(), nullptr);
    EXPECT_EQ(realOf(value("'type': 'Real', 'value': 'Math.Mul(@a, 2)'").get()), 3);
    EXPECT_THAT(valueFailure("'type': 'Real', 'value': '@none'"), HasSubstr("There is no value 'none'"));
}

TEST_F(StreamTest, AValueOfAnotherSizeFailsUnread) {
    for (const char* size : {"4", "16", "0", "'7'"})
        EXPECT_THAT(valueFailure("'type': 'Real', 'offset': 1000000, 'numBytes': " + std::string(size)),
                    failed("binaryMeta.numBytes == format->getSize()"));
}

TEST_F(StreamTest, TextWithAColonRefersToAnEntity) {
    const auto handle = value("'type': 'EntityPtr', 'value': 'cars:2'");
    EXPECT_EQ(*static_cast<const zelData::EntityPtr*>(handle->getData()), storage->getInstance(2));
    const auto place = value("'type': 'EntityInstance', 'value': 'cars:1'");
    EXPECT_EQ(*static_cast<const zelData::EntityInstance*>(place->getData()),
              zelData::EntityInstance(storage->getData(), 1));
    for (const char* number : {"3", "", "-1", "+1", " 1", "1 ", "0x1", "4294967296", "18446744073709551616"})
        EXPECT_THAT(valueFailure("'type': 'EntityPtr', 'value': 'cars:" + std::string(number) + "'"),
                    HasSubstr("The storage 'cars' has no entity '" + std::string(number) + "'"));
    EXPECT_THAT(valueFailure("'type': 'EntityPtr', 'value': 'vans:1'"),
                HasSubstr("There is no storage 'vans' for the entity '1'"));
    EXPECT_THAT(valueFailure("'type': 'EntityPtr', 'value': 'a:1'"),
                HasSubstr("There is no storage 'a' for the entity '1'"));
    EXPECT_THAT(valueFailure("'type': 'EntityPtr', 'value': 'vans:1:2'"),
                HasSubstr("There is no storage 'vans:1' for the entity '2'"));
    EXPECT_THAT(valueFailure("'type': 'String', 'value': 'cars:1'"),
                HasSubstr("can not refer to the entity '1' of the storage 'cars'"));
}

TEST_F(StreamTest, ABufferIsCopiedFromThePayload) {
    const auto buffer = Stream::parseBuffer(
        top.get(),
        json("{'name': 'b', 'type': 'Real', 'numBytes': '16', 'offset': 16, 'numElements': 2}"),
        bytes.get());
    ASSERT_EQ(buffer->getNumElements(), 2U);
    EXPECT_EQ(*static_cast<const double*>(buffer->getElement(0)), 2);
    EXPECT_EQ(*static_cast<const double*>(buffer->getElement(1)), 3);
    const auto empty = Stream::parseBuffer(
        top.get(),
        json("{'name': 'b', 'type': 'Real', 'numBytes': 0, 'offset': 0, 'numElements': 0}"),
        nullptr);
    EXPECT_EQ(empty->getNumElements(), 0U);
}

TEST_F(StreamTest, AParameterOfAnotherModelIsNotBound) {
    EXPECT_EQ(parameter("{'name': 'p', 'model': 'zelData.Value', 'bind': 'a'}").get(), a);
    EXPECT_EQ(parameter("{'name': 'p', 'model': 'zelData.Buffer', 'bind': 'numbers'}").get(), numbers.get());
    EXPECT_THAT(parameterFailure("{'name': 'p', 'model': 'zelData.Buffer', 'bind': 'a'}"),
                failed("binding->getModel() == model"));
    EXPECT_THAT(parameterFailure("{'name': 'p', 'model': 'zelData.Value', 'bind': 'none'}"),
                failed("binding"));
    EXPECT_THAT(parameterFailure("{'name': 'p', 'model': 'zelData.Value', 'bind': 1}"),
                failed("eBind.isString()"));
}

TEST_F(StreamTest, APointerTakesAnObjectOfAnyModel) {
    for (zel::Object* object : {static_cast<zel::Object*>(a), static_cast<zel::Object*>(storage.get())}) {
        const auto made = parameter("{'name': 'target', 'model': 'zel.Pointer', 'bind': '" +
                                    object->getName().str() + "'}");
        auto* const pointer = dynamic_cast<zel::Pointer*>(made.get());
        ASSERT_NE(pointer, nullptr);
        EXPECT_EQ(pointer->getObject(), object);
        EXPECT_EQ(pointer->getName(), zel::Name("target"));
    }
    Json::Value header = call();
    header["parameters"].append(json("{'name': 'target', 'model': 'zel.Pointer', 'bind': 'cars'}"));
    EXPECT_EQ(eventOf(header)->getTask()->findParameter("target")->getBinding(), storage.get());
}

TEST_F(StreamTest, DoubledNamesAreRefused) {
    Json::Value header = call();
    header["parameters"].append(header["parameters"][0]);
    EXPECT_THAT(callFailure(header), HasSubstr("There are two parameters of the name 'x'"));
}

TEST_F(StreamTest, AParameterThatTheTaskLacksIsRefused) {
    Json::Value header = call();
    header["parameters"][0]["name"] = "y";
    EXPECT_THAT(callFailure(header), failed("taskParameter"));
}

TEST_F(StreamTest, WhatDoesNotFitAParameterIsRefusedAheadOfAllBindings) {
    Json::Value header = call();
    header["parameters"][0] = json("{'name': 'x', 'model': 'zelData.Buffer', 'bind': 'numbers'}");
    EXPECT_THAT(callFailure(header),
                HasSubstr("Can not bind a scalar parameter to 'top.numbers', which is no value"));
    header["parameters"][0] = json("{'name': 'x', 'model': 'zelData.Value', 'type': 'String', 'value': 'b'}");
    EXPECT_THAT(callFailure(header),
                HasSubstr("Can not bind parameter of type Real to value of type String"));
    header = call();
    header["parameters"][1] = json("{'name': 'numbers', 'model': 'zelData.Value', 'bind': 'a'}");
    EXPECT_THAT(callFailure(header),
                HasSubstr("Can not bind an array parameter to 'top.a', which is no buffer"));
    header["parameters"][1] =
        json("{'name': 'numbers', 'model': 'zelData.Buffer', 'type': 'Int', 'numBytes': 0,"
             "'offset': 0, 'numElements': 0}");
    EXPECT_THAT(callFailure(header), HasSubstr("Can not bind parameter of type Real:64bit to buffer"));
    EXPECT_TRUE(result->getDependents().empty());
    EXPECT_TRUE(a->getDependents().empty());
}

TEST_F(StreamTest, ATaskWithoutAllItNeedsIsNotRun) {
    Json::Value header = call();
    Json::Value removed;
    header["parameters"].removeIndex(1, &removed);
    const auto event = eventOf(header);
    EXPECT_THAT(failureOf([&] { event->evaluate(); }), HasSubstr("Parameter verification failed!"));
    EXPECT_EQ(s_numRuns, 0);
    EXPECT_EQ(realOf(result), 0);
}

TEST_F(StreamTest, ABoolIsOneOfTwoWords) {
    EXPECT_TRUE(*static_cast<const bool*>(value("'type': 'Bool', 'value': 'true'")->getData()));
    for (const char* text : {"1", "-", "PI", "Bool(1)", "Bool(Int(2))", "Int( 3 )"})
        EXPECT_THAT(valueFailure("'type': 'Bool', 'value': '" + std::string(text) + "'"),
                    HasSubstr("is no Bool: it is 'true' or 'false'"));
    EXPECT_THAT(valueFailure("'type': 'Real', 'value': 'Math.Mul(Bool(2), @a)'"),
                HasSubstr("is no Bool: it is 'true' or 'false'"));
}

} // namespace
