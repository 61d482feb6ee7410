#pragma once

#include <zel/Export.h>

#include <type_traits>

namespace zelData {

class Value;

/// The untyped part of Scalar: two words, which may be copied bitwise.
/// @threads external lock; concurrent reads
class ZEL_CORE_API AbstractScalar {
public:
    constexpr AbstractScalar() noexcept = default;

    /// The value whose element is viewed; null for a view of other memory.
    [[nodiscard]] Value* value() const noexcept { return m_value; }
    [[nodiscard]] bool empty() const noexcept { return m_ptr == nullptr; }
    /// The memory of the element; null while there is none.
    [[nodiscard]] void* ptr() const noexcept { return m_ptr; }

    /// Views the element of a value; a null value gives an empty view.
    void bind(Value* value);
    /// Takes the pointer anew from the value. Does nothing without a value.
    void sync();

protected:
    explicit AbstractScalar(void* pointer) noexcept : m_ptr(pointer) {}

private:
    void* m_ptr = nullptr;
    Value* m_value = nullptr;
};

/// A non-owning view of one element: of a value, or of other memory. Does not follow a value whose element
/// moves, as it does when the value is bound or unbound: whoever keeps the view calls sync().
/// @threads external lock; concurrent reads
template <typename T>
class Scalar : public AbstractScalar {
public:
    using value_type = std::remove_const_t<T>;

    constexpr Scalar() noexcept = default;
    explicit Scalar(T& element) noexcept
        : AbstractScalar(const_cast<value_type*>(&element)) {} // NOLINT: read back as T alone
    /// T must be the element of the value's format; not checked.
    explicit Scalar(Value* value) { bind(value); }

    [[nodiscard]] T* data() const noexcept { return static_cast<T*>(ptr()); }
    /// @pre not empty; not checked
    [[nodiscard]] T& operator*() const noexcept { return *data(); }
    [[nodiscard]] T* operator->() const noexcept { return data(); }
};

static_assert(std::is_trivially_copyable_v<AbstractScalar> && std::is_trivially_copyable_v<Scalar<double>>);

} // namespace zelData
