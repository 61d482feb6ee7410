#include <zel/ByteAllocator.h>
#include <zel/Thread.h>
#include <zel/ThreadLocalAllocator.h>
#include <zel/Verify.h>

#include <cstring>
#include <utility>

namespace zel {

namespace {

constexpr size_t ArenaAlignment = 64;

constexpr size_t roundUp(size_t size) {
    constexpr size_t Rest = ThreadLocalAllocator::Granularity - 1;
    // A size that cannot be rounded is one that cannot be had.
    return size > ~size_t{0} - Rest ? ~size_t{0} : (size + Rest) & ~Rest;
}

} // namespace

ThreadLocalAllocator::Arena& ThreadLocalAllocator::getArena() {
    Thread* thread = Thread::getCurrentThread();
    zelVerify(thread != nullptr);
    return thread->m_arena;
}

void* ThreadLocalAllocator::allocateBytes(size_t size, size_t alignment) {
    zelVerify(alignment <= Granularity);
    Arena& arena = getArena();
    const size_t rounded = roundUp(size);
    if (rounded > static_cast<size_t>(arena.end - arena.cursor))
        arena.grow(rounded);
    return std::exchange(arena.cursor, arena.cursor + rounded);
}

ThreadLocalAllocator::Arena::~Arena() {
    ByteAllocator::standaloneDeallocateTypes(base);
    ByteAllocator::standaloneDeallocateTypes(retired);
}

void ThreadLocalAllocator::Arena::grow(size_t request) {
    const auto oldSize = static_cast<size_t>(end - base);
    const auto used = static_cast<size_t>(cursor - base);
    size_t newSize = 0;
    // A sum that does not fit is a failed allocation, which is fatal.
    if (__builtin_add_overflow(oldSize + oldSize / 2, request, &newSize))
        newSize = ~size_t{0} - ArenaAlignment;
    auto* fresh = static_cast<char*>(ByteAllocator::standaloneAllocateBytes(newSize, ArenaAlignment));
    if (used != 0)
        std::memcpy(fresh, base, used);
    for (Container* container : containers)
        if (container->m_buffer != nullptr)
            container->m_buffer = fresh + (static_cast<char*>(container->m_buffer) - base);
    ByteAllocator::standaloneDeallocateTypes(std::exchange(retired, base));
    base = fresh;
    end = fresh + newSize;
    cursor = fresh + used;
}

void ThreadLocalAllocator::deallocateBytes(void* pointer, size_t size) {
    if (pointer == nullptr)
        return;
    Arena& arena = getArena();
    if (static_cast<char*>(pointer) + roundUp(size) == arena.cursor)
        arena.cursor = static_cast<char*>(pointer);
}

void ThreadLocalAllocator::setContainer(Container* container) {
    m_container = container;
    getArena().containers.push_back(container);
}

void ThreadLocalAllocator::clear() {
    if (m_container == nullptr)
        return;
    Arena& arena = getArena();
    arena.containers.findAndErase(std::exchange(m_container, nullptr));
    if (arena.containers.empty()) {
        arena.cursor = arena.base;
        ByteAllocator::standaloneDeallocateTypes(std::exchange(arena.retired, nullptr));
    }
}

} // namespace zel
