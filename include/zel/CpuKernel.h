#pragma once

#include <zel/Callback.h>
#include <zel/Export.h>
#include <zel/Kernel.h>

namespace zel {

class RangeJob;

/// A kernel whose jobs are ranges of items for one function. See LambdaKernel for one that is ready to use.
///
/// The range is cut for n items, T threads and J = numJobsPerThread like this: n / (T * J) items a job,
/// rounded up to a multiple of 16, at least minJobSize and otherwise at most maxJobSize; the last job takes
/// what is left. A job's priority is its number of items times costPerElement.
///
/// In the first run each job runs by itself. From then on neighbours are put into rows, as far as the last
/// run took about as long everywhere: a row runs on one thread like one job, in each run on the same one as
/// long as that is not late. There is one row for each thread, or several if they would take longer than 50
/// microseconds; and a run that took less than 4 microseconds in all is one row, for which no thread is
/// woken.
/// @threads as Kernel; the function runs on any threads at the same time
class ZEL_CORE_API CpuKernel : public Kernel {
public:
    /// @param dispatch  replaces generateJobs
    CpuKernel(const Name& name, Callback dispatch, Device* device = nullptr);
    /// @param callback  called for each job, with the job's range
    CpuKernel(const Name& name, Callback1<const RangeJob&> callback, Device* device = nullptr);
    ~CpuKernel() override;

    /// Storage for this many jobs in a row, which are not in use; called once in each run whose cut is new.
    /// Owned by the kernel, which keeps it as long as the jobs are part of the task.
    [[nodiscard]] virtual RangeJob* allocateRangeJobs(size_t count) = 0;

    /// Cuts the range into jobs and adds them to the task, in place of those of the run before. Nothing
    /// changes while the numbers stay as they are.
    void generateJobs();
    /// Of the last dispatch.
    [[nodiscard]] size_t getNumJobs() const noexcept { return m_numJobs; }
    /// The place of one of the kernel's jobs among those of the run, by rising ranges: its sort index in a
    /// global result.
    [[nodiscard]] uint32 getJobIndex(const RangeJob& job) const noexcept;
    [[nodiscard]] const Callback1<const RangeJob&>& getRangeCallback() const noexcept { return m_callback; }

    [[nodiscard]] static Model* ClassModel();
    /// Makes the kernel that an element of the tag "Kernel" describes, from the plug-in of the path in the
    /// attribute "dispatch", or else of the element's own path.
    /// @return a new task without owner
    /// @throws std::runtime_error with file and row
    [[nodiscard]] static Task* load(TiXmlElement* element, Device* device);

private:
    /// What the jobs at hand were cut from.
    struct Cut {
        size_t numItems = 0;
        size_t size = 0;
        size_t costPerElement = 0;
        friend bool operator==(const Cut&, const Cut&) = default;
    };
    void addJobs(const Cut& cut);
    void lookAtLastRun();
    [[nodiscard]] size_t chooseNumRows() const;

    Callback1<const RangeJob&> m_callback;
    size_t m_numJobs = 0;
    Cut m_cut;
    // What the last run took that was looked at.
    uint64 m_ticks = 0;
    size_t m_numItems = 0; // 0 if there was none
    bool m_even = false;
    size_t m_numUnseenRuns = 0; // before the next look at uneven jobs
};

} // namespace zel
