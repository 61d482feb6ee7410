#pragma once

#include <zel/Component.h>
#include <zel/Parameter.h>
#include <zel/SerialTask.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/Buffer.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/ScalarAttribute.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>

#include <gtest/gtest.h>
#include <support/TempDirectory.h>
#include <support/WhatOf.h>
#include <tinyxml.h>

#include <memory>
#include <string>

namespace zelTest {

/// A component "top" with a task in it that parameters belong to.
class ParameterFixture : public testing::Test {
protected:
    void SetUp() override {
        testing::FLAGS_gtest_death_test_style = "threadsafe";
        zelCore::init();
        top = new zel::Component("top");
        task = new zel::SerialTask("task");
        top->addObject(task.get());
    }
    void TearDown() override {
        task = nullptr;
        top = nullptr;
        zelCore::shutdown();
    }

    /// Makes the parameter one of the task's.
    template <typename ParameterType>
    zel::ref_ptr<ParameterType> add(ParameterType* made) {
        const zel::ref_ptr<ParameterType> parameter(made);
        parameter->setTask(task.get(), task->getNumObjects());
        task->addObject(parameter.get());
        return parameter;
    }
    /// Adds an object to "top".
    template <typename ObjectType>
    ObjectType* put(ObjectType* object) {
        top->addObject(object);
        return object;
    }
    zelData::Buffer* putBuffer(const char* name, const char* format = "Real:64bit") {
        return put(new zelData::Buffer(name, zelData::getFormat(format)));
    }

    zel::TiXmlElement* parse(const std::string& text) {
        document = zel::Object::openDocument(directory.write("m.xml", "\n" + text));
        return document->RootElement();
    }
    /// The what() of what loading the element throws.
    template <typename Class>
    std::string failure(const std::string& text) {
        return whatOf([this, &text] { const zel::ref_ptr<Class> loaded(Class::load(parse(text), nullptr)); });
    }

    TempDirectory directory;
    std::unique_ptr<TiXmlDocument> document;
    zel::ref_ptr<zel::Component> top;
    zel::ref_ptr<zel::SerialTask> task;
};

/// Counts the events of a parameter while it lives.
class ParameterEvents {
public:
    explicit ParameterEvents(zel::Parameter* parameter)
        : m_parameter(parameter)
        , m_bindId(parameter->bindEvent.connect([this](zel::Parameter*) { ++bound; }))
        , m_unbindId(parameter->unbindEvent.connect([this](zel::Parameter*) { ++unbound; }))
        , m_updateId(parameter->updateEvent.connect([this](zel::Parameter*) { ++updated; })) {}
    ParameterEvents(const ParameterEvents&) = delete;
    ParameterEvents& operator=(const ParameterEvents&) = delete;
    ~ParameterEvents() {
        m_parameter->bindEvent.disconnect(m_bindId);
        m_parameter->unbindEvent.disconnect(m_unbindId);
        m_parameter->updateEvent.disconnect(m_updateId);
    }

    int bound = 0;
    int unbound = 0;
    int updated = 0;

private:
    zel::ref_ptr<zel::Parameter> m_parameter;
    zel::uint64 m_bindId;
    zel::uint64 m_unbindId;
    zel::uint64 m_updateId;
};

/// An entity of the attributes, made by the test.
inline zel::ref_ptr<zelData::EntityModel> makeEntity(const char* name,
                                                     std::initializer_list<zelData::Attribute*> attributes,
                                                     zelData::EntityModel* base = nullptr) {
    const zel::ref_ptr<zelData::EntityModel> model(new zelData::EntityModel(name));
    model->setBaseEntity(base == nullptr ? zelData::EntityModel::getRootModel() : base);
    for (zelData::Attribute* attribute : attributes)
        model->addAttribute(attribute);
    return model;
}

} // namespace zelTest
