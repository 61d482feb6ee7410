#pragma once

#include <zel/Integers.h>
#include <zel/String.h>
#include <zel/Vec.h>
#include <zel/Vector.h>

#include <cmath>
#include <limits>
#include <string>

using Vec3d = zel::Vec3T<double>;

inline constexpr double SecondsPerDay = 86400.0;

/// A body of the table, with its state in SI units about the barycentre of all of them.
struct Body {
    std::string name;
    size_t parent = 0; ///< index of the body that it goes around; its own index for the centre of the system
    double gm = 0;     ///< mass parameter, m^3/s^2
    Vec3d position;    ///< m
    Vec3d velocity;    ///< m/s
    double knownPeriod = 0; ///< published sidereal period, days; 0 for the centre
};

/// Reads the table and turns the orbital elements into state vectors, centred on the barycentre.
///
/// Elements become states by Kepler's equation (D. A. Vallado, Fundamentals of Astrodynamics and
/// Applications, chapter 2). A row that other rows go around stands for the barycentre of the body and those
/// others.
/// @throws std::runtime_error with file and line
[[nodiscard]] zel::Vector<Body> readBodies(const zel::String& file);

inline constexpr size_t NoBody = std::numeric_limits<size_t>::max();

/// The Newtonian pull of the bodies at a place, m/s^2.
/// @param gm    the mass parameters of the bodies
/// @param self  the body that is there, which is left out; or NoBody
[[nodiscard]] inline Vec3d
pull(const Vec3d* positions, const double* gm, size_t numBodies, const Vec3d& place, size_t self) {
    Vec3d sum;
    for (size_t i = 0; i < numBodies; ++i) {
        if (i == self)
            continue;
        const Vec3d towards = positions[i] - place;
        const double squared = towards.squaredNorm();
        sum += towards * (gm[i] / (squared * std::sqrt(squared)));
    }
    return sum;
}

/// The state of a massless particle of the belt about a central body: near-circular orbits from 2.1 to 3.3
/// astronomical units. The same index always gives the same orbit.
void beltState(zel::uint64 index, const Body& centre, Vec3d& position, Vec3d& velocity);
