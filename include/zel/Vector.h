#pragma once

#include <zel/ByteAllocator.h>
#include <zel/Container.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <type_traits>
#include <utility>

namespace zel {

namespace detail {
/// Containers may live in an arena that moves them; an allocator that wants to know its container says so by
/// having setContainer.
template <typename Allocator, typename Array>
concept TracksContainer = requires(Allocator allocator, Array* array) {
    allocator.setContainer(array);
};
} // namespace detail

/// The common body of Vector and VectorPOD: a growable array with a capacity of at least 4.
///
/// Growth by push_back doubles the size, computed in single precision; resize and reserve take exactly what
/// is asked for. Any reallocation invalidates pointers, references and iterators; so does insert and erase
/// behind the place of change. `Trivial` arrays copy by memcpy and never run constructors or destructors.
/// @threads external lock
template <typename T, typename Allocator, bool Trivial>
class BasicVector : public Container {
public:
    using value_type = T;
    using iterator = T*;
    using const_iterator = const T*;

    /// The smallest capacity that is ever allocated, in elements.
    static constexpr size_t MinimumCapacity = 4;

    BasicVector() noexcept { attach(); }
    explicit BasicVector(const Allocator& allocator) : m_allocator(allocator) { attach(); }
    explicit BasicVector(size_t n) : BasicVector() { resize(n); }
    BasicVector(size_t n, const T& value) : BasicVector() { resize(n, value); }
    BasicVector(std::initializer_list<T> values) : BasicVector() { assign(values.begin(), values.end()); }
    BasicVector(const BasicVector& other) : BasicVector(other.m_allocator) {
        assign(other.begin(), other.end());
    }
    BasicVector(BasicVector&& other) noexcept : m_allocator(std::move(other.m_allocator)) {
        attach();
        take(other);
    }
    ~BasicVector() {
        release();
        if constexpr (requires(Allocator a) { a.clear(); })
            m_allocator.clear();
    }

    /// Destroys the own elements, adopts the other's allocator and makes room for the other's capacity, at
    /// least 4; then copies the elements.
    BasicVector& operator=(const BasicVector& other) {
        if (this == &other)
            return *this;
        destroy(0, m_size);
        m_size = 0;
        const size_t capacity = std::max(other.m_capacity, MinimumCapacity);
        if (capacity != m_capacity || !std::is_empty_v<Allocator>) {
            deallocate();
            m_allocator = other.m_allocator;
            allocate(capacity);
        }
        copyConstruct(other.begin(), other.m_size);
        return *this;
    }

    BasicVector& operator=(BasicVector&& other) noexcept {
        if (this != &other) {
            release();
            m_allocator = std::move(other.m_allocator);
            take(other);
        }
        return *this;
    }

    [[nodiscard]] T* data() noexcept { return static_cast<T*>(m_buffer); }
    [[nodiscard]] const T* data() const noexcept { return static_cast<const T*>(m_buffer); }
    [[nodiscard]] T* begin() noexcept { return data(); }
    [[nodiscard]] const T* begin() const noexcept { return data(); }
    [[nodiscard]] T* end() noexcept { return data() + m_size; }
    [[nodiscard]] const T* end() const noexcept { return data() + m_size; }

    /// @pre index is below size(); not checked
    [[nodiscard]] T& operator[](size_t index) noexcept { return data()[index]; }
    [[nodiscard]] const T& operator[](size_t index) const noexcept { return data()[index]; }
    [[nodiscard]] T& front() noexcept { return data()[0]; }
    [[nodiscard]] const T& front() const noexcept { return data()[0]; }
    [[nodiscard]] T& back() noexcept { return data()[m_size - 1]; }
    [[nodiscard]] const T& back() const noexcept { return data()[m_size - 1]; }

    void push_back(const T& value) { emplace_back(value); }
    void push_back(T&& value) { emplace_back(std::move(value)); }

    /// Constructs an element at the end; the arguments may refer to elements of this array.
    template <typename... Arguments>
    T& emplace_back(Arguments&&... arguments) {
        if constexpr (FitsRegisters) {
            // Made ahead of the growth, which then needs no address of it.
            const T value(std::forward<Arguments>(arguments)...);
            if (m_size == m_capacity) [[unlikely]]
                reallocate(grownCapacity());
            return *std::construct_at(data() + m_size++, value);
        } else {
            if (m_size == m_capacity) [[unlikely]]
                return growAndEmplace(std::forward<Arguments>(arguments)...);
            T* place = std::construct_at(data() + m_size, std::forward<Arguments>(arguments)...);
            ++m_size;
            return *place;
        }
    }

    /// @pre not empty
    void pop_back() noexcept {
        --m_size;
        destroy(m_size, m_size + 1);
    }

    /// New elements are value-initialised. Shrinking below a quarter of the capacity gives storage back.
    void resize(size_t n) {
        resizeWith(n, [](T* first, size_t count) {
            if constexpr (Trivial)
                std::fill_n(first, count, T{});
            else
                std::uninitialized_value_construct_n(first, count);
        });
    }

    /// As above, new elements are copies of `value`, which may be an element of this array.
    void resize(size_t n, const T& value) {
        if (n > m_capacity && &value >= begin() && &value < end()) {
            const T copy(value); // NOLINT(performance-unnecessary-copy-initialization): resize moves value
            resize(n, copy);
            return;
        }
        resizeWith(n, [&value](T* first, size_t count) { std::uninitialized_fill_n(first, count, value); });
    }

    /// Makes room for n elements, at least 4; never gives storage back.
    void reserve(size_t n) {
        if (n > m_capacity)
            reallocate(std::max(n, MinimumCapacity));
    }

    /// Destroys the elements and keeps the storage.
    void clear() noexcept {
        destroy(0, m_size);
        m_size = 0;
    }

    /// As clear, and lets the storage follow the use: an array that is refilled each step keeps a running
    /// estimate of its use, and gives storage back when the estimate falls below a quarter of the capacity.
    /// Does nothing on an empty array.
    void averagedClear() {
        if (m_size == 0)
            return;
        const float used = static_cast<float>(m_size);
        m_usageEstimate = static_cast<float>(static_cast<double>(0.8F * std::max(used, m_usageEstimate)) +
                                             static_cast<double>(used) * 0.19999998807907104);
        clear();
        if (m_usageEstimate / static_cast<float>(m_capacity) < 0.25F)
            reallocate(std::max(static_cast<size_t>(m_usageEstimate), MinimumCapacity));
    }

    /// What the averaged clear knows of the recent use, in elements.
    [[nodiscard]] float usageEstimate() const noexcept { return m_usageEstimate; }

    /// Removes one element; the later ones move down and keep their order.
    /// @return the place of the element behind the removed one
    T* erase(T* position) { return erase(position, position + 1); }

    T* erase(T* first, T* last) {
        const auto removed = static_cast<size_t>(last - first);
        if (removed != 0) {
            const auto behind = m_size - static_cast<size_t>(last - begin());
            if constexpr (Trivial) {
                std::memmove(static_cast<void*>(first), last, liveBytes(behind));
            } else {
                std::move(last, last + behind, first);
                destroy(m_size - removed, m_size);
            }
            m_size -= removed;
        }
        return first;
    }

    /// Inserts ahead of `position`; the later elements move up.
    /// @return the place of the new element
    T* insert(const T* position, T value) {
        const auto index = static_cast<size_t>(position - begin());
        emplace_back(std::move(value));
        std::rotate(begin() + index, end() - 1, end());
        return begin() + index;
    }

    /// Linear search from the front; end() if there is no equal element.
    template <typename Key>
    [[nodiscard]] T* find(const Key& key) {
        return std::find(begin(), end(), key);
    }
    template <typename Key>
    [[nodiscard]] const T* find(const Key& key) const {
        return std::find(begin(), end(), key);
    }
    template <typename Key>
    [[nodiscard]] bool contains(const Key& key) const {
        return find(key) != end();
    }

    /// Removes the first element equal to `key`, the later ones keep their order.
    /// @return whether there was one
    template <typename Key>
    bool findAndErase(const Key& key) {
        T* position = find(key);
        if (position == end())
            return false;
        erase(position);
        return true;
    }

    template <typename Iterator>
    void assign(Iterator first, Iterator last) {
        clear();
        reserve(static_cast<size_t>(std::distance(first, last)));
        for (; first != last; ++first)
            emplace_back(*first);
    }

    [[nodiscard]] Allocator& allocator() noexcept { return m_allocator; }

    friend bool operator==(const BasicVector& a, const BasicVector& b) {
        return std::equal(a.begin(), a.end(), b.begin(), b.end());
    }

private:
    // NOLINTNEXTLINE(bugprone-sizeof-expression): elements may well be pointers
    static constexpr size_t ElementSize = sizeof(T);
    static constexpr bool FitsRegisters =
        std::is_trivially_copyable_v<T> && std::is_copy_constructible_v<T> && ElementSize <= 16;

    /// Of storage that may be asked for.
    // NOLINTNEXTLINE(bugprone-sizeof-expression): elements may well be pointers
    static constexpr size_t bytes(size_t n) noexcept { return detail::byteCount(n, sizeof(T)); }
    /// Of elements that lie in storage: their size is known to fit.
    // NOLINTNEXTLINE(bugprone-sizeof-expression): as above
    static constexpr size_t liveBytes(size_t n) noexcept { return n * sizeof(T); }

    void attach() {
        if constexpr (detail::TracksContainer<Allocator, Container>)
            m_allocator.setContainer(this);
    }

    void allocate(size_t capacity) {
        m_buffer = m_allocator.allocateBytes(bytes(capacity), std::max(alignof(T), size_t{16}));
        m_capacity = capacity;
    }

    void deallocate() noexcept {
        m_allocator.deallocateBytes(m_buffer, bytes(m_capacity));
        m_buffer = nullptr;
        m_capacity = 0;
    }

    void release() noexcept {
        clear();
        deallocate();
    }

    void take(BasicVector& other) noexcept {
        m_size = std::exchange(other.m_size, 0);
        m_capacity = std::exchange(other.m_capacity, 0);
        m_buffer = std::exchange(other.m_buffer, nullptr);
        m_usageEstimate = other.m_usageEstimate;
    }

    void destroy(size_t first, size_t last) noexcept {
        if constexpr (!Trivial && !std::is_trivially_destructible_v<T>)
            std::destroy(data() + first, data() + last);
    }

    void copyConstruct(const T* source, size_t count) {
        if (count == 0)
            return;
        if constexpr (Trivial)
            std::memcpy(m_buffer, source, liveBytes(count));
        else
            std::uninitialized_copy_n(source, count, data());
        m_size = count;
    }

    /// Moves the elements into fresh storage. A throwing constructor leaves the old elements as they were;
    /// those that can be neither copied nor moved without a throw may have been moved from.
    static void relocate(T* target, T* source, size_t count) {
        if (count == 0)
            return;
        if constexpr (Trivial || std::is_trivially_copyable_v<T>) {
            std::memcpy(static_cast<void*>(target), source, liveBytes(count));
        } else {
            if constexpr (std::is_nothrow_move_constructible_v<T>) {
                for (size_t i = 0; i < count; ++i) { // one pass, while the element is in the cache
                    std::construct_at(target + i, std::move(source[i]));
                    std::destroy_at(source + i);
                }
                return;
            }
            if constexpr (std::is_copy_constructible_v<T>)
                std::uninitialized_copy_n(source, count, target);
            else
                std::uninitialized_move_n(source, count, target);
            std::destroy_n(source, count);
        }
    }

    /// Twice the size, computed in single precision.
    [[nodiscard]] size_t grownCapacity() const noexcept {
        return std::max(static_cast<size_t>(2.0F * static_cast<float>(m_size)), MinimumCapacity);
    }

    [[gnu::noinline]] void reallocate(size_t capacity) {
        Storage fresh(m_allocator, capacity);
        relocate(fresh.data, data(), m_size);
        adopt(fresh);
    }

    /// Owns fresh storage until it is adopted.
    struct Storage {
        Storage(Allocator& storageAllocator, size_t n)
            : allocator(storageAllocator)
            , data(
                  static_cast<T*>(storageAllocator.allocateBytes(bytes(n), std::max(alignof(T), size_t{16}))))
            , capacity(n) {}
        Storage(const Storage&) = delete;
        Storage& operator=(const Storage&) = delete;
        ~Storage() {
            if (data != nullptr)
                allocator.deallocateBytes(data, bytes(capacity));
        }
        Allocator& allocator;
        T* data;
        size_t capacity;
    };

    void adopt(Storage& fresh) noexcept {
        m_allocator.deallocateBytes(m_buffer, bytes(m_capacity));
        m_buffer = std::exchange(fresh.data, nullptr);
        m_capacity = fresh.capacity;
    }

    template <typename... Arguments>
    [[gnu::noinline]] T& growAndEmplace(Arguments&&... arguments) {
        Storage fresh(m_allocator, grownCapacity());
        T* place = std::construct_at(fresh.data + m_size, std::forward<Arguments>(arguments)...);
        try {
            relocate(fresh.data, data(), m_size);
        } catch (...) {
            std::destroy_at(place);
            throw;
        }
        adopt(fresh);
        ++m_size;
        return *place;
    }

    template <typename Fill>
    void resizeWith(size_t n, Fill&& fill) {
        if (n > m_size) {
            if (n > m_capacity)
                reallocate(std::max(n, MinimumCapacity));
            fill(data() + m_size, n - m_size);
            m_size = n;
            return;
        }
        destroy(n, m_size);
        m_size = n;
        if (static_cast<float>(m_capacity) * 0.25F > static_cast<float>(n))
            reallocate(std::max(n, MinimumCapacity));
    }

    [[no_unique_address]] Allocator m_allocator;
    float m_usageEstimate = 0;
};

/// A growable array that constructs and destroys its elements one at a time in ascending index order.
template <typename T, typename Allocator = ByteAllocator>
class Vector : public BasicVector<T, Allocator, false> {
public:
    using BasicVector<T, Allocator, false>::BasicVector;
};

/// A growable array of trivially copyable elements, which are copied by memcpy.
template <typename T, typename Allocator = ByteAllocator>
class VectorPOD : public BasicVector<T, Allocator, true> {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    using BasicVector<T, Allocator, true>::BasicVector;
};

} // namespace zel
