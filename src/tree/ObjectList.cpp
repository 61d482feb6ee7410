#include <zel/ObjectList.h>

#include <algorithm>
#include <utility>

namespace zel {

namespace {

/// So many empty places are nothing to close up for.
constexpr size_t FewPlaces = 16;

/// Places in a block, and blocks in a group.
constexpr size_t BlockSize = 256;
constexpr size_t GroupSize = BlockSize * BlockSize;
/// Counts of a group: its own, and those of its blocks.
constexpr size_t GroupCounts = 1 + BlockSize;

/// Where the count of the place's group stands.
constexpr size_t groupCount(size_t place) noexcept {
    return place / GroupSize * GroupCounts;
}

constexpr size_t blockCount(size_t place) noexcept {
    return groupCount(place) + 1 + place % GroupSize / BlockSize;
}

void count(VectorPOD<uint32>& counts, size_t place, int change) {
    const size_t block = blockCount(place);
    while (counts.size() <= block)
        counts.push_back(0);
    counts[block] += static_cast<uint32>(change);
    counts[groupCount(place)] += static_cast<uint32>(change);
}

} // namespace

void ObjectList::push_back(Object* object) {
    object->m_place = static_cast<uint32>(m_places.size());
    object->m_isDemanding = false;
    m_places.push_back(ref_ptr<Object>(object));
    if (!m_counts.empty())
        count(m_counts, object->m_place, 1);
}

void ObjectList::erase(Object* object) {
    const size_t place = object->m_place;
    const bool isLast = place + 1 == m_places.size();
    if (!isLast && m_counts.empty())
        buildCounts();
    setDemanding(object, false);
    if (!m_counts.empty())
        count(m_counts, place, -1);
    if (!isLast) {
        ++m_numEmpty;
        m_places[place] = nullptr;
        return;
    }
    m_places.pop_back();
    for (; !m_places.empty() && !m_places.back(); --m_numEmpty)
        m_places.pop_back();
}

/// While there is no empty place.
void ObjectList::buildCounts() {
    for (size_t place = 0; place < m_places.size(); ++place)
        count(m_counts, place, 1);
}

void ObjectList::closeUp() {
    if (m_numEmpty <= size() + FewPlaces)
        return;
    m_demanding.clear();
    m_isSorted = true;
    uint32 place = 0;
    for (ref_ptr<Object>& object : m_places) {
        if (!object)
            continue;
        if (object->m_isDemanding)
            m_demanding.push_back(place);
        object->m_place = place;
        if (ref_ptr<Object>& free = m_places[place++]; &free != &object)
            free = std::move(object);
    }
    m_places.resize(place);
    m_numEmpty = 0;
    m_counts.clear();
}

Vector<ref_ptr<Object>> ObjectList::hold() const {
    Vector<ref_ptr<Object>> objects;
    objects.reserve(size());
    forEach([&objects](Object* object) { objects.push_back(ref_ptr<Object>(object)); });
    return objects;
}

size_t ObjectList::placeOf(size_t index) const noexcept {
    size_t place = 0;
    for (; index >= m_counts[groupCount(place)]; place += GroupSize)
        index -= m_counts[groupCount(place)];
    for (; index >= m_counts[blockCount(place)]; place += BlockSize)
        index -= m_counts[blockCount(place)];
    while (!m_places[place] || index-- != 0)
        ++place;
    return place;
}

bool ObjectList::isDemanding(uint32 place) const {
    return place < m_places.size() && m_places[place] && m_places[place]->m_isDemanding;
}

void ObjectList::setDemanding(Object* object, bool demands) {
    if (std::exchange(object->m_isDemanding, demands) == demands)
        return;
    const uint32 place = object->m_place;
    if (!demands) {
        --m_numDemanding;
        if (m_demanding.back() == place)
            m_demanding.pop_back();
        else if (m_demanding.size() > 2 * m_numDemanding + FewPlaces)
            sortDemanding();
        return;
    }
    ++m_numDemanding;
    m_isSorted = m_isSorted && (m_demanding.empty() || m_demanding.back() < place);
    m_demanding.push_back(place);
}

/// Also leaves out what demands nothing.
void ObjectList::sortDemanding() {
    std::sort(m_demanding.begin(), m_demanding.end());
    const auto end = std::unique(m_demanding.begin(), m_demanding.end());
    const auto last =
        std::remove_if(m_demanding.begin(), end, [this](uint32 place) { return !isDemanding(place); });
    m_demanding.resize(static_cast<size_t>(last - m_demanding.begin()));
    m_isSorted = true;
}

size_t ObjectList::nextDemanding(size_t place) {
    if (m_numDemanding == 0)
        return NoPlace;
    if (!m_isSorted)
        sortDemanding();
    const auto* position = std::lower_bound(m_demanding.begin(), m_demanding.end(), place);
    while (position != m_demanding.end() && !isDemanding(*position))
        ++position;
    return position == m_demanding.end() ? NoPlace : *position;
}

} // namespace zel
