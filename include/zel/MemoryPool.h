#pragma once

#include <zel/BatchAllocator.h>
#include <zel/Export.h>
#include <zel/HashSet.h>
#include <zel/Integers.h>
#include <zel/Verify.h>

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
    // NOLINTNEXTLINE(bugprone-exception-escape): where there is no memory to clear with, the process ends
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

    /// @param element  of this pool, and alive; null is ignored. Builds without NDEBUG verify that it is none
    /// of
    ///     those that were given back last.
    void deallocate(T* element) {
        if (element == nullptr)
            return;
        if (m_destroyed != nullptr) {
            destroyOnce(element);
            return;
        }
        if constexpr (LooksForTwice)
            zelVerifyN(!isFree(element),
                       "MemoryPool: the element %p was given back twice",
                       static_cast<const void*>(element));
        std::destroy_at(element);
        putBack(element);
        --m_numElements;
    }

    /// Destroys all elements that live; their destructors may give other elements back. The pool then has one
    /// chunk that would have held all places.
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
#ifdef NDEBUG
    static constexpr bool LooksForTwice = false;
#else
    static constexpr bool LooksForTwice = true;
#endif

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

    void putBack(void* place) noexcept {
        m_free = ::new (place) FreePlace{m_free};
    }

    /// Whether the element is among the places that were freed last; all of them would take too long.
    [[nodiscard]] bool isFree(const void* element) const noexcept {
        const FreePlace* place = m_free;
        for (int i = 0; i < 256 && place != nullptr && place != element; ++i)
            place = place->next;
        return place != nullptr && place == element;
    }

    /// Every place of a chunk up to its cursor holds an element, but for those on the free list. A destructor
    /// may give back elements whose turn has been or is still to come.
    void destroyElements() {
        HashSet<const void*> destroyed;
        for (const FreePlace* place = m_free; place != nullptr; place = place->next)
            destroyed.insert(place);
        m_destroyed = &destroyed;
        for (const auto* chunk = m_allocator.getNewestChunk(); chunk != nullptr; chunk = chunk->older)
            for (char* place = chunk->begin; place != chunk->cursor; place += Stride)
                destroyOnce(std::launder(reinterpret_cast<T*>(place)));
        m_destroyed = nullptr;
    }

    void destroyOnce(T* element) {
        if (m_destroyed->contains(element))
            return;
        m_destroyed->insert(element);
        std::destroy_at(element);
    }

    BatchAllocator m_allocator;
    FreePlace* m_free = nullptr;
    size_t m_numElements = 0;
    HashSet<const void*>* m_destroyed = nullptr; // while all are cleared: the places without an element
};

} // namespace zel
