#pragma once

#include <zel/Integers.h>

namespace zelData {
class Buffer;
} // namespace zelData

namespace zel {

/// What every array has: the number of elements, the number it has room for, and where they lie.
class Container {
public:
    [[nodiscard]] size_t size() const noexcept { return m_size; }
    [[nodiscard]] size_t capacity() const noexcept { return m_capacity; }
    [[nodiscard]] bool empty() const noexcept { return m_size == 0; }

protected:
    Container() = default;
    ~Container() = default;

    friend class ThreadLocalAllocator; // moves the storage of all containers of a thread at once
    friend class zelData::Buffer;      // lets a container mirror its own storage

    size_t m_size = 0;
    size_t m_capacity = 0;
    void* m_buffer = nullptr;
};

} // namespace zel
