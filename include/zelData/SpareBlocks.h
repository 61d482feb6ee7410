#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/Vector.h>

namespace zelData {

/// Blocks of memory that work which is done again and again gives back and takes anew, so that it allocates
/// nothing from the second time on. Between two times it holds one block for each size in use.
/// @threads owner thread
class ZEL_CORE_API SpareBlocks {
public:
    SpareBlocks() = default;
    SpareBlocks(const SpareBlocks&) = delete;
    SpareBlocks& operator=(const SpareBlocks&) = delete;
    ~SpareBlocks();

    /// @return a block of exactly that many bytes, which is the caller's now; null if there is none
    [[nodiscard]] void* take(zel::size_t size) noexcept;
    /// Appends the size of each block that is there.
    void getSizes(zel::VectorPOD<zel::size_t>& sizes) const;
    /// Keeps a block of zel::ByteAllocator; null is ignored.
    void give(void* block, zel::size_t size);
    /// Releases what nobody has given since the last call: sizes that are not in use any more.
    void trim() noexcept;

    [[nodiscard]] zel::size_t size() const noexcept { return m_blocks.size(); }

private:
    struct Block {
        void* memory;
        zel::size_t size; // in bytes
        bool fresh;       // given since the last trim
    };

    zel::VectorPOD<Block> m_blocks;
};

} // namespace zelData
