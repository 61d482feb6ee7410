// The kernels of the solar system: a plug-in that the model files name. See Components/solar.
//
// The scheme is the kick-drift-kick leapfrog, also called velocity Verlet: symplectic, of second order (L.
// Verlet, Physical Review 159, 1967; E. Hairer, C. Lubich, G. Wanner, Acta Numerica 12, 2003). The order of
// its steps is the model's; a kick is half of one. A body's force is summed by one job in a fixed order, so
// the result does not depend on the number of threads.
#include "Bodies.h"
#include "Parameters.h"

#include <zel/LambdaKernel.h>
#include <zel/RangeJob.h>
#include <zel/TaskPlugin.h>

#include <cmath>
#include <limits>

namespace {

using zelData::AccessMode::READ;
using zelData::AccessMode::READ_WRITE;
using zelData::AccessMode::WRITE;

/// Half a change of the velocities: v += a * timeStep / 2.
class Kick : public zel::LambdaKernel {
public:
    Kick(const zel::Name& name, zel::Device* device)
        : LambdaKernel(
              name, [this](const zel::RangeJob& job) { run(job.getRange()); }, device)
        , m_targets(storageParameter(this, "targets", "solar.Particle", READ_WRITE))
        , m_velocities(m_targets, "velocity", "Vec3:64bit", READ_WRITE)
        , m_accelerations(m_targets, "acceleration", "Vec3:64bit", READ)
        , m_timeStep(this, "timeStep", "Real:64bit") {}

private:
    void run(const zel::IndexRange& range) const {
        Vec3d* const velocities = m_velocities.data();
        const Vec3d* const accelerations = m_accelerations.data();
        const double half = 0.5 * m_timeStep.get();
        for (size_t i = range.begin(); i < range.end(); ++i)
            velocities[i] += accelerations[i] * half;
    }

    zel::EntityDataParameter* m_targets;
    Column<Vec3d> m_velocities;
    Column<Vec3d> m_accelerations;
    Scalar<double> m_timeStep;
};

/// The motion of a step: x += v * timeStep.
class Drift : public zel::LambdaKernel {
public:
    Drift(const zel::Name& name, zel::Device* device)
        : LambdaKernel(
              name, [this](const zel::RangeJob& job) { run(job.getRange()); }, device)
        , m_targets(storageParameter(this, "targets", "solar.Particle", READ_WRITE))
        , m_positions(m_targets, "position", "Vec3:64bit", READ_WRITE)
        , m_velocities(m_targets, "velocity", "Vec3:64bit", READ)
        , m_timeStep(this, "timeStep", "Real:64bit") {}

private:
    void run(const zel::IndexRange& range) const {
        Vec3d* const positions = m_positions.data();
        const Vec3d* const velocities = m_velocities.data();
        const double step = m_timeStep.get();
        for (size_t i = range.begin(); i < range.end(); ++i)
            positions[i] += velocities[i] * step;
    }

    zel::EntityDataParameter* m_targets;
    Column<Vec3d> m_positions;
    Column<Vec3d> m_velocities;
    Scalar<double> m_timeStep;
};

/// The pull of all sources on the targets, which may be the sources themselves.
class Forces : public zel::LambdaKernel {
public:
    Forces(const zel::Name& name, zel::Device* device)
        : LambdaKernel(
              name, [this](const zel::RangeJob& job) { run(job.getRange()); }, device)
        , m_targets(storageParameter(this, "targets", "solar.Particle", READ_WRITE))
        , m_sources(storageParameter(this, "sources", "solar.Body", READ))
        , m_positions(m_targets, "position", "Vec3:64bit", READ)
        , m_accelerations(m_targets, "acceleration", "Vec3:64bit", WRITE)
        , m_sourcePositions(m_sources, "position", "Vec3:64bit", READ)
        , m_sourceGm(m_sources, "gm", "Real:64bit", READ) {}

private:
    void run(const zel::IndexRange& range) const {
        const Vec3d* const positions = m_positions.data();
        Vec3d* const accelerations = m_accelerations.data();
        const Vec3d* const sourcePositions = m_sourcePositions.data();
        const double* const sourceGm = m_sourceGm.data();
        const size_t numSources = m_sources->getStorage()->size();
        const bool themselves = m_sources->getStorage() == m_targets->getStorage();
        for (size_t i = range.begin(); i < range.end(); ++i)
            accelerations[i] =
                pull(sourcePositions, sourceGm, numSources, positions[i], themselves ? i : NoBody);
    }

    zel::EntityDataParameter* m_targets;
    zel::EntityDataParameter* m_sources;
    Column<Vec3d> m_positions;
    Column<Vec3d> m_accelerations;
    Column<Vec3d> m_sourcePositions;
    Column<double> m_sourceGm;
};

zel::TaskPlugin s_kickPlugin("solar.Kick", zel::Device::Type::Cpu);
const zel::TaskPluginImplementationT<Kick> s_kick(s_kickPlugin, "Kick");
zel::TaskPlugin s_driftPlugin("solar.Drift", zel::Device::Type::Cpu);
const zel::TaskPluginImplementationT<Drift> s_drift(s_driftPlugin, "Drift");
zel::TaskPlugin s_forcesPlugin("solar.Forces", zel::Device::Type::Cpu);
const zel::TaskPluginImplementationT<Forces> s_forces(s_forcesPlugin, "Forces");

} // namespace
