#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Range.h>
#include <zelData/EntityPtr.h>

namespace zelData {

/// The instances of a storage at a range of indices. Ends when anything moves instances.
/// @threads external lock; concurrent reads while the storage is not changed
class ZEL_CORE_API EntityRange {
public:
    constexpr EntityRange() noexcept = default;
    constexpr EntityRange(EntityStorage* storage, const zel::IndexRange& range) noexcept
        : m_storage(storage), m_range(range) {}
    constexpr EntityRange(EntityStorage* storage, zel::uint64 begin, zel::uint64 end) noexcept
        : EntityRange(storage, zel::IndexRange(begin, end)) {}

    [[nodiscard]] constexpr EntityStorage* getStorage() const noexcept { return m_storage; }
    [[nodiscard]] constexpr const zel::IndexRange& getRange() const noexcept { return m_range; }
    [[nodiscard]] constexpr zel::uint64 begin() const noexcept { return m_range.begin(); }
    [[nodiscard]] constexpr zel::uint64 end() const noexcept { return m_range.end(); }
    [[nodiscard]] constexpr zel::uint64 size() const noexcept { return m_range.size(); }
    [[nodiscard]] constexpr bool empty() const noexcept { return m_range.empty(); }
    /// The handle of the i-th instance of the range.
    /// @pre i is below size(); not checked
    [[nodiscard]] EntityPtr operator[](zel::uint64 i) const;

    friend constexpr bool operator==(const EntityRange&, const EntityRange&) noexcept = default;

private:
    EntityStorage* m_storage = nullptr;
    zel::IndexRange m_range;
};

} // namespace zelData
