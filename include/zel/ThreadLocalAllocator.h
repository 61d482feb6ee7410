#pragma once

#include <zel/Container.h>
#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Vector.h>

#include <memory>
#include <type_traits>

namespace zel {

class Thread;
template <typename T>
class ref_ptr;

/// Whether an element may be moved by a copy of its bytes, the original being forgotten without a destructor.
/// What points into itself may not, as a text that keeps a few characters inside the object. Specialise it
/// for a type of your own that may.
template <typename T>
inline constexpr bool MovesByBytes = std::is_trivially_copyable_v<T>;
template <typename T>
inline constexpr bool MovesByBytes<std::unique_ptr<T>> = true;
template <typename T>
inline constexpr bool MovesByBytes<ref_ptr<T>> = true;

/// Bump memory of the calling thread, for arrays that live only as long as one job: allocation moves a
/// cursor, and the memory is reused once the last array is gone.
///
///     Vector<uint32, ThreadLocalAllocator> neighbours;
///
/// Fits Vector and VectorPOD on a thread of the system. An array stays on the thread that made it. All arrays
/// of the thread move together when the memory grows, which any allocation may cause, and their elements with
/// them, as bytes: an element must be one that MovesByBytes, which is checked when the array is compiled. So
/// texts, and arrays that use this allocator themselves, are no elements.
/// @threads owner thread
class ZEL_CORE_API ThreadLocalAllocator {
public:
    /// Sizes are rounded up to multiples of this, in bytes.
    static constexpr size_t Granularity = 32;

    ThreadLocalAllocator() = default;
    // Each array brings an allocator of its own and registers itself.
    ThreadLocalAllocator(const ThreadLocalAllocator&) noexcept {}
    ThreadLocalAllocator& operator=(const ThreadLocalAllocator&) noexcept { return *this; }
    ~ThreadLocalAllocator() = default;

    /// @param alignment  at most Granularity
    [[nodiscard]] void* allocateBytes(size_t size, size_t alignment = 16);
    /// Gives the block back if it is the last one; otherwise it is lost until all arrays are gone.
    void deallocateBytes(void* pointer, size_t size);

    /// Registers the array whose data pointer must follow when the memory moves.
    template <typename Array>
    void setContainer(Array* array) {
        static_assert(MovesByBytes<typename Array::value_type>,
                      "elements in the memory of a thread are moved by their bytes");
        setContainer(static_cast<Container*>(array));
    }
    void setContainer(Container* container);
    /// Takes the array off the list; the last one to go frees all memory for reuse.
    void clear();

private:
    friend class Thread;

    /// The memory of one thread.
    struct Arena {
        Arena() = default;
        Arena(const Arena&) = delete;
        Arena& operator=(const Arena&) = delete;
        ~Arena();

        void grow(size_t request);

        char* base = nullptr;
        char* end = nullptr;
        char* cursor = nullptr;
        VectorPOD<Container*> containers;
        char* retired =
            nullptr; // the block before this one: the array that grows may copy an element out of it
    };

    [[nodiscard]] static Arena& getArena();

    Container* m_container = nullptr;
};

} // namespace zel
