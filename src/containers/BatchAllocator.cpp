#include <zel/BatchAllocator.h>
#include <zel/MemoryPool.h>
#include <zel/Verify.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <new>

namespace zel {

AbstractMemoryPool::~AbstractMemoryPool() = default;

BatchAllocator::BatchAllocator(const char*, unsigned size) {
    createChunk(size);
}

BatchAllocator::BatchAllocator(const BatchAllocator& other) {
    createChunk(other.m_chunkSize);
}

BatchAllocator& BatchAllocator::operator=(const BatchAllocator& other) {
    if (this != &other) {
        deleteAllChunks();
        createChunk(other.m_chunkSize);
    }
    return *this;
}

BatchAllocator::~BatchAllocator() {
    deleteAllChunks();
}

void BatchAllocator::createChunk(unsigned size) {
    const size_t total = size_t{size} + sizeof(Chunk) + ChunkAlignment;
    void* const block = std::malloc(total);
    zelVerifyN(block, "BatchAllocator: malloc could not allocate %lu bytes!", total);
    char* const begin = align(static_cast<char*>(block) + sizeof(Chunk), ChunkAlignment);
    m_newest = ::new (block) Chunk{begin, begin + size, begin, m_newest};
    const double next = static_cast<double>(size) * 1.5;
    constexpr auto largest = std::numeric_limits<uint32>::max();
    m_chunkSize = next < static_cast<double>(largest) ? static_cast<uint32>(next) : largest;
}

void* BatchAllocator::allocateInNewChunk(size_t size) {
    zelVerifyN(size <= std::numeric_limits<uint32>::max(),
               "BatchAllocator: %lu bytes are more than a chunk can hold",
               size);
    createChunk(std::max(m_chunkSize, static_cast<uint32>(size)));
    void* const place = m_newest->cursor;
    m_newest->cursor += size;
    return place;
}

void BatchAllocator::clear() {
    size_t used = 0;
    for (const Chunk* chunk = m_newest; chunk != nullptr; chunk = chunk->older)
        used += static_cast<size_t>(chunk->cursor - chunk->begin);
    deleteAllChunks();
    constexpr size_t largest = std::numeric_limits<uint32>::max();
    createChunk(static_cast<uint32>(std::clamp(used, MinimumChunk, largest)));
}

void BatchAllocator::deleteAllChunks() {
    while (m_newest != nullptr) {
        Chunk* const older = m_newest->older;
        std::free(m_newest); // the header lies at the beginning of the block
        m_newest = older;
    }
}

} // namespace zel
