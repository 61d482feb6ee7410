#pragma once

#include <zel/Export.h>
#include <zel/ParallelTask.h>
#include <zel/ref_ptr.h>
#include <zelData/ValueT.h>

namespace zel {

class GlobalResultBuffer;

/// A task over a range of work items, such as the entities of a storage, which its dispatch cuts into jobs.
///
/// Four values say how: children of the kernel that model files may set and bind,
///
///     <Task name="kick" source="Bodies.Kick"><Value instance="minJobSize" value="256"/></Task>
///
/// @threads as Task; the settings while the kernel does not run
class ZEL_CORE_API Kernel : public ParallelTask {
public:
    /// @param device    null for the CPU device
    /// @param dispatch  called in each run; adds the jobs
    Kernel(const Name& name, Device* device, Callback dispatch);
    ~Kernel() override;

    /// What the jobs of the last run took together, in milliseconds; zero unless Task::ProfilingFull is on.
    [[nodiscard]] virtual float getComputeTime();
    /// Called in each run ahead of the dispatch. Does nothing by default.
    virtual void preDispatch();

    /// Reads, besides what each task reads, the attributes "numJobsPerThread", "minJobSize", "maxJobSize" and
    /// "costPerElement", each an expression.
    void configure(TiXmlElement* element) override;
    using ParallelTask::configure;
    /// Reads the four attributes alone.
    /// @throws std::runtime_error with file and row
    void configureDispatch(TiXmlElement* element);
    /// As Task::rebind; also forgets where the number of work items is.
    void rebind() override;
    void parameterAddedCallback(Parameter* parameter) override;
    void parameterRemovedCallback(Parameter* parameter) override;

    /// How many jobs each thread should get; at least 1, and 4 by default.
    void setNumJobsPerThread(size_t numJobs);
    /// The fewest items of a job, but for the last one; 128 by default. Wins over the largest.
    void setMinJobSize(size_t numItems);
    /// The most items of a job; 4096 by default.
    void setMaxJobSize(size_t numItems);
    /// The weight of an item in the priority of a job; 1 by default.
    void setCostPerElement(size_t cost);
    [[nodiscard]] size_t getNumJobsPerThread() const { return m_numJobsPerThread.get(); }
    [[nodiscard]] size_t getMinJobSize() const { return m_minJobSize.get(); }
    [[nodiscard]] size_t getMaxJobSize() const { return m_maxJobSize.get(); }
    [[nodiscard]] size_t getCostPerElement() const { return m_costPerElement.get(); }

    /// Takes the number of work items from the first parameter that is an array or a storage; without such a
    /// parameter it is a value of the kernel's own, which setNumWorkItems sets. Done by each run, ahead of
    /// its dispatch.
    void locateNumWorkItemsValue();
    /// Null until it has been located.
    [[nodiscard]] zelData::ValueT<uint64>* getNumWorkItemsValue() const noexcept {
        return m_numWorkItems.get();
    }
    /// For a kernel without such a parameter.
    void setNumWorkItems(size_t numItems);

    [[nodiscard]] static Model* ClassModel();
    /// Makes the kernel that an element of the tag "Kernel" names, from the plug-in of that path.
    /// @return a new task without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static Task* load(TiXmlElement* element, Device* device);

protected:
    /// The number of items of this run. A result that the run makes counts as it was ahead of the run.
    [[nodiscard]] size_t countWorkItems();

private:
    /// The result of the run that takes the place of the buffer; null if the buffer is none.
    [[nodiscard]] const GlobalResultBuffer* findResult(const zelData::Buffer* buffer) const;

    ref_ptr<zelData::ValueT<uint64>> m_numWorkItems;
    zelData::Val<uint64> m_numJobsPerThread;
    zelData::Val<uint64> m_minJobSize;
    zelData::Val<uint64> m_maxJobSize;
    zelData::Val<uint64> m_costPerElement;
    ref_ptr<zelData::ValueT<uint64>> m_ownNumWorkItems; // made on demand
    const zelData::Buffer* m_itemBuffer = nullptr;      // whose size it is; for the dispatch alone
};

} // namespace zel
