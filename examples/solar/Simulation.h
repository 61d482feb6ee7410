#pragma once

#include "Bodies.h"

#include <zel/Job.h>
#include <zel/ParallelTask.h>
#include <zel/RangeJob.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>

/// Newtonian gravity among the bodies, and of the bodies on massless particles.
///
/// The scheme is the kick-drift-kick leapfrog, also called velocity Verlet: symplectic, of second order (L.
/// Verlet, Physical Review 159, 1967; E. Hairer, C. Lubich, G. Wanner, Acta Numerica 12, 2003). Each step has
/// two phases of range jobs on the worker threads: half a kick and the drift; then, when all have moved, the
/// forces and the other half of the kick. A body's force is summed by one job in a fixed order, so the result
/// does not depend on the number of threads.
/// @threads the thread that called zelCore::init()
class Simulation {
public:
    /// @param step  seconds
    Simulation(const zel::Vector<Body>& bodies, zel::uint64 particles, double step);

    void advance();

    [[nodiscard]] size_t numBodies() const noexcept { return m_gm.size(); }
    /// The bodies come first, then the particles.
    [[nodiscard]] const zel::VectorPOD<Vec3d>& positions() const noexcept { return m_positions; }
    [[nodiscard]] const zel::VectorPOD<Vec3d>& velocities() const noexcept { return m_velocities; }
    [[nodiscard]] const zel::VectorPOD<double>& gm() const noexcept { return m_gm; }
    /// Seconds since the beginning.
    [[nodiscard]] double time() const noexcept { return static_cast<double>(m_steps) * m_step; }

private:
    void makeJobs();
    void drift(const zel::IndexRange& range);
    void kick(const zel::IndexRange& range);
    [[nodiscard]] Vec3d acceleration(size_t index) const;

    double m_step;
    zel::uint64 m_steps = 0;
    zel::VectorPOD<double> m_gm;
    zel::VectorPOD<Vec3d> m_positions;
    zel::VectorPOD<Vec3d> m_velocities;
    zel::VectorPOD<Vec3d> m_accelerations;

    // The jobs of a step, made once; they outlive the task that connects them.
    zel::Vector<zel::RangeJob> m_drifts;
    zel::Vector<zel::RangeJob> m_kicks;
    zel::Job m_allHaveMoved;
    zel::ref_ptr<zel::ParallelTask> m_task;
};
