#pragma once

#include <zel/Export.h>
#include <zel/GlobalResult.h>
#include <zel/ref_ptr.h>

namespace zel {

class Task;

/// A global result that goes to a buffer.
/// @threads as GlobalResult
class ZEL_CORE_API GlobalResultBuffer : public GlobalResult {
public:
    /// @param target  kept alive
    GlobalResultBuffer(uint32 settings, const Path& path, zelData::Buffer* target);
    ~GlobalResultBuffer() override;

    /// Makes room for what is expected. Ahead of the jobs.
    void prepare(Task* task);
    /// Gives the buffer its final size and order. After the jobs.
    void finalize();

    void handleOverflow(size_t newCapacity) override;
    void sortResult(const zelData::Array<unsigned>& permutation) override;

    [[nodiscard]] zelData::Buffer* getTarget() const noexcept { return m_target.get(); }
    /// The size of the buffer ahead of the run, in units of its element array size: from prepare on it has
    /// room for what is expected.
    [[nodiscard]] uint64 getOldNumEntries() const { return m_oldSize / arraySize(); }

private:
    [[nodiscard]] uint64 arraySize() const;

    ref_ptr<zelData::Buffer> m_target;
    uint64 m_oldSize = 0;      // in elements, ahead of the run
    VectorPOD<char> m_scratch; // of sorting, kept from run to run, as the next
    VectorPOD<unsigned> m_order;
};

} // namespace zel
