#pragma once

#include <zel/Component.h>
#include <zel/Path.h>
#include <zel/Pointer.h>
#include <zel/ScalarParameter.h>
#include <zel/Stream.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/BinaryData.h>
#include <zelData/Buffer.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>
#include <zelNet/StructuredMessage.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>
#include <support/StreamCapture.h>
#include <support/WhatOf.h>

#include <algorithm>
#include <iostream>
#include <string>

namespace zelTest {

/// A tree with a component "top", which holds the values "a" of 1.5 and "result", the buffer "numbers", and
/// the storage "cars" of three, and a payload of 64 bytes: 2.5, 1, 2, 3 as reals, and then 0xFF.
///
/// The task "Remote.Sum" writes x and the sum of the array "numbers" to "result".
class RemoteCallFixture : public testing::Test {
protected:
    void SetUp() override {
        zelCore::init();
        top = new zel::Component("top", zel::Component::ClassModel());
        zel::root()->addObject(top.get());
        a = put(new zelData::ValueT<double>("a", 1.5));
        result = put(new zelData::ValueT<double>("result", 0.0));
        numbers = put(new zelData::Buffer("numbers", zelData::getFormat("Real")));
        numbers->resize(2);
        model = new zelData::EntityModel("Car");
        model->setBaseEntity(zelData::EntityModel::getRootModel());
        storage = put(new zelData::EntityStorage(model.get(), "cars"));
        storage->createInstances(3);
        const double reals[] = {2.5, 1, 2, 3};
        bytes = new zelData::BinaryData(64);
        std::fill_n(bytes->getData(), 64, zel::uint8{0xFF});
        std::copy_n(reinterpret_cast<const zel::uint8*>(reals), sizeof(reals), bytes->getData());
    }
    void TearDown() override {
        if (top->getContext() != nullptr)
            zel::root()->removeObject(top.get());
        storage = nullptr;
        numbers = nullptr;
        top = nullptr;
        model = nullptr;
        zelCore::shutdown();
    }
    template <typename ObjectType>
    ObjectType* put(ObjectType* object) {
        top->addObject(object);
        return object;
    }

    static Json::Value json(const std::string& text) {
        Json::Value value;
        Json::Reader reader;
        std::string quoted = text;
        std::replace(quoted.begin(), quoted.end(), '\'', '"');
        EXPECT_TRUE(reader.parse(quoted, value)) << quoted;
        return value;
    }
    /// A message that calls the task with everything.
    static Json::Value call() {
        return json("{'implementation': 'Remote.Sum', 'context': 'top', 'parameters': ["
                    "{'name': 'x', 'model': 'zelData.Value', 'type': 'Real', 'numBytes': 8, 'offset': 0},"
                    "{'name': 'numbers', 'model': 'zelData.Buffer', 'type': 'Real', 'format': '64bit',"
                    " 'numBytes': '24', 'offset': '8', 'numElements': 3},"
                    "{'name': 'result', 'model': 'zelData.Value', 'bind': 'result'}]}");
    }
    zel::ref_ptr<zel::Stream::FunctionEvent> eventOf(const Json::Value& header) const {
        const zel::ref_ptr<zelNet::StructuredMessage> message(
            new zelNet::StructuredMessage("Function.Call", header, bytes.get()));
        return new zel::Stream::FunctionEvent(message.get());
    }
    /// What the work throws, which is printed as well.
    template <typename Work>
    static std::string failureOf(Work work) {
        const StreamCapture quiet(std::cerr);
        return whatOf(work);
    }
    std::string callFailure(const Json::Value& header) const {
        return failureOf([&] { static_cast<void>(eventOf(header)); });
    }
    zel::ref_ptr<zel::Object> parameter(const std::string& text) const {
        return zel::Stream::parseParameter(top.get(), json(text), bytes.get());
    }
    std::string parameterFailure(const std::string& text) const {
        return failureOf([&] { static_cast<void>(parameter(text)); });
    }
    zel::ref_ptr<zelData::Value> value(const std::string& members) const {
        return zel::Stream::parseValue(top.get(), json("{'name': 'v', " + members + "}"), bytes.get());
    }
    std::string valueFailure(const std::string& members) const {
        return failureOf([&] { static_cast<void>(value(members)); });
    }
    std::string bufferFailure(const std::string& members) const {
        return failureOf([&] {
            static_cast<void>(zel::Stream::parseBuffer(
                top.get(), json("{'name': 'b', 'type': 'Real', " + members + "}"), bytes.get()));
        });
    }
    static double realOf(const zel::Object* object) {
        auto* const of = const_cast<zelData::Value*>(dynamic_cast<const zelData::Value*>(object));
        return of == nullptr ? -1 : *static_cast<const double*>(of->getData());
    }

    zel::ref_ptr<zel::Component> top;
    zelData::ValueT<double>* a = nullptr; // in the tree, as the next
    zelData::ValueT<double>* result = nullptr;
    zel::ref_ptr<zelData::Buffer> numbers;
    zel::ref_ptr<zelData::EntityModel> model;
    zel::ref_ptr<zelData::EntityStorage> storage;
    zel::ref_ptr<zelData::BinaryData> bytes;
};

/// The text of a failed verification, whatever the line.
inline auto failed(const std::string& expression) {
    return testing::HasSubstr("zelVerify failed: `" + expression + "'");
}

} // namespace zelTest
