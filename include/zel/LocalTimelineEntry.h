#pragma once

#include <zel/Export.h>
#include <zel/Integers.h>
#include <zel/String.h>
#include <zel/ref_ptr.h>

namespace zel {

class Job;
class Task;

/// What a thread notes of one job that it has run, or of a while that it slept. Times are of the time-stamp
/// counter.
struct ZEL_CORE_API LocalTimelineEntry {
    LocalTimelineEntry();
    LocalTimelineEntry(const LocalTimelineEntry& other);
    LocalTimelineEntry(LocalTimelineEntry&& other) noexcept;
    LocalTimelineEntry& operator=(const LocalTimelineEntry& other);
    LocalTimelineEntry& operator=(LocalTimelineEntry&& other) noexcept;
    ~LocalTimelineEntry();

    ref_ptr<Task> task; // null for a task that nobody owns by reference
    uint32 jobType = 3;
    uint64 startTick = 0;
    uint64 endTick = 0;
    uint32 queueLength = 0;
    uint32 priority = 0;
    String description;
    const Job* job = nullptr; // for its address alone: it may be gone
    String extraTitle;        // what the extra value is; empty for none
    double extraValue = 0;
    uint32 taskId = 0; // 0 without a task
};

} // namespace zel
