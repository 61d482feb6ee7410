#pragma once

#include <zel/BatchAllocator.h>
#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Vector.h>

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

namespace zel {

/// A pool that takes elements back without knowing their class.
/// @threads external lock
class ZEL_CORE_API AbstractMemoryPool {
public:
    AbstractMemoryPool() = default;
    AbstractMemoryPool(const AbstractMemoryPool&) = delete;
    AbstractMemoryPool& operator=(const AbstractMemoryPool&) = delete;

    /// Destroys an element of this pool.
    virtual void deallocateVirtual(void* element) = 0;
    virtual ~AbstractMemoryPool();
};

/// A cheap allocator for many elements of one class: they lie in chunks, and freed places are used again.
/// @threads external lock
/// @cost allocate and deallocate: constant, but for a new chunk now and then
template <typename T>
class MemoryPool : public AbstractMemoryPool {
    static_assert(alignof(T) <= BatchAllocator::ChunkAlignment);

public:
    explicit MemoryPool(const BatchAllocator& allocator) : m_allocator(allocator) {}
    MemoryPool(const char* name, unsigned chunkSize) : m_allocator(name, chunkSize) {}
    ~MemoryPool() override { clear(); }

    void deallocateVirtual(void* element) override { deallocate(static_cast<T*>(element)); }

    /// Constructs an element; it lives until deallocate or clear.
    template <typename... Arguments>
    [[nodiscard]] T* allocate(Arguments&&... arguments) {
        void* const place = takePlace();
        T* element = nullptr;
        try {
            element = ::new (place) T(std::forward<Arguments>(arguments)...);
        } catch (...) {
            putBack(place);
            throw;
        }
        ++m_numElements;
        return element;
    }

    /// @param element  of this pool; null is ignored
    void deallocate(T* element) {
        if (element == nullptr)
            return;
        std::destroy_at(element);
        putBack(element);
        --m_numElements;
    }

    /// Destroys all elements that live. The pool then has one chunk that would have held all places.
    void clear() {
        if (m_numElements != 0)
            destroyElements();
        m_free = nullptr;
        m_numElements = 0;
        m_allocator.clear();
    }

    /// The number of elements that live.
    [[nodiscard]] size_t size() const noexcept { return m_numElements; }
    [[nodiscard]] const BatchAllocator& getAllocator() const noexcept { return m_allocator; }

private:
    /// Lies in the place of a freed element.
    struct FreePlace {
        FreePlace* next;
    };
    static constexpr size_t Alignment = std::max(alignof(T), alignof(FreePlace));
    static constexpr size_t Stride =
        (std::max(sizeof(T), sizeof(FreePlace)) + Alignment - 1) / Alignment * Alignment;

    void* takePlace() {
        if (m_free == nullptr)
            return m_allocator.allocate(Stride, Alignment);
        FreePlace* const place = m_free;
        m_free = place->next;
        return place;
    }

    void putBack(void* place) noexcept { m_free = ::new (place) FreePlace{m_free}; }

    /// Every place of a chunk up to its cursor holds an element, but for those on the free list.
    void destroyElements() {
        Vector<const void*> freed;
        for (const FreePlace* place = m_free; place != nullptr; place = place->next)
            freed.push_back(place);
        std::sort(freed.begin(), freed.end());
        for (const auto* chunk = m_allocator.getNewestChunk(); chunk != nullptr; chunk = chunk->older)
            for (char* place = chunk->begin; place != chunk->cursor; place += Stride)
                if (!std::binary_search(freed.begin(), freed.end(), static_cast<const void*>(place)))
                    std::destroy_at(std::launder(reinterpret_cast<T*>(place)));
    }

    BatchAllocator m_allocator;
    FreePlace* m_free = nullptr;
    size_t m_numElements = 0;
};

} // namespace zel
