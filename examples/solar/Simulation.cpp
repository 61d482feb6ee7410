#include "Simulation.h"

#include <zel/Thread.h>
#include <zelData/Buffer.h>
#include <zelData/Format.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

namespace {

// Long enough that a job's work outweighs its scheduling.
constexpr size_t MinimumRange = 64;
constexpr size_t Massless = std::numeric_limits<size_t>::max();

/// The column of an attribute, whose elements must be of the format.
template <typename T>
zelData::Array<T> column(const zelData::EntityStorage& storage, const char* name, const char* format) {
    zelData::Buffer* buffer = storage.getBuffer(zel::Name(name));
    if (buffer == nullptr || buffer->getFormat()->fullName() != format)
        throw std::runtime_error("the storage '" + storage.getPath().str() + "' has no column '" + name +
                                 "' of " + format + "\n");
    return {buffer, {0, static_cast<zel::uint32>(storage.size())}};
}

/// An empty storage with n new instances.
zelData::EntityStorage& filled(zelData::EntityStorage& storage, size_t n) {
    if (!storage.empty())
        throw std::runtime_error("the storage '" + storage.getPath().str() + "' is to be empty at first\n");
    storage.createInstances(n);
    return storage;
}

} // namespace

Motion::Motion(const zelData::EntityStorage& storage)
    : positions(column<Vec3d>(storage, "position", "Vec3:64bit"))
    , velocities(column<Vec3d>(storage, "velocity", "Vec3:64bit"))
    , accelerations(column<Vec3d>(storage, "acceleration", "Vec3:64bit")) {}

Simulation::Simulation(zelData::EntityStorage& bodies,
                       zelData::EntityStorage& particles,
                       const zel::Vector<Body>& table,
                       zel::uint64 numParticles,
                       double step)
    : m_step(step)
    , m_gm(column<double>(filled(bodies, table.size()), "gm", "Real:64bit"))
    , m_bodies(bodies)
    , m_particles(filled(particles, numParticles))
    , m_allHaveMoved("allHaveMoved")
    , m_task(new zel::ParallelTask("step")) {
    for (size_t i = 0; i < table.size(); ++i) {
        m_gm[i] = table[i].gm;
        m_bodies.positions[i] = table[i].position;
        m_bodies.velocities[i] = table[i].velocity;
    }
    for (size_t i = 0; i < numParticles; ++i)
        beltState(i, table[0], m_particles.positions[i], m_particles.velocities[i]);
    for (size_t i = 0; i < m_bodies.size(); ++i)
        m_bodies.accelerations[i] = acceleration(m_bodies.positions[i], i);
    for (size_t i = 0; i < m_particles.size(); ++i)
        m_particles.accelerations[i] = acceleration(m_particles.positions[i], Massless);
    makeJobs(m_bodies, true);
    makeJobs(m_particles, false);
}

/// Each drift -> allHaveMoved -> each kick, with one range job a thread, or fewer if they would be short.
void Simulation::makeJobs(const Motion& motion, bool massive) {
    const size_t n = motion.size();
    const size_t parts = std::clamp<size_t>(n / MinimumRange, n == 0 ? 0 : 1, zel::getNumThreads());
    for (size_t i = 0; i < parts; ++i) {
        const zel::IndexRange range(n * i / parts, n * (i + 1) / parts);
        zel::RangeJob& first = *m_jobs.emplace_back(std::make_unique<zel::RangeJob>(
            [this, &motion](const zel::RangeJob& job) { drift(motion, job.getRange()); }, range));
        first.addDependent(&m_allHaveMoved);
        m_task->addJob(&first);
        zel::RangeJob& second = *m_jobs.emplace_back(std::make_unique<zel::RangeJob>(
            [this, &motion, massive](const zel::RangeJob& job) { kick(motion, massive, job.getRange()); },
            range));
        m_allHaveMoved.addDependent(&second);
        m_task->addJob(&second);
    }
}

void Simulation::advance() {
    m_task->execute();
    ++m_steps;
}

void Simulation::drift(const Motion& motion, const zel::IndexRange& range) const {
    for (size_t i = range.begin(); i < range.end(); ++i) {
        motion.velocities[i] += motion.accelerations[i] * (0.5 * m_step);
        motion.positions[i] += motion.velocities[i] * m_step;
    }
}

void Simulation::kick(const Motion& motion, bool massive, const zel::IndexRange& range) const {
    for (size_t i = range.begin(); i < range.end(); ++i) {
        motion.accelerations[i] = acceleration(motion.positions[i], massive ? i : Massless);
        motion.velocities[i] += motion.accelerations[i] * (0.5 * m_step);
    }
}

/// The pull of all bodies at a place.
/// @param self  the body that is there, or Massless
Vec3d Simulation::acceleration(const Vec3d& position, size_t self) const {
    Vec3d sum;
    for (size_t i = 0; i < m_gm.size(); ++i) {
        if (i == self)
            continue;
        const Vec3d towards = m_bodies.positions[i] - position;
        const double squared = towards.squaredNorm();
        sum += towards * (m_gm[i] / (squared * std::sqrt(squared)));
    }
    return sum;
}
