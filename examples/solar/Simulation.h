#pragma once

#include "Bodies.h"

#include <zel/Job.h>
#include <zel/ParallelTask.h>
#include <zel/RangeJob.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>
#include <zelData/Array.h>
#include <zelData/EntityStorage.h>

#include <memory>

/// The columns of a storage of the entity solar.Particle, or of one derived from it.
struct Motion {
    /// @throws std::runtime_error if the storage has no such columns
    explicit Motion(const zelData::EntityStorage& storage);

    [[nodiscard]] size_t size() const noexcept { return positions.size(); }

    zelData::Array<Vec3d> positions;
    zelData::Array<Vec3d> velocities;
    zelData::Array<Vec3d> accelerations;
};

/// Newtonian gravity among the bodies, and of the bodies on massless particles. Both live in storages of the
/// model; the phases stream over their columns.
///
/// The scheme is the kick-drift-kick leapfrog, also called velocity Verlet: symplectic, of second order (L.
/// Verlet, Physical Review 159, 1967; E. Hairer, C. Lubich, G. Wanner, Acta Numerica 12, 2003). Each step has
/// two phases of range jobs on the worker threads: half a kick and the drift; then, when all have moved, the
/// forces and the other half of the kick. A body's force is summed by one job in a fixed order, so the result
/// does not depend on the number of threads.
/// @threads the thread that called zelCore::init()
class Simulation {
public:
    /// Fills the storages, which must be empty and may not change their sizes from then on.
    /// @param bodies     storage of the entity solar.Body
    /// @param particles  storage of the entity solar.Particle
    /// @param step       seconds
    /// @throws std::runtime_error if a storage lacks a column
    Simulation(zelData::EntityStorage& bodies,
               zelData::EntityStorage& particles,
               const zel::Vector<Body>& table,
               zel::uint64 numParticles,
               double step);

    void advance();

    /// In the order of the table.
    [[nodiscard]] const Motion& bodies() const noexcept { return m_bodies; }
    [[nodiscard]] const Motion& particles() const noexcept { return m_particles; }
    /// The mass parameters of the bodies.
    [[nodiscard]] const zelData::Array<double>& gm() const noexcept { return m_gm; }
    /// Seconds since the beginning.
    [[nodiscard]] double time() const noexcept { return static_cast<double>(m_steps) * m_step; }

private:
    void makeJobs(const Motion& motion, bool massive);
    void drift(const Motion& motion, const zel::IndexRange& range) const;
    void kick(const Motion& motion, bool massive, const zel::IndexRange& range) const;
    [[nodiscard]] Vec3d acceleration(const Vec3d& position, size_t self) const;

    double m_step;
    zel::uint64 m_steps = 0;
    zelData::Array<double> m_gm;
    Motion m_bodies;
    Motion m_particles;

    // The jobs of a step, made once; they outlive the task that connects them.
    zel::Vector<std::unique_ptr<zel::RangeJob>> m_jobs;
    zel::Job m_allHaveMoved;
    zel::ref_ptr<zel::ParallelTask> m_task;
};
