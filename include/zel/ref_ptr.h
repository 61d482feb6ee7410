#pragma once

#include <zel/HashFn.h>

#include <cstddef>
#include <type_traits>
#include <utility>

namespace zel {

/// Owns a Referenced object: one pointer.
/// @threads distinct ref_ptrs to one object may be used from any threads; one ref_ptr needs an external lock
template <typename T>
class ref_ptr {
public:
    using element_type = T;

    constexpr ref_ptr() noexcept = default;
    constexpr ref_ptr(std::nullptr_t) noexcept {}
    ref_ptr(T* object) noexcept : m_object(object) { acquire(m_object); }
    ref_ptr(const ref_ptr& other) noexcept : m_object(other.m_object) { acquire(m_object); }
    ref_ptr(ref_ptr&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
    template <typename U>
    requires(std::is_convertible_v<U*, T*>) ref_ptr(const ref_ptr<U>& other)
    noexcept : ref_ptr(other.get()) {}
    ~ref_ptr() { drop(m_object); }

    /// Assigning the object already held does nothing.
    ref_ptr& operator=(T* object) {
        if (object != m_object) {
            acquire(object);
            drop(std::exchange(m_object, object));
        }
        return *this;
    }
    ref_ptr& operator=(const ref_ptr& other) { return *this = other.m_object; }
    ref_ptr& operator=(ref_ptr&& other) noexcept {
        if (this != &other)
            drop(std::exchange(m_object, std::exchange(other.m_object, nullptr)));
        return *this;
    }

    [[nodiscard]] T* get() const noexcept { return m_object; }
    [[nodiscard]] T* operator->() const noexcept { return m_object; }
    [[nodiscard]] T& operator*() const noexcept { return *m_object; }
    explicit operator bool() const noexcept { return m_object != nullptr; }

    /// Gives the object away without deleting it: the caller takes over an object that may have no owner.
    [[nodiscard]] T* release_nodelete() noexcept {
        T* object = std::exchange(m_object, nullptr);
        if (object != nullptr)
            object->unreference_nodelete();
        return object;
    }

    friend bool operator==(const ref_ptr& a, const ref_ptr& b) noexcept { return a.m_object == b.m_object; }
    friend bool operator==(const ref_ptr& a, const T* b) noexcept { return a.m_object == b; }

private:
    static void acquire(T* object) noexcept {
        if (object != nullptr)
            object->reference();
    }
    static void drop(T* object) {
        if (object != nullptr)
            object->unreference();
    }

    T* m_object = nullptr;
};

/// Hashes by address; a plain pointer finds its ref_ptr.
template <typename T>
struct HashFn<ref_ptr<T>, void> {
    using is_transparent = void;
    [[nodiscard]] uint32 operator()(const T* key) const noexcept { return HashFn<T*>()(key); }
    [[nodiscard]] uint32 operator()(const ref_ptr<T>& key) const noexcept { return HashFn<T*>()(key.get()); }
    [[nodiscard]] static bool equal(const ref_ptr<T>& a, const ref_ptr<T>& b) noexcept { return a == b; }
    [[nodiscard]] static bool equal(const ref_ptr<T>& a, const T* b) noexcept { return a == b; }
};

} // namespace zel
