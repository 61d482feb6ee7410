#include <zel/CpuKernel.h>
#include <zel/Model.h>
#include <zel/RangeJob.h>
#include <zel/Thread.h>
#include <zel/Timer.h>
#include <zel/Verify.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <utility>

namespace zel {

namespace {

constexpr size_t SizeGranularity = 16;

// How jobs are put into rows, in milliseconds. Below the first time a second thread does not pay, above the
// second one it does; what lies between stays as it is.
constexpr double SmallTime = 0.002;
constexpr double LargeTime = 0.004;
// A row keeps others from the thread for about as long as a thread looks for work before it sleeps.
constexpr double RowTime = 0.05;
constexpr size_t MostRowsPerThread = 32;
// What the longest of equal parts may take beyond the mean of them.
constexpr double EvenRatio = 1.5;
constexpr double EvenTime = 0.002;
// Uneven jobs run by themselves and may be many: only one run in so many looks at what they took.
constexpr size_t UnseenRuns = 16;

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

    lookAtLastRun();
    const Cut cut{numItems, size, getCostPerElement()};
    if (cut != m_cut || getJobs().size() != numJobs) {
        removeAllJobs();
        m_numJobs = numJobs;
        m_cut = cut;
        if (numJobs != 0)
            addJobs(cut);
    }
    const size_t numRows = chooseNumRows();
    setNumRows(numRows);
    setParallel(numRows != 1);
    if (numJobs != 0)
        prepareGlobalResultSorting(numJobs);
}

void CpuKernel::lookAtLastRun() {
    const size_t numRows = getNumRows();
    const size_t number = numRows != 0 ? numRows : getJobs().size();
    if (number == 0)
        return;
    if (m_numUnseenRuns > 0) {
        --m_numUnseenRuns;
        return;
    }
    // Jobs that run by themselves in as many parts as there are threads, which is what rows would be.
    const size_t numParts = numRows != 0 ? numRows : std::min(number, getNumThreads());
    uint64 longest = 0;
    m_ticks = 0;
    m_numItems = m_cut.numItems;
    for (size_t i = 0, end = 0; i < numParts; ++i) {
        uint64 part = 0;
        for (size_t k = std::exchange(end, number * (i + 1) / numParts); k < end; ++k)
            part += getTicks(k);
        m_ticks += part;
        longest = std::max(longest, part);
    }
    m_even = Timer::toMilliseconds(longest * numParts) <
             EvenRatio * Timer::toMilliseconds(m_ticks) + EvenTime * static_cast<double>(numParts);
    if (!m_even && numRows == 0)
        m_numUnseenRuns = UnseenRuns;
}

size_t CpuKernel::chooseNumRows() const {
    if (m_numJobs == 0 || m_numItems == 0)
        return 0;
    double time = Timer::toMilliseconds(m_ticks);
    if (m_cut.numItems != m_numItems)
        time *= static_cast<double>(m_cut.numItems) / static_cast<double>(m_numItems);
    const size_t present = getNumRows();
    if (time < (present == 1 ? LargeTime : SmallTime))
        return 1;
    if (!m_even)
        return 0;
    const size_t numThreads = getNumThreads();
    const double wanted = time / (RowTime * static_cast<double>(numThreads));
    // Rows that come and go would change their threads: half as many to twice as many will do.
    if (const size_t perThread = present / numThreads;
        perThread * numThreads == present && perThread != 0 && wanted < 2 * static_cast<double>(perThread) &&
        (perThread == 1 || wanted > 0.5 * static_cast<double>(perThread)))
        return std::min(present, m_numJobs);
    return std::min(m_numJobs,
                    numThreads * std::clamp<size_t>(static_cast<size_t>(wanted) + 1, 1, MostRowsPerThread));
}

uint32 CpuKernel::getJobIndex(const RangeJob& job) const noexcept {
    return static_cast<uint32>(job.getRange().begin() / m_cut.size);
}

void CpuKernel::addJobs(const Cut& cut) {
    reserveRows(std::min(m_numJobs, MostRowsPerThread * getNumThreads()));
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
    static std::atomic<Model*> s_model{nullptr};
    return Model::createBuiltinModel("zel.CpuKernel", Kernel::ClassModel(), s_model);
}

} // namespace zel
