#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>

namespace zel {

/// Hands out memory from a list of growing chunks, and takes it back all at once.
///
/// A chunk is one block from malloc:
///
///     offset 0    header: four words
///     then        up to the next address that is a multiple of 128: unused
///     then        the usable bytes
///
/// @threads external lock
class ZEL_CORE_API BatchAllocator {
public:
    /// Of the first usable byte of a chunk.
    static constexpr size_t ChunkAlignment = 128;
    /// The smallest chunk that clear() makes, in bytes.
    static constexpr size_t MinimumChunk = 64;

    struct Chunk {
        char* begin;  ///< the first usable byte
        char* end;    ///< behind the last
        char* cursor; ///< the next byte to hand out
        Chunk* older;
    };
    static_assert(sizeof(Chunk) == 32);

    /// Makes the first chunk.
    /// @param name  for the reader of the program
    /// @param size  in bytes
    BatchAllocator(const char* name, unsigned size);
    /// An allocator of its own, with one chunk of the size that the other would make next. What the other
    /// has handed out is not copied.
    BatchAllocator(const BatchAllocator& other);
    BatchAllocator& operator=(const BatchAllocator& other);
    ~BatchAllocator();

    /// Adds an empty chunk, which is used from now on; the next one is to be half as large again.
    void createChunk(unsigned size);
    /// Takes all memory back, and makes one chunk that would have held it all, so that the next time fits.
    void clear();
    /// Takes all memory back and keeps no chunk.
    void deleteAllChunks();

    /// Takes the next aligned place of the newest chunk; makes a chunk if there is no room.
    /// @param alignment  a power of two, at most ChunkAlignment
    [[nodiscard]] void* allocate(size_t size, size_t alignment) {
        if (m_newest != nullptr) {
            char* const place = align(m_newest->cursor, alignment);
            if (place <= m_newest->end && size <= static_cast<size_t>(m_newest->end - place)) {
                m_newest->cursor = place + size;
                return place;
            }
        }
        return allocateInNewChunk(size);
    }

    /// The chunks, newest first; null without any.
    [[nodiscard]] const Chunk* getNewestChunk() const noexcept { return m_newest; }
    /// The size of the next chunk, in bytes.
    [[nodiscard]] uint32 getChunkSize() const noexcept { return m_chunkSize; }

private:
    [[nodiscard]] static char* align(char* pointer, size_t alignment) noexcept {
        const auto address = reinterpret_cast<uint64>(pointer);
        return pointer + (((address + alignment - 1) & ~(uint64{alignment} - 1)) - address);
    }
    void* allocateInNewChunk(size_t size);

    Chunk* m_newest = nullptr;
    uint32 m_chunkSize = 0;
};

} // namespace zel
