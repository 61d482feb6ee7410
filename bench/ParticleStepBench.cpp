// A step of the demonstration's belt: 100,000 massless particles drawn by 18 bodies, as range jobs over the
// columns of an entity storage, beside the same jobs over plain vectors.
#include <zel/Job.h>
#include <zel/ParallelTask.h>
#include <zel/RangeJob.h>
#include <zel/Thread.h>
#include <zel/Vec.h>
#include <zel/ref_ptr.h>
#include <zelCore/zelCore.h>
#include <zelData/Array.h>
#include <zelData/EntityModel.h>
#include <zelData/EntityStorage.h>
#include <zelData/ScalarAttribute.h>
#include <zelData/Type.h>

#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <vector>

namespace {

using Vec3d = zel::Vec3T<double>;

constexpr size_t NumParticles = 100'000;
constexpr size_t NumBodies = 18;
constexpr double Step = 600;

class VectorColumns {
public:
    VectorColumns() : m_positions(NumParticles), m_velocities(NumParticles), m_accelerations(NumParticles) {}
    [[nodiscard]] Vec3d* positions() { return m_positions.data(); }
    [[nodiscard]] Vec3d* velocities() { return m_velocities.data(); }
    [[nodiscard]] Vec3d* accelerations() { return m_accelerations.data(); }

private:
    std::vector<Vec3d> m_positions;
    std::vector<Vec3d> m_velocities;
    std::vector<Vec3d> m_accelerations;
};

class StorageColumns {
public:
    StorageColumns() : m_model(makeModel()), m_storage(new zelData::EntityStorage(m_model.get())) {
        m_storage->createInstances(NumParticles);
    }
    [[nodiscard]] Vec3d* positions() { return column("position").data(); }
    [[nodiscard]] Vec3d* velocities() { return column("velocity").data(); }
    [[nodiscard]] Vec3d* accelerations() { return column("acceleration").data(); }

private:
    [[nodiscard]] static zelData::EntityModel* makeModel() {
        auto* model = new zelData::EntityModel("BenchParticle");
        model->setBaseEntity(zelData::EntityModel::getRootModel());
        for (const char* name : {"position", "velocity", "acceleration"})
            model->addAttribute(new zelData::ScalarAttribute(name, zelData::getFormat("Vec3:64bit")));
        return model;
    }
    [[nodiscard]] zelData::Array<Vec3d> column(const char* name) {
        return {m_storage->getBuffer(zel::Name(name)), {0, NumParticles}};
    }

    zel::ref_ptr<zelData::EntityModel> m_model;
    zel::ref_ptr<zelData::EntityStorage> m_storage;
};

struct Body {
    Vec3d position;
    double gm = 0;
};

Vec3d acceleration(const std::vector<Body>& bodies, const Vec3d& position) {
    Vec3d sum;
    for (const Body& body : bodies) {
        const Vec3d towards = body.position - position;
        const double squared = towards.squaredNorm();
        sum += towards * (body.gm / (squared * std::sqrt(squared)));
    }
    return sum;
}

template <typename Columns>
void step(benchmark::State& state) {
    zel::setNumThreads(static_cast<size_t>(state.range(0)));
    {
        std::vector<Body> bodies(NumBodies);
        for (size_t i = 0; i < NumBodies; ++i)
            bodies[i] = {Vec3d(static_cast<double>(i) * 1e10, 1e9, 0), 1e15};
        Columns columns;
        Vec3d* const x = columns.positions();
        Vec3d* const v = columns.velocities();
        Vec3d* const a = columns.accelerations();
        for (size_t i = 0; i < NumParticles; ++i) {
            const double angle = static_cast<double>(i);
            x[i] = Vec3d(4e11 * std::cos(angle), 4e11 * std::sin(angle), 0);
            v[i] = Vec3d(-1.8e4 * std::sin(angle), 1.8e4 * std::cos(angle), 0);
            a[i] = acceleration(bodies, x[i]);
        }
        std::vector<std::unique_ptr<zel::RangeJob>> jobs;
        zel::ParallelTask task("step");
        const size_t numJobs = zel::getNumThreads();
        for (size_t i = 0; i < numJobs; ++i) {
            jobs.push_back(std::make_unique<zel::RangeJob>(
                [&bodies, x, v, a](const zel::RangeJob& job) {
                    for (size_t k = job.getRange().begin(); k < job.getRange().end(); ++k) {
                        v[k] += a[k] * (0.5 * Step);
                        x[k] += v[k] * Step;
                        a[k] = acceleration(bodies, x[k]);
                        v[k] += a[k] * (0.5 * Step);
                    }
                },
                zel::IndexRange(NumParticles * i / numJobs, NumParticles * (i + 1) / numJobs)));
            task.addJob(jobs.back().get());
        }
        for (auto _ : state)
            task.execute();
        state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(NumParticles));
    }
    zel::setNumThreads(1);
}
BENCHMARK(step<StorageColumns>)
    ->Name("BM_ParticleStep/zel_EntityStorage")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(step<VectorColumns>)
    ->Name("BM_ParticleStep/std_vector")
    ->Arg(1)
    ->Arg(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv) {
    zelCore::init();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    zelCore::shutdown();
    return 0;
}
