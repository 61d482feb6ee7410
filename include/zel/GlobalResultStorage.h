#pragma once

#include <zel/Export.h>
#include <zel/GlobalResult.h>
#include <zelData/SpareBlocks.h>

namespace zelData {
class EntityStorage;
} // namespace zelData

namespace zel {

class EntityDataParameter;
class Task;

/// A global result that goes to a storage: jobs append instances. Listeners of the storage learn of them when
/// the run has ended. Jobs neither use handles of that storage nor change it in other ways meanwhile.
/// @threads as GlobalResult
class ZEL_CORE_API GlobalResultStorage : public GlobalResult {
public:
    /// @param storage  not kept alive: must outlive the result
    GlobalResultStorage(uint32 settings, const Path& path, zelData::EntityStorage* storage);
    ~GlobalResultStorage() override;

    /// Makes room for what is expected. Ahead of the jobs.
    void prepare(Task* task);
    /// Gives the storage its final size and order. After the jobs.
    void finalize();

    void handleOverflow(size_t newCapacity) override;
    void sortResult(const zelData::Array<unsigned>& permutation) override;

    [[nodiscard]] zelData::EntityStorage* getStorage() const noexcept { return m_storage; }
    /// Finds the task's parameters that show the storage.
    void locateTargets(Task* task);
    [[nodiscard]] const Vector<EntityDataParameter*>& getTargets() const noexcept { return m_targets; }

private:
    template <typename Visit>
    void forEachColumn(const Visit& visit) const;

    zelData::EntityStorage* m_storage;
    Vector<EntityDataParameter*> m_targets; // owned by the task
    zelData::SpareBlocks m_spares;          // of sorting, kept from run to run
};

} // namespace zel
