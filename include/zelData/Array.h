#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Range.h>
#include <zel/Vector.h>

#include <type_traits>

namespace zelData {

class Buffer;

/// The untyped part of Array: three words, which may be copied bitwise.
/// @threads external lock; concurrent reads
class ZEL_CORE_API AbstractArray {
public:
    constexpr AbstractArray() noexcept = default;

    /// The buffer whose memory is viewed; null for a view of other memory.
    [[nodiscard]] Buffer* buffer() const noexcept { return m_buffer; }
    /// Which elements of the buffer are viewed.
    [[nodiscard]] const zel::IndexRangeT<zel::uint32>& range() const noexcept { return m_range; }
    [[nodiscard]] zel::uint32 size() const noexcept { return m_range.size(); }
    [[nodiscard]] bool empty() const noexcept { return m_range.empty(); }
    /// The memory of the first element.
    [[nodiscard]] void* ptr() const noexcept { return m_ptr; }

    /// Views elements of a buffer; a null buffer gives an empty view.
    void bind(Buffer* buffer, const zel::IndexRangeT<zel::uint32>& range);
    /// Views the first elements of a buffer, or fewer; the pointer stays as it is.
    void setRange(const zel::IndexRangeT<zel::uint32>& range) noexcept { m_range = range; }
    /// Views nothing and remembers the reference, which may be a number, and the range: for frames, in which
    /// nobody follows it.
    void setReference(Buffer* reference, const zel::IndexRangeT<zel::uint32>& range) noexcept {
        m_ptr = nullptr;
        m_buffer = reference;
        m_range = range;
    }
    /// Computes the pointer anew from the buffer's present memory. Does nothing without a buffer.
    void sync();

protected:
    AbstractArray(void* pointer, zel::uint32 size) noexcept : m_ptr(pointer), m_range(0, size) {}

private:
    void* m_ptr = nullptr;
    Buffer* m_buffer = nullptr;
    zel::IndexRangeT<zel::uint32> m_range;
};

/// A non-owning view of elements in a row: of a buffer, or of other memory. Does not follow a buffer that
/// moves its memory: whoever keeps the view calls sync().
/// @threads external lock; concurrent reads; distinct elements may be written concurrently
template <typename T>
class Array : public AbstractArray {
public:
    using value_type = std::remove_const_t<T>;

    constexpr Array() noexcept = default;
    Array(T* elements, zel::uint32 size) noexcept
        : AbstractArray(const_cast<value_type*>(elements), size) {} // NOLINT: read back as T alone
    template <typename Allocator, bool Trivial>
    Array(zel::BasicVector<value_type, Allocator, Trivial>& elements) noexcept
        : Array(elements.data(), static_cast<zel::uint32>(elements.size())) {}
    /// T must be the element of the buffer's format; not checked.
    Array(Buffer* buffer, const zel::IndexRangeT<zel::uint32>& range) { bind(buffer, range); }

    [[nodiscard]] T* data() const noexcept { return static_cast<T*>(ptr()); }
    [[nodiscard]] T* begin() const noexcept { return data(); }
    [[nodiscard]] T* end() const noexcept { return data() + size(); }
    /// @pre index is below size(); not checked
    [[nodiscard]] T& operator[](zel::size_t index) const noexcept { return data()[index]; }
};

static_assert(sizeof(AbstractArray) == 24 && std::is_trivially_copyable_v<AbstractArray>);
static_assert(sizeof(Array<double>) == 24 && std::is_trivially_copyable_v<Array<double>>);

} // namespace zelData
