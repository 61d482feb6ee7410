#pragma once

#include <zel/Observer.h>

#include <cstddef>

namespace zel {

/// A weak pointer: reads null after the object has been destroyed.
/// @threads external lock; must not be destroyed or reset while its target dies on another thread
template <typename T>
class observer_ptr : public Observer {
public:
    observer_ptr() = default;
    observer_ptr(T* object) : m_object(object) { attach(); }
    observer_ptr(const observer_ptr& other) : Observer(), m_object(other.m_object) { attach(); }
    ~observer_ptr() override { detach(); }

    observer_ptr& operator=(T* object) {
        if (object != m_object) {
            detach();
            m_object = object;
            attach();
        }
        return *this;
    }
    observer_ptr& operator=(const observer_ptr& other) { return *this = other.m_object; }

    void objectDeleted(void*) override { m_object = nullptr; }

    [[nodiscard]] T* get() const noexcept { return m_object; }
    [[nodiscard]] T* operator->() const noexcept { return m_object; }
    [[nodiscard]] T& operator*() const noexcept { return *m_object; }
    explicit operator bool() const noexcept { return m_object != nullptr; }

    friend bool operator==(const observer_ptr& a, const T* b) noexcept { return a.m_object == b; }

private:
    void attach() {
        if (m_object != nullptr)
            m_object->addObserver(this);
    }
    void detach() {
        if (m_object != nullptr)
            m_object->removeObserver(this);
    }

    T* m_object = nullptr;
};

} // namespace zel
