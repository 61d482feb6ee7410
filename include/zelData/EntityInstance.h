#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/InvalidIndex.h>
#include <zelData/EntityPtr.h>

#include <iosfwd>
#include <type_traits>

namespace zelData {

class EntityData;

/// An instance by its place: the view of the storage and the index. Costs no look-up, and ends when anything
/// moves instances: for inner loops.
/// @threads external lock; concurrent reads while the storage is not changed
class ZEL_CORE_API EntityInstance {
public:
    constexpr EntityInstance() noexcept = default;
    constexpr EntityInstance(EntityData* data, zel::uint32 index) noexcept : m_data(data), m_index(index) {}
    /// The present place of the handle's instance.
    explicit EntityInstance(const EntityPtr& instance);

    [[nodiscard]] constexpr EntityData* getData() const noexcept { return m_data; }
    [[nodiscard]] constexpr zel::uint32 getIndex() const noexcept { return m_index; }
    /// Null for a null instance.
    [[nodiscard]] EntityStorage* getStorage() const;
    /// The handle of the instance that is here now.
    [[nodiscard]] EntityPtr getPtr() const;
    [[nodiscard]] constexpr bool isNull() const noexcept { return m_data == nullptr; }
    [[nodiscard]] constexpr explicit operator bool() const noexcept { return m_data != nullptr; }

    friend constexpr bool operator==(const EntityInstance&, const EntityInstance&) noexcept = default;

private:
    EntityData* m_data = nullptr;
    zel::uint32 m_index = zel::InvalidIndex;
};

template <>
struct TypeNameOf<EntityInstance> {
    static constexpr const char* name = "EntityInstance";
};

static_assert(sizeof(EntityInstance) == 16 && std::is_trivially_copyable_v<EntityInstance>);

} // namespace zelData
