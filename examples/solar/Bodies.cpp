#include "Bodies.h"

#include <zel/Exception.h>
#include <zelIO/FileSystem.h>

#include <array>
#include <charconv>
#include <cmath>
#include <stdexcept>
#include <string_view>

namespace {

constexpr double Pi = 3.14159265358979323846;
constexpr double AstronomicalUnit = 149597870700.0; // m, IAU 2012

/// Keplerian elements; lengths in m, angles in radians.
struct Elements {
    double a = 0;
    double e = 0;
    double inclination = 0;
    double node = 0;
    double periapsis = 0;
    double meanAnomaly = 0;
};

double radians(double degrees) {
    return degrees * Pi / 180.0;
}

/// Solves E - e sin E = M by Newton's method.
double eccentricAnomaly(double meanAnomaly, double e) {
    double anomaly = e < 0.8 ? meanAnomaly : Pi;
    for (int i = 0; i < 50; ++i) {
        const double change = (anomaly - e * std::sin(anomaly) - meanAnomaly) / (1 - e * std::cos(anomaly));
        anomaly -= change;
        if (std::abs(change) < 1e-14)
            break;
    }
    return anomaly;
}

void toState(const Elements& elements, double gm, Vec3d& position, Vec3d& velocity) {
    const double anomaly = eccentricAnomaly(std::remainder(elements.meanAnomaly, 2 * Pi), elements.e);
    const double root = std::sqrt(1 - elements.e * elements.e);
    const double radius = elements.a * (1 - elements.e * std::cos(anomaly));
    const double speed = std::sqrt(gm * elements.a) / radius;
    // In the plane of the orbit, x towards the periapsis.
    const double px = elements.a * (std::cos(anomaly) - elements.e);
    const double py = elements.a * root * std::sin(anomaly);
    const double vx = -speed * std::sin(anomaly);
    const double vy = speed * root * std::cos(anomaly);

    const double co = std::cos(elements.node), so = std::sin(elements.node);
    const double cw = std::cos(elements.periapsis), sw = std::sin(elements.periapsis);
    const double ci = std::cos(elements.inclination), si = std::sin(elements.inclination);
    const Vec3d x(co * cw - so * sw * ci, so * cw + co * sw * ci, sw * si);
    const Vec3d y(-co * sw - so * cw * ci, -so * sw + co * cw * ci, cw * si);
    position = x * px + y * py;
    velocity = x * vx + y * vy;
}

struct Row {
    Body body;
    Elements elements;
};

[[noreturn]] void refuse(const zel::String& file, size_t line, const std::string& reason) {
    ZEL_THROW(std::runtime_error, file + ":" + std::to_string(line) + ": " + reason);
}

double number(std::string_view text, const zel::String& file, size_t line) {
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value))
        refuse(file, line, std::string("'").append(text) + "' is no number");
    return value;
}

/// name, parent, GM, a, e, i, node, periapsis, mean anomaly, period
constexpr size_t NumColumns = 10;

Row parseRow(std::string_view text, const zel::Vector<Row>& rows, const zel::String& file, size_t line) {
    std::array<std::string_view, NumColumns> columns;
    size_t count = 0;
    for (bool more = true; more; ++count) {
        const size_t comma = text.find(',');
        more = comma != std::string_view::npos;
        if (count < NumColumns)
            columns[count] = text.substr(0, comma);
        text.remove_prefix(more ? comma + 1 : text.size());
    }
    if (count != NumColumns)
        refuse(
            file, line, "a row has " + std::to_string(NumColumns) + " columns, not " + std::to_string(count));

    Row row;
    row.body.name = columns[0];
    row.body.parent = rows.size();
    if (row.body.name.empty())
        refuse(file, line, "the body has no name");
    if (columns[1].empty() != rows.empty())
        refuse(file, line, "the first body, and only that one, has no parent");
    for (size_t i = 0; i < rows.size(); ++i) {
        if (rows[i].body.name == row.body.name)
            refuse(file, line, "a second body '" + row.body.name + "'");
        if (rows[i].body.name == columns[1])
            row.body.parent = i;
    }
    if (!rows.empty() && row.body.parent == rows.size())
        refuse(file, line, "no body '" + std::string(columns[1]) + "' above this row");
    const auto at = [&](size_t i) { return number(columns[i], file, line); };
    row.body.gm = at(2) * 1e9;
    row.elements = {at(3) * 1e3, at(4), radians(at(5)), radians(at(6)), radians(at(7)), radians(at(8))};
    row.body.knownPeriod = at(9);
    if (!(row.body.gm > 0))
        refuse(file, line, "GM must be above 0");
    if (!rows.empty() && !(row.elements.a > 0 && row.elements.e >= 0 && row.elements.e < 1))
        refuse(file, line, "the orbit must be an ellipse");
    return row;
}

zel::Vector<Row> parseTable(const std::string& text, const zel::String& file) {
    zel::Vector<Row> rows;
    std::string_view rest = text;
    bool header = true;
    for (size_t line = 1; !rest.empty(); ++line) {
        const size_t end = rest.find('\n');
        std::string_view row = rest.substr(0, end);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        if (!row.empty() && row.back() == '\r')
            row.remove_suffix(1);
        if (row.empty() || row.front() == '#')
            continue;
        if (header)
            header = false;
        else
            rows.push_back(parseRow(row, rows, file, line));
    }
    if (rows.empty())
        refuse(file, 1, "there is no body in the file");
    return rows;
}

} // namespace

zel::Vector<Body> readBodies(const zel::String& file) {
    const zel::Vector<Row> rows = parseTable(zelIO::FileSystem::readFile(file), file);

    // What goes around a body lies behind it in the table, so walking backwards sums whole systems up.
    zel::Vector<double> systemGm;
    for (const Row& row : rows)
        systemGm.push_back(row.body.gm);
    for (size_t i = rows.size(); i-- > 1;)
        systemGm[rows[i].body.parent] += systemGm[i];

    // States of the systems' barycentres about the body that they go around...
    zel::Vector<Body> bodies;
    for (size_t i = 0; i < rows.size(); ++i) {
        Body body = rows[i].body;
        if (i > 0)
            toState(rows[i].elements, rows[body.parent].body.gm + systemGm[i], body.position, body.velocity);
        bodies.push_back(body);
    }
    // ... become those of the bodies themselves about it: each is displaced by what goes around it ...
    for (size_t i = 1; i < bodies.size(); ++i)
        for (size_t j = i + 1; j < bodies.size(); ++j)
            if (bodies[j].parent == i) {
                bodies[i].position -= bodies[j].position * (systemGm[j] / systemGm[i]);
                bodies[i].velocity -= bodies[j].velocity * (systemGm[j] / systemGm[i]);
            }
    // ... and then, from the centre outwards, absolute.
    for (size_t i = 1; i < bodies.size(); ++i) {
        bodies[i].position += bodies[bodies[i].parent].position;
        bodies[i].velocity += bodies[bodies[i].parent].velocity;
    }
    Vec3d position;
    Vec3d velocity;
    for (const Body& body : bodies) {
        position += body.position * (body.gm / systemGm[0]);
        velocity += body.velocity * (body.gm / systemGm[0]);
    }
    for (Body& body : bodies) {
        body.position -= position;
        body.velocity -= velocity;
    }
    return bodies;
}

void beltState(zel::uint64 index, const Body& centre, Vec3d& position, Vec3d& velocity) {
    // The mixing function of S. Vigna's splitmix64 gives each index its own row of uniform numbers.
    zel::uint64 state = index * 0x9E3779B97F4A7C15U;
    const auto uniform = [&state](double lower, double upper) {
        zel::uint64 z = (state += 0x9E3779B97F4A7C15U);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9U;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBU;
        z ^= z >> 31;
        return lower + (upper - lower) * (static_cast<double>(z >> 11) * 0x1.0p-53);
    };
    Elements elements;
    elements.a = uniform(2.1, 3.3) * AstronomicalUnit;
    elements.e = uniform(0, 0.2);
    elements.inclination = radians(uniform(0, 10));
    elements.node = uniform(0, 2 * Pi);
    elements.periapsis = uniform(0, 2 * Pi);
    elements.meanAnomaly = uniform(0, 2 * Pi);
    toState(elements, centre.gm, position, velocity);
    position += centre.position;
    velocity += centre.velocity;
}
