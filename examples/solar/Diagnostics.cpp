#include "Diagnostics.h"

#include <zel/String.h>

#include <cmath>
#include <cstring>
#include <ostream>

namespace {

constexpr double TwoPi = 6.28318530717958647692;

} // namespace

Diagnostics::Diagnostics(const zel::Vector<Body>& bodies, const Simulation& simulation)
    : m_bodies(bodies)
    , m_simulation(simulation)
    , m_startEnergy(energy())
    , m_startAngularMomentum(angularMomentum()) {
    for (const Body& body : bodies) {
        Orbit orbit;
        orbit.previous = body.position - bodies[body.parent].position;
        orbit.normal = orbit.previous.cross(body.velocity - bodies[body.parent].velocity).normalised();
        m_orbits.push_back(orbit);
    }
}

void Diagnostics::observe() {
    const double time = m_simulation.time();
    for (size_t i = 1; i < m_orbits.size(); ++i) {
        Orbit& orbit = m_orbits[i];
        const Vec3d now =
            m_simulation.bodies().positions[i] - m_simulation.bodies().positions[m_bodies[i].parent];
        const double change =
            std::atan2(orbit.previous.cross(now).dot(orbit.normal), orbit.previous.dot(now));
        const double target = TwoPi * static_cast<double>(orbit.revolutions + 1);
        if (orbit.angle + change >= target) {
            // Within one step the angle grows evenly enough.
            orbit.lastPassage = m_previousTime + (time - m_previousTime) * (target - orbit.angle) / change;
            ++orbit.revolutions;
        }
        orbit.angle += change;
        orbit.previous = now;
    }
    m_previousTime = time;
}

double Diagnostics::period(size_t index) const {
    const Orbit& orbit = m_orbits[index];
    if (orbit.revolutions > 0)
        return orbit.lastPassage / static_cast<double>(orbit.revolutions) / SecondsPerDay;
    const size_t parent = m_bodies[index].parent;
    const auto& x = m_simulation.bodies().positions;
    const auto& v = m_simulation.bodies().velocities;
    const double gm = m_bodies[index].gm + m_bodies[parent].gm;
    const double a = 1 / (2 / (x[index] - x[parent]).norm() - (v[index] - v[parent]).squaredNorm() / gm);
    return TwoPi * std::sqrt(a * a * a / gm) / SecondsPerDay;
}

/// Masses enter as GM, so the energy comes out times the constant of gravity, which cancels in ratios.
double Diagnostics::energy() const {
    const auto& gm = m_simulation.gm();
    const auto& x = m_simulation.bodies().positions;
    const auto& v = m_simulation.bodies().velocities;
    double sum = 0;
    for (size_t i = 0; i < gm.size(); ++i) {
        sum += 0.5 * gm[i] * v[i].squaredNorm();
        for (size_t j = 0; j < i; ++j)
            sum -= gm[i] * gm[j] / (x[i] - x[j]).norm();
    }
    return sum;
}

Vec3d Diagnostics::angularMomentum() const {
    Vec3d sum;
    for (size_t i = 0; i < m_simulation.gm().size(); ++i)
        sum += m_simulation.bodies().positions[i].cross(m_simulation.bodies().velocities[i]) *
               m_simulation.gm()[i];
    return sum;
}

void Diagnostics::print(std::ostream& stream) const {
    const Vec3d momentum = angularMomentum();
    stream << zel::String::format("Relative drift of energy            %9.2e\n",
                                  (energy() - m_startEnergy) / std::abs(m_startEnergy))
           << zel::String::format("Relative drift of angular momentum  %9.2e\n\n",
                                  (momentum - m_startAngularMomentum).norm() / m_startAngularMomentum.norm())
           << "Body        around      period found   known      difference   revolutions\n"
           << "                            days       days          %\n";
    for (size_t i = 1; i < m_bodies.size(); ++i) {
        const Body& body = m_bodies[i];
        const double found = period(i);
        stream << zel::String::format("%-10s  %-8s  %c%13.4f  %11.4f  %+9.4f  %8lu\n",
                                      body.name.c_str(),
                                      m_bodies[body.parent].name.c_str(),
                                      m_orbits[i].revolutions > 0 ? ' ' : '~',
                                      found,
                                      body.knownPeriod,
                                      100 * (found / body.knownPeriod - 1),
                                      m_orbits[i].revolutions);
    }
}

zel::uint64 Diagnostics::stateHash() const {
    // FNV-1a (G. Fowler, L. C. Noll, K.-P. Vo) over the bytes of the components.
    zel::uint64 hash = 0xCBF29CE484222325U;
    const Motion& bodies = m_simulation.bodies();
    const Motion& particles = m_simulation.particles();
    for (const auto* column :
         {&bodies.positions, &particles.positions, &bodies.velocities, &particles.velocities})
        for (const Vec3d& value : *column)
            for (size_t i = 0; i < 3; ++i) {
                unsigned char bytes[sizeof(double)];
                std::memcpy(bytes, value.data() + i, sizeof(double));
                for (const unsigned char byte : bytes)
                    hash = (hash ^ byte) * 0x100000001B3U;
            }
    return hash;
}
