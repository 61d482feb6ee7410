#pragma once

#include "Simulation.h"

#include <iosfwd>

/// What a physicist checks: conserved quantities and orbital periods.
class Diagnostics {
public:
    Diagnostics(const zel::Vector<Body>& bodies, const Simulation& simulation);

    /// Follows the angle that each body sweeps about its parent; once after each step.
    void observe();

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

    const zel::Vector<Body>& m_bodies;
    const Simulation& m_simulation;
    zel::Vector<Orbit> m_orbits;
    double m_startEnergy;
    Vec3d m_startAngularMomentum;
    double m_previousTime = 0;
};
