#pragma once

#include <zel/Export.h>
#include <zel/HashFn.h>
#include <zel/Integers.h>
#include <zel/InvalidIndex.h>

#include <iosfwd>
#include <type_traits>

namespace zelData {

class EntityModel;
class EntityStorage;
template <typename T>
struct TypeNameOf;

/// A handle of an instance: the storage and the instance's id there. Stays valid until the instance is
/// destroyed, wherever it moves within its storage; a use costs one look-up of the present index.
///
/// A plain value; does not keep the storage alive.
/// @threads external lock; concurrent reads while the storage is not changed
class ZEL_CORE_API EntityPtr {
public:
    constexpr EntityPtr() noexcept = default;
    constexpr EntityPtr(EntityStorage* storage, zel::uint32 id) noexcept : m_storage(storage), m_id(id) {}

    [[nodiscard]] constexpr EntityStorage* getStorage() const noexcept { return m_storage; }
    [[nodiscard]] constexpr zel::uint32 getId() const noexcept { return m_id; }
    /// The instance's present index in its storage; InvalidIndex for a null handle.
    [[nodiscard]] zel::uint32 getIndex() const;
    /// Null for a null handle.
    [[nodiscard]] EntityModel* getModel() const;
    [[nodiscard]] constexpr bool isNull() const noexcept { return m_storage == nullptr; }
    [[nodiscard]] constexpr explicit operator bool() const noexcept { return m_storage != nullptr; }

    /// Moves the instance to another storage; this handle follows it. Other handles of it end.
    void transfer(EntityStorage* storage);
    /// Makes a new instance in the same storage with the same content.
    [[nodiscard]] EntityPtr copy() const;
    /// Makes a new instance in the given storage with the same content.
    [[nodiscard]] EntityPtr copy(EntityStorage* storage) const;
    /// Gives this instance the content of the other one, whose model must be this one's or derive from it.
    void copyAttributes(const EntityPtr& other) const;
    /// Destroys the instance and makes this handle null, which may not lie in a column of the storage itself.
    void destroy();

    /// Writes all attributes, one line each.
    void print(std::ostream& stream) const;
    /// The same on the standard output stream.
    void print() const;

    friend constexpr bool operator==(const EntityPtr&, const EntityPtr&) noexcept = default;

private:
    EntityStorage* m_storage = nullptr;
    zel::uint32 m_id = zel::InvalidIndex;
};

static_assert(sizeof(EntityPtr) == 16 && std::is_trivially_copyable_v<EntityPtr>);

template <>
struct TypeNameOf<EntityPtr> {
    static constexpr const char* name = "EntityPtr";
};

/// "(storage, id)".
ZEL_CORE_API std::ostream& operator<<(std::ostream& stream, const EntityPtr& instance);

} // namespace zelData

namespace zel {

template <>
struct HashFn<zelData::EntityPtr, void> {
    [[nodiscard]] uint32 operator()(const zelData::EntityPtr& key) const noexcept {
        return detail::hash64(reinterpret_cast<uint64>(key.getStorage()) ^ (uint64{key.getId()} << 32U));
    }
    [[nodiscard]] static bool equal(const zelData::EntityPtr& a, const zelData::EntityPtr& b) noexcept {
        return a == b;
    }
};

} // namespace zel
