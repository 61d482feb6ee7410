// A step of the demonstration with 100,000 particles: its model, loaded and ticked, beside the same
// arithmetic as OpenMP loops over plain columns, and in one loop.
#include "../examples/solar/Bodies.h"

#include <zel/Clock.h>
#include <zel/Component.h>
#include <zel/Thread.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/Buffer.h>
#include <zelData/EntityStorage.h>
#include <zelData/Recorder.h>
#include <zelData/Value.h>
#include <zelIO/Environment.h>
#include <zelIO/FilePathContainer.h>

#include <benchmark/benchmark.h>
#include <omp.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

namespace {

constexpr size_t NumParticles = 100'000;
constexpr double TimeStep = 600;

zel::ref_ptr<zel::Component> loadModel() {
    zel::ref_ptr<zel::Component> model(zel::Component::load(zel::Path("solar.Solar"), nullptr));
    if (!model) {
        std::cerr << "there is no model solar.Solar\n";
        std::exit(1);
    }
    zel::root()->addObject(model.get());
    model->rebind();
    dynamic_cast<zelData::Value&>(*model->findObject("numParticles")).setExpression("100000");
    return model;
}

void stepOfTheModel(benchmark::State& state) {
    zel::setNumThreads(static_cast<size_t>(state.range(0)));
    {
        const zel::ref_ptr<zel::Component> model = loadModel();
        auto& clock = dynamic_cast<zel::Clock&>(*model->findObject("clock"));
        for (auto _ : state)
            clock.tick();
        zel::root()->removeObject(model.get());
    }
    zel::setNumThreads(1);
}
BENCHMARK(stepOfTheModel)
    ->Name("BM_SolarStep/zel")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

/// The same, with a frame of all that there is recorded for each step.
void stepOfTheRecordedModel(benchmark::State& state) {
    zel::setNumThreads(static_cast<size_t>(state.range(0)));
    const std::string journal = (std::filesystem::temp_directory_path() / "zelSolarStep.journal").string();
    {
        const zel::ref_ptr<zel::Component> model = loadModel();
        auto& clock = dynamic_cast<zel::Clock&>(*model->findObject("clock"));
        const zel::ref_ptr<zelData::Recorder> recorder(new zelData::Recorder);
        recorder->setClock(&clock);
        recorder->setRoot(model.get());
        recorder->setJournal(journal);
        recorder->setReplace(true);
        recorder->start();
        for (auto _ : state)
            clock.tick();
        recorder->stop();
        const auto numFrames = static_cast<double>(recorder->getNumFrames());
        state.counters["captureMs"] = 1e3 * recorder->getCaptureSeconds() / numFrames;
        state.counters["waitMs"] = 1e3 * recorder->getWaitedSeconds() / numFrames;
        state.counters["frameMB"] = static_cast<double>(recorder->getNumBytes()) / numFrames / 1e6;
        zel::root()->removeObject(model.get());
    }
    std::filesystem::remove(journal);
    zel::setNumThreads(1);
}
BENCHMARK(stepOfTheRecordedModel)
    ->Name("BM_SolarStep/zel_recorded")
    ->Arg(1)
    ->Arg(2)
    ->Iterations(100) // each makes the file longer
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

/// The state of a storage of the model in columns of plain memory.
struct Columns {
    explicit Columns(const zelData::EntityStorage& storage)
        : positions(copy<Vec3d>(storage, "position"))
        , velocities(copy<Vec3d>(storage, "velocity"))
        , accelerations(copy<Vec3d>(storage, "acceleration")) {}

    template <typename T>
    static std::vector<T> copy(const zelData::EntityStorage& storage, const char* name) {
        const T* const begin = storage.getBuffer(zel::Name(name))->data<T>();
        return std::vector<T>(begin, begin + storage.size());
    }

    std::vector<Vec3d> positions;
    std::vector<Vec3d> velocities;
    std::vector<Vec3d> accelerations;
};

struct System {
    explicit System(zel::Component& model)
        : bodies(storage(model, "bodies"))
        , particles(storage(model, "particles"))
        , gm(Columns::copy<double>(storage(model, "bodies"), "gm")) {}

    static const zelData::EntityStorage& storage(zel::Component& model, const char* name) {
        return dynamic_cast<zelData::EntityStorage&>(*model.findObject(name));
    }

    Columns bodies;
    Columns particles;
    std::vector<double> gm;
};

void kick(Columns& columns) {
    const auto n = static_cast<long>(columns.positions.size());
#pragma omp parallel for schedule(static)
    for (long i = 0; i < n; ++i)
        columns.velocities[i] += columns.accelerations[i] * (0.5 * TimeStep);
}

void drift(Columns& columns) {
    const auto n = static_cast<long>(columns.positions.size());
#pragma omp parallel for schedule(static)
    for (long i = 0; i < n; ++i)
        columns.positions[i] += columns.velocities[i] * TimeStep;
}

void forces(Columns& columns, const System& system) {
    const auto n = static_cast<long>(columns.positions.size());
    const bool themselves = &columns == &system.bodies;
#pragma omp parallel for schedule(static)
    for (long i = 0; i < n; ++i)
        columns.accelerations[i] = pull(system.bodies.positions.data(),
                                        system.gm.data(),
                                        system.gm.size(),
                                        columns.positions[i],
                                        themselves ? static_cast<size_t>(i) : NoBody);
}

void stepInLoops(System& system) {
    for (Columns* columns : {&system.bodies, &system.particles}) {
        kick(*columns);
        drift(*columns);
    }
    for (Columns* columns : {&system.bodies, &system.particles}) {
        forces(*columns, system);
        kick(*columns);
    }
}

void stepInOneLoop(System& system) {
    kick(system.bodies);
    drift(system.bodies);
    Columns& particles = system.particles;
    const auto n = static_cast<long>(particles.positions.size());
#pragma omp parallel for schedule(static)
    for (long i = 0; i < n; ++i) {
        particles.velocities[i] += particles.accelerations[i] * (0.5 * TimeStep);
        particles.positions[i] += particles.velocities[i] * TimeStep;
        particles.accelerations[i] = pull(system.bodies.positions.data(),
                                          system.gm.data(),
                                          system.gm.size(),
                                          particles.positions[i],
                                          NoBody);
        particles.velocities[i] += particles.accelerations[i] * (0.5 * TimeStep);
    }
    forces(system.bodies, system);
    kick(system.bodies);
}

template <void (*step)(System&)>
void stepOfOpenMp(benchmark::State& state) {
    omp_set_num_threads(static_cast<int>(state.range(0)));
    const zel::ref_ptr<zel::Component> model = loadModel();
    System system(*model);
    zel::root()->removeObject(model.get());
    for (auto _ : state)
        step(system);
}
BENCHMARK(stepOfOpenMp<stepInLoops>)
    ->Name("BM_SolarStep/OpenMP_loops")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(stepOfOpenMp<stepInOneLoop>)
    ->Name("BM_SolarStep/OpenMP_one_loop")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    zelCore::init();
    for (const auto type : {zelIO::Environment::PluginPath, zelIO::Environment::ResourcePath})
        for (const char* directory : {SOLAR_DIRECTORY, SOLAR_PLUGIN_DIRECTORY})
            zelIO::Environment::instance()->getFilePath(type).pushbackPath(directory);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    zelCore::shutdown();
    return 0;
}
