#include "NearName.h"

#include <zel/Vector.h>

#include <algorithm>
#include <cctype>

namespace zel {

namespace {

/// Longer names are not compared: the time grows with the square.
constexpr size_t LongestName = 128;

bool isSameIgnoringCase(std::string_view a, std::string_view b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](unsigned char x, unsigned char y) {
        return std::tolower(x) == std::tolower(y);
    });
}

} // namespace

size_t editDistance(std::string_view a, std::string_view b) {
    // Three rows of the table of distances between the beginnings of both (optimal string alignment).
    const size_t width = b.size() + 1;
    Vector<size_t> rows;
    rows.resize(3 * width);
    size_t* before = rows.data();
    size_t* above = before + width;
    size_t* row = above + width;
    for (size_t j = 0; j < width; ++j)
        row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        std::swap(before, above);
        std::swap(above, row);
        row[0] = i;
        for (size_t j = 1; j < width; ++j) {
            const bool isSame = a[i - 1] == b[j - 1];
            row[j] = std::min({above[j] + 1, row[j - 1] + 1, above[j - 1] + (isSame ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                row[j] = std::min(row[j], before[j - 2] + 1);
        }
    }
    return row[width - 1];
}

void NearName::consider(std::string_view name) {
    if (name.empty() || name == m_wrong || name.size() > LongestName || m_wrong.size() > LongestName)
        return;
    const size_t longer = std::max(name.size(), m_wrong.size());
    const size_t limit = std::max<size_t>(1, longer / 4);
    const size_t difference = longer - std::min(name.size(), m_wrong.size());
    if (longer < 2 || difference > limit)
        return;
    const size_t distance = isSameIgnoringCase(name, m_wrong) ? 0 : editDistance(m_wrong, name);
    if (distance > limit || distance > m_bestDistance || (distance == m_bestDistance && name > m_best))
        return;
    m_bestDistance = distance;
    m_best = name;
}

std::string NearName::hint() const {
    return hint(m_best);
}

std::string NearName::hint(std::string_view name) {
    return name.empty() ? std::string() : " (did you mean '" + std::string(name) + "'?)";
}

} // namespace zel
