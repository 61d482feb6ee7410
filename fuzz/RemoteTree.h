#pragma once

#include <zel/ArrayParameter.h>
#include <zel/Clock.h>
#include <zel/Component.h>
#include <zel/PointerParameter.h>
#include <zel/ScalarParameter.h>
#include <zel/SerialTask.h>
#include <zel/TaskPlugin.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/Buffer.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>
#include <zelData/Type.h>
#include <zelData/Value.h>
#include <zelData/ValueT.h>

#include <utility>

namespace zelFuzz {

/// A task "Fuzz.Sum": writes x and the sum of the array "numbers" to "result".
class SumTask final : public zel::SerialTask {
public:
    SumTask(const zel::Name& name, zel::Device* device) : SerialTask(name, device) {
        using zelData::getFormat;
        m_x = new zel::ScalarParameter("x", getFormat("Real"), zelData::AccessMode::READ);
        m_numbers = new zel::ArrayParameter("numbers", getFormat("Real"), zelData::AccessMode::READ);
        m_result = new zel::ScalarParameter("result", getFormat("Real"), zelData::AccessMode::WRITE);
        auto* const flag = new zel::ScalarParameter("flag", getFormat("Bool"), zelData::AccessMode::READ);
        auto* const target = new zel::PointerParameter("target");
        flag->setRequired(false);
        target->setRequired(false);
        addParameter(m_x);
        addParameter(m_numbers);
        addParameter(m_result);
        addParameter(flag);
        addParameter(target);
    }
    void run() override {
        double sum = *static_cast<const double*>(m_x->getData());
        const zelData::Buffer* const buffer = m_numbers->getBuffer();
        for (zel::uint64 i = 0; i < buffer->getNumElements(); ++i)
            sum += *static_cast<const double*>(buffer->getElement(i));
        if (auto* const value = dynamic_cast<zelData::Value*>(m_result->getBinding()))
            value->set(static_cast<const void*>(&sum));
    }

private:
    zel::ScalarParameter* m_x; // owned by the task, as the next
    zel::ArrayParameter* m_numbers;
    zel::ScalarParameter* m_result;
};

/// Below the root, while it lives: "top" with the clock "clock", the values "a", "b", "text" and "result",
/// the buffers "numbers", "places" and "names", and the storage "cars" of three.
class RemoteTree {
public:
    RemoteTree() {
        static zel::TaskPlugin s_plugin("Fuzz.Sum", zel::Device::Type::Cpu);
        static const zel::TaskPluginImplementationT<SumTask> s_sum(s_plugin, "Sum");
        static zel::ref_ptr<zelData::EntityModel> s_model = [] {
            zel::ref_ptr<zelData::EntityModel> made(new zelData::EntityModel("Car"));
            made->setBaseEntity(zelData::EntityModel::getRootModel());
            return made;
        }();
        zel::root()->addObject(top.get());
        top->addObject(clock.get());
        top->addObject(a.get());
        top->addObject(new zelData::ValueT<bool>("b", true));
        top->addObject(new zelData::Value("text", zelData::getFormat("String")));
        top->addObject(new zelData::ValueT<double>("result", 0.0));
        for (const auto& [name, format] : {std::pair("numbers", "Real"),
                                           std::pair("places", "Vec3:32bit"),
                                           std::pair("names", "String")}) {
            const zel::ref_ptr<zelData::Buffer> buffer(new zelData::Buffer(name, zelData::getFormat(format)));
            buffer->resize(5);
            top->addObject(buffer.get());
        }
        const zel::ref_ptr<zelData::EntityStorage> cars(new zelData::EntityStorage(s_model.get(), "cars"));
        top->addObject(cars.get());
        cars->createInstances(3);
    }
    RemoteTree(const RemoteTree&) = delete;
    RemoteTree& operator=(const RemoteTree&) = delete;
    ~RemoteTree() { zel::root()->removeObject(top.get()); }

    const zel::ref_ptr<zel::Component> top{new zel::Component("top", zel::Component::ClassModel())};
    const zel::ref_ptr<zel::Clock> clock{new zel::Clock("clock", 10)};
    const zel::ref_ptr<zelData::ValueT<double>> a{new zelData::ValueT<double>("a", 1.5)};
};

} // namespace zelFuzz
