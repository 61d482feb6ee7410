#include "Diagnostics.h"

#include "Bodies.h"
#include "Columns.h"

#include <zel/String.h>

#include <cmath>
#include <cstring>
#include <ostream>

namespace {

constexpr double TwoPi = 6.28318530717958647692;

} // namespace

Diagnostics::Diagnostics(const zelData::EntityStorage& bodies, const zelData::EntityStorage& particles)
    : m_positions(column<Vec3d>(bodies, "position", "Vec3:64bit"))
    , m_velocities(column<Vec3d>(bodies, "velocity", "Vec3:64bit"))
    , m_gm(column<double>(bodies, "gm", "Real:64bit"))
    , m_names(column<zel::String>(bodies, "name", "String:default"))
    , m_parents(column<zel::uint32>(bodies, "parent", "UInt:32bit"))
    , m_knownPeriods(column<double>(bodies, "knownPeriod", "Real:64bit"))
    , m_particlePositions(column<Vec3d>(particles, "position", "Vec3:64bit"))
    , m_particleVelocities(column<Vec3d>(particles, "velocity", "Vec3:64bit"))
    , m_startEnergy(energy())
    , m_startAngularMomentum(angularMomentum()) {
    for (size_t i = 0; i < m_gm.size(); ++i) {
        Orbit orbit;
        orbit.previous = m_positions[i] - m_positions[m_parents[i]];
        orbit.normal = orbit.previous.cross(m_velocities[i] - m_velocities[m_parents[i]]).normalised();
        m_orbits.push_back(orbit);
    }
}

void Diagnostics::observe(double time) {
    for (size_t i = 1; i < m_orbits.size(); ++i) {
        Orbit& orbit = m_orbits[i];
        const Vec3d now = m_positions[i] - m_positions[m_parents[i]];
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
    const size_t parent = m_parents[index];
    const auto& x = m_positions;
    const auto& v = m_velocities;
    const double gm = m_gm[index] + m_gm[parent];
    const double a = 1 / (2 / (x[index] - x[parent]).norm() - (v[index] - v[parent]).squaredNorm() / gm);
    return TwoPi * std::sqrt(a * a * a / gm) / SecondsPerDay;
}

/// Masses enter as GM, so the energy comes out times the constant of gravity, which cancels in ratios.
double Diagnostics::energy() const {
    const auto& gm = m_gm;
    const auto& x = m_positions;
    const auto& v = m_velocities;
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
    for (size_t i = 0; i < m_gm.size(); ++i)
        sum += m_positions[i].cross(m_velocities[i]) * m_gm[i];
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
    for (size_t i = 1; i < m_gm.size(); ++i) {
        const double found = period(i);
        stream << zel::String::format("%-10s  %-8s  %c%13.4f  %11.4f  %+9.4f  %8lu\n",
                                      m_names[i].c_str(),
                                      m_names[m_parents[i]].c_str(),
                                      m_orbits[i].revolutions > 0 ? ' ' : '~',
                                      found,
                                      m_knownPeriods[i],
                                      100 * (found / m_knownPeriods[i] - 1),
                                      m_orbits[i].revolutions);
    }
}

zel::uint64 Diagnostics::stateHash() const {
    // FNV-1a (G. Fowler, L. C. Noll, K.-P. Vo) over the bytes of the components.
    zel::uint64 hash = 0xCBF29CE484222325U;
    for (const auto* column : {&m_positions, &m_particlePositions, &m_velocities, &m_particleVelocities})
        for (const Vec3d& value : *column)
            for (size_t i = 0; i < 3; ++i) {
                unsigned char bytes[sizeof(double)];
                std::memcpy(bytes, value.data() + i, sizeof(double));
                for (const unsigned char byte : bytes)
                    hash = (hash ^ byte) * 0x100000001B3U;
            }
    return hash;
}
