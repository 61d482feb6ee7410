#include <zel/ByteAllocator.h>
#include <zelData/SpareBlocks.h>

#include <algorithm>

namespace zelData {

SpareBlocks::~SpareBlocks() {
    for (const Block& block : m_blocks)
        zel::ByteAllocator::standaloneDeallocateTypes(block.memory);
}

void* SpareBlocks::take(zel::size_t size) noexcept {
    const auto position = std::find_if(
        m_blocks.begin(), m_blocks.end(), [size](const Block& block) { return block.size == size; });
    if (position == m_blocks.end())
        return nullptr;
    void* const memory = position->memory;
    *position = m_blocks.back();
    m_blocks.pop_back();
    return memory;
}

void SpareBlocks::getSizes(zel::VectorPOD<zel::size_t>& sizes) const {
    for (const Block& block : m_blocks)
        sizes.push_back(block.size);
}

void SpareBlocks::give(void* block, zel::size_t size) {
    if (block != nullptr)
        m_blocks.push_back({block, size, true});
}

void SpareBlocks::trim() noexcept {
    zel::size_t kept = 0;
    for (Block& block : m_blocks) {
        if (block.fresh)
            m_blocks[kept++] = {block.memory, block.size, false};
        else
            zel::ByteAllocator::standaloneDeallocateTypes(block.memory);
    }
    m_blocks.resize(kept);
}

} // namespace zelData
