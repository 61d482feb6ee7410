#include "Simulation.h"

#include <zel/Thread.h>

#include <algorithm>
#include <cmath>

namespace {

// Long enough that a job's work outweighs its scheduling.
constexpr size_t MinimumRange = 64;

/// Cuts [0, n) into one range job a thread, or fewer if they would be short.
void cut(size_t n, zel::Vector<zel::RangeJob>& jobs, const zel::Callback1<const zel::RangeJob&>& work) {
    const size_t parts = std::clamp<size_t>(n / MinimumRange, 1, zel::getNumThreads());
    for (size_t i = 0; i < parts; ++i)
        jobs.push_back(zel::RangeJob(work, zel::IndexRange(n * i / parts, n * (i + 1) / parts)));
}

} // namespace

Simulation::Simulation(const zel::Vector<Body>& bodies, zel::uint64 particles, double step)
    : m_step(step), m_allHaveMoved("allHaveMoved"), m_task(new zel::ParallelTask("step")) {
    const size_t n = bodies.size() + particles;
    m_positions.resize(n);
    m_velocities.resize(n);
    m_accelerations.resize(n);
    for (size_t i = 0; i < bodies.size(); ++i) {
        m_gm.push_back(bodies[i].gm);
        m_positions[i] = bodies[i].position;
        m_velocities[i] = bodies[i].velocity;
    }
    for (size_t i = bodies.size(); i < n; ++i)
        beltState(i - bodies.size(), bodies[0], m_positions[i], m_velocities[i]);
    for (size_t i = 0; i < n; ++i)
        m_accelerations[i] = acceleration(i);
    makeJobs();
}

/// drifts -> allHaveMoved -> kicks
void Simulation::makeJobs() {
    const size_t n = m_positions.size();
    cut(n, m_drifts, [this](const zel::RangeJob& job) { drift(job.getRange()); });
    cut(n, m_kicks, [this](const zel::RangeJob& job) { kick(job.getRange()); });
    for (zel::RangeJob& job : m_drifts) {
        job.addDependent(&m_allHaveMoved);
        m_task->addJob(&job);
    }
    for (zel::RangeJob& job : m_kicks) {
        m_allHaveMoved.addDependent(&job);
        m_task->addJob(&job);
    }
}

void Simulation::advance() {
    m_task->execute();
    ++m_steps;
}

void Simulation::drift(const zel::IndexRange& range) {
    for (size_t i = range.begin(); i < range.end(); ++i) {
        m_velocities[i] += m_accelerations[i] * (0.5 * m_step);
        m_positions[i] += m_velocities[i] * m_step;
    }
}

void Simulation::kick(const zel::IndexRange& range) {
    for (size_t i = range.begin(); i < range.end(); ++i) {
        m_accelerations[i] = acceleration(i);
        m_velocities[i] += m_accelerations[i] * (0.5 * m_step);
    }
}

Vec3d Simulation::acceleration(size_t index) const {
    const Vec3d position = m_positions[index];
    Vec3d sum;
    for (size_t i = 0; i < m_gm.size(); ++i) {
        if (i == index)
            continue;
        const Vec3d towards = m_positions[i] - position;
        const double squared = towards.squaredNorm();
        sum += towards * (m_gm[i] / (squared * std::sqrt(squared)));
    }
    return sum;
}
