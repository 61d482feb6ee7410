#include <zel/CpuKernel.h>
#include <zel/Model.h>
#include <zel/RangeJob.h>
#include <zel/Thread.h>
#include <zel/Verify.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <utility>

namespace zel {

namespace {

std::atomic<Model*> s_model{nullptr};

constexpr size_t SizeGranularity = 16;

uint32 priorityOf(size_t numItems, size_t costPerElement) noexcept {
    constexpr uint64 Highest = std::numeric_limits<uint32>::max();
    uint64 priority = 0;
    if (__builtin_mul_overflow(numItems, costPerElement, &priority))
        return Highest;
    return static_cast<uint32>(std::min(priority, Highest));
}

} // namespace

CpuKernel::CpuKernel(const Name& name, Callback dispatch, Device* device)
    : Kernel(name, device, std::move(dispatch)) {
    setModel(ClassModel());
}

CpuKernel::CpuKernel(const Name& name, Callback1<const RangeJob&> callback, Device* device)
    : Kernel(name, device, [this] { generateJobs(); }), m_callback(std::move(callback)) {
    setModel(ClassModel());
}

CpuKernel::~CpuKernel() = default;

void CpuKernel::generateJobs() {
    const size_t numItems = countWorkItems();
    const size_t jobsPerThread = getNumJobsPerThread();
    zelVerifyN(jobsPerThread > 0, "%s: numJobsPerThread must be at least 1", getPath().c_str());
    size_t numWanted = 0;
    size_t size = 0;
    if (!__builtin_mul_overflow(getNumThreads(), jobsPerThread, &numWanted))
        size = (numItems / numWanted + SizeGranularity - 1) & ~(SizeGranularity - 1);
    size = size < getMinJobSize() ? getMinJobSize() : std::min(size, getMaxJobSize());
    size = std::max<size_t>(size, 1); // whatever the bounds say
    const size_t numJobs = numItems / size + (numItems % size != 0 ? 1 : 0);

    const Cut cut{numItems, size, getCostPerElement()};
    if (cut != m_cut || getJobs().size() != numJobs) {
        removeAllJobs();
        m_numJobs = numJobs;
        m_cut = cut;
        if (numJobs != 0)
            addJobs(cut);
    }
    if (numJobs != 0)
        prepareGlobalResultSorting(numJobs);
}

uint32 CpuKernel::getJobIndex(const RangeJob& job) const noexcept {
    return static_cast<uint32>(job.getRange().begin() / m_cut.size);
}

void CpuKernel::addJobs(const Cut& cut) {
    RangeJob* const jobs = allocateRangeJobs(m_numJobs);
    for (size_t i = 0; i < m_numJobs; ++i) {
        RangeJob& job = jobs[i];
        const size_t begin = i * cut.size;
        const size_t end = std::min(begin + cut.size, cut.numItems);
        job.setRange({begin, end});
        job.setRangeCallback(m_callback);
        job.clearDependencies();
        job.setTargetThread(nullptr);
        job.setPriority(priorityOf(end - begin, cut.costPerElement));
        job.setName(getDispatchJob()->getName());
        addJob(&job);
    }
}

Model* CpuKernel::ClassModel() {
    return Model::createBuiltinModel("zel.CpuKernel", Kernel::ClassModel(), s_model);
}

} // namespace zel
