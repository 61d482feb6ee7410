#pragma once

#include "Bodies.h"

#include <zel/String.h>
#include <zel/Vec.h>
#include <zel/Vector.h>
#include <zelData/Array.h>

#include <iosfwd>

namespace zelData {
class EntityStorage;
}

/// What a physicist checks: conserved quantities and orbital periods.
class Diagnostics {
public:
    /// @param bodies     of the entity solar.Body; both stay as they are in size
    /// @param particles  of the entity solar.Particle
    /// @throws std::runtime_error if a storage lacks a column
    Diagnostics(const zelData::EntityStorage& bodies, const zelData::EntityStorage& particles);

    /// Follows the angle that each body sweeps about its parent; once after each step.
    /// @param time  seconds since the beginning
    void observe(double time);

    /// The drift of energy and angular momentum, and a row for each body: its period found, the known one and
    /// how many revolutions it was taken from. A body that has not gone once around gets the period of the
    /// ellipse that it moves on at the end, marked by "~".
    void print(std::ostream& stream) const;

    /// A hash of all positions and velocities: equal bits give equal numbers.
    [[nodiscard]] zel::uint64 stateHash() const;

private:
    struct Orbit {
        Vec3d normal;           ///< of the orbit's plane at the beginning
        Vec3d previous;         ///< position about the parent, m
        double angle = 0;       ///< swept so far, radians
        double lastPassage = 0; ///< when the last whole revolution ended, seconds
        zel::uint64 revolutions = 0;
    };

    [[nodiscard]] double energy() const;
    [[nodiscard]] Vec3d angularMomentum() const;
    [[nodiscard]] double period(size_t index) const;

    zelData::Array<Vec3d> m_positions; // of the bodies
    zelData::Array<Vec3d> m_velocities;
    zelData::Array<double> m_gm;
    zelData::Array<zel::String> m_names;
    zelData::Array<zel::uint32> m_parents;
    zelData::Array<double> m_knownPeriods;
    zelData::Array<Vec3d> m_particlePositions;
    zelData::Array<Vec3d> m_particleVelocities;
    zel::Vector<Orbit> m_orbits;
    double m_startEnergy;
    Vec3d m_startAngularMomentum;
    double m_previousTime = 0;
};
