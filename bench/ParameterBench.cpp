// Binding and rebinding all parameters of a model: linear in their number.
#include <zel/ArrayParameter.h>
#include <zel/Component.h>
#include <zel/EntityDataParameter.h>
#include <zel/ScalarParameter.h>
#include <zel/SerialTask.h>
#include <zelCore/zelCore.h>
#include <zelData/Buffer.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>
#include <zelData/Format.h>
#include <zelData/ScalarAttribute.h>
#include <zelData/Type.h>
#include <zelData/ValueT.h>

#include <benchmark/benchmark.h>

#include <memory>
#include <string>

namespace {

using zel::Component;
using zel::Object;
using zel::Parameter;
using zel::Path;
using zel::ref_ptr;

/// Four parameters a task: one for a value that all share, one for a value of its own, one for a buffer of
/// its own and one for a storage that all share.
class Model {
public:
    explicit Model(int64_t numParameters)
        : m_entity(new zelData::EntityModel("Particle")), m_top(new Component("top")) {
        Object::setEnableRebind(false); // as while a model file is loaded
        m_entity->setBaseEntity(zelData::EntityModel::getRootModel());
        m_entity->addAttribute(new zelData::ScalarAttribute("mass", zelData::getFormat("Real")));
        m_storage = new zelData::EntityStorage(m_entity.get(), "particles");
        m_top->addObject(m_storage.get());
        m_top->addObject(new zelData::ValueT<double>("step", 0.01));
        for (int64_t i = 0; i < numParameters / 4; ++i)
            addTask(std::to_string(i));
        Object::setEnableRebind(true);
    }
    Model(const Model&) = delete;
    Model& operator=(const Model&) = delete;
    ~Model() {
        Object::setEnableRebind(false);
        m_top = nullptr;
        Object::setEnableRebind(true);
    }

    /// The first rebind after loading.
    void bind() { m_top->rebind(); }
    /// Ends all bindings and keeps the paths.
    void unbind() {
        for (const ref_ptr<Parameter>& parameter : m_parameters)
            parameter->bind(static_cast<Object*>(nullptr));
    }
    [[nodiscard]] bool isBound() const { return m_parameters.back()->getBinding() != nullptr; }

private:
    void addTask(const std::string& number) {
        m_top->addObject(new zelData::ValueT<double>("value" + number, 1.0));
        m_top->addObject(new zelData::Buffer("buffer" + number, zelData::getFormat("Real")));
        const ref_ptr<zel::SerialTask> task(new zel::SerialTask("task" + number));
        m_top->addObject(task.get());
        const auto add = [&](Parameter* parameter) {
            task->addObject(parameter);
            parameter->setTask(task.get(), 0);
            m_parameters.push_back(parameter);
        };
        const zelData::Format* real = zelData::getFormat("Real");
        add(new zel::ScalarParameter("step", real, zelData::AccessMode::READ, "step"));
        add(new zel::ScalarParameter("own", real, zelData::AccessMode::READ, Path("value" + number)));
        add(new zel::ArrayParameter("array", real, zelData::AccessMode::READ, Path("buffer" + number)));
        add(new zel::EntityDataParameter("all", m_entity.get(), zelData::AccessMode::READ, "particles"));
    }

    ref_ptr<zelData::EntityModel> m_entity;
    ref_ptr<zelData::EntityStorage> m_storage;
    zel::Vector<ref_ptr<Parameter>> m_parameters;
    ref_ptr<Component> m_top;
};

void bindAll(benchmark::State& state) {
    zelCore::init();
    for (auto _ : state) {
        state.PauseTiming();
        auto model = std::make_unique<Model>(state.range(0));
        state.ResumeTiming();
        model->bind();
        state.PauseTiming();
        if (!model->isBound())
            state.SkipWithError("not bound");
        model = nullptr;
        state.ResumeTiming();
    }
    state.SetComplexityN(state.range(0));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(bindAll)
    ->Name("BM_ParameterBind/zel")
    ->Arg(1'000)
    ->Arg(10'000)
    ->Arg(100'000)
    ->Unit(benchmark::kMicrosecond)
    ->Complexity(benchmark::oN);

/// All paths lead where they led before.
void rebindAll(benchmark::State& state) {
    zelCore::init();
    Model model(state.range(0));
    model.bind();
    for (auto _ : state)
        model.bind();
    state.SetComplexityN(state.range(0));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(rebindAll)
    ->Name("BM_ParameterRebind/zel")
    ->Arg(1'000)
    ->Arg(10'000)
    ->Arg(100'000)
    ->Unit(benchmark::kMicrosecond)
    ->Complexity(benchmark::oN);

void unbindAll(benchmark::State& state) {
    zelCore::init();
    Model model(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        model.bind();
        state.ResumeTiming();
        model.unbind();
    }
    state.SetComplexityN(state.range(0));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(unbindAll)
    ->Name("BM_ParameterUnbind/zel")
    ->Arg(1'000)
    ->Arg(10'000)
    ->Arg(100'000)
    ->Unit(benchmark::kMicrosecond)
    ->Complexity(benchmark::oN);

} // namespace

BENCHMARK_MAIN();
