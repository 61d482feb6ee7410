#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Object.h>
#include <zel/Vector.h>
#include <zel/ref_ptr.h>

namespace zel {

/// The children of a component in their order, which it owns. Each child knows its place, and one that leaves
/// leaves its place empty, so that none of the others has to be looked at. Places close up once more than
/// half of them are empty.
/// @threads one thread changes the list; others may read while it is not changed
/// @cost push_back and erase O(1) on average; get O(1), some hundred steps while there are empty places
class ZEL_CORE_API ObjectList {
public:
    static constexpr size_t NoPlace = ~size_t{0};

    [[nodiscard]] size_t size() const noexcept { return m_places.size() - m_numEmpty; }
    /// @pre index is below size(); not checked
    [[nodiscard]] Object* get(size_t index) const {
        return m_places[m_numEmpty == 0 ? index : placeOf(index)].get();
    }
    /// The child goes without news of its rebinds; see setDemanding.
    void push_back(Object* object);
    /// @pre the object is in the list
    void erase(Object* object);
    /// Closes up if it is time for it. Places change; nothing else does so.
    void closeUp();
    [[nodiscard]] Vector<ref_ptr<Object>> hold() const;

    /// Calls the visitor on each child, which must not change the list.
    template <typename Visit>
    void forEach(const Visit& visit) const {
        for (const ref_ptr<Object>& object : m_places)
            if (object)
                visit(object.get());
    }

    // For walks that change the list, by place.

    [[nodiscard]] size_t getNumPlaces() const noexcept { return m_places.size(); }
    /// Null where a child has left.
    [[nodiscard]] Object* at(size_t place) const { return m_places[place].get(); }

    // Those whose rebind() has something to do

    /// Notes whether a child is one of them.
    void setDemanding(Object* object, bool demands);
    [[nodiscard]] size_t getNumDemanding() const noexcept { return m_numDemanding; }
    /// The first place of such a child that is not below the given one; NoPlace if there is none.
    [[nodiscard]] size_t nextDemanding(size_t place);

private:
    [[nodiscard]] size_t placeOf(size_t index) const noexcept;
    [[nodiscard]] bool isDemanding(uint32 place) const;
    void buildCounts();
    void sortDemanding();

    Vector<ref_ptr<Object>> m_places; // null where a child has left; not at the end
    size_t m_numEmpty = 0;
    // How many children there are in each group of blocks, and behind that in each of its blocks; see
    // ObjectList.cpp. Made for the first empty place: an index leads to its place by these, and a child that
    // leaves changes two of them.
    VectorPOD<uint32> m_counts;
    VectorPOD<uint32> m_demanding; // places; also some whose child has left, or demands nothing any more
    size_t m_numDemanding = 0;
    bool m_isSorted = true; // m_demanding
};

} // namespace zel
