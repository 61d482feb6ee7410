#include <zel/JobGroup.h>
#include <zel/RangeJob.h>
#include <zel/Task.h>
#include <zel/Thread.h>
#include <zel/ThreadTask.h>
#include <zel/ThreadTimelineEntryEntity.h>
#include <zel/Timer.h>
#include <zelData/EntityStorage.h>

#include <algorithm>
#include <mutex>
#include <utility>

// What each thread notes of the jobs that it runs, and how these notes become entities.

namespace zel {

LocalTimelineEntry::LocalTimelineEntry() = default;
LocalTimelineEntry::LocalTimelineEntry(const LocalTimelineEntry& other) = default;
LocalTimelineEntry::LocalTimelineEntry(LocalTimelineEntry&& other) noexcept = default;
LocalTimelineEntry& LocalTimelineEntry::operator=(const LocalTimelineEntry& other) = default;
LocalTimelineEntry& LocalTimelineEntry::operator=(LocalTimelineEntry&& other) noexcept = default;
LocalTimelineEntry::~LocalTimelineEntry() = default;

constinit std::atomic<bool> Thread::s_enableJobTimeline{false};
constinit std::atomic<bool> Thread::s_registerTimelineEntries{false};
constinit std::atomic<uint64> Thread::s_timelineStartTick{0};
constinit std::atomic<uint64> Thread::s_frameStartTick{0};
constinit std::atomic<uint64> Thread::s_frameEndTick{0};

namespace {

constexpr uint64 OpenEnd = static_cast<uint64>(-1);

/// In milliseconds; negative for what began before the frame.
double since(uint64 start, uint64 tick) {
    return tick >= start ? Timer::toMilliseconds(tick - start) : -Timer::toMilliseconds(start - tick);
}

} // namespace

void Thread::resetStartTick() {
    const uint64 now = Timer::now();
    uint64 never = 0;
    s_timelineStartTick.compare_exchange_strong(never, now, std::memory_order_relaxed);
    s_frameStartTick.store(now, std::memory_order_relaxed);
    s_registerTimelineEntries.store(true, std::memory_order_relaxed);
}

void Thread::pushTimelineEntry(const LocalTimelineEntry& entry) {
    // Only the threads of the pool are exported.
    if (getId() >= getNumThreads())
        return;
    const std::lock_guard lock(m_timelineLock);
    m_timelineEntries.push_back(entry);
}

void Thread::reportTimelineJob(const Job* job) {
    // Its members report themselves.
    if (dynamic_cast<const JobGroup*>(job) != nullptr)
        return;
    LocalTimelineEntry entry;
    // The cast above makes the analyzer doubt that there is a job.
    if (Task* task = job->getTask()) { // NOLINT(clang-analyzer-core.CallAndMessage)
        entry.taskId = task->getId();
        if (task->referenceCount() > 0)
            entry.task = task;
    }
    entry.startTick = job->getStartTick();
    entry.endTick = job->getStartTick() + job->getCycles();
    entry.queueLength = static_cast<uint32>(m_queueLength);
    entry.priority = job->getPriority();
    entry.description = job->getName();
    entry.job = job;
    if (const auto* rangeJob = dynamic_cast<const RangeJob*>(job)) {
        entry.extraTitle = "numWorkItems";
        entry.extraValue = static_cast<double>(rangeJob->getRange().size());
    }
    pushTimelineEntry(entry);
}

void Thread::reportSystemJob(
    uint64 startTick, uint64 endTick, const String& name, const String& extraTitle, double extraValue) {
    LocalTimelineEntry entry;
    entry.startTick = startTick;
    entry.endTick = endTick;
    entry.description = name;
    entry.extraTitle = extraTitle;
    entry.extraValue = extraValue;
    pushTimelineEntry(entry);
}

bool Thread::beginSleepEntry() {
    if (!isTimelineOn())
        return false;
    reportSystemJob(Timer::now(), OpenEnd, "sleeping", String(), 0);
    return true;
}

void Thread::endSleepEntry() {
    const std::lock_guard lock(m_timelineLock);
    if (!m_timelineEntries.empty())
        m_timelineEntries.back().endTick = Timer::now();
}

void Thread::exportTimelineEntries() {
    Vector<LocalTimelineEntry> entries;
    {
        const std::lock_guard lock(m_timelineLock);
        std::swap(entries, m_timelineEntries);
    }
    ThreadTimelineEntryModel* model = ThreadTimelineEntryModel::instance();
    zelData::EntityStorage* storage = getDefaultStorage(model);
    storage->clear();
    if (entries.empty())
        return;
    const uint64 start = s_timelineStartTick.load(std::memory_order_relaxed);
    const uint64 frameStart = s_frameStartTick.load(std::memory_order_relaxed);
    const uint64 frameEnd = s_frameEndTick.load(std::memory_order_relaxed);
    const auto range = storage->createInstances(entries.size());
    const ref_ptr<zelData::EntityData> view(model->createData(storage));
    auto& data = static_cast<ThreadTimelineEntryData&>(*view);
    for (size_t i = 0; i < entries.size(); ++i) {
        const LocalTimelineEntry& entry = entries[i];
        const size_t row = range.begin() + i;
        const uint64 end = entry.endTick == OpenEnd ? frameEnd : entry.endTick;
        data.taskId[row] = entry.taskId;
        data.startTimeGlobal[row] = since(start, entry.startTick);
        data.endTimeGlobal[row] = since(start, end);
        data.startTimeFrame[row] = since(frameStart, entry.startTick);
        data.endTimeFrame[row] = since(frameStart, end);
        data.description[row] = entry.description;
        data.costEstimate[row] = entry.priority;
        data.poolSize[row] = entry.queueLength;
        data.jobType[row] = static_cast<uint8>(entry.jobType);
        data.jobPtr[row] = reinterpret_cast<uint64>(entry.job);
        data.extraDataTitle[row] = entry.extraTitle;
        data.extraData[row] = entry.extraValue;
    }
}

void Thread::exportAllTimelines() {
    const MainThreadHold hold;
    s_registerTimelineEntries.store(false, std::memory_order_relaxed);
    s_frameEndTick.store(Timer::now(), std::memory_order_relaxed);
    // Loaded here, and not by all threads at once.
    static_cast<void>(ThreadTimelineEntryModel::instance());
    // Its jobs are made when it is active, and the pool stays as it is.
    const ref_ptr<ThreadTask> task(new ThreadTask(
        "TimelineExport", [] { getCurrentThread()->exportTimelineEntries(); }, ZEL_MAX_NUM_THREADS));
    task->execute();
}

} // namespace zel
